// The decoder's view of the shared excitation layout (codec/common/excitation.h)
// in its state record, and the bounded pitch pre-filter on that layout.
#ifndef EVRC_CODEC_DEC_EXCITATION_INTERNAL_H
#define EVRC_CODEC_DEC_EXCITATION_INTERNAL_H

#include "codec/common/excitation.h"
#include "evrc/evrc_dec.h"

namespace evrc_dec {

using evrc::kExcAhead;
using evrc::kExcBufferLen;
using evrc::kExcHistoryLen;

static_assert(sizeof(static_cast<EvrcDecoderState *>(nullptr)->exc_history) == kExcBufferLen * sizeof(Word16),
              "exc_history layout");

// Start of the current subframe inside the state's excitation buffer.
inline Word16 *current_subframe(EvrcDecoderState *st) { return st->exc_history + kExcHistoryLen; }

// Shifts the state's excitation history by one subframe of L samples.
inline void shift_exc_history(EvrcDecoderState *st, int L) { evrc::shift_exc_history(st->exc_history, L); }

// Comb pre-filter of the subframe buf[start .. start + L) with lag T into
// out[0 .. L); samples outside buf[0 .. buf_len) read as 0.
void pitch_pre_filter_bounded(const Word16 *buf, int buf_len, int start, Word16 T, Word16 *out, Word16 acb_gain, int L);

}  // namespace evrc_dec

#endif  // EVRC_CODEC_DEC_EXCITATION_INTERNAL_H
