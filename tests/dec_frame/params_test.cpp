// What the decoded streams of the golden test do not reach: the in-place
// conversion between the byte-stream and word layouts (no caller in this
// project) and the LSP-to-LPC overflow fallback. (Erasure detection, the
// packet checks and the field layout are pinned by the golden streams, the
// encoder's pack/unpack round trip and FFmpeg reading the encoder's files.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"
#include "tests/support/iterations.h"
#include "tools/random_packets.h"

namespace {

using evrc_test::iterations;

using Buffer = std::vector<uint8_t>;

Buffer noise_buffer(std::mt19937 &rng) {
    Buffer b(24);
    for (uint8_t &x : b) x = static_cast<uint8_t>(rng());
    return b;
}

// Stream to words and back for every rate; the word view holds the rate word,
// then the earlier byte in each word's high half.
TEST(Repacking, EveryRateRoundTripsThroughTheWordLayout) {
    std::mt19937 rng(31);
    for (int it = 0; it < iterations(200); ++it) {
        for (int rate : {EVRC_RATE_EIGHTH, EVRC_RATE_HALF, EVRC_RATE_FULL}) {
            const std::vector<uint8_t> bytes = evrc_random::random_packet_bytes(rng, rate);
            Buffer b = noise_buffer(rng);
            std::memcpy(b.data(), bytes.data(), bytes.size());
            evrc_repacking_kel_to_dsp(b.data());
            uint16_t w[12];
            std::memcpy(w, b.data(), sizeof w);
            const EvrcPacket expected = evrc_random::bytes_to_packet(bytes);
            EXPECT_EQ(w[0], rate);
            for (size_t k = 0; k < (bytes.size() - 1) / 2; ++k)
                ASSERT_EQ(static_cast<Word16>(w[k + 1]), expected.data[k]) << "word " << k;
            ASSERT_EQ(evrc_repacking_dsp_to_kel(b.data()), static_cast<int>(bytes.size()));
            ASSERT_EQ(0, std::memcmp(b.data(), bytes.data(), bytes.size())) << "rate " << rate;
        }
    }
}

TEST(Repacking, EdgeLayouts) {
    std::mt19937 rng(32);
    // Words to stream leaves the byte behind the packet (b[11] or b[23]) stale.
    for (int rate : {EVRC_RATE_HALF, EVRC_RATE_FULL}) {
        const EvrcPacket p = evrc_random::random_packet(rng, rate);
        Buffer b = noise_buffer(rng);
        const uint16_t rate_word = static_cast<uint16_t>(p.rate);
        std::memcpy(b.data(), &rate_word, 2);
        std::memcpy(b.data() + 2, p.data, sizeof p.data);
        const Buffer before = b;
        const int n = evrc_repacking_dsp_to_kel(b.data());
        ASSERT_EQ(n, rate == EVRC_RATE_FULL ? 23 : 11);
        EXPECT_TRUE(std::equal(b.begin() + n, b.end(), before.begin() + n));
        const std::vector<uint8_t> stream = evrc_random::packet_to_bytes(p);
        EXPECT_EQ(0, std::memcmp(b.data(), stream.data(), stream.size()));
    }
    // Rates without payload and unknown rates leave the buffer alone.
    const int cases[][2] = {{0x00, 1}, {0x02, 0}, {0x05, 0}, {0x0F, 0}, {0x30, 1}};
    for (const auto &c : cases) {
        Buffer b = noise_buffer(rng);
        b[0] = static_cast<uint8_t>(c[0]);
        const Buffer before = b;
        EXPECT_EQ(evrc_repacking_dsp_to_kel(b.data()), c[1]) << c[0];
        EXPECT_EQ(b, before) << c[0];
    }
}

// LSPs crowded at one band edge overflow Q24: the previous vector is kept,
// scaled by powers of 0.8.
TEST(LspToLpc, OverflowingSetKeepsThePreviousVectorScaledByPowersOfPointEight) {
    const Word16 low[10] = {10, 20, 30, 40, 50, 60, 70, 80, 90, 100};
    const Word16 high[10] = {16280, 16290, 16300, 16310, 16320, 16330, 16340, 16350, 16360, 16370};
    for (const Word16 *lsp : {low, high}) {
        const Word16 before[10] = {4096, -4096, 32767, -32768, 1, -1, 100, 2000, -3000, 12345};
        Word16 a[10];
        std::copy(before, before + 10, a);
        cmn1x_lsp2lpc(lsp, a, 3);
        for (int i = 0; i < 10; ++i) EXPECT_EQ(a[i], static_cast<Word16>((2 * int64_t{before[i]} * evrc_acsPwAlpha1[i] + 0x8000) >> 16)) << i;
    }
}

}  // namespace
