// Weighted synthesis filter H(z) = W(z) / Aq(z) with the perceptual weighting
// W(z) = A(z/0.9) / A(z/0.5): three sections in series, each with its own
// ten-word memory block,
//   1/Aq(z)      quantised synthesis, memory of past outputs in Q16;
//   A(z/0.9)     weighting zeros, memory of the section's past inputs;
//   1/A(z/0.5)   weighting poles, memory of past outputs in Q16.
// Memories keep the most recent value first. The synthesis and pole sections
// are the shared LPC synthesis filter, the zeros the shared prediction filter.
#include "codec/basic/fixed_point.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_enc.h"

namespace {

constexpr int kOrder = 10;
constexpr int kMaxBlock = 64;
constexpr Word16 kUnitGainShift = 4;  // the prediction filter's output at unit gain

}  // namespace

extern "C" {

EVRC_API void evrc_weighted_synthesis_filter(const Word16 *in, Word16 *out, const Word16 *qlpc, const Word16 *num,
                                             const Word16 *den, Word32 *mem, Word16 L) {
    fx::CallScope scope;
    if (L <= 0) return;
    if (L > kMaxBlock) L = kMaxBlock;
    Word32 *syn_mem = mem;
    Word32 *zero_mem = mem + kOrder;
    Word32 *pole_mem = mem + 2 * kOrder;

    // synthesised[0 .. 10): the zeros section's past inputs, oldest first.
    Word16 synthesised[kOrder + kMaxBlock];
    for (int k = 0; k < kOrder; ++k) synthesised[kOrder - 1 - k] = fx::extract_l(zero_mem[k]);
    evrc_voc_synthesis_filter(qlpc, in, synthesised + kOrder, syn_mem, L);
    evrc_voc_prediction_filter(synthesised, num, out, L, kUnitGainShift);
    for (int k = 0; k < kOrder; ++k) zero_mem[k] = synthesised[kOrder + L - 1 - k];
    evrc_voc_synthesis_filter(den, out, out, pole_mem, L);
}

}  // extern "C"
