// Division, reciprocal, square roots and logarithms: exact models where the
// algorithm has a closed form (restoring division, bitwise root, table
// logarithm), mathematical bounds where it approximates, and their operation
// weights, which follow the operators each algorithm is built from.
#include "codec/basic/fixed_point.h"
#include "harness.h"

#include <cmath>

namespace {

using namespace basic_test;

constexpr int64_t kMax32 = 2147483647;
constexpr int64_t kMin32 = -2147483647LL - 1;

int popcount(int64_t v) {
    int n = 0;
    for (; v != 0; v &= v - 1) ++n;
    return n;
}

// Restoring division: floor(|num| / (2|den|)) bit by bit, saturating at
// 32767 (flag) when the quotient reaches 1.0; den = 0 always saturates. The
// weight is 17 plus one per quotient bit set.
Outcome m_signed_32_div_16(int64_t num, int64_t den) {
    const int64_t d = den * 65536;
    const int64_t qt = d == 0 ? INT64_MAX : (num < 0 ? -num : num) * 32768 / (d < 0 ? -d : d);
    const int64_t q = qt > 32767 ? 32767 : qt;
    const int64_t adds = popcount(qt > 65535 ? 65535 : qt);
    const bool opposite = (num < 0) != (d < 0);
    return {opposite ? -q : q, qt > 32767, static_cast<uint32_t>(17 + adds)};
}

int64_t isqrt(int64_t v) {
    int64_t s = static_cast<int64_t>(std::sqrt(static_cast<double>(v)));
    while (s * s > v) --s;
    while ((s + 1) * (s + 1) <= v) ++s;
    return s;
}

// Largest r <= 32767 with r^2 <= L; one subtraction per result bit that is 0.
// Only very negative L saturates the first trial subtraction.
Outcome m_square_root(int64_t L) {
    const int64_t r = L < 0 ? 0 : std::min<int64_t>(isqrt(L), 32767);
    return {r, L - 16384 * 16384 < kMin32, static_cast<uint32_t>(106 + 15 - popcount(r))};
}

// round(1024 * (30 + log2(1 + i/32))) minus 1024 per redundant sign bit,
// from the five bits after the leading one.
Outcome m_log2(int64_t L) {
    if (L <= 0) return {-32768, false, 0};
    int top = 30;
    while ((L >> top) == 0) --top;
    const int64_t i = (top >= 5 ? L >> (top - 5) : L << (5 - top)) - 32;
    const int64_t entry = std::llround(1024.0 * (30.0 + std::log2(1.0 + static_cast<double>(i) / 32.0)));
    return {entry - 1024 * (30 - top), false, 37};
}

auto num_den16 = [](Gen &g) { return std::make_tuple(g.w32(), g.w16()); };
auto one32 = [](Gen &g) { return std::make_tuple(g.w32()); };
// Values around perfect squares as well as anything else.
auto root_arg = [](Gen &g) {
    if (g.pick(2)) {
        const int64_t s = g.pick(32769);
        return std::make_tuple(static_cast<Word32>(std::min<int64_t>(s * s + g.pick(3) - 1, kMax32)));
    }
    return std::make_tuple(g.w32());
};

TEST(Nonlinear, RestoringDivisionMatchesExactQuotient) {
    differential("signed_32_div_16", slow_iterations(), num_den16, m_signed_32_div_16,
                 EVRC_FORMS(signed_32_div_16));
}

TEST(Nonlinear, SquareRootIsFloorOfTrueRoot) {
    differential("square_root", slow_iterations(), root_arg, m_square_root, EVRC_FORMS(square_root));
}

TEST(Nonlinear, TableLogarithmMatchesFormula) {
    differential("log2", slow_iterations(), one32, m_log2, EVRC_FORMS(log2));
}

// Within 2^-26 of the quotient (plus two units) wherever the quotient fits
// the Q(29 + q) format comfortably.
TEST(Nonlinear, DoublePrecisionDivisionApproximatesQuotient) {
    Gen g(21);
    int checked = 0;
    for (long i = 0; i < slow_iterations(); ++i) {
        const Word32 num = g.w32();
        const Word32 den = g.w32();
        const auto q = static_cast<Word16>(g.pick(4) - 1);
        if (den == 0) continue;
        const long double exact = std::ldexp(static_cast<long double>(num), 29 + q) / den;
        if (std::fabs(exact) >= 0.999L * kMax32 || num == -1 || num == kMin32 || den == kMin32) continue;
        const Outcome got = observe([&] { return evrc_divide_dp(num, den, q); });
        const long double tol = std::fabs(exact) / 67108864.0L + 2;
        ASSERT_LE(std::fabs(got.value - exact), tol) << num << " / " << den << " q " << q;
        ASSERT_EQ(got.weight, 124u) << num << " / " << den << " q " << q;
        ASSERT_EQ(fx::divide_dp(num, den, q), got.value);
        ++checked;
    }
    EXPECT_GT(checked, slow_iterations() / 4);
}

TEST(Nonlinear, DivisionCornerCases) {
    EXPECT_EQ(observe([] { return evrc_signed_32_div_16(0x20000000, 16384); }), (Outcome{16384, false, 18}));
    EXPECT_EQ(evrc_signed_32_div_16(-0x20000000, 16384), -16384);
    EXPECT_EQ(observe([] { return evrc_signed_32_div_16(5, 0); }), (Outcome{32767, true, 33}));
    EXPECT_EQ(observe([] { return evrc_signed_32_div_16(-5, 0); }), (Outcome{-32767, true, 33}));
    EXPECT_EQ(observe([] { return evrc_signed_32_div_16(kMin32, -32768); }), (Outcome{32767, true, 18}));

    for (Word32 x : {0, 1, -1, 123456, INT32_MIN, INT32_MAX}) {
        for (Word16 q : {-32768, -1, 0, 1, 2, 32767}) {
            EXPECT_EQ(observe([&] { return evrc_divide_dp(x, 0, q); }), (Outcome{0, false, 0})) << x << " " << q;
        }
    }
    // Equal energies give 1.0 in Q28; a quotient of 1.0 in Q31 wraps.
    EXPECT_NEAR(evrc_divide_dp(987654, 987654, -1), 1 << 28, 8);
    EXPECT_LT(evrc_divide_dp(12345, 12345, 2), 0);
    // Scale factors far outside the format shift the quotient out entirely.
    EXPECT_EQ(evrc_divide_dp(5, 3, 32767), 0);
    EXPECT_EQ(evrc_divide_dp(5, 3, -32768), 0);
    EXPECT_EQ(evrc_divide_dp(-5, 3, -32768), -1);
    EXPECT_EQ(observe([] { return evrc_divide_dp(-1, 3, 1); }).flag, true);  // -1 normalises to MIN_32
}

// The reciprocal of the normalised input in Q30, to within 2^-24 of its size.
TEST(Nonlinear, ReciprocalApproximatesInverse) {
    Gen g(22);
    for (long i = 0; i < slow_iterations(); ++i) {
        const Word32 x = g.w32();
        if (x == 0 || x == kMin32) continue;
        Word16 e = -99;
        const Outcome got = observe([&] { return evrc_invert_dp(x, 4, &e); });
        const int64_t mag = x < 0 ? -int64_t{x} : x;
        ASSERT_EQ(e, evrc_norm_l(static_cast<Word32>(mag))) << x;
        const long double exact = std::ldexp(1.0L, 61) / std::ldexp(static_cast<long double>(x), e);
        if (std::fabs(exact) < kMax32) {
            ASSERT_LE(std::fabs(got.value - exact), std::fabs(exact) / 16777216.0L + 2) << x;
        }
        ASSERT_EQ(got.weight, x < 0 ? 44u : 40u) << x;
        ASSERT_FALSE(got.flag) << x;
        Word16 e2 = -99;
        ASSERT_EQ(fx::invert_dp(x, 4, &e2), got.value);
    }
}

TEST(Nonlinear, ReciprocalCornerCases) {
    Word16 e = 77;
    EXPECT_EQ(observe([&] { return evrc_invert_dp(0, 4, &e); }), (Outcome{0, false, 0}));
    EXPECT_EQ(e, 77);
    EXPECT_EQ(observe([&] { return evrc_invert_dp(12345, 0, &e); }), (Outcome{0x55555555, false, 32}));
    EXPECT_EQ(e, evrc_norm_l(12345));
    EXPECT_EQ(observe([&] { return evrc_invert_dp(-12345, 0, &e); }), (Outcome{-0x55555555, false, 36}));
    EXPECT_EQ(observe([&] { return evrc_invert_dp(-12345, -3, &e); }).value, -0x55555555);
    // Each iteration squares the relative error.
    int64_t previous = INT64_MAX;
    for (Word16 k = 1; k <= 4; ++k) {
        const long double exact = std::ldexp(1.0L, 61) / std::ldexp(1234567.0L, evrc_norm_l(1234567));
        const int64_t err = std::llround(std::fabs(evrc_invert_dp(1234567, k, &e) - exact));
        EXPECT_LT(err, previous) << k;
        previous = err;
    }
    // MIN_32 saturates on negation instead of misbehaving.
    EXPECT_TRUE(observe([&] { return evrc_invert_dp(kMin32, 4, &e); }).flag);
}

TEST(Nonlinear, SquareRootCornerCases) {
    EXPECT_EQ(evrc_square_root(0x40000000), 32767);
    EXPECT_EQ(evrc_square_root(0x10000000), 16384);
    EXPECT_EQ(evrc_square_root(-5), 0);
    EXPECT_EQ(evrc_square_root(kMax32), 32767);
    EXPECT_EQ(observe([] { return evrc_square_root(0); }), (Outcome{0, false, 121}));
    EXPECT_EQ(observe([] { return evrc_square_root(kMin32); }), (Outcome{0, true, 121}));
}

// sqrt(1 + 2x) by its five-term series, accurate near 1.0 (Q31).
TEST(Nonlinear, SeriesSquareRootNearOne) {
    Gen g(23);
    for (long i = 0; i < slow_iterations(); ++i) {
        const Word32 L = kMax32 - static_cast<Word32>(g.bits() % (uint64_t{1} << 29));  // 0.75 .. 1.0
        const Outcome got = observe([&] { return evrc_taylor_sqroot(L); });
        const double exact = std::sqrt(L / 2147483648.0) * 2147483648.0;
        ASSERT_NEAR(static_cast<double>(got.value), exact, 2147483648.0 * 1e-4) << L;
        ASSERT_EQ(got.weight, 18u);
        ASSERT_FALSE(got.flag);
    }
}

// The polynomial logarithms approximate log(L / 2^31) in Q26 to about 0.01
// (base 2); the "3term" variant equals the saturating one for positive L, and
// the other bases are the base-2 value scaled by log_b(2) in Q15.
TEST(Nonlinear, PolynomialLogarithmsApproximateLog) {
    Gen g(24);
    for (long i = 0; i < slow_iterations(); ++i) {
        Word32 L = g.w32();
        if (L < 0) L = -(L + 1);
        if (L == 0) L = 1;
        const Outcome v = observe([&] { return evrc_fnLog2(L); });
        const double exact = std::log2(L / 2147483648.0) * 67108864.0;
        ASSERT_NEAR(static_cast<double>(v.value), exact, 0.01 * 67108864.0) << L;
        ASSERT_EQ(v, (Outcome{v.value, false, 48})) << L;
        ASSERT_EQ(observe([&] { return evrc_log2_3term(L); }), (Outcome{v.value, false, 40})) << L;

        const auto scaled = [&](double c) { return static_cast<double>(v.value) * c / 32768.0; };
        const Outcome v10 = observe([&] { return evrc_fnLog10(L); });
        ASSERT_NEAR(static_cast<double>(v10.value), scaled(9864), 2.0) << L;
        ASSERT_EQ(v10.weight, 51u);
        const Outcome ln = observe([&] { return evrc_log_3term(L); });
        ASSERT_NEAR(static_cast<double>(ln.value), scaled(22713), 2.0) << L;
        ASSERT_EQ(ln.weight, 41u);
        const Outcome l10 = observe([&] { return evrc_log10_3term(L); });
        ASSERT_NEAR(static_cast<double>(l10.value), scaled(9864), 2.0) << L;
        ASSERT_EQ(l10.weight, 41u);

        ASSERT_EQ(fx::fnLog2(L), v.value);
        ASSERT_EQ(fx::fnLog10(L), v10.value);
        ASSERT_EQ(fx::log2_3term(L), v.value);
        ASSERT_EQ(fx::log_3term(L), ln.value);
        ASSERT_EQ(fx::log10_3term(L), l10.value);
    }
}

TEST(Nonlinear, LogarithmCornerCases) {
    EXPECT_EQ(observe([] { return evrc_log2(1); }), (Outcome{0, false, 37}));
    EXPECT_EQ(evrc_log2(0x40000000), 30720);
    EXPECT_EQ(observe([] { return evrc_log2(0); }), (Outcome{-32768, false, 0}));
    EXPECT_EQ(evrc_log2(kMin32), -32768);
    EXPECT_EQ(evrc_fnLog2(0x40000000), -66519040);
    EXPECT_EQ(evrc_log2_3term(0x40000000), -66519040);
    EXPECT_EQ(evrc_fnLog2(kMax32), evrc_log2_3term(kMax32));
    // Non-positive arguments give defined values, whatever they mean.
    for (Word32 L : {0, -1, -12345, INT32_MIN}) {
        evrc_fnLog2(L);
        evrc_fnLog10(L);
        evrc_log2_3term(L);
        evrc_log_3term(L);
        evrc_log10_3term(L);
        evrc_taylor_sqroot(L);
    }
}

}  // namespace
