// The 16-, 32- and 64-bit operators against exact wide-integer models of
// their results, overflow flag and operation weight: saturating operators
// clamp and flag, plain 64-bit products and accumulations wrap modulo 2^64
// and leave flag and counter alone. Pinned values for the corners where they
// differ from the customary definitions.
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

// The low `bits` bits of x read as a signed number.
int64_t low_signed(int64_t x, int bits) {
    const int64_t m = x - floor_div_pow2(x, bits) * (int64_t{1} << bits);
    return m >= (int64_t{1} << (bits - 1)) ? m - (int64_t{1} << bits) : m;
}
int64_t high16(int64_t x) { return floor_div_pow2(x, 16); }
int64_t low16u(int64_t x) { return x - high16(x) * 65536; }
// x * 2^n, or floor(x / 2^-n) for n < 0, modulo 2^64.
int64_t shift_model(int64_t x, int n) {
    return n >= 64 ? 0 : n >= 0 ? low64(Wide(x) * (Wide(1) << n)) : floor_div_pow2(x, -n);
}
// Normalisation by literal doubling and halving into the 32-bit range.
Outcome m_norm32_l64(int64_t x) {
    int64_t count = 0;
    for (; x != 0 && x >= -kMax32 && x <= kMax32 - 1; x *= 2) ++count;
    for (; x < kMin32 || x > kMax32; x = floor_div_pow2(x, 1)) --count;
    return plain(x == 0 ? 31 : count);
}

const auto acc32 = [](Gen &g) { return std::make_tuple(g.w64(), g.w32(), g.w32()); };
const auto two64 = [](Gen &g) { return std::make_tuple(g.w64(), g.w64()); };
const auto shift64 = [](Gen &g) { return std::make_tuple(g.w64(), g.shift()); };
const auto acc16 = [](Gen &g) { return std::make_tuple(g.w32(), g.w16(), g.w16()); };
const auto shift16 = [](Gen &g) { return std::make_tuple(g.w16(), g.shift()); };
const auto shift32 = [](Gen &g) { return std::make_tuple(g.w32(), g.shift()); };

TEST(Operators, SaturatingMatchExactModel) {
    const long n = iterations();
    EVRC_DIFF(saturate, one32, [](I x) { return clamp(x, kMax16, 0); });
    EVRC_DIFF(L_saturate, one64, [](I x) { return clamp(x, kMax32, 4); });
    EVRC_DIFF(add, two16, [](I a, I b) { return clamp(a + b, kMax16, 1); });
    EVRC_DIFF(sub, two16, [](I a, I b) { return clamp(a - b, kMax16, 1); });
    EVRC_DIFF(abs_s, one16, [](I a) { return clamp(a < 0 ? -a : a, kMax16, 1); });
    EVRC_DIFF(negate, one16, [](I a) { return clamp(-a, kMax16, 1); });
    EVRC_DIFF(L_abs, one32, [](I L) { return clamp(L < 0 ? -L : L, kMax32, 3); });
    EVRC_DIFF(L_negate, one32, [](I L) { return clamp(-L, kMax32, 2); });
    EVRC_DIFF(L_add, two32, [](I a, I b) { return clamp(a + b, kMax32, 2); });
    EVRC_DIFF(L_sub, two32, [](I a, I b) { return clamp(a - b, kMax32, 2); });
    EVRC_DIFF(extract_h, one32, [](I L) { return plain(floor_div_pow2(L, 16), 1); });
    EVRC_DIFF(extract_l, one32, [](I L) { return plain(((L & 0xFFFF) ^ 0x8000) - 0x8000, 1); });
    EVRC_DIFF(L_deposit_h, one16, [](I a) { return plain(a * 65536, 1); });
    EVRC_DIFF(L_deposit_l, one16, [](I a) { return plain(a, 1); });
    EVRC_DIFF(L_mult, two16, [](I a, I b) { return clamp(2 * a * b, kMax32, 1); });
    EVRC_DIFF(L_mac, acc16, [](I L, I a, I b) { return clamp(L + 2 * a * b, kMax32, 1); });
    EVRC_DIFF(L_msu, acc16, [](I L, I a, I b) { return clamp(L - 2 * a * b, kMax32, 1); });
    EVRC_DIFF(mult, two16, [](I a, I b) { return clamp(floor_div_pow2(a * b, 15), kMax16, 1); });
    EVRC_DIFF(mult_r, two16, [](I a, I b) { return m_round_after(clamp(2 * a * b, kMax32, 0)); });
    EVRC_DIFF(round32, one32, m_round32);
    EVRC_DIFF(mac_r, acc16, [](I L, I a, I b) { return m_round_after(clamp(L + 2 * a * b, kMax32, 0)); });
    EVRC_DIFF(msu_r, acc16, [](I L, I a, I b) { return m_round_after(clamp(L - 2 * a * b, kMax32, 0)); });
    EVRC_DIFF(shl, shift16, [](I a, I s) { return m_shift(a, s, 16, 1); });
    EVRC_DIFF(shr, shift16, [](I a, I s) { return m_shift(a, -s, 16, 1); });
    EVRC_DIFF(L_shl, shift32, [](I L, I s) { return m_shift(L, s, 32, 2); });
    EVRC_DIFF(L_shr, shift32, [](I L, I s) { return m_shift(L, -s, 32, 2); });
    EVRC_DIFF(norm_s, one16, [](I a) { return plain(a == 0 ? 0 : m_norm32_l64(a * 65536).value, 15); });
    EVRC_DIFF(norm_l, one32, [](I L) { return plain(L == 0 ? 0 : m_norm32_l64(L).value, 30); });
}

