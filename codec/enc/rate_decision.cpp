// Rate selection, band noise/signal/SNR estimation, background noise (stub).
#include "codec/basic/fixed_point.h"
#include "evrc/evrc_enc.h"

extern "C" {

EVRC_API Word16 evrc_rate_selection(const Word32 autocorr[17], const Word16 snr_index[2], const Word32 noise[2],
                                    Word32 band_energy[2], Word16 *hangover, Word16 *first_frame_done,
                                    Word16 prev_rate, Word16 last_rate, Word16 window_shift,
                                    Word16 autocorr_shift) {
    (void)autocorr; (void)snr_index; (void)noise; (void)band_energy; (void)hangover; (void)first_frame_done;
    (void)prev_rate; (void)last_rate; (void)window_shift; (void)autocorr_shift;
    return 4;
}

EVRC_API void evrc_update_rate_info(Word32 noise[2], const Word32 band_energy[2], Word32 signal[2],
                                    Word16 snr_index[2], Word16 *low_beta_count, Word16 *high_beta_count,
                                    Word16 beta) {
    (void)noise; (void)band_energy; (void)signal; (void)snr_index; (void)low_beta_count; (void)high_beta_count;
    (void)beta;
}

EVRC_API Word32 cmn1x_compute_bne(Word32 noise[2], const Word32 band_energy[2], const Word16 flag[2],
                                  const Word16 scale[2]) {
    (void)noise; (void)band_energy; (void)flag; (void)scale;
    return 0;
}

EVRC_API Word32 cmn1x_compute_signal(Word32 signal[2], const Word32 band_energy[2], UWord16 gain) {
    (void)signal; (void)band_energy; (void)gain;
    return 0;
}

EVRC_API void cmn1x_compute_snr(const Word32 signal[2], const Word32 noise[2], Word16 snr_index[2]) {
    (void)signal; (void)noise; (void)snr_index;
}

EVRC_API void evrc_background_noise_estimation(EvrcEncoderState *state, const Word16 *speech) {
    (void)state; (void)speech;
}

}  // extern "C"
