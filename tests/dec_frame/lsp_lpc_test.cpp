// LSP interpolation and LSP-to-LPC conversion against wide-integer and
// double-precision models.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"
#include "tests/dec_frame/frame_test_util.h"
#include "tests/support/random_packets.h"

namespace {

using dec_frame_test::iterations;

constexpr double kPi = 3.14159265358979323846;

int64_t clamp32(int64_t x) { return std::min<int64_t>(std::max<int64_t>(x, INT32_MIN), INT32_MAX); }

// Q15 weighted mean rounded to the upper half: 2 (16384 + cur w + prev (1 - w)) / 2^16.
TEST(InterpolateLsp, MatchesTheWeightedMeanModelForAnyWeight) {
    std::mt19937 rng(21);
    for (int it = 0; it < iterations(2000); ++it) {
        Word16 prev[10], cur[10], out[10];
        for (int i = 0; i < 10; ++i) {
            prev[i] = static_cast<Word16>(rng() % 32768);
            cur[i] = static_cast<Word16>(rng() % 32768);
        }
        const int w = it < 5 ? std::vector<int>{0, 5462, 16384, 27306, 32768}[it] : static_cast<int>(rng() % 65536);
        const Word16 last = cmn1x_interpolate_lsp(prev, cur, out, static_cast<Word16>(static_cast<uint16_t>(w)));
        for (int i = 0; i < 10; ++i) {
            const int64_t exact = clamp32(2 * (16384 + int64_t{cur[i]} * w + int64_t{prev[i]} * (32768 - w)));
            ASSERT_EQ(out[i], (exact - (((exact % 65536) + 65536) % 65536)) / 65536) << "weight " << w << " i " << i;
        }
        EXPECT_EQ(last, out[9]);
    }
}

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

// Q24 product of (1 + b z^-1 + z^-2) with a symmetric polynomial, against
// the exact product: only the dropped low-by-low term (under 256) and the
// truncation to a multiple of 256 separate them.
TEST(LspConvolve, TracksTheExactProductOfTheFactor) {
    std::mt19937 rng(22);
    std::uniform_int_distribution<int32_t> coeff(-(1 << 27), 1 << 27), factor(-(1 << 25), 1 << 25);
    for (int it = 0; it < iterations(1000); ++it) {
        const Word16 n = static_cast<Word16>(1 + it % 4);
        Word32 in[6] = {}, out[6] = {};
        for (int k = 0; k <= n; ++k) in[k] = coeff(rng);
        in[n + 1] = in[n - 1];
        const Word32 b = factor(rng);
        evrc_voc_lsp_convolve(b, in, out, n);
        for (int k = 0; k <= n + 1; ++k) {
            const double prod = k >= 1 ? static_cast<double>(b) * in[k - 1] / 16777216.0 : 0.0;
            const double exact = in[k] + (k >= 2 ? in[k - 2] : 0) + prod;
            ASSERT_NEAR(out[k], std::min(std::max(exact, -2147483648.0), 2147483647.0), 513.0) << n << " " << k;
        }
        if (n + 2 < 6) {
            EXPECT_EQ(out[n + 2], out[n]);
        }
    }
}

// Double-precision LSP -> LPC: A(z) = (P(z)(1 + z^-1) + Q(z)(1 - z^-1)) / 2.
std::vector<double> reference_lpc(const Word16 *lsp) {
    auto product = [&](int first) {
        std::vector<double> poly{1.0};
        for (int j = first; j < 10; j += 2) {
            const double c = -2 * std::cos(2 * kPi * lsp[j] / 32768.0);
            std::vector<double> next(poly.size() + 2, 0.0);
            for (size_t i = 0; i < poly.size(); ++i) {
                next[i] += poly[i];
                next[i + 1] += c * poly[i];
                next[i + 2] += poly[i];
            }
            poly = next;
        }
        return poly;
    };
    const std::vector<double> p = product(0), q = product(1);
    std::vector<double> a(10);
    for (int m = 1; m <= 10; ++m) a[m - 1] = -((p[m] + p[m - 1]) + (q[m] - q[m - 1])) / 2;
    return a;
}

// Codebook LSP sets of every rate, and random ascending sets at least 1% of
// the band apart whose sum and difference polynomials stay in the Q24 range
// (|P1|, |Q1| <= |a[i]| + |a[9 - i]| below 127).
TEST(LspToLpc, MatchesDoublePrecision) {
    std::mt19937 rng(23);
    for (int it = 0; it < iterations(600); ++it) {
        Word16 lsp[10];
        if (it % 2 == 0) {
            EvrcPacket p = evrc_test::random_packet(rng, std::vector<int>{EVRC_RATE_EIGHTH, EVRC_RATE_HALF, EVRC_RATE_FULL}[it % 3]);
            EvrcFrameParams fp = {};
            ASSERT_EQ(evrc_unpack(&fp, &p), 0);
            std::copy(fp.lsp, fp.lsp + 10, lsp);
        } else {
            int v = 0;
            for (Word16 &l : lsp) l = static_cast<Word16>(v += 330 + static_cast<int>(rng() % 2271));
            if (v >= 16000) continue;
        }
        const std::vector<double> ref = reference_lpc(lsp);
        double worst = 0;
        for (int i = 0; i < 5; ++i) worst = std::max(worst, std::fabs(ref[i]) + std::fabs(ref[9 - i]));
        if (it % 2 == 1 && worst >= 127) continue;
        Word16 a[10] = {};
        cmn1x_lsp2lpc(lsp, a, 3);
        for (int i = 0; i < 10; ++i)  // Q12 holds coefficients up to 8; larger ones saturate
            ASSERT_NEAR(a[i] / 4096.0, std::min(std::max(ref[i], -8.0), 32767 / 4096.0), 2.5e-3) << i << " " << lsp[0];
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

TEST(BandwidthExpansion, WorksInPlaceAndRoundsEachProduct) {
    std::mt19937 rng(25);
    for (int it = 0; it < iterations(200); ++it) {
        Word16 in[10], out[10], inplace[10];
        for (int i = 0; i < 10; ++i) in[i] = inplace[i] = static_cast<Word16>(rng());
        const Word16 last = evrc_bwe_lpc_sp(in, out, evrc_acsGamma75Tab);
        evrc_bwe_lpc_sp(inplace, inplace, evrc_acsGamma75Tab);
        for (int i = 0; i < 10; ++i) {
            ASSERT_EQ(out[i], static_cast<Word16>((2 * int64_t{in[i]} * evrc_acsGamma75Tab[i] + 0x8000) >> 16));
            ASSERT_EQ(inplace[i], out[i]);
        }
        EXPECT_EQ(last, out[9]);
    }
}

}  // namespace
