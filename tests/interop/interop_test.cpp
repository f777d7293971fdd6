// Decodes the same QCP files with our decoder and with FFmpeg's EVRC decoder
// and compares the two outputs. The two are not bit-exact (FFmpeg decodes in
// floating point), so the figures are printed and only a collapse fails.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "evrc/qcp.hpp"
#include "tools/random_packets.h"
#include "tests/support/temp_dir.h"

namespace {

using Pcm = std::vector<std::int16_t>;
using Bytes = std::vector<std::uint8_t>;

// Pearson correlation of x and y.
double correlation(const std::vector<double> &x, const std::vector<double> &y) {
    const double n = static_cast<double>(x.size());
    double sx = 0, sy = 0, sxx = 0, syy = 0, sxy = 0;
    for (std::size_t i = 0; i < x.size(); ++i) sx += x[i], sy += y[i], sxx += x[i] * x[i], syy += y[i] * y[i], sxy += x[i] * y[i];
    const double cov = sxy - sx * sy / n, vx = sxx - sx * sx / n, vy = syy - sy * sy / n;
    return (vx > 0 && vy > 0) ? cov / std::sqrt(vx * vy) : 0;
}

struct Similarity {
    int lag = 0;  // FFmpeg's output shifted by this many samples
    double correlation = 0;
    double snr_db = -1e9;
};

// Correlation and SNR of `b` against `a`, with b[n + lag] matched to a[n],
// over the samples both have.
Similarity compare_at(const Pcm &a, const Pcm &b, int lag) {
    std::vector<double> x, y;
    double signal = 0, err = 0;
    const std::ptrdiff_t na = static_cast<std::ptrdiff_t>(a.size()), nb = static_cast<std::ptrdiff_t>(b.size());
    for (std::ptrdiff_t i = std::max<std::ptrdiff_t>(0, -lag); i < na && i + lag < nb; ++i) {
        x.push_back(a[static_cast<std::size_t>(i)]);
        y.push_back(b[static_cast<std::size_t>(i + lag)]);
        signal += x.back() * x.back(), err += (x.back() - y.back()) * (x.back() - y.back());
    }
    if (x.empty()) return {lag};
    return {lag, correlation(x, y), err > 0 ? 10 * std::log10(signal / err) : 200};
}

// Level of each 20 ms frame in dB, over the first `frames` frames.
std::vector<double> frame_levels(const Pcm &pcm, std::size_t frames) {
    std::vector<double> out(frames, 1);
    for (std::size_t i = 0; i < frames * EVRC_FRAME_SIZE; ++i) out[i / EVRC_FRAME_SIZE] += static_cast<double>(pcm[i]) * pcm[i];
    for (double &e : out) e = 10 * std::log10(e / EVRC_FRAME_SIZE);
    return out;
}

std::string temp_path(const std::string &name) { return evrc_test::own_temp_dir("evrc_interop") + "/" + name; }

// Runs FFmpeg on a QCP file, keeping its decoded samples (16-bit mono at
// 8000 Hz) and the number of frames it reported as erased.
bool run_ffmpeg(const std::string &qcp, Pcm &pcm, int &erasures, std::string &error) {
    const std::string raw = qcp + ".s16", log = qcp + ".log";
    const std::string cmd = "ffmpeg -nostdin -loglevel repeat+warning -y -i '" + qcp + "' -f s16le -ar 8000 -ac 1 '" +
                            raw + "' 2>'" + log + "'";
    if (std::system(cmd.c_str()) != 0) {
        error = "ffmpeg failed on " + qcp + " (see " + log + ")";
        return false;
    }
    std::ifstream in(raw, std::ios::binary | std::ios::ate), lines(log);
    pcm.resize(static_cast<std::size_t>(std::max<std::streamoff>(in.tellg(), 0)) / 2);
    in.seekg(0).read(reinterpret_cast<char *>(pcm.data()), static_cast<std::streamsize>(2 * pcm.size()));
    erasures = 0;
    for (std::string line; std::getline(lines, line);) erasures += line.find("erasure") != std::string::npos;
    std::remove(raw.c_str());
    std::remove(log.c_str());
    return true;
}

std::vector<evrc::QcpPacket> qcp_packets(const std::vector<Bytes> &stream) {
    std::vector<evrc::QcpPacket> out;
    for (const Bytes &b : stream) out.push_back({b[0], true, Bytes(b.begin() + 1, b.end())});
    return out;
}

// Random packets shaped like speech so that neither decoder has reason to
// conceal them: FFmpeg rejects more LSP sets than ours (it checks more than
// their order) and pitch delays that jump between frames, so each rate draws
// its LSPs from a small pool of sets FFmpeg accepts, changing set every ten
// frames, and the delay wanders by at most 3 per frame, with the full-rate
// delta delay telling the truth about it. Everything else is random.
struct SpeechLikeStream {
    // A random packet with the given delay fields, and the LSP indices in
    // `lsp` (when empty, the drawn ones are stored there).
    Bytes packet(int rate, std::vector<int> &lsp, int delay, int delta) {
        auto use = [&lsp](int *index, int n) {
            if (lsp.empty()) lsp.assign(index, index + n);
            std::copy(lsp.begin(), lsp.end(), index);
        };
        if (rate == EVRC_RATE_FULL) {
            evrc_random::FullRateFields f = evrc_random::random_full_rate_fields(rng);
            use(f.lsp_index, 4);
            f.delay_index = delay, f.delta_delay = delta;
            return evrc_random::pack_full_rate(f);
        }
        if (rate == EVRC_RATE_HALF) {
            evrc_random::HalfRateFields f = evrc_random::random_half_rate_fields(rng);
            use(f.lsp_index, 3);
            f.delay_index = delay;
            return evrc_random::pack_half_rate(f);
        }
        evrc_random::EighthRateFields f = evrc_random::random_eighth_rate_fields(rng);
        use(f.lsp_index, 2);
        return evrc_random::pack_eighth_rate(f);
    }

