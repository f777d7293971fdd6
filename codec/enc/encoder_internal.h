// Prototypes shared by the encoder's stage files (not exported).
#ifndef EVRC_CODEC_ENC_ENCODER_INTERNAL_H
#define EVRC_CODEC_ENC_ENCODER_INTERNAL_H

#include "evrc/evrc_enc.h"

namespace evrc_enc {

// Signal modification of subframe j (L samples): warps the residual to
// follow the delay contour (Q24 per sample, L + 10 values), given the two
// adaptive-codebook candidates over L + 10 samples (acb3: 3-tap, unused and
// may be null; acb8: 8-tap interpolation of the excitation history). Writes the modified residual to
// st->mod_residual[EVRC_ENC_HISTORY .. EVRC_ENC_HISTORY + L) and updates the
// accumulated shift bookkeeping.
void modify_subframe(EvrcEncoderState *st, int j, int L, const Word32 *contour, const Word16 *acb3, const Word16 *acb8);

// evrc_acelp with the rate-1 pulse search in its reference form (the plain
// loops the fast form must match choice for choice).
Word16 acelp_reference(const Word16 *target, const Word16 *residual, const Word16 *h, Word16 acb_gain, Word16 lag,
                       Word16 rate, Word16 L, Word16 *indices);

// evrc_acelp that also hands back the decoded pulse vector of the indices it
// chose (evrc_dec_fixed_codebook's 55 entries, as the gain search decodes
// them), so that the excitation need not decode it again.
Word16 acelp_with_pulses(const Word16 *target, const Word16 *residual, const Word16 *h, Word16 acb_gain, Word16 lag,
                         Word16 rate, Word16 L, Word16 *indices, Word16 *pulses);

// evrc_weighted_synthesis_filter with the zeros section through the shared
// prediction filter (the operator-by-operator form of the block sums).
void weighted_synthesis_filter_reference(const Word16 *in, Word16 *out, const Word16 *qlpc, const Word16 *num,
                                         const Word16 *den, Word32 *mem, Word16 L);

// The adaptive vector through the weighted impulse response (Q11), as
// evrc_remove_acb filters it, and its 64-bit reference form.
void acb_filter(const Word16 *v, const Word16 *h, Word16 *y, Word16 L);
void acb_filter_reference(const Word16 *v, const Word16 *h, Word16 *y, Word16 L);

// Shapes the coded segment's residual residual[first .. first + 160) in
// place (valley filling and high-frequency shelf, subframe by subframe with
// the quantised LPC), continuing the previous segment. Memories in
// st->work_pitch.
void shape_coded_residual(EvrcEncoderState *st, Word16 *residual, int first);

// The error emphasis (low-frequency boost, tilt) over x[0 .. L) in place, a
// linear filter; mem: seven words of state (kErrorEmphasisWords), zero to
// start afresh.
constexpr int kErrorEmphasisWords = 7;
void emphasise_error(Word16 *x, int L, Word16 *mem);
void emphasise_error_reference(Word16 *x, int L, Word16 *mem);  // operator by operator

}  // namespace evrc_enc

#endif  // EVRC_CODEC_ENC_ENCODER_INTERNAL_H
