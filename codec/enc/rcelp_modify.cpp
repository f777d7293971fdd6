// RCELP signal modification: the residual is time-warped so that its pitch
// pulses fall where the adaptive codebook, read along the decoder's delay
// contour, will predict them.
//
// The modified residual is the residual read at a slowly varying delay:
//   mod[t] = res[t - kCentre - s(t)],
// with s the accumulated shift (sAccumShift, Q8 samples, kept within
// +-kMaxAccum) and kCentre a fixed delay of the whole modified signal that
// keeps every read inside the two frames of residual even when s is negative
// (there is no look-ahead beyond the current frame).
//
// The residual is cut into shift frames of one pitch period, each holding one
// pulse (the largest 3-sample energy of the period ahead; a period without a
// clear pulse by its peak-to-average ratio is copied with the shift
// unchanged). For each shift frame the shift change that maximises the
// normalised correlation of the shifted residual with the adaptive-codebook
// prediction (acb8, what the decoder will build) is searched in whole
// samples, refined to 1/8 sample by a parabola through the correlations, and
// bounded by the step limit, the ramp room before the pulse and the
// accumulated bound. The shift moves linearly from its old to its new value
// over the samples before the pulse (a continuous warp, no dropped or repeated
// samples) and stays at the new value from the pulse to the frame's end, half
// a period after the pulse. Reads at fractional positions use the 17-tap,
// 1/8-sample interpolation filter of the adaptive codebook.
//
// A shift frame may end beyond the subframe: the samples beyond are already
// written past the subframe and their count is carried in sShiftCarry, so the
// next subframe starts after them.
#include "codec/basic/fixed_point.h"
#include "codec/enc/encoder_internal.h"
#include "codec/enc/pitch_internal.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_enc.h"
#include "evrc/evrc_tables.h"

namespace {

using evrc_enc::Pf;

constexpr int kFrame = EVRC_ENC_FRAME;
constexpr int kResLen = 2 * EVRC_ENC_FRAME;
constexpr int kHistory = EVRC_ENC_HISTORY;
constexpr int kSubframeStep = 53;
constexpr int kSubframes = 3;
constexpr int kOrder = 10;
// The prediction filter's output scaling: Q12 coefficients, shift 4 gives
// the residual in the units of the speech.
constexpr Word16 kResidualShift = 4;
constexpr int kAhead = 10;  // adaptive-codebook samples beyond the subframe
// Fixed delay of the modified signal (samples) and the bound of the
// accumulated shift around it (Q8 samples, 12 samples = 1.5 ms).
constexpr int kCentre = evrc_enc::kWarpDelay;
constexpr Word16 kMaxAccumQ8 = 8 * 256;
// Largest shift change per shift frame (Q3, 1/8 samples) and per sample of
// the ramp before the pulse (Q3: a quarter sample per sample).
constexpr Word16 kMaxStepQ3 = 16;
constexpr int kRampSlopeQ3 = 2;
// Half-width of the pulse: the shift is settled this many samples before it.
constexpr int kPulseHalf = 3;
// Interpolation filter: 8 phases of 2 * kTapsHalf + 1 taps.
constexpr int kTapsHalf = 8;
constexpr int kTaps = 2 * kTapsHalf + 1;
// A period holds a pulse when its peak 3-sample energy is at least 4 times
// the average 3-sample energy (Q8).
constexpr Word16 kPulseRatioQ8 = 4 * 256;
// Frames whose open-loop correlation (sBeta) is below 0.4 are not
// shifted; their shift relaxes towards 0 by at most one sample per segment.
constexpr Word16 kMinBetaQ15 = 13107;
constexpr Word32 kRelaxQ3 = 8;
// Below a normalised correlation of 0.3 the shift is left alone.
constexpr Word16 kMinCorrQ15 = 9830;
// Largest whole-sample search of evrc_comp_shift (margin of its input).
constexpr int kMaxSearch = kMaxStepQ3 / 8 + 1;
constexpr int kMaxSegment = EVRC_ENC_FRAME;

// x[i] at Q3 position pos (1/8 samples), i clamped to [0, len): whole
// positions are copied, others interpolated with the phase of the adaptive
// codebook's filter whose centre falls on pos (rows 5..7 lie k/8 after the
// centre tap, rows 0..3 (k - 4)/8 after the tap before it).
Word16 read_at(const Word16 *x, int len, Word32 pos_q3) {
    const Word32 whole = pos_q3 >> 3;
    const int k = static_cast<int>(pos_q3 & 7);
    auto at = [&](Word32 i) { return x[i < 0 ? 0 : (i >= len ? len - 1 : i)]; };
    if (k == 0) return at(whole);
    const int row = k < 4 ? 4 + k : k - 4;
    const Word32 first = k < 4 ? whole - kTapsHalf : whole - kTapsHalf + 1;
    const Word16 *c = evrc_acsBlockCoeff8[row];
    Word32 acc = 32768;
    for (int j = 0; j < kTaps; ++j) acc = fx::L_mac(acc, at(first + j), c[j]);
    return fx::extract_h(acc);
}

Word16 clamp_accum(Word32 s_q8) {
    return static_cast<Word16>(s_q8 > kMaxAccumQ8 ? kMaxAccumQ8 : (s_q8 < -kMaxAccumQ8 ? -kMaxAccumQ8 : s_q8));
}

// Copies mod[from .. to) (relative to the subframe start at residual index
// base) with the shift moving linearly from s0 to s1 (Q3) over [from, ramp_end)
// and s1 after.
void warp_segment(EvrcEncoderState *st, int base, int from, int to, int ramp_end, Word32 s0_q3, Word32 s1_q3) {
    const int ramp = ramp_end - from;
    for (int n = from; n < to; ++n) {
        Word32 s_q3 = s1_q3;
        if (n < ramp_end && ramp > 0) s_q3 = s0_q3 + (s1_q3 - s0_q3) * (n - from) / ramp;
        const Word32 pos_q3 = (static_cast<Word32>(base + n - kCentre) << 3) - s_q3;
        st->mod_residual[kHistory + n] = read_at(st->residual, kResLen, pos_q3);
    }
}

// The coded segment's residual again, now through the quantised subframe
// filters the decoder synthesises with: the modified residual through
// 1/Aq_j(z) then gives back the speech, so the weighted target is the
// weighted speech itself, once shaped for the decoder's postfilter
// (shaping.cpp). The open-loop pitch analysis has used the
// unquantised residual before.
void requantised_residual(EvrcEncoderState *st) {
    int start = EVRC_ENC_CODED_START;
    for (int j = 0; j < kSubframes; ++j) {
        const Word16 len = evrc_acsSubFrameSize[j];
        evrc_voc_prediction_filter(st->asSpeech + start - kOrder, st->qlpc[j], st->residual + start, len,
                                   kResidualShift);
        start += len;
    }
    evrc_enc::shape_coded_residual(st, st->residual, EVRC_ENC_CODED_START);
}

}  // namespace

