// Delay points, delay contour and the erased-frame history rebuild, checked
// against exact wide-integer models written from the formulas.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "codec/dec/excitation_internal.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"
#include "excitation_test_util.h"

using namespace exc_test;

namespace {

Word32 model_point(int cur, int prev, int w) {
    const int64_t a = clamp32(2 * int64_t(prev) * w);
    const int64_t b = clamp32(2 * int64_t(cur) * (32768 - w));
    return static_cast<Word32>(static_cast<uint32_t>(a + b));
}

// 32x32 fractional product from 16-bit halves, low-by-low product left out.
int64_t model_frac_mult(Word32 a, Word32 b) {
    const int64_t ha = a >> 16, hb = b >> 16;
    const int64_t la = static_cast<uint32_t>(a) & 0xFFFF, lb = static_cast<uint32_t>(b) & 0xFFFF;
    return 2 * ha * hb + ((la * hb + lb * ha) >> 15);
}

std::vector<Word32> model_contour(const Word32 *p, int L) {
    const int64_t scale = L == 53 ? 1296593899 : 1272582903;
    auto slope = [&](Word32 from, Word32 to) {
        const Word32 d8 = static_cast<Word32>(static_cast<uint32_t>(to - int64_t(from)) << 3);
        return static_cast<Word32>(static_cast<uint32_t>(model_frac_mult(d8, static_cast<Word32>(scale))));
    };
    std::vector<Word32> c(L + 10);
    const int64_t s1 = slope(p[0], p[1]), s2 = slope(p[1], p[2]);
    for (int n = 0; n < L; ++n) c[n] = static_cast<Word32>(clamp32(int64_t(p[0]) * 256 + n * s1));
    for (int n = 0; n < 10; ++n) c[L + n] = static_cast<Word32>(clamp32(int64_t(p[1]) * 256 + n * s2));
    return c;
}

// Block interpolation of n samples at buf[128..], buf of len samples, reads
// outside it as 0, each output stored before the next is computed.
void model_interp(Word16 *buf, int len, const Word32 *contour, int n_samples) {
    for (int n = 0; n < n_samples; ++n) {
        const int64_t t = floor_div(int64_t(contour[n]) + 255, 256);
        const int64_t D = floor_div(t + 32768, 65536);
        int64_t f = floor_div(294912 - 8 * (t - D * 65536), 65536);
        int64_t first = kHist + n - (D + 8);
        if (f == 8) {
            f = 0;
            ++first;
        }
        int64_t acc = 32768;
        for (int j = 0; j < 17; ++j) {
            const int64_t i = first + j;
            acc = clamp32(acc + 2 * ((i >= 0 && i < len) ? buf[i] : 0) * evrc_acsBlockCoeff8[f][j]);
        }
        buf[kHist + n] = static_cast<Word16>(floor_div(acc, 65536));
    }
}

}  // namespace

// Delay points over all delays, and the contour of realistic glides between
// delays of 5..140 samples.
TEST(DelayContour, PointsAndContourMatchWideModel) {
    for (int it = 0; it < iterations(); ++it) {
        const int cur = uniform(-32768, 32767), prev = uniform(-32768, 32767);
        const int k = uniform(0, 2);
        Word32 p[3];
        evrc_interpol_delay(static_cast<Word16>(cur), static_cast<Word16>(prev), static_cast<Word16>(k), p);
        for (int j = 0; j < 3; ++j) {
            const int w = static_cast<uint16_t>(evrc_acsInterpolateDelayTab[k + j]);
            ASSERT_EQ(p[j], model_point(cur, prev, w)) << cur << " " << prev << " k=" << k << " j=" << j;
        }
        evrc_interpol_delay(static_cast<Word16>(uniform(5, 140)), static_cast<Word16>(uniform(5, 140)),
                            static_cast<Word16>(uniform(0, 2)), p);
        const int L = uniform(0, 1) ? 53 : 54;
        Word32 c[64];
        evrc_construct_delay_contour(p, c, static_cast<Word16>(L));
        const std::vector<Word32> expect = model_contour(p, L);
        for (int n = 0; n < L + 10; ++n) ASSERT_EQ(c[n], expect[n]) << "n=" << n;
    }
}

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
            const int L = evrc_acsSubFrameSize[k];
            Word32 p[3];
            evrc_interpol_delay(static_cast<Word16>(dl), st->erased_start_delay, static_cast<Word16>(k), p);
            model_interp(h.data(), kBufLen, model_contour(p, L).data(), L + 10);
            std::memmove(h.data(), h.data() + L, kHist * sizeof(Word16));
        }
        for (int i = 0; i < kHist; ++i) ASSERT_EQ(st->exc_history[i], h[i]) << "delay " << dl << " i=" << i;
        EXPECT_EQ(std::memcmp(st->prev_lsp, before.prev_lsp, sizeof(st->prev_lsp)), 0);
        EXPECT_EQ(std::memcmp(st->exc_saved, before.exc_saved, sizeof(st->exc_saved)), 0);
    }
}
