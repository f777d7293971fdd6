// Adaptive codebook: the past excitation read at the fractional, moving delay
// of the contour through an 8-phase interpolation filter.
#include <cstdint>

#include "codec/basic/fixed_point.h"
#include "codec/common/excitation.h"
#include "codec/common/reference_forms.h"
#include "evrc/evrc_common.h"
#include "evrc/evrc_tables.h"

namespace evrc {

namespace {

// Number of interpolation phases per sample.
constexpr int kPhases = 8;
// 4.5 in Q16: phase index of a delay that falls half a sample early.
constexpr Word64 kPhaseOffset = 294912;

Word16 sample_or_zero(const Word16 *buf, int buf_len, Word64 index) {
    return (index >= 0 && index < buf_len) ? buf[index] : 0;
}

// acc + 2p clamped to 32 bits, as one weighted multiply-accumulate (uncounted).
inline Word64 clamped_mac(Word64 acc, Word32 p, bool &clamped) {
    acc += 2 * static_cast<Word64>(p);
    if (acc > fx::kMax32) {
        clamped = true;
        return fx::kMax32;
    }
    if (acc < fx::kMin32) {
        clamped = true;
        return fx::kMin32;
    }
    return acc;
}

// One output sample: 32768 plus the taps' doubled products, each added with
// a clamp to 32 bits (the clamp raises the overflow flag). Returns the high
// half. x[j] is the sample under tap j.
//
// When a bound on the partial sums keeps 32768 + sum |2 x c| within 32 bits,
// no partial sum can leave the range, no clamp can fire and the plain sum
// equals the clamped chain. Two bounds are tried, cheapest first (peak sample
// times the phase's sum |c|, then the exact sum |x c|); only when both fail
// does the chain run tap by tap.
template <int Taps>
Word16 interp_sample_n(const Word16 *x, const Word16 *coeff, int taps, Word32 coeff_abs_sum, bool &clamped) {
    const int count = Taps > 0 ? Taps : taps;
    // Cheapest bound first: the loudest sample times sum |c|. Under it every
    // partial sum of x c fits 31 bits, so 32-bit accumulation is exact.
    Word32 peak = 0;
    for (int j = 0; j < count; ++j) {
        const Word32 v = x[j] < 0 ? -static_cast<Word32>(x[j]) : x[j];
        peak = v > peak ? v : peak;
    }
    if (32768 + 2 * static_cast<Word64>(peak) * coeff_abs_sum <= fx::kMax32) {
        Word32 sum = 0;
        for (int j = 0; j < count; ++j) sum += static_cast<Word32>(x[j]) * coeff[j];
        return static_cast<Word16>((32768 + 2 * static_cast<Word64>(sum)) >> 16);
    }
    Word64 sum = 32768;
    Word64 bound = 32768;
    for (int j = 0; j < count; ++j) {
        const Word32 p = static_cast<Word32>(x[j]) * coeff[j];  // |p| <= 2^30
        sum += 2 * static_cast<Word64>(p);
        bound += 2 * static_cast<Word64>(p < 0 ? -p : p);
    }
    if (bound > fx::kMax32) {
        sum = 32768;
        for (int j = 0; j < count; ++j) sum = clamped_mac(sum, static_cast<Word32>(x[j]) * coeff[j], clamped);
    }
    return static_cast<Word16>(sum >> 16);
}

// The plain sum, for callers that have already bounded the samples: with
// 32768 + 2 * peak * sum |c| <= 2^31 - 1 every partial sum of x c fits 31
// bits, so 32-bit accumulation equals the clamped chain.
template <int Taps>
Word16 interp_sample_plain(const Word16 *x, const Word16 *coeff, int taps) {
    const int count = Taps > 0 ? Taps : taps;
    Word32 sum = 0;
    for (int j = 0; j < count; ++j) sum += static_cast<Word32>(x[j]) * coeff[j];
    return static_cast<Word16>((32768 + 2 * static_cast<Word64>(sum)) >> 16);
}

// (2^31 - 1 - 32768) / 2, rounded down.
constexpr Word32 kMaxPeakTimesAbsSum = 1073725439;

// Largest |sample| of buf[0 .. len), 0 for an empty buffer.
Word32 peak_magnitude(const Word16 *buf, int len) {
    Word16 hi = 0, lo = 0;
    for (int j = 0; j < len; ++j) {
        hi = buf[j] > hi ? buf[j] : hi;
        lo = buf[j] < lo ? buf[j] : lo;
    }
    return -static_cast<Word32>(lo) > hi ? -static_cast<Word32>(lo) : hi;
}

// The decoder's filter has 17 taps; a fixed count lets the compiler unroll
// and vectorise the sums.
inline Word16 interp_sample(const Word16 *x, const Word16 *coeff, int taps, Word32 coeff_abs_sum, bool &clamped) {
    return taps == 17 ? interp_sample_n<17>(x, coeff, taps, coeff_abs_sum, clamped)
                      : interp_sample_n<0>(x, coeff, taps, coeff_abs_sum, clamped);
}

// sum |c| of one phase's taps, saturated at 2^31 - 1 (a bound only).
Word32 coeff_abs_sum(const Word16 *coeff, int taps) {
    Word64 s = 0;
    for (int j = 0; j < taps; ++j) s += coeff[j] < 0 ? -static_cast<Word64>(coeff[j]) : coeff[j];
    return s > fx::kMax32 ? fx::kMax32 : static_cast<Word32>(s);
}

// One output sample of block_interp_bounded outside its common case (the
// decoder's 17 taps, all inside the buffer, under the peak bound); kept out
// of line so that the common case's loop stays small.
[[gnu::noinline]] Word16 general_sample(const Word16 *buf, int buf_len, Word64 first, const Word16 *coeff, int taps,
                                        Word32 abs_sum, bool plain, bool &clamped) {
    if (first >= 0 && first + taps <= buf_len) {
        if (plain && taps == 17) return interp_sample_plain<17>(buf + first, coeff, taps);
        return interp_sample(buf + first, coeff, taps, abs_sum, clamped);
    }
    if (taps <= 64) {
        Word16 window[64];  // the taps' samples near the buffer's ends
        for (int j = 0; j < taps; ++j) window[j] = sample_or_zero(buf, buf_len, first + j);
        return interp_sample(window, coeff, taps, abs_sum, clamped);
    }
    // Longer filters than the decoder uses: tap by tap.
    Word64 acc = 32768;
    for (int j = 0; j < taps; ++j) {
        acc = clamped_mac(acc, static_cast<Word32>(sample_or_zero(buf, buf_len, first + j)) * coeff[j], clamped);
    }
    return static_cast<Word16>(acc >> 16);
}

}  // namespace

void block_interp_bounded(Word16 *buf, int buf_len, int pos, const Word32 *contour, const Word16 *filter, int N,
                          int n_samples) {
    const int taps = 2 * N + 1;
    if (taps <= 0 || n_samples <= 0) {
        // No taps: every sample is the rounding constant's high half, 0.
        for (int n = 0; n < n_samples; ++n) {
            const Word64 out_index = static_cast<Word64>(pos) + n;
            if (out_index >= 0 && out_index < buf_len) buf[out_index] = 0;
        }
        return;
    }
    // Each tap is one weighted multiply-accumulate of 4 operations.
    fx::charge(4u * static_cast<UWord32>(taps) * static_cast<UWord32>(n_samples));
    Word32 abs_sums[kPhases];
    // Largest peak under the bound of interp_sample_plain for every phase:
    // 32768 + 2 peak A <= 2^31 - 1 holds exactly when peak A <= 1073725439,
    // so for all phases when peak <= 1073725439 / max A (rounded down).
    Word32 max_abs_sum = 0;
    for (int ph = 0; ph < kPhases; ++ph) {
        abs_sums[ph] = coeff_abs_sum(filter + taps * ph, taps);
        max_abs_sum = abs_sums[ph] > max_abs_sum ? abs_sums[ph] : max_abs_sum;
    }
    const Word32 peak_limit = max_abs_sum == 0 ? fx::kMax32 : kMaxPeakTimesAbsSum / max_abs_sum;
    // peak bounds |x| of every sample any tap can read: the buffer's samples
    // at the start, raised by each output as it is stored (taps outside the
    // buffer read 0). Up to peak_limit a sample is summed plainly; above it
    // general_sample bounds the taps' own samples.
    Word32 peak = peak_magnitude(buf, buf_len);
    bool clamped = false;
    for (int n = 0; n < n_samples; ++n) {
        // Delay in Q16, rounded up to the next Q16 step, and its nearest
        // whole sample.
        const Word64 t = (static_cast<Word64>(contour[n]) + 255) >> 8;
        const Word64 D = (t + 32768) >> 16;
        const Word64 frac = t - D * 65536;
        int phase = static_cast<int>((kPhaseOffset - 8 * frac) >> 16);
        Word64 start = -(D + N);
        if (phase == kPhases) {
            start += 1;
            phase = 0;
        }
        const Word16 *coeff = filter + taps * phase;
        const Word64 first = static_cast<Word64>(pos) + n + start;
        Word16 out;
        if (taps == 17 && peak <= peak_limit && first >= 0 && first + taps <= buf_len) {
            out = interp_sample_plain<17>(buf + first, coeff, taps);
        } else {
            out = general_sample(buf, buf_len, first, coeff, taps, abs_sums[phase], peak <= peak_limit, clamped);
        }
        const Word64 out_index = static_cast<Word64>(pos) + n;
        if (out_index >= 0 && out_index < buf_len) {
            buf[out_index] = out;
            const Word32 magnitude = out < 0 ? -static_cast<Word32>(out) : out;
            peak = magnitude > peak ? magnitude : peak;
        }
    }
    if (clamped) fx::raise_overflow();
}

void block_interp_reference(Word16 *buf, int buf_len, int pos, const Word32 *contour, const Word16 *filter, int N,
                            int n_samples) {
    const int taps = 2 * N + 1;
    for (int n = 0; n < n_samples; ++n) {
        const Word64 t = (static_cast<Word64>(contour[n]) + 255) >> 8;
        const Word64 D = (t + 32768) >> 16;
        int phase = static_cast<int>((kPhaseOffset - 8 * (t - D * 65536)) >> 16);
        Word64 start = -(D + N);
        if (phase == kPhases) {
            start += 1;
            phase = 0;
        }
        Word64 acc = 32768;
        for (int j = 0; j < taps; ++j) {
            const Word16 x = sample_or_zero(buf, buf_len, static_cast<Word64>(pos) + n + start + j);
            acc = fx::L_mac64(acc, x, filter[taps * phase + j]);
        }
        const Word64 out_index = static_cast<Word64>(pos) + n;
        if (out_index >= 0 && out_index < buf_len) buf[out_index] = static_cast<Word16>(acc >> 16);
    }
}

}  // namespace evrc

