// Spectral shaping of what the codebook searches match.
//
// The decoder's output is post-filtered: the formant postfilter deepens the
// valleys between formants, which leaves the decoded spectrum about 2 dB
// weaker in log mean above 1 kHz than the speech that was coded. The coded
// speech is therefore shaped before the searches see it, by filtering the
// coded segment's residual (which the target path turns back into speech):
//   - a mild inverse of the formant postfilter, A(z/0.74) / A(z/0.68) with
//     the subframe's quantised LPC, which fills the valleys a little;
//   - a high-frequency shelf 1 + 0.2 HP(z), HP(z) = 0.6 (1 - z^-1) /
//     (1 - 0.6 z^-1), about +1.5 dB above 2 kHz.
//
// The error the searches minimise is the perceptually weighted error seen
// through one more filter, applied alike to the target path, the excitation
// path and the impulse response:
//   - a low-frequency emphasis 1 + 4 LP(z)^3, LP(z) = 0.09 / (1 - 0.91 z^-1):
//     the weighting alone lets coding noise stand 15 dB and more above
//     high-passed speech below 100 Hz (the all-pole synthesis filter cannot
//     follow the high-pass), and the emphasis pulls it down at a small cost
//     in the speech band;
//   - a tilt 1 - 0.2 z^-1, which spends a little more of the error budget on
//     the upper band.
// The constants were set on recorded speech (log-spectral distance of the
// decoded, post-filtered speech).
#include <cstring>

#include "codec/basic/fixed_point.h"
#include "codec/common/constants.h"
#include "codec/enc/encoder_internal.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"

namespace {

using evrc::kOrder;
using evrc::kSubframes;

// gamma^i in Q15 for i = 1..10, rounded.
struct GammaPowers {
    Word16 v[kOrder];
};
constexpr GammaPowers gamma_powers(double gamma) {
    GammaPowers g{};
    double p = 1.0;
    for (int i = 0; i < kOrder; ++i) {
        p *= gamma;
        g.v[i] = static_cast<Word16>(p * 32768.0 + 0.5);
    }
    return g;
}
constexpr GammaPowers kValleyZeros = gamma_powers(0.74);
constexpr GammaPowers kValleyPoles = gamma_powers(0.68);

constexpr Word16 kUnitGainShift = 4;   // prediction filter with Q12 coefficients at unit gain
constexpr Word16 kShelfPole = 19661;   // 0.6, Q15
constexpr Word16 kShelfGain = 6554;    // 0.2, Q15
constexpr Word16 kLowPassStep = 3000;  // 1 - 0.908, Q15
constexpr Word16 kLowBoostShift = 4;   // 4 times the low-passed signal, kept in Q14
constexpr Word16 kTilt = 6554;         // 0.2, Q15
constexpr Word16 kSignalQ = 14;        // the low-pass states hold the signal in Q14

// Slots of the shaping memories in the pitch stage's working block.
constexpr int kValleyMem = 1;                       // ten Word32: the valley filter's poles
constexpr int kShelfMem = kValleyMem + 2 * kOrder;  // Word32 high-pass state, then the last input
constexpr int kValleyInputs = kShelfMem + 3;        // the valley filter's last ten inputs, oldest first

Word32 load32(const Word16 *p) {
    Word32 v;
    std::memcpy(&v, p, sizeof(v));
    return v;
}
void store32(Word16 *p, Word32 v) { std::memcpy(p, &v, sizeof(v)); }

// The shelf over x[0 .. L), in place; hp the high-pass state, last the
// previous input.
void shelf(Word16 *x, int L, Word32 &hp, Word16 &last) {
    for (int n = 0; n < L; ++n) {
        const Word32 step = fx::L_add(hp, fx::L_deposit_h(fx::sub(x[n], last)));
        hp = fx::L_mult_32_16(step, kShelfPole);
        last = x[n];
        x[n] = fx::add(x[n], fx::mult_r(kShelfGain, fx::round32(hp)));
    }
}

}  // namespace

