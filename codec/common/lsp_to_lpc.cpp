// LSP interpolation and LSP-to-LPC conversion.
//
// LSPs are ten ascending Q15 fractions of the sampling frequency. The even
// LSPs (first, third, ...) are the roots of the sum polynomial P(z), the odd
// ones the roots of the difference polynomial Q(z); each root contributes a
// factor (1 - 2cos(w) z^-1 + z^-2). Both polynomials are symmetric, so only
// their first half and middle coefficient (six Q24 words) are kept. The LPC
// vector is A(z) = 1 - sum a_k z^-k in Q12, built from
// P(z)(1 + z^-1) and Q(z)(1 - z^-1).
#include "codec/basic/fixed_point.h"
#include "codec/common/constants.h"
#include "codec/common/lsp_cosine.h"
#include "evrc/evrc_common.h"
#include "evrc/evrc_tables.h"

namespace {

constexpr int kLpcOrder = evrc::kOrder;
constexpr int kPolyLen = 6;                    // coefficients 0..5, middle at 5
constexpr Word32 kOneQ24 = 16777216;           // 1.0 in Q24
constexpr Word32 kPoscosOfZero = -1073741820;  // -cos(0) in Q30, 4 above -2^30
constexpr Word16 kLspMax = 16384;              // half the sampling frequency
constexpr Word64 kInt32Min = -2147483647LL - 1;
constexpr Word64 kInt32Max = 2147483647LL;

bool fits_in_32_bits(Word64 x) { return x >= kInt32Min && x <= kInt32Max; }

// Q24 factor coefficient times a Q24 polynomial coefficient, in Q24. The
// product is assembled from 16-bit halves; the low-by-low term is dropped.
Word64 q24_product(Word32 b, Word32 x) {
    const Word64 bh = static_cast<Word16>(static_cast<UWord32>(b) >> 16);
    const Word64 bl = static_cast<Word64>(static_cast<UWord32>(b) & 0xFFFFu);
    const Word64 xh = static_cast<Word16>(static_cast<UWord32>(x) >> 16);
    const Word64 xl = static_cast<Word64>(static_cast<UWord32>(x) & 0xFFFFu);
    Word64 sum = fx::L_shl64(bh * xh, 16);
    sum = fx::L_add64(sum, bh * xl);
    sum = fx::L_add64(sum, bl * xh);
    return fx::L_shl64(fx::L_shr64(sum, 16), 8);
}

// in holds a symmetric polynomial of degree 2n: coefficients 0..n and, at
// n + 1, the mirror of n - 1. The product with (1 + b z^-1 + z^-2) has
// degree 2n + 2; coefficients 0..n+1 are formed, then n + 2 mirrors n while
// it still lies inside the six-coefficient buffer. (Uncounted; the body of
// evrc_voc_lsp_convolve, inlined into the polynomial products.)
inline void lsp_convolve(Word32 b, const Word32 *in, Word32 *out, int n) {
    for (int k = 0; k <= n + 1; ++k) {
        Word64 c = in[k];
        if (k >= 2) c = fx::L_add64(c, in[k - 2]);
        if (k >= 1) c = fx::L_add64(c, q24_product(b, in[k - 1]));
        out[k] = static_cast<Word32>(fx::L_sat32_64(c));
    }
    if (n + 2 < kPolyLen) out[n + 2] = out[n];
}

}  // namespace

namespace evrc {

// The operators (in the weights of the counted ones: sub 1, shl 1, mult_r 2,
// L_mult 1, L_shl 2, round 1, L_mac64 4) through their uncounted bodies.
Word32 poscos(Word16 lsp, UWord32 &ops) {
    namespace d = fx::detail;
    if (lsp == 0) return kPoscosOfZero;
    constexpr UWord32 kWeight = (1 + 1 + 2) + 2 + (1 + 2 + 1) + 2 + (1 + 2 + 1) + (1 + 2 + 1) + 1 + 4 + 1 + 1;
    ops += kWeight;
    if (lsp > 0 && lsp <= kLspMax) {
        // LSPs proper: 4 (8192 - lsp) lies in [-32768, 32764], so |theta| <=
        // 25736 and theta2 <= 20213; no multiply sees -32768 twice, the
        // doubled-and-shifted products 4 theta theta2, 4 theta2 theta5 and
        // 4 theta2 theta7 stay below 2.09e9 (under the rounding's limit
        // 0x7FFF8000 and 2^31), and the multiply-accumulate below 1.25e9:
        // no operator clamps, and plain arithmetic gives the chain's value.
        const Word32 theta = ((8192 - static_cast<Word32>(lsp)) * 4 * 25736 + 0x4000) >> 15;
        const Word32 theta2 = (theta * theta + 0x4000) >> 15;
        const Word32 theta3 = (4 * theta * theta2 + 0x8000) >> 16;
        const Word32 theta5 = (theta2 * theta3 + 0x4000) >> 15;
        const Word32 theta7 = (4 * theta2 * theta5 + 0x8000) >> 16;
        const Word32 theta9 = (4 * theta2 * theta7 + 0x8000) >> 16;
        Word64 s = 2 * static_cast<Word64>(theta9) * evrc_acsCosineCoeffs[0] +
                   2 * static_cast<Word64>(theta7) * evrc_acsCosineCoeffs[1];
        s >>= 8;
        s += static_cast<Word64>(theta3) * evrc_acsCosineCoeffs[3];
        s += static_cast<Word64>(theta) * 65536;
        s -= static_cast<Word64>(theta5) * evrc_acsCosineCoeffs[2];
        return static_cast<Word32>(-s);
    }

    // cos(2*pi*lsp/32768) = sin(theta), theta = 2*pi*(8192 - lsp)/32768 (Q14).
    const Word16 theta = d::mult_r(d::shl(d::sat16(8192 - static_cast<Word32>(lsp)), 2), 25736);
    const Word16 theta2 = d::mult_r(theta, theta);
    const Word16 theta3 = d::round32(d::L_shl(d::L_mult(theta, theta2), 1));
    const Word16 theta5 = d::mult_r(theta2, theta3);
    const Word16 theta7 = d::round32(d::L_shl(d::L_mult(theta2, theta5), 1));
    const Word16 theta9 = d::round32(d::L_shl(d::L_mult(theta2, theta7), 1));

    // Odd Taylor series of the sine, highest powers first.
    Word64 s = d::L_mult(theta9, evrc_acsCosineCoeffs[0]);
    s = d::sat32(d::wrap_add64(s, d::wrap_shl64(static_cast<Word64>(theta7) * evrc_acsCosineCoeffs[1], 1)));
    s = fx::L_shr64(s, 8);
    s = fx::L_add64(s, fx::L_shr64(d::L_mult(theta3, evrc_acsCosineCoeffs[3]), 1));
    s = fx::L_add64(s, fx::L_shl64(theta, 16));
    s = fx::L_sub64(s, fx::L_shr64(d::L_mult(theta5, evrc_acsCosineCoeffs[2]), 1));

    return static_cast<Word32>(fx::L_sat32_64(fx::L_negate64(s)));
}

}  // namespace evrc

