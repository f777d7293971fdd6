// Internal, inlinable form of the arithmetic operators for the codec's own
// code. Each fx:: function behaves exactly like the exported evrc_ operator of
// the same name (result, overflow flag and operation counter); the exported
// operators are thin wrappers over these, so the two forms cannot diverge.
//
// Conventions used throughout:
//  - every counted operator adds its net weight to evrc_op_counter with one
//    unconditional addition, whatever path it takes;
//  - a clamp stores 1 to evrc_giOverflow, nothing ever clears it;
//  - arithmetic that must wrap is done on unsigned types, so it is defined
//    behaviour on every target (x86-64 and 32-bit ARM alike).
#ifndef EVRC_CODEC_BASIC_FIXED_POINT_H
#define EVRC_CODEC_BASIC_FIXED_POINT_H

#include "evrc/basic_op.h"

namespace fx {

constexpr Word16 kMax16 = 32767;
constexpr Word16 kMin16 = -32768;
constexpr Word32 kMax32 = 2147483647;
constexpr Word32 kMin32 = -2147483647 - 1;

namespace detail {

// Per-thread bookkeeping of the codec's entry points (see CallScope below):
// operation counts collect here, in the thread's own memory, and reach the
// shared counter when the outermost entry point returns, so parallel streams
// do not write one cache line on every operation.
#if defined(__ANDROID__)
#define EVRC_TLS_MODEL
#else
#define EVRC_TLS_MODEL __attribute__((tls_model("initial-exec")))
#endif
extern __thread UWord32 t_pending_ops EVRC_TLS_MODEL;
extern __thread int t_call_depth EVRC_TLS_MODEL;

inline void count(UWord32 weight) { t_pending_ops += weight; }
// The flag is sticky: storing only when it does not hold 1 already keeps its
// cache line shared between the cores that read it.
// Relaxed atomic accesses: threads coding independent streams may raise it at
// the same time, and the store is the same whoever wins.
inline void overflow() {
    if (__atomic_load_n(&evrc_giOverflow, __ATOMIC_RELAXED) != 1)
        __atomic_store_n(&evrc_giOverflow, 1, __ATOMIC_RELAXED);
}

// Two's-complement narrowing and wrapping helpers (well defined in C++17
// through the unsigned types; gcc converts modulo 2^n).
inline Word16 low16(Word32 x) { return static_cast<Word16>(static_cast<UWord16>(x)); }
inline Word32 low32(Word64 x) { return static_cast<Word32>(static_cast<UWord32>(x)); }
inline Word32 wrap_add32(Word32 a, Word32 b) {
    return static_cast<Word32>(static_cast<UWord32>(a) + static_cast<UWord32>(b));
}
inline Word64 wrap_add64(Word64 a, Word64 b) {
    return static_cast<Word64>(static_cast<UWord64>(a) + static_cast<UWord64>(b));
}
inline Word64 wrap_sub64(Word64 a, Word64 b) {
    return static_cast<Word64>(static_cast<UWord64>(a) - static_cast<UWord64>(b));
}
// x shifted left by 0..63 with the bits shifted out lost.
inline Word64 wrap_shl64(Word64 x, int n) { return static_cast<Word64>(static_cast<UWord64>(x) << n); }

// Saturation with the flag, no counting.
inline Word16 sat16(Word32 x) {
    if (x > kMax16) {
        overflow();
        return kMax16;
    }
    if (x < kMin16) {
        overflow();
        return kMin16;
    }
    return static_cast<Word16>(x);
}
inline Word32 sat32(Word64 x) {
    if (x > kMax32) {
        overflow();
        return kMax32;
    }
    if (x < kMin32) {
        overflow();
        return kMin32;
    }
    return static_cast<Word32>(x);
}

// Uncounted bodies of the operators that other operators are built from.
inline Word32 L_add(Word32 a, Word32 b) {
    Word32 r;
    if (__builtin_add_overflow(a, b, &r)) {
        overflow();
        r = a < 0 ? kMin32 : kMax32;
    }
    return r;
}
inline Word32 L_mult(Word16 a, Word16 b) {
    const Word32 p = static_cast<Word32>(a) * b;
    if (p == 0x40000000) {
        overflow();
        return kMax32;
    }
    return p * 2;
}
inline Word32 L_mac(Word32 L, Word16 a, Word16 b) {
    return sat32(static_cast<Word64>(L) + 2 * static_cast<Word64>(static_cast<Word32>(a) * b));
}
inline Word32 L_msu(Word32 L, Word16 a, Word16 b) {
    return sat32(static_cast<Word64>(L) - 2 * static_cast<Word64>(static_cast<Word32>(a) * b));
}
inline Word16 round32(Word32 L) {
    if (L >= 0x7FFF8000) {
        overflow();
        return kMax16;
    }
    return static_cast<Word16>((L + 0x8000) >> 16);
}
// Left shift by 1..14 of a nonzero value, saturating.
inline Word16 shl_pos(Word16 a, int n) {
    const Word32 s = static_cast<Word32>(a) * (1 << n);
    return sat16(s);
}
inline Word16 shl(Word16 a, Word16 n) {
    if (n <= 0) return static_cast<Word16>(a >> (n <= -15 ? 15 : -n));
    if (a == 0) return a;
    if (n >= 15) {
        overflow();
        return a > 0 ? kMax16 : kMin16;
    }
    return shl_pos(a, n);
}
// Left shift by 1..30 of a nonzero value, saturating when bits are lost.
inline Word32 L_shl_pos(Word32 L, int n) {
    if (L > (kMax32 >> n) || L < (kMin32 >> n)) {
        overflow();
        return L > 0 ? kMax32 : kMin32;
    }
    return static_cast<Word32>(static_cast<UWord32>(L) << n);
}
inline Word32 L_shl(Word32 L, Word16 n) {
    if (n <= 0) return L >> (n <= -31 ? 31 : -n);
    if (L == 0) return L;
    if (n >= 31) {
        overflow();
        return L > 0 ? kMax32 : kMin32;
    }
    return L_shl_pos(L, n);
}
inline Word32 L_shr(Word32 L, Word16 n) {
    if (n >= 0) return L >> (n >= 31 ? 31 : n);
    if (L == 0) return L;
    if (n <= -31) {
        overflow();
        return L > 0 ? kMax32 : kMin32;
    }
    return L_shl_pos(L, -n);
}

inline Word16 mult_r(Word16 a, Word16 b) {
    const Word32 p = static_cast<Word32>(a) * b;
    if (p == 0x40000000) {
        overflow();
        return kMax16;
    }
    // (2ab + 0x8000) >> 16 without the doubling.
    return static_cast<Word16>((p + 0x4000) >> 15);
}

// Leading redundant sign bits (the bodies of norm_s and norm_l).
inline Word16 norm_s(Word16 a) {
    if (a == 0) return 0;
    const UWord32 m = static_cast<UWord16>(a ^ (a >> 15));
    return static_cast<Word16>(__builtin_clz((m << 1) | 1u) - 16);
}
inline Word16 norm_l(Word32 L) {
    if (L == 0) return 0;
    const UWord32 m = static_cast<UWord32>(L ^ (L >> 31));
    return static_cast<Word16>(__builtin_clz((m << 1) | 1u));
}

}  // namespace detail

// ---- Bookkeeping for exact fast paths ---------------------------------------
// A stage that computes a block of operators in plain integer arithmetic (after
// proving the result equal to the operator chain) still owes the chain's
// effects on the globals: charge() adds the chain's total weight once, and
// raise_overflow() sets the flag where the chain would have clamped.
inline void charge(UWord32 weight) { detail::count(weight); }
inline void raise_overflow() { detail::overflow(); }

// Scope of one exported function: every extern "C" function of the codec
// opens one first thing. Nested scopes are free; when the outermost one ends,
// the operations counted inside it are added to evrc_op_counter in one step.
// The counter therefore holds exactly what the operators say after every
// exported call, while the hot loops only touch the thread's own memory.
// Code that calls the inline forms outside any exported function (tests)
// opens a scope of its own to see their counts.
class CallScope {
public:
    CallScope() { ++detail::t_call_depth; }
    ~CallScope() {
        if (--detail::t_call_depth == 0 && detail::t_pending_ops != 0) {
            __atomic_fetch_add(&evrc_op_counter, detail::t_pending_ops, __ATOMIC_RELAXED);
            detail::t_pending_ops = 0;
        }
    }
    CallScope(const CallScope &) = delete;
    CallScope &operator=(const CallScope &) = delete;
};

// One inline operator run as an exported call, inside a scope of its own: the
// body of every exported operator.
template <auto Op, class... Args>
inline auto exported(Args... args) {
    CallScope scope;
    return Op(args...);
}

// Weights the counted operators below add to the operation count, named so
// that a fast path charging a chain (charge()) states the same figures.
namespace weight {
constexpr UWord32 L_saturate = 4, add = 1, sub = 1, abs_s = 1, negate = 1, extract_h = 1, extract_l = 1,
                  L_deposit_h = 1, L_deposit_l = 1, L_abs = 3, L_negate = 2, L_add = 2, L_sub = 2, L_mult = 1,
                  L_mac = 1, L_msu = 1, mult = 1, mult_r = 2, round32 = 1, mac_r = 2, msu_r = 2, shl = 1, shr = 1,
                  L_shl = 2, L_shr = 2, norm_s = 15, norm_l = 30;
}  // namespace weight

// ---- Saturating 16- and 32-bit operators ----------------------------------

inline Word16 saturate(Word32 x) { return detail::sat16(x); }

inline Word32 L_saturate(Word64 x) {
    detail::count(weight::L_saturate);
    return detail::sat32(x);
}

inline Word16 add(Word16 a, Word16 b) {
    detail::count(weight::add);
    return detail::sat16(static_cast<Word32>(a) + b);
}

inline Word16 sub(Word16 a, Word16 b) {
    detail::count(weight::sub);
    return detail::sat16(static_cast<Word32>(a) - b);
}

inline Word16 abs_s(Word16 a) {
    detail::count(weight::abs_s);
    if (a == kMin16) {
        detail::overflow();
        return kMax16;
    }
    return static_cast<Word16>(a < 0 ? -a : a);
}

inline Word16 negate(Word16 a) {
    detail::count(weight::negate);
    if (a == kMin16) {
        detail::overflow();
        return kMax16;
    }
    return static_cast<Word16>(-a);
}

inline Word16 extract_h(Word32 L) {
    detail::count(weight::extract_h);
    return static_cast<Word16>(L >> 16);
}

inline Word16 extract_l(Word32 L) {
    detail::count(weight::extract_l);
    return detail::low16(L);
}

inline Word32 L_deposit_h(Word16 a) {
    detail::count(weight::L_deposit_h);
    return static_cast<Word32>(static_cast<UWord32>(a) << 16);
}

inline Word32 L_deposit_l(Word16 a) {
    detail::count(weight::L_deposit_l);
    return a;
}

inline Word32 L_abs(Word32 L) {
    detail::count(weight::L_abs);
    if (L == kMin32) {
        detail::overflow();
        return kMax32;
    }
    return L < 0 ? -L : L;
}

inline Word32 L_negate(Word32 L) {
    detail::count(weight::L_negate);
    if (L == kMin32) {
        detail::overflow();
        return kMax32;
    }
    return -L;
}

inline Word32 L_add(Word32 L1, Word32 L2) {
    detail::count(weight::L_add);
    return detail::L_add(L1, L2);
}

inline Word32 L_sub(Word32 L1, Word32 L2) {
    detail::count(weight::L_sub);
    Word32 r;
    if (__builtin_sub_overflow(L1, L2, &r)) {
        detail::overflow();
        r = L1 < 0 ? kMin32 : kMax32;
    }
    return r;
}

inline Word32 L_mult(Word16 a, Word16 b) {
    detail::count(weight::L_mult);
    return detail::L_mult(a, b);
}

// The accumulation is exact before the single clamp: for a = b = -32768 and
// a negative L the result is L + 2^31, not L plus a saturated product.
inline Word32 L_mac(Word32 L, Word16 a, Word16 b) {
    detail::count(weight::L_mac);
    return detail::L_mac(L, a, b);
}

inline Word32 L_msu(Word32 L, Word16 a, Word16 b) {
    detail::count(weight::L_msu);
    return detail::L_msu(L, a, b);
}

inline Word16 mult(Word16 a, Word16 b) {
    detail::count(weight::mult);
    return detail::sat16((static_cast<Word32>(a) * b) >> 15);
}

inline Word16 mult_r(Word16 a, Word16 b) {
    detail::count(weight::mult_r);
    return detail::mult_r(a, b);
}

inline Word16 round32(Word32 L) {
    detail::count(weight::round32);
    return detail::round32(L);
}

inline Word16 mac_r(Word32 L, Word16 a, Word16 b) {
    detail::count(weight::mac_r);
    return detail::round32(detail::L_mac(L, a, b));
}

inline Word16 msu_r(Word32 L, Word16 a, Word16 b) {
    detail::count(weight::msu_r);
    return detail::round32(detail::L_msu(L, a, b));
}

// Any nonzero value shifted left by 15 or more saturates, even -1 << 15.
inline Word16 shl(Word16 a, Word16 n) {
    detail::count(weight::shl);
    return detail::shl(a, n);
}

inline Word16 shr(Word16 a, Word16 n) {
    detail::count(weight::shr);
    if (n >= 0) return static_cast<Word16>(a >> (n >= 15 ? 15 : n));
    if (a == 0) return a;
    if (n <= -15) {
        detail::overflow();
        return a > 0 ? kMax16 : kMin16;
    }
    return detail::shl_pos(a, -n);
}

inline Word32 L_shl(Word32 L, Word16 n) {
    detail::count(weight::L_shl);
    return detail::L_shl(L, n);
}

inline Word32 L_shr(Word32 L, Word16 n) {
    detail::count(weight::L_shr);
    return detail::L_shr(L, n);
}

// Leading redundant sign bits: a value and its complement normalise alike, so
// -1 needs 15 (16-bit) or 31 (32-bit) doublings; 0 gives 0.
inline Word16 norm_s(Word16 a) {
    detail::count(weight::norm_s);
    return detail::norm_s(a);
}

inline Word16 norm_l(Word32 L) {
    detail::count(weight::norm_l);
    return detail::norm_l(L);
}

// ---- Plain 64-bit and mixed-width operators (no flag, not counted) --------

inline Word32 extract64_l(Word64 x) { return detail::low32(x); }

inline Word32 int_mult_16_16(Word32 a, Word32 b) { return static_cast<Word32>(detail::low16(a)) * detail::low16(b); }

inline Word32 int_mult_16h_16(Word32 a, Word32 b) {
    return static_cast<Word32>(static_cast<Word16>(a >> 16)) * detail::low16(b);
}

inline Word64 L_mult64_su(Word32 a, Word32 b) { return static_cast<Word64>(a) * b; }
inline Word64 int_mult_32_16(Word32 a, Word32 b) { return static_cast<Word64>(a) * b; }
inline Word64 int_mult_32_32(Word32 a, Word32 b) { return static_cast<Word64>(a) * b; }

inline Word64 L_mult64_uu(Word32 a, Word32 b) {
    return static_cast<Word64>(static_cast<UWord64>(static_cast<UWord32>(a)) * static_cast<UWord32>(b));
}

inline Word32 L_mult_su(Word32 a, Word32 b) {
    return static_cast<Word32>(static_cast<UWord32>(a) * static_cast<UWord32>(b));
}
inline Word32 L_mult_uu(Word32 a, Word32 b) {
    return static_cast<Word32>(static_cast<UWord32>(a) * static_cast<UWord32>(b));
}

inline Word64 int_mac_16_16(Word64 acc, Word32 a, Word32 b) {
    return detail::wrap_add64(acc, static_cast<Word64>(a) * b);
}
inline Word64 int_mac_32_16(Word64 acc, Word32 a, Word32 b) {
    return detail::wrap_add64(acc, static_cast<Word64>(a) * b);
}
inline Word64 int_msu_16_16(Word64 acc, Word32 a, Word32 b) {
    return detail::wrap_sub64(acc, static_cast<Word64>(a) * b);
}
inline Word64 int_mac_16_16_s1(Word64 acc, Word32 a, Word32 b) {
    return detail::wrap_add64(acc, detail::wrap_shl64(static_cast<Word64>(a) * b, 1));
}

// Left by n >= 0, arithmetically right by -n otherwise; counts beyond 63 shift
// everything out (-32768 included).
inline Word64 L_shl64(Word64 x, Word16 n) {
    if (n < 0) {
        const int m = -static_cast<int>(n);
        return x >> (m >= 64 ? 63 : m);
    }
    return n >= 64 ? 0 : detail::wrap_shl64(x, n);
}

inline Word64 L_shr64(Word64 x, Word16 n) {
    if (n < 0) {
        const int m = -static_cast<int>(n);
        return m >= 64 ? 0 : detail::wrap_shl64(x, m);
    }
    return x >> (n >= 64 ? 63 : n);
}

inline Word64 int_mac_16_16_shift(Word64 acc, Word32 a, Word32 b, Word16 s) {
    return detail::wrap_add64(acc, L_shl64(static_cast<Word64>(a) * b, s));
}

inline Word64 L_mac64_su(Word64 acc, Word32 a, Word32 b) { return detail::wrap_add64(acc, L_mult_su(a, b)); }

inline Word64 L_add64(Word64 x, Word64 y) { return detail::wrap_add64(x, y); }
inline Word64 L_sub64(Word64 x, Word64 y) { return detail::wrap_sub64(x, y); }
inline Word64 L_negate64(Word64 x) { return detail::wrap_sub64(0, x); }

inline Word32 MAX16(Word32 a, Word32 b) { return a > b ? a : b; }
inline Word32 MAX32(Word32 a, Word32 b) { return a > b ? a : b; }
inline Word32 MIN16(Word32 a, Word32 b) { return a >= b ? b : a; }
inline Word32 MIN32(Word32 a, Word32 b) { return a >= b ? b : a; }

// ---- 64-bit saturating and double-precision fractional operators ----------

inline Word64 L_sat32_64(Word64 x) { return x > kMax32 ? kMax32 : (x < kMin32 ? kMin32 : x); }

// Out-of-range values clamp silently and uncounted; in range it is round32.
inline Word16 L_sat32_64_round16(Word64 x) {
    const bool in_range = x >= kMin32 && x <= kMax32;
    detail::count(in_range ? 1u : 0u);
    if (!in_range) return x > 0 ? kMax16 : kMin16;
    return detail::round32(static_cast<Word32>(x));
}

// acc + 2ab formed modulo 2^64, then clamped to 32 bits with the flag.
inline Word64 L_mac64(Word64 acc, Word32 a, Word32 b) {
    detail::count(4);
    return detail::sat32(detail::wrap_add64(acc, detail::wrap_shl64(static_cast<Word64>(a) * b, 1)));
}

// Q31 x Q15: high half through the saturating product, the unsigned low half
// added as (lo * b) >> 15.
inline Word32 L_mult_32_16(Word32 L, Word16 b) {
    detail::count(5);
    const Word16 hi = static_cast<Word16>(L >> 16);
    const Word32 lo = L & 0xFFFF;
    const Word32 c = (lo * b) >> 15;
    return detail::L_add(detail::L_mult(hi, b), c);
}

// Q31 x Q31 into 64 bits; the low x low product is left out on purpose.
inline Word64 L_mult64_32_32(Word32 a, Word32 b) {
    detail::count(5);
    const Word16 ha = static_cast<Word16>(a >> 16);
    const Word16 hb = static_cast<Word16>(b >> 16);
    const Word32 la = a & 0xFFFF;
    const Word32 lb = b & 0xFFFF;
    const Word64 cross = static_cast<Word64>(la * hb) + static_cast<Word64>(lb * ha);
    return static_cast<Word64>(detail::L_mult(ha, hb)) + (cross >> 15);
}

// Shift that brings a 64-bit value to a normalised 32-bit one: negative when
// it must be shifted right, 31 for 0 (and for -1).
inline Word16 norm32_l64(Word64 x) {
    const UWord64 m = static_cast<UWord64>(x ^ (x >> 63));
    return static_cast<Word16>(__builtin_clzll((m << 1) | 1u) - 32);
}

// ---- Division, square root and logarithms (out of line) -------------------

inline Word16 signed_32_div_16(Word32 num, Word16 den) { return ::evrc_signed_32_div_16(num, den); }
// The same division as its sixteen literal compare-and-subtract steps through
// the counted shl and add (the form the exported one computes faster).
Word16 signed_32_div_16_reference(Word32 num, Word16 den);
inline Word32 divide_dp(Word32 num, Word32 den, Word16 q) { return ::evrc_divide_dp(num, den, q); }
inline Word32 invert_dp(Word32 x, Word16 iterations, Word16 *exponent) {
    return ::evrc_invert_dp(x, iterations, exponent);
}
inline Word16 square_root(Word32 L) { return ::evrc_square_root(L); }
inline Word32 taylor_sqroot(Word32 L) { return ::evrc_taylor_sqroot(L); }
inline Word16 log2(Word32 L) { return ::evrc_log2(L); }
inline Word32 fnLog2(Word32 L) { return ::evrc_fnLog2(L); }
inline Word32 fnLog10(Word32 L) { return ::evrc_fnLog10(L); }
inline Word32 log2_3term(Word32 L) { return ::evrc_log2_3term(L); }
inline Word32 log_3term(Word32 L) { return ::evrc_log_3term(L); }
inline Word32 log10_3term(Word32 L) { return ::evrc_log10_3term(L); }

}  // namespace fx

#endif  // EVRC_CODEC_BASIC_FIXED_POINT_H
