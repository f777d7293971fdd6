// Short-term postfilter with tilt compensation:
//   H(z) = (1 - mu z^-1) * A(z / gz) / A(z / gp)
// applied to the synthesised current subframe, with A(z) the subframe's LPC
// filter, gz and gp given as tables of powers g^1..g^10 (Q15).
#include "codec/basic/fixed_point.h"
#include "codec/common/constants.h"
#include "codec/dec/excitation_internal.h"
#include "evrc/evrc_dec.h"

namespace {

using evrc::kOrder;

// Tilt compensation t[n] = s[n] - mu * s[n-1] into dst, s[-1] being the last
// sample of the previous subframe; remembers s[L-1] for the next call.
void tilt_compensate(EvrcDecoderState *st, const Word16 *s, Word16 *dst, int L, Word16 mu) {
    Word16 prev = st->tilt_last;
    for (int n = 0; n < L; ++n) {
        const Word32 acc = fx::L_msu(static_cast<Word32>(s[n]) * 65536 + 32768, mu, prev);
        dst[n] = static_cast<Word16>(acc >> 16);
        prev = s[n];
    }
    if (L > 0) {
        st->tilt_last = prev;
    }
}

}  // namespace

extern "C" {

// Reads the synthesised subframe from the state's current subframe
// (exc_history + 128, L samples) and the state's lpc; writes the postfiltered
// subframe to out[0 .. L). Updates tilt_last, the ten remembered samples of
// pf_buf and the pole memory syn_mem[1].
EVRC_API void evrc_decoder_postfilter(EvrcDecoderState *st, Word16 *out, const Word16 *poles, const Word16 *zeros,
                                      Word16 L, Word16 tilt) {
    fx::CallScope scope;
    if (L <= 0) {
        return;
    }
    if (L > EVRC_MAX_SUBFRAME) {
        L = EVRC_MAX_SUBFRAME;
    }
    const Word16 *s = evrc_dec::current_subframe(st);
    tilt_compensate(st, s, st->pf_buf + kOrder, L, tilt);

    Word16 c[kOrder];
    evrc_bwe_lpc_sp(st->lpc, c, zeros);  // c_k = gz^k a_k
    evrc_voc_prediction_filter(st->pf_buf, c, out, L, 4);

    for (int k = 0; k < kOrder; ++k) {
        st->pf_buf[k] = st->pf_buf[L + k];
    }

    evrc_bwe_lpc_sp(st->lpc, c, poles);
    evrc_voc_synthesis_filter(c, out, out, st->syn_mem[1], L);
}

}  // extern "C"
