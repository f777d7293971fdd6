// What the OpenMAX component adds to decoding: one long stream of valid
// random packets (full, half and eighth rate mixed) decoded directly with
// evrc_decode and through the component, driven through its OpenMAX function
// table exactly as `evrc decode --omx` does (tools/omx_decode.cpp, linked in).
// Both start from the same bytes (a rate byte, then the payload): the direct
// decode unpacks each packet into an EvrcPacket as it goes, as the component
// does with the packets of its input buffers.
//
// Each iteration decodes the whole stream both ways, one after the other, so
// that both see the same load on the machine. Reported: the component's time
// per stream (the benchmark's time), "direct_ms" and "component_ms" per
// stream, and "overhead_pct" = 100 * (component / direct - 1) over all
// iterations, in elapsed time; "cpu_overhead_pct" the same in processor time
// of the whole process (all threads), and "median_overhead_pct", the median
// over iterations of each iteration's own ratio (the two decodes run back to
// back), which the machine's other load disturbs least. The component's time includes creating it, allocating its
// buffers, the state changes to Executing and back, and tearing it down.
// "sleeps" is how many times per stream a thread of the process blocked
// (voluntary context switches, all threads) beyond the direct decode's own.
// The component's time splits into "setup_ms" (creating it, allocating the
// buffers, up to Executing), the stream itself (first input buffer sent to
// last output buffer back; "stream_overhead_pct" compares it with the direct
// decode) and "teardown_ms" (back to Loaded, freeing, deinitialising).
//
// Most of the component's fixed cost is waking threads that sleep on another
// processor. BM_HandOver measures what one such hand-over costs on the
// machine: a byte written to a pipe that another thread blocks on, answered
// through a second pipe, after this thread has worked for the given number
// of microseconds while the other one slept (a processor left idle longer
// wakes more slowly on some machines, virtual ones in particular).
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "codec/common/packet_layout.h"
#include "evrc/evrc_dec.h"
#include "tools/omx_decode.h"
#include "tools/random_packets.h"

namespace {

constexpr int kStreamPackets = 3000;
constexpr int kBufferPackets = 30;
constexpr int kFrameSamples = 160;
using Clock = std::chrono::steady_clock;
using Bytes = std::vector<std::uint8_t>;

// Processor time of the process, all threads, in seconds.
double process_cpu_seconds() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

// Voluntary context switches of the process so far, threads that have ended
// included.
long process_sleeps() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_nvcsw;
}

std::vector<Bytes> make_stream(int length) {
    std::mt19937 rng(2025);
    std::vector<Bytes> packets;
    for (int i = 0; i < length; ++i) {
        static const int rates[3] = {EVRC_RATE_EIGHTH, EVRC_RATE_HALF, EVRC_RATE_FULL};
        packets.push_back(evrc_random::random_packet_bytes(rng, rates[evrc_random::uniform_int(rng, 0, 2)]));
    }
    return packets;
}

// The stream through evrc_decode: each packet's bytes unpacked into the
// decoder's packet words, then decoded.
void decode_direct(const std::vector<Bytes> &stream, std::vector<std::int16_t> &pcm) {
    std::vector<unsigned char> record(sizeof(EvrcDecoderState), 0);
    auto *st = reinterpret_cast<EvrcDecoderState *>(record.data());
    evrc_init_dec(st);
    pcm.resize(stream.size() * kFrameSamples);
    for (std::size_t i = 0; i < stream.size(); ++i) {
        EvrcPacket p = evrc::packet_from_bytes(stream[i].data(), stream[i].size());
        evrc_decode(st, &p, pcm.data() + i * kFrameSamples, 0);
    }
}

