// Pitch delay contour: the frame's delay glides linearly from the previous
// frame's delay to the current one. evrc_interpol_delay gives the delay at the
// start and end of a subframe and at the end of the next one (Q16 samples);
// evrc_construct_delay_contour turns them into one delay per sample (Q24) for
// the subframe and ten samples beyond it.
#include <cstdint>

#include "codec/basic/fixed_point.h"
#include "codec/common/constants.h"
#include "evrc/evrc_common.h"
#include "evrc/evrc_tables.h"

namespace {

// 32/53 and 32/54 in Q31: the per-sample share of a subframe-long change.
constexpr Word32 kSlopeScale53 = 1296593899;
constexpr Word32 kSlopeScale54 = 1272582903;

// Per-sample increment in Q24 of a delay change (Q16) across a subframe.
Word32 contour_slope(Word32 from, Word32 to, Word16 L) {
    const uint32_t diff = static_cast<uint32_t>(to) - static_cast<uint32_t>(from);
    const Word32 diff8 = static_cast<Word32>(diff << 3);
    const Word64 prod = fx::L_mult64_32_32(diff8, L == 53 ? kSlopeScale53 : kSlopeScale54);
    return static_cast<Word32>(static_cast<uint64_t>(prod));
}

// out[n] = base << 8 plus n steps of slope, exact (stepped in 64 bits), then
// clamped to 32 bits, for n < count.
void contour_run(Word32 base, Word32 slope, Word32 *out, int count) {
    Word64 v = static_cast<Word64>(base) * 256;
    for (int n = 0; n < count; ++n, v += slope) out[n] = static_cast<Word32>(fx::L_sat32_64(v));
}

}  // namespace

extern "C" {

// points[j], j = 0..2: delay at frame positions 53k, 53(k+1), 53(k+2) (the
// last clamped to the frame end), weighted between prev_delay and cur_delay.
EVRC_API void evrc_interpol_delay(Word16 cur_delay, Word16 prev_delay, Word16 subframe, Word32 *points) {
    fx::CallScope scope;
    const int k = subframe < 0 ? 0 : (subframe > 2 ? 2 : subframe);
    for (int j = 0; j < 3; ++j) {
        const Word32 w = static_cast<UWord16>(evrc_acsInterpolateDelayTab[k + j]);
        const Word32 prev_part = fx::L_shl(static_cast<Word32>(prev_delay) * w, 1);
        const Word32 cur_part = fx::L_shl(static_cast<Word32>(cur_delay) * (32768 - w), 1);
        const uint32_t sum = static_cast<uint32_t>(prev_part) + static_cast<uint32_t>(cur_part);
        points[j] = static_cast<Word32>(sum);
    }
}

// contour[n] = point0 << 8 + n*s1 for n < L, contour[L + n] = point1 << 8 +
// n*s2 for n < 10.
EVRC_API void evrc_construct_delay_contour(const Word32 *points, Word32 *contour, Word16 L) {
    fx::CallScope scope;
    const Word32 s1 = contour_slope(points[0], points[1], L);
    contour_run(points[0], s1, contour, L);
    const Word32 s2 = contour_slope(points[1], points[2], L);
    contour_run(points[1], s2, contour + L, evrc::kLookAhead);
}

}  // extern "C"