    Bytes next(int rate) {
        const int prev_delay = delay;
        delay = std::clamp(delay + evrc_random::uniform_int(rng, -3, 3), 0, 100);
        if (frame++ % 10 == 0) choice = evrc_random::uniform_int(rng, 0, 1 << 20);
        std::vector<int> lsp = pools[rate][static_cast<std::size_t>(choice) % pools[rate].size()];
        return packet(rate, lsp, delay, std::clamp(delay - prev_delay + 16, 0, 31));
    }

    // Fills the LSP pools with up to four sets per rate that FFmpeg decodes
    // without concealment.
    bool build_pools(std::string &error) {
        const std::string path = temp_path("probe.qcp");
        for (int rate : {EVRC_RATE_FULL, EVRC_RATE_HALF, EVRC_RATE_EIGHTH}) {
            for (int attempt = 0; attempt < 40 && pools[rate].size() < 4; ++attempt) {
                std::vector<int> lsp;
                const Bytes p = packet(rate, lsp, 20, 16);
                Pcm pcm;
                int erasures = 0;
                if (!evrc::write_qcp(path, qcp_packets({p, p, p}), error) || !run_ffmpeg(path, pcm, erasures, error)) return false;
                if (erasures == 0) pools[rate].push_back(lsp);
            }
            if (pools[rate].empty()) error = "FFmpeg accepted no LSP set of rate " + std::to_string(rate);
            if (pools[rate].empty()) return false;
        }
        std::remove(path.c_str());
        return true;
    }

