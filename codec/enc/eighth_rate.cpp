// Eighth-rate energy index (stub).
#include "codec/basic/fixed_point.h"
#include "evrc/evrc_enc.h"

extern "C" {

EVRC_API Word16 evrc_8th_rate(EvrcEncoderState *state) {
    (void)state;
    return 0;
}

}  // extern "C"
