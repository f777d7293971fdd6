// Weighted synthesis filter (stub).
#include "codec/basic/fixed_point.h"
#include "evrc/evrc_enc.h"

extern "C" {

EVRC_API void evrc_weighted_synthesis_filter(const Word16 *in, Word16 *out, const Word16 *qlpc, const Word16 *num,
                                             const Word16 *den, Word32 *mem, Word16 L) {
    (void)qlpc;
    (void)num;
    (void)den;
    (void)mem;
    for (int n = 0; n < L; ++n) out[n] = in[n];
}

}  // extern "C"