extern "C" {

EVRC_API Word16 cmn1x_interpolate_lsp(const Word16 *prev, const Word16 *cur, Word16 *out, Word16 weight) {
    fx::CallScope scope;
    // The weight is read as an unsigned Q15 number so that 32768 - w is exact.
    const Word32 w = static_cast<UWord16>(weight);
    const Word32 w_prev = 32768 - w;
    for (int i = 0; i < kLpcOrder; ++i) {
        Word64 acc = 16384;
        acc = fx::int_mac_32_16(acc, cur[i], w);
        acc = fx::int_mac_32_16(acc, prev[i], w_prev);
        acc = fx::L_sat32_64(fx::L_shl64(acc, 1));
        out[i] = fx::extract_h(fx::extract64_l(acc));
    }
    return out[kLpcOrder - 1];
}

EVRC_API Word32 evrc_voc_poscos(Word16 lsp) {
    fx::CallScope scope;
    UWord32 ops = 0;
    const Word32 c = evrc::poscos(lsp, ops);
    fx::charge(ops);
    return c;
}

EVRC_API void evrc_voc_lsp_convolve(Word32 b, const Word32 *in, Word32 *out, Word16 n) {
    fx::CallScope scope;
    lsp_convolve(b, in, out, n);
}

EVRC_API void evrc_voc_compute_poly_product(const Word16 *lsp, Word32 *poly, Word16 order) {
    fx::CallScope scope;
    const int roots = order / 2;  // five
    Word32 c[kLpcOrder / 2];
    UWord32 ops = 0;
    for (int j = 0; j < roots; ++j) c[j] = evrc::poscos(lsp[2 * j], ops);
    fx::charge(ops);

    Word32 buf[2][kPolyLen] = {};
    buf[0][0] = kOneQ24;
    buf[0][1] = fx::L_shr(c[roots - 1], 5);
    buf[0][2] = kOneQ24;
    int cur = 0;
    for (int degree = 1; degree < roots; ++degree) {
        lsp_convolve(fx::L_shr(c[degree - 1], 5), buf[cur], buf[1 - cur], degree);
        cur = 1 - cur;
    }
    for (int i = 0; i < kPolyLen; ++i) poly[i] = buf[cur][i];
}

EVRC_API void cmn1x_lsp2lpc(const Word16 *lsp, Word16 *a, Word16 shift) {
    fx::CallScope scope;
    Word32 p[kPolyLen];
    Word32 q[kPolyLen];
    evrc_voc_compute_poly_product(lsp, p, kLpcOrder);
    evrc_voc_compute_poly_product(lsp + 1, q, kLpcOrder);

    Word64 p1[kLpcOrder / 2];
    Word64 q1[kLpcOrder / 2];
    bool overflow = false;
    for (int i = 0; i < kLpcOrder / 2; ++i) {
        p1[i] = fx::L_add64(p[i], p[i + 1]);  // times (1 + z^-1)
        q1[i] = fx::L_sub64(q[i + 1], q[i]);  // times (1 - z^-1)
        if (!fits_in_32_bits(p1[i]) || !fits_in_32_bits(q1[i])) overflow = true;
    }

    if (overflow) {
        // Keep the previous vector, bandwidth-expanded by 0.8.
        for (int i = 0; i < kLpcOrder; ++i) a[i] = fx::mult_r(a[i], evrc_acsPwAlpha1[i]);
        return;
    }

    for (int i = 0; i < kLpcOrder / 2; ++i) {
        const Word64 lo = fx::L_add64(fx::L_shl64(fx::L_negate64(fx::L_add64(p1[i], q1[i])), shift), 32768);
        const Word64 hi = fx::L_add64(fx::L_shl64(fx::L_sub64(q1[i], p1[i]), shift), 32768);
        a[i] = fx::extract_h(static_cast<Word32>(fx::L_sat32_64(lo)));
        a[kLpcOrder - 1 - i] = fx::extract_h(static_cast<Word32>(fx::L_sat32_64(hi)));
    }
}

EVRC_API Word16 evrc_bwe_lpc_sp(const Word16 *in, Word16 *out, const Word16 *factors) {
    fx::CallScope scope;
    for (int i = 0; i < kLpcOrder; ++i) out[i] = fx::mult_r(factors[i], in[i]);
    return out[kLpcOrder - 1];
}

}  // extern "C"
