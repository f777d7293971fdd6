// RCELP signal modification (stub: plain CELP, the residual is not warped).
#include "codec/basic/fixed_point.h"
#include "codec/enc/encoder_internal.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_enc.h"

namespace evrc_enc {

void modify_subframe(EvrcEncoderState *st, int j, int L, const Word32 *contour, const Word16 *acb3,
                     const Word16 *acb8) {
    (void)contour;
    (void)acb3;
    (void)acb8;
    const Word16 *src = st->residual + EVRC_ENC_FRAME + 53 * j;
    for (int n = 0; n < L; ++n) st->mod_residual[EVRC_ENC_HISTORY + n] = src[n];
}

}  // namespace evrc_enc

extern "C" {

EVRC_API void evrc_update_rcelp_shift(EvrcEncoderState *state) { (void)state; }

EVRC_API void evrc_construct_delay_contour_enc(const Word32 *points, Word32 *contour, Word16 L) {
    evrc_construct_delay_contour(points, contour, L);
}

EVRC_API Word16 evrc_comp_shift(const Word16 *residual, const Word16 *target, Word16 len, Word16 max_shift_q3) {
    (void)residual;
    (void)target;
    (void)len;
    (void)max_shift_q3;
    return 0;
}

EVRC_API Word16 evrc_peak_to_avg_ratio(const Word16 *x, Word16 len, Word16 *peak_pos) {
    (void)x;
    (void)len;
    *peak_pos = 0;
    return 0;
}

EVRC_API void evrc_rcelp_fixed_block_interp(const Word16 *in, Word16 *out, Word16 shift_q3, Word16 len) {
    (void)shift_q3;
    for (int n = 0; n < len; ++n) out[n] = in[n];
}

EVRC_API void evrc_update_hysteresis(EvrcEncoderState *state, Word16 shift_q8) {
    (void)state;
    (void)shift_q8;
}

}  // extern "C"
