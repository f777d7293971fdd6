// Operator-by-operator forms of the shared stages that have exact fast paths.
// Each computes what its fast path computes through the counted fx::
// operators, one operator at a time, with the same effect on the overflow flag
// and the operation counter; the tests hold every fast path to its form here.
#ifndef EVRC_CODEC_COMMON_REFERENCE_FORMS_H
#define EVRC_CODEC_COMMON_REFERENCE_FORMS_H

#include "evrc/evrc_common.h"

namespace evrc {

// evrc_square_root, bit by bit.
Word16 square_root_reference(Word32 L);

// evrc_voc_synthesis_filter.
void synthesis_filter_reference(const Word16 *lpc, const Word16 *in, Word16 *out, Word32 *mem, int L);

// evrc_voc_prediction_filter, accumulating in 64 bits throughout.
void prediction_filter_reference(const Word16 *in, const Word16 *lpc, Word16 *out, int L, Word16 shift);

// block_interp_bounded (codec/common/excitation.h), tap by tap.
void block_interp_reference(Word16 *buf, int buf_len, int pos, const Word32 *contour, const Word16 *filter, int N,
                            int n_samples);

}  // namespace evrc

#endif  // EVRC_CODEC_COMMON_REFERENCE_FORMS_H
