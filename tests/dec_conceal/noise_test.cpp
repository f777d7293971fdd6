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

// Each step is the 16-bit LCG (full period 65536); over one period the
// generator returns every value of 0..32767 exactly twice.
TEST(RanUniform, FullPeriodAndExactUniformity) {
    std::vector<int> hits(32768, 0);
    Word16 seed = 4660;
    for (int i = 0; i < 65536; ++i) {
        const uint16_t before = static_cast<uint16_t>(seed);
        const Word16 v = evrc_ran_uniform(&seed);
        ASSERT_EQ(static_cast<uint16_t>(seed), lcg_next(before));
        ASSERT_GE(v, 0);
        ++hits[v];
    }
    EXPECT_EQ(seed, 4660);
    for (int v = 0; v < 32768; ++v) ASSERT_EQ(hits[v], 2) << "value " << v;
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
        // The pair (x, y) and x² + y² in Q31 as the generator forms them
        // (x² through a saturating L_mult).
        const int x = static_cast<int>((2u * static_cast<uint32_t>(draw_model(&mseed))) & 0xFFFFu) - 32768;
        const int w = (draw_model(&mseed) & 0x7FFF) - 16384, y = 2 * w;
        const int64_t s = (x == -32768 ? INT64_C(0x7FFFFFFF) : 2 * int64_t{x} * x) + 8 * int64_t{w} * w;

        EvrcGaussRecord gen{0, 0, static_cast<Word16>(start)};
        const Word16 first = evrc_ran_gaussian(&gen);
        if (s == 0 || s > (INT64_C(1) << 31)) {
            ++rejected;
            const int u3 = draw_model(&mseed);
            const int expect = (x >> 3) + (y >> 3) + (-4096 + ((u3 & 0x7FFF) >> 2));
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

        const double iy = polar_ideal(y, s), ix = polar_ideal(x, s);
        if (std::fabs(iy) >= 30000 || std::fabs(ix) >= 30000) continue;  // saturating tail
        ++compared;
        if (static_cast<double>(s) <= 0.95 * 2147483648.0) {
            const double ey = std::fabs(first - iy) / (std::fabs(iy) + 64.0);
            const double ex = std::fabs(second - ix) / (std::fabs(ix) + 64.0);
            worst = std::max(worst, std::max(ex, ey));
            ASSERT_LT(ey, 0.02) << "seed " << start << " y " << y << " got " << first << " ideal " << iy;
            ASSERT_LT(ex, 0.02) << "seed " << start << " x " << x << " got " << second << " ideal " << ix;
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
