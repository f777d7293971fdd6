// Placeholder: to be implemented.
#include "evrc/evrc_dec.h"

extern "C" {

EVRC_API void evrc_decode_8th([[maybe_unused]] EvrcDecoderState *st, [[maybe_unused]] EvrcFrameParams *fp, [[maybe_unused]] Word16 *output, [[maybe_unused]] Word16 erased, [[maybe_unused]] Word16 use_conceal_gains, [[maybe_unused]] int postfilter_off) { }

}  // extern "C"
