// Frame erasure concealment. A frame lost at rate 1 or rate 1/2 continues the
// last voiced signal: the adaptive codebook alone at the last pitch delay,
// with the last LSPs and attenuated gains, and some noise when the signal
// was weakly voiced. A frame lost at a lower rate becomes an eighth-rate
// noise frame at the mean gain of the last eighth-rate gain row.
#include <cstring>

#include "codec/basic/fixed_point.h"
#include "codec/common/constants.h"
#include "codec/dec/excitation_internal.h"
#include "codec/dec/frame_tail.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"

namespace {

constexpr Word16 kRepeatAttenuation = 24576;  // 0.75 per further erasure
constexpr Word16 kNoiseMixBelow = 6554;       // avg_acb_gain threshold for noise
constexpr Word16 kFlatDelayAbove = 4914;      // avg_acb_gain threshold for the last delay
constexpr Word16 kRampStep = 1638;            // pre-filter ramp drop per subframe
constexpr Word16 kNoiseGainFraction = 3277;   // 0.1 of the fixed-codebook gain
constexpr Word16 kOneThird = 10923;

// Delay points of subframe j: the last delay held flat for a voiced signal,
// a fixed jittered pattern for a weakly voiced one.
void concealment_delay(const EvrcDecoderState *st, const EvrcFrameParams *fp, int j, Word32 *points) {
    if (st->avg_acb_gain > kFlatDelayAbove) {
        evrc_interpol_delay(fp->delay, st->prev_delay, static_cast<Word16>(j), points);
        return;
    }
    for (int i = 0; i < 3; ++i) points[i] = fx::L_deposit_h(evrc_acsRandomDelay[j + i]);
}

// Attenuates the adaptive-codebook excitation: e·avg_acb_gain (Q14) scaled
// to Q15 and rounded, then weighted by the pre-filter ramp.
void attenuate(Word16 *exc, int L, Word16 avg_acb_gain, Word16 ramp) {
    for (int i = 0; i < L; ++i) {
        const Word32 product = static_cast<Word32>(exc[i]) * avg_acb_gain;
        const uint64_t scaled = 4u * static_cast<uint64_t>(static_cast<int64_t>(product)) + 32768u;
        exc[i] = fx::mult_r(ramp, fx::extract_h(static_cast<Word32>(static_cast<uint32_t>(scaled))));
    }
}

Word16 lower_ramp(Word16 ramp) {
    const Word16 r = fx::sub(ramp, kRampStep);
    return r < 0 ? 0 : r;
}

void mix_noise(Word16 *exc, const Word16 *noise, int L, Word16 avg_fcb_gain) {
    const Word16 gn = fx::mult_r(avg_fcb_gain, kNoiseGainFraction);
    for (int i = 0; i < L; ++i)
        exc[i] = fx::extract_h(fx::L_add(fx::L_mult(noise[i], gn), fx::L_add(fx::L_deposit_h(exc[i]), 32768)));
}

// Noise for weakly voiced frames, from a generator seeded by the tenth LSP
// so that the decoder's own noise sequence is left alone.
bool draw_mixing_noise(const EvrcDecoderState *st, const EvrcFrameParams *fp, Word16 *noise) {
    if (st->avg_acb_gain >= kNoiseMixBelow) return false;
    EvrcGaussRecord gen{0, 0, fx::shl(fp->lsp[9], 1)};
    for (int i = 0; i < EVRC_MAX_SUBFRAME; ++i) noise[i] = evrc_ran_gaussian(&gen);
    return true;
}

void conceal_voiced(EvrcDecoderState *st, EvrcFrameParams *fp, Word16 *output, Word16 rate, Word16 erased,
                    int postfilter_off) {
    fp->delay = st->prev_delay;
    if (rate == EVRC_RATE_FULL) std::memcpy(st->exc_saved, st->exc_history, sizeof st->exc_saved);

    Word16 noise[EVRC_MAX_SUBFRAME];
    const bool with_noise = draw_mixing_noise(st, fp, noise);
    const evrc_dec::PostfilterSetting pf = evrc_dec::speech_postfilter(rate);
    const bool postfilter = evrc_dec::erasure_postfilter_on(postfilter_off);
    Word16 *cur = evrc_dec::current_subframe(st);

    for (int j = 0; j < evrc::kSubframes; ++j) {
        const Word16 L = evrc_acsSubFrameSize[j];

        Word32 points[3];
        concealment_delay(st, fp, j, points);
        evrc_rx_acb_excitation(points, cur, L);
        attenuate(cur, L, st->avg_acb_gain, st->prefilter_ramp);
        st->prefilter_ramp = lower_ramp(st->prefilter_ramp);
        if (with_noise) mix_noise(cur, noise, L, st->avg_fcb_gain);

        Word16 prefiltered[EVRC_MAX_SUBFRAME];
        evrc_pitch_pre_filter(cur + L - 1, st->pitch_lag, prefiltered, st->acb_gain, L);
        evrc_dec::shift_exc_history(st, L);
        evrc_dec::subframe_output(st, prefiltered, pf, postfilter, j, output);
    }
    // fp->lsp holds the previous frame's LSPs, so the clean-up keeps them.
    evrc_dec_clean_up(st, fp, output, rate, erased);
}

// Rounded mean of the three gains of the last eighth-rate gain row.
Word16 mean_gain(const Word16 *row) {
    Word32 acc = 32768;
    for (int i = 0; i < 3; ++i) acc = fx::L_mac(acc, row[i], kOneThird);
    return fx::extract_h(acc);
}

void conceal_as_eighth_rate(EvrcDecoderState *st, EvrcFrameParams *fp, Word16 *output, Word16 erased,
                            int postfilter_off) {
    const Word16 *row = st->pow_quant_ptr.ptr != nullptr ? st->pow_quant_ptr.ptr : evrc_acsPowQuant[0];
    const Word16 g = mean_gain(row);
    for (Word16 &c : st->conceal_gains) c = g;
    evrc_decode_8th(st, fp, output, erased, 1, postfilter_off);
}

}  // namespace

extern "C" {

EVRC_API void evrc_decode_erasure(EvrcDecoderState *st, EvrcFrameParams *fp, Word16 *output, Word16 rate, Word16 erased,
                                  int postfilter_off) {
    fx::CallScope scope;
    st->erasure_count = fx::add(st->erasure_count, 1);

    std::memcpy(fp->lsp, st->prev_lsp, sizeof fp->lsp);
    cmn1x_lsp2lpc(fp->lsp, st->lpc, evrc::kLspToLpcShift);

    if (st->prev_erased == 1) st->avg_acb_gain = fx::mult_r(st->avg_acb_gain, kRepeatAttenuation);

    if (rate > EVRC_RATE_QUARTER)
        conceal_voiced(st, fp, output, rate, erased, postfilter_off);
    else
        conceal_as_eighth_rate(st, fp, output, erased, postfilter_off);
}

}  // extern "C"
