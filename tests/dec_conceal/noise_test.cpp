// Uniform and Gaussian noise generators, checked against wide-integer and
// floating-point models of what they compute.
#include <cmath>
#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "evrc/evrc_dec.h"

namespace {

uint16_t lcg_next(uint16_t seed) { return static_cast<uint16_t>((seed * 25173u + 13849u) & 0xFFFFu); }

// The generator's draw: the new seed as a signed value halved (arithmetic).
int draw_model(uint16_t *seed) {
    *seed = lcg_next(*seed);
    return static_cast<int16_t>(*seed) >> 1;
}

// The generator has the full period of 65536 and, over one period, returns
// every value of 0..32767 exactly twice.
TEST(RanUniform, FullPeriodAndExactUniformity) {
    std::vector<int> hits(32768, 0);
    std::vector<bool> seen(65536, false);
    Word16 seed = 4660;
    for (int i = 0; i < 65536; ++i) {
        const uint16_t before = static_cast<uint16_t>(seed);
        ASSERT_FALSE(seen[before]) << "seed repeats after " << i << " steps";
        seen[before] = true;
        const Word16 v = evrc_ran_uniform(&seed);
        ASSERT_EQ(static_cast<uint16_t>(seed), lcg_next(before));
        ASSERT_GE(v, 0);
        ++hits[v];
    }
    EXPECT_EQ(seed, 4660);
    for (int v = 0; v < 32768; ++v) ASSERT_EQ(hits[v], 2) << "value " << v;
}

struct PairModel {
    int x, y;
    int64_t s;  // x² + y² in Q31 as the generator forms it
    bool rejected;
};

PairModel pair_model(int u1, int u2) {
    PairModel p;
    p.x = static_cast<int>((2u * static_cast<uint32_t>(u1)) & 0xFFFFu) - 32768;
    const int w = (u2 & 0x7FFF) - 16384;
    p.y = 2 * w;
    const int64_t xx = p.x == -32768 ? INT64_C(0x7FFFFFFF) : 2 * int64_t{p.x} * p.x;  // saturating L_mult
    p.s = xx + 8 * int64_t{w} * w;
    p.rejected = p.s == 0 || p.s > (INT64_C(1) << 31);
    return p;
}

// Unit Gaussian sample of the polar method for coordinate c, in Q13.
double polar_ideal(int c, int64_t s) {
    const double r2 = static_cast<double>(s) / 2147483648.0;
    return c / 32768.0 * std::sqrt(-2.0 * std::log(r2) / r2) * 8192.0;
}

// Every starting seed: a rejected pair advances the seed three times and
// returns the cheap fallback sample; an accepted one advances it twice,
// keeps the x sample as spare and returns the y sample, both close to the
// exact polar transform. The spare comes back without touching the seed.
TEST(RanGaussian, EverySeedAgainstPolarModel) {
    int rejected = 0, compared = 0;
    double worst = 0;
    for (int start = 0; start < 65536; ++start) {
        uint16_t mseed = static_cast<uint16_t>(start);
        const int u1 = draw_model(&mseed);
        const int u2 = draw_model(&mseed);
        const PairModel p = pair_model(u1, u2);

        EvrcGaussRecord gen{0, 0, static_cast<Word16>(start)};
        const Word16 first = evrc_ran_gaussian(&gen);
        if (p.rejected) {
            ++rejected;
            const int u3 = draw_model(&mseed);
            const int expect = (p.x >> 3) + (p.y >> 3) + (-4096 + ((u3 & 0x7FFF) >> 2));
            ASSERT_EQ(first, expect) << "seed " << start;
            ASSERT_EQ(gen.gauss_have_spare, 0);
            ASSERT_EQ(static_cast<uint16_t>(gen.noise_seed), mseed);
            continue;
        }
        ASSERT_EQ(gen.gauss_have_spare, 1) << "seed " << start;
        ASSERT_EQ(static_cast<uint16_t>(gen.noise_seed), mseed);
        const Word16 spare = gen.gauss_spare;
        const Word16 second = evrc_ran_gaussian(&gen);
        ASSERT_EQ(second, spare);
        ASSERT_EQ(gen.gauss_have_spare, 0);
        ASSERT_EQ(static_cast<uint16_t>(gen.noise_seed), mseed);

        const double iy = polar_ideal(p.y, p.s), ix = polar_ideal(p.x, p.s);
        if (std::fabs(iy) >= 30000 || std::fabs(ix) >= 30000) continue;  // saturating tail
        ++compared;
        if (static_cast<double>(p.s) <= 0.95 * 2147483648.0) {
            const double ey = std::fabs(first - iy) / (std::fabs(iy) + 64.0);
            const double ex = std::fabs(second - ix) / (std::fabs(ix) + 64.0);
            worst = std::max(worst, std::max(ex, ey));
            ASSERT_LT(ey, 0.02) << "seed " << start << " y " << p.y << " got " << first << " ideal " << iy;
            ASSERT_LT(ex, 0.02) << "seed " << start << " x " << p.x << " got " << second << " ideal " << ix;
        } else {
            // Near the circle -ln(r²) keeps only a few significant bits, so
            // the sample is coarse there: right sign, within 0.1 of a sigma.
            ASSERT_GE(first * iy, 0.0) << "seed " << start;
            ASSERT_GE(second * ix, 0.0) << "seed " << start;
            ASSERT_LT(std::fabs(first - iy), 0.1 * 8192) << "seed " << start;
            ASSERT_LT(std::fabs(second - ix), 0.1 * 8192) << "seed " << start;
        }
    }
    // About 1 - pi/4 of the pairs fall outside the unit circle.
    EXPECT_NEAR(rejected / 65536.0, 1.0 - M_PI / 4.0, 0.02);
    EXPECT_GT(compared, 40000);
    RecordProperty("worst_relative_error", std::to_string(worst));
}

}  // namespace
