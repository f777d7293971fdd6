// Logarithms: a 32-entry table lookup in Q10 and three-term polynomials of
// the normalised mantissa in Q26 (base 2, e and 10).
#include "codec/basic/fixed_point.h"
#include "evrc/evrc_tables.h"

namespace {

using fx::detail::wrap_add32;

constexpr Word16 kLn2Q15 = 22713;
constexpr Word16 kLog10Of2Q15 = 9864;

// v * c for v in Q26 and c in Q15: the signed high half through L_mult, the
// unsigned low half added as (low * c) >> 15.
Word32 scale_high(Word32 v, Word16 c) { return fx::L_mult(static_cast<Word16>(v >> 16), c); }
Word32 scale_low(Word32 v, Word16 c) { return ((v & 0xFFFF) * c) >> 15; }

}  // namespace

extern "C" {

// log2(L) in Q10 from the five bits after the leading one, without
// interpolation; -32768 for L <= 0.
EVRC_API Word16 evrc_log2(Word32 L) {
    fx::CallScope scope;
    if (L <= 0) return fx::kMin16;
    const Word16 n = fx::norm_l(L);
    Word16 i = fx::sub(fx::extract_h(fx::L_shl(L, fx::sub(n, 9))), 32);
    if (i < 0) i = 0;
    if (i > 31) i = 31;
    return fx::sub(evrc_acsLog2Tbl[i], fx::shl(n, 10));
}

// log2(L / 2^31) in Q26. The mantissa x (Q15, 0.5..1) gives log2(x)/4 in Q31
// by a quadratic; shifted to Q26 and masked, it becomes the positive fraction
// that is added to the integer part -(n + 1).
EVRC_API Word32 evrc_fnLog2(Word32 L) {
    fx::CallScope scope;
    const Word16 n = fx::norm_l(L);
    const Word16 x = fx::extract_h(fx::L_shl(L, n));
    const Word16 e = fx::negate(fx::add(n, 1));

    Word32 y = fx::L_mac(fx::L_mult(fx::mult_r(x, x), -11050), x, 32709);
    y = fx::L_add(y, fx::L_deposit_h(-21712));
    const Word32 f = fx::L_shr(y, 3) & 0x3FFFFFF;
    return fx::L_add(f, fx::L_deposit_h(fx::shl(e, 10)));
}

EVRC_API Word32 evrc_fnLog10(Word32 L) {
    fx::CallScope scope;
    const Word32 v = evrc_fnLog2(L);
    return fx::L_add(scale_low(v, kLog10Of2Q15), scale_high(v, kLog10Of2Q15));
}

// Same quadratic as evrc_fnLog2 with plain wrapping sums; the constant
// 0xB300000 folds the offset and 3.0 (Q29) together so the masked fraction
// comes out the same.
EVRC_API Word32 evrc_log2_3term(Word32 L) {
    fx::CallScope scope;
    const Word16 n = fx::norm_l(L);
    const Word16 x = fx::extract_h(fx::L_shl(L, n));

    Word32 m = wrap_add32(fx::L_mult(32709, x), fx::L_mult(-11050, fx::mult_r(x, x)));
    m = wrap_add32(m, 0xB300000);
    const Word32 integer_part = fx::L_shl(fx::L_mult(fx::detail::low16(static_cast<Word32>(n) + 1), -1024), 15);
    return wrap_add32(integer_part, (m >> 3) & 0x3FFFFFF);
}

EVRC_API Word32 evrc_log_3term(Word32 L) {
    fx::CallScope scope;
    const Word32 v = evrc_log2_3term(L);
    return wrap_add32(scale_high(v, kLn2Q15), scale_low(v, kLn2Q15));
}

EVRC_API Word32 evrc_log10_3term(Word32 L) {
    fx::CallScope scope;
    const Word32 v = evrc_log2_3term(L);
    return wrap_add32(scale_high(v, kLog10Of2Q15), scale_low(v, kLog10Of2Q15));
}

}  // extern "C"
