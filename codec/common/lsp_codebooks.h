// Split vector quantisation of the ten LSPs: per rate, the codebooks that
// cover consecutive LSPs, each indexed by a field of the packet.
#ifndef EVRC_CODEC_COMMON_LSP_CODEBOOKS_H
#define EVRC_CODEC_COMMON_LSP_CODEBOOKS_H

#include "evrc/evrc_common.h"

namespace evrc {

struct LspSplit {
    const Word16 *codebook;  // rows of row_len absolute LSPs, Q15
    Word16 row_len;
    Word16 first;       // first LSP the rows cover
    Word16 index_bits;  // width of the packet's index field
};

struct LspSplits {
    const LspSplit *splits;
    int count;
};

// The splits of rate 1, 1/2 or 1/8; {nullptr, 0} for any other rate.
LspSplits lsp_splits(Word16 rate);

// lsp[first .. first + row_len) of each split from its row index.
void dequantise_lsps(Word16 rate, const Word16 *indices, Word16 *lsp);

}  // namespace evrc

#endif  // EVRC_CODEC_COMMON_LSP_CODEBOOKS_H
