// Excitation and post-processing stages against exact wide-integer and
// double-precision models: delay contour and erased-frame rebuild, fixed
// codebook field layout and gain combination, pitch pre-filter, postfilter
// and gain control limits. Buffers are allocated at their exact size so that
// the address sanitizer sees any stray access.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "codec/dec/excitation_internal.h"
#include "codec/dec/reference_forms.h"
#include "evrc/basic_op.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"

namespace {

int iterations(int fallback = 300) {
    const char *env = std::getenv("EVRC_TEST_ITERATIONS");
    const int n = env ? std::atoi(env) : 0;
    return n > 0 && n < fallback ? n : fallback;
}

std::mt19937 &rng() {
    static std::mt19937 gen(12345);
    return gen;
}

int uniform(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng()); }

int64_t clamp32(int64_t x) {
    return x > INT32_MAX ? INT32_MAX : (x < INT32_MIN ? INT32_MIN : x);
}

int64_t floor_div(int64_t a, int64_t b) { return a >= 0 ? a / b : -((-a + b - 1) / b); }

// High 16 bits of a value already within 32 bits.
int64_t high_half(int64_t x) { return floor_div(x, 65536); }

// 128 history samples, then 64 for the subframe and the look-ahead.
constexpr int kHist = 128;
constexpr int kBufLen = 192;

// ---- adaptive codebook ----

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
            const int L = evrc_acsSubFrameSize[k] == 54 ? 54 : 53;
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

// ---- fixed codebook ----

using Vec = std::array<int, 55>;

struct Pulse {
    int pos;   // index on the track, 0..10
    int sign;  // +1 or -1
};

// Two pulses of one track as the 8 low bits of a pair field: first position
// a, second b; the sign bit is that of the pulse at a, and b > a means the
// second pulse has the same sign, b < a the opposite one.
int encode_pair(Pulse p, Pulse q) {
    int a, b, sign;
    if (p.pos == q.pos) {
        a = b = p.pos;
        sign = p.sign;  // same sign required for a double pulse
    } else if (p.sign == q.sign) {
        a = std::min(p.pos, q.pos);
        b = std::max(p.pos, q.pos);
        sign = p.sign;
    } else {
        const Pulse &hi = p.pos > q.pos ? p : q;
        const Pulse &lo = p.pos > q.pos ? q : p;
        a = hi.pos;
        b = lo.pos;
        sign = hi.sign;
    }
    return (sign < 0 ? 0x80 : 0) | (11 * a + b);
}

Pulse random_pulse() { return {uniform(0, 10), uniform(0, 1) ? 1 : -1}; }

Vec decode(const Word16 *fields, int rate) {
    std::unique_ptr<Word16[]> fcb(new Word16[55]);  // exact size for the sanitizer
    for (int i = 0; i < 55; ++i) fcb[i] = 777;
    evrc_dec_fixed_codebook(fcb.get(), fields, static_cast<Word16>(rate));
    Vec v;
    for (int i = 0; i < 55; ++i) v[i] = fcb[i];
    return v;
}

TEST(FixedCodebook, FullRatePulsesRoundTripThroughTheFieldLayout) {
    for (int it = 0; it < iterations(); ++it) {
        const int ts = uniform(0, 3);
        Vec expect{};
        Word16 f[4];
        for (int i = 0; i < 3; ++i) {
            const int track = (ts + i) % 5;
            Pulse p = random_pulse(), q = random_pulse();
            if (p.pos == q.pos) q.sign = p.sign;
            f[i] = static_cast<Word16>(encode_pair(p, q) | (uniform(0, 1) ? 0xFF00 : 0));  // high bits ignored
            expect[track + 5 * p.pos] += 2048 * p.sign;
            expect[track + 5 * q.pos] += 2048 * q.sign;
        }
        const Pulse p = random_pulse(), q = random_pulse();
        f[3] = static_cast<Word16>((ts << 9) | (p.sign < 0 ? 0x100 : 0) | (q.sign < 0 ? 0x80 : 0) | (11 * p.pos + q.pos));
        expect[(ts + 3) % 5 + 5 * p.pos] += 2048 * p.sign;
        expect[(ts + 4) % 5 + 5 * q.pos] += 2048 * q.sign;
        ASSERT_EQ(decode(f, EVRC_RATE_FULL), expect) << "it=" << it;
    }
}

