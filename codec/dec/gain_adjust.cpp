// End-of-frame output scaling and the gain bookkeeping that goes with it.
#include "codec/basic/fixed_point.h"
#include "codec/common/constants.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"

namespace {

constexpr int kBlock = 40;
constexpr Word16 kFcbGainDecay = 24500;       // per concealed frame, first three
constexpr Word16 kFcbGainDecayLate = 6125;    // 24500 / 4, from the third on
constexpr Word16 kFastDecayAfter = 3;

// A positive sample first loses 1, then every sample is doubled with
// saturation: 1 -> 0, -1 -> -2, 16384 -> 32766, 16385 and above -> 32767.
Word16 double_sample(Word16 x) {
    if (x > 0) x = fx::sub(x, 1);
    return fx::round32(fx::L_shl(fx::L_deposit_h(x), 1));
}

}  // namespace

extern "C" {

EVRC_API void evrc_decoder_gain_adjust(EvrcDecoderState *st, Word16 *output) {
    fx::CallScope scope;
    for (int block = 0; block < EVRC_FRAME_SIZE; block += kBlock) {
        for (int i = block; i < block + kBlock; ++i) output[i] = double_sample(output[i]);
    }
    if (st->prev_erased == 0) {
        st->erasure_count = 0;
        return;
    }
    st->avg_fcb_gain = fx::mult(st->avg_fcb_gain,
                                st->erasure_count < kFastDecayAfter ? kFcbGainDecay : kFcbGainDecayLate);
    st->pow_quant_ptr.ptr = &evrc_acsPowQuant[0][0];
}

EVRC_API void evrc_dec_clean_up(EvrcDecoderState *st, EvrcFrameParams *fp, Word16 *output, Word16 rate,
                                Word16 erased) {
    fx::CallScope scope;
    for (int i = 0; i < evrc::kOrder; ++i) st->prev_lsp[i] = fp->lsp[i];
    st->prev_rate = rate;
    st->prev_erased = erased;
    evrc_decoder_gain_adjust(st, output);
}

}  // extern "C"