namespace evrc_enc {

void modify_subframe(EvrcEncoderState *st, int j, int L, const Word32 *contour, const Word16 *acb3,
                     const Word16 *acb8) {
    (void)acb3;
    const int base = EVRC_ENC_CODED_START + kSubframeStep * j;
    if (j == 0) requantised_residual(st);
    if (!evrc_enc::kWarpResidual) {
        for (int n = 0; n < L; ++n) st->mod_residual[kHistory + n] = st->residual[base + n];
        st->sShiftCarry = 0;
        return;
    }
    int pos = st->sShiftCarry;
    if (pos < 0) pos = 0;
    Word16 seg[kMaxSegment + 2 * kMaxSearch];
    while (pos < L) {
        const Word32 s_q3 = st->sAccumShift >> 5;
        const int s_whole = static_cast<int>((s_q3 + 4) >> 3);
        // Last sample (exclusive) whose whole-sample read stays inside the
        // residual (fractional taps beyond it hold the last sample), and the
        // room of the modified buffer.
        int read_end = kResLen - base + kCentre + s_whole - 1;
        if (read_end > kMaxSegment) read_end = kMaxSegment;
        const int delay = static_cast<int>((contour[pos < L + kAhead ? pos : L + kAhead - 1] + (1 << 23)) >> 24);
        // The period ahead, read at the current shift.
        int region_end = pos + delay;
        if (region_end > read_end) region_end = read_end;
        const int region = region_end - pos;
        Word16 pulse = 0;
        Word16 ratio = 0;
        if (region > 2 * kPulseHalf) {
            for (int n = 0; n < region; ++n) seg[n] = st->residual[base + pos + n - kCentre - s_whole];
            ratio = evrc_peak_to_avg_ratio(seg, static_cast<Word16>(region), &pulse);
        }
        const int p = pos + pulse;
        if (ratio < kPulseRatioQ8 || p >= L || st->sBeta < kMinBetaQ15) {
            // No clear pulse in this subframe: copy the rest, the shift
            // gliding back towards 0 (a warp nobody hears without pulses).
            Word32 room = kRampSlopeQ3 * (L - pos);
            if (room > kRelaxQ3) room = kRelaxQ3;
            const Word32 target_q3 = s_q3 > room ? s_q3 - room : (s_q3 < -room ? s_q3 + room : 0);
            evrc_update_hysteresis(st, static_cast<Word16>(target_q3 << 5));
            warp_segment(st, base, pos, L, L, s_q3, target_q3);
            pos = L;
            break;
        }
        int end = p + delay / 2;
        if (end < p + kPulseHalf + 1) end = p + kPulseHalf + 1;
        if (end > read_end) end = read_end;
        if (end <= pos) end = pos + 1;
        // Correlation window: the shift frame within the prediction.
        const int win_end = end < L + kAhead ? end : L + kAhead;
        const int ramp_end = p - kPulseHalf > pos ? p - kPulseHalf : pos;
        Word32 max_q3 = kRampSlopeQ3 * (ramp_end - pos);
        if (max_q3 > kMaxStepQ3) max_q3 = kMaxStepQ3;
        Word32 step_q3 = 0;
        if (max_q3 > 0 && win_end - pos > 2 * kPulseHalf) {
            const int len = win_end - pos;
            for (int n = -kMaxSearch; n < len + kMaxSearch; ++n) {
                const Word32 pos_q3 = (static_cast<Word32>(base + pos + n - kCentre) << 3) - s_q3;
                seg[n + kMaxSearch] = read_at(st->residual, kResLen, pos_q3);
            }
            step_q3 =
                evrc_comp_shift(seg + kMaxSearch, acb8 + pos, static_cast<Word16>(len), static_cast<Word16>(max_q3));
        }
        const Word16 old_q8 = st->sAccumShift;
        evrc_update_hysteresis(st, clamp_accum(static_cast<Word32>(old_q8) + (step_q3 << 5)));
        warp_segment(st, base, pos, end, ramp_end, old_q8 >> 5, st->sAccumShift >> 5);
        pos = end;
    }
    st->sShiftCarry = static_cast<Word16>(pos - L);
}

}  // namespace evrc_enc

