// The fuzz target's property without the fuzzer: sine sweeps and DC at
// levels from near silence to clipping, with the encoder parameters changed
// at random every few frames; every packet passes the decoder's checks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "tests/support/checked_encoder.h"

namespace {

constexpr int kFrame = 160;
constexpr int kFrames = 120;

// A logarithmic sweep 60 Hz .. 3.9 kHz at peak amplitude `peak`, clipped to
// 16 bits (peaks above 32767 give square-like waves).
std::vector<int16_t> sweep(double peak) {
    std::vector<int16_t> x(kFrames * kFrame);
    double phase = 0;
    for (size_t n = 0; n < x.size(); ++n) {
        const double f = 60 * std::pow(3900.0 / 60.0, static_cast<double>(n) / x.size());
        phase += 2 * 3.14159265358979 * f / 8000;
        x[n] = static_cast<int16_t>(std::clamp(peak * std::sin(phase), -32768.0, 32767.0));
    }
    return x;
}

TEST(EncoderPackets, SweepsAndDcAtEveryLevelPassTheDecoderChecksUnderParameterChanges) {
    std::vector<std::vector<int16_t>> inputs;
    for (double peak : {3.0, 100.0, 3000.0, 30000.0, 200000.0}) inputs.push_back(sweep(peak));
    for (int dc : {1, -700, 32767}) inputs.emplace_back(kFrames * kFrame, static_cast<int16_t>(dc));

    std::mt19937 rng(3);
    for (size_t i = 0; i < inputs.size(); ++i) {
        evrc_test::CheckedEncoder enc;
        for (int f = 0; f < kFrames; ++f) {
            if (f % 7 == 6) {
                // Rate limits, forced eighth, noise reset, full-rate limiting
                // (both variants, count up to 3), skipped noise update.
                const unsigned r = rng();
                enc.set_params(r % 3, (r >> 2) % 3, (r >> 4) & 15, (r >> 8) & 1, (r >> 9) & 1, (r >> 10) & 1);
            }
            ASSERT_TRUE(enc.encode(&inputs[i][f * kFrame])) << "input " << i << " frame " << f;
        }
    }
}

}  // namespace
