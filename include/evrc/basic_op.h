/*
 * Fixed-point arithmetic of the EVRC codec: saturating 16/32-bit operators,
 * 64-bit accumulation, division, square root and logarithms.
 *
 * Every operator is exported with C linkage. Saturating operators write 1 to
 * evrc_giOverflow when they clamp, and add their weight to evrc_op_counter.
 */
#ifndef EVRC_BASIC_OP_H
#define EVRC_BASIC_OP_H

#include "evrc/evrc_types.h"

EVRC_EXTERN_C_BEGIN

/* Globals of the arithmetic layer (all zero at load). */
EVRC_API extern Word32 evrc_giOverflow;
EVRC_API extern Word32 evrc_giOldOverflow;
EVRC_API extern UWord32 evrc_op_counter;

/* Saturating 16- and 32-bit operators. */
EVRC_API Word16 evrc_saturate(Word32 x);
EVRC_API Word32 evrc_L_saturate(Word64 x);
EVRC_API Word16 evrc_add(Word16 a, Word16 b);
EVRC_API Word16 evrc_sub(Word16 a, Word16 b);
EVRC_API Word16 evrc_abs_s(Word16 a);
EVRC_API Word16 evrc_negate(Word16 a);
EVRC_API Word16 evrc_extract_h(Word32 L);
EVRC_API Word16 evrc_extract_l(Word32 L);
EVRC_API Word32 evrc_L_deposit_h(Word16 a);
EVRC_API Word32 evrc_L_deposit_l(Word16 a);
EVRC_API Word32 evrc_L_abs(Word32 L);
EVRC_API Word32 evrc_L_negate(Word32 L);
EVRC_API Word32 evrc_L_add(Word32 L1, Word32 L2);
EVRC_API Word32 evrc_L_sub(Word32 L1, Word32 L2);
EVRC_API Word32 evrc_L_mult(Word16 a, Word16 b);
EVRC_API Word32 evrc_L_mac(Word32 L, Word16 a, Word16 b);
EVRC_API Word32 evrc_L_msu(Word32 L, Word16 a, Word16 b);
EVRC_API Word16 evrc_mult(Word16 a, Word16 b);
EVRC_API Word16 evrc_mult_r(Word16 a, Word16 b);
EVRC_API Word16 evrc_round32(Word32 L);
EVRC_API Word16 evrc_mac_r(Word32 L, Word16 a, Word16 b);
EVRC_API Word16 evrc_msu_r(Word32 L, Word16 a, Word16 b);
EVRC_API Word16 evrc_shl(Word16 a, Word16 n);
EVRC_API Word16 evrc_shr(Word16 a, Word16 n);
EVRC_API Word32 evrc_L_shl(Word32 L, Word16 n);
EVRC_API Word32 evrc_L_shr(Word32 L, Word16 n);
EVRC_API Word16 evrc_norm_s(Word16 a);
EVRC_API Word16 evrc_norm_l(Word32 L);

/* 64-bit and mixed-width operators (plain: no flag, no counting). */
EVRC_API Word32 evrc_extract64_l(Word64 x);
EVRC_API Word32 evrc_int_mult_16_16(Word32 a, Word32 b);
EVRC_API Word32 evrc_int_mult_16h_16(Word32 a, Word32 b);
EVRC_API Word64 evrc_L_mult64_su(Word32 a, Word32 b);
EVRC_API Word64 evrc_int_mult_32_16(Word32 a, Word32 b);
EVRC_API Word64 evrc_int_mult_32_32(Word32 a, Word32 b);
EVRC_API Word64 evrc_L_mult64_uu(Word32 a, Word32 b);
EVRC_API Word32 evrc_L_mult_su(Word32 a, Word32 b);
EVRC_API Word32 evrc_L_mult_uu(Word32 a, Word32 b);
EVRC_API Word64 evrc_int_mac_16_16(Word64 acc, Word32 a, Word32 b);
EVRC_API Word64 evrc_int_mac_32_16(Word64 acc, Word32 a, Word32 b);
EVRC_API Word64 evrc_int_msu_16_16(Word64 acc, Word32 a, Word32 b);
EVRC_API Word64 int_mac_16_16_s1(Word64 acc, Word32 a, Word32 b);
EVRC_API Word64 evrc_int_mac_16_16_shift(Word64 acc, Word32 a, Word32 b, Word16 s);
EVRC_API Word64 evrc_L_mac64_su(Word64 acc, Word32 a, Word32 b);
EVRC_API Word64 evrc_L_add64(Word64 x, Word64 y);
EVRC_API Word64 evrc_L_sub64(Word64 x, Word64 y);
EVRC_API Word64 evrc_L_negate64(Word64 x);
EVRC_API Word64 evrc_L_shl64(Word64 x, Word16 n);
EVRC_API Word64 evrc_L_shr64(Word64 x, Word16 n);
EVRC_API Word32 evrc_MAX16(Word32 a, Word32 b);
EVRC_API Word32 evrc_MAX32(Word32 a, Word32 b);
EVRC_API Word32 evrc_MIN16(Word32 a, Word32 b);
EVRC_API Word32 evrc_MIN32(Word32 a, Word32 b);

/* 64-bit saturating and double-precision fractional operators. */
EVRC_API Word64 evrc_L_sat32_64(Word64 x);
EVRC_API Word16 evrc_L_sat32_64_round16(Word64 x);
EVRC_API Word64 evrc_L_mac64(Word64 acc, Word32 a, Word32 b);
EVRC_API Word32 evrc_L_mult_32_16(Word32 L, Word16 b);
EVRC_API Word64 evrc_L_mult64_32_32(Word32 a, Word32 b);
EVRC_API Word16 evrc_norm32_l64(Word64 x);

/* Division, reciprocal, square root and logarithms. */
EVRC_API Word16 evrc_signed_32_div_16(Word32 num, Word16 den);
EVRC_API Word32 evrc_divide_dp(Word32 num, Word32 den, Word16 q);
EVRC_API Word32 evrc_invert_dp(Word32 x, Word16 iterations, Word16 *exponent);
EVRC_API Word16 evrc_square_root(Word32 L);
EVRC_API Word32 evrc_taylor_sqroot(Word32 L);
EVRC_API Word16 evrc_log2(Word32 L);
EVRC_API Word32 evrc_fnLog2(Word32 L);
EVRC_API Word32 evrc_fnLog10(Word32 L);
EVRC_API Word32 evrc_log2_3term(Word32 L);
EVRC_API Word32 evrc_log_3term(Word32 L);
EVRC_API Word32 evrc_log10_3term(Word32 L);

EVRC_EXTERN_C_END

#endif /* EVRC_BASIC_OP_H */
