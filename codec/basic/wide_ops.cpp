// Exported 64-bit and mixed-width operators, forwarding to fixed_point.h.
// Operators that share one definition (the signed 32x32 products, the
// wrapping 32-bit products, the plain multiply-accumulates) are exported
// under each of their names.
#include "codec/basic/fixed_point.h"

extern "C" {

EVRC_API Word32 evrc_extract64_l(Word64 x) { return fx::exported<fx::extract64_l>(x); }
EVRC_API Word32 evrc_int_mult_16_16(Word32 a, Word32 b) { return fx::exported<fx::int_mult_16_16>(a, b); }
EVRC_API Word32 evrc_int_mult_16h_16(Word32 a, Word32 b) { return fx::exported<fx::int_mult_16h_16>(a, b); }
EVRC_API Word64 evrc_L_mult64_su(Word32 a, Word32 b) { return fx::exported<fx::L_mult64_su>(a, b); }
EVRC_API Word64 evrc_int_mult_32_16(Word32 a, Word32 b) { return fx::exported<fx::int_mult_32_16>(a, b); }
EVRC_API Word64 evrc_int_mult_32_32(Word32 a, Word32 b) { return fx::exported<fx::int_mult_32_32>(a, b); }
EVRC_API Word64 evrc_L_mult64_uu(Word32 a, Word32 b) { return fx::exported<fx::L_mult64_uu>(a, b); }
EVRC_API Word32 evrc_L_mult_su(Word32 a, Word32 b) { return fx::exported<fx::L_mult_su>(a, b); }
EVRC_API Word32 evrc_L_mult_uu(Word32 a, Word32 b) { return fx::exported<fx::L_mult_uu>(a, b); }
EVRC_API Word64 evrc_int_mac_16_16(Word64 acc, Word32 a, Word32 b) {
    return fx::exported<fx::int_mac_16_16>(acc, a, b);
}
EVRC_API Word64 evrc_int_mac_32_16(Word64 acc, Word32 a, Word32 b) {
    return fx::exported<fx::int_mac_32_16>(acc, a, b);
}
EVRC_API Word64 evrc_int_msu_16_16(Word64 acc, Word32 a, Word32 b) {
    return fx::exported<fx::int_msu_16_16>(acc, a, b);
}
EVRC_API Word64 int_mac_16_16_s1(Word64 acc, Word32 a, Word32 b) {
    return fx::exported<fx::int_mac_16_16_s1>(acc, a, b);
}
EVRC_API Word64 evrc_int_mac_16_16_shift(Word64 acc, Word32 a, Word32 b, Word16 s) {
    return fx::exported<fx::int_mac_16_16_shift>(acc, a, b, s);
}
EVRC_API Word64 evrc_L_mac64_su(Word64 acc, Word32 a, Word32 b) { return fx::exported<fx::L_mac64_su>(acc, a, b); }
EVRC_API Word64 evrc_L_add64(Word64 x, Word64 y) { return fx::exported<fx::L_add64>(x, y); }
EVRC_API Word64 evrc_L_sub64(Word64 x, Word64 y) { return fx::exported<fx::L_sub64>(x, y); }
EVRC_API Word64 evrc_L_negate64(Word64 x) { return fx::exported<fx::L_negate64>(x); }
EVRC_API Word64 evrc_L_shl64(Word64 x, Word16 n) { return fx::exported<fx::L_shl64>(x, n); }
EVRC_API Word64 evrc_L_shr64(Word64 x, Word16 n) { return fx::exported<fx::L_shr64>(x, n); }
EVRC_API Word32 evrc_MAX16(Word32 a, Word32 b) { return fx::exported<fx::MAX16>(a, b); }
EVRC_API Word32 evrc_MAX32(Word32 a, Word32 b) { return fx::exported<fx::MAX32>(a, b); }
EVRC_API Word32 evrc_MIN16(Word32 a, Word32 b) { return fx::exported<fx::MIN16>(a, b); }
EVRC_API Word32 evrc_MIN32(Word32 a, Word32 b) { return fx::exported<fx::MIN32>(a, b); }

EVRC_API Word64 evrc_L_sat32_64(Word64 x) { return fx::exported<fx::L_sat32_64>(x); }
EVRC_API Word16 evrc_L_sat32_64_round16(Word64 x) { return fx::exported<fx::L_sat32_64_round16>(x); }
EVRC_API Word64 evrc_L_mac64(Word64 acc, Word32 a, Word32 b) { return fx::exported<fx::L_mac64>(acc, a, b); }
EVRC_API Word32 evrc_L_mult_32_16(Word32 L, Word16 b) { return fx::exported<fx::L_mult_32_16>(L, b); }
EVRC_API Word64 evrc_L_mult64_32_32(Word32 a, Word32 b) { return fx::exported<fx::L_mult64_32_32>(a, b); }
EVRC_API Word16 evrc_norm32_l64(Word64 x) { return fx::exported<fx::norm32_l64>(x); }

}  // extern "C"
