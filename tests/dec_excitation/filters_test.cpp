// LPC synthesis filter against a double-precision IIR, and the pitch
// pre-filter against an exact model.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "codec/dec/excitation_internal.h"
#include "evrc/basic_op.h"
#include "evrc/evrc_dec.h"
#include "excitation_test_util.h"

using namespace exc_test;

namespace {

// Random stable LPC (Q12, A(z) = 1 - sum a_k z^-k) from reflection
// coefficients below 0.85 in magnitude; false if a coefficient leaves Q12.
bool random_stable_lpc(Word16 *a) {
    double c[11] = {1.0}, t[11];
    for (int m = 1; m <= 10; ++m) {
        const double k = std::uniform_real_distribution<double>(-0.85, 0.85)(rng());
        std::memcpy(t, c, sizeof(c));
        for (int i = 1; i < m; ++i) c[i] = t[i] + k * t[m - i];
        c[m] = k;
    }
    for (int i = 0; i < 10; ++i) {
        const double q = std::round(-c[i + 1] * 4096.0);
        if (std::fabs(q) > 30000) return false;
        a[i] = static_cast<Word16>(q);
    }
    return true;
}

std::vector<double> double_iir(const Word16 *a, const std::vector<int> &x) {
    std::vector<double> y(x.size());
    for (size_t n = 0; n < x.size(); ++n) {
        double acc = x[n];
        for (size_t k = 1; k <= 10 && k <= n; ++k) acc += a[k - 1] / 4096.0 * y[n - k];
        y[n] = acc;
    }
    return y;
}

}  // namespace

TEST(LpcFilters, SynthesisTracksDoublePrecisionIirAcrossSubframes) {
    int checked = 0;
    for (int it = 0; it < iterations(200) && checked < iterations(200) / 2; ++it) {
        Word16 a[10];
        if (!random_stable_lpc(a)) continue;
        std::vector<int> x(160);
        const int amp = uniform(10, 3000);
        for (int &v : x) v = uniform(-amp, amp);
        const std::vector<double> ref = double_iir(a, x);
        double peak = 0;
        for (double v : ref) peak = std::max(peak, std::fabs(v));
        if (peak > 30000) continue;  // keep clear of saturation
        ++checked;

        // One call over the frame, and three calls over the subframes with the
        // memory carried between them, must agree exactly.
        Word32 mem1[10] = {}, mem3[10] = {};
        std::vector<Word16> in(x.begin(), x.end()), whole(160), parts(in);
        evrc_voc_synthesis_filter(a, in.data(), whole.data(), mem1, 160);
        int pos = 0;
        for (int L : {53, 53, 54}) {
            evrc_voc_synthesis_filter(a, parts.data() + pos, parts.data() + pos, mem3, static_cast<Word16>(L));
            pos += L;
        }
        ASSERT_EQ(whole, parts);
        ASSERT_EQ(std::memcmp(mem1, mem3, sizeof(mem1)), 0);
        for (int n = 0; n < 160; ++n) ASSERT_NEAR(whole[n], ref[n], 1.0) << "n=" << n << " it=" << it;
        EXPECT_NEAR(mem1[0] / 65536.0, ref[159], 0.01);
    }
    EXPECT_GT(checked, 0);
}

TEST(PitchPreFilter, MatchesModelAndReadsOnlyTheHistory) {
    for (int it = 0; it < iterations(); ++it) {
        const int L = 53 + uniform(0, 1);
        const int T = uniform(0, 9) == 0 ? uniform(-5, 200) : uniform(20, 135);
        const int gain = uniform(0, 3) == 0 ? uniform(16384, 32767) : uniform(0, 16384);
        ExcBuffer b;  // exact size: anything read outside would be reported
        b.randomize(uniform(0, 1) ? 32767 : 5000);
        std::vector<Word16> out(L);
        evrc_pitch_pre_filter(b.subframe() + L - 1, static_cast<Word16>(T), out.data(), static_cast<Word16>(gain),
                              static_cast<Word16>(L));
        const int g = std::min(gain, 16384);
        for (int n = 0; n < L; ++n) {
            const int past = kHist + n - T;
            const int64_t xp = (past >= 0 && past < kBufLen) ? b[past] : 0;
            ASSERT_EQ(out[n], high_half(clamp32(int64_t(b[kHist + n]) * 65536 + 32768 + 2 * g * xp)))
                << "T=" << T << " n=" << n;
        }
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
