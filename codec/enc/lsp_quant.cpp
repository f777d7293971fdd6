// LSP quantisation by weighted split vector quantisation: the ten LSPs are
// cut into 4 (full rate), 3 (half) or 2 (eighth) splits, each matched against
// its codebook with the error sum_k w_k (c_k - t_k)^2. An LSP close to a
// neighbour marks a formant peak and gets a large weight, w = 1/d + 2 pi with d
// the distance to the nearer neighbour. Splits are searched in order and each
// candidate must start above the previous split's last value plus a margin of
// 261, which keeps the quantised set ascending.
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "codec/basic/fixed_point.h"
#include "evrc/evrc_enc.h"
#include "evrc/evrc_tables.h"

namespace {

constexpr int kOrder = 10;
constexpr Word32 kTwoPiQ16 = 411775;
constexpr Word32 kZeroDistanceFirst = 3688575;  // 2 pi + 50 in Q16
constexpr Word16 kInvertIterations = 4;
constexpr Word32 kBestStart = 2147483647;
constexpr Word16 kSplitMargin = 261;
constexpr UWord16 kEqualWeightsQ15 = 32768;
constexpr int kMaxSplits = 4;

constexpr Word16 kRateHalf = 3;
constexpr Word16 kRateFull = 4;

inline Word16 sat16q(Word32 x) { return static_cast<Word16>(x > 32767 ? 32767 : (x < -32768 ? -32768 : x)); }
inline Word32 sat32q(Word64 x) {
    return static_cast<Word32>(x > fx::kMax32 ? fx::kMax32 : (x < fx::kMin32 ? fx::kMin32 : x));
}

struct Split {
    int first;           // first LSP of the split
    int param;           // word of evrc_acsLspSearchParams
    const Word16 *book;  // codebook rows, one after another
};

const Split kFullSplits[4] = {{0, 0, &evrc_acsLspVQFull1[0][0]},
                              {2, 1, &evrc_acsLspVQFull2[0][0]},
                              {4, 2, &evrc_acsLspVQFull3[0][0]},
                              {7, 3, &evrc_acsLspVQFull4[0][0]}};
const Split kHalfSplits[3] = {
    {0, 4, &evrc_acsLspVQHalf1[0][0]}, {3, 5, &evrc_acsLspVQHalf2[0][0]}, {6, 6, &evrc_acsLspVQHalf3[0][0]}};
const Split kEighthSplits[2] = {{0, 7, &evrc_acsLspVQEighth1[0][0]}, {5, 8, &evrc_acsLspVQEighth2[0][0]}};

inline int split_dim(int param) { return static_cast<int>(evrc_acsLspSearchParams[param] >> 16); }

// Scales n weights together by 2^(norm_l(max |w|) + 1) and keeps the high
// halves as unsigned 16-bit values: the largest lands at 32768..65535.
void normalise_weights(const Word32 *weights, Word16 *norm, int n) {
    Word64 m = 0;
    for (int i = 0; i < n; ++i) {
        const Word64 a = weights[i] < 0 ? -static_cast<Word64>(weights[i]) : weights[i];
        if (a > m) m = a;
    }
    const Word16 shift = static_cast<Word16>(fx::norm_l(sat32q(m)) + 1);
    for (int i = 0; i < n; ++i) {
        const UWord64 shifted = static_cast<UWord64>(static_cast<Word64>(weights[i])) << shift;
        norm[i] = static_cast<Word16>(static_cast<UWord16>(shifted >> 16));
    }
}

// Weighted error term of one value: diff * hi(sat32(2 diff w)), w unsigned.
// The two-value splits take the difference the other way round, which rounds
// the weighted term differently for negative values. Every term is >= 0
// (wd_hi has the sign of diff) and at most 2^30.
template <int N>
inline Word32 error_term(Word16 target, Word16 code, Word16 weight) {
    const Word16 diff =
        N == 2 ? sat16q(static_cast<Word32>(target) - code) : sat16q(static_cast<Word32>(code) - target);
    const Word32 wd = fx::L_mult_su(diff, static_cast<Word32>(static_cast<UWord16>(weight)));
    const Word16 wd_hi = static_cast<Word16>(sat32q(2 * static_cast<Word64>(wd)) >> 16);
    return static_cast<Word32>(diff) * wd_hi;
}

// best_row over the rows at offsets first, first + N, .. below `bound`, one
// after another, from the best error so far.
template <int N>
void best_row_scalar(const Word16 *weights, const Word16 *target, Word16 floor_value, const Word16 *codebook, int first,
                     int bound, Word32 &best_error, int &best) {
    for (int j = first; j < bound; j += N) {
        if (codebook[j] <= floor_value) continue;
        // The terms are >= 0, so a row whose partial error already reaches
        // the best cannot win and is left.
        Word64 sum = 0;
        bool beaten = false;
        for (int k = 0; k < N; ++k) {
            sum += error_term<N>(target[k], codebook[j + k], weights[k]);
            if (k + 1 < N && 2 * sum >= best_error) {
                beaten = true;
                break;
            }
        }
        if (beaten) continue;
        const Word32 error = sat32q(2 * sum);
        if (error < best_error) {
            best_error = error;
            best = j;
        }
    }
}

#if defined(__SSE2__)
constexpr int kBlockRows = 8;  // rows per block of the vector search: N vectors of eight values

// error_term over eight values: the saturating 16-bit subtraction is sat16q of
// the difference; diff * w, signed times unsigned, is the unsigned high half
// less w where diff < 0, joined to the low half in 32 bits (exact: below 2^31
// in magnitude); hi(sat32(2 wd)) is floor(wd / 2^15) clamped to 16 bits, the
// signed pack of wd >> 15; the term, below 2^30 + 1, is a 32-bit product.
template <int N>
inline void error_terms(__m128i target, __m128i code, __m128i weight, Word32 *out) {
    const __m128i diff = N == 2 ? _mm_subs_epi16(target, code) : _mm_subs_epi16(code, target);
    const __m128i lo = _mm_mullo_epi16(diff, weight);
    const __m128i hi = _mm_sub_epi16(_mm_mulhi_epu16(diff, weight), _mm_and_si128(_mm_srai_epi16(diff, 15), weight));
    const __m128i wd_hi =
        _mm_packs_epi32(_mm_srai_epi32(_mm_unpacklo_epi16(lo, hi), 15), _mm_srai_epi32(_mm_unpackhi_epi16(lo, hi), 15));
    const __m128i tlo = _mm_mullo_epi16(diff, wd_hi), thi = _mm_mulhi_epi16(diff, wd_hi);
    const __m128i a = _mm_unpacklo_epi16(tlo, thi), b = _mm_unpackhi_epi16(tlo, thi);
    std::memcpy(out, &a, sizeof(a));
    std::memcpy(out + 4, &b, sizeof(b));
}
#endif

// Offset of the codebook row (of N values, rows starting below `bound`) with
// the least weighted error among those starting above the floor; the first
// of equal errors. On SSE2 the terms of eight rows at a time come from vector
// steps (the target and weights repeat with period N over N vectors) and
// every row's error is summed whole: leaving a row early never changes the
// choice (the error only grows with its terms), so the two forms agree. N is
// a template argument so that the row loops unroll.
template <int N>
int best_row(const Word16 *weights, const Word16 *target, Word16 floor_value, const Word16 *codebook, int bound) {
    Word32 best_error = kBestStart;
    int best = 0;
    int j = 0;
#if defined(__SSE2__)
    constexpr int kBlock = N * kBlockRows;
    Word16 tpat[kBlock], wpat[kBlock];
    for (int i = 0; i < kBlock; ++i) {
        tpat[i] = target[i % N];
        wpat[i] = weights[i % N];
    }
    __m128i tv[N], wv[N];
    for (int v = 0; v < N; ++v) {
        std::memcpy(&tv[v], tpat + 8 * v, sizeof(tv[v]));
        std::memcpy(&wv[v], wpat + 8 * v, sizeof(wv[v]));
    }
    // The rows' errors sat32(2 sum) compare as their sums while those stay
    // below 2^30, and every sum from 2^30 on gives kBestStart, which no row
    // improves on: a row is taken when its sum is below the best's, which
    // starts at 2^30.
    constexpr UWord64 kSumLimit = UWord64{1} << 30;
    UWord64 best_sum = kSumLimit;
    // Whole blocks: row j + N * 7 starts below the bound.
    for (; j + N * (kBlockRows - 1) < bound; j += kBlock) {
        Word32 terms[kBlock];
        for (int v = 0; v < N; ++v) {
            __m128i code;
            std::memcpy(&code, codebook + j + 8 * v, sizeof(code));
            error_terms<N>(tv[v], code, wv[v], terms + 8 * v);
        }
        for (int r = 0; r < kBlockRows; ++r) {
            UWord64 sum = 0;
            for (int k = 0; k < N; ++k) sum += static_cast<UWord32>(terms[N * r + k]);
            const bool take = codebook[j + N * r] > floor_value && sum < best_sum;
            best_sum = take ? sum : best_sum;
            best = take ? j + N * r : best;
        }
    }
    best_error = best_sum < kSumLimit ? static_cast<Word32>(2 * best_sum) : kBestStart;
#endif
    best_row_scalar<N>(weights, target, floor_value, codebook, j, bound, best_error, best);
    return best;
}

}  // namespace

