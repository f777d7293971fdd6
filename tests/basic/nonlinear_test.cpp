// Division, reciprocal, square roots and logarithms: exact models where the
// algorithm has a closed form (restoring division, bitwise root, table
// logarithm), mathematical bounds where it approximates, and their operation
// weights, which follow the operators each algorithm is built from.
#include "codec/common/reference_forms.h"
#include "harness.h"

#include <cmath>

namespace {

using namespace basic_test;

int bits_set(int64_t v) { return __builtin_popcountll(static_cast<uint64_t>(v)); }

// Restoring division: floor(|num| / (2|den|)) bit by bit, saturating at
// 32767 (flag) when the quotient reaches 1.0; den = 0 always saturates. The
// weight is 17 plus one per quotient bit set.
Outcome m_signed_32_div_16(int64_t num, int64_t den) {
    const int64_t d = den * 65536;
    const int64_t qt = d == 0 ? INT64_MAX : (num < 0 ? -num : num) * 32768 / (d < 0 ? -d : d);
    const int64_t q = std::min<int64_t>(qt, 32767), sign = (num < 0) != (d < 0) ? -1 : 1;
    return {sign * q, qt > 32767, static_cast<uint32_t>(17 + bits_set(std::min<int64_t>(qt, 65535)))};
}

// Largest r <= 32767 with r^2 <= L; one subtraction per result bit that is 0.
// Only very negative L saturates the first trial subtraction.
Outcome m_square_root(int64_t L) {
    int64_t r = static_cast<int64_t>(std::sqrt(static_cast<double>(std::max<int64_t>(L, 0))));
    while (r > 0 && r * r > L) --r;
    while ((r + 1) * (r + 1) <= L) ++r;
    r = std::min<int64_t>(r, 32767);
    return {r, L - 16384 * 16384 < kMin32, static_cast<uint32_t>(121 - bits_set(r))};
}

// round(1024 * (30 + log2(1 + i/32))) minus 1024 per redundant sign bit,
// from the five bits after the leading one.
Outcome m_log2(int64_t L) {
    if (L <= 0) return {-32768, false, 0};
    const int top = std::ilogb(static_cast<double>(L));
    const double i = std::floor(std::ldexp(static_cast<double>(L), 5 - top)) - 32;
    const int64_t entry = std::llround(1024.0 * (30.0 + std::log2(1.0 + i / 32.0)));
    return {entry - 1024 * (30 - top), false, 37};
}

TEST(Nonlinear, ClosedFormAlgorithmsMatchExactModel) {
    const long n = iterations(8);
    // Values around perfect squares as well as anything else.
    const auto root_arg = [](Gen &g) {
        const int64_t s = g.pick(32769);
        return std::make_tuple(g.pick(2) ? static_cast<Word32>(std::min<int64_t>(s * s + g.pick(3) - 1, kMax32))
                                         : g.w32());
    };
    const auto div_args = [](Gen &g) { return std::make_tuple(g.w32(), g.w16()); };
    EVRC_DIFF(signed_32_div_16, div_args, m_signed_32_div_16);
    // The fast division's literal sixteen-step form, held to the same model.
    const auto reference = [](Word32 num, Word16 den) { return fx::signed_32_div_16_reference(num, den); };
    differential("signed_32_div_16_reference", n, div_args, m_signed_32_div_16, reference, reference);
    // The bit-by-bit chain and the exported root (computed directly for L >= 0).
    differential(
        "square_root", n, root_arg, m_square_root, [](Word32 L) { return evrc::square_root_reference(L); },
        [](Word32 L) { return evrc_square_root(L); });
    EVRC_DIFF(log2, one32, m_log2);
}

// divide_dp is within 2^-26 of the quotient (plus two units) wherever it fits
// Q(29 + q) comfortably; invert_dp within 2^-24 of the reciprocal of the
// normalised input in Q30. The inline forms agree with the exported ones.
TEST(Nonlinear, DivisionAndReciprocal) {
    Gen g("divide");
    int checked = 0;
    for (long i = 0; i < iterations(8); ++i) {
        const Word32 num = g.w32(), den = g.w32();
        const auto q = static_cast<Word16>(g.pick(4) - 1);
        const long double exact = std::ldexp(static_cast<long double>(num), 29 + q) / (den != 0 ? den : 1);
        if (den != 0 && std::fabs(exact) < 0.999L * kMax32 && num != -1 && num != kMin32 && den != kMin32) {
            const Outcome got = observe([&] { return evrc_divide_dp(num, den, q); });
            ASSERT_LE(std::fabs(got.value - exact), std::fabs(exact) / 67108864.0L + 2)
                << num << " / " << den << " " << q;
            ASSERT_TRUE(got.weight == 124u && got.value == fx::divide_dp(num, den, q)) << num << " / " << den;
            ++checked;
        }
        if (num == 0 || num == kMin32) continue;
        Word16 e = -99, e2 = -99;
        const Outcome inv = observe([&] { return evrc_invert_dp(num, 4, &e); });
        ASSERT_EQ(e, evrc_norm_l(num < 0 ? -num : num)) << num;
        const long double recip = std::ldexp(1.0L, 61) / std::ldexp(static_cast<long double>(num), e);
        ASSERT_TRUE(std::fabs(recip) >= kMax32 || std::fabs(inv.value - recip) <= std::fabs(recip) / 16777216.0L + 2)
            << num;
        ASSERT_EQ(inv, (Outcome{fx::invert_dp(num, 4, &e2), false, num < 0 ? 44u : 40u})) << num;
    }
    EXPECT_GT(checked, iterations(32));

    for (Word32 x : {0, 1, -1, INT32_MIN, INT32_MAX})  // a zero denominator gives 0, uncounted
        for (Word16 q : {-32768, 0, 2, 32767}) EXPECT_EQ(observe([&] { return evrc_divide_dp(x, 0, q); }), plain(0));
    EXPECT_LT(evrc_divide_dp(12345, 12345, 2), 0);                       // a quotient of 1.0 in Q31 wraps
    EXPECT_EQ(evrc_divide_dp(-5, 3, -32768), -1);                        // far scale factors shift everything out
    EXPECT_TRUE(observe([] { return evrc_divide_dp(-1, 3, 1); }).flag);  // -1 normalises to MIN_32
    Word16 e = 77;
    EXPECT_EQ(observe([&] { return evrc_invert_dp(0, 4, &e); }), plain(0));
    EXPECT_EQ(e, 77);
    EXPECT_EQ(observe([&] { return evrc_invert_dp(-12345, 0, &e); }), (Outcome{-0x55555555, false, 36}));
    EXPECT_TRUE(observe([&] { return evrc_invert_dp(kMin32, 4, &e); }).flag);  // saturates on negation
}

// taylor_sqroot: sqrt near 1.0 (Q31) by a five-term series. The polynomial
// logarithms approximate log(L / 2^31) in Q26 to about 0.01 (base 2); the
// "3term" variant equals the saturating one for positive L, and the other
// bases are the base-2 value scaled by log_b(2) in Q15.
TEST(Nonlinear, SeriesRootAndPolynomialLogarithmsApproximate) {
    Gen g("series");
    for (long i = 0; i < iterations(8); ++i) {
        const Word32 near1 = kMax32 - static_cast<Word32>(g.bits() % (uint64_t{1} << 29));
        const Outcome root = observe([&] { return evrc_taylor_sqroot(near1); });
        ASSERT_NEAR(root.value, std::sqrt(near1 / 2147483648.0) * 2147483648.0, 2147483648.0 * 1e-4) << near1;
        ASSERT_EQ(root, (Outcome{fx::taylor_sqroot(near1), false, 18}));

        const Word32 L = std::max<Word32>(1, g.w32() & INT32_MAX);
        const Outcome v = observe([&] { return evrc_fnLog2(L); });
        ASSERT_NEAR(v.value, std::log2(L / 2147483648.0) * 67108864.0, 0.01 * 67108864.0) << L;
        ASSERT_EQ(v, (Outcome{fx::fnLog2(L), false, 48})) << L;
        const std::tuple<Outcome, int64_t, int, uint32_t, double> scaled[] = {
            // got, inline form, scale, weight, tol
            {observe([&] { return evrc_log2_3term(L); }), fx::log2_3term(L), 32768, 40, 0},  // exactly fnLog2
            {observe([&] { return evrc_fnLog10(L); }), fx::fnLog10(L), 9864, 51, 2},
            {observe([&] { return evrc_log_3term(L); }), fx::log_3term(L), 22713, 41, 2},
            {observe([&] { return evrc_log10_3term(L); }), fx::log10_3term(L), 9864, 41, 2},
        };
        for (const auto &[got, inlined, scale, weight, tol] : scaled) {
            ASSERT_NEAR(got.value, v.value * static_cast<double>(scale) / 32768.0, tol) << L;
            ASSERT_EQ(got, (Outcome{inlined, false, weight})) << L;
        }
    }
    EXPECT_EQ(evrc_fnLog2(0x40000000), -66519040);
    for (Word32 L : {0, -1, INT32_MIN})  // non-positive arguments give defined values
        evrc_fnLog2(L), evrc_fnLog10(L), evrc_log2_3term(L), evrc_log_3term(L), evrc_log10_3term(L),
            evrc_taylor_sqroot(L);
}

}  // namespace
