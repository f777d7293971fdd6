// Erasure detection, the checks that reject packets (the field layout is
// pinned by the encoder's pack/unpack round trip and FFmpeg reading the
// encoder's files), the in-place conversion between the
// byte-stream and word layouts, the cosine over its whole range and the
// LSP-to-LPC overflow fallback.
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

// Delay index 100 is accepted and 101 rejected at both speech rates.
TEST(Unpack, DelayRange) {
    std::mt19937 rng(15);
    evrc_random::FullRateFields full = evrc_random::random_full_rate_fields(rng);
    evrc_random::HalfRateFields half = evrc_random::random_half_rate_fields(rng);
    for (int index : {100, 101, 127}) {
        full.delay_index = half.delay_index = index;
        EvrcPacket pf = evrc_random::bytes_to_packet(evrc_random::pack_full_rate(full));
        EvrcPacket ph = evrc_random::bytes_to_packet(evrc_random::pack_half_rate(half));
        EvrcFrameParams fp = {};
        EXPECT_EQ(evrc_unpack(&fp, &pf), index > 100 ? 1 : 0) << "rate 1, index " << index;
        EXPECT_EQ(fp.delay, index + 20);
        fp = {};
        EXPECT_EQ(evrc_unpack(&fp, &ph), index > 100 ? 1 : 0) << "rate 1/2, index " << index;
    }
}

// Random LSP sets with small, zero and negative steps: bad exactly when some
// neighbour is not strictly above the one before.
TEST(Unpack, OrderCheckRejectsEqualAndDescendingNeighbours) {
    std::mt19937 rng(16);
    for (int it = 0; it < iterations(3000); ++it) {
        EvrcFrameParams fp = {};
        int v = 0, ascending = 1;
        for (Word16 &l : fp.lsp) l = static_cast<Word16>(v += static_cast<int>(rng() % 100) - (it % 2 ? 5 : 0));
        for (int i = 0; i < 9; ++i) ascending &= fp.lsp[i] < fp.lsp[i + 1];
        evrc_check_lsps(&fp);
        ASSERT_EQ(fp.bad_frame, 1 - ascending) << "iteration " << it;
    }
}

TEST(FerDetect, ChoosesDecodeOrConcealmentAndTheRateToConcealAs) {
    // rate word, first data word, previous rate, previous erased -> conceal, rate after
    const Word16 cases[][6] = {
        {EVRC_RATE_FULL, 0, EVRC_RATE_EIGHTH, 1, 0, EVRC_RATE_FULL},
        {EVRC_RATE_HALF, -1, EVRC_RATE_FULL, 0, 0, EVRC_RATE_HALF},
        {EVRC_RATE_EIGHTH, 0x1234, EVRC_RATE_HALF, 0, 0, EVRC_RATE_EIGHTH},
        {EVRC_RATE_EIGHTH, 0x1234, EVRC_RATE_FULL, 1, 0, EVRC_RATE_EIGHTH},
        {EVRC_RATE_EIGHTH, 0x1234, EVRC_RATE_FULL, 0, 1, EVRC_RATE_FULL},  // straight after good rate 1
        {EVRC_RATE_EIGHTH, -1, EVRC_RATE_EIGHTH, 0, 1, EVRC_RATE_EIGHTH},  // all ones: erasure
        {EVRC_RATE_EIGHTH, -1, EVRC_RATE_HALF, 0, 1, EVRC_RATE_FULL},
        {0x0013, 0, EVRC_RATE_FULL, 0, 1, EVRC_RATE_FULL},  // the whole rate word is compared
        {0x0013, 0, EVRC_RATE_EIGHTH, 0, 1, EVRC_RATE_EIGHTH},
        {0x0104, 0, EVRC_RATE_HALF, 0, 1, EVRC_RATE_FULL},
        {EVRC_RATE_BLANK, 0, EVRC_RATE_HALF, 0, 1, EVRC_RATE_FULL},
        {EVRC_RATE_QUARTER, 0, EVRC_RATE_EIGHTH, 1, 1, EVRC_RATE_EIGHTH},
        {7, 0, EVRC_RATE_FULL, 1, 1, EVRC_RATE_FULL},
    };
    for (const auto &c : cases) {
        EvrcPacket p = {};
        p.rate = c[0];
        p.data[0] = c[1];
        EXPECT_EQ(evrc_fer_detect(&p, c[2], c[3], c[1]), c[4]) << "rate word " << c[0] << " prev " << c[2];
        EXPECT_EQ(p.rate, c[5]) << "rate word " << c[0] << " prev " << c[2];
    }
}

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

constexpr double kPi = 3.14159265358979323846;

TEST(Poscos, FollowsMinusCosineAndKeepsTheZeroQuirk) {
    EXPECT_EQ(evrc_voc_poscos(0), -1073741820);
    EXPECT_EQ(evrc_voc_poscos(8192), 0);
    double worst = 0;
    for (int lsp = 1; lsp <= 16384; ++lsp) {
        const double expected = -std::cos(2 * kPi * lsp / 32768.0);
        worst = std::max(worst, std::fabs(evrc_voc_poscos(static_cast<Word16>(lsp)) / 1073741824.0 - expected));
    }
    EXPECT_LT(worst, 2e-4);
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