TEST(Operators, PlainWideMatchExactModel) {
    const long n = iterations();
    EVRC_DIFF(extract64_l, one64, [](I x) { return plain(low_signed(x, 32)); });
    EVRC_DIFF(int_mult_16_16, two32, [](I a, I b) { return plain(low_signed(a, 16) * low_signed(b, 16)); });
    EVRC_DIFF(int_mult_16h_16, two32, [](I a, I b) { return plain(high16(a) * low_signed(b, 16)); });
    EVRC_DIFF(L_mult64_su, two32, [](I a, I b) { return plain(a * b); });
    EVRC_DIFF(int_mult_32_16, two32, [](I a, I b) { return plain(a * b); });
    EVRC_DIFF(int_mult_32_32, two32, [](I a, I b) { return plain(a * b); });
    EVRC_DIFF(L_mult64_uu, two32, [](I a, I b) { return plain(low64(Wide(a & 0xFFFFFFFF) * Wide(b & 0xFFFFFFFF))); });
    EVRC_DIFF(L_mult_su, two32, [](I a, I b) { return plain(low_signed(a * b, 32)); });
    EVRC_DIFF(L_mult_uu, two32, [](I a, I b) { return plain(low_signed(a * b, 32)); });
    EVRC_DIFF(int_mac_16_16, acc32, [](I acc, I a, I b) { return plain(low64(Wide(acc) + Wide(a * b))); });
    EVRC_DIFF(int_mac_32_16, acc32, [](I acc, I a, I b) { return plain(low64(Wide(acc) + Wide(a * b))); });
    EVRC_DIFF(int_msu_16_16, acc32, [](I acc, I a, I b) { return plain(low64(Wide(acc) - Wide(a * b))); });
    differential(
        "int_mac_16_16_s1", n, acc32, [](I acc, I a, I b) { return plain(low64(Wide(acc) + Wide(2) * Wide(a * b))); },
        [](auto... x) { return ::int_mac_16_16_s1(x...); }, [](auto... x) { return fx::int_mac_16_16_s1(x...); });
    EVRC_DIFF(
        int_mac_16_16_shift, [](Gen &g) { return std::make_tuple(g.w64(), g.w32(), g.w32(), g.shift()); },
        [](I acc, I a, I b, I s) { return plain(low64(Wide(acc) + Wide(shift_model(a * b, int(s))))); });
    EVRC_DIFF(L_mac64_su, acc32, [](I acc, I a, I b) { return plain(low64(Wide(acc) + Wide(low_signed(a * b, 32)))); });
    EVRC_DIFF(L_add64, two64, [](I x, I y) { return plain(low64(Wide(x) + Wide(y))); });
    EVRC_DIFF(L_sub64, two64, [](I x, I y) { return plain(low64(Wide(x) - Wide(y))); });
    EVRC_DIFF(L_negate64, one64, [](I x) { return plain(low64(Wide(0) - Wide(x))); });
    EVRC_DIFF(L_shl64, shift64, [](I x, I s) { return plain(shift_model(x, int(s))); });
    EVRC_DIFF(L_shr64, shift64, [](I x, I s) { return plain(shift_model(x, -int(s))); });
    EVRC_DIFF(MAX16, two32, [](I a, I b) { return plain(std::max(a, b)); });
    EVRC_DIFF(MAX32, two32, [](I a, I b) { return plain(std::max(a, b)); });
    EVRC_DIFF(MIN16, two32, [](I a, I b) { return plain(std::min(a, b)); });
    EVRC_DIFF(MIN32, two32, [](I a, I b) { return plain(std::min(a, b)); });
    EVRC_DIFF(norm32_l64, one64, m_norm32_l64);
}

TEST(Operators, SaturatingWideMatchExactModel) {
    const long n = iterations();
    EVRC_DIFF(L_sat32_64, one64, [](I x) { return plain(std::min(std::max(x, kMin32), kMax32)); });
    EVRC_DIFF(L_sat32_64_round16, one64,
              [](I x) { return x > kMax32 || x < kMin32 ? plain(x > 0 ? kMax16 : kMin16) : m_round32(x); });
    EVRC_DIFF(L_mac64, acc32,
              [](I acc, I a, I b) { return clamp(low64(Wide(acc) + Wide(2) * Wide(a * b)), kMax32, 4); });
    EVRC_DIFF(
        L_mult_32_16, [](Gen &g) { return std::make_tuple(g.w32(), g.w16()); },
        [](I L, I b) {
            const Outcome hi = clamp(2 * high16(L) * b, kMax32, 0);
            const Outcome sum = clamp(hi.value + floor_div_pow2(low16u(L) * b, 15), kMax32, 5);
            return Outcome{sum.value, hi.flag || sum.flag, 5};
        });
    // Drops the low x low term and truncates: 0 to 2 units below a*b / 2^31.
    EVRC_DIFF(L_mult64_32_32, two32, [](I a, I b) {
        const Outcome hi = clamp(2 * high16(a) * high16(b), kMax32, 5);
        const Outcome got{hi.value + floor_div_pow2(low16u(a) * high16(b) + low16u(b) * high16(a), 15), hi.flag, 5};
        const int64_t gap = floor_div_pow2(a * b, 31) - got.value;
        EXPECT_TRUE(hi.flag || (gap >= 0 && gap <= 2)) << a << " " << b;
        return got;
    });
}

}  // namespace
