// Rate decision from band energies against a running background-noise
// estimate, and the scalar noise level kept beside it.
//
// Two bands (low, high) are measured from the frame's autocorrelation: the
// energy of band k is sum_i r_i * h_k(i), h_k the autocorrelation of the band
// filter. A band whose energy exceeds f_hi(SNR) times its noise estimate asks
// for full rate; one at or below f_lo(SNR) times the estimate for eighth; the
// frame takes the higher band rate, with a hangover of extra full-rate frames
// after speech that depends on the low band's SNR. The noise estimate creeps
// up slowly (or tracks the smoothed energy down at once), the signal estimate
// follows peaks and decays slowly in voiced stretches, and their log ratio
// gives each band's SNR index 0..7.
#include "codec/basic/fixed_point.h"
#include "evrc/evrc_enc.h"
#include "evrc/evrc_tables.h"

namespace {

constexpr int kLags = 17;
constexpr Word16 kMaxScaleShift = 30;
constexpr Word16 kOldWeightQ15 = 19661;  // 0.6
constexpr Word16 kNewWeightQ15 = 13107;  // 0.4
constexpr Word16 kNoiseThreshShift = 7;  // thresholds are in 1/256 of the noise (Q15 product)

constexpr Word16 kRateEighth = 1;
constexpr Word16 kRateHalf = 3;
constexpr Word16 kRateFull = 4;

constexpr Word16 kBetaLowQ15 = 9831;    // 0.3
constexpr Word16 kBetaHighQ15 = 16384;  // 0.5
constexpr Word16 kLowBetaFrames = 7;
constexpr Word16 kHighBetaFrames = 5;
constexpr Word16 kScaleUnityQ14 = 16384;
constexpr Word16 kScaleSlowQ14 = 16474;     // 1.0055
constexpr Word16 kScaleFastQ14 = 16876;     // 1.03
constexpr UWord16 kSignalDecayQ15 = 31785;  // 0.97
constexpr UWord16 kSignalHoldQ15 = 32768;   // 1.0

constexpr Word32 kNoiseCap = 5059644;
constexpr Word32 kNoiseFloor[2] = {10, 5};

constexpr Word16 kLog10Of2Q16 = 19728;
constexpr Word32 kSnrOffset = 262144;  // 4.0 in the Q16 index scale
constexpr Word16 kSnrMaxIndex = 7;

constexpr Word16 kLevelScale = 8974;
constexpr Word16 kLevelNewQ15 = 10923;  // 1/3
constexpr Word16 kLevelOldQ15 = 21845;  // 2/3
constexpr Word16 kDivideQ = 2;
constexpr int kFrame = 160;

// Saturation to the destination width, leaving the overflow flag alone.
inline Word16 sat16q(Word32 x) { return static_cast<Word16>(x > 32767 ? 32767 : (x < -32768 ? -32768 : x)); }
inline Word32 sat32q(Word64 x) {
    return static_cast<Word32>(x > fx::kMax32 ? fx::kMax32 : (x < fx::kMin32 ? fx::kMin32 : x));
}
inline Word16 hi16(Word32 x) { return static_cast<Word16>(x >> 16); }
inline Word32 lo16u(Word32 x) { return x & 0xFFFF; }
inline Word16 bump(Word16 c) { return c == 32767 ? c : static_cast<Word16>(c + 1); }

// w1 * x1 + w2 * x2 for Q15 weights, high halves through L_mult, unsigned low
// halves by plain products shifted right by 15, summed exactly, saturated once.
Word32 weighted_sum_q15(Word32 x1, Word16 w1, Word32 x2, Word16 w2) {
    const Word64 sum = static_cast<Word64>(fx::L_mult(hi16(x1), w1)) + ((lo16u(x1) * w1) >> 15) +
                       static_cast<Word64>(fx::L_mult(hi16(x2), w2)) + ((lo16u(x2) * w2) >> 15);
    return sat32q(sum);
}

Word16 band_rate(Word32 energy, Word32 noise, Word16 snr_index) {
    const Word32 t = fx::L_shl(noise, kNoiseThreshShift);
    // Indices come from cmn1x_compute_snr (0..7); others are kept in the table.
    const Word32 factors = evrc_acnRateThreshScaleFact[snr_index < 0 ? 0 : (snr_index > 7 ? 7 : snr_index)];
    const Word32 upper = fx::L_mult_32_16(t, hi16(factors));
    const Word32 lower = fx::L_mult_32_16(t, static_cast<Word16>(factors & 0xFFFF));
    if (energy > upper) return kRateFull;
    if (lower >= energy) return kRateEighth;
    return kRateHalf;
}

void noise_flags_from_snr(const Word16 snr_index[2], Word16 flag[2], Word16 scale[2]) {
    for (int k = 0; k < 2; ++k) {
        flag[k] = snr_index[k] > 3 ? 1 : 0;
        scale[k] = snr_index[k] < 4 ? kScaleUnityQ14 : kScaleSlowQ14;
    }
}

}  // namespace

