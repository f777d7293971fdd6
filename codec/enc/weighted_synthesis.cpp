// Weighted synthesis filter H(z) = W(z) / Aq(z) with the perceptual weighting
// W(z) = A(z/0.9) / A(z/0.5): three sections in series, each with its own
// ten-word memory block,
//   1/Aq(z)      quantised synthesis, memory of past outputs in Q16;
//   A(z/0.9)     weighting zeros, memory of the section's past inputs;
//   1/A(z/0.5)   weighting poles, memory of past outputs in Q16.
// Memories keep the most recent value first. The synthesis and pole sections
// are the shared LPC synthesis filter. The zeros section is the shared
// prediction filter at unit gain,
//   out[n] = hi(sat32(2^15 - 2^4 s[n])),  s[n] = -4096 x[n] + sum a_k x[n-k],
// computed here block-wise: with sum |a_k| < 61440 every partial sum of s
// stays below 2^31 - 32768 in magnitude (4096 * 32768 + 61440 * 32768 =
// 2^31, reached at 61440 when every a_k is negative and every sample
// -32768), so 32-bit sums taken tap by tap over the whole block are exact
// (and vectorise); larger coefficient sets take the shared filter.
#include "codec/basic/fixed_point.h"
#include "codec/enc/encoder_internal.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_enc.h"

namespace {

constexpr int kOrder = 10;
constexpr int kMaxBlock = 64;
constexpr Word16 kUnitGainShift = 4;  // the prediction filter's output at unit gain
constexpr Word16 kLeadTap = -4096;    // the current input's tap (1.0 in Q12, negated)
constexpr Word32 kNarrowSum = 61440;  // sum |a_k| below which 32-bit sums are exact

// The zeros section over the block: in[0 .. 10) the ten past inputs (oldest
// first), in[10 .. 10 + L) the block.
void weighting_zeros(const Word16 *in, const Word16 *num, Word16 *out, int L) {
    Word32 abs_sum = 0;
    for (int k = 0; k < kOrder; ++k) abs_sum += num[k] < 0 ? -num[k] : num[k];
    if (abs_sum >= kNarrowSum) {
        evrc_voc_prediction_filter(in, num, out, static_cast<Word16>(L), kUnitGainShift);
        return;
    }
    // tap[j] multiplies in[n + j]: a_10 .. a_1, then the lead tap.
    Word16 tap[kOrder + 1];
    for (int j = 0; j < kOrder; ++j) tap[j] = num[kOrder - 1 - j];
    tap[kOrder] = kLeadTap;
    Word32 acc[kMaxBlock] = {};
    for (int j = 0; j <= kOrder; ++j) {
        const Word16 c = tap[j];
        const Word16 *x = in + j;
        for (int n = 0; n < L; ++n) acc[n] += static_cast<Word32>(c) * x[n];
    }
    // hi(sat32(2^15 - 2^4 s)) = floor(1/2 - s / 2^12) clamped to 16 bits,
    // which is -((s + 2^11 - 1) >> 12) clamped (as in the shared filter);
    // |s| < 2^31 - 32768 keeps the sum in 32 bits.
    constexpr Word32 kBias = (1 << (16 - kUnitGainShift - 1)) - 1;
    for (int n = 0; n < L; ++n) {
        Word32 r = -((acc[n] + kBias) >> (16 - kUnitGainShift));
        r = r > fx::kMax16 ? fx::kMax16 : r;
        r = r < fx::kMin16 ? fx::kMin16 : r;
        out[n] = static_cast<Word16>(r);
    }
}

// The filter with the zeros section given as a function.
template <typename Zeros>
void weighted_synthesis(const Word16 *in, Word16 *out, const Word16 *qlpc, const Word16 *num, const Word16 *den,
                        Word32 *mem, Word16 L, Zeros zeros) {
    if (L <= 0) return;
    if (L > kMaxBlock) L = kMaxBlock;
    Word32 *syn_mem = mem;
    Word32 *zero_mem = mem + kOrder;
    Word32 *pole_mem = mem + 2 * kOrder;

    // synthesised[0 .. 10): the zeros section's past inputs, oldest first.
    Word16 synthesised[kOrder + kMaxBlock];
    for (int k = 0; k < kOrder; ++k) synthesised[kOrder - 1 - k] = fx::extract_l(zero_mem[k]);
    evrc_voc_synthesis_filter(qlpc, in, synthesised + kOrder, syn_mem, L);
    zeros(synthesised, num, out, L);
    for (int k = 0; k < kOrder; ++k) zero_mem[k] = synthesised[kOrder + L - 1 - k];
    evrc_voc_synthesis_filter(den, out, out, pole_mem, L);
}

}  // namespace

namespace evrc_enc {

void weighted_synthesis_filter_reference(const Word16 *in, Word16 *out, const Word16 *qlpc, const Word16 *num,
                                         const Word16 *den, Word32 *mem, Word16 L) {
    weighted_synthesis(in, out, qlpc, num, den, mem, L, [](const Word16 *x, const Word16 *a, Word16 *y, Word16 n) {
        evrc_voc_prediction_filter(x, a, y, n, kUnitGainShift);
    });
}

}  // namespace evrc_enc

extern "C" {

EVRC_API void evrc_weighted_synthesis_filter(const Word16 *in, Word16 *out, const Word16 *qlpc, const Word16 *num,
                                             const Word16 *den, Word32 *mem, Word16 L) {
    fx::CallScope scope;
    weighted_synthesis(in, out, qlpc, num, den, mem, L, weighting_zeros);
}

}  // extern "C"
