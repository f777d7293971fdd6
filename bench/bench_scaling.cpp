// Multi-channel throughput: independent streams, one codec state each, run
// on 1, 2, ... N threads (N = cores), and the same work in N processes as
// the reference. Prints frames per second and the scaling efficiency
// (throughput with n workers / (n x one worker)) for the decoder and the
// encoder.
//
//   bench_scaling [frames_per_stream] [--benchmark_out=FILE.json]
//
// frames_per_stream defaults to 10000; other --benchmark_* options of the
// benchmark runner are accepted and ignored, so the program runs beside the
// Google Benchmark programs with the same arguments.
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "evrc/evrc_dec.h"
#include "evrc/evrc_enc.h"

namespace {

using Clock = std::chrono::steady_clock;

// Two seconds of speech-like test signal: a glottal-pulse train with a
// wandering pitch through a few formant resonators, with pauses.
std::vector<Word16> test_signal() {
    std::vector<Word16> pcm(16000);
    std::mt19937 rng(7);
    std::normal_distribution<double> noise(0.0, 1.0);
    double phase = 0, y1 = 0, y2 = 0, z1 = 0, z2 = 0;
    for (std::size_t n = 0; n < pcm.size(); ++n) {
        const double t = static_cast<double>(n) / 8000.0;
        const bool voiced = std::fmod(t, 1.0) < 0.7;
        const double f0 = 110.0 + 30.0 * std::sin(2 * M_PI * 0.7 * t);
        phase += f0 / 8000.0;
        double src = 0.02 * noise(rng);
        if (voiced && phase >= 1.0) src += 1.0;
        if (phase >= 1.0) phase -= 1.0;
        const double y = src + 1.6 * y1 * std::cos(2 * M_PI * 700 / 8000) - 0.9 * y2;
        y2 = y1;
        y1 = y;
        const double z = y + 1.2 * z1 * std::cos(2 * M_PI * 1500 / 8000) - 0.8 * z2;
        z2 = z1;
        z1 = z;
        pcm[n] = static_cast<Word16>(std::lround(std::fmax(-32768.0, std::fmin(32767.0, 600.0 * z))));
    }
    return pcm;
}

struct Work {
    std::vector<Word16> pcm;          // frames of input for the encoder
    std::vector<EvrcPacket> packets;  // frames of input for the decoder
};

Work make_work() {
    Work w;
    w.pcm = test_signal();
    std::vector<unsigned char> rec(get_sizeof_evrc_enc_struct(), 0);
    auto *st = reinterpret_cast<EvrcEncoderState *>(rec.data());
    evrc_init_enc(st);
    for (std::size_t f = 0; f + EVRC_FRAME_SIZE <= w.pcm.size(); f += EVRC_FRAME_SIZE) {
        UWord16 words[EVRC_PACKET_WORDS];
        evrc_encoder(st, &w.pcm[f], words, 0, nullptr);
        EvrcPacket p;
        std::memcpy(&p, words, sizeof p);
        w.packets.push_back(p);
    }
    return w;
}

enum class Dir { Decode, Encode };

// One stream: `frames` frames through its own state.
void run_stream(const Work &w, Dir dir, int frames) {
    if (dir == Dir::Decode) {
        std::vector<unsigned char> rec(sizeof(EvrcDecoderState), 0);
        auto *st = reinterpret_cast<EvrcDecoderState *>(rec.data());
        evrc_init_dec(st);
        Word16 out[EVRC_FRAME_SIZE];
        volatile Word16 sink = 0;
        for (int i = 0; i < frames; ++i) {
            EvrcPacket p = w.packets[static_cast<std::size_t>(i) % w.packets.size()];
            evrc_decode(st, &p, out, 0);
            sink = static_cast<Word16>(sink ^ out[i % EVRC_FRAME_SIZE]);
        }
    } else {
        std::vector<unsigned char> rec(get_sizeof_evrc_enc_struct(), 0);
        auto *st = reinterpret_cast<EvrcEncoderState *>(rec.data());
        evrc_init_enc(st);
        const std::size_t n_frames = w.pcm.size() / EVRC_FRAME_SIZE;
        UWord16 words[EVRC_PACKET_WORDS];
        volatile UWord16 sink = 0;
        for (int i = 0; i < frames; ++i) {
            evrc_encoder(st, &w.pcm[(static_cast<std::size_t>(i) % n_frames) * EVRC_FRAME_SIZE], words, 0, nullptr);
            sink = static_cast<UWord16>(sink ^ words[1]);
        }
    }
}

// Seconds for n streams on n threads.
double time_threads(const Work &w, Dir dir, int n, int frames) {
    const auto start = Clock::now();
    std::vector<std::thread> threads;
    for (int i = 0; i < n; ++i) threads.emplace_back(run_stream, std::cref(w), dir, frames);
    for (auto &t : threads) t.join();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Seconds for n streams in n processes.
double time_processes(const Work &w, Dir dir, int n, int frames) {
    const auto start = Clock::now();
    std::vector<pid_t> kids;
    for (int i = 0; i < n; ++i) {
        const pid_t pid = fork();
        if (pid == 0) {
            run_stream(w, dir, frames);
            _exit(0);
        }
        if (pid > 0) kids.push_back(pid);
    }
    for (pid_t pid : kids) waitpid(pid, nullptr, 0);
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Best of three runs (the least disturbed by the rest of the machine).
template <class F>
double best_of(F f) {
    double best = 1e30;
    for (int r = 0; r < 3; ++r) best = std::fmin(best, f());
    return best;
}

}  // namespace

int main(int argc, char **argv) {
    int frames = 10000;
    const char *json_path = nullptr;
    for (int i = 1; i < argc; ++i) {
        const char *a = argv[i];
        if (std::strncmp(a, "--benchmark_out=", 16) == 0) {
            json_path = a + 16;
        } else if (std::strncmp(a, "--", 2) != 0 && std::atoi(a) > 0) {
            frames = std::atoi(a);
        }
    }
    std::FILE *json = json_path ? std::fopen(json_path, "w") : nullptr;
    if (json) std::fprintf(json, "{\"frames_per_stream\": %d, \"runs\": [", frames);
    bool first_row = true;
    const int cores = static_cast<int>(std::thread::hardware_concurrency());
    const Work w = make_work();
    std::printf("%d frames per stream, %d cores\n", frames, cores);
    std::printf("%-7s %7s | %12s %10s | %12s %10s\n", "", "workers", "threads f/s", "efficiency", "procs f/s",
                "efficiency");
    for (Dir dir : {Dir::Decode, Dir::Encode}) {
        double one_thread = 0, one_proc = 0;
        for (int n = 1; n <= (cores > 0 ? cores : 1); ++n) {
            const double tt = best_of([&] { return time_threads(w, dir, n, frames); });
            const double tp = best_of([&] { return time_processes(w, dir, n, frames); });
            const double ft = n * frames / tt, fp = n * frames / tp;
            if (n == 1) {
                one_thread = ft;
                one_proc = fp;
            }
            const char *what = dir == Dir::Decode ? "decode" : "encode";
            std::printf("%-7s %7d | %12.0f %10.3f | %12.0f %10.3f\n", what, n, ft, ft / (n * one_thread), fp,
                        fp / (n * one_proc));
            if (json) {
                std::fprintf(json,
                             "%s\n  {\"direction\": \"%s\", \"workers\": %d, \"thread_fps\": %.0f, "
                             "\"thread_efficiency\": %.4f, \"process_fps\": %.0f, \"process_efficiency\": %.4f}",
                             first_row ? "" : ",", what, n, ft, ft / (n * one_thread), fp, fp / (n * one_proc));
                first_row = false;
            }
        }
    }
    if (json) {
        std::fprintf(json, "\n]}\n");
        std::fclose(json);
    }
    return 0;
}
