// Tenth-order LPC filters shared by the encoder and the decoder, with Q12
// coefficients a1..a10 of A(z) = 1 - sum a_k z^-k:
//   - the all-pole synthesis filter 1/A(z), whose memory keeps each past
//     output as a 32-bit value (output << 16 plus a 16-bit fraction), so that
//     the feedback runs in double precision;
//   - the all-zero prediction filter A(z), exact in 64 bits.
#include <cstdint>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "codec/basic/fixed_point.h"
#include "codec/common/constants.h"
#include "codec/common/reference_forms.h"
#include "evrc/evrc_common.h"

namespace {

using evrc::kOrder;
constexpr int kMaxBlock = 64;  // samples per block of the synthesis filter

// acc + t clamped to 32 bits; a clamp sets `clamped`. Written so that the
// compiler can use conditional moves: the clamps of the synthesis filter are
// frequent on loud signals and would mispredict as branches.
inline Word64 clamp_add32(Word64 acc, Word64 t, bool &clamped) {
    const Word64 v = acc + t;
    Word64 c = v > fx::kMax32 ? fx::kMax32 : v;
    c = c < fx::kMin32 ? fx::kMin32 : c;
    clamped |= c != v;
    return c;
}

// Feedback of one synthesis step, sum a_k * y[n-k] in Q15 units of the
// memory, with past[j] = y[n-10+j] (past[9] newest): the high halves through
// saturating multiply-accumulates (oldest first, each clamped to 32 bits), the
// unsigned low halves exactly in 64 bits. Each low-half product fits 32 bits
// (|a| * 65535 < 2^31), so plain multiplication gives the same terms as the
// wrapping unsigned one.
inline Word64 synthesis_feedback(const Word16 *a, const Word32 *past, bool &clamped) {
    Word64 lo = 0;
    for (int k = 0; k < kOrder; ++k) {
        lo += static_cast<Word64>(static_cast<Word32>(a[k]) * static_cast<Word32>(past[kOrder - 1 - k] & 0xFFFF));
    }
    Word64 hi = 0;
    for (int k = kOrder - 1; k >= 0; --k) {
        hi =
            clamp_add32(hi, 2 * static_cast<Word64>(static_cast<Word32>(a[k]) * (past[kOrder - 1 - k] >> 16)), clamped);
    }
    return hi + (lo >> 15);
}

// Bound on the magnitude of a memory word's high half: for any 32-bit m,
// |m >> 16| <= (magnitude_bits(m) >> 16) + 1, where magnitude_bits(m) is m for
// m >= 0 and ~m = -m - 1 for m < 0 (then -(m >> 16) = ceil((~m + 1) / 2^16)
// <= (~m >> 16) + 1). OR-ing the words' magnitude bits bounds their maximum.
inline Word32 magnitude_bits(Word32 m) { return m ^ (m >> 31); }

// Every partial high-half sum of the feedback is a sum of some of the terms
// 2 a_k h_k, so with H >= |h_k| for all ten memory words it is at most
// 2 * sum |a_k| * H in magnitude. sum |a_k| * H <= 2^30 - 1 keeps that at
// 2^31 - 2, inside the 32-bit range: no clamp can fire.
constexpr Word64 kMaxAbsSumTimesHigh = (Word64{1} << 30) - 1;
inline bool high_halves_fit(Word32 abs_sum, Word32 magnitude_or) {
    return static_cast<Word64>(abs_sum) * ((magnitude_or >> 16) + 1) <= kMaxAbsSumTimesHigh;
}

// Rounding a memory word to 16 bits saturates at the top only, from
// kRoundLimit on.
constexpr Word32 kRoundLimit = 0x7FFF8000;
inline Word16 round_to_16(Word32 w) { return w >= kRoundLimit ? fx::kMax16 : static_cast<Word16>((w + 0x8000) >> 16); }

// synthesis_feedback when no clamp fires: 2 * sum a_k h_k + (sum a_k l_k >> 15)
// with h_k, l_k the high and low halves of the memory word m_k equals
// (sum a_k m_k) >> 15, because 2^16 h_k + l_k = m_k and the even part
// 2 * sum a_k h_k passes through the floor shift unchanged. The newest word
// comes in separately (held in a register by the caller): it is the only
// term on the sample-to-sample dependency chain.
inline Word64 synthesis_feedback_exact(const Word16 *a, const Word32 *past, Word64 newest) {
    Word64 older = 0;
    for (int k = 1; k < kOrder; ++k) older += static_cast<Word64>(a[k]) * past[kOrder - 1 - k];
    return (older + static_cast<Word64>(a[0]) * newest) >> 15;
}

// The plain run's words narrowed to 32 bits into y, their magnitude bits
// OR-ed into magnitude_or; false when a word lies outside 32 bits.
// round_words: out = round_to_16 of each word; true when a word reaches
// kRoundLimit (the rounding saturates). On SSE2 four words a step: the
// rounding as (w >> 16) + bit 15 of w, which is (w + 0x8000) >> 16 without
// the 32-bit overflow, packed with signed saturation (0x8000 -> 32767).
bool narrow_words_scalar(const Word64 *y64, Word32 *y, int len, Word32 &magnitude_or) {
    Word64 out_of_range = 0;
    for (int n = 0; n < len; ++n) {
        const Word64 v = y64[n];
        out_of_range |= static_cast<Word64>(static_cast<UWord64>(v) + 0x80000000u) >> 32;
        const Word32 w = static_cast<Word32>(v);
        y[n] = w;
        magnitude_or |= magnitude_bits(w);
    }
    return out_of_range == 0;
}
bool round_words_scalar(const Word32 *y, Word16 *out, int len) {
    Word32 top = 0;
    for (int n = 0; n < len; ++n) {
        top |= y[n] >= kRoundLimit;
        out[n] = round_to_16(y[n]);
    }
    return top != 0;
}
#if defined(__SSE2__)
bool narrow_words(const Word64 *y64, Word32 *y, int len, Word32 &magnitude_or) {
    const __m128i half = _mm_set1_epi64x(0x80000000ll);
    __m128i out_of_range = _mm_setzero_si128(), bits = _mm_setzero_si128();
    int n = 0;
    for (; n + 4 <= len; n += 4) {
        __m128i a, b;
        std::memcpy(&a, y64 + n, sizeof(a));
        std::memcpy(&b, y64 + n + 2, sizeof(b));
        out_of_range = _mm_or_si128(out_of_range, _mm_srli_epi64(_mm_add_epi64(a, half), 32));
        out_of_range = _mm_or_si128(out_of_range, _mm_srli_epi64(_mm_add_epi64(b, half), 32));
        const __m128i w =
            _mm_castps_si128(_mm_shuffle_ps(_mm_castsi128_ps(a), _mm_castsi128_ps(b), _MM_SHUFFLE(2, 0, 2, 0)));
        std::memcpy(y + n, &w, sizeof(w));
        bits = _mm_or_si128(bits, _mm_xor_si128(w, _mm_srai_epi32(w, 31)));
    }
    Word32 lanes[4];
    std::memcpy(lanes, &bits, sizeof(lanes));
    magnitude_or |= lanes[0] | lanes[1] | lanes[2] | lanes[3];
    Word64 range[2];
    std::memcpy(range, &out_of_range, sizeof(range));
    const bool head = (range[0] | range[1]) == 0;
    return narrow_words_scalar(y64 + n, y + n, len - n, magnitude_or) && head;
}
bool round_words(const Word32 *y, Word16 *out, int len) {
    const __m128i limit = _mm_set1_epi32(kRoundLimit - 1), one = _mm_set1_epi32(1);
    __m128i top = _mm_setzero_si128();
    int n = 0;
    for (; n + 8 <= len; n += 8) {
        __m128i a, b;
        std::memcpy(&a, y + n, sizeof(a));
        std::memcpy(&b, y + n + 4, sizeof(b));
        top = _mm_or_si128(top, _mm_or_si128(_mm_cmpgt_epi32(a, limit), _mm_cmpgt_epi32(b, limit)));
        const __m128i ra = _mm_add_epi32(_mm_srai_epi32(a, 16), _mm_and_si128(_mm_srai_epi32(a, 15), one));
        const __m128i rb = _mm_add_epi32(_mm_srai_epi32(b, 16), _mm_and_si128(_mm_srai_epi32(b, 15), one));
        const __m128i r = _mm_packs_epi32(ra, rb);
        std::memcpy(out + n, &r, sizeof(r));
    }
    Word32 lanes[4];
    std::memcpy(lanes, &top, sizeof(lanes));
    const bool head = (lanes[0] | lanes[1] | lanes[2] | lanes[3]) != 0;
    return round_words_scalar(y + n, out + n, len - n) || head;
}
#else
bool narrow_words(const Word64 *y64, Word32 *y, int len, Word32 &magnitude_or) {
    return narrow_words_scalar(y64, y, len, magnitude_or);
}
bool round_words(const Word32 *y, Word16 *out, int len) { return round_words_scalar(y, out, len); }
#endif

// s[n] = -4096 x[n] + sum_k a_k x[n - k] in 32 bits for n < len (x[-10 ..
// len) readable), exact for sum |a_k| < 61440. On SSE2 eight samples at a
// time, two taps per pmaddwd over x[n - k - 1] and x[n - k] interleaved:
// only two -32768 taps on -32768 samples could overflow a pair's sum, and
// sum |a_k| < 61440 allows at most one such tap.
void narrow_sums(const Word16 *x, const Word16 *lpc, Word32 *s32, int len) {
    int n = 0;
#if defined(__SSE2__)
    // Pair j (j = 0, 2, .., 8) takes taps a_(10-j), a_(9-j) on x[n - 10 + j],
    // x[n - 9 + j].
    __m128i pair[kOrder / 2];
    for (int j = 0; j < kOrder; j += 2) {
        pair[j / 2] =
            _mm_set1_epi32(static_cast<Word32>(static_cast<UWord16>(lpc[kOrder - 1 - j])) |
                           static_cast<Word32>(static_cast<UWord32>(static_cast<UWord16>(lpc[kOrder - 2 - j])) << 16));
    }
    for (; n + 8 <= len; n += 8) {
        __m128i v;
        std::memcpy(&v, x + n, sizeof(v));
        // -4096 x[n], the samples sign-extended to 32 bits.
        const __m128i sign = _mm_srai_epi16(v, 15);
        __m128i lo = _mm_sub_epi32(_mm_setzero_si128(), _mm_slli_epi32(_mm_unpacklo_epi16(v, sign), 12));
        __m128i hi = _mm_sub_epi32(_mm_setzero_si128(), _mm_slli_epi32(_mm_unpackhi_epi16(v, sign), 12));
        for (int j = 0; j < kOrder; j += 2) {
            __m128i a, b;
            std::memcpy(&a, x + n - kOrder + j, sizeof(a));
            std::memcpy(&b, x + n - kOrder + j + 1, sizeof(b));
            lo = _mm_add_epi32(lo, _mm_madd_epi16(_mm_unpacklo_epi16(a, b), pair[j / 2]));
            hi = _mm_add_epi32(hi, _mm_madd_epi16(_mm_unpackhi_epi16(a, b), pair[j / 2]));
        }
        std::memcpy(s32 + n, &lo, sizeof(lo));
        std::memcpy(s32 + n + 4, &hi, sizeof(hi));
    }
#endif
    for (; n < len; ++n) {
        Word32 sum = -4096 * static_cast<Word32>(x[n]);
        for (int k = 1; k <= kOrder; ++k) sum += static_cast<Word32>(lpc[k - 1]) * x[n - k];
        s32[n] = sum;
    }
}

// The next word of the plain run from its feedback sum (wrapping).
inline Word64 next_word(UWord64 sum, Word16 x) {
    const UWord64 feedback = static_cast<UWord64>(static_cast<Word64>(sum) >> 15);
    return static_cast<Word64>(feedback * 8u + static_cast<UWord64>(static_cast<Word64>(x) * 65536));
}

// The plain 64-bit run over len samples: y64[0 .. kOrder) the starting words
// (oldest first), y64[kOrder + n] the word of sample n. Wrapping (unsigned)
// arithmetic: an unstable filter can run the words far out of range before
// the caller's check rejects the block. Until the first word leaves 32 bits
// every sum is below 2^50, so the words the check sees up to there are exact.
#if defined(__x86_64__)
// Ten 64-bit multiplies a sample bound the scalar form on x86-64. Here the
// five oldest taps are summed in double precision instead (on the other
// multiply ports): words below 2^31 in magnitude times coefficients below
// 2^15 are below 2^46, and five of them below 2^49, all exact in a double,
// so the sum converts back exactly. The doubles hold the words' low 32 bits,
// which are the words until the first that leaves 32 bits (the run is exact
// up to that word, all the check reads) and keep every sum far from the
// conversion's limit after it. The five newest taps, the sample-to-sample
// chain, stay 64-bit integer multiplies.
void plain_run(const Word64 *a64, const Word16 *in, Word64 *y64, int len) {
    double yd[kOrder + kMaxBlock];
    for (int k = 0; k < kOrder; ++k) yd[k] = static_cast<Word32>(y64[k]);
    const double a5 = static_cast<double>(a64[5]), a6 = static_cast<double>(a64[6]);
    const double a7 = static_cast<double>(a64[7]), a8 = static_cast<double>(a64[8]);
    const double a9 = static_cast<double>(a64[9]);
    const UWord64 a0 = static_cast<UWord64>(a64[0]), a1 = static_cast<UWord64>(a64[1]);
    const UWord64 a2 = static_cast<UWord64>(a64[2]), a3 = static_cast<UWord64>(a64[3]);
    const UWord64 a4 = static_cast<UWord64>(a64[4]);
    UWord64 y5 = static_cast<UWord64>(y64[5]), y6 = static_cast<UWord64>(y64[6]);
    UWord64 y7 = static_cast<UWord64>(y64[7]), y8 = static_cast<UWord64>(y64[8]);
    UWord64 y9 = static_cast<UWord64>(y64[9]);  // the newest word
    for (int n = 0; n < len; ++n) {
        const double *w = yd + n;  // w[0 .. 4]: the words under taps 9 .. 5
        const double older = (a9 * w[0] + a8 * w[1]) + (a7 * w[2] + a6 * w[3]) + a5 * w[4];
        const UWord64 part = static_cast<UWord64>(static_cast<Word64>(older)) + a4 * y5 + a3 * y6 + a2 * y7 + a1 * y8;
        const UWord64 word = static_cast<UWord64>(next_word(part + a0 * y9, in[n]));
        y64[kOrder + n] = static_cast<Word64>(word);
        yd[kOrder + n] = static_cast<Word32>(word);
        y5 = y6;
        y6 = y7;
        y7 = y8;
        y8 = y9;
        y9 = word;
    }
}
#else
void plain_run(const Word64 *a64, const Word16 *in, Word64 *y64, int len) {
    Word64 newest = y64[kOrder - 1];
    for (int n = 0; n < len; ++n) {
        UWord64 older = 0;
        for (int k = 1; k < kOrder; ++k) {
            older += static_cast<UWord64>(a64[k]) * static_cast<UWord64>(y64[n + kOrder - 1 - k]);
        }
        newest = next_word(older + static_cast<UWord64>(a64[0]) * static_cast<UWord64>(newest), in[n]);
        y64[kOrder + n] = newest;
    }
}
#endif

}  // namespace

