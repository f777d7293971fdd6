// Saturating 16- and 32-bit operators against an exact 64-bit model of their
// results, overflow flag and operation weight, plus pinned values for the
// corners where they differ from the customary definitions.
#include "harness.h"

namespace {

using namespace basic_test;

Outcome m_round32(int64_t L) {
    return L + 0x8000 > kMax32 ? Outcome{kMax16, true, 1} : plain(floor_div_pow2(L + 0x8000, 16), 1);
}
// Rounding of an already clamped 32-bit value; the flag of either step shows.
Outcome m_round_after(const Outcome &t) { return {m_round32(t.value).value, t.flag || m_round32(t.value).flag, 2}; }

// A `bits`-wide value shifted left by n (right when n < 0): left shifts
// saturate with the flag, right shifts floor, and counts past the width act
// as the width.
Outcome m_shift(int64_t a, int64_t n, int bits, uint32_t w) {
    const int64_t hi = (int64_t{1} << (bits - 1)) - 1;
    if (a == 0 || n == 0) return plain(a, w);
    if (n >= bits - 1) return {a > 0 ? hi : -hi - 1, true, w};
    if (n > 0) return clamp(a * (int64_t{1} << n), hi, w);
    return plain(floor_div_pow2(a, static_cast<int>(std::min<int64_t>(-n, bits - 1))), w);
}

// Normalisation by literal doubling of a 32-bit value.
int64_t doublings(int64_t v) {
    int64_t count = 0;
    for (; v > 0 ? v < 0x40000000 : v >= -0x40000000; v *= 2) ++count;
    return count;
}

const auto acc16 = [](Gen &g) { return std::make_tuple(g.w32(), g.w16(), g.w16()); };
const auto shift16 = [](Gen &g) { return std::make_tuple(g.w16(), g.shift()); };
const auto shift32 = [](Gen &g) { return std::make_tuple(g.w32(), g.shift()); };
// Arguments of saturate, often right at the 16-bit limits.
const auto sat16_arg = [](Gen &g) {
    return std::make_tuple(g.pick(2) ? (g.pick(2) ? 32767 : -32768) * (g.pick(2) + 1) + g.pick(5) - 2 : g.w32());
};

TEST(SaturatingOps, EveryOperatorMatchesExactModel) {
    const long n = iterations();
    EVRC_DIFF(saturate, sat16_arg, [](I x) { return clamp16(x, 0); });
    EVRC_DIFF(L_saturate, one64, [](I x) { return clamp32(x, 4); });
    EVRC_DIFF(add, two16, [](I a, I b) { return clamp16(a + b, 1); });
    EVRC_DIFF(sub, two16, [](I a, I b) { return clamp16(a - b, 1); });
    EVRC_DIFF(abs_s, one16, [](I a) { return clamp16(a < 0 ? -a : a, 1); });
    EVRC_DIFF(negate, one16, [](I a) { return clamp16(-a, 1); });
    EVRC_DIFF(L_abs, one32, [](I L) { return clamp32(L < 0 ? -L : L, 3); });
    EVRC_DIFF(L_negate, one32, [](I L) { return clamp32(-L, 2); });
    EVRC_DIFF(L_add, two32, [](I a, I b) { return clamp32(a + b, 2); });
    EVRC_DIFF(L_sub, two32, [](I a, I b) { return clamp32(a - b, 2); });
    EVRC_DIFF(extract_h, one32, [](I L) { return plain(floor_div_pow2(L, 16), 1); });
    EVRC_DIFF(extract_l, one32, [](I L) { return plain(((L & 0xFFFF) ^ 0x8000) - 0x8000, 1); });
    EVRC_DIFF(L_deposit_h, one16, [](I a) { return plain(a * 65536, 1); });
    EVRC_DIFF(L_deposit_l, one16, [](I a) { return plain(a, 1); });
    EVRC_DIFF(L_mult, two16, [](I a, I b) { return clamp32(2 * a * b, 1); });
    EVRC_DIFF(L_mac, acc16, [](I L, I a, I b) { return clamp32(L + 2 * a * b, 1); });
    EVRC_DIFF(L_msu, acc16, [](I L, I a, I b) { return clamp32(L - 2 * a * b, 1); });
    EVRC_DIFF(mult, two16, [](I a, I b) { return clamp16(floor_div_pow2(a * b, 15), 1); });
    EVRC_DIFF(mult_r, two16, [](I a, I b) { return m_round_after(clamp32(2 * a * b, 0)); });
    EVRC_DIFF(round32, one32, m_round32);
    EVRC_DIFF(mac_r, acc16, [](I L, I a, I b) { return m_round_after(clamp32(L + 2 * a * b, 0)); });
    EVRC_DIFF(msu_r, acc16, [](I L, I a, I b) { return m_round_after(clamp32(L - 2 * a * b, 0)); });
    EVRC_DIFF(shl, shift16, [](I a, I s) { return m_shift(a, s, 16, 1); });
    EVRC_DIFF(shr, shift16, [](I a, I s) { return m_shift(a, -s, 16, 1); });
    EVRC_DIFF(L_shl, shift32, [](I L, I s) { return m_shift(L, s, 32, 2); });
    EVRC_DIFF(L_shr, shift32, [](I L, I s) { return m_shift(L, -s, 32, 2); });
    EVRC_DIFF(norm_s, one16, [](I a) { return plain(a == 0 ? 0 : doublings(a * 65536), 15); });
    EVRC_DIFF(norm_l, one32, [](I L) { return plain(L == 0 ? 0 : doublings(L), 30); });
}

// The deliberate corners, pinned independently of the model.
TEST(SaturatingOps, PinnedCorners) {
    const std::pair<Outcome, Outcome> cases[] = {
        {observe([] { return evrc_saturate(40000); }), {32767, true, 0}},
        // Accumulation is exact before the clamp.
        {observe([] { return evrc_L_mac(-1, -32768, -32768); }), {kMax32, false, 1}},
        {observe([] { return evrc_L_msu(-1, -32768, -32768); }), {kMin32, true, 1}},
        // The accumulation clamps, then rounding MAX_32 flags again.
        {observe([] { return evrc_mac_r(0x7FFF0000, 16384, 16384); }), {32767, true, 2}},
        {observe([] { return evrc_round32(0x7FFF8000); }), {32767, true, 1}},
        // A count of -32768 negates to the largest count.
        {observe([] { return evrc_shl(-5, -32768); }), {-1, false, 1}},
        {observe([] { return evrc_shr(-5, -32768); }), {-32768, true, 1}},
        {observe([] { return evrc_norm_s(-1); }), {15, false, 15}},
        {observe([] { return evrc_norm_l(-1); }), {31, false, 30}},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << "case " << i;

    evrc_op_counter = 0xFFFFFFFEu;  // the counter wraps modulo 2^32
    evrc_L_abs(5);
    EXPECT_EQ(evrc_op_counter, 1u);
}

}  // namespace
