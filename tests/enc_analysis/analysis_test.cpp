// LPC analysis, LSP conversion and eighth-rate level, as properties over
// random inputs against double-precision models.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "codec/enc/enc_tables.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_enc.h"

namespace {

constexpr int kFrame = 160;
constexpr double kPi = 3.14159265358979323846;

int iterations(int fallback) {
    const char *env = std::getenv("EVRC_TEST_ITERATIONS");
    const int n = env ? std::atoi(env) : 0;
    return n > 0 && n < fallback ? n : fallback;
}

// Kinds 0..3: silence, DC, an impulse, full-scale alternation; otherwise an
// AR(2) process of random level and resonance.
std::vector<int16_t> test_frame(std::mt19937 &rng, int kind) {
    std::vector<int16_t> x(kFrame, kind == 1 ? 12000 : 0);
    if (kind == 2) x[70] = -30000;
    if (kind == 3) {
        for (int n = 0; n < kFrame; ++n) x[n] = (n & 1) ? 32767 : -32768;
    }
    if (kind < 4) return x;
    std::normal_distribution<double> g(0.0, 1.0);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    const double level = std::pow(10.0, 4.0 * u(rng)) / 2, radius = 0.99 * u(rng), theta = kPi * u(rng);
    double y1 = 0, y2 = 0;
    for (int16_t &v : x) {
        const double y = level * g(rng) + 2 * radius * std::cos(theta) * y1 - radius * radius * y2;
        y2 = y1, y1 = y;
        v = static_cast<int16_t>(std::clamp(y, -32768.0, 32767.0));
    }
    return x;
}

// Minimum phase of 1 - sum a_k z^-k: every step-down reflection coefficient
// strictly inside (-1, 1).
bool stable(std::vector<double> a) {
    for (int m = static_cast<int>(a.size()); m >= 1; --m) {
        const double k = a[m - 1];
        if (std::fabs(k) >= 1.0) return false;
        std::vector<double> b(m - 1);
        for (int j = 0; j < m - 1; ++j) b[j] = (a[j] + k * a[m - 2 - j]) / (1 - k * k);
        a = b;
    }
    return true;
}

// LSPs of 1 - sum a_k z^-k in LSP units (16384 = 4 kHz), in double precision:
// on the unit circle P(z) e^{j 11w/2} = 2 sum P_k cos((5.5 - k) w) and
// Q(z) e^{j 11w/2} = 2j sum Q_k sin((5.5 - k) w), k = 0..5.
std::vector<double> model_lsps(const double *a) {
    double A[12] = {1.0};
    for (int k = 1; k <= 10; ++k) A[k] = -a[k - 1];
    auto eval = [&](bool sum, double lsp) {
        const double w = 2 * kPi * lsp / 32768.0;
        double v = 0;
        for (int k = 0; k <= 5; ++k) {
            v += sum ? (A[k] + A[11 - k]) * std::cos((5.5 - k) * w) : (A[k] - A[11 - k]) * std::sin((5.5 - k) * w);
        }
        return v;
    };
    std::vector<double> roots;
    for (bool sum : {true, false}) {
        for (double lo = 0.5; lo < 16383; lo += 8) {
            double l = lo, hi = std::min(lo + 8, 16383.5);
            if ((eval(sum, l) < 0) == (eval(sum, hi) < 0)) continue;
            for (int i = 0; i < 40; ++i) {
                const double mid = (l + hi) / 2;
                ((eval(sum, mid) < 0) == (eval(sum, l) < 0) ? l : hi) = mid;
            }
            roots.push_back(l);
        }
    }
    std::sort(roots.begin(), roots.end());
    return roots;
}

TEST(LpcAnalysis, WindowFillsSixteenBitsAndAutocorrelationMatchesA64BitModel) {
    std::mt19937 rng(11);
    for (int it = 0; it < iterations(400); ++it) {
        const std::vector<int16_t> x = test_frame(rng, it);
        int16_t w[kFrame];
        const Word16 ws = cmn1x_hamming_window(x.data(), w);
        int peak = 0;
        for (int n = 0; n < kFrame; ++n) {
            const double want = x[n] * (evrc_enc_tables::lpc_analysis_window[n] / 32768.0) * std::ldexp(1.0, ws);
            ASSERT_NEAR(w[n], std::clamp(want, -32768.0, 32767.0), 1.0) << it;
            peak = std::max(peak, std::abs(static_cast<int>(w[n])));
        }
        EXPECT_TRUE(peak == 0 || peak >= 16383) << it;

        Word32 r[17];
        const Word16 as = evrc_autocorr(w, r);
        for (int k = 0; k < 17; ++k) {
            int64_t sum = 0;
            for (int n = k; n < kFrame; ++n) sum += 2 * int64_t{w[n]} * w[n - k];
            ASSERT_EQ(r[k], as >= 0 ? sum * (int64_t{1} << as) : sum >> -as) << it << " lag " << k;
        }
        EXPECT_TRUE(r[0] >= (1 << 30) || (r[0] == 0 && as == 0)) << it;
    }
}

TEST(LpcAnalysis, DurbinMatchesDoublePrecisionWithAStableFilterAndErrorBelowLagZero) {
    std::mt19937 rng(12);
    for (int it = 0; it < iterations(400); ++it) {
        const std::vector<int16_t> x = test_frame(rng, it);
        int16_t w[kFrame];
        cmn1x_hamming_window(x.data(), w);
        Word32 r[17], lpc[10];
        evrc_autocorr(w, r);
        const Word32 err = cmn1x_durbins_recursion(r, lpc);
        EXPECT_TRUE(r[0] > 0 ? err >= 0 && err < r[0] : err == 0) << it;

        double rw[11], a[11] = {}, e;
        for (int k = 0; k <= 10; ++k) rw[k] = r[k] * (evrc_enc_tables::lag_window_q30[k] / 1073741824.0);
        e = rw[0];
        for (int i = 1; i <= 10 && e > 0; ++i) {
            double acc = rw[i], next[11];
            for (int j = 1; j < i; ++j) acc -= a[j] * rw[i - j];
            const double k = acc / e;
            if (std::fabs(k) > 0.9998) break;
            for (int j = 1; j < i; ++j) next[j] = a[j] - k * a[i - j];
            std::copy(next + 1, next + i, a + 1);
            a[i] = k, e *= 1 - k * k;
        }
        std::vector<double> got(10);
        for (int k = 0; k < 10; ++k) {
            got[k] = lpc[k] / 134217728.0;
            EXPECT_NEAR(got[k], a[k + 1], 2e-3) << it << " a" << k + 1;
        }
        EXPECT_TRUE(stable(got)) << it;
        evrc_bandwidth_expand_lpcs(lpc);
        for (int k = 0; k < 10; ++k) {
            EXPECT_NEAR(lpc[k] / 134217728.0, got[k] * evrc_enc_tables::lpc_bandwidth_expansion_q15[k] / 32768.0, 1e-7);
        }
    }
}

TEST(LspConversion, RandomStableFiltersComeBackAscendingAtTheModelRoots) {
    std::mt19937 rng(13);
    std::uniform_int_distribution<int> pick(200, 16200);
    for (int checked = 0, it = 0; checked < iterations(150); ++it) {
        Word16 lsp[10], a_q12[10] = {};
        for (Word16 &v : lsp) v = static_cast<Word16>(pick(rng));
        std::sort(lsp, lsp + 10);
        if (std::adjacent_find(lsp, lsp + 10, [](int p, int q) { return q - p < 120; }) != lsp + 10) continue;
        cmn1x_lsp2lpc(lsp, a_q12, 3);
        Word32 lpc[10];
        double a[10];
        for (int k = 0; k < 10; ++k) lpc[k] = Word32{a_q12[k]} * 32768, a[k] = a_q12[k] / 4096.0;
        // Rounding to Q12 can push roots near 0 or 4 kHz off the circle: only
        // filters that keep ten LSPs, apart by more than the enforced spacing.
        const std::vector<double> want = model_lsps(a);
        if (want.size() != 10u ||
            std::adjacent_find(want.begin(), want.end(), [](double p, double q) { return q - p < 70; }) != want.end()) {
            continue;
        }
        ++checked;
        Word32 p[6], q[6];
        Word16 out[10];
        const Word16 prev[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
        cmn1x_lpc2pq(lpc, p, q);
        ASSERT_EQ(cmn1x_pq2lsp(p, q, out, prev), 1) << it;
        for (int i = 0; i < 10; ++i) {
            EXPECT_NEAR(out[i], want[i], 3.0) << it << " lsp " << i;  // 0.7 Hz
            EXPECT_TRUE(i == 0 || out[i] - out[i - 1] >= 64) << it;
        }
    }
    // No sign change at all: the previous set.
    const Word32 p[6] = {1 << 22, 0, 0, 0, 0, 1 << 30}, q[6] = {1 << 22, 0, 0, 0, 0, 0};
    const Word16 prev[10] = {1000, 2000, 3000, 4000, 5000, 6000, 7000, 8000, 9000, 10000};
    Word16 out[10];
    EXPECT_EQ(cmn1x_pq2lsp(p, q, out, prev), 0);
    EXPECT_TRUE(std::equal(out, out + 10, prev));
}

// Forced eighth rate: the decoded comfort noise keeps the input's level for
// noise of three colours at levels inside the energy codebook's range.
TEST(EighthRate, DecodedNoiseKeepsTheInputLevel) {
    for (int colour = 0; colour < 3; ++colour) {
        for (double level : {5.0, 20.0, 60.0}) {
            std::vector<unsigned char> enc_mem(get_sizeof_evrc_enc_struct(), 0);
            auto *enc = reinterpret_cast<EvrcEncoderState *>(enc_mem.data());
            evrc_init_enc(enc);
            evrc_set_enc_params(enc, 4, 1, 0, 1, 0, 0);
            auto dec = std::make_unique<EvrcDecoderState>();
            std::memset(dec.get(), 0, sizeof(EvrcDecoderState));
            evrc_init_dec(dec.get());
            std::mt19937 rng(static_cast<unsigned>(colour * 10 + level));
            std::normal_distribution<double> g(0.0, level);
            double y1 = 0, in_energy = 0, out_energy = 0;
            for (int f = 0; f < 80; ++f) {
                int16_t in[kFrame], out[kFrame];
                for (int16_t &v : in) {
                    y1 = g(rng) + (colour == 0 ? 0.0 : colour == 1 ? 0.9 : -0.8) * y1;
                    v = static_cast<int16_t>(std::lround(y1));
                }
                UWord16 words[EVRC_PACKET_WORDS];
                evrc_encoder(enc, in, words, 0, nullptr);
                EvrcPacket pk;
                std::memcpy(&pk, words, sizeof pk);
                evrc_decode(dec.get(), &pk, out, 0);
                if (f < 10) continue;
                ASSERT_EQ(pk.rate, EVRC_RATE_EIGHTH) << f;
                for (int n = 0; n < kFrame; ++n) {
                    in_energy += static_cast<double>(in[n]) * in[n];
                    out_energy += static_cast<double>(out[n]) * out[n];
                }
            }
            EXPECT_NEAR(10 * std::log10(out_energy / in_energy), 0.0, 1.5) << "colour " << colour << " level " << level;
        }
    }
}

// Index 255 with LSP indices 15 and 15 would make the all-ones eighth-rate
// word the decoder reserves: a level that picks row 255 picks another row then.
TEST(EighthRate, NeverThe255RowWithLspIndices15And15) {
    std::vector<unsigned char> mem(get_sizeof_evrc_enc_struct(), 0);
    auto *st = reinterpret_cast<EvrcEncoderState *>(mem.data());
    int hits = 0;
    for (double amp = 30; amp < 3000; amp *= 1.02) {
        for (int n = 0; n < 2 * kFrame; ++n) st->asSpeech[n] = static_cast<Word16>(n % 2 ? amp : -amp);
        st->lsp_index[0] = st->lsp_index[1] = 0;
        if (evrc_8th_rate(st) != 255) continue;
        ++hits;
        st->lsp_index[0] = st->lsp_index[1] = 15;
        EXPECT_NE(evrc_8th_rate(st), 255) << amp;
        st->lsp_index[1] = 14;
        EXPECT_EQ(evrc_8th_rate(st), 255) << amp;
    }
    EXPECT_GT(hits, 0);
}

}  // namespace
