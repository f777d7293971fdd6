// The fast forms of the codebook stages against their plain reference forms:
// the weighted synthesis filter, the filtering of the adaptive vector, the
// error emphasis and the rate-1 pulse search must give the same output,
// operation count and flag.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>

#include "codec/enc/encoder_internal.h"
#include "evrc/evrc_enc.h"
#include "evrc/evrc_tables.h"
#include "tests/support/effects.h"
#include "tests/support/iterations.h"

namespace {

using evrc_test::effects;
using evrc_test::Effects;
using evrc_test::iterations;

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

TEST(CodebookStages, FastWeightedSynthesisMatchesItsReference) {
    std::mt19937 rng(17);
    std::uniform_int_distribution<int> full(-32768, 32767);
    for (int it = 0; it < iterations(300); ++it) {
        double a[10];
        random_lpc(rng, a);
        Word16 q[10], num[10], den[10], in[54], out_fast[54], out_ref[54];
        for (int k = 0; k < 10; ++k) {
            q[k] = static_cast<Word16>(std::lround(a[k] * 4096));
            num[k] = it % 4 == 3 ? static_cast<Word16>(full(rng)) : static_cast<Word16>(q[k] * std::pow(0.9, k + 1));
            den[k] = static_cast<Word16>(q[k] * std::pow(0.5, k + 1));
        }
        for (Word16 &v : in) v = static_cast<Word16>(full(rng) >> (it % 8));
        Word32 mem_fast[30], mem_ref[30];
        for (Word32 &m : mem_fast) m = static_cast<Word32>(rng()) >> (it % 16);
        std::copy(mem_fast, mem_fast + 30, mem_ref);
        const Word16 L = static_cast<Word16>(53 + it % 2);
        const Effects e = effects([&] { evrc_weighted_synthesis_filter(in, out_fast, q, num, den, mem_fast, L); });
        ASSERT_EQ(
            e, effects([&] { evrc_enc::weighted_synthesis_filter_reference(in, out_ref, q, num, den, mem_ref, L); }));
        ASSERT_GT(e.second, 0u);
        ASSERT_TRUE(std::equal(out_fast, out_fast + L, out_ref)) << "iteration " << it;
        ASSERT_TRUE(std::equal(mem_fast, mem_fast + 30, mem_ref)) << "iteration " << it;
    }
}

// The adaptive vector's 32-bit filtering against its 64-bit form, from
// quiet to full-scale vectors and responses (either side of the bound).
TEST(CodebookStages, FastAdaptiveFilteringMatchesItsReference) {
    std::mt19937 rng(23);
    std::uniform_int_distribution<int> full(-32768, 32767);
    for (int it = 0; it < iterations(400); ++it) {
        const Word16 L = static_cast<Word16>(53 + it % 2);
        Word16 v[54], h[54], y_fast[54], y_ref[54];
        for (int n = 0; n < L; ++n) {
            v[n] = static_cast<Word16>(full(rng) >> (it % 6));
            h[n] = static_cast<Word16>(full(rng) >> (3 + it % 7));
        }
        ASSERT_EQ(effects([&] { evrc_enc::acb_filter(v, h, y_fast, L); }),
                  effects([&] { evrc_enc::acb_filter_reference(v, h, y_ref, L); }));
        ASSERT_TRUE(std::equal(y_fast, y_fast + L, y_ref)) << "iteration " << it;
    }
}

// The error emphasis from any state its own operation can reach (low-pass
// states within the Q14 input range), quiet to full-scale blocks.
TEST(CodebookStages, FastErrorEmphasisMatchesItsReference) {
    std::mt19937 rng(29);
    std::uniform_int_distribution<int> full(-32768, 32767);
    std::uniform_int_distribution<Word32> state(-(1 << 29), 1 << 29);
    for (int it = 0; it < iterations(2000); ++it) {
        Word16 mem_fast[evrc_enc::kErrorEmphasisWords], mem_ref[evrc_enc::kErrorEmphasisWords];
        for (int i = 0; i < 3; ++i) {
            const Word32 s = state(rng) >> (it % 4 == 0 ? 0 : 8 + it % 16);
            std::memcpy(mem_fast + 2 * i, &s, sizeof(s));
        }
        mem_fast[6] = static_cast<Word16>(full(rng));
        std::copy(mem_fast, mem_fast + evrc_enc::kErrorEmphasisWords, mem_ref);
        Word16 x_fast[54], x_ref[54];
        for (Word16 &v : x_fast) v = static_cast<Word16>(full(rng) >> (it % 12));
        std::copy(x_fast, x_fast + 54, x_ref);
        const int L = 53 + it % 2;
        ASSERT_EQ(effects([&] { evrc_enc::emphasise_error(x_fast, L, mem_fast); }),
                  effects([&] { evrc_enc::emphasise_error_reference(x_ref, L, mem_ref); }));
        ASSERT_TRUE(std::equal(x_fast, x_fast + L, x_ref)) << "iteration " << it;
        ASSERT_TRUE(std::equal(mem_fast, mem_fast + evrc_enc::kErrorEmphasisWords, mem_ref)) << "iteration " << it;
    }
}

TEST(CodebookStages, FastPulseSearchMakesTheReferenceChoices) {
    std::mt19937 rng(21);
    std::uniform_int_distribution<int> sample(-6000, 6000), lag(15, 70);
    std::uniform_real_distribution<double> pole(0.5, 0.95), angle(0.2, 2.8);
    for (int it = 0; it < iterations(300); ++it) {
        const int L = it % 2 ? 53 : 54;
        const double r = pole(rng), w = angle(rng);
        Word16 h[54], x[54], res[54];
        for (int n = 0; n < L; ++n) {
            h[n] = static_cast<Word16>(2048 * std::pow(r, n) * std::cos(w * n));
            x[n] = static_cast<Word16>(sample(rng) >> (it % 4));
            res[n] = static_cast<Word16>(sample(rng) / 8);
        }
        const Word16 acb_gain = static_cast<Word16>(evrc_acsACBGainTable[it % 8]);
        const Word16 rate = it % 5 == 4 ? EVRC_RATE_HALF : EVRC_RATE_FULL;
        const Word16 pitch = static_cast<Word16>(lag(rng));
        const Word16 *residual = it % 3 ? res : nullptr;
        Word16 fast[4] = {}, ref[4] = {}, g_fast = 0, g_ref = 0;
        const Effects e = effects([&] { g_fast = evrc_acelp(x, residual, h, acb_gain, pitch, rate, L, fast); });
        ASSERT_EQ(e,
                  effects([&] { g_ref = evrc_enc::acelp_reference(x, residual, h, acb_gain, pitch, rate, L, ref); }));
        ASSERT_GT(e.second, 0u);
        ASSERT_EQ(g_fast, g_ref) << "iteration " << it;
        ASSERT_TRUE(std::equal(fast, fast + 4, ref)) << "iteration " << it;
    }
}

}  // namespace
