// Excitation layout of the decoder and the bounded forms of the stages that
// read the excitation history at a packet-controlled delay.
//
// exc_history holds kExcHistoryLen past samples, then the current subframe
// (at most EVRC_MAX_SUBFRAME samples) and ten more samples that the adaptive
// codebook produces beyond it:
//
//   [0 .. 128)            past excitation, oldest first
//   [128 .. 128 + L)      current subframe (built, filtered, synthesised here)
//   [128 + L .. 128 + L + 10)  look-ahead written by the adaptive codebook
//
// Delays come from the packet or are rebuilt after an erasure and may point
// outside this buffer; the bounded helpers read every such sample as 0 and
// never write outside it. The exported stage functions assume this layout for
// the pointer they are given.
#ifndef EVRC_CODEC_DEC_EXCITATION_INTERNAL_H
#define EVRC_CODEC_DEC_EXCITATION_INTERNAL_H

#include <cstring>

#include "evrc/evrc_dec.h"

namespace evrc_dec {

constexpr int kExcHistoryLen = EVRC_HISTORY_LEN;          // 128
constexpr int kExcAhead = EVRC_MAX_SUBFRAME + 10;         // 64
constexpr int kExcBufferLen = kExcHistoryLen + kExcAhead;  // 192
constexpr int kFcbLen = 55;                               // fixed-codebook vector
constexpr int kContourLen = EVRC_MAX_SUBFRAME + 10;       // contour of one subframe

static_assert(sizeof(static_cast<EvrcDecoderState *>(nullptr)->exc_history) ==
                  kExcBufferLen * sizeof(Word16),
              "exc_history layout");

// Start of the current subframe inside the state's excitation buffer.
inline Word16 *current_subframe(EvrcDecoderState *st) { return st->exc_history + kExcHistoryLen; }

// Drops the L oldest history samples: the 128 samples starting L later become
// the history, so the current subframe ends the history. The samples behind
// the history stay as they were. L is limited to 1 .. kExcAhead.
inline void shift_exc_history(EvrcDecoderState *st, int L) {
    if (L <= 0) {
        return;
    }
    if (L > kExcAhead) {
        L = kExcAhead;
    }
    std::memmove(st->exc_history, st->exc_history + L, kExcHistoryLen * sizeof(Word16));
}

// Fractional-delay interpolation over buf[pos .. pos + n_samples), reading the
// past at the contour's delays; samples outside buf[0 .. buf_len) read as 0.
// Each output sample is stored at once, so short delays repeat samples made
// earlier in the same call. Writes that would leave the buffer are dropped.
void block_interp_bounded(Word16 *buf, int buf_len, int pos, const Word32 *contour, const Word16 *filter, int N,
                          int n_samples);

// Comb pre-filter of the subframe buf[start .. start + L) with lag T into
// out[0 .. L); samples outside buf[0 .. buf_len) read as 0.
void pitch_pre_filter_bounded(const Word16 *buf, int buf_len, int start, Word16 T, Word16 *out, Word16 acb_gain,
                              int L);

// Pre-filters the state's current subframe with the state's pitch_lag and
// acb_gain into out[0 .. L).
void pitch_pre_filter_current(const EvrcDecoderState *st, Word16 *out, int L);

}  // namespace evrc_dec

#endif  // EVRC_CODEC_DEC_EXCITATION_INTERNAL_H
