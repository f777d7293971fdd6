// Helpers shared by the eighth-rate and erasure paths of the decoder.
#ifndef EVRC_CODEC_DEC_CONCEAL_INTERNAL_H
#define EVRC_CODEC_DEC_CONCEAL_INTERNAL_H

#include <cstring>

#include "evrc/evrc_dec.h"

namespace evrc_conceal {

// Moves the excitation history on by L samples: the 128 samples starting L
// later become the history, so that it ends with the subframe just built.
// The subframe itself stays in place behind the history.
inline void shift_history(EvrcDecoderState *st, int L) {
    std::memmove(st->exc_history, st->exc_history + L, sizeof(Word16) * EVRC_HISTORY_LEN);
}

}  // namespace evrc_conceal

#endif  // EVRC_CODEC_DEC_CONCEAL_INTERNAL_H
