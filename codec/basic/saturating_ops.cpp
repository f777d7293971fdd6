// Exported saturating 16- and 32-bit operators. Each one forwards to the
// inline form in fixed_point.h, which the codec itself uses.
#include "codec/basic/fixed_point.h"

extern "C" {

EVRC_API Word16 evrc_saturate(Word32 x) {
    fx::CallScope scope;
    return fx::saturate(x);
}
EVRC_API Word32 evrc_L_saturate(Word64 x) {
    fx::CallScope scope;
    return fx::L_saturate(x);
}
EVRC_API Word16 evrc_add(Word16 a, Word16 b) {
    fx::CallScope scope;
    return fx::add(a, b);
}
EVRC_API Word16 evrc_sub(Word16 a, Word16 b) {
    fx::CallScope scope;
    return fx::sub(a, b);
}
EVRC_API Word16 evrc_abs_s(Word16 a) {
    fx::CallScope scope;
    return fx::abs_s(a);
}
EVRC_API Word16 evrc_negate(Word16 a) {
    fx::CallScope scope;
    return fx::negate(a);
}
EVRC_API Word16 evrc_extract_h(Word32 L) {
    fx::CallScope scope;
    return fx::extract_h(L);
}
EVRC_API Word16 evrc_extract_l(Word32 L) {
    fx::CallScope scope;
    return fx::extract_l(L);
}
EVRC_API Word32 evrc_L_deposit_h(Word16 a) {
    fx::CallScope scope;
    return fx::L_deposit_h(a);
}
EVRC_API Word32 evrc_L_deposit_l(Word16 a) {
    fx::CallScope scope;
    return fx::L_deposit_l(a);
}
EVRC_API Word32 evrc_L_abs(Word32 L) {
    fx::CallScope scope;
    return fx::L_abs(L);
}
EVRC_API Word32 evrc_L_negate(Word32 L) {
    fx::CallScope scope;
    return fx::L_negate(L);
}
EVRC_API Word32 evrc_L_add(Word32 L1, Word32 L2) {
    fx::CallScope scope;
    return fx::L_add(L1, L2);
}
EVRC_API Word32 evrc_L_sub(Word32 L1, Word32 L2) {
    fx::CallScope scope;
    return fx::L_sub(L1, L2);
}
EVRC_API Word32 evrc_L_mult(Word16 a, Word16 b) {
    fx::CallScope scope;
    return fx::L_mult(a, b);
}
EVRC_API Word32 evrc_L_mac(Word32 L, Word16 a, Word16 b) {
    fx::CallScope scope;
    return fx::L_mac(L, a, b);
}
EVRC_API Word32 evrc_L_msu(Word32 L, Word16 a, Word16 b) {
    fx::CallScope scope;
    return fx::L_msu(L, a, b);
}
EVRC_API Word16 evrc_mult(Word16 a, Word16 b) {
    fx::CallScope scope;
    return fx::mult(a, b);
}
EVRC_API Word16 evrc_mult_r(Word16 a, Word16 b) {
    fx::CallScope scope;
    return fx::mult_r(a, b);
}
EVRC_API Word16 evrc_round32(Word32 L) {
    fx::CallScope scope;
    return fx::round32(L);
}
EVRC_API Word16 evrc_mac_r(Word32 L, Word16 a, Word16 b) {
    fx::CallScope scope;
    return fx::mac_r(L, a, b);
}
EVRC_API Word16 evrc_msu_r(Word32 L, Word16 a, Word16 b) {
    fx::CallScope scope;
    return fx::msu_r(L, a, b);
}
EVRC_API Word16 evrc_shl(Word16 a, Word16 n) {
    fx::CallScope scope;
    return fx::shl(a, n);
}
EVRC_API Word16 evrc_shr(Word16 a, Word16 n) {
    fx::CallScope scope;
    return fx::shr(a, n);
}
EVRC_API Word32 evrc_L_shl(Word32 L, Word16 n) {
    fx::CallScope scope;
    return fx::L_shl(L, n);
}
EVRC_API Word32 evrc_L_shr(Word32 L, Word16 n) {
    fx::CallScope scope;
    return fx::L_shr(L, n);
}
EVRC_API Word16 evrc_norm_s(Word16 a) {
    fx::CallScope scope;
    return fx::norm_s(a);
}
EVRC_API Word16 evrc_norm_l(Word32 L) {
    fx::CallScope scope;
    return fx::norm_l(L);
}

}  // extern "C"
