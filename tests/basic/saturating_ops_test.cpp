// Saturating 16- and 32-bit operators against an exact 64-bit model of their
// results, overflow flag and operation weight, plus the deliberate corner
// cases that differ from the customary definitions.
#include "codec/basic/fixed_point.h"
#include "harness.h"

namespace {

using namespace basic_test;

constexpr int64_t kMax16 = 32767;
constexpr int64_t kMin16 = -32768;
constexpr int64_t kMax32 = 2147483647;
constexpr int64_t kMin32 = -2147483647LL - 1;

Outcome clamp(int64_t v, int64_t lo, int64_t hi, uint32_t w) {
    if (v > hi) return {hi, true, w};
    if (v < lo) return {lo, true, w};
    return {v, false, w};
}
Outcome clamp16(int64_t v, uint32_t w) { return clamp(v, kMin16, kMax16, w); }
Outcome clamp32(int64_t v, uint32_t w) { return clamp(v, kMin32, kMax32, w); }
Outcome plain(int64_t v, uint32_t w) { return {v, false, w}; }
int64_t ipow2(int n) { return int64_t{1} << n; }

Outcome m_round32(int64_t L) {
    if (L + 0x8000 > kMax32) return {kMax16, true, 1};
    return plain(floor_div_pow2(L + 0x8000, 16), 1);
}

// Rounding of an already clamped 32-bit value; the flag of either step shows.
Outcome m_round_after(const Outcome &t, uint32_t w) {
    const Outcome r = m_round32(t.value);
    return {r.value, t.flag || r.flag, w};
}

Outcome m_shl(int64_t a, int64_t n) {
    if (a == 0 || n == 0) return plain(a, 1);
    if (n >= 15) return {a > 0 ? kMax16 : kMin16, true, 1};
    if (n > 0) return clamp16(a * ipow2(static_cast<int>(n)), 1);
    return plain(floor_div_pow2(a, static_cast<int>(n <= -15 ? 15 : -n)), 1);
}

Outcome m_shr(int64_t a, int64_t n) {
    if (a == 0 || n == 0) return plain(a, 1);
    if (n > 0) return plain(floor_div_pow2(a, static_cast<int>(n >= 15 ? 15 : n)), 1);
    if (n <= -15) return {a > 0 ? kMax16 : kMin16, true, 1};
    return clamp16(a * ipow2(static_cast<int>(-n)), 1);
}

Outcome m_L_shl(int64_t L, int64_t n) {
    if (L == 0 || n == 0) return plain(L, 2);
    if (n >= 31) return {L > 0 ? kMax32 : kMin32, true, 2};
    if (n > 0) return clamp32(L * ipow2(static_cast<int>(n)), 2);
    return plain(floor_div_pow2(L, static_cast<int>(n <= -31 ? 31 : -n)), 2);
}

Outcome m_L_shr(int64_t L, int64_t n) {
    if (L == 0 || n == 0) return plain(L, 2);
    if (n > 0) return plain(floor_div_pow2(L, static_cast<int>(n >= 31 ? 31 : n)), 2);
    if (n <= -31) return {L > 0 ? kMax32 : kMin32, true, 2};
    return clamp32(L * ipow2(static_cast<int>(-n)), 2);
}

// Normalisation by literal doubling.
int64_t doublings(int64_t v) {
    int64_t count = 0;
    if (v > 0) {
        for (; v < 0x40000000; v *= 2) ++count;
    } else {
        for (; v >= -0x40000000; v *= 2) ++count;
    }
    return count;
}
Outcome m_norm_s(int64_t a) { return plain(a == 0 ? 0 : doublings(a * 65536), 15); }
Outcome m_norm_l(int64_t L) { return plain(L == 0 ? 0 : doublings(L), 30); }

auto one16 = [](Gen &g) { return std::make_tuple(g.w16()); };
auto two16 = [](Gen &g) { return std::make_tuple(g.w16(), g.w16()); };
auto one32 = [](Gen &g) { return std::make_tuple(g.w32()); };
auto two32 = [](Gen &g) { return std::make_tuple(g.w32(), g.w32()); };
auto acc_two16 = [](Gen &g) { return std::make_tuple(g.w32(), g.w16(), g.w16()); };
auto w16_shift = [](Gen &g) { return std::make_tuple(g.w16(), g.shift()); };
auto w32_shift = [](Gen &g) { return std::make_tuple(g.w32(), g.shift()); };
// Arguments of saturate: anything, often right at the 16-bit limits.
auto sat16_arg = [](Gen &g) {
    switch (g.pick(4)) {
        case 0: return std::make_tuple(static_cast<Word32>(32767 + g.pick(5) - 2));
        case 1: return std::make_tuple(static_cast<Word32>(-32768 + g.pick(5) - 2));
        case 2: return std::make_tuple(static_cast<Word32>(g.w16()) * (g.pick(3) + 1));
        default: return std::make_tuple(g.w32());
    }
};
auto wide64 = [](Gen &g) { return std::make_tuple(g.w64()); };

TEST(SaturatingOps, AdditiveOperatorsMatchExactModel) {
    const long n = iterations();
    differential("saturate", n, sat16_arg, [](Word32 x) { return clamp16(x, 0); }, EVRC_FORMS(saturate));
    differential("L_saturate", n, wide64, [](Word64 x) { return clamp32(x, 4); }, EVRC_FORMS(L_saturate));
    differential("add", n, two16, [](int64_t a, int64_t b) { return clamp16(a + b, 1); }, EVRC_FORMS(add));
    differential("sub", n, two16, [](int64_t a, int64_t b) { return clamp16(a - b, 1); }, EVRC_FORMS(sub));
    differential("abs_s", n, one16, [](int64_t a) { return clamp16(a < 0 ? -a : a, 1); }, EVRC_FORMS(abs_s));
    differential("negate", n, one16, [](int64_t a) { return clamp16(-a, 1); }, EVRC_FORMS(negate));
    differential("L_abs", n, one32, [](int64_t L) { return clamp32(L < 0 ? -L : L, 3); }, EVRC_FORMS(L_abs));
    differential("L_negate", n, one32, [](int64_t L) { return clamp32(-L, 2); }, EVRC_FORMS(L_negate));
    differential("L_add", n, two32, [](int64_t a, int64_t b) { return clamp32(a + b, 2); }, EVRC_FORMS(L_add));
    differential("L_sub", n, two32, [](int64_t a, int64_t b) { return clamp32(a - b, 2); }, EVRC_FORMS(L_sub));
}

TEST(SaturatingOps, WordMovesMatchExactModel) {
    const long n = iterations();
    differential("extract_h", n, one32, [](int64_t L) { return plain(floor_div_pow2(L, 16), 1); },
                 EVRC_FORMS(extract_h));
    differential("extract_l", n, one32,
                 [](int64_t L) {
                     int64_t v = L - floor_div_pow2(L, 16) * 65536;
                     return plain(v >= 32768 ? v - 65536 : v, 1);
                 },
                 EVRC_FORMS(extract_l));
    differential("L_deposit_h", n, one16, [](int64_t a) { return plain(a * 65536, 1); }, EVRC_FORMS(L_deposit_h));
    differential("L_deposit_l", n, one16, [](int64_t a) { return plain(a, 1); }, EVRC_FORMS(L_deposit_l));
}

TEST(SaturatingOps, ProductsMatchExactModel) {
    const long n = iterations();
    differential("L_mult", n, two16, [](int64_t a, int64_t b) { return clamp32(2 * a * b, 1); }, EVRC_FORMS(L_mult));
    differential("L_mac", n, acc_two16, [](int64_t L, int64_t a, int64_t b) { return clamp32(L + 2 * a * b, 1); },
                 EVRC_FORMS(L_mac));
    differential("L_msu", n, acc_two16, [](int64_t L, int64_t a, int64_t b) { return clamp32(L - 2 * a * b, 1); },
                 EVRC_FORMS(L_msu));
    differential("mult", n, two16, [](int64_t a, int64_t b) { return clamp16(floor_div_pow2(a * b, 15), 1); },
                 EVRC_FORMS(mult));
    differential("mult_r", n, two16, [](int64_t a, int64_t b) { return m_round_after(clamp32(2 * a * b, 0), 2); },
                 EVRC_FORMS(mult_r));
    differential("round32", n, one32, m_round32, EVRC_FORMS(round32));
    differential("mac_r", n, acc_two16,
                 [](int64_t L, int64_t a, int64_t b) { return m_round_after(clamp32(L + 2 * a * b, 0), 2); },
                 EVRC_FORMS(mac_r));
    differential("msu_r", n, acc_two16,
                 [](int64_t L, int64_t a, int64_t b) { return m_round_after(clamp32(L - 2 * a * b, 0), 2); },
                 EVRC_FORMS(msu_r));
}

TEST(SaturatingOps, ShiftsAndNormalisationMatchExactModel) {
    const long n = iterations();
    differential("shl", n, w16_shift, m_shl, EVRC_FORMS(shl));
    differential("shr", n, w16_shift, m_shr, EVRC_FORMS(shr));
    differential("L_shl", n, w32_shift, m_L_shl, EVRC_FORMS(L_shl));
    differential("L_shr", n, w32_shift, m_L_shr, EVRC_FORMS(L_shr));
    differential("norm_s", n, one16, m_norm_s, EVRC_FORMS(norm_s));
    differential("norm_l", n, one32, m_norm_l, EVRC_FORMS(norm_l));
}

TEST(SaturatingOps, MostNegativeValuesSaturateWithFlag) {
    EXPECT_EQ(observe([] { return evrc_add(32767, 1); }), (Outcome{32767, true, 1}));
    EXPECT_EQ(observe([] { return evrc_sub(-32768, 1); }), (Outcome{-32768, true, 1}));
    EXPECT_EQ(observe([] { return evrc_abs_s(-32768); }), (Outcome{32767, true, 1}));
    EXPECT_EQ(observe([] { return evrc_negate(-32768); }), (Outcome{32767, true, 1}));
    EXPECT_EQ(observe([] { return evrc_L_abs(INT32_MIN); }), (Outcome{kMax32, true, 3}));
    EXPECT_EQ(observe([] { return evrc_L_negate(INT32_MIN); }), (Outcome{kMax32, true, 2}));
    EXPECT_EQ(observe([] { return evrc_saturate(40000); }), (Outcome{32767, true, 0}));
}

TEST(SaturatingOps, MultiplyAccumulateIsExactBeforeTheClamp) {
    EXPECT_EQ(observe([] { return evrc_L_mult(-32768, -32768); }), (Outcome{kMax32, true, 1}));
    EXPECT_EQ(observe([] { return evrc_L_mac(-1, -32768, -32768); }), (Outcome{kMax32, false, 1}));
    EXPECT_EQ(observe([] { return evrc_L_mac(0, -32768, -32768); }), (Outcome{kMax32, true, 1}));
    EXPECT_EQ(observe([] { return evrc_L_mac(-5, -32768, -32768); }), (Outcome{kMax32 - 4, false, 1}));
    EXPECT_EQ(observe([] { return evrc_L_msu(0, -32768, -32768); }), (Outcome{kMin32, false, 1}));
    EXPECT_EQ(observe([] { return evrc_L_msu(-1, -32768, -32768); }), (Outcome{kMin32, true, 1}));
    EXPECT_EQ(observe([] { return evrc_mult(-32768, -32768); }), (Outcome{32767, true, 1}));
    EXPECT_EQ(observe([] { return evrc_mult(-1, 1); }), (Outcome{-1, false, 1}));
    EXPECT_EQ(observe([] { return evrc_mult_r(-32768, -32768); }), (Outcome{32767, true, 2}));
}

TEST(SaturatingOps, RoundingAtTheTopAndForNegatives) {
    EXPECT_EQ(observe([] { return evrc_round32(0x7FFF8000); }), (Outcome{32767, true, 1}));
    EXPECT_EQ(observe([] { return evrc_round32(0x7FFF7FFF); }), (Outcome{32767, false, 1}));
    EXPECT_EQ(observe([] { return evrc_round32(-32768); }), (Outcome{0, false, 1}));
    EXPECT_EQ(observe([] { return evrc_round32(-32769); }), (Outcome{-1, false, 1}));
    // mac_r: the accumulation clamps, then rounding of MAX_32 flags again.
    EXPECT_EQ(observe([] { return evrc_mac_r(0x7FFF0000, 16384, 16384); }), (Outcome{32767, true, 2}));
}

TEST(SaturatingOps, ShiftCornerCases) {
    EXPECT_EQ(observe([] { return evrc_shl(-1, 15); }), (Outcome{-32768, true, 1}));
    EXPECT_EQ(observe([] { return evrc_shl(1, 14); }), (Outcome{16384, false, 1}));
    EXPECT_EQ(observe([] { return evrc_shl(0, 40); }), (Outcome{0, false, 1}));
    EXPECT_EQ(observe([] { return evrc_shr(5, -15); }), (Outcome{32767, true, 1}));
    EXPECT_EQ(observe([] { return evrc_shr(-5, 20); }), (Outcome{-1, false, 1}));
    EXPECT_EQ(observe([] { return evrc_shl(-5, -32768); }), (Outcome{-1, false, 1}));
    EXPECT_EQ(observe([] { return evrc_shr(-5, -32768); }), (Outcome{-32768, true, 1}));
    EXPECT_EQ(observe([] { return evrc_L_shl(0x40000000, 1); }), (Outcome{kMax32, true, 2}));
    EXPECT_EQ(observe([] { return evrc_L_shl(-1, 31); }), (Outcome{kMin32, true, 2}));
    EXPECT_EQ(observe([] { return evrc_L_shl(-0x40000000, 1); }), (Outcome{kMin32, false, 2}));
    EXPECT_EQ(observe([] { return evrc_L_shr(-1, 40); }), (Outcome{-1, false, 2}));
    EXPECT_EQ(observe([] { return evrc_L_shr(1, -31); }), (Outcome{kMax32, true, 2}));
    EXPECT_EQ(observe([] { return evrc_L_shr(0, -31); }), (Outcome{0, false, 2}));
}

TEST(SaturatingOps, NormalisationCounts) {
    EXPECT_EQ(observe([] { return evrc_norm_s(0); }), (Outcome{0, false, 15}));
    EXPECT_EQ(evrc_norm_s(-1), 15);
    EXPECT_EQ(evrc_norm_s(1), 14);
    EXPECT_EQ(evrc_norm_s(16384), 0);
    EXPECT_EQ(evrc_norm_s(-16385), 0);
    EXPECT_EQ(evrc_norm_s(-32768), 0);
    EXPECT_EQ(observe([] { return evrc_norm_l(0); }), (Outcome{0, false, 30}));
    EXPECT_EQ(evrc_norm_l(-1), 31);
    EXPECT_EQ(evrc_norm_l(1), 30);
    EXPECT_EQ(evrc_norm_l(INT32_MIN), 0);
    EXPECT_EQ(evrc_norm_l(INT32_MAX), 0);
}

TEST(SaturatingOps, CounterWrapsModulo32Bits) {
    evrc_op_counter = 0xFFFFFFFEu;
    evrc_L_abs(5);
    EXPECT_EQ(evrc_op_counter, 1u);
}

}  // namespace
