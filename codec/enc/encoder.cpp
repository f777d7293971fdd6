// Encoder frame driver (stub).
#include "codec/basic/fixed_point.h"
#include "codec/enc/encoder_internal.h"
#include "evrc/evrc_enc.h"

static_assert(sizeof(EvrcEncoderState) == 3544, "the encoder state record is 3544 bytes on every target");

extern "C" {

EVRC_API int evrc_encoder(EvrcEncoderState *state, const Word16 *input, UWord16 *packet, UWord32 side_enable,
                          const UWord16 *side_info) {
    (void)state;
    (void)input;
    (void)side_enable;
    (void)side_info;
    for (int i = 0; i < 12; ++i) packet[i] = 0;
    return 0;
}

}  // extern "C"