TEST(FixedCodebook, OutOfRangePairsStayInsideTheVector) {
    // Pair values above 120 (rejected by the frame check) never write outside
    // the 55-entry vector, whatever the field holds.
    for (int x = 0; x < 2048; ++x) {
        Word16 bad[4] = {static_cast<Word16>(x & 0xFF), static_cast<Word16>(x & 0xFF), static_cast<Word16>(x & 0xFF),
                         static_cast<Word16>(x)};
        decode(bad, EVRC_RATE_FULL);
    }
}

TEST(FixedCodebook, HalfRatePulsesFollowTheFieldLayout) {
    for (int field = 0; field < 1024; ++field) {
        const Word16 f[1] = {static_cast<Word16>(field)};
        const int s = (field >> 9) ? -2048 : 2048;
        Vec expect{};
        expect[7 * ((field >> 6) & 7) + 0] = s;
        expect[7 * ((field >> 3) & 7) + 2] = -s;
        expect[7 * (field & 7) + 4] = s;
        ASSERT_EQ(decode(f, EVRC_RATE_HALF), expect) << field;
    }
}

// Wide model of the pitch sharpening and the gain combination.
void model_combine(std::vector<int64_t> &exc, std::vector<int64_t> &fcb, int T, int ga, int gf, int L) {
    const int beta = 2 * std::min(std::max(ga, 3277), 14746);
    auto idx = [](int i) { return std::min(std::max(i, 0), 53); };
    for (int n = 0; n < L - T; ++n) {
        fcb[idx(n + T)] = high_half(clamp32(fcb[idx(n + T)] * 65536 + 2 * beta * fcb[idx(n)] + 32768));
    }
    for (int n = 0; n < L; ++n) exc[n] = high_half(clamp32(exc[n] * ga * 4 + 32768 + fcb[idx(n)] * gf * 2));
}

TEST(FixedCodebook, CombinationMatchesWideModel) {
    for (int it = 0; it < iterations(); ++it) {
        const int L = uniform(0, 1) ? 54 : 53;
        Word32 p[3] = {uniform(3, 150) * 65536 + uniform(0, 65535), uniform(3, 150) * 65536 + uniform(0, 65535), 0};
        const int T = static_cast<int>(((int64_t(p[0]) + p[1] + 65536) >> 1) >> 16);
        const int ga = uniform(0, 7) == 0 ? 0 : uniform(0, 20000);
        const int gf = uniform(0, 23848);
        Word16 fields[4];
        for (Word16 &f : fields) f = static_cast<Word16>(uniform(0, 2047));
        for (int i = 0; i < 4; ++i) fields[i] = static_cast<Word16>((fields[i] & ~0x7F) | uniform(0, 120));
        Word16 fcb[55], exc[54];
        evrc_dec_fixed_codebook(fcb, fields, uniform(0, 1) ? EVRC_RATE_FULL : EVRC_RATE_HALF);
        const int amp = uniform(0, 1) ? 32767 : 4000;
        for (int n = 0; n < L; ++n) exc[n] = static_cast<Word16>(uniform(-amp, amp));
        std::vector<int64_t> mexc(exc, exc + L), mfcb(fcb, fcb + 55);
        model_combine(mexc, mfcb, T, ga, gf, L);

        Word16 lag = -1;
        evrc_combine_acb_fcb(exc, fcb, &lag, p, static_cast<Word16>(ga), static_cast<Word16>(gf), static_cast<Word16>(L));
        ASSERT_EQ(lag, T);
        for (int n = 0; n < 55; ++n) ASSERT_EQ(fcb[n], mfcb[n]) << "fcb n=" << n;
        for (int n = 0; n < L; ++n) ASSERT_EQ(exc[n], mexc[n]) << "exc n=" << n;
    }
}

// ---- pitch pre-filter ----

