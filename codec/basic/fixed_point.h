// Internal, inlinable form of the arithmetic operators for the codec's own
// code. Each fx:: function behaves exactly like the exported evrc_ operator of
// the same name (result, overflow flag and operation counter).
#ifndef EVRC_CODEC_BASIC_FIXED_POINT_H
#define EVRC_CODEC_BASIC_FIXED_POINT_H

#include "evrc/basic_op.h"

namespace fx {

inline Word16 saturate(Word32 x) { return ::evrc_saturate(x); }
inline Word32 L_saturate(Word64 x) { return ::evrc_L_saturate(x); }
inline Word16 add(Word16 a, Word16 b) { return ::evrc_add(a, b); }
inline Word16 sub(Word16 a, Word16 b) { return ::evrc_sub(a, b); }
inline Word16 abs_s(Word16 a) { return ::evrc_abs_s(a); }
inline Word16 negate(Word16 a) { return ::evrc_negate(a); }
inline Word16 extract_h(Word32 L) { return ::evrc_extract_h(L); }
inline Word16 extract_l(Word32 L) { return ::evrc_extract_l(L); }
inline Word32 L_deposit_h(Word16 a) { return ::evrc_L_deposit_h(a); }
inline Word32 L_deposit_l(Word16 a) { return ::evrc_L_deposit_l(a); }
inline Word32 L_abs(Word32 L) { return ::evrc_L_abs(L); }
inline Word32 L_negate(Word32 L) { return ::evrc_L_negate(L); }
inline Word32 L_add(Word32 L1, Word32 L2) { return ::evrc_L_add(L1, L2); }
inline Word32 L_sub(Word32 L1, Word32 L2) { return ::evrc_L_sub(L1, L2); }
inline Word32 L_mult(Word16 a, Word16 b) { return ::evrc_L_mult(a, b); }
inline Word32 L_mac(Word32 L, Word16 a, Word16 b) { return ::evrc_L_mac(L, a, b); }
inline Word32 L_msu(Word32 L, Word16 a, Word16 b) { return ::evrc_L_msu(L, a, b); }
inline Word16 mult(Word16 a, Word16 b) { return ::evrc_mult(a, b); }
inline Word16 mult_r(Word16 a, Word16 b) { return ::evrc_mult_r(a, b); }
inline Word16 round32(Word32 L) { return ::evrc_round32(L); }
inline Word16 mac_r(Word32 L, Word16 a, Word16 b) { return ::evrc_mac_r(L, a, b); }
inline Word16 msu_r(Word32 L, Word16 a, Word16 b) { return ::evrc_msu_r(L, a, b); }
inline Word16 shl(Word16 a, Word16 n) { return ::evrc_shl(a, n); }
inline Word16 shr(Word16 a, Word16 n) { return ::evrc_shr(a, n); }
inline Word32 L_shl(Word32 L, Word16 n) { return ::evrc_L_shl(L, n); }
inline Word32 L_shr(Word32 L, Word16 n) { return ::evrc_L_shr(L, n); }
inline Word16 norm_s(Word16 a) { return ::evrc_norm_s(a); }
inline Word16 norm_l(Word32 L) { return ::evrc_norm_l(L); }
inline Word32 extract64_l(Word64 x) { return ::evrc_extract64_l(x); }
inline Word32 int_mult_16_16(Word32 a, Word32 b) { return ::evrc_int_mult_16_16(a, b); }
inline Word32 int_mult_16h_16(Word32 a, Word32 b) { return ::evrc_int_mult_16h_16(a, b); }
inline Word64 L_mult64_su(Word32 a, Word32 b) { return ::evrc_L_mult64_su(a, b); }
inline Word64 int_mult_32_16(Word32 a, Word32 b) { return ::evrc_int_mult_32_16(a, b); }
inline Word64 int_mult_32_32(Word32 a, Word32 b) { return ::evrc_int_mult_32_32(a, b); }
inline Word64 L_mult64_uu(Word32 a, Word32 b) { return ::evrc_L_mult64_uu(a, b); }
inline Word32 L_mult_su(Word32 a, Word32 b) { return ::evrc_L_mult_su(a, b); }
inline Word32 L_mult_uu(Word32 a, Word32 b) { return ::evrc_L_mult_uu(a, b); }
inline Word64 int_mac_16_16(Word64 acc, Word32 a, Word32 b) { return ::evrc_int_mac_16_16(acc, a, b); }
inline Word64 int_mac_32_16(Word64 acc, Word32 a, Word32 b) { return ::evrc_int_mac_32_16(acc, a, b); }
inline Word64 int_msu_16_16(Word64 acc, Word32 a, Word32 b) { return ::evrc_int_msu_16_16(acc, a, b); }
inline Word64 int_mac_16_16_s1(Word64 acc, Word32 a, Word32 b) { return ::int_mac_16_16_s1(acc, a, b); }
inline Word64 int_mac_16_16_shift(Word64 acc, Word32 a, Word32 b, Word16 s) { return ::evrc_int_mac_16_16_shift(acc, a, b, s); }
inline Word64 L_mac64_su(Word64 acc, Word32 a, Word32 b) { return ::evrc_L_mac64_su(acc, a, b); }
inline Word64 L_add64(Word64 x, Word64 y) { return ::evrc_L_add64(x, y); }
inline Word64 L_sub64(Word64 x, Word64 y) { return ::evrc_L_sub64(x, y); }
inline Word64 L_negate64(Word64 x) { return ::evrc_L_negate64(x); }
inline Word64 L_shl64(Word64 x, Word16 n) { return ::evrc_L_shl64(x, n); }
inline Word64 L_shr64(Word64 x, Word16 n) { return ::evrc_L_shr64(x, n); }
inline Word32 MAX16(Word32 a, Word32 b) { return ::evrc_MAX16(a, b); }
inline Word32 MAX32(Word32 a, Word32 b) { return ::evrc_MAX32(a, b); }
inline Word32 MIN16(Word32 a, Word32 b) { return ::evrc_MIN16(a, b); }
inline Word32 MIN32(Word32 a, Word32 b) { return ::evrc_MIN32(a, b); }
inline Word64 L_sat32_64(Word64 x) { return ::evrc_L_sat32_64(x); }
inline Word16 L_sat32_64_round16(Word64 x) { return ::evrc_L_sat32_64_round16(x); }
inline Word64 L_mac64(Word64 acc, Word32 a, Word32 b) { return ::evrc_L_mac64(acc, a, b); }
inline Word32 L_mult_32_16(Word32 L, Word16 b) { return ::evrc_L_mult_32_16(L, b); }
inline Word64 L_mult64_32_32(Word32 a, Word32 b) { return ::evrc_L_mult64_32_32(a, b); }
inline Word16 norm32_l64(Word64 x) { return ::evrc_norm32_l64(x); }
inline Word16 signed_32_div_16(Word32 num, Word16 den) { return ::evrc_signed_32_div_16(num, den); }
inline Word32 divide_dp(Word32 num, Word32 den, Word16 q) { return ::evrc_divide_dp(num, den, q); }
inline Word32 invert_dp(Word32 x, Word16 iterations, Word16 *exponent) { return ::evrc_invert_dp(x, iterations, exponent); }
inline Word16 square_root(Word32 L) { return ::evrc_square_root(L); }
inline Word32 taylor_sqroot(Word32 L) { return ::evrc_taylor_sqroot(L); }
inline Word16 log2(Word32 L) { return ::evrc_log2(L); }
inline Word32 fnLog2(Word32 L) { return ::evrc_fnLog2(L); }
inline Word32 fnLog10(Word32 L) { return ::evrc_fnLog10(L); }
inline Word32 log2_3term(Word32 L) { return ::evrc_log2_3term(L); }
inline Word32 log_3term(Word32 L) { return ::evrc_log_3term(L); }
inline Word32 log10_3term(Word32 L) { return ::evrc_log10_3term(L); }

}  // namespace fx

#endif  // EVRC_CODEC_BASIC_FIXED_POINT_H
