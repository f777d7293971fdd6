// Pitch analysis (stub): LPC residual and open-loop delay.
#include "codec/basic/fixed_point.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_enc.h"

extern "C" {

EVRC_API void evrc_compute_residual(const Word16 *speech, const Word16 *prev_lpc, const Word16 *cur_lpc,
                                    Word16 *residual) {
    (void)prev_lpc;
    (void)cur_lpc;
    for (int i = 0; i < 2 * EVRC_ENC_FRAME; ++i) residual[i] = speech[i];
}

EVRC_API void evrc_calc_frame_delay_and_beta(EvrcEncoderState *state) {
    state->sDelay = 40;
    state->sBeta = 0;
}

}  // extern "C"