extern "C" {

EVRC_API void evrc_compute_lsp_weights(const Word16 lsp[10], Word32 weights[10]) {
    fx::CallScope scope;
    bool any_computed = false;
    for (int i = 0; i < kOrder; ++i) {
        Word16 d;
        if (i == 0) {
            d = sat16q(static_cast<Word32>(lsp[1]) - lsp[0]);
        } else if (i == kOrder - 1) {
            d = sat16q(static_cast<Word32>(lsp[i]) - lsp[i - 1]);
        } else {
            const Word16 below = sat16q(static_cast<Word32>(lsp[i]) - lsp[i - 1]);
            const Word16 above = sat16q(static_cast<Word32>(lsp[i + 1]) - lsp[i]);
            d = below < above ? below : above;
        }
        if (d == 0) {
            // Coincident LSPs: a fixed weight, large only before any distance
            // of the frame has been weighted.
            weights[i] = any_computed ? kTwoPiQ16 : kZeroDistanceFirst;
            continue;
        }
        Word16 exponent = 0;
        const Word32 recip_q30 = fx::invert_dp(d, kInvertIterations, &exponent);
        const Word64 inv = static_cast<Word64>(recip_q30) >> (31 - exponent);  // 1/d in Q16 units of the LSP scale
        weights[i] = sat32q(inv + kTwoPiQ16);
        any_computed = true;
    }
}

EVRC_API void evrc_norm_lsp_weights(const Word32 *weights, Word16 *norm, Word16 n) {
    fx::CallScope scope;
    normalise_weights(weights, norm, n);
}

EVRC_API void evrc_search_lsps(const Word16 *weights, const Word16 *target, Word16 *lsp_floor, const Word16 *codebook,
                               UWord32 params, Word16 *out, Word16 *index) {
    fx::CallScope scope;
    int n = static_cast<int>(params >> 16);
    if (n < 2) n = 2;
    if (n > 5) n = 5;
    const int bound = static_cast<int>(params & 0xFFFF);
    const Word16 floor_value = *lsp_floor;

    int best = 0;
    switch (n) {
    case 2: best = best_row<2>(weights, target, floor_value, codebook, bound); break;
    case 3: best = best_row<3>(weights, target, floor_value, codebook, bound); break;
    case 4: best = best_row<4>(weights, target, floor_value, codebook, bound); break;
    default: best = best_row<5>(weights, target, floor_value, codebook, bound); break;
    }
    for (int k = 0; k < n; ++k) out[k] = codebook[best + k];
    *index = static_cast<Word16>(best / n);
    *lsp_floor = static_cast<Word16>(codebook[best + n - 1] + kSplitMargin);
}

EVRC_API void evrc_quantize_lsps(Word32 weights[10], Word16 qlsp[10], Word16 *indices, const Word16 target[10],
                                 Word16 rate) {
    fx::CallScope scope;
    const Split *splits = kEighthSplits;
    int count = 2;
    if (rate == kRateFull) {
        splits = kFullSplits;
        count = 4;
    } else if (rate == kRateHalf) {
        splits = kHalfSplits;
        count = 3;
    }

    evrc_compute_lsp_weights(target, weights);

    // Per split: normalise its weights together (largest at 32768 or above).
    Word16 norm[kOrder];
    for (int s = 0; s < count && s < kMaxSplits; ++s) {
        const int first = splits[s].first;
        const int dim = split_dim(splits[s].param);
        normalise_weights(&weights[first], &norm[first], dim);
        if (rate == kRateFull && dim == 2 && norm[first] == norm[first + 1]) {
            norm[first] = static_cast<Word16>(kEqualWeightsQ15);
            norm[first + 1] = static_cast<Word16>(kEqualWeightsQ15);
        }
    }

    Word16 lsp_floor = 0;
    for (int s = 0; s < count; ++s) {
        const int first = splits[s].first;
        evrc_search_lsps(&norm[first], &target[first], &lsp_floor, splits[s].book,
                         evrc_acsLspSearchParams[splits[s].param], &qlsp[first], &indices[s]);
    }
}

}  // extern "C"
