// Eighth-rate decoding: the frame is rebuilt as Gaussian noise scaled by
// three subframe gains and shaped by the frame's LPC envelope. The erasure
// path reuses it with gains of its own (use_conceal_gains = 1).
#include <cstring>

#include "codec/basic/fixed_point.h"
#include "codec/dec/excitation_internal.h"
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
    Word16 noise[EVRC_FRAME_SIZE];
    for (Word16 &v : noise) v = evrc_ran_gaussian(&st->gauss);

    const Word16 *gains = select_gain_row(st, fp, use_conceal_gains);
    Word16 *cur = st->exc_history + EVRC_HISTORY_LEN;

    for (int j = 0; j < 3; ++j) {
        const Word16 L = evrc_acsSubFrameSize[j];
        const int start = 53 * j;

        scale_noise(noise + start, gains[j], cur, L);
        evrc_dec::shift_exc_history(st, L);

        Word16 sub_lsp[10];
        cmn1x_interpolate_lsp(st->prev_lsp, fp->lsp, sub_lsp, evrc_acsLSPInterpTbl[j]);
        cmn1x_lsp2lpc(sub_lsp, st->lpc, 3);

        evrc_voc_synthesis_filter(st->lpc, cur, cur, st->syn_mem[0], L);
        if (postfilter_off == 0) {
            Word16 postfiltered[EVRC_MAX_SUBFRAME];
            evrc_decoder_postfilter(st, postfiltered, evrc_acsGamma57Tab, evrc_acsGamma57Tab, L, 0);
            evrc_decoder_agc(st, cur, postfiltered, cur, 0, L);
        }
        std::memcpy(output + start, cur, sizeof(Word16) * static_cast<size_t>(L));
    }

    std::memcpy(st->prev_lsp, fp->lsp, sizeof st->prev_lsp);
    st->prev_rate = EVRC_RATE_EIGHTH;
    st->prev_erased = erased;
    evrc_decoder_gain_adjust(st, output);
}

}  // extern "C"
