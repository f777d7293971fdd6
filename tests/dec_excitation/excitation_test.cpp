// Excitation stages at the edges the decoded streams of the golden test do
// not reach: erased-frame rebuild at extreme delays, fixed-codebook fields
// out of range, gain combination and pitch pre-filter on loud signals and
// odd lags, and gain control limits. Buffers are allocated at their exact size so that
// the address sanitizer sees any stray access.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "codec/common/reference_forms.h"
#include "codec/dec/excitation_internal.h"
#include "codec/dec/reference_forms.h"
#include "evrc/basic_op.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"
#include "tests/support/iterations.h"

namespace {

using evrc_test::iterations;

std::mt19937 &rng() {
    static std::mt19937 gen(12345);
    return gen;
}

int uniform(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng()); }

// High 16 bits of x clamped to 32 bits.
int64_t high_half_sat(int64_t x) { return std::min<int64_t>(std::max<int64_t>(x, INT32_MIN), INT32_MAX) >> 16; }

// 128 history samples, then 64 for the subframe and the look-ahead.
constexpr int kHist = 128;
constexpr int kBufLen = 192;

// ---- adaptive codebook ----

// Rebuild of the lost frame's history: three subframes of adaptive codebook
// along the lost delay's contour, from the saved history.
TEST(AdaptiveCodebook, ErasedFrameRebuildFollowsTheLostDelay) {
    const Word16 cases[][3] = {
        // previous delay, delay, delta delay
        {50, 50, 16},   // delta 16: the lost frame had the current delay
        {40, 60, 5},    // lost delay 71, jump 31: flat contour from 71
        {80, 70, 12},   // lost delay 74, jump 6: glide from 80
        {120, 120, 1},  // lost delay 135: reads beyond the history as 0
        {20, 20, 31},   // lost delay 5: reads into the not yet rebuilt samples
    };
    for (const auto &fc : cases) {
        auto st = std::make_unique<EvrcDecoderState>();
        std::memset(st.get(), 0x5A, sizeof(*st));  // poison around the history
        for (Word16 &v : st->exc_saved) v = static_cast<Word16>(uniform(-12000, 12000));
        for (Word16 &v : st->exc_history) v = static_cast<Word16>(uniform(-12000, 12000));
        st->prev_delay = fc[0];
        EvrcFrameParams fp{};
        fp.delay = fc[1];
        fp.delta_delay = fc[2];
        const EvrcDecoderState before = *st;
        evrc_fix_dlay_contour(st.get(), &fp);

        const int dl = fc[1] - fc[2] + 16;
        EXPECT_EQ(st->prev_delay, dl);
        const int jump = fc[0] - dl;
        EXPECT_EQ(st->erased_start_delay, (jump >= 16 || jump <= -16) ? dl : fc[0]);
        std::vector<Word16> h(kBufLen);
        std::memcpy(h.data(), before.exc_history, sizeof(before.exc_history));
        std::memcpy(h.data(), before.exc_saved, sizeof(before.exc_saved));
        for (int k = 0; k < 3; ++k) {
            const int L = evrc_acsSubFrameSize[k] == 54 ? 54 : 53;
            Word32 p[3];
            evrc_interpol_delay(static_cast<Word16>(dl), st->erased_start_delay, static_cast<Word16>(k), p);
            Word32 contour[64];
            evrc_construct_delay_contour(p, contour, static_cast<Word16>(L));
            evrc::block_interp_reference(h.data(), kBufLen, kHist, contour, &evrc_acsBlockCoeff8[0][0], 8, L + 10);
            std::memmove(h.data(), h.data() + L, kHist * sizeof(Word16));
        }
        for (int i = 0; i < kHist; ++i) ASSERT_EQ(st->exc_history[i], h[i]) << "delay " << dl << " i=" << i;
        EXPECT_EQ(std::memcmp(st->prev_lsp, before.prev_lsp, sizeof(st->prev_lsp)), 0);
        EXPECT_EQ(std::memcmp(st->exc_saved, before.exc_saved, sizeof(st->exc_saved)), 0);
    }
}

// ---- fixed codebook ----

TEST(FixedCodebook, OutOfRangePairsStayInsideTheVector) {
    // Pair values above 120 (rejected by the frame check) never write outside
    // the 55-entry vector (allocated at its exact size for the sanitizer).
    std::unique_ptr<Word16[]> fcb(new Word16[55]);
    for (int x = 0; x < 2048; ++x) {
        const Word16 f = static_cast<Word16>(x & 0xFF), bad[4] = {f, f, f, static_cast<Word16>(x)};
        evrc_dec_fixed_codebook(fcb.get(), bad, EVRC_RATE_FULL);
    }
}

// ---- pitch pre-filter ----

TEST(PitchPreFilter, MatchesModelAndReadsOnlyTheHistory) {
    for (int it = 0; it < iterations(300); ++it) {
        const int L = 53 + uniform(0, 1);
        const int T = uniform(0, 9) == 0 ? uniform(-5, 200) : uniform(20, 135);
        const int gain = uniform(0, 3) == 0 ? uniform(16384, 32767) : uniform(0, 16384);
        std::vector<Word16> b(kBufLen), out(L);  // exact size: anything read outside would be reported
        const int amplitude = uniform(0, 1) ? 32767 : 5000;
        for (Word16 &v : b) v = static_cast<Word16>(uniform(-amplitude, amplitude));
        evrc_pitch_pre_filter(b.data() + kHist + L - 1, static_cast<Word16>(T), out.data(), static_cast<Word16>(gain),
                              static_cast<Word16>(L));
        const int g = std::min(gain, 16384);
        for (int n = 0; n < L; ++n) {
            const int past = kHist + n - T;
            const int64_t xp = (past >= 0 && past < kBufLen) ? b[past] : 0;
            ASSERT_EQ(out[n], high_half_sat(int64_t(b[kHist + n]) * 65536 + 32768 + 2 * g * xp))
                << "T=" << T << " n=" << n;
        }
        // Weight and flag as the counted multiply-accumulates leave them.
        std::vector<Word16> want(L);
        evrc_giOverflow = 0;
        UWord32 before = evrc_op_counter;
        evrc_dec::pitch_pre_filter_reference(b.data(), kBufLen, kHist, static_cast<Word16>(T), want.data(),
                                             static_cast<Word16>(gain), L);
        const UWord32 want_weight = evrc_op_counter - before;
        const Word32 want_flag = evrc_giOverflow;
        evrc_giOverflow = 0;
        before = evrc_op_counter;
        evrc_dec::pitch_pre_filter_bounded(b.data(), kBufLen, kHist, static_cast<Word16>(T), out.data(),
                                           static_cast<Word16>(gain), L);
        ASSERT_EQ(out, want);
        ASSERT_EQ(evrc_op_counter - before, want_weight);
        ASSERT_EQ(evrc_giOverflow, want_flag);
    }
}

}  // namespace
