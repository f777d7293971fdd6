// 64-bit and mixed-width operators against exact wide-integer models: plain
// products and accumulations wrap modulo 2^64 and leave flag and counter
// alone; the saturating and double-precision ones count and flag as their
// 16/32-bit parts do.
#include "harness.h"

namespace {

using namespace basic_test;

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
Outcome m_norm32_l64(int64_t x) {
    int64_t count = 0;
    for (; x != 0 && x >= -kMax32 && x <= kMax32 - 1; x *= 2) ++count;
    for (; x < kMin32 || x > kMax32; x = floor_div_pow2(x, 1)) --count;
    return plain(x == 0 ? 31 : count);
}

const auto acc32 = [](Gen &g) { return std::make_tuple(g.w64(), g.w32(), g.w32()); };
const auto two64 = [](Gen &g) { return std::make_tuple(g.w64(), g.w64()); };
const auto shift64 = [](Gen &g) { return std::make_tuple(g.w64(), g.shift()); };
const auto low = [](I a, I b) { return plain(low_signed(a * b, 32)); };
const auto mac = [](I acc, I a, I b) { return plain(low64(Wide(acc) + Wide(a * b))); };

TEST(WideOps, PlainOperatorsMatchExactModel) {
    const long n = iterations();
    EVRC_DIFF(extract64_l, one64, [](I x) { return plain(low_signed(x, 32)); });
    EVRC_DIFF(int_mult_16_16, two32, [](I a, I b) { return plain(low_signed(a, 16) * low_signed(b, 16)); });
    EVRC_DIFF(int_mult_16h_16, two32, [](I a, I b) { return plain(high16(a) * low_signed(b, 16)); });
    EVRC_DIFF(L_mult64_su, two32, [](I a, I b) { return plain(a * b); });
    EVRC_DIFF(int_mult_32_16, two32, [](I a, I b) { return plain(a * b); });
    EVRC_DIFF(int_mult_32_32, two32, [](I a, I b) { return plain(a * b); });
    EVRC_DIFF(L_mult64_uu, two32, [](I a, I b) { return plain(low64(Wide(a & 0xFFFFFFFF) * Wide(b & 0xFFFFFFFF))); });
    EVRC_DIFF(L_mult_su, two32, low);
    EVRC_DIFF(L_mult_uu, two32, low);
    EVRC_DIFF(int_mac_16_16, acc32, mac);
    EVRC_DIFF(int_mac_32_16, acc32, mac);
    EVRC_DIFF(int_msu_16_16, acc32, [](I acc, I a, I b) { return plain(low64(Wide(acc) - Wide(a * b))); });
    differential("int_mac_16_16_s1", n, acc32,
                 [](I acc, I a, I b) { return plain(low64(Wide(acc) + Wide(2) * Wide(a * b))); },
                 [](auto... x) { return ::int_mac_16_16_s1(x...); }, [](auto... x) { return fx::int_mac_16_16_s1(x...); });
    EVRC_DIFF(int_mac_16_16_shift, [](Gen &g) { return std::make_tuple(g.w64(), g.w32(), g.w32(), g.shift()); },
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

TEST(WideOps, SaturatingOperatorsMatchExactModel) {
    const long n = iterations();
    EVRC_DIFF(L_sat32_64, one64, [](I x) { return plain(std::min(std::max(x, kMin32), kMax32)); });
    EVRC_DIFF(L_sat32_64_round16, one64, [](I x) {
        if (x > kMax32 || x < kMin32) return plain(x > 0 ? kMax16 : kMin16);
        return x + 0x8000 > kMax32 ? Outcome{kMax16, true, 1} : plain(floor_div_pow2(x + 0x8000, 16), 1);
    });
    EVRC_DIFF(L_mac64, acc32, [](I acc, I a, I b) { return clamp32(low64(Wide(acc) + Wide(2) * Wide(a * b)), 4); });
    EVRC_DIFF(L_mult_32_16, [](Gen &g) { return std::make_tuple(g.w32(), g.w16()); }, [](I L, I b) {
        const Outcome hi = clamp32(2 * high16(L) * b, 0);
        const Outcome sum = clamp32(hi.value + floor_div_pow2(low16u(L) * b, 15), 5);
        return Outcome{sum.value, hi.flag || sum.flag, 5};
    });
    // Drops the low x low term and truncates: 0 to 2 units below a*b / 2^31.
    EVRC_DIFF(L_mult64_32_32, two32, [](I a, I b) {
        const Outcome hi = clamp32(2 * high16(a) * high16(b), 5);
        const Outcome got{hi.value + floor_div_pow2(low16u(a) * high16(b) + low16u(b) * high16(a), 15), hi.flag, 5};
        const int64_t gap = floor_div_pow2(a * b, 31) - got.value;
        EXPECT_TRUE(hi.flag || (gap >= 0 && gap <= 2)) << a << " " << b;
        return got;
    });
}

// Wrapping and count corners, pinned independently of the model.
TEST(WideOps, PinnedCorners) {
    EXPECT_EQ(static_cast<uint64_t>(evrc_L_mult64_uu(-1, -1)), 0xFFFFFFFE00000001ull);
    EXPECT_EQ(observe([] { return evrc_L_sat32_64(int64_t{1} << 40); }), plain(kMax32));  // no flag
    EXPECT_EQ(observe([] { return evrc_L_sat32_64_round16(0x7FFF8000); }), (Outcome{32767, true, 1}));
    // 2ab overflows 64 bits for a = b = MIN_32 and is taken modulo 2^64.
    EXPECT_EQ(observe([] { return evrc_L_mac64(0, INT32_MIN, INT32_MIN); }), (Outcome{kMin32, true, 4}));
    EXPECT_EQ(int_mac_16_16_s1(0, INT32_MIN, INT32_MIN), INT64_MIN);
    EXPECT_EQ(evrc_norm32_l64(int64_t{1} << 40), -10);
    // A count of -32768 has no 16-bit negation; it acts as the largest count.
    EXPECT_EQ(evrc_L_shl64(-12345, -32768), -1);
    EXPECT_EQ(evrc_L_shr64(-12345, -32768), 0);
    EXPECT_EQ(evrc_int_mac_16_16_shift(7, -3, 5, -32768), 6);
}

}  // namespace
