// Excitation buffer layout shared by the decoder's exc_history and the
// encoder's adaptive-codebook memory, its shift, and the bounded adaptive
// codebook interpolation on such a buffer.
//
//   [0 .. 128)                 past excitation, oldest first
//   [128 .. 128 + L)           current subframe
//   [128 + L .. 128 + L + 10)  look-ahead written by the adaptive codebook
//
// Delays come from a packet or are rebuilt after an erasure and may point
// outside the buffer; the bounded helpers read every such sample as 0 and
// never write outside it.
#ifndef EVRC_CODEC_COMMON_EXCITATION_H
#define EVRC_CODEC_COMMON_EXCITATION_H

#include <cstring>

#include "codec/common/constants.h"

namespace evrc {

constexpr int kExcHistoryLen = EVRC_HISTORY_LEN;             // 128
constexpr int kExcAhead = EVRC_MAX_SUBFRAME + kLookAhead;    // 64
constexpr int kExcBufferLen = kExcHistoryLen + kExcAhead;    // 192
constexpr int kContourLen = EVRC_MAX_SUBFRAME + kLookAhead;  // contour of one subframe

// Drops the L oldest history samples of buf (kExcBufferLen samples): the 128
// samples starting L later become the history, so the current subframe ends
// the history. The samples behind the history stay as they were. L is
// limited to 1 .. kExcAhead.
inline void shift_exc_history(Word16 *buf, int L) {
    if (L <= 0) {
        return;
    }
    if (L > kExcAhead) {
        L = kExcAhead;
    }
    std::memmove(buf, buf + L, kExcHistoryLen * sizeof(Word16));
}

// Fractional-delay interpolation over buf[pos .. pos + n_samples), reading the
// past at the contour's delays; samples outside buf[0 .. buf_len) read as 0.
// Each output sample is stored at once, so short delays repeat samples made
// earlier in the same call. Writes that would leave the buffer are dropped.
void block_interp_bounded(Word16 *buf, int buf_len, int pos, const Word32 *contour, const Word16 *filter, int N,
                          int n_samples);

// Lag T of the pitch sharpening: the rounded mean of the subframe's first two
// delay points (Q16).
inline Word16 sharpening_lag(const Word32 *points) {
    return static_cast<Word16>((static_cast<Word64>(points[0]) + points[1] + 65536) >> 17);
}

// Gain beta of the pitch sharpening (Q15): the adaptive gain (Q14) clamped to
// 0.2 .. 0.9, doubled. (Uncounted.)
inline Word16 sharpening_gain(Word16 acb_gain) {
    constexpr Word16 kMin = 3277, kMax = 14746;  // 0.2 and 0.9 in Q14
    return static_cast<Word16>(2 * (acb_gain < kMin ? kMin : (acb_gain > kMax ? kMax : acb_gain)));
}

// The pitch sharpening of evrc_combine_acb_fcb: T into *pitch_lag, and
// fcb[n + T] += beta fcb[n] in place for n < L - T.
void sharpen_pulses(Word16 *fcb, Word16 *pitch_lag, const Word32 *points, Word16 acb_gain, Word16 L);

}  // namespace evrc

#endif  // EVRC_CODEC_COMMON_EXCITATION_H
