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
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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

// acc[n] = sum_j tap[j] in[n + j] over the twelve taps, n < L (in holds
// L + 11 samples, the last under the zero tap only). On SSE2 two
// taps at a time by pmaddwd over in[n + j] and in[n + j + 1] interleaved:
// only two -32768 taps on -32768 samples could overflow a pair's sum, and
// the callers' sum |a_k| < 61440 allows at most one such tap.
void block_sums(const Word16 *in, const Word16 *tap, Word32 *acc, int L) {
#if defined(__SSE2__)
    constexpr int kTaps = kOrder + 2;
    int n = 0;
    for (; n + 8 <= L; n += 8) {
        __m128i lo = _mm_setzero_si128(), hi = _mm_setzero_si128();
        for (int j = 0; j < kTaps; j += 2) {
            __m128i a, b;
            std::memcpy(&a, in + n + j, sizeof(a));
            std::memcpy(&b, in + n + j + 1, sizeof(b));
            const __m128i c =
                _mm_set1_epi32(static_cast<Word32>(static_cast<UWord16>(tap[j])) |
                               static_cast<Word32>(static_cast<UWord32>(static_cast<UWord16>(tap[j + 1])) << 16));
            lo = _mm_add_epi32(lo, _mm_madd_epi16(_mm_unpacklo_epi16(a, b), c));
            hi = _mm_add_epi32(hi, _mm_madd_epi16(_mm_unpackhi_epi16(a, b), c));
        }
        std::memcpy(acc + n, &lo, sizeof(lo));
        std::memcpy(acc + n + 4, &hi, sizeof(hi));
    }
    for (; n < L; ++n) {
        Word32 s = 0;
        for (int j = 0; j < kTaps; ++j) s += static_cast<Word32>(tap[j]) * in[n + j];
        acc[n] = s;
    }
#else
    for (int j = 0; j < kOrder + 2; ++j) {
        const Word16 c = tap[j];
        const Word16 *x = in + j;
        for (int n = 0; n < L; ++n) acc[n] += static_cast<Word32>(c) * x[n];
    }
#endif
}

// The zeros section over the block: in[0 .. 10) the ten past inputs (oldest
// first), in[10 .. 10 + L) the block.
void weighting_zeros(const Word16 *in, const Word16 *num, Word16 *out, int L) {
    Word32 abs_sum = 0;
    for (int k = 0; k < kOrder; ++k) abs_sum += num[k] < 0 ? -num[k] : num[k];
    if (abs_sum >= kNarrowSum) {
        evrc_voc_prediction_filter(in, num, out, static_cast<Word16>(L), kUnitGainShift);
        return;
    }
    // tap[j] multiplies in[n + j]: a_10 .. a_1, then the lead tap (and a
    // zero tap that makes the count even).
    Word16 tap[kOrder + 2];
    for (int j = 0; j < kOrder; ++j) tap[j] = num[kOrder - 1 - j];
    tap[kOrder] = kLeadTap;
    tap[kOrder + 1] = 0;
    Word32 acc[kMaxBlock] = {};
    block_sums(in, tap, acc, L);
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

    // synthesised[0 .. 10): the zeros section's past inputs, oldest first;
    // one zero after the block for the paired taps of block_sums.
    Word16 synthesised[kOrder + kMaxBlock + 1];
    for (int k = 0; k < kOrder; ++k) synthesised[kOrder - 1 - k] = fx::extract_l(zero_mem[k]);
    evrc_voc_synthesis_filter(qlpc, in, synthesised + kOrder, syn_mem, L);
    synthesised[kOrder + L] = 0;
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
