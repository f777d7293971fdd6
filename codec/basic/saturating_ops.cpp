// Exported saturating 16- and 32-bit operators. Each one forwards to the
// inline form in fixed_point.h, which the codec itself uses.
#include "codec/basic/fixed_point.h"

extern "C" {

EVRC_API Word16 evrc_saturate(Word32 x) { return fx::exported<fx::saturate>(x); }
EVRC_API Word32 evrc_L_saturate(Word64 x) { return fx::exported<fx::L_saturate>(x); }
EVRC_API Word16 evrc_add(Word16 a, Word16 b) { return fx::exported<fx::add>(a, b); }
EVRC_API Word16 evrc_sub(Word16 a, Word16 b) { return fx::exported<fx::sub>(a, b); }
EVRC_API Word16 evrc_abs_s(Word16 a) { return fx::exported<fx::abs_s>(a); }
EVRC_API Word16 evrc_negate(Word16 a) { return fx::exported<fx::negate>(a); }
EVRC_API Word16 evrc_extract_h(Word32 L) { return fx::exported<fx::extract_h>(L); }
EVRC_API Word16 evrc_extract_l(Word32 L) { return fx::exported<fx::extract_l>(L); }
EVRC_API Word32 evrc_L_deposit_h(Word16 a) { return fx::exported<fx::L_deposit_h>(a); }
EVRC_API Word32 evrc_L_deposit_l(Word16 a) { return fx::exported<fx::L_deposit_l>(a); }
EVRC_API Word32 evrc_L_abs(Word32 L) { return fx::exported<fx::L_abs>(L); }
EVRC_API Word32 evrc_L_negate(Word32 L) { return fx::exported<fx::L_negate>(L); }
EVRC_API Word32 evrc_L_add(Word32 L1, Word32 L2) { return fx::exported<fx::L_add>(L1, L2); }
EVRC_API Word32 evrc_L_sub(Word32 L1, Word32 L2) { return fx::exported<fx::L_sub>(L1, L2); }
EVRC_API Word32 evrc_L_mult(Word16 a, Word16 b) { return fx::exported<fx::L_mult>(a, b); }
EVRC_API Word32 evrc_L_mac(Word32 L, Word16 a, Word16 b) { return fx::exported<fx::L_mac>(L, a, b); }
EVRC_API Word32 evrc_L_msu(Word32 L, Word16 a, Word16 b) { return fx::exported<fx::L_msu>(L, a, b); }
EVRC_API Word16 evrc_mult(Word16 a, Word16 b) { return fx::exported<fx::mult>(a, b); }
EVRC_API Word16 evrc_mult_r(Word16 a, Word16 b) { return fx::exported<fx::mult_r>(a, b); }
EVRC_API Word16 evrc_round32(Word32 L) { return fx::exported<fx::round32>(L); }
EVRC_API Word16 evrc_mac_r(Word32 L, Word16 a, Word16 b) { return fx::exported<fx::mac_r>(L, a, b); }
EVRC_API Word16 evrc_msu_r(Word32 L, Word16 a, Word16 b) { return fx::exported<fx::msu_r>(L, a, b); }
EVRC_API Word16 evrc_shl(Word16 a, Word16 n) { return fx::exported<fx::shl>(a, n); }
EVRC_API Word16 evrc_shr(Word16 a, Word16 n) { return fx::exported<fx::shr>(a, n); }
EVRC_API Word32 evrc_L_shl(Word32 L, Word16 n) { return fx::exported<fx::L_shl>(L, n); }
EVRC_API Word32 evrc_L_shr(Word32 L, Word16 n) { return fx::exported<fx::L_shr>(L, n); }
EVRC_API Word16 evrc_norm_s(Word16 a) { return fx::exported<fx::norm_s>(a); }
EVRC_API Word16 evrc_norm_l(Word32 L) { return fx::exported<fx::norm_l>(L); }

}  // extern "C"