namespace evrc {

// Per sample: the unsigned low halves of the memory through 64-bit
// multiply-accumulates, the high halves through saturating ones, newest
// memory word last, then the output rounded from the new memory word.
void synthesis_filter_reference(const Word16 *lpc, const Word16 *in, Word16 *out, Word32 *mem, int L) {
    for (int n = 0; n < L; ++n) {
        Word64 lo = 0;
        for (int k = 0; k < kOrder; ++k) {
            lo = fx::L_mac64_su(lo, lpc[k], static_cast<Word32>(static_cast<UWord32>(mem[k]) & 0xFFFFu));
        }
        lo >>= 15;
        Word32 hi = 0;
        for (int k = kOrder - 1; k >= 0; --k) {
            hi = fx::L_mac(hi, lpc[k], static_cast<Word16>(mem[k] >> 16));
            if (k + 1 < kOrder) mem[k + 1] = mem[k];
        }
        const Word64 acc = (hi + lo) * 8 + static_cast<Word64>(in[n]) * 65536;
        mem[0] = static_cast<Word32>(fx::L_sat32_64(acc));
        out[n] = fx::round32(mem[0]);
    }
}

void prediction_filter_reference(const Word16 *in, const Word16 *lpc, Word16 *out, int L, Word16 shift) {
    for (int n = 0; n < L; ++n) {
        const Word16 *x = in + kOrder + n;
        Word64 s = -4096 * static_cast<Word64>(x[0]);
        for (int k = 1; k <= kOrder; ++k) s += static_cast<Word64>(lpc[k - 1]) * x[-k];
        out[n] = static_cast<Word16>(fx::L_sat32_64(fx::L_sub64(32768, fx::L_shl64(s, shift))) >> 16);
    }
}

}  // namespace evrc