void BM_ComponentOverhead(benchmark::State &state) {
    const int length = static_cast<int>(state.range(0));
    const std::vector<Bytes> stream = make_stream(length);

    std::vector<std::int16_t> direct_pcm, component_pcm;
    double direct_s = 0, component_s = 0, direct_cpu_s = 0, component_cpu_s = 0;
    evrc_tool::ComponentTimes parts, sum;
    long sleeps = 0;
    std::vector<double> ratios;
    for (auto _ : state) {
        auto start = Clock::now();
        double cpu_start = process_cpu_seconds();
        long sleeps_start = process_sleeps();
        decode_direct(stream, direct_pcm);
        const double direct = std::chrono::duration<double>(Clock::now() - start).count();
        direct_cpu_s += process_cpu_seconds() - cpu_start;
        sleeps -= process_sleeps() - sleeps_start;

        component_pcm.clear();
        std::string error;
        start = Clock::now();
        cpu_start = process_cpu_seconds();
        sleeps_start = process_sleeps();
        const bool ok = evrc_tool::decode_with_component(stream, component_pcm, error, &parts);
        const double component = std::chrono::duration<double>(Clock::now() - start).count();
        component_cpu_s += process_cpu_seconds() - cpu_start;
        sleeps += process_sleeps() - sleeps_start;
        if (!ok) {
            state.SkipWithError(error.c_str());
            break;
        }
        if (component_pcm != direct_pcm) {
            state.SkipWithError("the component's output differs from evrc_decode's");
            break;
        }
        state.SetIterationTime(component);
        direct_s += direct;
        component_s += component;
        sum.setup += parts.setup;
        sum.stream += parts.stream;
        sum.teardown += parts.teardown;
        ratios.push_back(component / direct);
        benchmark::DoNotOptimize(component_pcm.data());
    }
    if (direct_s > 0) {
        const double n = static_cast<double>(state.iterations());
        state.counters["direct_ms"] = 1e3 * direct_s / n;
        state.counters["component_ms"] = 1e3 * component_s / n;
        state.counters["overhead_pct"] = 100.0 * (component_s / direct_s - 1.0);
        std::nth_element(ratios.begin(), ratios.begin() + ratios.size() / 2, ratios.end());
        state.counters["median_overhead_pct"] = 100.0 * (ratios[ratios.size() / 2] - 1.0);
        state.counters["cpu_overhead_pct"] = 100.0 * (component_cpu_s / direct_cpu_s - 1.0);
        state.counters["sleeps"] = static_cast<double>(sleeps) / n;
        state.counters["setup_ms"] = 1e3 * sum.setup / n;
        state.counters["teardown_ms"] = 1e3 * sum.teardown / n;
        state.counters["stream_overhead_pct"] = 100.0 * (sum.stream / direct_s - 1.0);
    }
    state.SetItemsProcessed(state.iterations() * length);
}

// A one-minute stream; a three-minute one (a typical call), over which the
// fixed cost of a stream weighs a third as much; and one buffer's worth,
// which shows that fixed cost (setting the component up and tearing it down)
// nearly alone.
BENCHMARK(BM_ComponentOverhead)
    ->Arg(kStreamPackets)
    ->Arg(3 * kStreamPackets)
    ->Arg(kBufferPackets)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// One hand-over and its answer: this thread wakes a thread blocked on a pipe,
// which answers through another pipe.
void BM_HandOver(benchmark::State &state) {
    const auto work = std::chrono::microseconds(state.range(0));
    int ask[2], answer[2];
    if (pipe(ask) != 0 || pipe(answer) != 0) {
        state.SkipWithError("pipe failed");
        return;
    }
    std::thread other([&] {
        unsigned char b;
        while (read(ask[0], &b, 1) == 1) {
            if (write(answer[1], &b, 1) != 1) break;
        }
    });
    for (auto _ : state) {
        const auto work_end = Clock::now() + work;
        while (Clock::now() < work_end) {
        }
        unsigned char b = 1;
        const auto start = Clock::now();
        if (write(ask[1], &b, 1) != 1 || read(answer[0], &b, 1) != 1) {
            state.SkipWithError("the pipe broke");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
    close(ask[1]);
    other.join();
    close(ask[0]);
    close(answer[0]);
    close(answer[1]);
}
BENCHMARK(BM_HandOver)->Arg(0)->Arg(100)->Arg(1000)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
