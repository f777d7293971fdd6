// Encoder speed and complexity per frame on speech-like input: every frame
// forced to full, half or eighth rate, and the encoder's own rate decision.
//
// Reported: time per frame (one iteration = one frame), "wops_per_frame"
// (weighted operations counted by the arithmetic layer) and "WMOPS"
// (millions of weighted operations per second of speech, 50 frames a second).
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "evrc/basic_op.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_enc.h"

namespace {

constexpr int kFrame = EVRC_ENC_FRAME;
constexpr int kStreamFrames = 250;
constexpr double kPi = 3.14159265358979323846;

// Five seconds of a voiced signal: a pulse train with a gliding pitch through
// two resonances, unvoiced noise bursts and pauses with a little background.
std::vector<Word16> speech_like() {
    std::vector<Word16> pcm(kStreamFrames * kFrame);
    std::mt19937 rng(8);
    std::normal_distribution<double> noise(0.0, 1.0);
    double phase = 0, y1 = 0, y2 = 0, z1 = 0, z2 = 0;
    for (size_t n = 0; n < pcm.size(); ++n) {
        const double t = n / 8000.0;
        const double cycle = std::fmod(t, 1.5);
        phase += (120 + 50 * std::sin(2 * kPi * 0.6 * t)) / 8000.0;
        const double pulse = phase >= 1 ? (phase -= 1, 5000.0) : 0.0;
        double source = 8 * noise(rng);  // background
        if (cycle < 0.9)
            source += pulse;  // voiced
        else if (cycle < 1.1)
            source += 900 * noise(rng);  // unvoiced
        const double y = source + 2 * 0.95 * std::cos(2 * kPi * 650 / 8000) * y1 - 0.9025 * y2;
        const double z = y + 2 * 0.9 * std::cos(2 * kPi * 1700 / 8000) * z1 - 0.81 * z2;
        y2 = y1, y1 = y, z2 = z1, z1 = z;
        pcm[n] = static_cast<Word16>(std::lround(std::fmax(-32768.0, std::fmin(32767.0, 0.4 * z))));
    }
    return pcm;
}

// max_rate = min_rate = rate forces every frame (0: the rate decision, 1..4).
void encode_stream(benchmark::State &state, UWord32 rate) {
    static const std::vector<Word16> pcm = speech_like();
    std::vector<unsigned char> record(get_sizeof_evrc_enc_struct(), 0);
    auto *st = reinterpret_cast<EvrcEncoderState *>(record.data());
    evrc_init_enc(st);
    if (rate != 0) evrc_set_enc_params(st, rate, rate, 0, 0, 0, 0);
    UWord16 packet[EVRC_PACKET_WORDS];

    uint64_t ops = 0;
    int64_t frames = 0;
    int i = 0;
    for (auto _ : state) {
        const UWord32 before = evrc_op_counter;
        evrc_encoder(st, &pcm[static_cast<size_t>(i) * kFrame], packet, 0, nullptr);
        ops += static_cast<UWord32>(evrc_op_counter - before);
        ++frames;
        benchmark::DoNotOptimize(packet);
        benchmark::ClobberMemory();
        if (++i == kStreamFrames) i = 0;
    }
    const double per_frame = frames ? static_cast<double>(ops) / static_cast<double>(frames) : 0.0;
    state.counters["wops_per_frame"] = per_frame;
    state.counters["WMOPS"] = per_frame * 50.0 / 1e6;
    state.SetItemsProcessed(frames);
}

void BM_EncodeFullRate(benchmark::State &state) { encode_stream(state, EVRC_RATE_FULL); }
void BM_EncodeHalfRate(benchmark::State &state) { encode_stream(state, EVRC_RATE_HALF); }
void BM_EncodeEighthRate(benchmark::State &state) { encode_stream(state, EVRC_RATE_EIGHTH); }
void BM_EncodeRateDecision(benchmark::State &state) { encode_stream(state, 0); }

BENCHMARK(BM_EncodeFullRate)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EncodeHalfRate)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EncodeEighthRate)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EncodeRateDecision)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
