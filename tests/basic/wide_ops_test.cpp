// 64-bit and mixed-width operators against exact wide-integer models: plain
// products and accumulations wrap modulo 2^64 and leave flag and counter
// alone; the saturating and double-precision ones count and flag as their
// 16/32-bit parts do.
#include "codec/basic/fixed_point.h"
#include "harness.h"

#include <algorithm>

namespace {

using namespace basic_test;

constexpr int64_t kMax16 = 32767;
constexpr int64_t kMin16 = -32768;
constexpr int64_t kMax32 = 2147483647;
constexpr int64_t kMin32 = -2147483647LL - 1;

Outcome plain(int64_t v, uint32_t w = 0) { return {v, false, w}; }
Outcome clamp32(int64_t v, uint32_t w) {
    if (v > kMax32) return {kMax32, true, w};
    if (v < kMin32) return {kMin32, true, w};
    return {v, false, w};
}

// The low `bits` bits of x read as a signed number.
int64_t low_signed(int64_t x, int bits) {
    const int64_t m = x - floor_div_pow2(x, bits) * (int64_t{1} << bits);
    return m >= (int64_t{1} << (bits - 1)) ? m - (int64_t{1} << bits) : m;
}
int64_t high16(int64_t x) { return floor_div_pow2(x, 16); }
int64_t low16u(int64_t x) { return x - high16(x) * 65536; }

int64_t shifted_left(int64_t x, int n) { return n >= 64 ? 0 : low64(Exact(x) * pow2(n)); }
int64_t shift_model(int64_t x, int n) { return n >= 0 ? shifted_left(x, n) : floor_div_pow2(x, -n); }

Outcome m_round32(int64_t L) {
    if (L + 0x8000 > kMax32) return {kMax16, true, 1};
    return plain(floor_div_pow2(L + 0x8000, 16), 1);
}

Outcome m_norm32_l64(int64_t x) {
    if (x == 0) return plain(31);
    int64_t count = 0;
    for (; x >= -(kMax32) && x <= kMax32 - 1; x *= 2) ++count;
    for (; x < kMin32 || x > kMax32; x = floor_div_pow2(x, 1)) --count;
    return plain(count);
}

auto two32 = [](Gen &g) { return std::make_tuple(g.w32(), g.w32()); };
auto acc_two32 = [](Gen &g) { return std::make_tuple(g.w64(), g.w32(), g.w32()); };
auto two64 = [](Gen &g) { return std::make_tuple(g.w64(), g.w64()); };
auto one64 = [](Gen &g) { return std::make_tuple(g.w64()); };
auto w64_shift = [](Gen &g) { return std::make_tuple(g.w64(), g.shift()); };

TEST(WideOps, PlainProductsMatchExactModel) {
    const long n = iterations();
    differential("extract64_l", n, one64, [](int64_t x) { return plain(low_signed(x, 32)); },
                 EVRC_FORMS(extract64_l));
    differential("int_mult_16_16", n, two32,
                 [](int64_t a, int64_t b) { return plain(low_signed(a, 16) * low_signed(b, 16)); },
                 EVRC_FORMS(int_mult_16_16));
    differential("int_mult_16h_16", n, two32,
                 [](int64_t a, int64_t b) { return plain(high16(a) * low_signed(b, 16)); },
                 EVRC_FORMS(int_mult_16h_16));
    const auto exact = [](int64_t a, int64_t b) { return plain(a * b); };
    differential("L_mult64_su", n, two32, exact, EVRC_FORMS(L_mult64_su));
    differential("int_mult_32_16", n, two32, exact, EVRC_FORMS(int_mult_32_16));
    differential("int_mult_32_32", n, two32, exact, EVRC_FORMS(int_mult_32_32));
    differential("L_mult64_uu", n, two32,
                 [](int64_t a, int64_t b) {
                     return plain(low64(Exact(a & 0xFFFFFFFF) * Exact(b & 0xFFFFFFFF)));
                 },
                 EVRC_FORMS(L_mult64_uu));
    const auto low = [](int64_t a, int64_t b) { return plain(low_signed(a * b, 32)); };
    differential("L_mult_su", n, two32, low, EVRC_FORMS(L_mult_su));
    differential("L_mult_uu", n, two32, low, EVRC_FORMS(L_mult_uu));
}

TEST(WideOps, AccumulationsWrapModulo2To64) {
    const long n = iterations();
    const auto mac = [](int64_t acc, int64_t a, int64_t b) { return plain(low64(Exact(acc) + Exact(a * b))); };
    differential("int_mac_16_16", n, acc_two32, mac, EVRC_FORMS(int_mac_16_16));
    differential("int_mac_32_16", n, acc_two32, mac, EVRC_FORMS(int_mac_32_16));
    differential("int_msu_16_16", n, acc_two32,
                 [](int64_t acc, int64_t a, int64_t b) { return plain(low64(Exact(acc) - Exact(a * b))); },
                 EVRC_FORMS(int_msu_16_16));
    differential("int_mac_16_16_s1", n, acc_two32,
                 [](int64_t acc, int64_t a, int64_t b) {
                     return plain(low64(Exact(acc) + Exact(2) * Exact(a * b)));
                 },
                 [](auto... x) { return ::int_mac_16_16_s1(x...); },
                 [](auto... x) { return fx::int_mac_16_16_s1(x...); });
    differential("int_mac_16_16_shift", n,
                 [](Gen &g) { return std::make_tuple(g.w64(), g.w32(), g.w32(), g.shift()); },
                 [](int64_t acc, int64_t a, int64_t b, int64_t s) {
                     return plain(low64(Exact(acc) + Exact(shift_model(a * b, static_cast<int>(s)))));
                 },
                 EVRC_FORMS(int_mac_16_16_shift));
    differential("L_mac64_su", n, acc_two32,
                 [](int64_t acc, int64_t a, int64_t b) {
                     return plain(low64(Exact(acc) + Exact(low_signed(a * b, 32))));
                 },
                 EVRC_FORMS(L_mac64_su));
    differential("L_add64", n, two64, [](int64_t x, int64_t y) { return plain(low64(Exact(x) + Exact(y))); },
                 EVRC_FORMS(L_add64));
    differential("L_sub64", n, two64, [](int64_t x, int64_t y) { return plain(low64(Exact(x) - Exact(y))); },
                 EVRC_FORMS(L_sub64));
    differential("L_negate64", n, one64, [](int64_t x) { return plain(low64(Exact(0) - Exact(x))); },
                 EVRC_FORMS(L_negate64));
}

TEST(WideOps, ShiftsAndSelectionsMatchExactModel) {
    const long n = iterations();
    differential("L_shl64", n, w64_shift, [](int64_t x, int64_t s) { return plain(shift_model(x, static_cast<int>(s))); },
                 EVRC_FORMS(L_shl64));
    differential("L_shr64", n, w64_shift,
                 [](int64_t x, int64_t s) { return plain(shift_model(x, -static_cast<int>(s))); },
                 EVRC_FORMS(L_shr64));
    const auto mx = [](int64_t a, int64_t b) { return plain(std::max(a, b)); };
    const auto mn = [](int64_t a, int64_t b) { return plain(std::min(a, b)); };
    differential("MAX16", n, two32, mx, EVRC_FORMS(MAX16));
    differential("MAX32", n, two32, mx, EVRC_FORMS(MAX32));
    differential("MIN16", n, two32, mn, EVRC_FORMS(MIN16));
    differential("MIN32", n, two32, mn, EVRC_FORMS(MIN32));
    differential("norm32_l64", n, one64, m_norm32_l64, EVRC_FORMS(norm32_l64));
}

TEST(WideOps, SaturatingOperatorsMatchExactModel) {
    const long n = iterations();
    differential("L_sat32_64", n, one64,
                 [](int64_t x) { return plain(std::min(std::max(x, kMin32), kMax32)); }, EVRC_FORMS(L_sat32_64));
    differential("L_sat32_64_round16", n, one64,
                 [](int64_t x) {
                     if (x > kMax32) return plain(kMax16);
                     if (x < kMin32) return plain(kMin16);
                     return m_round32(x);
                 },
                 EVRC_FORMS(L_sat32_64_round16));
    differential("L_mac64", n, acc_two32,
                 [](int64_t acc, int64_t a, int64_t b) {
                     return clamp32(low64(Exact(acc) + Exact(2) * Exact(a * b)), 4);
                 },
                 EVRC_FORMS(L_mac64));
    differential("L_mult_32_16", n, [](Gen &g) { return std::make_tuple(g.w32(), g.w16()); },
                 [](int64_t L, int64_t b) {
                     const Outcome hi = clamp32(2 * high16(L) * b, 0);
                     const Outcome sum = clamp32(hi.value + floor_div_pow2(low16u(L) * b, 15), 5);
                     return Outcome{sum.value, hi.flag || sum.flag, 5};
                 },
                 EVRC_FORMS(L_mult_32_16));
    differential("L_mult64_32_32", n, two32,
                 [](int64_t a, int64_t b) {
                     const Outcome hi = clamp32(2 * high16(a) * high16(b), 5);
                     const int64_t cross = low16u(a) * high16(b) + low16u(b) * high16(a);
                     return Outcome{hi.value + floor_div_pow2(cross, 15), hi.flag, 5};
                 },
                 EVRC_FORMS(L_mult64_32_32));
}

// The double-precision 32x32 product drops only the low x low term and
// truncates, so it sits 0 to 2 units below floor(a*b / 2^31).
TEST(WideOps, DoublePrecisionProductApproximatesTheTrueProduct) {
    Gen g(12);
    for (long i = 0; i < iterations() / 16; ++i) {
        const Word32 a = g.w32();
        const Word32 b = g.w32();
        if ((a >> 16) == -32768 && (b >> 16) == -32768) continue;  // saturated high part
        const int64_t gap = floor_div_pow2(int64_t{a} * b, 31) - evrc_L_mult64_32_32(a, b);
        ASSERT_GE(gap, 0) << a << " " << b;
        ASSERT_LE(gap, 2) << a << " " << b;
    }
}

TEST(WideOps, CornerCases) {
    EXPECT_EQ(evrc_int_mult_16h_16(0x00030000, 5), 15);
    EXPECT_EQ(evrc_int_mult_16_16(0x00010003, 5), 15);
    EXPECT_EQ(static_cast<uint64_t>(evrc_L_mult64_uu(-1, -1)), 0xFFFFFFFE00000001ull);
    EXPECT_EQ(evrc_L_mult64_su(-1, -1), 1);
    EXPECT_EQ(observe([] { return evrc_L_sat32_64(int64_t{1} << 40); }), plain(kMax32));
    EXPECT_EQ(observe([] { return evrc_L_mac64(int64_t{1} << 40, 0, 0); }), (Outcome{kMax32, true, 4}));
    EXPECT_EQ(observe([] { return evrc_L_sat32_64_round16(int64_t{1} << 33); }), plain(32767));
    EXPECT_EQ(observe([] { return evrc_L_sat32_64_round16(0x7FFF8000); }), (Outcome{32767, true, 1}));
    EXPECT_EQ(observe([] { return evrc_L_mult_32_16(INT32_MAX, 32767); }), (Outcome{0x7FFEFFFF, false, 5}));
    EXPECT_EQ(observe([] { return evrc_L_mult64_32_32(INT32_MIN, INT32_MIN); }), (Outcome{kMax32, true, 5}));
    EXPECT_EQ(evrc_norm32_l64(0), 31);
    EXPECT_EQ(evrc_norm32_l64(1), 30);
    EXPECT_EQ(evrc_norm32_l64(-1), 31);
    EXPECT_EQ(evrc_norm32_l64(int64_t{1} << 40), -10);
    EXPECT_EQ(evrc_norm32_l64(int64_t{1} << 31), -1);
    EXPECT_EQ(evrc_L_shr64(-8, 70), -1);
    EXPECT_EQ(evrc_L_shl64(1, 64), 0);
    EXPECT_EQ(evrc_L_shl64(8, -2), 2);
    EXPECT_EQ(evrc_MAX16(3, 3), 3);
    EXPECT_EQ(evrc_MIN16(3, 3), 3);
    // 2ab overflows 64 bits for a = b = MIN_32 and is taken modulo 2^64.
    EXPECT_EQ(observe([] { return evrc_L_mac64(0, INT32_MIN, INT32_MIN); }), (Outcome{kMin32, true, 4}));
    EXPECT_EQ(int_mac_16_16_s1(0, INT32_MIN, INT32_MIN), INT64_MIN);
}

// A count of -32768 has no 16-bit negation; it acts as the largest count.
TEST(WideOps, MostNegativeShiftCountShiftsEverythingOut) {
    EXPECT_EQ(evrc_L_shl64(-12345, -32768), -1);
    EXPECT_EQ(evrc_L_shl64(12345, -32768), 0);
    EXPECT_EQ(evrc_L_shr64(-12345, -32768), 0);
    EXPECT_EQ(evrc_int_mac_16_16_shift(7, -3, 5, -32768), 6);
    EXPECT_EQ(evrc_int_mac_16_16_shift(7, 3, 5, -32768), 7);
    EXPECT_EQ(evrc_int_mac_16_16_shift(7, 3, 5, 32767), 7);
}

#if defined(EVRC_TEST_NATIVE_INT128)
// Targets without __int128 model the 64-bit operators modulo 2^64; check that
// this fallback agrees with the exact 128-bit model where both exist.
TEST(WideOps, ModularFallbackModelAgreesWithExactModel) {
    Gen g(13);
    for (long i = 0; i < iterations() / 16; ++i) {
        const int64_t x = g.w64(), y = g.w64();
        const int n = g.pick(64);
        ASSERT_EQ(low64(Modular64(x) + Modular64(y) * Modular64(y)), low64(Exact(x) + Exact(y) * Exact(y)));
        ASSERT_EQ(low64(Modular64(x) - Modular64(y)), low64(Exact(x) - Exact(y)));
        const Modular64 p = n == 63 ? Modular64(INT64_MAX) + Modular64(1) : Modular64(int64_t{1} << n);
        ASSERT_EQ(low64(Modular64(x) * p), low64(Exact(x) * pow2(n)));
    }
}
#endif

}  // namespace
