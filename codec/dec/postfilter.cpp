// Placeholder: to be implemented.
#include "evrc/evrc_dec.h"

extern "C" {

EVRC_API void evrc_decoder_postfilter([[maybe_unused]] EvrcDecoderState *st, [[maybe_unused]] Word16 *out, [[maybe_unused]] const Word16 *poles, [[maybe_unused]] const Word16 *zeros, [[maybe_unused]] Word16 L, [[maybe_unused]] Word16 tilt) { }

}  // extern "C"
