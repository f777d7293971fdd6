// Saturating 16- and 32-bit operators against an exact 64-bit model of their
// results, overflow flag and operation weight, plus pinned values for the
// corners where they differ from the customary definitions.
#include "harness.h"

namespace {

using namespace basic_test;

Outcome clamp16(int64_t v, uint32_t w) { return clamp(v, kMax16, w); }
Outcome clamp32(int64_t v, uint32_t w) { return clamp(v, kMax32, w); }

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

auto one16 = [](Gen &g) { return std::make_tuple(g.w16()); };
auto two16 = [](Gen &g) { return std::make_tuple(g.w16(), g.w16()); };
auto one32 = [](Gen &g) { return std::make_tuple(g.w32()); };
auto two32 = [](Gen &g) { return std::make_tuple(g.w32(), g.w32()); };
auto acc_two16 = [](Gen &g) { return std::make_tuple(g.w32(), g.w16(), g.w16()); };
auto w16_shift = [](Gen &g) { return std::make_tuple(g.w16(), g.shift()); };
auto w32_shift = [](Gen &g) { return std::make_tuple(g.w32(), g.shift()); };
// Arguments of saturate, often right at the 16-bit limits.
auto sat16_arg = [](Gen &g) {
    const int k = g.pick(4);
    return std::make_tuple(k == 0   ? static_cast<Word32>(32767 + g.pick(5) - 2)
                           : k == 1 ? static_cast<Word32>(-32768 + g.pick(5) - 2)
                           : k == 2 ? static_cast<Word32>(g.w16()) * (g.pick(3) + 1)
                                    : g.w32());
};

TEST(SaturatingOps, EveryOperatorMatchesExactModel) {
    const long n = iterations();
    using I = int64_t;
    differential("saturate", n, sat16_arg, [](I x) { return clamp16(x, 0); }, EVRC_FORMS(saturate));
    differential("L_saturate", n, [](Gen &g) { return std::make_tuple(g.w64()); }, [](I x) { return clamp32(x, 4); },
                 EVRC_FORMS(L_saturate));
    differential("add", n, two16, [](I a, I b) { return clamp16(a + b, 1); }, EVRC_FORMS(add));
    differential("sub", n, two16, [](I a, I b) { return clamp16(a - b, 1); }, EVRC_FORMS(sub));
    differential("abs_s", n, one16, [](I a) { return clamp16(a < 0 ? -a : a, 1); }, EVRC_FORMS(abs_s));
    differential("negate", n, one16, [](I a) { return clamp16(-a, 1); }, EVRC_FORMS(negate));
    differential("L_abs", n, one32, [](I L) { return clamp32(L < 0 ? -L : L, 3); }, EVRC_FORMS(L_abs));
    differential("L_negate", n, one32, [](I L) { return clamp32(-L, 2); }, EVRC_FORMS(L_negate));
    differential("L_add", n, two32, [](I a, I b) { return clamp32(a + b, 2); }, EVRC_FORMS(L_add));
    differential("L_sub", n, two32, [](I a, I b) { return clamp32(a - b, 2); }, EVRC_FORMS(L_sub));
    differential("extract_h", n, one32, [](I L) { return plain(floor_div_pow2(L, 16), 1); }, EVRC_FORMS(extract_h));
    differential("extract_l", n, one32, [](I L) { return plain(((L & 0xFFFF) ^ 0x8000) - 0x8000, 1); },
                 EVRC_FORMS(extract_l));
    differential("L_deposit_h", n, one16, [](I a) { return plain(a * 65536, 1); }, EVRC_FORMS(L_deposit_h));
    differential("L_deposit_l", n, one16, [](I a) { return plain(a, 1); }, EVRC_FORMS(L_deposit_l));
    differential("L_mult", n, two16, [](I a, I b) { return clamp32(2 * a * b, 1); }, EVRC_FORMS(L_mult));
    differential("L_mac", n, acc_two16, [](I L, I a, I b) { return clamp32(L + 2 * a * b, 1); }, EVRC_FORMS(L_mac));
    differential("L_msu", n, acc_two16, [](I L, I a, I b) { return clamp32(L - 2 * a * b, 1); }, EVRC_FORMS(L_msu));
    differential("mult", n, two16, [](I a, I b) { return clamp16(floor_div_pow2(a * b, 15), 1); }, EVRC_FORMS(mult));
    differential("mult_r", n, two16, [](I a, I b) { return m_round_after(clamp32(2 * a * b, 0)); },
                 EVRC_FORMS(mult_r));
    differential("round32", n, one32, m_round32, EVRC_FORMS(round32));
    differential("mac_r", n, acc_two16, [](I L, I a, I b) { return m_round_after(clamp32(L + 2 * a * b, 0)); },
                 EVRC_FORMS(mac_r));
    differential("msu_r", n, acc_two16, [](I L, I a, I b) { return m_round_after(clamp32(L - 2 * a * b, 0)); },
                 EVRC_FORMS(msu_r));
    differential("shl", n, w16_shift, [](I a, I s) { return m_shift(a, s, 16, 1); }, EVRC_FORMS(shl));
    differential("shr", n, w16_shift, [](I a, I s) { return m_shift(a, -s, 16, 1); }, EVRC_FORMS(shr));
    differential("L_shl", n, w32_shift, [](I L, I s) { return m_shift(L, s, 32, 2); }, EVRC_FORMS(L_shl));
    differential("L_shr", n, w32_shift, [](I L, I s) { return m_shift(L, -s, 32, 2); }, EVRC_FORMS(L_shr));
    differential("norm_s", n, one16, [](I a) { return plain(a == 0 ? 0 : doublings(a * 65536), 15); },
                 EVRC_FORMS(norm_s));
    differential("norm_l", n, one32, [](I L) { return plain(L == 0 ? 0 : doublings(L), 30); }, EVRC_FORMS(norm_l));
}

// The deliberate corners, pinned independently of the model.
TEST(SaturatingOps, PinnedCorners) {
    const std::pair<Outcome, Outcome> cases[] = {
        {observe([] { return evrc_saturate(40000); }), {32767, true, 0}},
        {observe([] { return evrc_L_abs(INT32_MIN); }), {kMax32, true, 3}},
        // Accumulation is exact before the clamp.
        {observe([] { return evrc_L_mac(-1, -32768, -32768); }), {kMax32, false, 1}},
        {observe([] { return evrc_L_msu(-1, -32768, -32768); }), {kMin32, true, 1}},
        // The accumulation clamps, then rounding MAX_32 flags again.
        {observe([] { return evrc_mac_r(0x7FFF0000, 16384, 16384); }), {32767, true, 2}},
        {observe([] { return evrc_round32(0x7FFF8000); }), {32767, true, 1}},
        {observe([] { return evrc_round32(-32768); }), {0, false, 1}},
        // A count of -32768 negates to the largest count.
        {observe([] { return evrc_shl(-5, -32768); }), {-1, false, 1}},
        {observe([] { return evrc_shr(-5, -32768); }), {-32768, true, 1}},
        {observe([] { return evrc_L_shl(-1, 31); }), {kMin32, true, 2}},
        {observe([] { return evrc_norm_s(-1); }), {15, false, 15}},
        {observe([] { return evrc_norm_l(-1); }), {31, false, 30}},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << "case " << i;

    evrc_op_counter = 0xFFFFFFFEu;  // the counter wraps modulo 2^32
    evrc_L_abs(5);
    EXPECT_EQ(evrc_op_counter, 1u);
}

}  // namespace
