// Eighth-rate decoding: the frame is rebuilt as Gaussian noise scaled by
// three subframe gains and shaped by the frame's LPC envelope. The erasure
// path reuses it with gains of its own (use_conceal_gains = 1).
#include "codec/basic/fixed_point.h"
#include "codec/common/constants.h"
#include "codec/dec/excitation_internal.h"
#include "codec/dec/frame_tail.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"

namespace {

// Gain row of the frame: the energy index's row of the power codebook (which
// is remembered for a later concealment) or the concealment gains.
const Word16 *select_gain_row(EvrcDecoderState *st, const EvrcFrameParams *fp, Word16 use_conceal_gains) {
    if (use_conceal_gains != 0) return st->conceal_gains;
    // The index holds 8 bits; the mask keeps a hand-made record inside the table.
    const Word16 *row = evrc_acsPowQuant[fp->energy_index & 0xFF];
    st->pow_quant_ptr.ptr = row;
    return row;
}

// Scales L noise samples by gain g into the excitation (round(2·g·n / 2^22)).
void scale_noise(const Word16 *noise, Word16 g, Word16 *exc, int L) {
    for (int i = 0; i < L; ++i) exc[i] = fx::round32(fx::L_shr(fx::L_mult(g, noise[i]), 6));
}

}  // namespace

extern "C" {

EVRC_API void evrc_decode_8th(EvrcDecoderState *st, EvrcFrameParams *fp, Word16 *output, Word16 erased,
                              Word16 use_conceal_gains, int postfilter_off) {
    fx::CallScope scope;
    Word16 noise[EVRC_FRAME_SIZE];
    for (Word16 &v : noise) v = evrc_ran_gaussian(&st->gauss);

    const Word16 *gains = select_gain_row(st, fp, use_conceal_gains);
    Word16 *cur = evrc_dec::current_subframe(st);
    const evrc_dec::PostfilterSetting pf = evrc_dec::eighth_rate_postfilter();
    const bool postfilter = evrc_dec::eighth_rate_postfilter_on(postfilter_off);

    for (int j = 0; j < evrc::kSubframes; ++j) {
        const Word16 L = evrc_acsSubFrameSize[j];
        scale_noise(noise + evrc::subframe_start(j), gains[j], cur, L);
        evrc_dec::shift_exc_history(st, L);
        evrc_dec::subframe_lpc(st, fp->lsp, j);
        evrc_dec::subframe_output(st, nullptr, pf, postfilter, j, output);
    }
    evrc_dec_clean_up(st, fp, output, EVRC_RATE_EIGHTH, erased);
}

}  // extern "C"
