// Fixed-codebook search (stub).
#include "codec/basic/fixed_point.h"
#include "evrc/evrc_enc.h"

extern "C" {

EVRC_API Word16 evrc_acelp(const Word16 *target, const Word16 *h, Word16 acb_gain, Word16 lag, Word16 rate, Word16 L,
                           Word16 *indices) {
    (void)target;
    (void)h;
    (void)acb_gain;
    (void)lag;
    (void)L;
    for (int i = 0; i < (rate == 4 ? 4 : 1); ++i) indices[i] = 0;
    return 0;
}

}  // extern "C"
