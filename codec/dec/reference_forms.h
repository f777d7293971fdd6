// Operator-by-operator forms of the decoder stages that have exact fast paths
// (the shared stages' forms are in codec/common/reference_forms.h).
#ifndef EVRC_CODEC_DEC_REFERENCE_FORMS_H
#define EVRC_CODEC_DEC_REFERENCE_FORMS_H

#include "codec/common/reference_forms.h"
#include "evrc/evrc_dec.h"

namespace evrc_dec {

// evrc_decoder_agc with the output scaling written operator by operator.
Word16 decoder_agc_reference(EvrcDecoderState *st, const Word16 *ref, const Word16 *in, Word16 *out, Word16 mode,
                             Word16 L);

// pitch_pre_filter_bounded (codec/dec/excitation_internal.h) through the
// counted multiply-accumulate.
void pitch_pre_filter_reference(const Word16 *buf, int buf_len, int start, Word16 T, Word16 *out, Word16 acb_gain,
                                int L);

// The postfilter's tilt compensation and its form through the counted
// multiply-subtract.
void tilt_compensate(EvrcDecoderState *st, const Word16 *s, Word16 *dst, int L, Word16 mu);
void tilt_compensate_reference(EvrcDecoderState *st, const Word16 *s, Word16 *dst, int L, Word16 mu);

// The output doubling of evrc_decoder_gain_adjust on L samples in place, and
// its operator-by-operator form.
void double_samples(Word16 *x, int L);
void double_samples_reference(Word16 *x, int L);

}  // namespace evrc_dec

#endif  // EVRC_CODEC_DEC_REFERENCE_FORMS_H
