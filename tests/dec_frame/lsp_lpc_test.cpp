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

// Floor division by 2^16 of a value known to fit in 32 bits.
int high_half(int64_t x) { return static_cast<int>((x - (((x % 65536) + 65536) % 65536)) / 65536); }

TEST(InterpolateLsp, MatchesTheWeightedMeanModelForAnyWeight) {
    std::mt19937 rng(21);
    std::uniform_int_distribution<int> lsp(0, 32767);
    std::uniform_int_distribution<int> weight(0, 65535);
    for (int it = 0; it < iterations(2000); ++it) {
        Word16 prev[10], cur[10], out[10];
        for (int i = 0; i < 10; ++i) {
            prev[i] = static_cast<Word16>(lsp(rng));
            cur[i] = static_cast<Word16>(lsp(rng));
        }
        const int w = it < 5 ? std::vector<int>{0, 5462, 16384, 27306, 32768}[it] : weight(rng);
        const Word16 last = cmn1x_interpolate_lsp(prev, cur, out, static_cast<Word16>(static_cast<uint16_t>(w)));
        for (int i = 0; i < 10; ++i) {
            const int64_t exact = 2 * (16384 + int64_t{cur[i]} * w + int64_t{prev[i]} * (32768 - w));
            ASSERT_EQ(out[i], high_half(clamp32(exact))) << "weight " << w << " i " << i;
        }
        EXPECT_EQ(last, out[9]);
    }
}

TEST(InterpolateLsp, SubframeWeightsFavourTheRightFrame) {
    const Word16 prev[10] = {1000, 2000, 3000, 4000, 5000, 6000, 7000, 8000, 9000, 10000};
    const Word16 cur[10] = {1601, 2601, 3601, 4601, 5601, 6601, 7601, 8601, 9601, 10601};
    Word16 out[10];
    cmn1x_interpolate_lsp(prev, cur, out, 16384);
    EXPECT_EQ(out[0], 1301);  // the mean 1300.5 rounds up
    cmn1x_interpolate_lsp(prev, cur, out, 5462);
    EXPECT_EQ(out[0], 1100);  // one sixth of the way
    cmn1x_interpolate_lsp(prev, cur, out, 0);
    EXPECT_EQ(out[9], 10000);
}

TEST(Poscos, FollowsMinusCosineAndKeepsTheZeroQuirk) {
    EXPECT_EQ(evrc_voc_poscos(0), -1073741820);
    double worst = 0;
    for (int lsp = 1; lsp <= 16384; ++lsp) {
        const double expected = -std::cos(2 * kPi * lsp / 32768.0);
        const double got = evrc_voc_poscos(static_cast<Word16>(lsp)) / 1073741824.0;
        worst = std::max(worst, std::fabs(got - expected));
    }
    EXPECT_LT(worst, 2e-4);
    // 8192 is a quarter of the band: cos = 0 exactly.
    EXPECT_EQ(evrc_voc_poscos(8192), 0);
}

// Q24 product of (1 + b z^-1 + z^-2) with a symmetric polynomial, against
// the exact product: only the dropped low-by-low term (under 256) and the
// truncation to a multiple of 256 separate them.
TEST(LspConvolve, TracksTheExactProductOfTheFactor) {
    std::mt19937 rng(22);
    std::uniform_int_distribution<int32_t> coeff(-(1 << 27), 1 << 27);
    std::uniform_int_distribution<int32_t> factor(-(1 << 25), 1 << 25);
    for (int it = 0; it < iterations(1000); ++it) {
        const Word16 n = static_cast<Word16>(1 + it % 4);
        Word32 in[6] = {};
        for (int k = 0; k <= n; ++k) in[k] = coeff(rng);
        in[n + 1] = in[n - 1];
        const Word32 b = factor(rng);
        Word32 out[6] = {};
        evrc_voc_lsp_convolve(b, in, out, n);
        for (int k = 0; k <= n + 1; ++k) {
            const double prod = k >= 1 ? static_cast<double>(b) * in[k - 1] / 16777216.0 : 0.0;
            const double exact = in[k] + (k >= 2 ? in[k - 2] : 0) + prod;
            const double clamped = std::min(std::max(exact, -2147483648.0), 2147483647.0);
            ASSERT_NEAR(out[k], clamped, 513.0) << "n " << n << " k " << k;
        }
        if (n + 2 < 6) {
            EXPECT_EQ(out[n + 2], out[n]);
        }
    }
}

