// LPC to LSP conversion.
//
// With A(z) = 1 - sum a_k z^-k, the sum and difference polynomials
//   P(z) = A(z) + z^-11 A(1/z),  Q(z) = A(z) - z^-11 A(1/z)
// have their roots on the unit circle, interlaced, with a fixed root of P at
// z = -1 and of Q at z = 1. Dividing those out, P'(z) = P(z) / (1 + z^-1) and
// Q'(z) = Q(z) / (1 - z^-1) are symmetric of degree 10, so coefficients
// 0..5 (Q22, coefficient 0 = 1) describe each. On the unit circle
//   P'(w) e^{5jw} / 2 = p5/2 + p4 T1(x) + p3 T2(x) + p2 T3(x) + p1 T4(x) + p0 T5(x),
// x = cos w, a Chebyshev series evaluated by Clenshaw's recurrence. The
// roots are bracketed on a grid of LSP values (Q15 fractions of the sampling
// frequency: 16384 is 4000 Hz, x = cos(2 pi lsp / 32768) from the same cosine
// as the LSP-to-LPC conversion), refined by bisection to one LSP step, and
// interlaced: the roots of P' are LSPs 1, 3, .., 9, those of Q' LSPs 2, .., 10.
// A minimum spacing keeps the set strictly ordered.
#include "codec/basic/fixed_point.h"
#include "codec/common/lsp_cosine.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_enc.h"

namespace {

constexpr int kOrder = 10;
constexpr int kHalf = 5;
constexpr int kPolyLen = 6;
constexpr Word32 kOneQ22 = 1 << 22;
constexpr Word16 kLpcToPolyShift = 5;  // Q27 -> Q22
constexpr Word16 kLspNyquist = 16384;
constexpr Word16 kGridStep = 128;  // 31 Hz: roots of one polynomial lie two LSP gaps apart
constexpr Word16 kMinGap = 64;     // smallest distance between neighbours
constexpr Word32 kOneQ30 = 1 << 30;
constexpr Word32 kGridStepCosQ30 = 1073418433;  // cos(2 pi 128 / 32768) = cos(pi / 128)
constexpr UWord32 kEvalWeight = 3 * kHalf + 3;  // one multiply, add, subtract per Clenshaw step
constexpr UWord32 kGridWeight = 3;              // one multiply, round, subtract per grid cosine
constexpr UWord32 kNegateWeight = 2;            // the bisection's cosine is negated (L_negate)
constexpr int kBisectionSteps = 7;              // a grid step of 128 halved down to one

// Clenshaw evaluation of the Chebyshev series of a half polynomial at
// x = cos(2 pi lsp / 32768), x in Q30 (used as Q24 here, so that the 64-bit
// products cannot wrap). Only the sign and relative size matter. Uncharged:
// the callers charge kEvalWeight per evaluation.
Word64 eval_half_poly(const Word32 *c, Word32 x_q30) {
    const Word64 x_q24 = fx::L_shr64(x_q30, 6);
    Word64 b1 = 0;
    Word64 b2 = 0;
    // c[0] multiplies T5, c[5] / 2 is the constant term.
    for (int k = 0; k < kHalf; ++k) {
        const Word64 b0 = fx::L_sub64(fx::L_add64(c[k], fx::L_shr64(x_q24 * b1, 23)), b2);
        b2 = b1;
        b1 = b0;
    }
    return fx::L_sub64(fx::L_add64(fx::L_shr64(c[kHalf], 1), fx::L_shr64(x_q24 * b1, 24)), b2);
}

// L_negate uncounted.
Word32 negate(Word32 x) {
    if (x == fx::kMin32) {
        fx::raise_overflow();
        return fx::kMax32;
    }
    return -x;
}

constexpr int kGridPoints = kLspNyquist / kGridStep + 1;
constexpr int kMaxBrackets = 2 * kHalf;

// Grid cosines by the recurrence cos((g+1)d) = 2 cos(d) cos(gd) - cos((g-1)d)
// in Q30, rounded at each step (within 1e-6 of the exact values: they only
// bracket the roots; the bisection uses the conversion's own cosine). The
// values stay far inside 32 bits, so the step's clamp never acts; they are
// the same on every call, so they are formed once, at compile time.
struct GridCosines {
    Word32 v[kGridPoints];
    constexpr GridCosines() : v() {
        v[0] = kOneQ30;
        v[1] = kGridStepCosQ30;
        for (int g = 1; g + 1 < kGridPoints; ++g) {
            const Word64 twice = (static_cast<Word64>(kGridStepCosQ30) * v[g] + (1 << 28)) >> 29;
            v[g + 1] = static_cast<Word32>(twice - v[g - 1]);
        }
    }
};
constexpr GridCosines kGridCosines;
constexpr bool grid_within(Word32 bound) {
    for (const Word32 c : kGridCosines.v) {
        if (c > bound || c < -bound) return false;
    }
    return true;
}
static_assert(grid_within(kOneQ30 + 1024), "the recurrence stays near the cosine, far inside 32 bits");

// A sign change of one polynomial between grid points g - 1 and g, narrowed
// by bisection: f(lo) and f(hi) have different signs.
struct Bracket {
    const Word32 *c;
    Word16 lo, hi;
    Word64 fl, fh;
    Word16 *root;
};

// The sign changes of one half polynomial on the grid, in order: the first
// kHalf become brackets (whose roots are written to roots[0 ..]); returns
// their number, or kHalf + 1 at a sixth change. The evaluations are charged
// as a scan that stops at the sixth change evaluates them.
int bracket_roots(const Word32 *c, const Word32 *grid_cos, Word16 *roots, Bracket *out) {
    Word64 f[kGridPoints];
    for (int g = 0; g < kGridPoints; ++g) f[g] = eval_half_poly(c, grid_cos[g]);
    int found = 0;
    for (int g = 1; g < kGridPoints; ++g) {
        if ((f[g - 1] < 0) != (f[g] < 0)) {
            if (found == kHalf) {
                fx::charge(kEvalWeight * static_cast<UWord32>(g + 1));
                return found + 1;
            }
            out[found] = {c,
                          static_cast<Word16>((g - 1) * kGridStep),
                          static_cast<Word16>(g * kGridStep),
                          f[g - 1],
                          f[g],
                          roots + found};
            ++found;
        }
    }
    fx::charge(kEvalWeight * kGridPoints);
    return found;
}

// Bisection of every bracket to one LSP step, all brackets a step at a time
// (their evaluations are independent and overlap); each root is the end
// where |f| is smaller. Each midpoint costs an evaluation, a cosine and its
// negation, charged at once.
void bisect(Bracket *brackets, int n) {
    UWord32 ops = 0;
    for (int step = 0; step < kBisectionSteps; ++step) {
        for (int i = 0; i < n; ++i) {
            Bracket &b = brackets[i];
            const Word16 mid = static_cast<Word16>((b.lo + b.hi) >> 1);
            const Word32 cosine = evrc::poscos(mid, ops);
            const Word64 fm = eval_half_poly(b.c, negate(cosine));
            // Selects by masks, not branches: the side is unpredictable,
            // and a branch would also keep the brackets' evaluations from
            // overlapping (the compiler turns plain selects into one).
            const Word64 low = ((fm ^ b.fl) >> 63) + 1;  // 1 when fm and f(lo) have one sign
            const Word64 m64 = -low;
            const Word32 m32 = static_cast<Word32>(m64);
            b.fl = (fm & m64) | (b.fl & ~m64);
            b.fh = (b.fh & m64) | (fm & ~m64);
            b.lo = static_cast<Word16>((mid & m32) | (b.lo & ~m32));
            b.hi = static_cast<Word16>((b.hi & m32) | (mid & ~m32));
        }
    }
    fx::charge(ops + static_cast<UWord32>(n * kBisectionSteps) * (kEvalWeight + kNegateWeight));
    for (int i = 0; i < n; ++i) {
        const Bracket &b = brackets[i];
        const Word64 al = b.fl < 0 ? -b.fl : b.fl;
        const Word64 ah = b.fh < 0 ? -b.fh : b.fh;
        *b.root = al <= ah ? b.lo : b.hi;
    }
}

// Pushes neighbours apart to at least kMinGap, inside (0, 16384).
void enforce_spacing(Word16 *lsp) {
    Word16 floor_v = kMinGap;
    for (int i = 0; i < kOrder; ++i) {
        if (lsp[i] < floor_v) lsp[i] = floor_v;
        floor_v = fx::add(lsp[i], kMinGap);
    }
    Word16 ceil_v = static_cast<Word16>(kLspNyquist - kMinGap);
    for (int i = kOrder - 1; i >= 0; --i) {
        if (lsp[i] > ceil_v) lsp[i] = ceil_v;
        ceil_v = fx::sub(lsp[i], kMinGap);
    }
}

}  // namespace

