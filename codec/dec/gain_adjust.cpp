// End-of-frame output scaling and the gain bookkeeping that goes with it.
#include "codec/basic/fixed_point.h"
#include "codec/common/constants.h"
#include "codec/dec/reference_forms.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"

namespace {

constexpr Word16 kFcbGainDecay = 24500;     // per concealed frame, first three
constexpr Word16 kFcbGainDecayLate = 6125;  // 24500 / 4, from the third on
constexpr Word16 kFastDecayAfter = 3;

// Weight of doubling one sample: L_deposit_h 1, L_shl 2, round32 1, and the
// sub of a positive sample 1 more.
constexpr UWord32 kDoubleWeight = 4;

// A positive sample first loses 1, then every sample is doubled with
// saturation: 1 -> 0, -1 -> -2, 16384 -> 32766, 16385 and above -> 32767.
Word16 double_sample(Word16 x) {
    if (x > 0) x = fx::sub(x, 1);
    return fx::round32(fx::L_shl(fx::L_deposit_h(x), 1));
}

}  // namespace

// With y = x - (x > 0): sub cannot saturate; L_shl(y << 16, 1) saturates
// exactly when y >= 16384 or y < -16384 (to 2^31 - 1, which round32 also
// saturates, or to -2^31, which rounds to -32768), and otherwise gives
// y << 17 <= 0x7FFE0000, which round32 turns into 2y without saturating.
// So the chain is 2y clamped to 16 bits, flagging where 2y left the range.
void evrc_dec::double_samples(Word16 *x, int L) {
    Word32 positives = 0;
    Word32 clamped = 0;
    for (int i = 0; i < L; ++i) {
        const Word32 positive = x[i] > 0;
        positives += positive;
        Word32 r = 2 * (x[i] - positive);
        clamped |= (r > fx::kMax16) | (r < fx::kMin16);
        r = r > fx::kMax16 ? fx::kMax16 : r;
        r = r < fx::kMin16 ? fx::kMin16 : r;
        x[i] = static_cast<Word16>(r);
    }
    fx::charge(kDoubleWeight * static_cast<UWord32>(L) + static_cast<UWord32>(positives));
    if (clamped) fx::raise_overflow();
}

void evrc_dec::double_samples_reference(Word16 *x, int L) {
    for (int i = 0; i < L; ++i) x[i] = double_sample(x[i]);
}

extern "C" {

EVRC_API void evrc_decoder_gain_adjust(EvrcDecoderState *st, Word16 *output) {
    fx::CallScope scope;
    evrc_dec::double_samples(output, EVRC_FRAME_SIZE);
    if (st->prev_erased == 0) {
        st->erasure_count = 0;
        return;
    }
    st->avg_fcb_gain =
        fx::mult(st->avg_fcb_gain, st->erasure_count < kFastDecayAfter ? kFcbGainDecay : kFcbGainDecayLate);
    st->pow_quant_ptr.ptr = &evrc_acsPowQuant[0][0];
}

EVRC_API void evrc_dec_clean_up(EvrcDecoderState *st, EvrcFrameParams *fp, Word16 *output, Word16 rate, Word16 erased) {
    fx::CallScope scope;
    for (int i = 0; i < evrc::kOrder; ++i) st->prev_lsp[i] = fp->lsp[i];
    st->prev_rate = rate;
    st->prev_erased = erased;
    evrc_decoder_gain_adjust(st, output);
}

}  // extern "C"