extern "C" {

EVRC_API Word16 evrc_rate_selection(const Word32 autocorr[17], const Word16 snr_index[2], const Word32 noise[2],
                                    Word32 band_energy[2], Word16 *hangover, Word16 *first_frame_done, Word16 prev_rate,
                                    Word16 last_rate, Word16 window_shift, Word16 autocorr_shift) {
    fx::CallScope scope;
    // The window scales the frame by 2^w (energies by 2^2w), the correlation by 2^a.
    Word16 s = sat16q(static_cast<Word32>(sat16q(static_cast<Word32>(window_shift) + window_shift)) + autocorr_shift);
    if (s > kMaxScaleShift) s = kMaxScaleShift;
    s = sat16q(static_cast<Word32>(s) + 1);

    Word16 rate = kRateEighth;
    for (int k = 0; k < 2; ++k) {
        Word64 acc = 0;
        for (int i = 0; i < kLags; ++i) acc += static_cast<Word32>(hi16(autocorr[i])) * evrc_acsBandFiltAuto[k][i];
        const Word32 energy = sat32q(fx::L_shr64(acc, s));
        band_energy[k] = weighted_sum_q15(band_energy[k], kOldWeightQ15, energy, kNewWeightQ15);
        const Word16 r = band_rate(energy, noise[k], snr_index[k]);
        if (r > rate) rate = r;
    }

    if (rate == kRateFull) {
        *hangover = 0;
        return rate;
    }
    if (prev_rate == kRateFull && last_rate == kRateFull) {
        if (*first_frame_done == 1) {
            // The first speech-to-silence step after start gets no hangover.
            *first_frame_done = 2;
            return rate;
        }
        // Hangover after speech: none at a high low-band SNR, 3 frames at
        // index 3, 7 frames below.
        const Word16 q = snr_index[0];
        const bool hang = q < 4 && *hangover <= (q == 3 ? 2 : 6);
        if (hang) {
            *hangover = bump(*hangover);
            return kRateFull;
        }
    }
    return rate;
}

EVRC_API void evrc_update_rate_info(Word32 noise[2], const Word32 band_energy[2], Word32 signal[2], Word16 snr_index[2],
                                    Word16 *low_beta_count, Word16 *high_beta_count, Word16 beta) {
    fx::CallScope scope;
    Word16 flag[2];
    Word16 scale[2];
    if (beta < kBetaLowQ15) {
        if (*low_beta_count > kLowBetaFrames) {
            // A long unvoiced stretch: let the noise estimate rise faster.
            flag[0] = flag[1] = 1;
            scale[0] = scale[1] = kScaleFastQ14;
        } else {
            *low_beta_count = bump(*low_beta_count);
            noise_flags_from_snr(snr_index, flag, scale);
        }
    } else {
        *low_beta_count = 0;
        noise_flags_from_snr(snr_index, flag, scale);
    }
    cmn1x_compute_bne(noise, band_energy, flag, scale);

    UWord16 g = kSignalHoldQ15;
    if (beta >= kBetaHighQ15) {
        if (*high_beta_count >= kHighBetaFrames) g = kSignalDecayQ15;
        *high_beta_count = bump(*high_beta_count);
    } else {
        *high_beta_count = 0;
    }
    cmn1x_compute_signal(signal, band_energy, g);
    cmn1x_compute_snr(signal, noise, snr_index);
}

EVRC_API Word32 cmn1x_compute_bne(Word32 noise[2], const Word32 band_energy[2], const Word16 flag[2],
                                  const Word16 scale[2]) {
    fx::CallScope scope;
    for (int k = 0; k < 2; ++k) {
        const Word32 n = noise[k];
        // n * m in Q14: unsigned low half plainly, high half through L_mult.
        const Word32 scaled =
            sat32q(((lo16u(n) * scale[k]) >> 14) + 2 * static_cast<Word64>(fx::L_mult(hi16(n), scale[k])));
        const Word32 raised = sat32q(static_cast<Word64>(n) + (fx::L_mult(flag[k], flag[k]) >> 1));
        const Word32 rise = fx::MAX32(raised, scaled);
        const Word32 cap = fx::MIN32(band_energy[k], kNoiseCap);
        noise[k] = fx::MAX32(fx::MIN32(rise, cap), kNoiseFloor[k]);
    }
    return noise[1];
}

EVRC_API Word32 cmn1x_compute_signal(Word32 signal[2], const Word32 band_energy[2], UWord16 gain) {
    fx::CallScope scope;
    for (int k = 0; k < 2; ++k) {
        const Word32 s = signal[k];
        const Word32 decayed =
            sat32q(static_cast<Word64>(hi16(s)) * gain * 2 + ((static_cast<Word64>(lo16u(s)) * gain) >> 15));
        signal[k] = fx::MAX32(band_energy[k], decayed);
    }
    return signal[1];
}

EVRC_API void cmn1x_compute_snr(const Word32 signal[2], const Word32 noise[2], Word16 snr_index[2]) {
    fx::CallScope scope;
    for (int k = 0; k < 2; ++k) {
        const Word32 diff = static_cast<Word32>(fx::log2(signal[k])) - fx::log2(noise[k]);  // Q10
        const Word16 d = static_cast<Word16>(static_cast<UWord16>(diff));
        // 10 log10(ratio) / 3 dB steps, minus 4: index in Q16, rounded.
        const Word32 v = (fx::L_mult(kLog10Of2Q16, d) >> 10) + 32768 - kSnrOffset;
        Word16 index = hi16(v);
        if (index < 0) index = 0;
        if (index > kSnrMaxIndex) index = kSnrMaxIndex;
        snr_index[k] = index;
    }
}

EVRC_API void evrc_background_noise_estimation(EvrcEncoderState *state, const Word16 *speech) {
    fx::CallScope scope;
    const Word32 ratio = fx::divide_dp(state->pred_error, state->autocorr[0], kDivideQ);
    state->pred_gain = hi16(ratio);

    Word64 acc = 0;
    for (int n = 0; n < kFrame; ++n) acc += static_cast<Word32>(speech[n]) * speech[n];
    const Word32 energy = sat32q(acc);

    // Residual energy estimate: frame energy times the prediction error ratio.
    const Word32 residual_energy = fx::extract64_l(fx::L_mult64_32_32(energy, ratio));
    const Word32 level = fx::L_mult(kLevelScale, fx::square_root(residual_energy)) >> 1;
    const Word16 level_hi = hi16(level);

    if (static_cast<Word32>(state->noise_level) > static_cast<Word32>(level_hi) * 2) state->noise_level = level_hi;
    if (state->noise_pending == 0 && state->sRate != kRateEighth) return;

    Word32 smooth = fx::L_mac(32768, level_hi, kLevelNewQ15);
    smooth = fx::L_mac(smooth, state->noise_level, kLevelOldQ15);
    state->noise_level = hi16(smooth);
    state->noise_pending = 0;
    for (int i = 0; i < 10; ++i) state->noise_lpc[i] = hi16(state->lpc[i]);
}

}  // extern "C"
