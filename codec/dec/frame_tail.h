// The steps that close every frame path of the decoder (speech, eighth rate,
// concealment): the LPC of a subframe, the output of a subframe (AGC,
// synthesis, postfilter, AGC) and the end-of-frame bookkeeping.
#ifndef EVRC_CODEC_DEC_FRAME_TAIL_H
#define EVRC_CODEC_DEC_FRAME_TAIL_H

#include "evrc/evrc_dec.h"

namespace evrc_dec {

// Pole and zero weight tables and tilt of the postfilter.
struct PostfilterSetting {
    const Word16 *poles;
    const Word16 *zeros;
    Word16 tilt;
};

// The setting of a speech or concealed frame of the given rate.
PostfilterSetting speech_postfilter(Word16 rate);
// The setting of an eighth-rate frame: equal weights, no tilt.
PostfilterSetting eighth_rate_postfilter();

// Each path reads the caller's postfilter_off flag its own way, and streams
// depend on the difference for values other than 0 and 1.
// Speech frames: any non-zero value turns the postfilter off.
inline bool speech_postfilter_on(int postfilter_off) { return postfilter_off == 0; }
// Eighth-rate frames: the postfilter runs only for 0.
inline bool eighth_rate_postfilter_on(int postfilter_off) { return postfilter_off == 0; }
// Concealed voiced frames: only 1 turns the postfilter off.
inline bool erasure_postfilter_on(int postfilter_off) { return postfilter_off != 1; }

// LPC of subframe k from the LSPs interpolated between the previous frame's
// and lsp.
void subframe_lpc(EvrcDecoderState *st, const Word16 *lsp, int k);

// Output of subframe k, whose excitation is the state's current subframe
// (after the history shift): with the postfilter, AGC of the excitation to
// the pre-filtered copy (when there is one), synthesis, postfilter and AGC of
// the postfiltered signal to the synthesis; without, synthesis alone. The
// result stays in the current subframe and is copied to the frame output.
void subframe_output(EvrcDecoderState *st, const Word16 *prefiltered, const PostfilterSetting &pf, bool postfilter,
                     int k, Word16 *output);

}  // namespace evrc_dec

#endif  // EVRC_CODEC_DEC_FRAME_TAIL_H