namespace evrc_enc {

void shape_coded_residual(EvrcEncoderState *st, Word16 *residual, int first) {
    Word16 *work = st->work_pitch;
    Word32 poles[kOrder];
    for (int k = 0; k < kOrder; ++k) poles[k] = load32(work + kValleyMem + 2 * k);
    Word32 hp = load32(work + kShelfMem);
    Word16 last = work[kShelfMem + 2];

    // The zeros read the unshaped inputs: the ten inputs of the previous
    // segment (so that zeros and poles continue the same signal), then a
    // copy of this one.
    constexpr int kSegment = EVRC_ENC_FRAME;
    Word16 in[kOrder + kSegment];
    std::memcpy(in, work + kValleyInputs, kOrder * sizeof(Word16));
    std::memcpy(in + kOrder, residual + first, kSegment * sizeof(Word16));
    int start = 0;
    for (int j = 0; j < kSubframes; ++j) {
        const Word16 L = evrc_acsSubFrameSize[j];
        Word16 zeros[kOrder], poles_lpc[kOrder];
        for (int k = 0; k < kOrder; ++k) {
            zeros[k] = fx::mult_r(kValleyZeros.v[k], st->qlpc[j][k]);
            poles_lpc[k] = fx::mult_r(kValleyPoles.v[k], st->qlpc[j][k]);
        }
        Word16 *out = residual + first + start;
        evrc_voc_prediction_filter(in + start, zeros, out, L, kUnitGainShift);
        evrc_voc_synthesis_filter(poles_lpc, out, out, poles, L);
        shelf(out, L, hp, last);
        start += L;
    }

    for (int k = 0; k < kOrder; ++k) store32(work + kValleyMem + 2 * k, poles[k]);
    std::memcpy(work + kValleyInputs, in + kSegment, kOrder * sizeof(Word16));
    store32(work + kShelfMem, hp);
    work[kShelfMem + 2] = last;
}

void emphasise_error_reference(Word16 *x, int L, Word16 *mem) {
    Word32 lp[3];
    for (int i = 0; i < 3; ++i) lp[i] = load32(mem + 2 * i);
    Word16 prev = mem[6];
    for (int n = 0; n < L; ++n) {
        Word32 v = fx::L_shl(fx::L_deposit_l(x[n]), kSignalQ);
        for (Word32 &s : lp) {
            s = fx::L_add(s, fx::L_mult_32_16(fx::L_sub(v, s), kLowPassStep));
            v = s;
        }
        const Word16 y = fx::add(x[n], fx::round32(fx::L_shl(v, kLowBoostShift)));
        x[n] = fx::sub(y, fx::mult_r(kTilt, prev));
        prev = y;
    }
    for (int i = 0; i < 3; ++i) store32(mem + 2 * i, lp[i]);
    mem[6] = prev;
}

// The same in native arithmetic. The low-pass states stay within the Q14
// input range [-2^29, 2^29] (each step moves a state towards its input by a
// fraction below one, floored), so their differences, products (through
// 64 bits) and sums cannot clamp, and the product of a 32-bit value and a
// positive 16-bit factor taken as high and low halves is the floor of the
// full product over 2^15. Only the boost's shift, its rounding, the addition
// and the tilt's subtraction can clamp; the tilt's product cannot.
void emphasise_error(Word16 *x, int L, Word16 *mem) {
    constexpr UWord32 kOpsPerSample = 37;  // what the operators above count
    constexpr Word32 kShiftLimit = 0x7FFFFFFF >> kLowBoostShift;
    constexpr Word64 kLowPassKeep = 32768 - kLowPassStep;
    Word64 lp[3];
    for (int i = 0; i < 3; ++i) lp[i] = load32(mem + 2 * i);
    Word32 prev = mem[6];
    bool clamped = false;
    const auto sat16 = [&clamped](Word32 v) {
        if (v > 32767 || v < -32768) {
            clamped = true;
            return static_cast<Word16>(v > 0 ? 32767 : -32768);
        }
        return static_cast<Word16>(v);
    };
    for (int n = 0; n < L; ++n) {
        const Word32 xn = x[n];
        Word32 v = xn * (1 << kSignalQ);
        // s + floor((v - s) k / 2^15) = floor((s (2^15 - k) + v k) / 2^15),
        // s an integer: the state's own chain is one multiply, an addition
        // and the shift.
        // (Each state fits 32 bits, so it feeds the next stage as it is.)
        Word64 in = v;
        for (Word64 &s : lp) {
            s = (s * kLowPassKeep + in * kLowPassStep) >> 15;
            in = s;
        }
        v = static_cast<Word32>(in);
        Word32 boost;
        if (v > kShiftLimit || v < -kShiftLimit - 1) {
            clamped = true;
            boost = v > 0 ? 32767 : -32768;  // the shift saturates; the rounding of its maximum too
        } else {
            const Word32 w = v * (1 << kLowBoostShift);
            if (w >= 0x7FFF8000) {
                clamped = true;
                boost = 32767;
            } else {
                boost = (w + 0x8000) >> 16;
            }
        }
        const Word16 y = sat16(xn + boost);
        x[n] = sat16(y - ((kTilt * prev + 0x4000) >> 15));
        prev = y;
    }
    for (int i = 0; i < 3; ++i) store32(mem + 2 * i, static_cast<Word32>(lp[i]));
    mem[6] = static_cast<Word16>(prev);
    if (clamped) fx::raise_overflow();
    fx::charge(kOpsPerSample * static_cast<UWord32>(L > 0 ? L : 0));
}

}  // namespace evrc_enc