extern "C" {

// Keeps the carried state within what the next frame can use: the shift
// within its bound (in whole 1/8 samples) and the carried samples within
// one pitch period beyond a subframe.
EVRC_API void evrc_update_rcelp_shift(EvrcEncoderState *state) {
    fx::CallScope scope;
    state->sAccumShift = static_cast<Word16>(clamp_accum(state->sAccumShift) & ~31);
    if (state->sShiftCarry < 0 || state->sShiftCarry > kFrame - 2 * kSubframeStep) state->sShiftCarry = 0;
}

EVRC_API void evrc_construct_delay_contour_enc(const Word32 *points, Word32 *contour, Word16 L) {
    fx::CallScope scope;
    evrc_construct_delay_contour(points, contour, L);
}

// residual[n - k] for whole k in [-(max/8 + 1), max/8 + 1] must be readable.
// Whole-sample normalised correlations rho(k) = C(k) / sqrt(E_t E(k)), the
// best k, then the vertex of the parabola through rho(k - 1), rho(k),
// rho(k + 1) to the nearest 1/8 sample.
EVRC_API Word16 evrc_comp_shift(const Word16 *residual, const Word16 *target, Word16 len, Word16 max_shift_q3) {
    fx::CallScope scope;
    if (len <= 0 || max_shift_q3 <= 0) return 0;
    const int kmax = max_shift_q3 / 8 + 1;
    // Scale both signals into 11 bits so that sums of len products fit.
    Word16 peak_r = 0;
    Word16 peak_t = 0;
    for (int n = -kmax; n < len + kmax; ++n) peak_r = fx::MAX16(peak_r, fx::abs_s(residual[n]));
    for (int n = 0; n < len; ++n) peak_t = fx::MAX16(peak_t, fx::abs_s(target[n]));
    if (peak_r == 0 || peak_t == 0) return 0;
    const Word16 sr = fx::sub(fx::norm_s(peak_r), 4);
    const Word16 st = fx::sub(fx::norm_s(peak_t), 4);
    Word16 r[kMaxSegment + 2 * kMaxSearch + 2];
    Word16 t[kMaxSegment];
    if (len > kMaxSegment || kmax > kMaxSearch + 1) return 0;
    for (int n = -kmax; n < len + kmax; ++n) r[n + kmax] = fx::shl(residual[n], sr);
    Word32 et = 0;
    for (int n = 0; n < len; ++n) {
        t[n] = fx::shl(target[n], st);
        et = fx::L_mac(et, t[n], t[n]);
    }
    const Pf pt = Pf::from_l(et);
    Word16 rho[2 * kMaxSearch + 3];
    int best = 0;
    for (int k = -kmax; k <= kmax; ++k) {
        Word32 c = 0;
        Word32 e = 0;
        for (int n = 0; n < len; ++n) {
            const Word16 v = r[n - k + kmax];
            c = fx::L_mac(c, v, t[n]);
            e = fx::L_mac(e, v, v);
        }
        const Word16 rk = c <= 0 ? 0 : Pf::from_l(c).div(pt.mul(Pf::from_l(e)).sqrt()).to_q15();
        rho[k + kmax] = rk;
        if (rk > rho[best]) best = k + kmax;
    }
    if (rho[best] < kMinCorrQ15) return 0;
    Word32 shift_q3 = static_cast<Word32>(best - kmax) * 8;
    if (best > 0 && best < 2 * kmax) {
        // Vertex offset (rho- - rho+) / (2 (rho- - 2 rho0 + rho+)), in 1/8.
        const Word32 num = fx::L_sub(rho[best - 1], rho[best + 1]);
        const Word32 den =
            fx::L_shl(fx::L_sub(fx::L_add(rho[best - 1], rho[best + 1]), fx::L_shl(fx::L_deposit_l(rho[best]), 1)), 1);
        if (den < 0) {
            // |offset| <= 1/2 at a local peak: 4 |num| / |den| * 2^29 fits.
            const Word32 q = fx::divide_dp(fx::L_shl(fx::L_abs(num), 2), fx::L_negate(den), 0);
            Word32 frac_q3 = fx::L_shr(fx::L_add(q, 1 << 27), 28);
            if (frac_q3 > 4) frac_q3 = 4;
            shift_q3 = fx::L_add(shift_q3, num < 0 ? fx::L_negate(frac_q3) : frac_q3);
        }
    }
    if (shift_q3 > max_shift_q3) shift_q3 = max_shift_q3;
    if (shift_q3 < -max_shift_q3) shift_q3 = -max_shift_q3;
    return static_cast<Word16>(shift_q3);
}

// Peak of the 3-sample energy x[n-1]^2 + x[n]^2 + x[n+1]^2 against its
// average, 3 sum x^2 / len, in Q8 (saturated).
EVRC_API Word16 evrc_peak_to_avg_ratio(const Word16 *x, Word16 len, Word16 *peak_pos) {
    fx::CallScope scope;
    *peak_pos = 0;
    if (len < 3 || len > kMaxSegment) return 0;
    Word16 peak = 0;
    for (int n = 0; n < len; ++n) peak = fx::MAX16(peak, fx::abs_s(x[n]));
    if (peak == 0) return 0;
    const Word16 scale = fx::sub(fx::norm_s(peak), 4);
    Word16 y[kMaxSegment];
    Word32 total = 0;
    for (int n = 0; n < len; ++n) {
        y[n] = fx::shl(x[n], scale);
        total = fx::L_mac(total, y[n], y[n]);
    }
    Word32 best = -1;
    for (int n = 1; n < len - 1; ++n) {
        Word32 e = fx::L_mult(y[n - 1], y[n - 1]);
        e = fx::L_mac(e, y[n], y[n]);
        e = fx::L_mac(e, y[n + 1], y[n + 1]);
        if (e > best) {
            best = e;
            *peak_pos = static_cast<Word16>(n);
        }
    }
    // ratio = best * len / (3 total)
    const Pf num = Pf::from_l(best).mul(Pf::from_l(fx::L_deposit_l(len)));
    const Pf den = Pf::from_l(fx::L_deposit_l(3)).mul(Pf::from_l(total));
    const Pf q = num.div(den);
    // q holds best * len / (3 total); in Q8 that is q << 8.
    Pf q8 = q;
    q8.e = fx::add(q8.e, 8);
    return q8.to_q15();
}

// out[n] = in[n - shift] at Q3 shift; in[-m .. len + m) must be readable,
// m = 9 + |shift| / 8.
EVRC_API void evrc_rcelp_fixed_block_interp(const Word16 *in, Word16 *out, Word16 shift_q3, Word16 len) {
    fx::CallScope scope;
    const int margin = kTapsHalf + 1 + (shift_q3 < 0 ? -shift_q3 : shift_q3) / 8;
    for (int n = 0; n < len; ++n) {
        const Word32 pos_q3 = (static_cast<Word32>(n + margin) << 3) - shift_q3;
        out[n] = read_at(in - margin, len + 2 * margin, pos_q3);
    }
}

// The new accumulated shift, held within its bound; sigmod[0] keeps the last
// change (Q8) and sigmod[1] counts shift frames spent at the bound.
EVRC_API void evrc_update_hysteresis(EvrcEncoderState *state, Word16 shift_q8) {
    fx::CallScope scope;
    const Word16 bounded = clamp_accum(shift_q8);
    state->sigmod[0] = fx::sub(bounded, state->sAccumShift);
    state->sigmod[1] = (bounded == kMaxAccumQ8 || bounded == -kMaxAccumQ8) ? fx::add(state->sigmod[1], 1) : 0;
    state->sAccumShift = bounded;
}

}  // extern "C"
