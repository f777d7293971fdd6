// Placeholder: to be implemented.
#include "evrc/evrc_dec.h"

extern "C" {

EVRC_API void evrc_interpol_delay([[maybe_unused]] Word16 cur_delay, [[maybe_unused]] Word16 prev_delay, [[maybe_unused]] Word16 subframe, [[maybe_unused]] Word32 *points) { }
EVRC_API void evrc_construct_delay_contour([[maybe_unused]] const Word32 *points, [[maybe_unused]] Word32 *contour, [[maybe_unused]] Word16 L) { }

}  // extern "C"
