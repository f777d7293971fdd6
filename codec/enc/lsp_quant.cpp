// LSP weights, normalisation and split vector quantisation (stub).
#include "codec/basic/fixed_point.h"
#include "evrc/evrc_enc.h"

extern "C" {

EVRC_API void evrc_compute_lsp_weights(const Word16 lsp[10], Word32 weights[10]) {
    (void)lsp;
    for (int i = 0; i < 10; ++i) weights[i] = 0;
}

EVRC_API void evrc_norm_lsp_weights(const Word32 *weights, Word16 *norm, Word16 n) {
    (void)weights;
    for (int i = 0; i < n; ++i) norm[i] = 0;
}

EVRC_API void evrc_search_lsps(const Word16 *weights, const Word16 *target, Word16 *lsp_floor,
                               const Word16 *codebook, UWord32 params, Word16 *out, Word16 *index) {
    (void)weights; (void)target; (void)lsp_floor; (void)codebook; (void)params; (void)out;
    *index = 0;
}

EVRC_API void evrc_quantize_lsps(Word32 weights[10], Word16 qlsp[10], Word16 *indices, const Word16 target[10],
                                 Word16 rate) {
    (void)weights; (void)rate;
    for (int i = 0; i < 10; ++i) qlsp[i] = target[i];
    for (int i = 0; i < 4; ++i) indices[i] = 0;
}

}  // extern "C"