extern "C" {

// y[n] = x[n] + sum a_k y[n-k] over L samples; out may equal in. mem holds
// the last ten outputs in Q16 (mem[0] newest) and is updated.
EVRC_API void evrc_voc_synthesis_filter(const Word16 *lpc, const Word16 *in, Word16 *out, Word32 *mem, Word16 L) {
    fx::CallScope scope;
    if (L <= 0) {
        return;
    }
    // Ten saturating multiply-accumulates and one rounding per sample.
    fx::charge(11u * static_cast<UWord32>(L));
    // Coefficients and outputs in locals: the arithmetic globals could alias
    // the caller's memory, which would keep the compiler from holding either
    // in registers. y[10 + n] is output n in Q16, y[0..10) the memory, oldest
    // first; blocks of kBlock samples keep y on the stack small.
    //
    // Each block first runs the plain 64-bit form, tracking a bound on every
    // memory word it reads (the block's starting memory and its own outputs).
    // If afterwards sum |a_k| times that bound passes high_halves_fit, no
    // feedback of the block could have clamped, so the plain outputs are the
    // operator chain's; otherwise the block is run again from its starting
    // memory with the clamped chain. Outputs go to y only until the block is
    // settled, so in == out is safe, and the flag is raised only for clamps
    // of the settled run (in the plain run none can fire).
    constexpr int kBlock = kMaxBlock;
    Word16 a[kOrder];
    Word64 a64[kOrder];
    Word32 y[kOrder + kBlock];
    Word32 abs_sum = 0;
    for (int k = 0; k < kOrder; ++k) {
        a[k] = lpc[k];
        a64[k] = lpc[k];
        abs_sum += a[k] < 0 ? -a[k] : a[k];
        y[k] = mem[kOrder - 1 - k];
    }
    bool clamped = false;
    for (int done = 0; done < L;) {
        const int len = L - done < kBlock ? L - done : kBlock;
        Word32 magnitude_or = 0;
        for (int k = 0; k < kOrder; ++k) magnitude_or |= magnitude_bits(y[k]);
        bool settled = false;
        if (high_halves_fit(abs_sum, magnitude_or)) {
            // The plain run keeps its words in 64 bits, off any narrowing or
            // saturation on the sample-to-sample chain; the range and the
            // bound follow in one pass, the rounded outputs in another once
            // the block is settled. A block where the saturation or a clamp
            // could have fired is run again below.
            Word64 y64[kOrder + kBlock];
            for (int k = 0; k < kOrder; ++k) y64[k] = y[k];
            plain_run(a64, in + done, y64, len);
            const bool in_range = narrow_words(y64 + kOrder, y + kOrder, len, magnitude_or);
            settled = in_range && high_halves_fit(abs_sum, magnitude_or);
            if (settled) {
                // The block's inputs are all read: out may be written now.
                clamped |= round_words(y + kOrder, out + done, len);
            }
        }
        if (!settled) {
            // Any memory word is bounded by magnitude bits 0x7FFFFFFF.
            const bool exact = high_halves_fit(abs_sum, fx::kMax32);
            for (int n = 0; n < len; ++n) {
                const Word64 feedback = exact ? synthesis_feedback_exact(a, y + n, y[kOrder - 1 + n])
                                              : synthesis_feedback(a, y + n, clamped);
                const Word64 acc = feedback * 8 + static_cast<Word64>(in[done + n]) * 65536;
                // The new word saturates silently.
                y[kOrder + n] = static_cast<Word32>(fx::L_sat32_64(acc));
            }
            for (int n = 0; n < len; ++n) {
                const Word32 w = y[kOrder + n];
                clamped |= w >= kRoundLimit;
                out[done + n] = round_to_16(w);
            }
        }
        for (int k = 0; k < kOrder; ++k) y[k] = y[len + k];
        done += len;
    }
    for (int k = 0; k < kOrder; ++k) mem[k] = y[kOrder - 1 - k];
    if (clamped) fx::raise_overflow();
}

// in[0..10) are the ten samples before the block, in[10 .. 10 + L) the block
// itself. out[n] = round((x[n] - sum a_k x[n-k] / 4096) * 2^(shift - 4)) with
// x[n] = in[10 + n), the sum clamped to 32 bits before rounding. out may equal
// in, but must not overlap in[10 ..) otherwise.
EVRC_API void evrc_voc_prediction_filter(const Word16 *in, const Word16 *lpc, Word16 *out, Word16 L, Word16 shift) {
    fx::CallScope scope;
    // With sum |a_k| < 61440 the sum is at most 4096 * 32768 + 61439 * 32768
    // = 2^31 - 32768 in magnitude at every step, so 32-bit accumulation is
    // exact. (At 61440 it can reach 2^31: every a_k negative, every sample
    // -32768.)
    Word32 abs_sum = 0;
    for (int k = 0; k < kOrder; ++k) abs_sum += lpc[k] < 0 ? -lpc[k] : lpc[k];
    const bool narrow = abs_sum < 61440;
    // Blocks of kBlock samples, tap by tap over the block so that the sums
    // vectorise across samples. Block b's outputs are stored after all its
    // sums, and only later blocks read past it (sample n reads in[n ..
    // n + 10]), so out may equal in.
    constexpr int kBlock = 64;
    constexpr int kMaxNarrowShift = 15;
    Word32 s32[kBlock];
    for (int done = 0; done < L; done += kBlock) {
        const int len = L - done < kBlock ? L - done : kBlock;
        const Word16 *x = in + kOrder + done;
        if (narrow) {
            narrow_sums(x, lpc, s32, len);
            if (shift >= 0 && shift <= kMaxNarrowShift) {
                // high half of 32768 - s 2^shift, clamped to 32 bits, is
                // floor((2^(m-1) - s) / 2^m) clamped to 16 bits, m = 16 -
                // shift, which equals -((s + 2^(m-1) - 1) >> m); here
                // |s| <= 2^31 - 32768 keeps s + 2^(m-1) - 1 in 32 bits.
                const int m = 16 - shift;
                const Word32 bias = (1 << (m - 1)) - 1;
                for (int n = 0; n < len; ++n) {
                    Word32 r = -((s32[n] + bias) >> m);
                    r = r > fx::kMax16 ? fx::kMax16 : r;
                    r = r < fx::kMin16 ? fx::kMin16 : r;
                    out[done + n] = static_cast<Word16>(r);
                }
            } else {
                for (int n = 0; n < len; ++n) {
                    const Word64 v = fx::L_sub64(32768, fx::L_shl64(s32[n], shift));
                    out[done + n] = static_cast<Word16>(fx::L_sat32_64(v) >> 16);
                }
            }
        } else {
            for (int n = 0; n < len; ++n) {
                Word64 s = -4096 * static_cast<Word64>(x[n]);
                for (int k = 1; k <= kOrder; ++k) s += static_cast<Word64>(lpc[k - 1]) * x[n - k];
                const Word64 v = fx::L_sub64(32768, fx::L_shl64(s, shift));
                out[done + n] = static_cast<Word16>(fx::L_sat32_64(v) >> 16);
            }
        }
    }
}

}  // extern "C"
