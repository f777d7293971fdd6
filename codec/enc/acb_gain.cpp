// Adaptive-codebook gain by analysis by synthesis in the weighted domain.
//
// The adaptive vector v is filtered through the weighted impulse response h
// (Q11), y = h * v. Of the eight table gains g (Q14) the one with the least
// weighted error |x - g y|^2 = |x|^2 - 2 g <x,y> + g^2 <y,y> is chosen; the
// fixed codebook then works on x - g y.
#include "codec/basic/fixed_point.h"
#include "codec/enc/dot16.h"
#include "codec/enc/encoder_internal.h"
#include "evrc/evrc_enc.h"
#include "evrc/evrc_tables.h"

namespace {

constexpr int kMaxLen = 64;
constexpr int kGains = 8;
constexpr int kImpulseShift = 11;  // h in Q11
constexpr int kGainShift = 14;     // table gains in Q14
constexpr int kEnergyBits = 31;    // energies are brought below 2^31 before the comparison

// y[n] = sum_k v[k] h[n - k], rounded from Q11 and saturated to 16 bits.
void filter_through_reference(const Word16 *v, const Word16 *h, Word16 *y, int L) {
    for (int n = 0; n < L; ++n) {
        Word64 acc = 0;
        for (int k = 0; k <= n; ++k) acc = fx::int_mac_16_16(acc, v[k], h[n - k]);
        y[n] = fx::saturate(static_cast<Word32>(fx::L_sat32_64((acc + (1 << (kImpulseShift - 1))) >> kImpulseShift)));
    }
}

// filter_through_reference in 32-bit sums: exact when max|v| * sum|h| +
// 2^10 < 2^31, which bounds every partial sum in any order and the rounded
// one; the 64-bit form otherwise.
void filter_through(const Word16 *v, const Word16 *h, Word16 *y, int L) {
    Word32 h_sum = 0, v_max = 0;
    for (int n = 0; n < L; ++n) {
        h_sum += h[n] < 0 ? -h[n] : h[n];
        const Word32 a = v[n] < 0 ? -v[n] : v[n];
        v_max = a > v_max ? a : v_max;
    }
    constexpr Word64 kLimit = (static_cast<Word64>(1) << 31) - (1 << (kImpulseShift - 1));
    if (static_cast<Word64>(h_sum) * v_max >= kLimit) {
        filter_through_reference(v, h, y, L);
        return;
    }
    // y[n] as a dot product of fixed length over zero-padded copies: v[0 ..
    // kPadded) with h reversed so that its entry kMaxLen - 1 - n + k is
    // h[n - k] (zero for k > n).
    constexpr int kPadded = kMaxLen;  // a multiple of 8
    Word16 vp[kPadded] = {}, hrev[2 * kMaxLen] = {};
    for (int k = 0; k < L; ++k) {
        vp[k] = v[k];
        hrev[kMaxLen - 1 - k] = h[k];
    }
    // Only the terms k <= n are nonzero: each sum stops at the first
    // multiple of 8 past n (the zeros beyond change no sum).
    for (int n = 0; n < L; ++n) {
        const Word32 acc = evrc_enc::dot16(vp, hrev + kMaxLen - 1 - n, evrc_enc::dot_terms(n + 1));
        y[n] = fx::saturate((acc + (1 << (kImpulseShift - 1))) >> kImpulseShift);
    }
}

Word64 dot(const Word16 *a, const Word16 *b, int L) {
    Word64 acc = 0;
    for (int n = 0; n < L; ++n) acc = fx::int_mac_16_16(acc, a[n], b[n]);
    return acc;
}

// Index of the table gain with the least error g^2 E - 2 g C 2^14 (both
// scaled down together so that the products fit 64 bits).
int best_gain_index(Word64 corr, Word64 energy) {
    int shift = 0;
    const Word64 limit = static_cast<Word64>(1) << kEnergyBits;
    while ((energy >> shift) >= limit || (corr >> shift) >= limit || (corr >> shift) < -limit) ++shift;
    const Word64 e = energy >> shift;
    const Word64 c = corr >> shift;
    int best = 0;
    Word64 best_err = 0;
    for (int i = 1; i < kGains; ++i) {
        const Word64 g = evrc_acsACBGainTable[i];
        const Word64 err = g * g * e - 2 * g * c * (1 << kGainShift);
        if (err < best_err) {
            best_err = err;
            best = i;
        }
    }
    return best;
}

}  // namespace

namespace evrc_enc {

void acb_filter_reference(const Word16 *v, const Word16 *h, Word16 *y, Word16 L) {
    filter_through_reference(v, h, y, L);
}
void acb_filter(const Word16 *v, const Word16 *h, Word16 *y, Word16 L) { filter_through(v, h, y, L); }

}  // namespace evrc_enc

extern "C" {

EVRC_API Word16 evrc_remove_acb(const Word16 *target, const Word16 *acb, const Word16 *h, Word16 *fcb_target,
                                Word16 L) {
    fx::CallScope scope;
    const int len = L < 0 ? 0 : (L > kMaxLen ? kMaxLen : L);
    Word16 y[kMaxLen];
    filter_through(acb, h, y, len);
    const int index = best_gain_index(dot(target, y, len), dot(y, y, len));
    const Word16 g = evrc_acsACBGainTable[index];
    // round(L_shl(L_mult(g, y), 1)) and the subtraction through the
    // uncounted bodies, their weights charged once.
    for (int n = 0; n < len; ++n) {
        const Word16 gy = fx::detail::round32(fx::detail::L_shl(fx::detail::L_mult(g, y[n]), 1));
        fcb_target[n] = fx::detail::sat16(static_cast<Word32>(target[n]) - gy);
    }
    fx::charge((fx::weight::L_mult + fx::weight::L_shl + fx::weight::round32 + fx::weight::sub) *
               static_cast<UWord32>(len));
    return static_cast<Word16>(index);
}

}  // extern "C"
