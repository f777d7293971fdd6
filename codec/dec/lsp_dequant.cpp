// Placeholder: to be implemented.
#include "evrc/evrc_dec.h"

extern "C" {

EVRC_API void evrc_unquant_lsps([[maybe_unused]] const Word16 *codebook, [[maybe_unused]] Word16 row_len, [[maybe_unused]] Word16 row_index, [[maybe_unused]] Word16 *out) { }
EVRC_API void evrc_check_lsps([[maybe_unused]] EvrcFrameParams *fp) { }

}  // extern "C"
