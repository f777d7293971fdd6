// LPC analysis of one frame:
//   1. window: w[n] x[n] with the 160-point analysis window (Q15), scaled up
//      by 2^s so the largest sample fills 16 bits;
//   2. autocorrelation r[k] = sum 2 x[n] x[n+k], k = 0..16, summed in 64 bits
//      and normalised so that r[0] fills 32 bits (the shift may be negative
//      for loud frames);
//   3. a lag-windowed copy of r feeds the Levinson-Durbin recursion
//      a(i) = a(i-1) - k_i J a(i-1), E_i = E_(i-1) (1 - k_i^2), k_i the
//      reflection coefficient; when |k_i| comes too close to one (an
//      ill-conditioned or silent frame) the recursion stops at order i - 1, so
//      the filter is always stable;
//   4. the spectral-transition flag compares the log-likelihood of the
//      frame's autocorrelation under the previous frame's filter and under its
//      own: a_prev' R a_prev / a' R a above 4 (6 dB) marks a transition (about one
//      frame in eight of speech);
//   5. bandwidth expansion a_k 0.994^k.
// LPC are a1..a10 of A(z) = 1 - sum a_k z^-k in Q27.
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "codec/basic/fixed_point.h"
#include "codec/enc/enc_tables.h"
#include "evrc/evrc_enc.h"

namespace {

constexpr int kFrame = EVRC_ENC_FRAME;
constexpr int kOrder = 10;
constexpr int kLags = 17;
constexpr int kLpcQ = 27;
constexpr int kRefQ = 30;                      // reflection coefficients, Q30
constexpr Word32 kMaxReflection = 1073634449;  // 0.9999 in Q30
constexpr Word16 kErrorMarginShift = 10;       // error kept below r0 (1 - 2^-10)
constexpr Word16 kTransitionShift = 2;         // residual energy ratio 4 (6 dB) marks a transition
constexpr Word32 kRoundLimit = 0x7FFF8000;     // round32 saturates from here
constexpr UWord32 kMultWeight = 1, kAbsWeight = 3, kShlWeight = 2, kRoundWeight = 1;  // L_mult, L_abs, L_shl, round

// work_lpc layout: previous frame's unexpanded LPC (Q12) and a flag saying it
// is valid.
constexpr int kPrevLpc = 0;
constexpr int kPrevValid = kOrder;

// Round a Q27 coefficient to Q12.
Word16 q27_to_q12(Word32 a) { return fx::round32(fx::L_shl(a, 1)); }

// e = c' R c for the inverse filter c = (1, -a1, .., -a10) in Q12, with R the
// Toeplitz matrix of r (both scaled down so the 64-bit sums cannot wrap).
Word64 residual_energy(const Word16 *a_q12, const Word32 *r) {
    Word32 c[kOrder + 1];
    c[0] = 4096;
    for (int k = 0; k < kOrder; ++k) c[k + 1] = -a_q12[k];
    Word64 e = 0;
    for (int m = 0; m <= kOrder; ++m) {
        Word64 s = 0;
        for (int i = 0; i + m <= kOrder; ++i) s = fx::L_add64(s, fx::int_mult_32_32(c[i], c[i + m]));
        const Word64 term = fx::int_mult_32_32(static_cast<Word32>(fx::L_shr64(s, 8)), fx::L_shr(r[m], 8));
        e = fx::L_add64(e, m == 0 ? term : fx::L_shl64(term, 1));
    }
    fx::charge(2u * 66u + 2u * 11u);
    return e;
}

// acc[k] = 2 sum_{n >= k} x[n] x[n - k], k < kLags. On SSE2, when no sample
// is -32768, pmaddwd's sums of two products stay below 2^31 and are added
// into 64-bit lanes; the lagged copies are zero-padded in front.
void autocorrelation(const Word16 *x, Word64 *acc) {
#if defined(__SSE2__)
    bool min16 = false;
    for (int n = 0; n < kFrame; ++n) min16 |= x[n] == fx::kMin16;
    if (!min16) {
        constexpr int kPad = 24;  // at least kLags - 1, a multiple of 8
        Word16 xp[kPad + kFrame] = {};
        for (int n = 0; n < kFrame; ++n) xp[kPad + n] = x[n];
        const Word16 *xs = xp + kPad;
        for (int k = 0; k < kLags; ++k) {
            __m128i lo = _mm_setzero_si128(), hi = _mm_setzero_si128();
            for (int n = 0; n < kFrame; n += 8) {
                __m128i a, b;
                std::memcpy(&a, xs + n, sizeof(a));
                std::memcpy(&b, xs + n - k, sizeof(b));
                const __m128i p = _mm_madd_epi16(a, b);
                const __m128i sign = _mm_srai_epi32(p, 31);
                lo = _mm_add_epi64(lo, _mm_unpacklo_epi32(p, sign));
                hi = _mm_add_epi64(hi, _mm_unpackhi_epi32(p, sign));
            }
            Word64 lanes[4];
            std::memcpy(lanes, &lo, 2 * sizeof(Word64));
            std::memcpy(lanes + 2, &hi, 2 * sizeof(Word64));
            acc[k] = fx::L_shl64(lanes[0] + lanes[1] + lanes[2] + lanes[3], 1);
        }
        return;
    }
#endif
    for (int k = 0; k < kLags; ++k) {
        Word64 s = 0;
        for (int n = k; n < kFrame; ++n) s = fx::int_mac_16_16(s, x[n], x[n - k]);
        acc[k] = fx::L_shl64(s, 1);
    }
}

}  // namespace

