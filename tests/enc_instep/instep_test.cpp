// The encoder's local decoder against this project's decoder, and the
// validity of every packet the encoder produces.
//
// With the lowest rate set to half, no noise excitation enters either
// history, so after every frame the encoder's adaptive-codebook history must
// equal the decoder's excitation history fed the same packet, sample for
// sample. The encoder forms its excitation with the table gains taken signed
// and the fixed-codebook term through a saturating doubled product; the
// decoder takes the gains unsigned and the doubled product exactly. All
// adaptive and fixed-codebook table gains are positive and below 2^15, and
// the sharpened pulse vector is the decoder's own, so the two agree for every
// packet: the test demands equality on every frame.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "tests/support/checked_encoder.h"

namespace {

constexpr int kFrame = 160;
using Signal = std::vector<int16_t>;

int16_t clip(double v) { return static_cast<int16_t>(std::lround(std::clamp(v, -32768.0, 32767.0))); }

// A voiced signal with pauses: a pulse train with a gliding pitch through
// two resonances, `gain` times the nominal level.
Signal speech(double gain = 1) {
    Signal pcm(200 * kFrame);
    double phase = 0, y1 = 0, y2 = 0, z1 = 0, z2 = 0;
    for (size_t n = 0; n < pcm.size(); ++n) {
        const double t = n / 8000.0;
        phase += (110 + 60 * std::sin(2 * M_PI * 0.7 * t)) / 8000.0;
        const double pulse = phase >= 1 ? (phase -= 1, 4000.0) : 0.0;
        const double on = std::fmod(t, 1.6) < 1.2 ? 1.0 : 0.02;
        const double y = on * pulse + 1.6 * std::cos(2 * M_PI * 600 / 8000) * 0.95 * y1 - 0.9025 * y2;
        const double z = y + 1.2 * std::cos(2 * M_PI * 1500 / 8000) * 0.9 * z1 - 0.81 * z2;
        y2 = y1, y1 = y, z2 = z1, z1 = z;
        pcm[n] = clip(gain * z * 0.5);
    }
    return pcm;
}

// Lowest rate half, and also eighth: the encoder then rebuilds the decoder's
// noise excitation, so the histories agree across eighth-rate frames too.
TEST(EncoderInStep, AdaptiveCodebookHistoryEqualsDecoderExcitationEveryFrame) {
    Signal pcm = speech();
    pcm.insert(pcm.begin() + pcm.size() / 2, 40 * kFrame, 3);  // a pause
    for (const UWord32 min_rate : {EVRC_RATE_HALF, EVRC_RATE_EIGHTH}) {
        evrc_test::CheckedEncoder enc;
        evrc_set_enc_params(enc.state(), EVRC_RATE_FULL, min_rate, 0, 0, 0, 0);
        EvrcDecoderState dec{};
        evrc_init_dec(&dec);
        int count[5] = {};
        for (size_t f = 0; f + kFrame <= pcm.size(); f += kFrame) {
            ASSERT_TRUE(enc.encode(&pcm[f]));
            ++count[enc.packet.rate > 4 ? 0 : enc.packet.rate];
            Word16 out[kFrame];
            evrc_decode(&dec, &enc.packet, out, 0);
            ASSERT_EQ(0, std::memcmp(enc.state()->acb_mem, dec.exc_history, EVRC_HISTORY_LEN * sizeof(Word16)))
                << "frame " << f / kFrame << " rate " << enc.packet.rate << " lowest rate " << min_rate;
        }
        EXPECT_GT(count[EVRC_RATE_FULL], 0);
        EXPECT_GT(count[EVRC_RATE_HALF], 0);
        EXPECT_EQ(min_rate == EVRC_RATE_EIGHTH, count[EVRC_RATE_EIGHTH] > 0);
    }
}

// Every packet passes the decoder's erasure detection, unpacking and
// fixed-codebook checks, whatever the input: silence, full-scale DC and
// noise, clipped squares, impulses, sine sweeps and speech from near silence
// to clipping; once at the default parameters, once with them changed at
// random every few frames. (Among them are eighth-rate frames whose level
// would pick energy row 255 with LSP indices 15 and 15, the all-ones word
// the decoder reserves.)
TEST(EncoderPackets, EveryPacketPassesTheDecoderChecks) {
    std::mt19937 rng(7);
    std::vector<Signal> inputs;
    for (const int dc : {0, 1, -700, 32767, -32768}) inputs.emplace_back(100 * kFrame, static_cast<int16_t>(dc));
    Signal noise(100 * kFrame), square(noise.size()), clicks(noise.size());
    for (auto &v : noise) v = static_cast<int16_t>(rng());
    for (size_t n = 0; n < square.size(); ++n) square[n] = (n / 23) % 2 ? 32767 : -32768;
    for (size_t n = 0; n < clicks.size(); ++n) clicks[n] = n % 331 == 0 ? 32767 : 0;
    inputs.insert(inputs.end(), {noise, square, clicks});
    for (const double peak : {3.0, 3000.0, 200000.0}) {  // 60 Hz .. 3.9 kHz, the last clipped to a square
        Signal x(120 * kFrame);
        double phase = 0;
        for (size_t n = 0; n < x.size(); ++n) {
            phase += 2 * M_PI * 60 * std::pow(3900.0 / 60.0, static_cast<double>(n) / x.size()) / 8000;
            x[n] = clip(peak * std::sin(phase));
        }
        inputs.push_back(x);
    }
    for (const double gain : {0.01, 1.0, 8.0}) inputs.push_back(speech(gain));

    for (const bool vary : {false, true}) {
        for (size_t i = 0; i < inputs.size(); ++i) {
            evrc_test::CheckedEncoder enc;
            if (!vary) evrc_set_enc_params(enc.state(), EVRC_RATE_FULL, EVRC_RATE_EIGHTH, 0, 0, 0, 0);
            for (size_t f = 0; f + kFrame <= inputs[i].size(); f += kFrame) {
                if (vary && f % (7 * kFrame) == 6 * kFrame) {
                    // Rate limits, forced eighth, noise reset, full-rate limiting
                    // (both variants, count up to 3), skipped noise update.
                    const unsigned r = rng();
                    enc.set_params(r % 3, (r >> 2) % 3, (r >> 4) & 15, (r >> 8) & 1, (r >> 9) & 1, (r >> 10) & 1);
                }
                ASSERT_TRUE(enc.encode(&inputs[i][f])) << "input " << i << " frame " << f / kFrame << " vary " << vary;
            }
        }
    }
}

}  // namespace
