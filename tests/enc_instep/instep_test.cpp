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
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "evrc/evrc_dec.h"
#include "evrc/evrc_enc.h"

namespace {

constexpr int kFrame = 160;

// Samples of a 16-bit mono PCM WAV file (empty when it cannot be read).
std::vector<int16_t> read_wav(const std::string &path) {
    std::vector<int16_t> pcm;
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f) return pcm;
    char id[4];
    uint32_t size = 0;
    std::fseek(f, 12, SEEK_SET);
    while (std::fread(id, 1, 4, f) == 4 && std::fread(&size, 4, 1, f) == 1) {
        if (std::memcmp(id, "data", 4) == 0) {
            pcm.resize(size / 2);
            pcm.resize(std::fread(pcm.data(), 2, pcm.size(), f));
            break;
        }
        std::fseek(f, size + (size & 1), SEEK_CUR);
    }
    std::fclose(f);
    return pcm;
}

// A recorded prompt when installed, else a voiced synthetic signal: a pulse
// train with a gliding pitch through two resonances, with pauses.
std::vector<int16_t> speech_input() {
    for (const char *dir : {"/usr/share/asterisk/sounds/en/", "/usr/share/asterisk/sounds/en_US_f_Allison/"}) {
        std::vector<int16_t> pcm = read_wav(std::string(dir) + "conf-getpin.wav");
        if (pcm.size() >= 50 * kFrame) return pcm;
    }
    std::vector<int16_t> pcm(200 * kFrame);
    double phase = 0, y1 = 0, y2 = 0, z1 = 0, z2 = 0;
    for (size_t n = 0; n < pcm.size(); ++n) {
        const double t = n / 8000.0;
        phase += (110 + 60 * std::sin(2 * M_PI * 0.7 * t)) / 8000.0;
        const double pulse = phase >= 1 ? (phase -= 1, 4000.0) : 0.0;
        const double on = std::fmod(t, 1.6) < 1.2 ? 1.0 : 0.02;
        const double y = on * pulse + 1.6 * std::cos(2 * M_PI * 600 / 8000) * 0.95 * y1 - 0.9025 * y2;
        const double z = y + 1.2 * std::cos(2 * M_PI * 1500 / 8000) * 0.9 * z1 - 0.81 * z2;
        y2 = y1, y1 = y, z2 = z1, z1 = z;
        pcm[n] = static_cast<int16_t>(std::lround(std::fmax(-32768, std::fmin(32767, z * 0.5))));
    }
    return pcm;
}

struct Codec {
    std::vector<unsigned char> enc_mem = std::vector<unsigned char>(get_sizeof_evrc_enc_struct());
    EvrcEncoderState *enc = reinterpret_cast<EvrcEncoderState *>(enc_mem.data());
    EvrcDecoderState dec{};
    Codec(UWord32 max_rate, UWord32 min_rate) {
        evrc_init_enc(enc);
        evrc_set_enc_params(enc, max_rate, min_rate, 0, 0, 0, 0);
        evrc_init_dec(&dec);
    }
    EvrcPacket encode(const int16_t *pcm) {
        UWord16 words[EVRC_PACKET_WORDS];
        evrc_encoder(enc, pcm, words, 0, nullptr);
        EvrcPacket p;
        std::memcpy(&p, words, sizeof(p));
        return p;
    }
};

// Lowest rate half, and also eighth: the encoder then rebuilds the decoder's
// noise excitation, so the histories agree across eighth-rate frames too.
TEST(EncoderInStep, AdaptiveCodebookHistoryEqualsDecoderExcitationEveryFrame) {
    std::vector<int16_t> pcm = speech_input();
    pcm.insert(pcm.begin() + pcm.size() / 2, 40 * kFrame, 3);  // a pause
    for (const UWord32 min_rate : {EVRC_RATE_HALF, EVRC_RATE_EIGHTH}) {
        Codec c(EVRC_RATE_FULL, min_rate);
        int count[5] = {};
        for (size_t f = 0; f + kFrame <= pcm.size(); f += kFrame) {
            EvrcPacket p = c.encode(&pcm[f]);
            ++count[p.rate > 4 ? 0 : p.rate];
            Word16 out[kFrame];
            evrc_decode(&c.dec, &p, out, 0);
            ASSERT_EQ(0, std::memcmp(c.enc->acb_mem, c.dec.exc_history, EVRC_HISTORY_LEN * sizeof(Word16)))
                << "frame " << f / kFrame << " rate " << p.rate << " lowest rate " << min_rate;
        }
        EXPECT_GT(count[EVRC_RATE_FULL], 0);
        EXPECT_GT(count[EVRC_RATE_HALF], 0);
        EXPECT_EQ(min_rate == EVRC_RATE_EIGHTH, count[EVRC_RATE_EIGHTH] > 0);
    }
}

// Every packet passes the decoder's erasure detection, unpacking and
// fixed-codebook checks, whatever the input.
TEST(EncoderInStep, EveryPacketPassesTheDecoderChecks) {
    std::mt19937 rng(7);
    const std::vector<int16_t> speech = speech_input();
    std::vector<std::vector<int16_t>> inputs;
    inputs.emplace_back(100 * kFrame, 0);       // silence
    inputs.emplace_back(100 * kFrame, -32768);  // negative full-scale DC
    std::vector<int16_t> noise(100 * kFrame), square(100 * kFrame), clicks(100 * kFrame), loud(speech.size());
    for (auto &v : noise) v = static_cast<int16_t>(rng());
    for (size_t n = 0; n < square.size(); ++n) square[n] = (n / 23) % 2 ? 32767 : -32768;
    for (size_t n = 0; n < clicks.size(); ++n) clicks[n] = n % 331 == 0 ? 32767 : 0;
    for (size_t n = 0; n < loud.size(); ++n) loud[n] = static_cast<int16_t>(std::max(-32768, std::min(32767, 8 * speech[n])));
    for (auto *v : {&noise, &square, &clicks, &loud}) inputs.push_back(*v);
    inputs.push_back(speech);

    for (size_t i = 0; i < inputs.size(); ++i) {
        Codec c(EVRC_RATE_FULL, EVRC_RATE_EIGHTH);
        Word16 prev_rate = EVRC_RATE_EIGHTH;
        for (size_t f = 0; f + kFrame <= inputs[i].size(); f += kFrame) {
            EvrcPacket p = c.encode(&inputs[i][f]);
            ASSERT_EQ(0, evrc_fer_detect(&p, prev_rate, 0, p.data[0])) << "input " << i << " frame " << f / kFrame;
            EvrcFrameParams fp{};
            ASSERT_EQ(0, evrc_check_fcb_indices(&fp, p.rate, evrc_unpack(&fp, &p))) << "input " << i;
            prev_rate = p.rate;
        }
    }
}

}  // namespace
