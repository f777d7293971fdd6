// Encoder rate control: state set-up, caller's rate limits and the per-frame
// rate decision (stub).
#include "codec/basic/fixed_point.h"
#include "evrc/evrc_enc.h"

extern "C" {

EVRC_API UWord32 get_sizeof_evrc_enc_struct(void) { return static_cast<UWord32>(sizeof(EvrcEncoderState)); }

EVRC_API void evrc_init_enc(EvrcEncoderState *state) { (void)state; }

EVRC_API void evrc_set_enc_params(EvrcEncoderState *state, UWord32 max_rate, UWord32 min_rate, UWord32 flag_a,
                                  UWord32 flag_b, UWord32 flag_c, UWord32 skip_noise_update) {
    (void)state;
    (void)max_rate;
    (void)min_rate;
    (void)flag_a;
    (void)flag_b;
    (void)flag_c;
    (void)skip_noise_update;
}

EVRC_API Word16 evrc_ratedec(EvrcEncoderState *state) {
    (void)state;
    return 4;
}

}  // extern "C"
