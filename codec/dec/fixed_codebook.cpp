// Placeholder: to be implemented.
#include "evrc/evrc_dec.h"

extern "C" {

EVRC_API void evrc_dec_fixed_codebook([[maybe_unused]] Word16 *fcb, [[maybe_unused]] const Word16 *indices, [[maybe_unused]] Word16 rate) { }
EVRC_API void evrc_combine_acb_fcb([[maybe_unused]] Word16 *exc, [[maybe_unused]] Word16 *fcb, [[maybe_unused]] Word16 *pitch_lag, [[maybe_unused]] const Word32 *points, [[maybe_unused]] Word16 acb_gain, [[maybe_unused]] Word16 fcb_gain, [[maybe_unused]] Word16 L) { }

}  // extern "C"
