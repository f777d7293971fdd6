// Delay points, delay contour and the adaptive codebook's block
// interpolation, checked against exact wide-integer models written from the
// formulas, plus the history bounds and the erased-frame rebuild.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "codec/dec/excitation_internal.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"
#include "excitation_test_util.h"

using namespace exc_test;

namespace {

// ---- models -------------------------------------------------------------

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
            const int64_t x = (i >= 0 && i < len) ? buf[i] : 0;
            acc = clamp32(acc + 2 * x * evrc_acsBlockCoeff8[f][j]);
        }
        buf[kHist + n] = static_cast<Word16>(floor_div(acc, 65536));
    }
}

// Constant contour of a whole-sample delay (Q24, clamped like the contour).
std::vector<Word32> flat_contour(int delay, int n) {
    return std::vector<Word32>(n, static_cast<Word32>(clamp32(int64_t(delay) * (1 << 24))));
}

// Random delay points of a glide between two delays of 5..140 samples.
void random_points(Word32 *p) {
    evrc_interpol_delay(static_cast<Word16>(uniform(5, 140)), static_cast<Word16>(uniform(5, 140)),
                        static_cast<Word16>(uniform(0, 2)), p);
}

}  // namespace

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
        // Realistic glides for the contour.
        random_points(p);
        const int L = uniform(0, 1) ? 53 : 54;
        Word32 c[64];
        evrc_construct_delay_contour(p, c, static_cast<Word16>(L));
        const std::vector<Word32> expect = model_contour(p, L);
        for (int n = 0; n < L + 10; ++n) ASSERT_EQ(c[n], expect[n]) << "n=" << n;
        EXPECT_EQ(int64_t(c[L]), clamp32(int64_t(p[1]) * 256));
    }
}

TEST(AdaptiveCodebook, EqualDelaysGiveConstantContourAndPhaseFour) {
    for (int it = 0; it < iterations(50); ++it) {
        const int D = uniform(20, 120);
        const int L = evrc_acsSubFrameSize[uniform(0, 2)];
        Word32 p[3];
        evrc_interpol_delay(static_cast<Word16>(D), static_cast<Word16>(D), static_cast<Word16>(uniform(0, 2)), p);
        Word32 c[64];
        evrc_construct_delay_contour(p, c, static_cast<Word16>(L));
        for (int n = 0; n < L + 10; ++n) ASSERT_EQ(c[n], Word32(D) << 24);

        ExcBuffer b;
        b.randomize(20000);
        std::vector<Word16> before(b.data.get(), b.data.get() + kBufLen);
        evrc_rx_acb_excitation(p, b.subframe(), static_cast<Word16>(L));
        // Samples whose taps lie wholly in the history: a smoothed copy of the
        // sample D back through the centred phase (centre tap 29491).
        for (int n = 0; n + 8 < D && n < L + 10; ++n) {
            int64_t acc = 32768;
            for (int j = 0; j < 17; ++j) acc = clamp32(acc + 2 * int64_t(before[kHist + n - D - 8 + j]) * evrc_acsBlockCoeff8[4][j]);
            ASSERT_EQ(b[kHist + n], floor_div(acc, 65536)) << "D=" << D << " n=" << n;
        }
        EXPECT_EQ(std::memcmp(b.data.get(), before.data(), kHist * sizeof(Word16)), 0) << "history must not change";
    }
}

TEST(AdaptiveCodebook, BlockInterpolationMatchesDirectModel) {
    for (int it = 0; it < iterations(); ++it) {
        const int L = evrc_acsSubFrameSize[uniform(0, 2)];
        std::vector<Word32> c(L + 10);
        if (uniform(0, 1)) {
            Word32 p[3];
            random_points(p);
            evrc_construct_delay_contour(p, c.data(), static_cast<Word16>(L));
        } else {
            for (auto &v : c) v = uniform(3 << 16, 127 << 16) * 256 + uniform(0, 255);  // arbitrary, non-monotone
        }
        ExcBuffer b;
        b.randomize(uniform(0, 1) ? 32767 : 3000);  // full scale drives the accumulator into saturation
        std::vector<Word16> expect(b.data.get(), b.data.get() + kBufLen);
        model_interp(expect.data(), kBufLen, c.data(), L + 10);
        evrc_voc_rclp_block_interp(b.subframe(), c.data(), &evrc_acsBlockCoeff8[0][0], 8, static_cast<Word16>(L + 10));
        for (int i = 0; i < kBufLen; ++i) ASSERT_EQ(b[i], expect[i]) << "i=" << i << " it=" << it;
    }
}

