// Pitch analysis: the LPC residual of the two frames in asSpeech and the
// frame's open-loop pitch delay with its voicing measure.
//
// Residual: e[n] = x[n] - sum a_k x[n-k]: the coded segment (the second half
// of the previous frame and the first half of the current one) through the
// LPC of each subframe, the samples before it through the previous frame's
// filter, those after it through the current frame's.
//
// Open-loop delay: the normalised autocorrelation of the residual over the
// current frame,
//   rho(d) = sum e[n] e[n-d] / sqrt(sum e[n]^2 * sum e[n-d]^2),
// n over the current frame, d = 20..120 (the lagged window reaches back into
// the previous frame). The lag of the largest rho is taken (found by
// comparing r^2 / e cross-multiplied, so that rho with its square root and
// division is formed only at the few lags the rules below read), then
//   - sub-multiples d/k (k = 4, 3, 2) whose rho comes close to it are
//     preferred, so that a doubled (tripled) period is never chosen;
//   - near the previous frame's delay a lag almost as good is preferred, so
//     that the delay contour stays smooth in steady voicing;
//   - the peak's fractional position (parabola through three rho values)
//     chooses between the two whole delays around it so that the time warp
//     of the signal modification is pulled back towards zero: each pitch
//     period moves the accumulated shift by (delay - true period).
// sBeta is rho at the peak in Q15, 0..1 (0 for silence).
#include "codec/basic/fixed_point.h"
#include "codec/enc/pitch_internal.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_enc.h"
#include "evrc/evrc_tables.h"

namespace {

using evrc_enc::Pf;

constexpr int kOrder = 10;
constexpr int kFrame = EVRC_ENC_FRAME;
constexpr int kCodedStart = EVRC_ENC_CODED_START;
constexpr int kSubframes = 3;
constexpr int kMinDelay = 20;
constexpr int kMaxDelay = 120;
constexpr int kLags = kMaxDelay - kMinDelay + 1;
// The prediction filter's output scaling: Q12 coefficients, shift 4 gives
// the residual in the units of the speech.
constexpr Word16 kResidualShift = 4;
// Scaled residual peak at most 2047: 160 doubled products of two such
// values sum to at most 2 * 160 * 2047^2 < 2^31.
constexpr Word16 kScaledPeakNorm = 4;  // norm_s headroom below 16384
// A sub-multiple lag is taken when its rho reaches 0.85 of the peak's.
constexpr Word16 kSubmultipleRatioQ15 = 27853;
// A lag within +-kTrackSpan of the previous delay is taken when its rho
// reaches 0.92 of the peak's (and the previous frame was voiced).
constexpr Word16 kTrackRatioQ15 = 30147;
constexpr int kTrackSpan = 4;
// Below this rho (0.3) the frame has no usable periodicity: the previous
// delay is kept so that the contour does not wander through noise.
constexpr Word16 kVoicedMinQ15 = 9830;
// Accumulated shift (Q8 samples) beyond which the delay is steered.
constexpr Word16 kSteerShiftQ8 = 256;

// Sum over the current frame of x[n] * x[n - lag] with x the scaled residual
// (x[kFrame ..] is the current frame). The bound above keeps every partial
// sum of the doubled products within 32 bits, so plain integer arithmetic
// equals the L_mac chain; the chain's operation count is charged once.
Word32 correlation(const Word16 *x, int lag) {
    Word32 sum = 0;
    for (int n = kFrame; n < 2 * kFrame; ++n) sum += static_cast<Word32>(x[n]) * x[n - lag];
    return sum * 2;
}
// correlation(x, d) for d = kMinDelay .. kMaxDelay into r[d - kMinDelay].
void correlations(const Word16 *x, Word32 *r) {
    constexpr int kBlock = 4;
    int i = 0;
    for (; i + kBlock <= kLags; i += kBlock) {
        const Word16 *y = x - kMinDelay - i;
        Word32 s0 = 0, s1 = 0, s2 = 0, s3 = 0;
        for (int n = kFrame; n < 2 * kFrame; ++n) {
            const Word32 xn = x[n];
            s0 += xn * y[n];
            s1 += xn * y[n - 1];
            s2 += xn * y[n - 2];
            s3 += xn * y[n - 3];
        }
        r[i] = s0 * 2;
        r[i + 1] = s1 * 2;
        r[i + 2] = s2 * 2;
        r[i + 3] = s3 * 2;
    }
    for (; i < kLags; ++i) r[i] = correlation(x, kMinDelay + i);
}
Word32 correlate(const Word16 *x, int lag) {
    fx::charge(static_cast<UWord32>(kFrame));
    return correlation(x, lag);
}

}  // namespace

