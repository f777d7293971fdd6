// Placeholder: to be implemented.
#include "evrc/evrc_dec.h"

extern "C" {

EVRC_API void evrc_voc_synthesis_filter([[maybe_unused]] const Word16 *lpc, [[maybe_unused]] const Word16 *in, [[maybe_unused]] Word16 *out, [[maybe_unused]] Word32 *mem, [[maybe_unused]] Word16 L) { }
EVRC_API void evrc_voc_prediction_filter([[maybe_unused]] const Word16 *in, [[maybe_unused]] const Word16 *lpc, [[maybe_unused]] Word16 *out, [[maybe_unused]] Word16 L, [[maybe_unused]] Word16 shift) { }

}  // extern "C"