TEST(PitchPreFilter, MatchesModelAndReadsOnlyTheHistory) {
    for (int it = 0; it < iterations(); ++it) {
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
            ASSERT_EQ(out[n], high_half(clamp32(int64_t(b[kHist + n]) * 65536 + 32768 + 2 * g * xp)))
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

TEST(PitchPreFilter, CombGainIsHalfTheAcbGainAtMostOneHalf) {
    auto st = std::make_unique<EvrcDecoderState>();
    std::memset(st.get(), 0, sizeof(*st));
    for (int i = 0; i < kBufLen; ++i) st->exc_history[i] = static_cast<Word16>(2 * (i % 97) - 90);
    st->pitch_lag = 40;
    for (Word16 gain : {Word16(16384), Word16(19661), Word16(32767)}) {
        st->acb_gain = gain;
        Word16 out[54];
        evrc_dec::pitch_pre_filter_current(st.get(), out, 54);
        for (int n = 0; n < 54; ++n) {
            const Word16 *x = st->exc_history + kHist;
            ASSERT_EQ(out[n], x[n] + x[n - 40] / 2) << n;
        }
    }
}

// ---- postfilter and gain control ----

std::unique_ptr<EvrcDecoderState> fresh_state() {
    auto st = std::make_unique<EvrcDecoderState>();
    std::memset(st.get(), 0, sizeof(*st));
    st->agc_new_weight = 16384;
    st->agc_prev_weight = 16384;
    return st;
}


// (1 - mu z^-1) A(z/gz) / A(z/gp) in double precision, with the weighted
// coefficients rounded to Q12 as the decoder forms them.
std::vector<double> model_postfilter(const std::vector<int> &s, const Word16 *a, const Word16 *zeros,
                                     const Word16 *poles, int mu) {
    double cz[10], cp[10];
    for (int k = 0; k < 10; ++k) {
        cz[k] = high_half(2 * int64_t(zeros[k]) * a[k] + 32768) / 4096.0;
        cp[k] = high_half(2 * int64_t(poles[k]) * a[k] + 32768) / 4096.0;
    }
    const size_t N = s.size();
    std::vector<double> t(N), u(N), y(N);
    for (size_t n = 0; n < N; ++n) {
        t[n] = s[n] - (n ? mu / 32768.0 * s[n - 1] : 0.0);
        u[n] = t[n];
        y[n] = 0;
        for (size_t k = 1; k <= 10 && k <= n; ++k) u[n] -= cz[k - 1] * t[n - k];
        y[n] = u[n];
        for (size_t k = 1; k <= 10 && k <= n; ++k) y[n] += cp[k - 1] * y[n - k];
    }
    return y;
}

TEST(Postfilter, ImpulseResponseMatchesTransferFunctionAcrossSubframes) {
    // A fixed, clearly resonant but stable LPC set (Q12).
    const Word16 lpc[10] = {5734, -3277, 1229, -410, 205, -123, 82, -41, 20, -10};
    struct Setting {
        const Word16 *zeros;
        int mu;
    };
    for (Setting set : {Setting{evrc_acsGamma57Tab, 6554}, Setting{evrc_acsGamma50Tab, 11469}}) {
        auto st = fresh_state();
        std::memcpy(st->lpc, lpc, sizeof(lpc));
        std::vector<int> s(107, 0);
        s[0] = 8192;
        s[60] = -3000;
        const std::vector<double> ref = model_postfilter(s, lpc, set.zeros, evrc_acsGamma75Tab, set.mu);
        int pos = 0;
        for (int L : {53, 54}) {
            Word16 *cur = evrc_dec::current_subframe(st.get());
            for (int n = 0; n < L; ++n) cur[n] = static_cast<Word16>(s[pos + n]);
            Word16 out[54];
            evrc_decoder_postfilter(st.get(), out, evrc_acsGamma75Tab, set.zeros, static_cast<Word16>(L),
                                    static_cast<Word16>(set.mu));
            for (int n = 0; n < L; ++n) ASSERT_NEAR(out[n], ref[pos + n], 2.0) << "n=" << pos + n;
            EXPECT_EQ(st->tilt_last, s[pos + L - 1]);
            pos += L;
        }
    }
}

// The energy ratio is a Q28 quotient: gains from 2.0 up to sqrt(8) are
// limited just below 2.0; larger ratios wrap in the division (gain 3.0 gives
// a negative ratio and so a zero gain).
TEST(Agc, LargeEnergyRatios) {
    auto st = fresh_state();
    Word16 ref[53], in[53], out[53];
    for (int n = 0; n < 53; ++n) in[n] = static_cast<Word16>(uniform(-3000, 3000));
    for (int n = 0; n < 53; ++n) ref[n] = static_cast<Word16>(in[n] * 5 / 2);
    evrc_decoder_agc(st.get(), ref, in, out, 1, 53);
    for (int n = 0; n < 53; ++n) ASSERT_EQ(out[n], high_half(4 * 32767 * int64_t(in[n]) + 32768)) << n;
    for (int n = 0; n < 53; ++n) ref[n] = static_cast<Word16>(3 * in[n]);
    EXPECT_EQ(evrc_decoder_agc(st.get(), ref, in, out, 1, 53), 1);
    for (int n = 0; n < 53; ++n) ASSERT_EQ(out[n], 0) << n;
}

}  // namespace
