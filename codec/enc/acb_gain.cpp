// Adaptive-codebook gain (stub).
#include "codec/basic/fixed_point.h"
#include "evrc/evrc_enc.h"

extern "C" {

EVRC_API Word16 evrc_remove_acb(const Word16 *target, const Word16 *acb, const Word16 *h, Word16 *fcb_target,
                                Word16 L) {
    (void)acb;
    (void)h;
    for (int n = 0; n < L; ++n) fcb_target[n] = target[n];
    return 0;
}

}  // extern "C"
