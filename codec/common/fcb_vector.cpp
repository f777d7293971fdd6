// Algebraic fixed codebook: pulse positions and signs decoded from the
// subframe's index fields, pitch sharpening of the pulse vector, and the sum
// of the gained adaptive and fixed codebook vectors.
#include <cstdint>

#include "codec/basic/fixed_point.h"
#include "codec/common/constants.h"
#include "codec/common/excitation.h"
#include "evrc/evrc_common.h"

namespace {

using evrc::kFcbLen;
using evrc::kFcbPulse;
using evrc::kFcbTracks;
// Last vector index that sharpening and gain combination may touch.
constexpr int kLastIndex = 53;

// Stores a pulse; positions outside the vector (only possible for pair
// values above 120, which the frame check rejects) are dropped.
void put_pulse(Word16 *fcb, int pos, Word16 value) {
    if (pos >= 0 && pos < kFcbLen) {
        fcb[pos] = value;
    }
}

// A 7-bit pair value v = 11a + b; a = v div 11 by a reciprocal multiply.
void split_pair(int v, int *a, int *b) {
    *a = (v * 5958) >> 16;
    *b = v - 11 * (*a);
}

// Two pulses on one track from an 8-bit field: sign in bit 7, pair in bits
// 6..0. The order of the positions carries the second pulse's sign.
void decode_pair_field(Word16 *fcb, int track, int field) {
    int a, b;
    split_pair(field & 0x7F, &a, &b);
    const Word16 s = (field & 0x80) ? -kFcbPulse : kFcbPulse;
    put_pulse(fcb, track + kFcbTracks * a, s);
    if (b < a) {
        put_pulse(fcb, track + kFcbTracks * b, static_cast<Word16>(-s));
    } else if (b == a) {
        put_pulse(fcb, track + kFcbTracks * b, static_cast<Word16>(2 * s));
    } else {
        put_pulse(fcb, track + kFcbTracks * b, s);
    }
}

// Rate 1: eight pulses on five interleaved tracks, shifted by bits 10..9 of
// the fourth field.
void decode_full_rate(Word16 *fcb, const Word16 *f) {
    const int last = static_cast<UWord16>(f[3]);
    const int ts = (last >> 9) & 3;
    for (int i = 0; i < 3; ++i) {
        decode_pair_field(fcb, (ts + i) % kFcbTracks, static_cast<UWord16>(f[i]));
    }
    int a, b;
    split_pair(last & 0x7F, &a, &b);
    put_pulse(fcb, (ts + 3) % kFcbTracks + kFcbTracks * a, (last & 0x100) ? -kFcbPulse : kFcbPulse);
    put_pulse(fcb, (ts + 4) % kFcbTracks + kFcbTracks * b, (last & 0x80) ? -kFcbPulse : kFcbPulse);
}

// Rate 1/2: three pulses at 7p + 2i with signs +s, -s, +s.
void decode_half_rate(Word16 *fcb, const Word16 *f) {
    const int field = static_cast<UWord16>(f[0]);
    const Word16 s = (field & 0x200) ? -kFcbPulse : kFcbPulse;
    for (int i = 0; i < 3; ++i) {
        const int p = (field >> (6 - 3 * i)) & 7;
        put_pulse(fcb, 7 * p + 2 * i, (i == 1) ? static_cast<Word16>(-s) : s);
    }
}

int clamp_index(int i) { return i < 0 ? 0 : (i > kLastIndex ? kLastIndex : i); }

// High half of a 64-bit sum clamped to 32 bits.
Word16 high_half_sat(Word64 x) { return static_cast<Word16>(fx::L_sat32_64(x) >> 16); }

}  // namespace

namespace evrc {

void sharpen_pulses(Word16 *fcb, Word16 *pitch_lag, const Word32 *points, Word16 acb_gain, Word16 L) {
    const Word16 T = sharpening_lag(points);
    *pitch_lag = T;
    const Word16 beta = sharpening_gain(acb_gain);
    // L_mult through its uncounted body, the weights charged once (a counted
    // operator is a read-modify-write of the counter on the loop's chain).
    for (int n = 0; n < L - T; ++n) {
        const int to = clamp_index(n + T);
        const Word64 sum = static_cast<Word64>(fcb[to]) * 65536 + fx::detail::L_mult(beta, fcb[clamp_index(n)]) + 32768;
        fcb[to] = high_half_sat(sum);
    }
    if (L - T > 0) fx::charge(fx::weight::L_mult * static_cast<UWord32>(L - T));
}

}  // namespace evrc

extern "C" {

// fcb: 55 entries, cleared and filled. indices: the subframe's four fields
// (rate 1) or its one field (rate 1/2). Other rates leave the vector clear.
EVRC_API void evrc_dec_fixed_codebook(Word16 *fcb, const Word16 *indices, Word16 rate) {
    fx::CallScope scope;
    for (int i = 0; i < kFcbLen; ++i) {
        fcb[i] = 0;
    }
    if (rate == EVRC_RATE_FULL) {
        decode_full_rate(fcb, indices);
    } else if (rate == EVRC_RATE_HALF) {
        decode_half_rate(fcb, indices);
    }
}

// Pitch lag of the subframe, pitch sharpening of fcb with the clamped ACB
// gain, then exc[n] = acb_gain * exc[n] + fcb_gain * fcb[n] (Q14 and plain
// gains) for n < L.
EVRC_API void evrc_combine_acb_fcb(Word16 *exc, Word16 *fcb, Word16 *pitch_lag, const Word32 *points, Word16 acb_gain,
                                   Word16 fcb_gain, Word16 L) {
    fx::CallScope scope;
    evrc::sharpen_pulses(fcb, pitch_lag, points, acb_gain, L);

    const Word64 ga = static_cast<UWord16>(acb_gain);
    const Word64 gf = static_cast<UWord16>(fcb_gain);
    if (ga <= fx::kMax16 && gf <= fx::kMax16 && L <= kLastIndex + 1) {
        // Both gains below 2^15: with A = exc ga and B = fcb gf (|A|, |B| <=
        // 2^30) the high half of 4A + 2B + 2^15 is floor((2A + B + 2^14) /
        // 2^15) = (A >> 14) + ((2 (A & 0x3FFF) + B + 2^14) >> 15), all in 32
        // bits; the 32-bit clamp of the sum is the 16-bit clamp of that.
        const Word32 ga16 = static_cast<Word32>(ga);
        const Word32 gf16 = static_cast<Word32>(gf);
        for (int n = 0; n < L; ++n) {
            const Word32 A = exc[n] * ga16;
            const Word32 B = fcb[n] * gf16;
            Word32 r = (A >> 14) + ((2 * (A & 0x3FFF) + B + 16384) >> 15);
            r = r > fx::kMax16 ? fx::kMax16 : r;
            r = r < fx::kMin16 ? fx::kMin16 : r;
            exc[n] = static_cast<Word16>(r);
        }
        return;
    }
    for (int n = 0; n < L; ++n) {
        const Word64 sum = exc[n] * ga * 4 + 32768 + fcb[clamp_index(n)] * gf * 2;
        exc[n] = high_half_sat(sum);
    }
}

}  // extern "C"
