// Rebuilding of the excitation history of an erased frame once the next
// rate-1 frame tells its delay: the lost frame's delay is the current delay
// minus the packet's delta delay, and the history saved by the concealment is
// run again through the adaptive codebook along the lost frame's contour.
#include <cstring>
#include "codec/basic/fixed_point.h"

#include "codec/common/excitation.h"
#include "codec/dec/excitation_internal.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"

namespace {

constexpr int kDeltaDelayOffset = 16;  // the 5-bit delta delay is stored plus 16
constexpr int kInterpHalfTaps = 8;     // the adaptive codebook's filter has 2 * 8 + 1 taps

}  // namespace

extern "C" {

EVRC_API void evrc_fix_dlay_contour(EvrcDecoderState *st, EvrcFrameParams *fp) {
    fx::CallScope scope;
    const int lost_delay = fp->delay - fp->delta_delay + kDeltaDelayOffset;
    const Word16 dl = static_cast<Word16>(lost_delay);
    const int jump = st->prev_delay - lost_delay;
    st->erased_start_delay = (jump >= evrc::kDelayJump || jump <= -evrc::kDelayJump) ? dl : st->prev_delay;
    st->prev_delay = dl;

    std::memcpy(st->exc_history, st->exc_saved, sizeof(st->exc_saved));
    for (int k = 0; k < evrc::kSubframes; ++k) {
        const Word16 L = evrc_acsSubFrameSize[k];
        Word32 points[3];
        evrc_interpol_delay(dl, st->erased_start_delay, static_cast<Word16>(k), points);
        Word32 contour[evrc::kContourLen];
        evrc_construct_delay_contour(points, contour, L);
        evrc::block_interp_bounded(st->exc_history, evrc::kExcBufferLen, evrc::kExcHistoryLen, contour,
                                   &evrc_acsBlockCoeff8[0][0], kInterpHalfTaps, L + evrc::kLookAhead);
        evrc::shift_exc_history(st->exc_history, L);
    }
}

}  // extern "C"
