// Placeholder: to be implemented.
#include "evrc/evrc_dec.h"

extern "C" {

EVRC_API void evrc_pitch_pre_filter([[maybe_unused]] const Word16 *exc_last, [[maybe_unused]] Word16 pitch_lag, [[maybe_unused]] Word16 *out, [[maybe_unused]] Word16 acb_gain, [[maybe_unused]] Word16 L) { }

}  // extern "C"