    std::mt19937 rng{2024};
    std::map<int, std::vector<std::vector<int>>> pools;
    int delay = 20, frame = 0, choice = 0;
};

struct Case {
    const char *name;
    std::vector<int> rates;  // cycled through, one per packet
    double min_correlation;  // floors that catch a collapse
    double min_envelope_correlation;
    double max_level_diff_db;
};

void PrintTo(const Case &c, std::ostream *os) { *os << c.name; }

class Interop : public testing::TestWithParam<Case> {};

TEST_P(Interop, OurOutputFollowsFfmpegs) {
    if (std::system("ffmpeg -version >/dev/null 2>&1") != 0) GTEST_SKIP() << "ffmpeg is not installed";
    const Case &c = GetParam();
    // The pools are probed once and shared by all the cases.
    static std::string pool_error;
    static const SpeechLikeStream prototype = [] {
        SpeechLikeStream g;
        g.build_pools(pool_error);
        return g;
    }();
    ASSERT_TRUE(pool_error.empty()) << pool_error;
    SpeechLikeStream gen = prototype;
    std::vector<Bytes> stream;
    for (std::size_t i = 0; i < 250; ++i) stream.push_back(gen.next(c.rates[i % c.rates.size()]));
    const std::vector<evrc::QcpPacket> packets = qcp_packets(stream);
    const std::string path = temp_path(std::string(c.name) + ".qcp");
    std::string error;
    ASSERT_TRUE(evrc::write_qcp(path, packets, error)) << error;

    Pcm ours(packets.size() * EVRC_FRAME_SIZE), theirs;
    auto state = std::make_unique<EvrcDecoderState>();
    evrc_init_dec(state.get());
    for (std::size_t i = 0; i < packets.size(); ++i) {
        EvrcPacket p = evrc::to_evrc_packet(packets[i]);
        evrc_decode(state.get(), &p, &ours[i * EVRC_FRAME_SIZE], 0);
    }
    int erasures = 0;
    ASSERT_TRUE(run_ffmpeg(path, theirs, erasures, error)) << error;
    std::remove(path.c_str());
    EXPECT_EQ(theirs.size(), ours.size()) << "FFmpeg decoded a different number of frames";
    if (std::all_of(ours.begin(), ours.end(), [](std::int16_t s) { return s == 0; })) {
        GTEST_SKIP() << "our decoder produced only silence";
    }

    Similarity s;  // the best lag within two samples
    for (int lag = -2; lag <= 2; ++lag) {
        const Similarity t = compare_at(ours, theirs, lag);
        if (t.snr_db > s.snr_db) s = t;
    }
    const Similarity s0 = compare_at(ours, theirs, 0);
    // How closely the frame-by-frame loudness follows: the measure that still
    // means something for noise-excited frames, whose samples cannot match.
    const std::size_t frames = std::min(ours.size(), theirs.size()) / EVRC_FRAME_SIZE;
    const std::vector<double> a = frame_levels(ours, frames), b = frame_levels(theirs, frames);
    const double env_correlation = correlation(a, b);
    double level_diff_db = 0;  // mean of ours minus theirs
    for (std::size_t i = 0; i < frames; ++i) level_diff_db += (a[i] - b[i]) / static_cast<double>(frames);
    std::printf("[ interop  ] %-7s best lag %+d: correlation %.4f, SNR %6.2f dB  (lag 0: %.4f, %6.2f dB); "
                "frame levels: correlation %.4f, ours %+.2f dB; FFmpeg concealed %d of %zu frames\n",
                c.name, s.lag, s.correlation, s.snr_db, s0.correlation, s0.snr_db, env_correlation, level_diff_db,
                erasures, packets.size());
    EXPECT_GE(s.correlation, c.min_correlation);
    EXPECT_GE(env_correlation, c.min_envelope_correlation);
    EXPECT_LE(std::fabs(level_diff_db), c.max_level_diff_db);
}

INSTANTIATE_TEST_SUITE_P(Rates, Interop,
                         // Noise-excited eighth-rate frames cannot match sample by
                         // sample; only their loudness can.
                         testing::Values(Case{"full", {EVRC_RATE_FULL}, 0.9, 0.9, 3.0},
                                         Case{"half", {EVRC_RATE_HALF}, 0.9, 0.9, 3.0},
                                         Case{"eighth", {EVRC_RATE_EIGHTH}, -1.0, 0.8, 6.0},
                                         Case{"mixed", {4, 4, 3, 4, 3, 1, 1}, 0.9, 0.9, 3.0}),
                         [](const testing::TestParamInfo<Case> &i) { return std::string(i.param.name); });

}  // namespace
