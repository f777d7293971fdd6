// LSP order check of a dequantised set: disordered sets are rejected.
#include "codec/basic/fixed_point.h"
#include "codec/common/constants.h"
#include "evrc/evrc_dec.h"

extern "C" {

EVRC_API void evrc_check_lsps(EvrcFrameParams *fp) {
    fx::CallScope scope;
    // Strictly ascending: equal neighbours reject the set as well.
    for (int i = evrc::kOrder - 2; i >= 0; --i) {
        if (fp->lsp[i + 1] <= fp->lsp[i]) fp->bad_frame = 1;
    }
}

}  // extern "C"
