// Subframe LPC and subframe output shared by the decoder's frame paths; the
// end of every frame is evrc_dec_clean_up (gain_adjust.cpp).
#include "codec/dec/frame_tail.h"

#include "codec/common/constants.h"
#include "codec/dec/excitation_internal.h"
#include "evrc/evrc_tables.h"

namespace evrc_dec {

namespace {

constexpr Word16 kTiltFull = 6554;   // 0.2
constexpr Word16 kTiltHalf = 11469;  // 0.35

}  // namespace

PostfilterSetting speech_postfilter(Word16 rate) {
    if (rate == EVRC_RATE_HALF) return {evrc_acsGamma75Tab, evrc_acsGamma50Tab, kTiltHalf};
    return {evrc_acsGamma75Tab, evrc_acsGamma57Tab, kTiltFull};
}

PostfilterSetting eighth_rate_postfilter() { return {evrc_acsGamma57Tab, evrc_acsGamma57Tab, 0}; }

void subframe_lpc(EvrcDecoderState *st, const Word16 *lsp, int k) {
    Word16 sub_lsp[evrc::kOrder];
    cmn1x_interpolate_lsp(st->prev_lsp, lsp, sub_lsp, evrc_acsLSPInterpTbl[k]);
    cmn1x_lsp2lpc(sub_lsp, st->lpc, evrc::kLspToLpcShift);
}

void subframe_output(EvrcDecoderState *st, const Word16 *prefiltered, const PostfilterSetting &pf, bool postfilter,
                     int k, Word16 *output) {
    Word16 *cur = current_subframe(st);
    const Word16 L = evrc_acsSubFrameSize[k];
    if (postfilter && prefiltered != nullptr) evrc_decoder_agc(st, cur, prefiltered, cur, 1, L);
    evrc_voc_synthesis_filter(st->lpc, cur, cur, st->syn_mem[0], L);
    if (postfilter) {
        Word16 postfiltered[EVRC_MAX_SUBFRAME];
        evrc_decoder_postfilter(st, postfiltered, pf.poles, pf.zeros, L, pf.tilt);
        evrc_decoder_agc(st, cur, postfiltered, cur, 0, L);
    }
    Word16 *out = output + evrc::subframe_start(k);
    for (int i = 0; i < L; ++i) out[i] = cur[i];
}

}  // namespace evrc_dec
