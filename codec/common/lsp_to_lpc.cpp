// Placeholder: to be implemented.
#include "evrc/evrc_dec.h"

extern "C" {

EVRC_API Word16 cmn1x_interpolate_lsp([[maybe_unused]] const Word16 *prev, [[maybe_unused]] const Word16 *cur, [[maybe_unused]] Word16 *out, [[maybe_unused]] Word16 weight) { return 0; }
EVRC_API void cmn1x_lsp2lpc([[maybe_unused]] const Word16 *lsp, [[maybe_unused]] Word16 *a, [[maybe_unused]] Word16 shift) { }
EVRC_API void evrc_voc_compute_poly_product([[maybe_unused]] const Word16 *lsp, [[maybe_unused]] Word32 *poly, [[maybe_unused]] Word16 order) { }
EVRC_API Word32 evrc_voc_poscos([[maybe_unused]] Word16 lsp) { return 0; }
EVRC_API void evrc_voc_lsp_convolve([[maybe_unused]] Word32 b, [[maybe_unused]] const Word32 *in, [[maybe_unused]] Word32 *out, [[maybe_unused]] Word16 n) { }
EVRC_API Word16 evrc_bwe_lpc_sp([[maybe_unused]] const Word16 *in, [[maybe_unused]] Word16 *out, [[maybe_unused]] const Word16 *factors) { return 0; }

}  // extern "C"