// The buffer is allocated at its exact size: any read before the history or
// past the look-ahead would be reported by the address sanitizer.
TEST(AdaptiveCodebook, HistoryBoundsAreExact) {
    // Delay 120: sample 0 reads the very first history sample through tap 0.
    ExcBuffer b;
    std::memset(b.data.get(), 0, kBufLen * sizeof(Word16));
    b[0] = 10000;
    std::vector<Word32> c = flat_contour(120, 64);
    evrc_voc_rclp_block_interp(b.subframe(), c.data(), &evrc_acsBlockCoeff8[0][0], 8, 63);
    EXPECT_EQ(b[kHist], floor_div(32768 + 2 * 10000 * evrc_acsBlockCoeff8[4][0], 65536));

    // Delays beyond the history (rebuilt after an erasure) and delays shorter
    // than the filter's half length read outside the buffer as 0.
    for (int delay : {121, 128, 135, 140, 2, 5}) {
        for (int rep = 0; rep < 5; ++rep) {
            ExcBuffer e;
            e.randomize(30000);
            std::vector<Word16> expect(e.data.get(), e.data.get() + kBufLen);
            std::vector<Word32> cc = flat_contour(delay, 64);
            for (auto &v : cc) v = static_cast<Word32>(clamp32(int64_t(v) + uniform(-(1 << 23), 1 << 23)));
            model_interp(expect.data(), kBufLen, cc.data(), 64);
            evrc_voc_rclp_block_interp(e.subframe(), cc.data(), &evrc_acsBlockCoeff8[0][0], 8, 64);
            for (int i = 0; i < kBufLen; ++i) ASSERT_EQ(e[i], expect[i]) << "delay " << delay << " i=" << i;
        }
    }
}

TEST(AdaptiveCodebook, ShortDelayRepeatsSamplesOfTheSameCall) {
    ExcBuffer b;
    std::memset(b.data.get(), 0, kBufLen * sizeof(Word16));
    for (int i = kHist - 28; i < kHist; ++i) b[i] = static_cast<Word16>(uniform(-8000, 8000));
    std::vector<Word16> expect(b.data.get(), b.data.get() + kBufLen);
    std::vector<Word32> c = flat_contour(20, 63);
    model_interp(expect.data(), kBufLen, c.data(), 63);
    evrc_voc_rclp_block_interp(b.subframe(), c.data(), &evrc_acsBlockCoeff8[0][0], 8, 63);
    int64_t late_energy = 0;
    for (int n = 0; n < 63; ++n) {
        ASSERT_EQ(b[kHist + n], expect[kHist + n]) << n;
        if (n >= 36) late_energy += int64_t(b[kHist + n]) * b[kHist + n];
    }
    // Samples 36.. read only what this call produced; they carry the signal on.
    EXPECT_GT(late_energy, 0);
}

namespace {

struct FixCase {
    Word16 prev_delay, delay, delta;
};

// Rebuild of the lost frame's history, modelled with the exact interpolation
// model and a zero-outside history.
std::vector<Word16> model_fix(const EvrcDecoderState &st0, Word16 dl, Word16 start) {
    std::vector<Word16> h(kBufLen);
    std::memcpy(h.data(), st0.exc_history, sizeof(st0.exc_history));
    std::memcpy(h.data(), st0.exc_saved, sizeof(st0.exc_saved));
    for (int k = 0; k < 3; ++k) {
        const int L = evrc_acsSubFrameSize[k];
        Word32 p[3];
        evrc_interpol_delay(dl, start, static_cast<Word16>(k), p);
        const std::vector<Word32> c = model_contour(p, L);
        model_interp(h.data(), kBufLen, c.data(), L + 10);
        std::memmove(h.data(), h.data() + L, kHist * sizeof(Word16));
    }
    return h;
}

}  // namespace

TEST(AdaptiveCodebook, ErasedFrameRebuildFollowsTheLostDelay) {
    const FixCase cases[] = {
        {50, 50, 16},   // delta 16: the lost frame had the current delay
        {40, 60, 5},    // lost delay 71, jump 31: flat contour from 71
        {60, 70, 1},    // lost delay 85, jump 25: flat contour
        {80, 70, 12},   // lost delay 74, jump 6: glide from 80
        {120, 120, 1},  // lost delay 135: reads beyond the history as 0
        {20, 20, 31},   // lost delay 5: reads into the not yet rebuilt samples
    };
    for (const FixCase &fc : cases) {
        auto st = std::make_unique<EvrcDecoderState>();
        std::memset(st.get(), 0x5A, sizeof(*st));  // poison around the history
        for (Word16 &v : st->exc_saved) v = static_cast<Word16>(uniform(-12000, 12000));
        for (Word16 &v : st->exc_history) v = static_cast<Word16>(uniform(-12000, 12000));
        st->prev_delay = fc.prev_delay;
        EvrcFrameParams fp{};
        fp.delay = fc.delay;
        fp.delta_delay = fc.delta;
        const EvrcDecoderState before = *st;

        evrc_fix_dlay_contour(st.get(), &fp);

        const int dl = fc.delay - fc.delta + 16;
        EXPECT_EQ(st->prev_delay, dl);
        const int jump = fc.prev_delay - dl;
        EXPECT_EQ(st->erased_start_delay, (jump >= 16 || jump <= -16) ? dl : fc.prev_delay);
        const std::vector<Word16> expect = model_fix(before, static_cast<Word16>(dl), st->erased_start_delay);
        for (int i = 0; i < kHist; ++i) ASSERT_EQ(st->exc_history[i], expect[i]) << "delay " << dl << " i=" << i;
        EXPECT_EQ(std::memcmp(st->prev_lsp, before.prev_lsp, sizeof(st->prev_lsp)), 0);
        EXPECT_EQ(std::memcmp(st->exc_saved, before.exc_saved, sizeof(st->exc_saved)), 0);
    }
}