using evrc::kExcBufferLen;
using evrc::kExcHistoryLen;

// Half the tap count of the adaptive codebook's 17-tap filter.
constexpr int kInterpHalfTaps = 8;

extern "C" {

// exc points at the current subframe of an excitation buffer laid out as
// exc_history: exc[-128 .. 64) is the readable range, anything beyond reads
// as 0. Writes exc[0 .. n_samples).
EVRC_API void evrc_voc_rclp_block_interp(Word16 *exc, const Word32 *contour, const Word16 *filter, Word16 N,
                                         Word16 n_samples) {
    fx::CallScope scope;
    evrc::block_interp_bounded(exc - kExcHistoryLen, kExcBufferLen, kExcHistoryLen, contour, filter, N, n_samples);
}

// ACB excitation of L + 10 samples at exc (layout as above) along the contour
// of the given delay points.
EVRC_API void evrc_rx_acb_excitation(const Word32 *points, Word16 *exc, Word16 L) {
    fx::CallScope scope;
    if (L < 0 || L > EVRC_MAX_SUBFRAME) {
        return;
    }
    Word32 contour[evrc::kContourLen];
    evrc_construct_delay_contour(points, contour, L);
    evrc_voc_rclp_block_interp(exc, contour, &evrc_acsBlockCoeff8[0][0], kInterpHalfTaps,
                               static_cast<Word16>(L + evrc::kLookAhead));
}

}  // extern "C"
