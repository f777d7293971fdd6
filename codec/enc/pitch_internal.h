// Helpers shared by the pitch analysis and the signal modification.
#ifndef EVRC_CODEC_ENC_PITCH_INTERNAL_H
#define EVRC_CODEC_ENC_PITCH_INTERNAL_H

#include "codec/basic/fixed_point.h"
#include "evrc/evrc_enc.h"

namespace evrc_enc {

// The time warp is switched off: measured on the speech corpus with the
// present codebook searches, the warped residual raises the adaptive
// codebook's prediction gain on voiced subframes (about 6.2 against 5.4 dB
// mean) but the decoded speech's log-spectral distance is lower without it
// (8.07 against 8.28 dB), so the encoder runs as plain CELP: each subframe's
// residual is taken as it stands. Set to true to warp.
constexpr bool kWarpResidual = false;
// Fixed delay (samples) of the warped residual behind the residual.
constexpr int kWarpDelay = 10;

// Slots of the pitch stage's working block (EvrcEncoderState::work_pitch).
constexpr int kPrevBetaSlot = 0;  // open-loop rho of the previous frame, Q15

// Positive pseudo-float for ratios of energies and correlations: value
// m * 2^e with m normalised into [16384, 32767], or m = 0 for zero.
struct Pf {
    Word16 m;
    Word16 e;

    static constexpr Word16 kZeroExp = -200;

    static Pf from_l(Word32 x) {
        if (x <= 0) return Pf{0, kZeroExp};
        const Word16 n = fx::norm_l(x);
        return Pf{fx::extract_h(fx::L_shl(x, n)), fx::sub(16, n)};
    }
    static Pf norm(Word16 m, Word16 e) {
        if (m <= 0) return Pf{0, kZeroExp};
        const Word16 n = fx::norm_s(m);
        return Pf{fx::shl(m, n), fx::sub(e, n)};
    }
    Pf mul(Pf b) const {
        if (m == 0 || b.m == 0) return Pf{0, kZeroExp};
        return norm(fx::mult(m, b.m), fx::add(fx::add(e, b.e), 15));
    }
    // (m / 2) / b.m in Q15 lies in [0.25, 1): no overflow of the division.
    Pf div(Pf b) const {
        if (m == 0 || b.m == 0) return Pf{0, kZeroExp};
        const Word16 q = fx::signed_32_div_16(fx::L_deposit_h(fx::shr(m, 1)), b.m);
        return norm(q, fx::sub(fx::sub(e, b.e), 14));
    }
    // sqrt(m 2^e): with e even, sqrt(m 2^14) = sqrt(m) 2^7; with e odd,
    // sqrt(m 2^15) = sqrt(m) 2^7.5.
    Pf sqrt() const {
        if (m == 0) return *this;
        if ((e & 1) == 0) return norm(fx::square_root(fx::L_shl(fx::L_deposit_l(m), 14)), fx::sub(e >> 1, 7));
        return norm(fx::square_root(fx::L_shl(fx::L_deposit_l(m), 15)), fx::sub((e - 15) >> 1, 0));
    }
    // The value in Q15, saturated to 32767.
    Word16 to_q15() const {
        if (m == 0) return 0;
        const Word16 s = fx::add(e, 15);
        return s >= 0 ? fx::shl(m, s) : fx::shr(m, fx::negate(s));
    }
    // from_l, norm and mul with the weights of their operators added to ops
    // instead of charged one by one (same values, same flag): for loops that
    // charge their tally once. A normalising shift never clamps, nor does
    // the product of two normalised mantissas (below 2^15 after the shift)
    // or the shift that renormalises it; the exponent sums saturate as add
    // and sub do.
    static Pf from_l(Word32 x, UWord32 &ops) {
        if (x <= 0) return Pf{0, kZeroExp};
        ops += kFromLWeight;
        const int n = __builtin_clz(static_cast<UWord32>(x)) - 1;  // norm_l of a positive value
        return Pf{static_cast<Word16>((x << n) >> 16), static_cast<Word16>(16 - n)};
    }
    static Pf norm(Word16 m, Word16 e, UWord32 &ops) {
        if (m <= 0) return Pf{0, kZeroExp};
        ops += kNormWeight;
        const int n = __builtin_clz(static_cast<UWord32>(m)) - 17;  // norm_s of a positive value
        return Pf{static_cast<Word16>(m << n), fx::detail::sat16(e - n)};
    }
    Pf mul(Pf b, UWord32 &ops) const {
        if (m == 0 || b.m == 0) return Pf{0, kZeroExp};
        ops += kMulWeight;
        const Word16 q = static_cast<Word16>((static_cast<Word32>(m) * b.m) >> 15);
        return norm(q, fx::detail::sat16(fx::detail::sat16(e + b.e) + 15), ops);
    }
    static constexpr UWord32 kFromLWeight = 30 + 2 + 1 + 1;  // norm_l, L_shl, extract_h, sub
    static constexpr UWord32 kNormWeight = 15 + 1 + 1;       // norm_s, shl, sub
    static constexpr UWord32 kMulWeight = 1 + 1 + 1;         // mult, add, add (then norm)

    bool greater(Pf b) const {
        if (m == 0) return false;
        if (b.m == 0) return true;
        return e != b.e ? e > b.e : m > b.m;
    }
};

// Correlation of the scaled residual over the current frame at a lag: the
// plain-integer form used by the analysis and its operator-by-operator
// reference.
Word32 correlate_fast(const Word16 *x, int lag);
Word32 correlate_reference(const Word16 *x, int lag);

}  // namespace evrc_enc

#endif  // EVRC_CODEC_ENC_PITCH_INTERNAL_H
