// Placeholder: to be implemented.
#include "evrc/evrc_dec.h"

extern "C" {

EVRC_API Word16 evrc_fer_detect([[maybe_unused]] EvrcPacket *packet, [[maybe_unused]] Word16 prev_rate, [[maybe_unused]] Word16 prev_erased, [[maybe_unused]] Word16 first_word) { return 0; }
EVRC_API Word16 evrc_unpack([[maybe_unused]] EvrcFrameParams *fp, [[maybe_unused]] EvrcPacket *packet) { return 0; }
EVRC_API void evrc_unpack_full_rate([[maybe_unused]] const Word16 *data, [[maybe_unused]] EvrcFrameParams *fp) { }
EVRC_API void evrc_unpack_half_rate([[maybe_unused]] const Word16 *data, [[maybe_unused]] EvrcFrameParams *fp) { }
EVRC_API Word16 evrc_unpack_one_eigth_rate([[maybe_unused]] const Word16 *data, [[maybe_unused]] EvrcFrameParams *fp) { return 0; }
EVRC_API Word16 evrc_check_fcb_indices([[maybe_unused]] const EvrcFrameParams *fp, [[maybe_unused]] Word16 rate, [[maybe_unused]] Word16 bad_frame) { return 0; }

}  // extern "C"
