// Placeholder: to be implemented.
#include "evrc/evrc_dec.h"

extern "C" {

EVRC_API void evrc_voc_rclp_block_interp([[maybe_unused]] Word16 *exc, [[maybe_unused]] const Word32 *contour, [[maybe_unused]] const Word16 *filter, [[maybe_unused]] Word16 N, [[maybe_unused]] Word16 n_samples) { }
EVRC_API void evrc_rx_acb_excitation([[maybe_unused]] const Word32 *points, [[maybe_unused]] Word16 *exc, [[maybe_unused]] Word16 L) { }
EVRC_API void evrc_fix_dlay_contour([[maybe_unused]] EvrcDecoderState *st, [[maybe_unused]] EvrcFrameParams *fp) { }

}  // extern "C"
