// Placeholder: to be implemented.
#include "evrc/evrc_dec.h"

extern "C" {

EVRC_API void evrc_repacking_kel_to_dsp([[maybe_unused]] void *buffer) { }
EVRC_API int evrc_repacking_dsp_to_kel([[maybe_unused]] void *buffer) { return 0; }

}  // extern "C"
