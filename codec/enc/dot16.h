// A 16-bit dot product in 32 bits for the encoder's fixed-length
// convolutions: pmaddwd on SSE2, a plain loop elsewhere.
#ifndef EVRC_CODEC_ENC_DOT16_H
#define EVRC_CODEC_ENC_DOT16_H

#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "codec/basic/fixed_point.h"

namespace evrc_enc {

// The length that covers the first n terms: n rounded up to a multiple of 8.
inline int dot_terms(int n) { return (n + 7) & ~7; }

// sum a[k] b[k] over k < len, len a multiple of 8 that both arrays hold. The
// callers bound every partial sum, in any order, below 2^31.
inline Word32 dot16(const Word16 *a, const Word16 *b, int len) {
#if defined(__SSE2__)
    __m128i acc = _mm_setzero_si128();
    for (int k = 0; k < len; k += 8) {
        __m128i va, vb;
        std::memcpy(&va, a + k, sizeof(va));
        std::memcpy(&vb, b + k, sizeof(vb));
        acc = _mm_add_epi32(acc, _mm_madd_epi16(va, vb));
    }
    acc = _mm_add_epi32(acc, _mm_shuffle_epi32(acc, 0x4E));
    acc = _mm_add_epi32(acc, _mm_shuffle_epi32(acc, 0xB1));
    return _mm_cvtsi128_si32(acc);
#else
    Word32 acc = 0;
    for (int k = 0; k < len; ++k) acc += static_cast<Word32>(a[k]) * b[k];
    return acc;
#endif
}

}  // namespace evrc_enc

#endif  // EVRC_CODEC_ENC_DOT16_H
