// Placeholder: to be implemented.
#include "evrc/evrc_dec.h"

extern "C" {

EVRC_API Word16 evrc_ran_uniform([[maybe_unused]] Word16 *seed) { return 0; }
EVRC_API Word16 evrc_ran_gaussian([[maybe_unused]] EvrcGaussRecord *gen) { return 0; }

}  // extern "C"
