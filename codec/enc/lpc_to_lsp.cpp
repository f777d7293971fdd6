// LPC to LSP conversion (stub).
#include "codec/basic/fixed_point.h"
#include "evrc/evrc_enc.h"

extern "C" {

EVRC_API void cmn1x_lpc2pq(const Word32 *lpc, Word32 *p, Word32 *q) {
    (void)lpc;
    for (int k = 0; k < 6; ++k) {
        p[k] = 0;
        q[k] = 0;
    }
}

EVRC_API Word16 cmn1x_pq2lsp(const Word32 *p, const Word32 *q, Word16 *lsp, const Word16 *prev) {
    (void)p;
    (void)q;
    for (int k = 0; k < 10; ++k) {
        lsp[k] = prev[k];
    }
    return 0;
}

}  // extern "C"
