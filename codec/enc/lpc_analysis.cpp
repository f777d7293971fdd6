// LPC analysis (stub).
#include "codec/basic/fixed_point.h"
#include "codec/enc/enc_tables.h"
#include "evrc/evrc_enc.h"

extern "C" {

EVRC_API Word16 cmn1x_hamming_window(const Word16 *in, Word16 *out) {
    for (int i = 0; i < EVRC_ENC_FRAME; ++i) {
        out[i] = in[i];
    }
    return 0;
}

EVRC_API Word16 evrc_autocorr(const Word16 *x, Word32 *r) {
    (void)x;
    for (int k = 0; k < 17; ++k) {
        r[k] = 0;
    }
    return 0;
}

EVRC_API Word32 cmn1x_durbins_recursion(const Word32 *r, Word32 *lpc) {
    for (int k = 0; k < 10; ++k) {
        lpc[k] = 0;
    }
    return r[0];
}

EVRC_API Word16 evrc_update_lpcflag(EvrcEncoderState *state) {
    (void)state;
    return 0;
}

EVRC_API void evrc_bandwidth_expand_lpcs(Word32 *lpc) { (void)lpc; }

}  // extern "C"
