// Tenth-order LPC filters shared by the encoder and the decoder, with Q12
// coefficients a1..a10 of A(z) = 1 - sum a_k z^-k:
//   - the all-pole synthesis filter 1/A(z), whose memory keeps each past
//     output as a 32-bit value (output << 16 plus a 16-bit fraction), so that
//     the feedback runs in double precision;
//   - the all-zero prediction filter A(z), exact in 64 bits.
#include <cstdint>

#include "codec/basic/fixed_point.h"
#include "evrc/evrc_dec.h"

namespace {

constexpr int kOrder = 10;

// Feedback of one synthesis step, sum a_k * m[k-1] in Q15 units of the
// memory: the high halves through saturating multiply-accumulates (newest
// last), the unsigned low halves exactly in 64 bits. Ages the memory by one
// place, leaving m[0] for the new output.
Word64 synthesis_feedback(const Word16 *a, Word32 *m) {
    Word64 lo = 0;
    for (int k = 0; k < kOrder; ++k) {
        lo = fx::L_mac64_su(lo, a[k], static_cast<Word32>(static_cast<uint32_t>(m[k]) & 0xFFFFu));
    }
    lo >>= 15;
    Word32 hi = 0;
    for (int k = kOrder - 1; k >= 0; --k) {
        hi = fx::L_mac(hi, a[k], static_cast<Word16>(m[k] >> 16));
        if (k + 1 < kOrder) {
            m[k + 1] = m[k];
        }
    }
    return hi + lo;
}

}  // namespace

extern "C" {

// y[n] = x[n] + sum a_k y[n-k] over L samples; out may equal in. mem holds
// the last ten outputs in Q16 (mem[0] newest) and is updated.
EVRC_API void evrc_voc_synthesis_filter(const Word16 *lpc, const Word16 *in, Word16 *out, Word32 *mem, Word16 L) {
    for (int n = 0; n < L; ++n) {
        const Word64 x = in[n];
        const Word64 feedback = synthesis_feedback(lpc, mem);
        const Word64 acc = feedback * 8 + x * 65536;
        mem[0] = static_cast<Word32>(fx::L_sat32_64(acc));
        out[n] = fx::round32(mem[0]);
    }
}

// in[0..10) are the ten samples before the block, in[10 .. 10 + L) the block
// itself. out[n] = round((x[n] - sum a_k x[n-k] / 4096) * 2^(shift - 4)) with
// x[n] = in[10 + n), the sum clamped to 32 bits before rounding. out may equal
// in, but must not overlap in[10 ..) otherwise.
EVRC_API void evrc_voc_prediction_filter(const Word16 *in, const Word16 *lpc, Word16 *out, Word16 L,
                                         Word16 shift) {
    for (int n = 0; n < L; ++n) {
        const Word16 *x = in + kOrder + n;
        Word64 s = -4096 * static_cast<Word64>(x[0]);
        for (int k = 1; k <= kOrder; ++k) {
            s += static_cast<Word64>(lpc[k - 1]) * x[-k];
        }
        const Word64 v = fx::L_sub64(32768, fx::L_shl64(s, shift));
        out[n] = static_cast<Word16>(fx::L_sat32_64(v) >> 16);
    }
}

}  // extern "C"
