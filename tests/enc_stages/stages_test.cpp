// The encoder's exactly defined stages (band-energy rate decision, noise
// estimation, fast correlation, LSP weights and split VQ) against
// models written from their definitions in plain 64-bit integers and the
// arithmetic layer's operators (held to exact models of their own in
// tests/basic), the LPC recursion against double precision, over random
// inputs: results, overflow flag and operation counter must agree. Then the rate rules of
// evrc_ratedec around the band selection: first frame full, never full
// straight to eighth, forced eighth, one-shot noise reset, the clamp to the
// caller's range (applied last). (Hangover and full-rate limiting: the
// selection model, the golden streams and the tool's rate options.) Whole
// frames: side information replaces the delay fields. (The packing is pinned
// by the golden streams of both directions, the decoder's through the shared
// field layout, and the in-step test, which decodes every packet the encoder
// makes: planted faults in the packer, its flush and the field widths are
// all caught there.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "codec/basic/fixed_point.h"
#include "codec/enc/enc_tables.h"
#include "codec/enc/pitch_internal.h"
#include "evrc/basic_op.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_enc.h"
#include "evrc/evrc_tables.h"
#include "tests/support/effects.h"
#include "tests/support/iterations.h"

namespace {

constexpr int64_t kMax32 = 2147483647, kMin32 = -kMax32 - 1;

using evrc_test::effects;
using evrc_test::Effects;
using evrc_test::iterations;

struct Rng {
    std::mt19937_64 g;
    explicit Rng(uint64_t seed) : g(seed) {}
    int64_t in(int64_t lo, int64_t hi) { return lo + static_cast<int64_t>(g() % static_cast<uint64_t>(hi - lo + 1)); }
    // Anything, small, near the limits, or of random magnitude.
    int32_t w32() {
        const int k = static_cast<int>(in(0, 3));
        return static_cast<int32_t>(k == 0   ? static_cast<int32_t>(g())
                                    : k == 1 ? in(-40, 40)
                                    : k == 2 ? (in(0, 1) ? kMax32 - in(0, 3) : kMin32 + in(0, 3))
                                             : static_cast<int32_t>(g()) >> in(0, 31));
    }
    int16_t w16() { return static_cast<int16_t>(w32() >> (in(0, 1) ? 16 : 0)); }
};

// A zero-filled (value-initialised), initialised encoder state.
std::unique_ptr<EvrcEncoderState> new_encoder() {
    auto st = std::make_unique<EvrcEncoderState>();
    evrc_init_enc(st.get());
    return st;
}

int64_t sat(int64_t v, int64_t hi) { return v > hi ? hi : (v < -hi - 1 ? -hi - 1 : v); }
int16_t hi16(int32_t x) { return static_cast<int16_t>(x >> 16); }
int32_t lo16u(int32_t x) { return x & 0xFFFF; }

// ---- Rate decision ----------------------------------------------------------

struct Bands {
    int32_t noise[2], signal[2], energy[2];
    int16_t snr[2], hangover, first, low_beta, high_beta;
};

Bands random_bands(Rng &r) {
    Bands b{};
    for (int k = 0; k < 2; ++k) {
        b.noise[k] = r.in(0, 3) ? static_cast<int32_t>(r.in(5, 5059644)) : r.w32();
        b.signal[k] = r.in(0, 3) ? static_cast<int32_t>(r.in(0, 1 << r.in(1, 30))) : r.w32();
        b.energy[k] = r.in(0, 3) ? static_cast<int32_t>(r.in(0, 1 << r.in(1, 30))) : r.w32();
        b.snr[k] = static_cast<int16_t>(r.in(0, 7));
    }
    b.hangover = static_cast<int16_t>(r.in(0, 9));
    b.first = static_cast<int16_t>(r.in(0, 2));
    b.low_beta = static_cast<int16_t>(r.in(0, 1) ? r.in(0, 10) : 32767);
    b.high_beta = static_cast<int16_t>(r.in(0, 1) ? r.in(0, 8) : 32767);
    return b;
}

int16_t model_rate_selection(const int32_t r[17], Bands &b, int prev, int last, int ws, int as) {
    const int s = static_cast<int>(sat(std::min<int64_t>(sat(sat(2 * ws, 32767) + as, 32767), 30) + 1, 32767));
    int16_t rate = 1;
    for (int k = 0; k < 2; ++k) {
        int64_t acc = 0;
        for (int i = 0; i < 17; ++i) acc += int64_t{hi16(r[i])} * evrc_acsBandFiltAuto[k][i];
        acc = s >= 0 ? acc >> std::min(s, 63) : (-s >= 64 ? 0 : static_cast<int64_t>(static_cast<uint64_t>(acc) << -s));
        const int32_t e = static_cast<int32_t>(sat(acc, kMax32)), old = b.energy[k];
        b.energy[k] = static_cast<int32_t>(sat(int64_t{fx::L_mult(hi16(old), 19661)} + ((lo16u(old) * 19661) >> 15) +
                                                   fx::L_mult(hi16(e), 13107) + ((lo16u(e) * 13107) >> 15),
                                               kMax32));
        const int32_t t = fx::L_shl(b.noise[k], 7), f = evrc_acnRateThreshScaleFact[b.snr[k]];
        const int32_t upper = fx::L_mult_32_16(t, hi16(f)), lower = fx::L_mult_32_16(t, static_cast<int16_t>(f));
        rate = std::max<int16_t>(rate, e > upper ? 4 : lower >= e ? 1 : 3);
    }
    if (rate == 4) return b.hangover = 0, 4;
    if (prev != 4 || last != 4) return rate;
    if (b.first == 1) return b.first = 2, rate;
    if (b.snr[0] >= 4 || b.hangover > (b.snr[0] == 3 ? 2 : 6)) return rate;
    b.hangover = static_cast<int16_t>(std::min(b.hangover + 1, 32767));
    return 4;
}

TEST(RateDecision, SelectionMatchesModel) {
    Rng r(3);
    for (int it = 0; it < iterations(100000); ++it) {
        int32_t ac[17];
        for (auto &v : ac) v = r.w32();
        if (r.in(0, 1)) ac[0] = static_cast<int32_t>(r.in(0x40000000, kMax32));  // normalised energy
        Bands b = random_bands(r), m = b;
        const int16_t prev = static_cast<int16_t>(r.in(0, 4)), last = static_cast<int16_t>(r.in(0, 4));
        const int16_t ws = r.in(0, 7) ? static_cast<int16_t>(r.in(0, 15)) : r.w16();
        const int16_t as = r.in(0, 7) ? static_cast<int16_t>(r.in(0, 31)) : r.w16();
        int16_t got = 0, want = 0;
        const Effects e = effects([&] {
            got = evrc_rate_selection(ac, b.snr, b.noise, b.energy, &b.hangover, &b.first, prev, last, ws, as);
        });
        ASSERT_EQ(e, effects([&] { want = model_rate_selection(ac, m, prev, last, ws, as); }));
        ASSERT_EQ(got, want);
        ASSERT_EQ(0, std::memcmp(&b, &m, sizeof b));
    }
}

void model_update_rate_info(Bands &b, int16_t beta) {
    const bool fast = beta < 9831 && b.low_beta > 7;
    b.low_beta = static_cast<int16_t>(beta >= 9831 ? 0 : fast ? b.low_beta : std::min(b.low_beta + 1, 32767));
    const int g = beta >= 16384 && b.high_beta >= 5 ? 31785 : 32768;
    b.high_beta = static_cast<int16_t>(beta >= 16384 ? std::min(b.high_beta + 1, 32767) : 0);
    for (int k = 0; k < 2; ++k) {
        const int16_t f = fast ? 1 : b.snr[k] > 3, m = fast ? 16876 : b.snr[k] < 4 ? 16384 : 16474;
        const int32_t n = b.noise[k], s = b.signal[k];
        const int64_t scaled = sat(((lo16u(n) * m) >> 14) + 2 * int64_t{fx::L_mult(hi16(n), m)}, kMax32);
        const int64_t raised = sat(int64_t{n} + (fx::L_mult(f, f) >> 1), kMax32);
        b.noise[k] = static_cast<int32_t>(std::max<int64_t>(
            std::min(std::max(raised, scaled), std::min<int64_t>(b.energy[k], 5059644)), k == 0 ? 10 : 5));
        b.signal[k] = static_cast<int32_t>(
            std::max<int64_t>(b.energy[k], sat(int64_t{hi16(s)} * g * 2 + ((int64_t{lo16u(s)} * g) >> 15), kMax32)));
    }
    for (int k = 0; k < 2; ++k) {
        const int16_t d = static_cast<int16_t>(evrc_log2(b.signal[k]) - evrc_log2(b.noise[k]));
        b.snr[k] = static_cast<int16_t>(std::clamp<int>(((fx::L_mult(19728, d) >> 10) + 32768 - 262144) >> 16, 0, 7));
    }
}

TEST(RateDecision, BandEstimatesMatchModel) {
    Rng r(4);
    for (int it = 0; it < iterations(100000); ++it) {
        Bands b = random_bands(r), m = b;
        const int16_t beta = r.in(0, 3) ? static_cast<int16_t>(r.in(0, 32767)) : r.w16();
        const Effects e = effects(
            [&] { evrc_update_rate_info(b.noise, b.energy, b.signal, b.snr, &b.low_beta, &b.high_beta, beta); });
        ASSERT_EQ(e, effects([&] { model_update_rate_info(m, beta); }));
        ASSERT_EQ(0, std::memcmp(&b, &m, sizeof b)) << it;
    }
}

TEST(RateDecision, NoiseLevelMatchesModel) {
    Rng r(5);
    for (int it = 0; it < iterations(20000); ++it) {
        auto st = new_encoder();
        const int amp = static_cast<int>(r.in(0, 32767) >> r.in(0, 14));
        for (auto &x : st->asSpeech) x = static_cast<Word16>(r.in(-amp - 1, amp));
        st->autocorr[0] = r.in(0, 3) ? static_cast<int32_t>(r.in(1, kMax32)) : r.w32();
        st->pred_error = r.in(0, 3) ? static_cast<int32_t>(r.in(0, std::max(st->autocorr[0], 1))) : r.w32();
        for (auto &a : st->lpc) a = r.w32();
        st->noise_level = r.in(0, 3) ? static_cast<Word16>(r.in(0, 32767)) : r.w16();
        st->noise_pending = static_cast<Word16>(r.in(0, 3) == 0);
        st->sRate = static_cast<Word16>(r.in(0, 1) ? 1 : r.in(2, 4));
        EvrcEncoderState m = *st;
        const Effects e = effects([&] { evrc_background_noise_estimation(st.get(), st->asSpeech + 160); });
        ASSERT_EQ(e, effects([&] {
                      const int32_t ratio = evrc_divide_dp(m.pred_error, m.autocorr[0], 2);
                      m.pred_gain = hi16(ratio);
                      int64_t energy = 0;
                      for (int n = 160; n < 320; ++n) energy += int64_t{m.asSpeech[n]} * m.asSpeech[n];
                      const int64_t prod = fx::L_mult64_32_32(static_cast<int32_t>(sat(energy, kMax32)), ratio);
                      const int16_t level = hi16(fx::L_mult(8974, evrc_square_root(static_cast<int32_t>(prod))) >> 1);
                      if (m.noise_level > 2 * level) m.noise_level = level;
                      if (m.noise_pending == 0 && m.sRate != 1) return;
                      m.noise_level = hi16(fx::L_mac(fx::L_mac(32768, level, 10923), m.noise_level, 21845));
                      m.noise_pending = 0;
                      for (int i = 0; i < 10; ++i) m.noise_lpc[i] = hi16(m.lpc[i]);
                  }));
        ASSERT_EQ(0, std::memcmp(st.get(), &m, sizeof m));
    }
}

// ---- Open-loop pitch ---------------------------------------------------------

// The fast correlation against its operator-by-operator form, alternating
// full-scale samples included.
TEST(OpenLoopPitch, FastCorrelationMatchesTheOperatorChain) {
    Rng r(7);
    Word16 x[2 * EVRC_ENC_FRAME];
    for (int it = 0; it < iterations(2000); ++it) {
        for (int n = 0; n < 2 * EVRC_ENC_FRAME; ++n)
            x[n] = static_cast<Word16>(it % 3 ? r.in(-2047, 2047) : n % 2 ? 2047 : -2047);
        const int lag = static_cast<int>(r.in(20, 120));
        Word32 fast = 0, ref = 0;
        const Effects e = effects([&] { fast = evrc_enc::correlate_fast(x, lag); });
        ASSERT_EQ(e, effects([&] { ref = evrc_enc::correlate_reference(x, lag); }));
        ASSERT_GT(e.second, 0u);
        ASSERT_EQ(fast, ref) << it;
    }
}

// ---- LPC analysis -----------------------------------------------------------

// Levinson-Durbin on the lag-windowed autocorrelation of windowed frames
// (silence, DC, an impulse, full-scale alternation, AR(2) processes of any
// level and resonance) against double precision, which stops where a
// reflection coefficient would reach 0.9998; the error stays below lag zero.
TEST(LpcAnalysis, DurbinMatchesDoublePrecision) {
    Rng r(12);
    std::normal_distribution<double> g(0.0, 1.0);
    for (int it = 0; it < iterations(400); ++it) {
        Word16 x[EVRC_ENC_FRAME], w[EVRC_ENC_FRAME];
        const double level = std::pow(10.0, r.in(0, 400) / 100.0) / 2, radius = r.in(0, 990) / 1000.0,
                     theta = M_PI * r.in(0, 1000) / 1000.0;
        double y1 = 0, y2 = 0;
        for (int n = 0; n < EVRC_ENC_FRAME; ++n) {
            const double y = level * g(r.g) + 2 * radius * std::cos(theta) * y1 - radius * radius * y2;
            y2 = y1, y1 = y;
            x[n] = static_cast<Word16>(it == 0   ? 0
                                       : it == 1 ? 12000
                                       : it == 2 ? (n == 70) * -30000
                                       : it == 3 ? (n & 1 ? 32767 : -32768)
                                                 : std::clamp(y, -32768.0, 32767.0));
        }
        cmn1x_hamming_window(x, w);
        Word32 ac[17], lpc[10];
        evrc_autocorr(w, ac);
        const Word32 err = cmn1x_durbins_recursion(ac, lpc);
        ASSERT_TRUE(ac[0] > 0 ? err >= 0 && err < ac[0] : err == 0) << it;
        double rw[11], a[11] = {}, e;
        for (int k = 0; k <= 10; ++k) rw[k] = ac[k] * (evrc_enc_tables::lag_window_q30[k] / 1073741824.0);
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
        for (int k = 0; k < 10; ++k) ASSERT_NEAR(lpc[k] / 134217728.0, a[k + 1], 2e-3) << it << " a" << k + 1;
    }
}

// ---- LSP quantisation -------------------------------------------------------

void model_weights(const int16_t lsp[10], int32_t w[10]) {
    bool seen = false;
    for (int i = 0; i < 10; ++i) {
        const int64_t below = i > 0 ? sat(int64_t{lsp[i]} - lsp[i - 1], 32767) : 32767;
        const int64_t above = i < 9 ? sat(int64_t{lsp[i + 1]} - lsp[i], 32767) : 32767;
        const int16_t d = static_cast<int16_t>(std::min(below, above));
        Word16 e = 0;
        const int32_t rcp = d ? evrc_invert_dp(d, 4, &e) : 0;
        w[i] =
            d == 0 ? (seen ? 411775 : 3688575) : static_cast<int32_t>(sat((int64_t{rcp} >> (31 - e)) + 411775, kMax32));
        seen |= d != 0;
    }
}

void model_norm(const int32_t *w, int n, uint16_t *out) {
    int64_t m = 0;
    for (int i = 0; i < n; ++i) m = std::max<int64_t>(m, std::abs(int64_t{w[i]}));
    const int shift = evrc_norm_l(static_cast<int32_t>(sat(m, kMax32))) + 1;
    for (int i = 0; i < n; ++i) out[i] = static_cast<uint16_t>((static_cast<uint64_t>(int64_t{w[i]}) << shift) >> 16);
}

void model_quantize(const int16_t target[10], int16_t rate, int32_t w[10], int16_t q[10], int16_t idx[4]) {
    struct Split {
        int first, dim, param;
        const Word16 *book;
    };
    const Split full[4] = {{0, 2, 0, evrc_acsLspVQFull1[0]},
                           {2, 2, 1, evrc_acsLspVQFull2[0]},
                           {4, 3, 2, evrc_acsLspVQFull3[0]},
                           {7, 3, 3, evrc_acsLspVQFull4[0]}};
    const Split half[3] = {
        {0, 3, 4, evrc_acsLspVQHalf1[0]}, {3, 3, 5, evrc_acsLspVQHalf2[0]}, {6, 4, 6, evrc_acsLspVQHalf3[0]}};
    const Split eighth[2] = {{0, 5, 7, evrc_acsLspVQEighth1[0]}, {5, 5, 8, evrc_acsLspVQEighth2[0]}};
    const Split *splits = rate == 4 ? full : rate == 3 ? half : eighth;
    model_weights(target, w);
    int16_t floor = 0;
    for (int s = 0; s < (rate == 4 ? 4 : rate == 3 ? 3 : 2); ++s) {
        const Split &sp = splits[s];
        uint16_t nw[5];
        model_norm(w + sp.first, sp.dim, nw);
        if (rate == 4 && sp.dim == 2 && nw[0] == nw[1]) nw[0] = nw[1] = 32768;
        int64_t best = kMax32;
        int row = 0;
        for (int j = 0; j < static_cast<int>(evrc_acsLspSearchParams[sp.param] & 0xFFFF); j += sp.dim) {
            if (sp.book[j] <= floor) continue;
            int64_t sum = 0;
            for (int k = 0; k < sp.dim; ++k) {
                const int64_t t = target[sp.first + k], c = sp.book[j + k];
                const int64_t d = sat(sp.dim == 2 ? t - c : c - t, 32767);
                sum += d * (sat(2 * d * nw[k], kMax32) >> 16);
            }
            if (sat(2 * sum, kMax32) < best) best = sat(2 * sum, kMax32), row = j / sp.dim;
        }
        std::copy(sp.book + row * sp.dim, sp.book + (row + 1) * sp.dim, q + sp.first);
        idx[s] = static_cast<int16_t>(row);
        floor = static_cast<int16_t>(sp.book[row * sp.dim + sp.dim - 1] + 261);
    }
}

TEST(LspQuantisation, MatchesModel) {
    Rng r(6);
    for (int it = 0; it < iterations(20000); ++it) {
        int16_t target[10];
        const int kind = static_cast<int>(r.in(0, 3));  // ascending, coincident neighbours, anything
        for (int i = 0; i < 10; ++i) {
            target[i] = kind == 3 ? r.w16() : static_cast<int16_t>(r.in(1, 32000));
            if (kind == 2 && i > 0 && r.in(0, 2) == 0) target[i] = target[i - 1];
        }
        if (kind < 2) std::sort(target, target + 10);
        const int16_t rate = static_cast<int16_t>(it % 5);
        int32_t w[10], mw[10];
        int16_t q[10] = {}, mq[10] = {}, idx[4] = {}, midx[4] = {};
        const Effects e = effects([&] { evrc_quantize_lsps(w, q, idx, target, rate); });
        ASSERT_EQ(e, effects([&] { model_quantize(target, rate, mw, mq, midx); }));
        ASSERT_EQ(0, std::memcmp(w, mw, sizeof w)) << "raw weights stay in the weight array";
        ASSERT_EQ(0, std::memcmp(q, mq, sizeof q));
        ASSERT_EQ(0, std::memcmp(idx, midx, sizeof idx));
    }
}

// A search with no row above the floor takes row 0, and the next floor
// wraps at 16 bits (the codec's codebooks stay far below; ties, floors and
// weights are the model test's).
TEST(LspQuantisation, FallbackRowAndFloorWrap) {
    const Word16 w[3] = {1, 1, 1}, target[3] = {1000, 2000, 3000}, book[3] = {100, 200, 32700};
    Word16 floor = 32000, out[3], index = -1;
    evrc_search_lsps(w, target, &floor, book, (3u << 16) | 1, out, &index);
    EXPECT_EQ(index, 0);
    EXPECT_EQ(floor, static_cast<Word16>(32700 + 261 - 65536));
}

// ---- Rate rules and whole frames ----------------------------------------------

using Rates = std::vector<int>;

// Rate decisions for frames the selection rates full ('L': a strong low band
// at SNR index 0) or eighth ('S': no energy, SNR index `snr`).
Rates decide(EvrcEncoderState *st, const char *pattern, Word16 snr = 7) {
    Rates rates;
    for (; *pattern; ++pattern) {
        std::memset(st->autocorr, 0, sizeof st->autocorr);
        const bool loud = *pattern == 'L';
        st->autocorr[0] = loud ? 0x40000000 : 0;
        st->snr_index[0] = st->snr_index[1] = loud ? 0 : snr;
        rates.push_back(evrc_ratedec(st));
    }
    return rates;
}

TEST(RateRules, FirstFrameStepDownForcingAndClamp) {
    auto st = new_encoder();
    EXPECT_EQ(decide(st.get(), "SSSLSL"), (Rates{4, 3, 1, 4, 3, 4}));
    EXPECT_EQ(st->sPrevRate, 3);
    evrc_set_enc_params(st.get(), 4, 0, 0, 1, 0, 0);
    EXPECT_EQ(decide(st.get(), "LLL"), (Rates{3, 1, 1})) << "forced eighth steps down through half";
    evrc_set_enc_params(st.get(), 4, 3, 0, 1, 0, 0);
    EXPECT_EQ(decide(st.get(), "LS"), (Rates{3, 3})) << "the minimum is applied after forcing";
    // A minimum above the maximum becomes the maximum; both are the low 16
    // bits of arguments compared as unsigned 32-bit values.
    evrc_set_enc_params(st.get(), 3, 4, 0, 0, 0, 0);
    EXPECT_EQ(st->sMinRate, 3);
    evrc_set_enc_params(st.get(), 0x10004, 3, 0, 0, 0, 0x10001);
    EXPECT_EQ(std::vector<int>({st->sMaxRate, st->sMinRate, st->sSkipNoiseUpdate}), (Rates{4, 3, 1}));
    auto forced = new_encoder(), capped = new_encoder();
    evrc_set_enc_params(forced.get(), 4, 0, 0, 1, 0, 0);
    EXPECT_EQ(decide(forced.get(), "L"), (Rates{1})) << "forcing comes after the first-frame rule";
    evrc_set_enc_params(capped.get(), 3, 1, 0, 0, 0, 0);
    EXPECT_EQ(decide(capped.get(), "SLS"), (Rates{3, 3, 1})) << "the first frame is clamped too";
}

TEST(RateRules, NoiseResetIsOneShot) {
    auto st = new_encoder();
    evrc_set_enc_params(st.get(), 4, 0, 0, 0, 1, 0);
    for (const Word32 expect : {5059644, 7}) {
        st->band_noise[0] = st->band_noise[1] = 7;
        decide(st.get(), "S");
        EXPECT_EQ(std::vector<Word32>(st->band_noise, st->band_noise + 2), std::vector<Word32>(2, expect));
        EXPECT_EQ(st->lRateCtrlFlags, 0);
    }
    EXPECT_EQ(st->sMinRate, 0) << "the rate decision leaves the caller's limits alone";
}

// ---- Whole frames -------------------------------------------------------------

// Frames carrying side information, on pulse trains (which would take an
// adaptive gain): at the highest allowed rate, header and data in the delay
// field, no delta delay and no adaptive gain, the last bit at full rate; the
// raised minimum rate persists into the next frame without it.
TEST(FrameRules, SideInformationReplacesDelayFields) {
    Rng r(7);
    for (const UWord32 max_rate : {3u, 4u}) {
        auto st = new_encoder();
        evrc_set_enc_params(st.get(), max_rate, 0, 0, 0, 0, 0);
        auto dec = std::make_unique<EvrcDecoderState>();  // reads the fields back in TTY mode
        evrc_init_dec(dec.get());
        evrc_init_tty_dec(dec.get(), 1);
        const int frames = iterations(30);
        for (int f = 0; f <= frames; ++f) {
            Word16 pcm[160];
            const int amp = static_cast<int>(r.in(64, 16000)), period = 25 + (f * 7) % 90;
            for (int n = 0; n < 160; ++n) pcm[n] = static_cast<Word16>((f * 160 + n) % period < 3 ? amp : -amp / 20);
            const UWord16 side[5] = {f < frames, 0, static_cast<UWord16>(f & 3), static_cast<UWord16>((5 * f) & 31),
                                     static_cast<UWord16>(f & 1)};
            EvrcPacket pk;
            evrc_encoder(st.get(), pcm, reinterpret_cast<UWord16 *>(&pk), 1, side);
            ASSERT_EQ(pk.rate, static_cast<Word16>(max_rate)) << "frame " << f;
            if (f == frames) break;
            EvrcFrameParams fp{};
            (max_rate == 4 ? evrc_unpack_full_rate : evrc_unpack_half_rate)(pk.data, &fp);
            ASSERT_EQ(fp.delta_delay, 0);
            for (int k = 0; k < 3; ++k) ASSERT_EQ(fp.acb_gain_index[k], 0);
            evrc_decode(dec.get(), &pk, pcm, 0);
            ASSERT_EQ(std::vector<int>({dec->tty_header, dec->tty_data}), std::vector<int>({side[2], side[3]}));
            ASSERT_EQ(dec->tty_bit, max_rate == 4 ? side[4] : 0) << "final bit";
        }
        EXPECT_EQ(st->sMinRate, static_cast<Word16>(max_rate)) << "the raised minimum persists";
    }
}

}  // namespace
