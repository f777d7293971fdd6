// Open-loop pitch analysis and RCELP signal modification: properties on
// synthetic voiced, noise and degenerate residuals.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>

#include "codec/enc/encoder_internal.h"
#include "codec/enc/pitch_internal.h"
#include "evrc/basic_op.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_enc.h"

namespace {

constexpr int kLen = 2 * EVRC_ENC_FRAME;

int iterations(int fallback) {
    const char *env = std::getenv("EVRC_TEST_ITERATIONS");
    const int n = env ? std::atoi(env) : 0;
    return n > 0 && n < fallback ? n : fallback;
}

std::unique_ptr<EvrcEncoderState> fresh_state() {
    auto st = std::make_unique<EvrcEncoderState>();
    std::memset(st.get(), 0, sizeof(EvrcEncoderState));
    evrc_init_enc(st.get());
    return st;
}

// Pulses every `period` samples (amplitudes alternating a, b) over noise.
void pulse_train(Word16 *x, int period, int a, int b, int noise, std::mt19937 &rng) {
    std::uniform_int_distribution<int> u(-noise, noise);
    for (int n = 0; n < kLen; ++n) x[n] = static_cast<Word16>(noise ? u(rng) : 0);
    for (int n = 7, k = 0; n < kLen; n += period, ++k) x[n] = static_cast<Word16>(x[n] + (k % 2 ? b : a));
}

TEST(OpenLoopPitch, FindsThePeriodOfPulseTrainsAndNeverADoubledOne) {
    std::mt19937 rng(11);
    for (int period = 20; period <= 120; period += 7) {
        for (int alternate : {0, 1}) {
            auto st = fresh_state();
            // Alternating amplitudes make twice the period the best match;
            // the sub-multiple rule must still find the period itself.
            pulse_train(st->residual, period, 12000, alternate ? 9000 : 12000, 300, rng);
            evrc_calc_frame_delay_and_beta(st.get());
            EXPECT_NEAR(st->sDelay, period, 1) << "period " << period << " alternate " << alternate;
            EXPECT_GT(st->sBeta, 26000) << "period " << period;
            EXPECT_LE(st->sBeta, 32767);
        }
    }
}

TEST(OpenLoopPitch, NoiseSilenceAndDcGiveLowBetaAndADelayInRange) {
    std::mt19937 rng(5);
    std::normal_distribution<double> g(0.0, 3000.0);
    for (int kind = 0; kind < 4; ++kind) {
        auto st = fresh_state();
        for (int n = 0; n < kLen; ++n) {
            const double v = kind == 0 ? g(rng) : (kind == 1 ? 0.0 : (kind == 2 ? 32767.0 : -32768.0));
            st->residual[n] = static_cast<Word16>(v > 32767 ? 32767 : (v < -32768 ? -32768 : v));
        }
        evrc_calc_frame_delay_and_beta(st.get());
        EXPECT_GE(st->sDelay, 20);
        EXPECT_LE(st->sDelay, 120);
        EXPECT_GE(st->sBeta, 0);
        if (kind < 2) {
            EXPECT_LT(st->sBeta, 9830) << "kind " << kind;
        }
    }
}

TEST(OpenLoopPitch, FastCorrelationMatchesTheOperatorChain) {
    std::mt19937 rng(3);
    std::uniform_int_distribution<int> u(-2047, 2047);
    Word16 x[kLen];
    for (int it = 0; it < iterations(200); ++it) {
        for (int n = 0; n < kLen; ++n) x[n] = static_cast<Word16>(it % 3 == 0 ? (n % 2 ? 2047 : -2047) : u(rng));
        const int lag = 20 + it % 101;
        const UWord32 c0 = evrc_op_counter;
        const Word32 fast = evrc_enc::correlate_fast(x, lag);
        const UWord32 c1 = evrc_op_counter;
        const Word32 ref = evrc_enc::correlate_reference(x, lag);
        EXPECT_EQ(fast, ref);
        EXPECT_EQ(c1 - c0, evrc_op_counter - c1);
    }
}

// Runs the three subframes of a frame as the frame driver does: contour,
// modification, history moved down by the subframe.
void modify_frame(EvrcEncoderState *st, Word16 delay, const Word16 *acb_source, Word16 *out) {
    int done = 0;
    evrc_update_rcelp_shift(st);
    for (int j = 0; j < 3; ++j) {
        const int L = j == 2 ? 54 : 53;
        Word32 points[3];
        Word32 contour[64];
        evrc_interpol_delay(delay, delay, static_cast<Word16>(j), points);
        evrc_construct_delay_contour_enc(points, contour, static_cast<Word16>(L));
        const Word16 *acb = acb_source + 53 * j;
        evrc_enc::modify_subframe(st, j, L, contour, acb, acb);
        std::memcpy(out + done, st->mod_residual + EVRC_ENC_HISTORY, L * sizeof(Word16));
        std::memmove(st->mod_residual, st->mod_residual + L, (EVRC_ENC_MODRES_LEN - L) * sizeof(Word16));
        done += L;
    }
}

TEST(SignalModification, ResidualAlreadyOnTheContourIsCopiedUnchanged) {
    std::mt19937 rng(9);
    for (int delay : {25, 40, 57, 90, 120}) {
        auto st = fresh_state();
        st->sBeta = 30000;  // voiced
        Word16 res[kLen + 64];
        pulse_train(res, delay, 15000, 15000, 200, rng);
        for (int n = kLen; n < kLen + 64; ++n) res[n] = res[n - delay];
        std::memcpy(st->residual, res, sizeof(st->residual));
        // The quantised filters stay all-zero (A_q = 1): the coded segment's
        // residual, formed again from the speech, is the speech itself.
        std::memcpy(st->asSpeech, res, sizeof(st->asSpeech));
        // The prediction equals the residual read at the fixed delay.
        const int d0 = evrc_enc::kWarpResidual ? evrc_enc::kWarpDelay : 0;
        Word16 out[160];
        modify_frame(st.get(), static_cast<Word16>(delay), res + EVRC_ENC_CODED_START - d0, out);
        EXPECT_EQ(st->sAccumShift, 0) << "delay " << delay;
        for (int n = 0; n < 150; ++n) ASSERT_EQ(out[n], res[EVRC_ENC_CODED_START + n - d0]) << "delay " << delay;
    }
}

TEST(SignalModification, AccumulatedShiftStaysBoundedOnRandomInput) {
    std::mt19937 rng(21);
    std::uniform_int_distribution<int> period(20, 120);
    auto st = fresh_state();
    st->sBeta = 30000;
    Word16 acb[160 + 64];
    Word16 out[160];
    for (int frame = 0; frame < iterations(300); ++frame) {
        const int delay = period(rng);
        // Pulses of a slightly different period than the contour's, or noise.
        std::memmove(st->residual, st->residual + 160, 160 * sizeof(Word16));
        Word16 fresh[kLen];
        pulse_train(fresh, delay + static_cast<int>(rng() % 5) - 2, 20000, 20000, frame % 4 == 0 ? 30000 : 500, rng);
        std::memcpy(st->residual + 160, fresh + 160, 160 * sizeof(Word16));
        std::memcpy(st->asSpeech, st->residual, sizeof(st->asSpeech));  // A_q = 1
        pulse_train(acb, delay, 20000, 20000, 500, rng);
        modify_frame(st.get(), static_cast<Word16>(delay), acb, out);
        ASSERT_LE(st->sAccumShift, 8 * 256);
        ASSERT_GE(st->sAccumShift, -8 * 256);
        ASSERT_GE(st->sShiftCarry, 0);
        ASSERT_LT(st->sShiftCarry, 160 - 106);
    }
}

}  // namespace
