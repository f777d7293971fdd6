// Pitch pre-filter: a one-tap comb on the excitation at the subframe's pitch
// lag T, weighted by half the ACB gain and never more than 0.5:
//   out[n] = round(exc[n] + 2 * min(acb_gain, 16384) * exc[n - T] / 65536),
// the sum saturating.
#include <cstdint>

#include "codec/basic/fixed_point.h"
#include "codec/dec/excitation_internal.h"
#include "codec/dec/reference_forms.h"
#include "evrc/evrc_dec.h"

namespace evrc_dec {

namespace {

constexpr Word16 kMaxCombGain = 16384;

}  // namespace

// One multiply-accumulate (weight 1) per sample, summed exactly in 64 bits
// and clamped to 32 bits as the operator does; the weight is charged once and
// the flag raised once for the clamps. Last sample first, so that out may be
// the subframe itself.
void pitch_pre_filter_bounded(const Word16 *buf, int buf_len, int start, Word16 T, Word16 *out, Word16 acb_gain,
                              int L) {
    if (L <= 0) return;
    const Word16 g = acb_gain < kMaxCombGain ? acb_gain : kMaxCombGain;
    fx::charge(static_cast<UWord32>(L));
    Word32 clamped = 0;
    const auto address = [](const Word16 *p) { return reinterpret_cast<std::uintptr_t>(p); };
    const bool apart = address(out + L) <= address(buf) || address(out) >= address(buf + buf_len);
    if (apart && T >= 0 && start - T >= 0 && start + L <= buf_len) {
        // Every sample inside the buffer and out elsewhere: the order does not
        // matter and the loop needs no bounds. In 32 bits: with p = g xp
        // (|p| <= 2^30) the sum x 2^16 + 2p + 2^15 has the high half
        // r = x + ((p + 2^14) >> 15), and it leaves the 32-bit range exactly
        // when r leaves the 16-bit range, clamping to 32767 or -32768.
        const Word16 *x = buf + start;
        const Word16 *xp = buf + start - T;
        for (int n = 0; n < L; ++n) {
            Word32 r = x[n] + ((static_cast<Word32>(g) * xp[n] + 16384) >> 15);
            clamped |= (r > fx::kMax16) | (r < fx::kMin16);
            r = r > fx::kMax16 ? fx::kMax16 : r;
            r = r < fx::kMin16 ? fx::kMin16 : r;
            out[n] = static_cast<Word16>(r);
        }
        if (clamped) fx::raise_overflow();
        return;
    }
    for (int n = L - 1; n >= 0; --n) {
        const int cur = start + n;
        const int past = cur - T;
        const Word16 x = (cur >= 0 && cur < buf_len) ? buf[cur] : 0;
        const Word16 xp = (past >= 0 && past < buf_len) ? buf[past] : 0;
        const Word64 acc =
            static_cast<Word64>(x) * 65536 + 32768 + 2 * static_cast<Word64>(static_cast<Word32>(g) * xp);
        Word64 c = acc > fx::kMax32 ? fx::kMax32 : acc;
        c = c < fx::kMin32 ? fx::kMin32 : c;
        clamped |= c != acc;
        out[n] = static_cast<Word16>(c >> 16);
    }
    if (clamped) fx::raise_overflow();
}

void pitch_pre_filter_reference(const Word16 *buf, int buf_len, int start, Word16 T, Word16 *out, Word16 acb_gain,
                                int L) {
    const Word16 g = acb_gain < kMaxCombGain ? acb_gain : kMaxCombGain;
    for (int n = L - 1; n >= 0; --n) {
        const int cur = start + n;
        const int past = cur - T;
        const Word16 x = (cur >= 0 && cur < buf_len) ? buf[cur] : 0;
        const Word16 xp = (past >= 0 && past < buf_len) ? buf[past] : 0;
        const Word32 acc = fx::L_mac(static_cast<Word32>(x) * 65536 + 32768, g, xp);
        out[n] = static_cast<Word16>(acc >> 16);
    }
}

}  // namespace evrc_dec

extern "C" {

// exc_last points at the LAST sample of the current subframe, which must lie
// in an excitation buffer laid out as exc_history (128 history samples before
// the subframe's first sample exc_last - (L - 1), 64 samples from it on).
// Reads exc_last[-(L - 1) - T .. 0] (samples outside that buffer read as 0)
// and writes out[0 .. L), out[n] filtering subframe sample n. The frame
// driver and the concealment call it before the history shift, with exc_last =
// exc_history + 128 + L - 1.
EVRC_API void evrc_pitch_pre_filter(const Word16 *exc_last, Word16 pitch_lag, Word16 *out, Word16 acb_gain, Word16 L) {
    fx::CallScope scope;
    if (L <= 0) {
        return;
    }
    const Word16 *start = exc_last - (L - 1);
    evrc_dec::pitch_pre_filter_bounded(start - evrc_dec::kExcHistoryLen, evrc_dec::kExcBufferLen,
                                       evrc_dec::kExcHistoryLen, pitch_lag, out, acb_gain, L);
}

}  // extern "C"
