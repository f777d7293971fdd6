// Restoring 32-by-16 division, and double-precision division and reciprocal
// by Newton-Raphson iteration.
#include "codec/basic/fixed_point.h"

namespace {

using fx::detail::low32;

// Number of bits set in a 16-bit value, without a library call.
inline UWord32 bits_set16(UWord32 v) {
    v = v - ((v >> 1) & 0x5555u);
    v = (v & 0x3333u) + ((v >> 2) & 0x3333u);
    v = (v + (v >> 4)) & 0x0F0Fu;
    return (v + (v >> 8)) & 0x1Fu;
}

Word64 abs64(Word32 v) { return v < 0 ? -static_cast<Word64>(v) : static_cast<Word64>(v); }

// Double-precision product of two 32-bit values, approximately a*b / 2^32:
// the high x high product through the saturating operators plus the rounded
// cross products of each high half with the other's unsigned low half. The
// low x low product is left out.
Word64 dp_product(Word32 a, Word32 b) {
    const Word16 ah = fx::extract_h(a);
    const Word16 bh = fx::extract_h(b);
    const Word64 al = a & 0xFFFF;
    const Word64 bl = b & 0xFFFF;
    const Word64 cross = ah * bl + al * bh + 0x8000;
    return static_cast<Word64>(fx::L_shr(fx::L_mult(ah, bh), 1)) + (cross >> 16);
}

// One Newton-Raphson step towards 1/d (x and the result in Q30):
// t = 2 - x*d, returned as x*t; both narrowed to 32 bits by wrapping.
Word32 reciprocal_step(Word32 x, Word32 d) {
    const Word32 t = low32(0x40000000 - dp_product(x, d));
    return low32(8 * dp_product(x, t));
}

Word64 clamp32(Word64 v) { return fx::L_sat32_64(v); }

}  // namespace

Word16 fx::signed_32_div_16_reference(Word32 num, Word16 den) {
    const Word32 d = fx::L_deposit_h(den);
    Word64 rem = abs64(num);
    const Word64 dabs = abs64(d);
    Word16 q = fx::shl(0, 1);
    for (int k = 0; k < 16; ++k) {
        if (k > 0) q = fx::shl(q, 1);
        const Word64 part = dabs >> k;
        if (rem >= part) {
            rem -= part;
            q = fx::add(q, 1);
        }
    }
    return (num ^ d) < 0 ? static_cast<Word16>(-q) : q;
}

extern "C" {

// Quotient bits are produced by 16 compare-and-subtract steps on the absolute
// values; a quotient of 1.0 or more (den = 0 included) saturates to +-32767
// through shl/add and sets the flag.
//
// Below 1.0 (|num| < |den| << 16) the steps are an exact restoring division:
// the bits are floor(|num| 2^15 / (|den| 2^16)) = floor(|num| / 2|den|), the
// quotient stays below 2^15 so no shl or add saturates, and the operations
// are one deposit, sixteen shl and one add per quotient bit set. That case
// takes one integer division; the saturating case runs the steps themselves.
EVRC_API Word16 evrc_signed_32_div_16(Word32 num, Word16 den) {
    fx::CallScope scope;
    const Word32 d = static_cast<Word32>(den) * 65536;  // L_deposit_h, counted below
    const Word64 rem = abs64(num);
    const Word64 dabs = abs64(d);
    if (rem >= dabs) return fx::signed_32_div_16_reference(num, den);
    const UWord32 bits = static_cast<UWord32>(rem) / (2u * static_cast<UWord32>(dabs >> 16));
    fx::charge(17u + bits_set16(bits));
    const Word16 q = static_cast<Word16>(bits);
    return (num ^ d) < 0 ? static_cast<Word16>(-q) : q;
}

// num / den scaled by 2^(29 + q). Both operands are normalised, 1/|den| is
// refined from 4/3 by five Newton-Raphson steps, and the product with the
// numerator is rescaled. The result is not saturated: a quotient too large
// for the format wraps.
EVRC_API Word32 evrc_divide_dp(Word32 num, Word32 den, Word16 q) {
    fx::CallScope scope;
    if (den == 0) return 0;

    const Word16 n1 = fx::norm_l(num);
    const Word32 N = fx::L_shl(num, n1);
    const Word16 e1 = fx::sub(n1, q);

    const Word16 n2 = fx::norm_l(den);
    const Word32 D = fx::L_abs(fx::L_shl(den, n2));
    const Word16 s = fx::sub(n2, e1);

    Word32 x = 0x55555555;  // 4/3 in Q30
    for (int i = 0; i < 4; ++i) x = reciprocal_step(x, D);

    const Word32 t = low32(0x40000000 - dp_product(x, D));
    const Word32 R = static_cast<Word32>(clamp32(dp_product(x, t) * (den < 0 ? -8 : 8)));

    // Shift counts beyond 63 shift everything out.
    return low32(fx::L_shl64(dp_product(N, R), s));
}

// Reciprocal in Q30 of x normalised by norm_l; the shift is written to
// *exponent. Each iteration computes r * (2 - r*X).
EVRC_API Word32 evrc_invert_dp(Word32 x, Word16 iterations, Word16 *exponent) {
    fx::CallScope scope;
    if (x == 0) return 0;

    const bool negative = x < 0;
    if (negative) x = fx::L_negate(x);

    const Word16 n = fx::norm_l(x);
    if (exponent != nullptr) *exponent = n;
    const Word32 X = fx::L_shl(x, n);

    Word32 r = 0x55555555;  // 4/3 in Q30
    for (Word16 i = 0; i < iterations; ++i) {
        // r*X rounded to its high word (Q29), minus 2.0.
        const Word32 rx = static_cast<Word32>((static_cast<Word64>(r) * X + 0x80000000LL) >> 32);
        const Word32 t = fx::L_sub(rx, 0x40000000);

        const Word64 rh = r >> 16;
        const Word64 rl = r & 0xFFFF;
        const Word64 th = t >> 16;
        const Word64 tl = t & 0xFFFF;
        const Word64 c = rh * tl + th * rl;
        r = low32(((-0x8000 - 8 * c) >> 16) - 8 * rh * th);
    }
    return negative ? fx::L_negate(r) : r;
}

}  // extern "C"
