// Placeholder: to be implemented.
#include "evrc/evrc_dec.h"

extern "C" {

EVRC_API int get_sizeof_evrc_dec_struct(void) { return 0; }
EVRC_API void evrc_init_dec([[maybe_unused]] EvrcDecoderState *st) { }
EVRC_API void evrc_init_dec_illegal_rate_transition([[maybe_unused]] EvrcDecoderState *st) { }
EVRC_API void evrc_init_tty_dec([[maybe_unused]] EvrcDecoderState *st, [[maybe_unused]] Word16 mode) { }
EVRC_API int evrc_decode([[maybe_unused]] EvrcDecoderState *st, [[maybe_unused]] EvrcPacket *packet, [[maybe_unused]] Word16 *output, [[maybe_unused]] int postfilter_off) { return 0; }
EVRC_API void evrc_check_illegal_rate_transition([[maybe_unused]] EvrcDecoderState *st, [[maybe_unused]] Word16 rate) { }
EVRC_API Word16 evrc_fer_detect_and_unpack([[maybe_unused]] EvrcDecoderState *st, [[maybe_unused]] EvrcFrameParams *fp, [[maybe_unused]] EvrcPacket *packet) { return 0; }
EVRC_API void evrc_dec_clean_up([[maybe_unused]] EvrcDecoderState *st, [[maybe_unused]] EvrcFrameParams *fp, [[maybe_unused]] Word16 *output, [[maybe_unused]] Word16 rate, [[maybe_unused]] Word16 erased) { }
EVRC_API void evrc_decoder_gain_adjust([[maybe_unused]] EvrcDecoderState *st, [[maybe_unused]] Word16 *output) { }

}  // extern "C"
