// LSP dequantisation: the codebooks hold absolute LSP values, so a row copy
// is the whole dequantisation; the order check rejects disordered sets.
#include "evrc/evrc_dec.h"

extern "C" {

EVRC_API void evrc_unquant_lsps(const Word16 *codebook, Word16 row_len, Word16 row_index, Word16 *out) {
    const Word16 *row = codebook + static_cast<int>(row_index) * row_len;
    for (int i = 0; i < row_len; ++i) out[i] = row[i];
}

EVRC_API void evrc_check_lsps(EvrcFrameParams *fp) {
    // Strictly ascending: equal neighbours reject the set as well.
    for (int i = 8; i >= 0; --i) {
        if (fp->lsp[i + 1] <= fp->lsp[i]) fp->bad_frame = 1;
    }
}

}  // extern "C"