extern "C" {

EVRC_API Word16 cmn1x_hamming_window(const Word16 *in, Word16 *out) {
    fx::CallScope scope;
    // The window is positive and below 2^15, so L_mult cannot clamp and no
    // product is -2^31 (L_abs cannot clamp); a shift by the peak's norm
    // cannot clamp either, only the rounding can. Plain, branch-free loops
    // (they vectorise) with the operators' weights charged at once.
    Word32 prod[kFrame];
    Word32 peak = 0;
    for (int n = 0; n < kFrame; ++n) {
        prod[n] = 2 * static_cast<Word32>(in[n]) * evrc_enc_tables::lpc_analysis_window[n];
        const Word32 a = prod[n] < 0 ? -prod[n] : prod[n];
        peak = a > peak ? a : peak;
    }
    fx::charge(kFrame * (kMultWeight + kAbsWeight));
    const Word16 shift = peak == 0 ? 0 : fx::norm_l(peak);
    Word32 top = 0;
    for (int n = 0; n < kFrame; ++n) {
        const Word32 w = static_cast<Word32>(static_cast<UWord32>(prod[n]) << shift);
        top |= w >= kRoundLimit;
        out[n] = static_cast<Word16>(w >= kRoundLimit ? fx::kMax16 : (w >> 16) + ((w >> 15) & 1));
    }
    fx::charge(kFrame * (kShlWeight + kRoundWeight));
    if (top != 0) fx::raise_overflow();
    return shift;
}

EVRC_API Word16 evrc_autocorr(const Word16 *x, Word32 *r) {
    fx::CallScope scope;
    Word64 acc[kLags];
    autocorrelation(x, acc);
    fx::charge(static_cast<UWord32>(kLags * kFrame));
    if (acc[0] == 0) {
        for (int k = 0; k < kLags; ++k) r[k] = 0;
        return 0;
    }
    const Word16 shift = fx::norm32_l64(acc[0]);
    // |r[k]| <= r[0] for every k, so every lag fits once lag 0 does.
    for (int k = 0; k < kLags; ++k) r[k] = static_cast<Word32>(fx::L_sat32_64(fx::L_shl64(acc[k], shift)));
    return shift;
}

EVRC_API Word32 cmn1x_durbins_recursion(const Word32 *r, Word32 *lpc) {
    fx::CallScope scope;
    // Lag-windowed copy at half scale (the lag-0 factor is slightly above one).
    Word32 rw[kOrder + 1];
    for (int k = 0; k <= kOrder; ++k) {
        rw[k] =
            static_cast<Word32>(fx::L_shr64(fx::int_mult_32_32(r[k], evrc_enc_tables::lag_window_q30[k]), kRefQ + 1));
    }
    fx::charge(5u * (kOrder + 1));

    Word32 a[kOrder + 1] = {};  // a[1..i], Q27
    Word32 err = rw[0];
    for (int i = 1; i <= kOrder && err > 0; ++i) {
        // acc = rw[i] - sum_{j<i} a_j rw[i-j]
        Word64 pred = 0;
        for (int j = 1; j < i; ++j) pred = fx::L_add64(pred, fx::int_mult_32_32(a[j], rw[i - j]));
        const Word64 acc64 = fx::L_sub64(rw[i], fx::L_shr64(pred, kLpcQ));
        const Word32 acc = static_cast<Word32>(fx::L_sat32_64(acc64));
        const Word32 mag = fx::L_abs(acc);
        if (acc != acc64 || mag >= err) break;
        Word32 k = fx::divide_dp(mag, err, 1);  // |acc| / err in Q30
        if (k > kMaxReflection || k < 0) break;
        if (acc < 0) k = fx::L_negate(k);

        Word32 next[kOrder + 1];
        bool clamped = false;
        for (int j = 1; j < i; ++j) {
            const Word64 v = fx::L_sub64(a[j], fx::L_shr64(fx::int_mult_32_32(k, a[i - j]), kRefQ));
            next[j] = static_cast<Word32>(fx::L_sat32_64(v));
            clamped |= next[j] != v;
        }
        if (clamped) break;
        for (int j = 1; j < i; ++j) a[j] = next[j];
        a[i] = fx::L_shr(k, kRefQ - kLpcQ);
        // err (1 - k^2) = err - k acc
        err = fx::L_sub(err, static_cast<Word32>(fx::L_shr64(fx::int_mult_32_32(k, acc), kRefQ)));
        fx::charge(static_cast<UWord32>(5 * i + 10));
    }
    for (int k = 0; k < kOrder; ++k) lpc[k] = a[k + 1];

    // Back to the units of r[0], kept strictly below it.
    const Word32 error = fx::L_shl(fx::MAX32(err, 0), 1);
    const Word32 cap = fx::L_sub(r[0], fx::L_shr(r[0], kErrorMarginShift));
    return r[0] <= 0 ? 0 : fx::MIN32(error, cap);
}

EVRC_API Word16 evrc_update_lpcflag(EvrcEncoderState *state) {
    fx::CallScope scope;
    Word16 *prev = state->work_lpc + kPrevLpc;
    Word16 cur[kOrder];
    for (int k = 0; k < kOrder; ++k) cur[k] = q27_to_q12(state->lpc[k]);

    Word16 flag = 0;
    if (state->work_lpc[kPrevValid] != 0) {
        const Word64 e_own = residual_energy(cur, state->autocorr);
        const Word64 e_prev = residual_energy(prev, state->autocorr);
        flag = (e_own > 0 && e_prev > fx::L_shl64(e_own, kTransitionShift)) ? 1 : 0;
    }
    for (int k = 0; k < kOrder; ++k) prev[k] = cur[k];
    state->work_lpc[kPrevValid] = 1;
    return flag;
}

EVRC_API void evrc_bandwidth_expand_lpcs(Word32 *lpc) {
    fx::CallScope scope;
    for (int k = 0; k < kOrder; ++k) lpc[k] = fx::L_mult_32_16(lpc[k], evrc_enc_tables::lpc_bandwidth_expansion_q15[k]);
}

}  // extern "C"
