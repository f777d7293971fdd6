// LSP codebooks: the codebooks hold absolute LSP values, so a row copy is the
// whole dequantisation of one split; the splits of a rate together cover the
// ten LSPs in order.
#include "codec/common/lsp_codebooks.h"
#include "codec/basic/fixed_point.h"

#include "evrc/evrc_tables.h"

namespace evrc {

namespace {

constexpr LspSplit kFullSplits[] = {
    {&evrc_acsLspVQFull1[0][0], 2, 0, 6},
    {&evrc_acsLspVQFull2[0][0], 2, 2, 6},
    {&evrc_acsLspVQFull3[0][0], 3, 4, 9},
    {&evrc_acsLspVQFull4[0][0], 3, 7, 7},
};
constexpr LspSplit kHalfSplits[] = {
    {&evrc_acsLspVQHalf1[0][0], 3, 0, 7},
    {&evrc_acsLspVQHalf2[0][0], 3, 3, 7},
    {&evrc_acsLspVQHalf3[0][0], 4, 6, 8},
};
constexpr LspSplit kEighthSplits[] = {
    {&evrc_acsLspVQEighth1[0][0], 5, 0, 4},
    {&evrc_acsLspVQEighth2[0][0], 5, 5, 4},
};

}  // namespace

LspSplits lsp_splits(Word16 rate) {
    switch (rate) {
    case EVRC_RATE_FULL: return {kFullSplits, 4};
    case EVRC_RATE_HALF: return {kHalfSplits, 3};
    case EVRC_RATE_EIGHTH: return {kEighthSplits, 2};
    default: return {nullptr, 0};
    }
}

void dequantise_lsps(Word16 rate, const Word16 *indices, Word16 *lsp) {
    const LspSplits s = lsp_splits(rate);
    for (int i = 0; i < s.count; ++i) {
        const LspSplit &split = s.splits[i];
        evrc_unquant_lsps(split.codebook, split.row_len, indices[i], lsp + split.first);
    }
}

}  // namespace evrc

extern "C" {

EVRC_API void evrc_unquant_lsps(const Word16 *codebook, Word16 row_len, Word16 row_index, Word16 *out) {
    fx::CallScope scope;
    const Word16 *row = codebook + static_cast<int>(row_index) * row_len;
    for (int i = 0; i < row_len; ++i) out[i] = row[i];
}

}  // extern "C"
