// Short-term postfilter with tilt compensation:
//   H(z) = (1 - mu z^-1) * A(z / gz) / A(z / gp)
// applied to the synthesised current subframe, with A(z) the subframe's LPC
// filter, gz and gp given as tables of powers g^1..g^10 (Q15).
#include <cstdint>

#include "codec/basic/fixed_point.h"
#include "codec/common/constants.h"
#include "codec/dec/excitation_internal.h"
#include "codec/dec/reference_forms.h"
#include "evrc/evrc_dec.h"

namespace {

using evrc::kOrder;

}  // namespace

// Tilt compensation t[n] = s[n] - mu * s[n-1] into dst, s[-1] being the last
// sample of the previous subframe; remembers s[L-1] for the next call. One
// multiply-subtract (weight 1) per sample, charged once. In 32 bits: with
// p = -mu s[n-1] (|p| <= 2^30) the operator's s[n] 2^16 + 2^15 + 2p has the
// high half r = s[n] + ((p + 2^14) >> 15) and leaves the 32-bit range
// exactly when r leaves the 16-bit range, where it clamps and flags.
void evrc_dec::tilt_compensate(EvrcDecoderState *st, const Word16 *s, Word16 *dst, int L, Word16 mu) {
    if (L <= 0) return;
    fx::charge(static_cast<UWord32>(L));
    Word32 clamped = 0;
    const auto tilted = [&](Word16 x, Word16 before) {
        Word32 r = x + ((16384 - static_cast<Word32>(mu) * before) >> 15);
        clamped |= (r > fx::kMax16) | (r < fx::kMin16);
        r = r > fx::kMax16 ? fx::kMax16 : r;
        r = r < fx::kMin16 ? fx::kMin16 : r;
        return static_cast<Word16>(r);
    };
    const auto address = [](const Word16 *p) { return reinterpret_cast<std::uintptr_t>(p); };
    if (address(dst + L) <= address(s) || address(dst) >= address(s + L)) {
        // Apart: each output from s alone, which vectorises.
        const Word16 last = s[L - 1];
        dst[0] = tilted(s[0], st->tilt_last);
        for (int n = 1; n < L; ++n) dst[n] = tilted(s[n], s[n - 1]);
        st->tilt_last = last;
    } else {
        Word16 prev = st->tilt_last;
        for (int n = 0; n < L; ++n) {
            dst[n] = tilted(s[n], prev);
            prev = s[n];
        }
        st->tilt_last = prev;
    }
    if (clamped) fx::raise_overflow();
}

void evrc_dec::tilt_compensate_reference(EvrcDecoderState *st, const Word16 *s, Word16 *dst, int L, Word16 mu) {
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
    evrc_dec::tilt_compensate(st, s, st->pf_buf + kOrder, L, tilt);

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