// Double-precision LSP -> LPC: A(z) = (P(z)(1 + z^-1) + Q(z)(1 - z^-1)) / 2.
// Largest |P1|, |Q1| coefficient of the sum and difference polynomials;
// at 128 or more (2^31 in Q24) the fixed-point conversion falls back to the
// previous coefficients.
double largest_polynomial_sum(const Word16 *lsp);

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
    const std::vector<double> p = product(0);
    const std::vector<double> q = product(1);
    std::vector<double> a(10);
    for (int m = 1; m <= 10; ++m) {
        const double pm = p[m] + p[m - 1];
        const double qm = (m < 11 ? q[m] : 0.0) - q[m - 1];
        a[m - 1] = -(pm + qm) / 2;
    }
    return a;
}

double largest_polynomial_sum(const Word16 *lsp) {
    const std::vector<double> a = reference_lpc(lsp);
    // a = -(P1 + Q1) / 2 and a[9 - i] pairs with (Q1 - P1) / 2: |P1|, |Q1| <= |a[i]| + |a[9 - i]|.
    double worst = 0;
    for (int i = 0; i < 5; ++i) worst = std::max(worst, std::fabs(a[i]) + std::fabs(a[9 - i]));
    return worst;
}

void expect_lpc_near_reference(const Word16 *lsp, double tolerance) {
    Word16 a[10] = {};
    cmn1x_lsp2lpc(lsp, a, 3);
    const std::vector<double> ref = reference_lpc(lsp);
    for (int i = 0; i < 10; ++i) {
        // Q12 holds coefficients up to 8; larger ones saturate.
        const double expected = std::min(std::max(ref[i], -8.0), 32767 / 4096.0);
        ASSERT_NEAR(a[i] / 4096.0, expected, tolerance) << "coefficient " << i << ", first lsp " << lsp[0];
    }
}

TEST(LspToLpc, MatchesDoublePrecisionForCodebookLspSets) {
    std::mt19937 rng(23);
    for (int it = 0; it < iterations(300); ++it) {
        const int rate = std::vector<int>{EVRC_RATE_EIGHTH, EVRC_RATE_HALF, EVRC_RATE_FULL}[it % 3];
        EvrcPacket p = evrc_test::random_packet(rng, rate);
        EvrcFrameParams fp = {};
        ASSERT_EQ(evrc_unpack(&fp, &p), 0);
        expect_lpc_near_reference(fp.lsp, 2.5e-3);
    }
}

TEST(LspToLpc, MatchesDoublePrecisionForSpreadRandomLspSets) {
    std::mt19937 rng(24);
    for (int it = 0; it < iterations(300); ++it) {
        // Ten ascending LSPs at least 1% of the band apart.
        std::uniform_int_distribution<int> gap(330, 2600);
        Word16 lsp[10];
        int v = 0;
        for (Word16 &l : lsp) {
            v += gap(rng);
            l = static_cast<Word16>(v);
        }
        if (v >= 16000 || largest_polynomial_sum(lsp) >= 127) continue;
        expect_lpc_near_reference(lsp, 2.5e-3);
    }
}

TEST(LspToLpc, OverflowingSetKeepsThePreviousVectorScaledByPowersOfPointEight) {
    // LSPs crowded at one band edge give polynomial coefficients near the
    // binomial ones, far beyond the 32-bit range in Q24.
    const Word16 low[10] = {10, 20, 30, 40, 50, 60, 70, 80, 90, 100};
    const Word16 high[10] = {16280, 16290, 16300, 16310, 16320, 16330, 16340, 16350, 16360, 16370};
    for (const Word16 *lsp : {low, high}) {
        Word16 a[10] = {4096, -4096, 32767, -32768, 1, -1, 100, 2000, -3000, 12345};
        Word16 before[10];
        std::copy(a, a + 10, before);
        cmn1x_lsp2lpc(lsp, a, 3);
        for (int i = 0; i < 10; ++i) {
            int64_t t = 2 * int64_t{before[i]} * evrc_acsPwAlpha1[i] + 0x8000;
            EXPECT_EQ(a[i], static_cast<Word16>(t >> 16)) << i;
        }
    }
}

TEST(BandwidthExpansion, WorksInPlaceAndRoundsEachProduct) {
    std::mt19937 rng(25);
    std::uniform_int_distribution<int> coeff(-32768, 32767);
    for (int it = 0; it < iterations(200); ++it) {
        Word16 in[10], out[10], inplace[10];
        for (int i = 0; i < 10; ++i) in[i] = inplace[i] = static_cast<Word16>(coeff(rng));
        const Word16 last = evrc_bwe_lpc_sp(in, out, evrc_acsGamma75Tab);
        evrc_bwe_lpc_sp(inplace, inplace, evrc_acsGamma75Tab);
        for (int i = 0; i < 10; ++i) {
            const int64_t t = 2 * int64_t{in[i]} * evrc_acsGamma75Tab[i] + 0x8000;
            ASSERT_EQ(out[i], static_cast<Word16>(t >> 16));
            ASSERT_EQ(inplace[i], out[i]);
        }
        EXPECT_EQ(last, out[9]);
    }
}

}  // namespace
