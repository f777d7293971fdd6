// The filters with fast paths against their plain forms, written operator by
// operator through the counted fx:: operators: output, memory, overflow flag
// and operation count must agree on random inputs, quiet and loud, including
// coefficient sets that make the clamps fire.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>
#include <random>

#include <gtest/gtest.h>

#include "codec/basic/fixed_point.h"
#include "evrc/basic_op.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"

namespace {

// ---- plain forms ----

void model_synthesis(const Word16 *a, const Word16 *in, Word16 *out, Word32 *m, int L) {
    for (int n = 0; n < L; ++n) {
        Word64 lo = 0;
        for (int k = 0; k < 10; ++k) {
            lo = fx::L_mac64_su(lo, a[k], static_cast<Word32>(static_cast<uint32_t>(m[k]) & 0xFFFFu));
        }
        lo >>= 15;
        Word32 hi = 0;
        for (int k = 9; k >= 0; --k) {
            hi = fx::L_mac(hi, a[k], static_cast<Word16>(m[k] >> 16));
            if (k + 1 < 10) m[k + 1] = m[k];
        }
        const Word64 acc = (hi + lo) * 8 + static_cast<Word64>(in[n]) * 65536;
        m[0] = static_cast<Word32>(fx::L_sat32_64(acc));
        out[n] = fx::round32(m[0]);
    }
}

void model_prediction(const Word16 *in, const Word16 *lpc, Word16 *out, int L, Word16 shift) {
    for (int n = 0; n < L; ++n) {
        const Word16 *x = in + 10 + n;
        Word64 s = -4096 * static_cast<Word64>(x[0]);
        for (int k = 1; k <= 10; ++k) s += static_cast<Word64>(lpc[k - 1]) * x[-k];
        out[n] = static_cast<Word16>(fx::L_sat32_64(fx::L_sub64(32768, fx::L_shl64(s, shift))) >> 16);
    }
}

Word32 model_energy(const Word16 *x, int L) {
    Word64 e = 0;
    for (int n = 0; n < L; ++n) e += static_cast<Word64>(x[n]) * x[n];
    return static_cast<Word32>(e >> 6);
}

Word16 model_agc(EvrcDecoderState *st, const Word16 *ref, const Word16 *in, Word16 *out, Word16 mode, int L) {
    const Word32 e_ref = model_energy(ref, L);
    const Word32 e_in = model_energy(in, L);
    if (e_ref == 0 || e_in == 0) return 0;
    const Word32 ratio = fx::divide_dp(e_ref, e_in, -1);
    Word16 g = ratio < 1073741824 ? fx::square_root(ratio) : 32767;
    if (mode == 0) {
        const Word64 mixed = 2 * static_cast<Word64>(st->agc_new_weight) * g +
                             2 * static_cast<Word64>(st->agc_prev_weight) * st->agc_prev_gain;
        g = static_cast<Word16>(mixed >> 16);
        st->agc_prev_gain = g;
    }
    for (int n = 0; n < L; ++n) out[n] = fx::round32(fx::L_shl(fx::L_mult(g, in[n]), 1));
    return 1;
}

// Block interpolation inside a 192-sample buffer (128 past samples first).
void model_interp(Word16 *buf, const Word32 *contour, const Word16 *filter, int N, int n_samples) {
    const int taps = 2 * N + 1;
    for (int n = 0; n < n_samples; ++n) {
        const Word64 t = (static_cast<Word64>(contour[n]) + 255) >> 8;
        const Word64 D = (t + 32768) >> 16;
        int phase = static_cast<int>((294912 - 8 * (t - D * 65536)) >> 16);
        Word64 start = -(D + N);
        if (phase == 8) {
            start += 1;
            phase = 0;
        }
        Word64 acc = 32768;
        for (int j = 0; j < taps; ++j) {
            const Word64 i = 128 + n + start + j;
            acc = fx::L_mac64(acc, (i >= 0 && i < 192) ? buf[i] : 0, filter[taps * phase + j]);
        }
        if (128 + n < 192) buf[128 + n] = static_cast<Word16>(acc >> 16);
    }
}

// Operation count and overflow flag of one call.
template <typename F>
std::pair<UWord32, Word32> measure(F f) {
    evrc_giOverflow = 0;
    const UWord32 before = evrc_op_counter;
    {
        fx::CallScope scope;
        f();
    }
    return {evrc_op_counter - before, evrc_giOverflow};
}

Word16 random_sample(std::mt19937 &rng, int bits) {
    return static_cast<Word16>(static_cast<Word16>(rng()) >> (16 - bits));
}

// Coefficient magnitudes from tame to wildly unstable, samples quiet to loud.
TEST(FilterModels, SynthesisAndPredictionFiltersMatchPlainForms) {
    std::mt19937 rng(5);
    for (int trial = 0; trial < 3000; ++trial) {
        const int L = 1 + static_cast<int>(rng() % 160);
        Word16 a[10], in[170], out[160], want_out[160];
        Word32 mem[10], want_mem[10];
        for (auto &c : a) c = random_sample(rng, 8 + trial % 9);
        for (auto &m : mem) m = static_cast<Word32>(rng()) >> (rng() % 32);
        for (int n = 0; n < L + 10; ++n) in[n] = random_sample(rng, 4 + trial % 13);
        std::memcpy(want_mem, mem, sizeof mem);
        const auto want = measure([&] { model_synthesis(a, in, want_out, want_mem, L); });
        const auto got = measure([&] { evrc_voc_synthesis_filter(a, in, out, mem, static_cast<Word16>(L)); });
        ASSERT_EQ(0, std::memcmp(out, want_out, L * sizeof(Word16))) << "trial " << trial;
        ASSERT_EQ(0, std::memcmp(mem, want_mem, sizeof mem)) << "trial " << trial;
        EXPECT_EQ(got, want);

        const int P = std::min(L, 54);
        const Word16 shift = static_cast<Word16>(rng() % 8);
        model_prediction(in, a, want_out, P, shift);
        evrc_voc_prediction_filter(in, a, out, static_cast<Word16>(P), shift);
        ASSERT_EQ(0, std::memcmp(out, want_out, P * sizeof(Word16))) << "trial " << trial;
    }
}

TEST(FilterModels, BlockInterpolationMatchesPlainForm) {
    std::mt19937 rng(7);
    for (int trial = 0; trial < 3000; ++trial) {
        Word16 buf[192], want_buf[192];
        const int bits = 4 + trial % 13;
        for (auto &s : buf) s = random_sample(rng, bits);
        std::memcpy(want_buf, buf, sizeof buf);
        // Q24 delays of 0..128 samples, non-monotone: the short ones read what
        // this call wrote, the long ones reach before the buffer.
        const int n_samples = 1 + static_cast<int>(rng() % 64);
        Word32 contour[64];
        for (int n = 0; n < n_samples; ++n) contour[n] = static_cast<Word32>(rng() % 0x80000000u);
        const auto want = measure([&] { model_interp(want_buf, contour, &evrc_acsBlockCoeff8[0][0], 8, n_samples); });
        const auto got = measure([&] {
            evrc_voc_rclp_block_interp(buf + 128, contour, &evrc_acsBlockCoeff8[0][0], 8,
                                       static_cast<Word16>(n_samples));
        });
        ASSERT_EQ(0, std::memcmp(buf, want_buf, sizeof buf)) << "trial " << trial;
        EXPECT_EQ(got, want);
    }
}

TEST(FilterModels, AgcMatchesPlainForm) {
    std::mt19937 rng(8);
    for (int trial = 0; trial < 3000; ++trial) {
        const int L = 1 + static_cast<int>(rng() % 54);
        Word16 ref[54], in[54], out[54], want_out[54];
        for (int n = 0; n < L; ++n) {
            ref[n] = random_sample(rng, 1 + trial % 16);
            in[n] = random_sample(rng, 1 + (trial / 16) % 16);
        }
        EvrcDecoderState st{};
        st.agc_new_weight = static_cast<Word16>(rng() % 32768);
        st.agc_prev_weight = static_cast<Word16>(rng() % 32768);
        st.agc_prev_gain = static_cast<Word16>(rng() % 32768);
        EvrcDecoderState want_st = st;
        const Word16 mode = static_cast<Word16>(trial % 2);
        std::memcpy(out, in, sizeof out);
        std::memcpy(want_out, in, sizeof want_out);
        Word16 ret = 0, want_ret = 0;
        const auto want = measure([&] { want_ret = model_agc(&want_st, ref, in, want_out, mode, L); });
        const auto got = measure([&] { ret = evrc_decoder_agc(&st, ref, in, out, mode, static_cast<Word16>(L)); });
        EXPECT_EQ(ret, want_ret);
        ASSERT_EQ(0, std::memcmp(out, want_out, L * sizeof(Word16))) << "trial " << trial;
        EXPECT_EQ(st.agc_prev_gain, want_st.agc_prev_gain);
        EXPECT_EQ(got, want);
    }
}

}  // namespace