namespace evrc_enc {

// Operator-by-operator form of correlate (kept beside it and tested
// against it).
Word32 correlate_reference(const Word16 *x, int lag) {
    Word32 sum = 0;
    for (int n = kFrame; n < 2 * kFrame; ++n) sum = fx::L_mac(sum, x[n], x[n - lag]);
    return sum;
}

Word32 correlate_fast(const Word16 *x, int lag) { return correlate(x, lag); }

}  // namespace evrc_enc

extern "C" {

// The first ten samples of the previous frame have no past: their residual
// is formed with zeros before the buffer. The coded segment is filtered
// subframe by subframe with the subframe's own LPC, so that the modified
// residual through the subframe's synthesis filter gives back the speech.
EVRC_API void evrc_compute_residual(const Word16 *speech, const Word16 *prev_lpc, const Word16 *cur_lpc,
                                    const Word16 (*subframe_lpc)[kOrder], Word16 *residual) {
    fx::CallScope scope;
    Word16 head[2 * kOrder];
    for (int k = 0; k < kOrder; ++k) {
        head[k] = 0;
        head[kOrder + k] = speech[k];
    }
    evrc_voc_prediction_filter(head, prev_lpc, residual, kOrder, kResidualShift);
    evrc_voc_prediction_filter(speech, prev_lpc, residual + kOrder, kCodedStart - kOrder, kResidualShift);
    int start = kCodedStart;
    for (int j = 0; j < kSubframes; ++j) {
        const Word16 len = evrc_acsSubFrameSize[j];
        evrc_voc_prediction_filter(speech + start - kOrder, subframe_lpc[j], residual + start, len, kResidualShift);
        start += len;
    }
    evrc_voc_prediction_filter(speech + start - kOrder, cur_lpc, residual + start,
                               static_cast<Word16>(2 * kFrame - start), kResidualShift);
}

EVRC_API void evrc_calc_frame_delay_and_beta(EvrcEncoderState *state) {
    fx::CallScope scope;
    const Word16 prev_delay = state->sPrevDelay;
    const Word16 *res = state->residual;
    // Scale the part of the residual the correlations read (from 120 samples
    // before the current frame) into 11 bits.
    constexpr int kFirst = kFrame - kMaxDelay;
    // The per-sample and per-lag operators below are tallied in ops and
    // charged once (the same operators, computed uncounted).
    UWord32 ops = 0;
    // The largest abs_s of the samples from their extremes (abs_s clamps
    // -32768 to 32767 with the flag).
    Word16 hi = 0, lo = 0;
    for (int n = kFirst; n < 2 * kFrame; ++n) {
        hi = res[n] > hi ? res[n] : hi;
        lo = res[n] < lo ? res[n] : lo;
    }
    ops += 2 * kFrame - kFirst;  // abs_s
    if (lo == fx::kMin16) fx::raise_overflow();
    const Word16 peak = static_cast<Word16>(-static_cast<Word32>(lo) > hi ? (lo == fx::kMin16 ? fx::kMax16 : -lo) : hi);
    if (peak == 0) {
        fx::charge(ops);
        state->sDelay = (prev_delay >= kMinDelay && prev_delay <= kMaxDelay) ? prev_delay : 40;
        state->sBeta = 0;
        state->work_pitch[evrc_enc::kPrevBetaSlot] = 0;
        return;
    }
    const Word16 scale = fx::sub(fx::norm_s(peak), kScaledPeakNorm);
    // shl by scale: scale >= 0 only when the peak is below 2^12, and then
    // every sample lands below 2^11 (no clamp); a negative scale shifts right.
    Word16 x[2 * kFrame];
    for (int n = 0; n < kFirst; ++n) x[n] = 0;
    if (scale >= 0) {
        for (int n = kFirst; n < 2 * kFrame; ++n) x[n] = static_cast<Word16>(res[n] * (1 << scale));
    } else {
        for (int n = kFirst; n < 2 * kFrame; ++n) x[n] = static_cast<Word16>(res[n] >> -scale);
    }
    ops += 2 * kFrame - kFirst;  // shl

    // Energy of the current frame and of each lagged window (sliding): sums
    // of at most 161 doubled squares below 2^22 stay below 2^31, so the
    // L_mac and L_msu chains never clamp.
    const Pf e0 = Pf::from_l(correlate(x, 0));
    Word32 e_lag = 0;
    for (int n = kFrame - kMinDelay; n < 2 * kFrame - kMinDelay; ++n) e_lag += 2 * static_cast<Word32>(x[n]) * x[n];
    ops += kFrame;  // L_mac
    // The correlations of all lags, four lags per pass over the frame.
    Word32 r[kLags];
    correlations(x, r);
    ops += kLags * kFrame;
    // The peak lag by rho^2 compared cross-multiplied (r_i^2 e_b > r_b^2 e_i,
    // no square root or division per lag); rho itself only where the
    // choices below read it.
    Pf r2[kLags], el[kLags];
    int best = 0;
    for (int i = 0; i < kLags; ++i) {
        const int d = kMinDelay + i;
        if (i > 0) {
            e_lag += 2 * (static_cast<Word32>(x[kFrame - d]) * x[kFrame - d] -
                          static_cast<Word32>(x[2 * kFrame - d]) * x[2 * kFrame - d]);
            ops += 2;  // L_mac, L_msu
        }
        const bool usable = r[i] > 0 && e_lag > 0;
        el[i] = Pf::from_l(usable ? e_lag : 0, ops);
        if (usable) {
            const Pf ri = Pf::from_l(r[i], ops);
            ops += Pf::kFromLWeight;  // the second from_l of the square
            r2[i] = ri.mul(ri, ops);
        } else {
            r2[i] = Pf{0, Pf::kZeroExp};
        }
        if (r2[i].m != 0 && (r2[best].m == 0 || r2[i].mul(el[best], ops).greater(r2[best].mul(el[i], ops)))) best = i;
    }
    fx::charge(ops);
    Word16 rho[kLags];
    bool known[kLags] = {};
    const auto rho_at = [&](int i) {
        if (!known[i]) {
            known[i] = true;
            rho[i] = r2[i].m == 0 ? 0 : Pf::from_l(r[i]).div(e0.mul(el[i]).sqrt()).to_q15();
        }
        return rho[i];
    };
    const Word16 beta = rho_at(best);
    if (beta < kVoicedMinQ15) {
        state->sDelay = (prev_delay >= kMinDelay && prev_delay <= kMaxDelay) ? prev_delay : 40;
        state->sBeta = beta;
        state->work_pitch[evrc_enc::kPrevBetaSlot] = beta;
        return;
    }
    // Sub-multiples: the shortest period whose rho comes close to the peak.
    const Word16 sub_floor = fx::mult(beta, kSubmultipleRatioQ15);
    for (int k = 4; k >= 2; --k) {
        const int centre = (kMinDelay + best + k / 2) / k;
        int found = -1;
        for (int d = centre - 1; d <= centre + 1; ++d) {
            const int i = d - kMinDelay;
            if (i < 0 || i >= kLags) continue;
            if (rho_at(i) >= sub_floor && (found < 0 || rho_at(i) > rho_at(found))) found = i;
        }
        if (found >= 0) {
            best = found;
            break;
        }
    }
    // Continuity with the previous delay.
    if (prev_delay >= kMinDelay && prev_delay <= kMaxDelay &&
        state->work_pitch[evrc_enc::kPrevBetaSlot] >= kVoicedMinQ15) {
        const Word16 track_floor = fx::mult(rho_at(best), kTrackRatioQ15);
        int found = -1;
        for (int d = prev_delay - kTrackSpan; d <= prev_delay + kTrackSpan; ++d) {
            const int i = d - kMinDelay;
            if (i < 0 || i >= kLags) continue;
            if (rho_at(i) >= track_floor && (found < 0 || rho_at(i) > rho_at(found))) found = i;
        }
        if (found >= 0) best = found;
    }
    // The local peak around the chosen lag, then the whole delay on the side
    // of the true period that pulls the accumulated shift towards zero.
    while (best > 0 && rho_at(best - 1) > rho_at(best)) --best;
    while (best < kLags - 1 && rho_at(best + 1) > rho_at(best)) ++best;
    int delay = kMinDelay + best;
    if (best > 0 && best < kLags - 1) {
        // Sign of the parabola's vertex offset: rho[-1] > rho[+1] puts the
        // true period below the whole lag.
        const Word16 lean = fx::sub(rho_at(best + 1), rho_at(best - 1));
        const Word16 shift_q8 = state->sAccumShift;
        if (shift_q8 > kSteerShiftQ8 && lean < 0) delay -= 1;   // floor of the true period
        if (shift_q8 < -kSteerShiftQ8 && lean > 0) delay += 1;  // ceiling of the true period
    }
    state->sDelay = static_cast<Word16>(delay);
    state->sBeta = beta;
    state->work_pitch[evrc_enc::kPrevBetaSlot] = beta;
}

}  // extern "C"
