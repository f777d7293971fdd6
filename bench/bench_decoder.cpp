// Decoder speed and complexity per frame, for streams of one kind of frame:
// full rate, half rate, eighth rate, and erasures after a full-rate frame.
//
// Reported: time per frame (one iteration = one frame; the erasure stream is
// timed around the erasure's evrc_decode call alone, leaving out the
// full-rate frame before it), "wops_per_frame" (weighted operations counted by the arithmetic
// layer) and "WMOPS" (millions of weighted operations per second of speech,
// 50 frames a second).
#include <chrono>
#include <cstring>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "evrc/basic_op.h"
#include "evrc/evrc_dec.h"
#include "tools/random_packets.h"

namespace {

constexpr int kStreamFrames = 256;
using Clock = std::chrono::steady_clock;

enum class Kind { Full, Half, Eighth, Erasure };

// A stream of valid random packets of one rate, or of erasures (rate word 0
// and 0x0013 alternating) each following one full-rate frame that is decoded
// outside the timed region.
struct Stream {
    std::vector<EvrcPacket> packets;
    std::vector<EvrcPacket> lead_in;  // full-rate frame before each erasure
};

Stream make_stream(Kind kind) {
    std::mt19937 rng(2024);
    Stream s;
    for (int i = 0; i < kStreamFrames; ++i) {
        switch (kind) {
        case Kind::Full: s.packets.push_back(evrc_random::random_full_rate_packet(rng)); break;
        case Kind::Half: s.packets.push_back(evrc_random::random_half_rate_packet(rng)); break;
        case Kind::Eighth: s.packets.push_back(evrc_random::random_eighth_rate_packet(rng)); break;
        case Kind::Erasure:
            s.lead_in.push_back(evrc_random::random_full_rate_packet(rng));
            s.packets.push_back(EvrcPacket{static_cast<Word16>(i % 2 ? 0x0013 : EVRC_RATE_BLANK), {}});
            break;
        }
    }
    return s;
}

void decode_stream(benchmark::State &state, Kind kind) {
    const Stream stream = make_stream(kind);
    std::vector<unsigned char> record(sizeof(EvrcDecoderState), 0);
    auto *st = reinterpret_cast<EvrcDecoderState *>(record.data());
    evrc_init_dec(st);
    Word16 out[EVRC_FRAME_SIZE];

    uint64_t ops = 0;
    int64_t frames = 0;
    std::size_t i = 0;
    for (auto _ : state) {
        if (kind == Kind::Erasure) {
            EvrcPacket lead = stream.lead_in[i];
            evrc_decode(st, &lead, out, 0);
        }
        EvrcPacket p = stream.packets[i];  // the decoder may rewrite the rate word
        const UWord32 before = evrc_op_counter;
        if (kind == Kind::Erasure) {
            const auto start = Clock::now();
            evrc_decode(st, &p, out, 0);
            state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        } else {
            evrc_decode(st, &p, out, 0);
        }
        ops += static_cast<UWord32>(evrc_op_counter - before);
        ++frames;
        benchmark::DoNotOptimize(out);
        benchmark::ClobberMemory();
        if (++i == stream.packets.size()) i = 0;
    }
    const double per_frame = frames ? static_cast<double>(ops) / static_cast<double>(frames) : 0.0;
    state.counters["wops_per_frame"] = per_frame;
    state.counters["WMOPS"] = per_frame * 50.0 / 1e6;
    state.SetItemsProcessed(frames);
}

void BM_DecodeFullRate(benchmark::State &state) { decode_stream(state, Kind::Full); }
void BM_DecodeHalfRate(benchmark::State &state) { decode_stream(state, Kind::Half); }
void BM_DecodeEighthRate(benchmark::State &state) { decode_stream(state, Kind::Eighth); }
void BM_DecodeErasure(benchmark::State &state) { decode_stream(state, Kind::Erasure); }

BENCHMARK(BM_DecodeFullRate)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DecodeHalfRate)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DecodeEighthRate)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DecodeErasure)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
