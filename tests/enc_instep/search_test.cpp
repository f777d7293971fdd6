// The codebook stages against exact models: the weighted synthesis filter
// against double precision, the adaptive gain choice against a brute-force
// error over the table, and the fixed-codebook search's indices, read back by
// the decoder's own codebook, recovering codevectors placed in the target.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>
#include <vector>

#include "codec/enc/encoder_internal.h"
#include "evrc/basic_op.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_enc.h"
#include "evrc/evrc_tables.h"

namespace {

int iterations(int full) {
    const char *v = std::getenv("EVRC_TEST_ITERATIONS");
    return v ? std::max(1, std::min(full, std::atoi(v))) : full;
}

// Random stable Q12 LPC set: a product of second-order sections with poles
// inside radius 0.9, expanded into A(z) = 1 - sum a_k z^-k.
void random_lpc(std::mt19937 &rng, double *a) {
    std::uniform_real_distribution<double> rad(0.3, 0.9), ang(0.1, 3.0);
    double poly[11] = {1.0};
    for (int s = 0; s < 5; ++s) {
        const double r = rad(rng), w = ang(rng);
        const double c1 = -2 * r * std::cos(w), c2 = r * r;
        for (int k = 10; k >= 2; --k) poly[k] += c1 * poly[k - 1] + c2 * poly[k - 2];
        poly[1] += c1;
    }
    for (int k = 0; k < 10; ++k) a[k] = -poly[k + 1];
}

TEST(CodebookStages, WeightedSynthesisFilterFollowsDoublePrecisionAcrossBlocks) {
    std::mt19937 rng(11);
    std::uniform_int_distribution<int> sample(-150, 150);
    for (int it = 0; it < iterations(200); ++it) {
        double a[10];
        random_lpc(rng, a);
        Word16 q[10], num[10], den[10];
        for (int k = 0; k < 10; ++k) {
            q[k] = static_cast<Word16>(std::lround(a[k] * 4096));
            num[k] = static_cast<Word16>(std::lround(q[k] * std::pow(0.9, k + 1)));
            den[k] = static_cast<Word16>(std::lround(q[k] * std::pow(0.5, k + 1)));
        }
        Word32 mem[30] = {};
        std::vector<double> s(10, 0), w(10, 0);
        double signal = 0, error = 0, peak = 0;
        for (int block = 0; block < 3; ++block) {
            Word16 in[54], out[54];
            for (Word16 &v : in) v = static_cast<Word16>(sample(rng));
            evrc_weighted_synthesis_filter(in, out, q, num, den, mem, 54);
            for (int n = 0; n < 54; ++n) {
                const size_t N = s.size();
                double sv = in[n];
                for (int k = 1; k <= 10; ++k) sv += q[k - 1] / 4096.0 * s[N - k];
                s.push_back(sv);
                double yv = sv;
                for (int k = 1; k <= 10; ++k) yv += -num[k - 1] / 4096.0 * s[N - k] + den[k - 1] / 4096.0 * w[N - k];
                w.push_back(yv);
                peak = std::max(peak, std::max(std::fabs(sv), std::fabs(yv)));
                signal += yv * yv;
                error += (out[n] - yv) * (out[n] - yv);
            }
        }
        // Rounding between the sections only (no section saturated): 35 dB apart.
        if (peak < 30000) {
            ASSERT_GT(10 * std::log10(signal / (error + 1e-9)), 35.0) << "iteration " << it;
        }
    }
}

// The block-wise weighting zeros against the shared prediction filter, for
// coefficient sets inside and beyond the 32-bit bound and loud inputs: the
// same outputs, memories, operation count and overflow flag.
TEST(CodebookStages, FastWeightedSynthesisMatchesItsReference) {
    std::mt19937 rng(17);
    std::uniform_int_distribution<int> coef(-32768, 32767), loud(-32768, 32767);
    for (int it = 0; it < iterations(300); ++it) {
        double a[10];
        random_lpc(rng, a);
        Word16 q[10], num[10], den[10], in[54];
        for (int k = 0; k < 10; ++k) {
            q[k] = static_cast<Word16>(std::lround(a[k] * 4096));
            num[k] = it % 4 == 3 ? static_cast<Word16>(coef(rng)) : static_cast<Word16>(q[k] * std::pow(0.9, k + 1));
            den[k] = static_cast<Word16>(q[k] * std::pow(0.5, k + 1));
        }
        for (Word16 &v : in) v = static_cast<Word16>(loud(rng) >> (it % 8));
        Word32 mem_fast[30], mem_ref[30];
        for (Word32 &m : mem_fast) m = static_cast<Word32>(rng()) >> (it % 16);
        std::copy(mem_fast, mem_fast + 30, mem_ref);
        const int L = 53 + it % 2;
        Word16 out_fast[54], out_ref[54];
        evrc_giOverflow = 0;
        const UWord32 c0 = evrc_op_counter;
        evrc_weighted_synthesis_filter(in, out_fast, q, num, den, mem_fast, static_cast<Word16>(L));
        const UWord32 c1 = evrc_op_counter;
        const Word32 flag_fast = evrc_giOverflow;
        evrc_giOverflow = 0;
        evrc_enc::weighted_synthesis_filter_reference(in, out_ref, q, num, den, mem_ref, static_cast<Word16>(L));
        ASSERT_TRUE(std::equal(out_fast, out_fast + L, out_ref)) << "iteration " << it;
        ASSERT_TRUE(std::equal(mem_fast, mem_fast + 30, mem_ref)) << "iteration " << it;
        EXPECT_EQ(c1 - c0, evrc_op_counter - c1);
        EXPECT_EQ(flag_fast, evrc_giOverflow);
    }
}

// The adaptive vector's 32-bit filtering against its 64-bit form, from
// quiet to full-scale vectors and responses (either side of the bound).
TEST(CodebookStages, FastAdaptiveFilteringMatchesItsReference) {
    std::mt19937 rng(23);
    std::uniform_int_distribution<int> full(-32768, 32767);
    for (int it = 0; it < iterations(400); ++it) {
        const int L = 53 + it % 2;
        Word16 v[54], h[54], y_fast[54], y_ref[54];
        for (int n = 0; n < L; ++n) {
            v[n] = static_cast<Word16>(full(rng) >> (it % 6));
            h[n] = static_cast<Word16>(full(rng) >> (3 + it % 7));
        }
        evrc_giOverflow = 0;
        const UWord32 c0 = evrc_op_counter;
        evrc_enc::acb_filter(v, h, y_fast, static_cast<Word16>(L));
        const UWord32 c1 = evrc_op_counter;
        const Word32 flag_fast = evrc_giOverflow;
        evrc_giOverflow = 0;
        evrc_enc::acb_filter_reference(v, h, y_ref, static_cast<Word16>(L));
        ASSERT_TRUE(std::equal(y_fast, y_fast + L, y_ref)) << "iteration " << it;
        EXPECT_EQ(c1 - c0, evrc_op_counter - c1);
        EXPECT_EQ(flag_fast, evrc_giOverflow);
    }
}

// Table gain with the least |x - g y|^2, y = h * v, in double precision.
int best_gain_model(const Word16 *x, const Word16 *v, const Word16 *h, int L, double *margin) {
    std::vector<double> y(L, 0.0);
    for (int n = 0; n < L; ++n)
        for (int k = 0; k <= n; ++k) y[n] += v[k] * h[n - k] / 2048.0;
    double err[8];
    for (int i = 0; i < 8; ++i) {
        const double g = evrc_acsACBGainTable[i] / 16384.0;
        err[i] = 0;
        for (int n = 0; n < L; ++n) err[i] += (x[n] - g * y[n]) * (x[n] - g * y[n]);
    }
    int best = 0;
    for (int i = 1; i < 8; ++i) best = err[i] < err[best] ? i : best;
    double second = 1e300;
    for (int i = 0; i < 8; ++i)
        if (i != best) second = std::min(second, err[i]);
    *margin = (second - err[best]) / (err[best] + 1.0);
    return best;
}

TEST(CodebookStages, AdaptiveGainIsTheLeastErrorTableEntry) {
    std::mt19937 rng(5);
    std::uniform_int_distribution<int> sample(-4000, 4000);
    std::uniform_real_distribution<double> gain(-0.2, 1.4);
    int compared = 0;
    for (int it = 0; it < iterations(400); ++it) {
        const int L = it % 2 ? 53 : 54;
        Word16 h[54], v[54], x[54], rest[54];
        for (int n = 0; n < L; ++n) h[n] = static_cast<Word16>(2048 * std::pow(0.85, n) * std::cos(0.7 * n));
        const double g = gain(rng);
        for (int n = 0; n < L; ++n) v[n] = static_cast<Word16>(sample(rng));
        for (int n = 0; n < L; ++n) {
            double y = 0;
            for (int k = 0; k <= n; ++k) y += v[k] * h[n - k] / 2048.0;
            x[n] = static_cast<Word16>(std::max(-32768.0, std::min(32767.0, g * y + sample(rng) / 4)));
        }
        double margin;
        const int expected = best_gain_model(x, v, h, L, &margin);
        const Word16 index = evrc_remove_acb(x, v, h, rest, static_cast<Word16>(L));
        if (margin > 1e-3) {
            ++compared;
            ASSERT_EQ(expected, index) << "iteration " << it;
        }
    }
    EXPECT_GT(compared, iterations(400) / 2);
}

// With a unit impulse response and no sharpening (lag beyond the subframe)
// The fast rate-1 pulse search against its reference form on random filtered
// targets (both signs of the sharpening, both subframe lengths): the same
// fields, gain index, operation count and overflow flag.
TEST(CodebookStages, FastPulseSearchMakesTheReferenceChoices) {
    std::mt19937 rng(21);
    std::uniform_int_distribution<int> sample(-6000, 6000), lag(15, 70);
    std::uniform_real_distribution<double> pole(0.5, 0.95), angle(0.2, 2.8);
    for (int it = 0; it < iterations(300); ++it) {
        const int L = it % 2 ? 53 : 54;
        const double r = pole(rng), w = angle(rng);
        Word16 h[54], x[54], res[54];
        for (int n = 0; n < L; ++n) h[n] = static_cast<Word16>(2048 * std::pow(r, n) * std::cos(w * n));
        for (int n = 0; n < L; ++n) {
            x[n] = static_cast<Word16>(sample(rng) >> (it % 4));
            res[n] = static_cast<Word16>(sample(rng) / 8);
        }
        const Word16 acb_gain = static_cast<Word16>(evrc_acsACBGainTable[it % 8]);
        const Word16 rate = it % 5 == 4 ? EVRC_RATE_HALF : EVRC_RATE_FULL;
        const Word16 pitch = static_cast<Word16>(lag(rng));
        Word16 fast[4] = {}, ref[4] = {};
        evrc_giOverflow = 0;
        const UWord32 c0 = evrc_op_counter;
        const Word16 g_fast = evrc_acelp(x, it % 3 ? res : nullptr, h, acb_gain, pitch, rate, L, fast);
        const UWord32 c1 = evrc_op_counter;
        const Word32 flag_fast = evrc_giOverflow;
        evrc_giOverflow = 0;
        const Word16 g_ref = evrc_enc::acelp_reference(x, it % 3 ? res : nullptr, h, acb_gain, pitch, rate, L, ref);
        ASSERT_EQ(g_fast, g_ref) << "iteration " << it;
        for (int i = 0; i < 4; ++i) ASSERT_EQ(fast[i], ref[i]) << "iteration " << it << " field " << i;
        EXPECT_EQ(c1 - c0, evrc_op_counter - c1);
        EXPECT_EQ(flag_fast, evrc_giOverflow);
    }
}

// With a unit impulse response and no sharpening (lag beyond the subframe)
// the target is the codevector itself; the search must find every pulse of
// a codevector of its own codebook, and the decoder must read them back.
TEST(CodebookStages, FixedCodebookRecoversItsOwnCodevectors) {
    std::mt19937 rng(9);
    Word16 h[54] = {2048};
    for (int it = 0; it < iterations(300); ++it) {
        const Word16 rate = it % 3 == 0 ? EVRC_RATE_HALF : EVRC_RATE_FULL;
        Word16 fields[4];
        if (rate == EVRC_RATE_FULL) {
            for (int i = 0; i < 3; ++i) fields[i] = static_cast<Word16>((rng() & 0x80) | (rng() % 121));
            fields[3] = static_cast<Word16>(((rng() % 4) << 9) | (rng() & 0x180) | (rng() % 121));
        } else {
            fields[0] = static_cast<Word16>(rng() & 0x3FF);
        }
        Word16 pulses[55];
        evrc_dec_fixed_codebook(pulses, fields, rate);
        Word16 x[54];
        for (int n = 0; n < 54; ++n) x[n] = static_cast<Word16>(pulses[n] / 4);
        // Distinct single pulses only: a double pulse leaves its track with
        // one position, like the single-pulse tracks.
        const bool distinct = std::count_if(pulses, pulses + 54, [](Word16 p) { return p == 2048 || p == -2048; }) ==
                              (rate == EVRC_RATE_FULL ? 8 : 3);
        if (pulses[54] != 0 || !distinct) continue;
        Word16 found_fields[4] = {};
        const Word16 gain = evrc_acelp(x, nullptr, h, 0, 200, rate, 54, found_fields);
        Word16 found[55];
        evrc_dec_fixed_codebook(found, found_fields, rate);
        for (int n = 0; n < 54; ++n) ASSERT_EQ(pulses[n], found[n]) << "iteration " << it << " sample " << n;
        // Unit pulse 2048 filtered to 2048, target 512: g / 2^15 * 2048 = 512.
        const int entry = rate == EVRC_RATE_FULL ? gain : 2 * gain + 1;
        EXPECT_NEAR(std::log(evrc_acsFcbGainVQFull[entry] / 8192.0), 0.0, 0.16) << "iteration " << it;
    }
}

}  // namespace
