// Placeholder: to be implemented.
#include "evrc/evrc_dec.h"

extern "C" {

EVRC_API Word16 evrc_decoder_agc([[maybe_unused]] EvrcDecoderState *st, [[maybe_unused]] const Word16 *ref, [[maybe_unused]] const Word16 *in, [[maybe_unused]] Word16 *out, [[maybe_unused]] Word16 mode, [[maybe_unused]] Word16 L) { return 0; }

}  // extern "C"
