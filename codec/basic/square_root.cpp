// Square roots: a bit-by-bit integer root (computed directly where that is
// provably the same) and a short series for values close to 1.0.
#include <cmath>

#include "codec/basic/fixed_point.h"
#include "codec/common/reference_forms.h"

namespace {

// L - t^2, with t^2 formed as (2*t*t) >> 1 through the saturating operators.
Word32 remainder_after(Word32 L, Word16 t) { return fx::L_sub(L, fx::L_shr(fx::L_mult(t, t), 1)); }

// Number of bits set in a 16-bit value, without a library call.
inline UWord32 bits_set16(UWord32 v) {
    v = v - ((v >> 1) & 0x5555u);
    v = (v & 0x3333u) + ((v >> 2) & 0x3333u);
    v = (v + (v >> 4)) & 0x0F0Fu;
    return (v + (v >> 8)) & 0x1Fu;
}

Word32 wrap_sub32(Word32 a, Word32 b) { return static_cast<Word32>(static_cast<UWord32>(a) - static_cast<UWord32>(b)); }

// Weight of the bit-by-bit root: for each of the 15 bits an add, the trial
// (L_mult 1, L_shr 2, L_sub 2) and a shr, 7 in all, and the closing shr: 106;
// each bit that ends up 0 costs one sub more, so 121 - (bits set in r).
constexpr UWord32 kRootWeightAllZero = 121;

}  // namespace

// Largest r <= 32767 with r*r <= L, one bit at a time from 16384 down to 1;
// 0 for negative L. Operator by operator.
Word16 evrc::square_root_reference(Word32 L) {
    Word16 r = fx::add(0, 16384);
    if (remainder_after(L, r) < 0) r = fx::sub(r, 16384);

    Word16 step = fx::shr(16384, 1);
    for (int bit = 0; bit < 14; ++bit) {
        Word16 t = fx::add(r, step);
        if (remainder_after(L, t) < 0) t = fx::sub(t, step);
        r = t;
        step = fx::shr(step, 1);
    }
    // The unrolled loop halves the step once more; the value is unused but
    // the operation counts.
    (void)fx::shr(step, 1);
    return r;
}

extern "C" {

// With L in Q30 the result is sqrt(L) in Q15. For L >= 0 no operator of the
// chain can saturate (t <= 32767, so t*t < 2^30 and L - t*t > -2^31), each
// trial keeps its bit exactly when t*t <= L, and the chain's result is
// floor(sqrt(L)) capped at 32767: computed directly and charged with the
// chain's weight. Negative L, where the trial subtraction can saturate, takes
// the chain.
EVRC_API Word16 evrc_square_root(Word32 L) {
    fx::CallScope scope;
    if (L < 0) return evrc::square_root_reference(L);
    Word32 r = static_cast<Word32>(std::sqrt(static_cast<double>(L)));
    while (static_cast<Word64>(r) * r > L) --r;
    while (static_cast<Word64>(r + 1) * (r + 1) <= L) ++r;
    if (r > fx::kMax16) r = fx::kMax16;
    fx::charge(kRootWeightAllZero - bits_set16(static_cast<UWord32>(r)));
    return static_cast<Word16>(r);
}

// sqrt(1 + 2x) ~ 1 + x - x^2/2 + x^3/2 - 5x^4/8 + 7x^5/8 with x = (L - 1)/2,
// L in Q31. The terms are accumulated with wrapping additions.
EVRC_API Word32 evrc_taylor_sqroot(Word32 L) {
    fx::CallScope scope;
    using fx::detail::wrap_add32;
    const Word16 x = fx::extract_h(fx::L_add(static_cast<Word32>(0xC0000000u), fx::L_shr(L, 1)));
    Word32 acc = static_cast<Word32>(static_cast<UWord32>(fx::L_deposit_h(x)) ^ 0x80000000u);

    const Word16 x2 = fx::mult_r(x, x);
    acc = wrap_add32(acc, fx::L_mult(x2, -16384));
    const Word16 x3 = fx::mult_r(x2, x);
    acc = wrap_sub32(acc, fx::L_mult(x3, -16384));
    const Word16 x4 = fx::mult_r(x3, x);
    acc = wrap_sub32(acc, fx::L_mult(x4, 20480));
    const Word16 x5 = fx::mult_r(x4, x);
    return wrap_add32(acc, fx::L_mult(x5, 28672));
}

}  // extern "C"
