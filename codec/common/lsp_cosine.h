// The LSP cosine of the LSP-to-LPC conversion, for the encoder's root
// search, which evaluates it many times and charges its operators at once.
#ifndef EVRC_CODEC_COMMON_LSP_COSINE_H
#define EVRC_CODEC_COMMON_LSP_COSINE_H

#include "evrc/evrc_common.h"

namespace evrc {

// evrc_voc_poscos(lsp) with the weights of its operators added to ops
// instead of charged (same value, same effect on the overflow flag).
Word32 poscos(Word16 lsp, UWord32 &ops);

}  // namespace evrc

#endif  // EVRC_CODEC_COMMON_LSP_COSINE_H