extern "C" {

EVRC_API void cmn1x_lpc2pq(const Word32 *lpc, Word32 *p, Word32 *q) {
    fx::CallScope scope;
    // A_k = -a_k in Q22; P_k = A_k + A_(11-k), Q_k = A_k - A_(11-k), k = 1..5.
    p[0] = kOneQ22;
    q[0] = kOneQ22;
    for (int k = 1; k < kPolyLen; ++k) {
        const Word32 ak = fx::L_shr(fx::L_add(lpc[k - 1], 1 << (kLpcToPolyShift - 1)), kLpcToPolyShift);
        const Word32 am = fx::L_shr(fx::L_add(lpc[kOrder - k], 1 << (kLpcToPolyShift - 1)), kLpcToPolyShift);
        const Word32 pk = fx::L_negate(fx::L_add(ak, am));
        const Word32 qk = fx::L_sub(am, ak);
        p[k] = fx::L_sub(pk, p[k - 1]);  // divide by (1 + z^-1)
        q[k] = fx::L_add(qk, q[k - 1]);  // divide by (1 - z^-1)
    }
}

EVRC_API Word16 cmn1x_pq2lsp(const Word32 *p, const Word32 *q, Word16 *lsp, const Word16 *prev) {
    fx::CallScope scope;
    // The grid cosines (a table of constants, the recurrence's charge as
    // when it ran per call).
    const Word32 *grid_cos = kGridCosines.v;
    fx::charge(kGridWeight * (kGridPoints - 2));

    Word16 p_roots[kHalf + 1];
    Word16 q_roots[kHalf + 1];
    Bracket brackets[kMaxBrackets];
    const int np = bracket_roots(p, grid_cos, p_roots, brackets);
    const int bp = np > kHalf ? kHalf : np;
    const int nq = bracket_roots(q, grid_cos, q_roots, brackets + bp);
    bisect(brackets, bp + (nq > kHalf ? kHalf : nq));
    bool ok = np == kHalf && nq == kHalf;
    for (int i = 0; ok && i < kHalf; ++i) {
        ok = p_roots[i] < q_roots[i] && (i + 1 == kHalf || q_roots[i] < p_roots[i + 1]);
    }
    if (!ok) {
        for (int i = 0; i < kOrder; ++i) lsp[i] = prev[i];
        enforce_spacing(lsp);
        return 0;
    }
    for (int i = 0; i < kHalf; ++i) {
        lsp[2 * i] = p_roots[i];
        lsp[2 * i + 1] = q_roots[i];
    }
    enforce_spacing(lsp);
    return 1;
}

}  // extern "C"
