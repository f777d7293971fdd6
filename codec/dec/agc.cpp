// Automatic gain control: scales a processed signal so that its energy
// matches that of the unprocessed reference. After the postfilter (mode 0)
// the gain is smoothed with the previous one; after the pitch pre-filter
// (mode 1) it is used as it is.
#include "codec/basic/fixed_point.h"
#include "codec/dec/reference_forms.h"
#include "evrc/evrc_dec.h"

namespace {

// A gain ratio of 2^30 in Q28 (gain 2.0) or more saturates the gain.
constexpr Word32 kRatioLimit = 1073741824;

// Exact sum of squares, scaled down by 64. Each square is at most 2^30 and
// non-negative, so it is summed as an unsigned word widened to 64 bits (which
// vectorises without sign extension).
Word32 energy(const Word16 *x, int L) {
    UWord64 e = 0;
    for (int n = 0; n < L; ++n) e += static_cast<UWord32>(x[n] * x[n]);
    return static_cast<Word32>(e >> 6);
}

// out[n] = round32(L_shl(L_mult(g, in[n]), 1)), operations of weight 1 + 2 + 1
// per sample. With p = g in[n] the chain is 4p clamped to 32 bits, then rounded:
// (4p + 2^15) >> 16 = (p + 2^13) >> 14 clamped to 16 bits, and some operator
// saturates exactly when 4p >= 0x7FFF8000 (L_mult's lone overflow, p = 2^30,
// is among these) or 4p < -2^31. In 32 bits, so the loop vectorises.
// The samples pass through a local block, so that in-place calls vectorise
// too.
void scale(Word16 g, const Word16 *in, Word16 *out, int L) {
    if (L <= 0) return;
    fx::charge(4u * static_cast<UWord32>(L));
    constexpr int kBlock = 64;
    Word16 x[kBlock];
    Word32 clamped = 0;
    for (int done = 0; done < L; done += kBlock) {
        const int len = L - done < kBlock ? L - done : kBlock;
        for (int n = 0; n < len; ++n) x[n] = in[done + n];
        for (int n = 0; n < len; ++n) {
            const Word32 p = static_cast<Word32>(g) * x[n];
            clamped |= (p >= 0x1FFFE000) | (p < -0x20000000);
            Word32 r = (p + 0x2000) >> 14;
            r = r > fx::kMax16 ? fx::kMax16 : r;
            r = r < fx::kMin16 ? fx::kMin16 : r;
            out[done + n] = static_cast<Word16>(r);
        }
    }
    if (clamped) fx::raise_overflow();
}

void scale_reference(Word16 g, const Word16 *in, Word16 *out, int L) {
    for (int n = 0; n < L; ++n) out[n] = fx::round32(fx::L_shl(fx::L_mult(g, in[n]), 1));
}

// The gain g (Q14) is sqrt(E_ref / E_in); out[n] = in[n] * g * 4 / 65536,
// rounded and saturated. Returns 0 and leaves out and the smoothed gain
// untouched when either energy is 0 (out may be ref, which then keeps the
// unprocessed signal), else 1. out may equal in or ref.
template <void (*Scale)(Word16, const Word16 *, Word16 *, int)>
Word16 agc(EvrcDecoderState *st, const Word16 *ref, const Word16 *in, Word16 *out, Word16 mode, Word16 L) {
    const Word32 e_ref = energy(ref, L);
    const Word32 e_in = energy(in, L);
    if (e_ref == 0 || e_in == 0) {
        return 0;
    }
    const Word32 ratio = fx::divide_dp(e_ref, e_in, -1);
    Word16 g = ratio < kRatioLimit ? fx::square_root(ratio) : 32767;
    if (mode == 0) {
        const Word64 mixed = 2 * static_cast<Word64>(st->agc_new_weight) * g +
                             2 * static_cast<Word64>(st->agc_prev_weight) * st->agc_prev_gain;
        g = static_cast<Word16>(mixed >> 16);
        st->agc_prev_gain = g;
    }
    Scale(g, in, out, L);
    return 1;
}

}  // namespace

Word16 evrc_dec::decoder_agc_reference(EvrcDecoderState *st, const Word16 *ref, const Word16 *in, Word16 *out,
                                       Word16 mode, Word16 L) {
    return agc<scale_reference>(st, ref, in, out, mode, L);
}

extern "C" {

EVRC_API Word16 evrc_decoder_agc(EvrcDecoderState *st, const Word16 *ref, const Word16 *in, Word16 *out, Word16 mode,
                                 Word16 L) {
    fx::CallScope scope;
    return agc<scale>(st, ref, in, out, mode, L);
}

}  // extern "C"
