// The stages with exact fast paths against their operator-by-operator forms
// in codec/: output, memory, overflow flag and operation count must agree on
// random inputs, quiet and loud, including coefficient sets that make the
// clamps fire.
#include <cstring>
#include <random>

#include <gtest/gtest.h>

#include "codec/dec/reference_forms.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"
#include "tests/support/effects.h"

namespace {

using evrc_test::effects;

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
        EXPECT_EQ(effects([&] { evrc_voc_synthesis_filter(a, in, out, mem, static_cast<Word16>(L)); }),
                  effects([&] { evrc::synthesis_filter_reference(a, in, want_out, want_mem, L); }));
        ASSERT_EQ(0, std::memcmp(out, want_out, L * sizeof(Word16))) << "trial " << trial;
        ASSERT_EQ(0, std::memcmp(mem, want_mem, sizeof mem)) << "trial " << trial;

        // Longer than one block of the fast form, and in place (out == in).
        const Word16 shift = static_cast<Word16>(static_cast<int>(rng() % 24) - 4);  // -4 .. 19
        evrc::prediction_filter_reference(in, a, want_out, L, shift);
        evrc_voc_prediction_filter(in, a, out, static_cast<Word16>(L), shift);
        ASSERT_EQ(0, std::memcmp(out, want_out, L * sizeof(Word16))) << "trial " << trial;
        evrc_voc_prediction_filter(in, a, in, static_cast<Word16>(L), shift);
        ASSERT_EQ(0, std::memcmp(in, want_out, L * sizeof(Word16))) << "trial " << trial;
    }
}

// The prediction filter's largest sum: every coefficient negative with
// sum |a_k| = 61440 and every sample -32768 make 2^31.
TEST(FilterModels, PredictionFilterAtItsLargestSum) {
    Word16 a[10], in[20], out[10], want_out[10];
    for (auto &c : a) c = -6144;
    for (auto &x : in) x = -32768;
    for (Word16 shift = 0; shift < 17; ++shift) {
        evrc::prediction_filter_reference(in, a, want_out, 10, shift);
        evrc_voc_prediction_filter(in, a, out, 10, shift);
        ASSERT_EQ(0, std::memcmp(out, want_out, sizeof out)) << "shift " << shift;
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
        const Word16 *coeff = &evrc_acsBlockCoeff8[0][0];
        EXPECT_EQ(effects([&] { evrc_voc_rclp_block_interp(buf + 128, contour, coeff, 8, Word16(n_samples)); }),
                  effects([&] { evrc::block_interp_reference(want_buf, 192, 128, contour, coeff, 8, n_samples); }));
        ASSERT_EQ(0, std::memcmp(buf, want_buf, sizeof buf)) << "trial " << trial;
    }
}

TEST(FilterModels, AgcAndOutputDoublingMatchPlainForms) {
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
        EXPECT_EQ(effects([&] { ret = evrc_decoder_agc(&st, ref, in, out, mode, Word16(L)); }),
                  effects([&] { want_ret = evrc_dec::decoder_agc_reference(&want_st, ref, in, want_out, mode, L); }));
        EXPECT_EQ(ret, want_ret);
        ASSERT_EQ(0, std::memcmp(out, want_out, L * sizeof(Word16))) << "trial " << trial;
        EXPECT_EQ(st.agc_prev_gain, want_st.agc_prev_gain);

        // The postfilter's tilt compensation of in, with the gain as its mu
        // (into a separate buffer, as the postfilter calls it; the in-place
        // branch has no caller).
        Word16 tilted[54], want_tilted[54];
        st.tilt_last = want_st.tilt_last = ref[0];
        EXPECT_EQ(effects([&] { evrc_dec::tilt_compensate(&st, in, tilted, L, ref[L - 1]); }),
                  effects([&] { evrc_dec::tilt_compensate_reference(&want_st, in, want_tilted, L, ref[L - 1]); }));
        ASSERT_EQ(0, std::memcmp(tilted, want_tilted, L * sizeof(Word16))) << "trial " << trial;
        EXPECT_EQ(st.tilt_last, want_st.tilt_last);

        // The final output doubling, on the reference samples.
        Word16 twice[54], want_twice[54];
        std::memcpy(twice, ref, sizeof twice);
        std::memcpy(want_twice, ref, sizeof want_twice);
        EXPECT_EQ(effects([&] { evrc_dec::double_samples(twice, L); }),
                  effects([&] { evrc_dec::double_samples_reference(want_twice, L); }));
        ASSERT_EQ(0, std::memcmp(twice, want_twice, L * sizeof(Word16))) << "trial " << trial;
    }
}

}  // namespace
