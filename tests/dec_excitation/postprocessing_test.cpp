// Postfilter against a double-precision model of its transfer function, and
// the automatic gain control.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "codec/dec/excitation_internal.h"
#include "evrc/basic_op.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"
#include "excitation_test_util.h"

using namespace exc_test;

namespace {

std::unique_ptr<EvrcDecoderState> fresh_state() {
    auto st = std::make_unique<EvrcDecoderState>();
    std::memset(st.get(), 0, sizeof(*st));
    st->agc_new_weight = 16384;
    st->agc_prev_weight = 16384;
    return st;
}

int64_t energy(const Word16 *x, int L) {
    int64_t e = 0;
    for (int n = 0; n < L; ++n) e += int64_t(x[n]) * x[n];
    return e;
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

}  // namespace

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

TEST(Agc, OutputEnergyFollowsTheReference) {
    for (int it = 0; it < iterations(100); ++it) {
        auto st = fresh_state();
        const int L = 53 + uniform(0, 1);
        std::vector<Word16> ref(L), in(L), out(L);
        for (Word16 &v : ref) v = static_cast<Word16>(uniform(-6000, 6000));
        // Gains from about 0.3 up to just below 2.
        const double scale = std::uniform_real_distribution<double>(0.52, 3.0)(rng());
        for (int n = 0; n < L; ++n) in[n] = static_cast<Word16>(std::lround(uniform(-6000, 6000) * scale));
        const double want = std::sqrt(double(energy(ref.data(), L)) / double(energy(in.data(), L)));
        if (want >= 1.99 || want < 0.05) continue;
        ASSERT_EQ(evrc_decoder_agc(st.get(), ref.data(), in.data(), out.data(), 1, static_cast<Word16>(L)), 1);
        for (int n = 0; n < L; ++n) ASSERT_NEAR(out[n], in[n] * want, 1.0 + std::abs(in[n]) * want * 2e-3) << n;
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
