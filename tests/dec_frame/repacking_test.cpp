// In-place conversion between the byte-stream and the word packet layouts.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "evrc/evrc_dec.h"
#include "tests/dec_frame/frame_test_util.h"
#include "tests/support/random_packets.h"

namespace {

using Buffer = std::vector<uint8_t>;

// A 24-byte buffer holding the packet's bytes, the rest filled with noise.
Buffer stream_buffer(const std::vector<uint8_t> &bytes, std::mt19937 &rng) {
    Buffer b(24);
    for (uint8_t &x : b) x = static_cast<uint8_t>(rng());
    std::memcpy(b.data(), bytes.data(), bytes.size());
    return b;
}

EvrcPacket words_of(const Buffer &b) {
    uint16_t w[12];
    std::memcpy(w, b.data(), sizeof w);
    EvrcPacket p;
    p.rate = static_cast<Word16>(w[0]);
    for (int k = 0; k < 11; ++k) p.data[k] = static_cast<Word16>(w[k + 1]);
    return p;
}

TEST(Repacking, EveryRateRoundTripsThroughTheWordLayout) {
    std::mt19937 rng(31);
    for (int it = 0; it < dec_frame_test::iterations(200); ++it) {
        for (int rate : {EVRC_RATE_EIGHTH, EVRC_RATE_HALF, EVRC_RATE_FULL}) {
            const std::vector<uint8_t> bytes = evrc_test::random_packet_bytes(rng, rate);
            Buffer b = stream_buffer(bytes, rng);

            evrc_repacking_kel_to_dsp(b.data());
            // Word-level meaning: rate word, then earlier byte in the high half.
            const EvrcPacket got = words_of(b);
            const EvrcPacket expected = evrc_test::bytes_to_packet(bytes);
            EXPECT_EQ(got.rate, rate);
            const size_t data_words = (bytes.size() - 1) / 2;
            for (size_t k = 0; k < data_words; ++k) ASSERT_EQ(got.data[k], expected.data[k]) << "word " << k;

            ASSERT_EQ(evrc_repacking_dsp_to_kel(b.data()), static_cast<int>(bytes.size()));
            ASSERT_EQ(0, std::memcmp(b.data(), bytes.data(), bytes.size())) << "rate " << rate;
        }
    }
}

TEST(Repacking, WordsToStreamLeavesTheByteBehindThePacketStale) {
    std::mt19937 rng(32);
    for (int rate : {EVRC_RATE_HALF, EVRC_RATE_FULL}) {
        const EvrcPacket p = evrc_test::random_packet(rng, rate);
        Buffer b(24);
        uint16_t w[12] = {static_cast<uint16_t>(p.rate)};
        for (int k = 0; k < 11; ++k) w[k + 1] = static_cast<uint16_t>(p.data[k]);
        std::memcpy(b.data(), w, sizeof w);
        const Buffer before = b;
        const int n = evrc_repacking_dsp_to_kel(b.data());
        ASSERT_EQ(n, rate == EVRC_RATE_FULL ? 23 : 11);
        EXPECT_EQ(b[n], before[n]);  // b[11] or b[23]: not cleared
        for (int i = n + 1; i < 24; ++i) EXPECT_EQ(b[i], before[i]);
        const std::vector<uint8_t> stream = evrc_test::packet_to_bytes(p);
        EXPECT_EQ(0, std::memcmp(b.data(), stream.data(), stream.size()));
    }
}

TEST(Repacking, RatesWithoutPayloadAndUnknownRatesLeaveTheBuffer) {
    std::mt19937 rng(33);
    const struct {
        uint8_t rate_byte;
        int length;
    } cases[] = {{0x00, 1}, {0x02, 0}, {0x05, 0}, {0x0F, 0}, {0x30, 1}};
    for (const auto &c : cases) {
        Buffer b(24);
        for (uint8_t &x : b) x = static_cast<uint8_t>(rng());
        b[0] = c.rate_byte;
        const Buffer before = b;
        EXPECT_EQ(evrc_repacking_dsp_to_kel(b.data()), c.length) << int{c.rate_byte};
        EXPECT_EQ(b, before) << int{c.rate_byte};
    }
}

TEST(Repacking, EighthRateWordSplitsIntoTwoBytesAndRateBitsAboveTheCodeStay) {
    Buffer b(24, 0xEE);
    const uint16_t w[2] = {0x0041, 0xABCD};  // rate 1/8 with a stray high nibble
    std::memcpy(b.data(), w, sizeof w);
    EXPECT_EQ(evrc_repacking_dsp_to_kel(b.data()), 3);
    EXPECT_EQ(b[0], 0x41);
    EXPECT_EQ(b[1], 0xAB);
    EXPECT_EQ(b[2], 0xCD);
}

TEST(Repacking, StreamToWordsAlwaysClearsTheRateWordsHighByte) {
    for (uint8_t rate : {0x00, 0x01, 0x04, 0x07, 0xFF}) {
        Buffer b(24, 0x77);
        b[0] = rate;
        evrc_repacking_kel_to_dsp(b.data());
        EXPECT_EQ(b[0], rate);
        EXPECT_EQ(b[1], 0);
        EXPECT_EQ(b[23], 0x77);  // moved up from b[21]
    }
}

}  // namespace
