// Decodes the same QCP files with our decoder and with FFmpeg's EVRC decoder
// and compares the two outputs. The two are not bit-exact (FFmpeg decodes in
// floating point), so the figures are printed and only a collapse fails.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "evrc/evrc_dec.h"
#include "evrc/qcp.hpp"
#include "tests/support/random_packets.h"
#include "tests/support/temp_dir.h"

namespace {

using Pcm = std::vector<std::int16_t>;

struct Similarity {
    int lag = 0;  // FFmpeg's output shifted by this many samples
    double correlation = 0;
    double snr_db = -1e9;
};

// Pearson correlation and SNR of `b` against `a`, with b[n + lag] matched
// to a[n], over the samples both have.
Similarity compare_at(const Pcm &a, const Pcm &b, int lag) {
    double sa = 0, sb = 0, saa = 0, sbb = 0, sab = 0, err = 0;
    std::size_t n = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        const long j = static_cast<long>(i) + lag;
        if (j < 0 || j >= static_cast<long>(b.size())) continue;
        const double x = a[i], y = b[static_cast<std::size_t>(j)];
        sa += x, sb += y, saa += x * x, sbb += y * y, sab += x * y, err += (x - y) * (x - y);
        ++n;
    }
    Similarity s;
    s.lag = lag;
    if (n == 0) return s;
    const double cov = sab - sa * sb / n, va = saa - sa * sa / n, vb = sbb - sb * sb / n;
    s.correlation = (va > 0 && vb > 0) ? cov / std::sqrt(va * vb) : 0;
    s.snr_db = err > 0 ? 10 * std::log10(saa / err) : 200;
    return s;
}

Similarity best_match(const Pcm &ours, const Pcm &theirs) {
    Similarity best;
    for (int lag = -2; lag <= 2; ++lag) {
        const Similarity s = compare_at(ours, theirs, lag);
        if (s.snr_db > best.snr_db) best = s;
    }
    return best;
}

// Level of each 20 ms frame in dB.
std::vector<double> frame_levels(const Pcm &pcm) {
    std::vector<double> out;
    for (std::size_t f = 0; f + EVRC_FRAME_SIZE <= pcm.size(); f += EVRC_FRAME_SIZE) {
        double e = 1;
        for (std::size_t i = f; i < f + EVRC_FRAME_SIZE; ++i) e += static_cast<double>(pcm[i]) * pcm[i];
        out.push_back(10 * std::log10(e / EVRC_FRAME_SIZE));
    }
    return out;
}

struct Envelope {
    double correlation = 0;  // of the frame levels
    double level_diff_db = 0;  // mean of ours minus theirs
};

// How closely the frame-by-frame loudness follows: the measure that still
// means something for noise-excited frames, whose samples cannot match.
Envelope compare_envelopes(const Pcm &ours, const Pcm &theirs) {
    const std::vector<double> a = frame_levels(ours), b = frame_levels(theirs);
    const std::size_t n = std::min(a.size(), b.size());
    Envelope env;
    if (n == 0) return env;
    double sa = 0, sb = 0, saa = 0, sbb = 0, sab = 0;
    for (std::size_t i = 0; i < n; ++i) sa += a[i], sb += b[i], saa += a[i] * a[i], sbb += b[i] * b[i], sab += a[i] * b[i];
    const double cov = sab - sa * sb / n, va = saa - sa * sa / n, vb = sbb - sb * sb / n;
    env.correlation = (va > 0 && vb > 0) ? cov / std::sqrt(va * vb) : 0;
    env.level_diff_db = (sa - sb) / n;
    return env;
}

Pcm decode_ours(const std::vector<evrc::QcpPacket> &packets) {
    Pcm pcm(packets.size() * EVRC_FRAME_SIZE);
    auto state = std::make_unique<EvrcDecoderState>();
    evrc_init_dec(state.get());
    for (std::size_t i = 0; i < packets.size(); ++i) {
        EvrcPacket p = evrc::to_evrc_packet(packets[i]);
        evrc_decode(state.get(), &p, &pcm[i * EVRC_FRAME_SIZE], 0);
    }
    return pcm;
}

std::string own_temp_dir() { return evrc_test::own_temp_dir("evrc_interop"); }

bool have_ffmpeg() { return std::system("ffmpeg -version >/dev/null 2>&1") == 0; }

std::string temp_path(const std::string &name) { return own_temp_dir() + "/" + name; }

// Runs FFmpeg on a QCP file, keeping its decoded samples (16-bit mono at
// 8000 Hz) and the number of frames it reported as erased.
bool run_ffmpeg(const std::string &qcp, Pcm &pcm, int &erasures, std::string &error) {
    const std::string raw = qcp + ".s16", log = qcp + ".log";
    const std::string cmd = "ffmpeg -nostdin -loglevel repeat+warning -y -i '" + qcp +
                            "' -f s16le -ar 8000 -ac 1 '" + raw + "' 2>'" + log + "'";
    if (std::system(cmd.c_str()) != 0) {
        error = "ffmpeg failed on " + qcp + " (see " + log + ")";
        return false;
    }
    std::FILE *fp = std::fopen(raw.c_str(), "rb");
    if (fp == nullptr) {
        error = "no output from ffmpeg";
        return false;
    }
    std::int16_t buf[4096];
    std::size_t got;
    pcm.clear();
    while ((got = std::fread(buf, sizeof buf[0], 4096, fp)) > 0) pcm.insert(pcm.end(), buf, buf + got);
    std::fclose(fp);
    erasures = 0;
    if (std::FILE *lf = std::fopen(log.c_str(), "r")) {
        char line[512];
        while (std::fgets(line, sizeof line, lf) != nullptr) erasures += std::strstr(line, "erasure") != nullptr;
        std::fclose(lf);
    }
    std::remove(raw.c_str());
    std::remove(log.c_str());
    return true;
}

evrc::QcpPacket qcp_packet(const std::vector<std::uint8_t> &bytes) {
    evrc::QcpPacket p;
    p.rate = bytes[0];
    p.data.assign(bytes.begin() + 1, bytes.end());
    return p;
}

// Random packets shaped like speech so that neither decoder has reason to
// conceal them: FFmpeg rejects more LSP sets than ours (it checks more than
// their order) and pitch delays that jump between frames, so each rate draws
// its LSPs from a small pool of sets FFmpeg accepts, changing set every ten
// frames, and the delay wanders by at most 3 per frame, with the full-rate
// delta delay telling the truth about it. Everything else is random.
class SpeechLikeStream {
public:
    explicit SpeechLikeStream(unsigned seed) : rng_(seed) {}

    std::vector<std::uint8_t> next(int rate) {
        const int prev_delay = delay_;
        delay_ = std::clamp(delay_ + evrc_test::uniform_int(rng_, -3, 3), 0, 100);
        if (frame_++ % 10 == 0) choice_ = evrc_test::uniform_int(rng_, 0, 1 << 20);
        if (rate == EVRC_RATE_FULL) {
            evrc_test::FullRateFields f = evrc_test::random_full_rate_fields(rng_);
            const auto &lsp = pick(full_pool_).lsp_index;
            std::copy(std::begin(lsp), std::end(lsp), f.lsp_index);
            f.delay_index = delay_;
            f.delta_delay = std::clamp(delay_ - prev_delay + 16, 0, 31);
            return evrc_test::pack_full_rate(f);
        }
        if (rate == EVRC_RATE_HALF) {
            evrc_test::HalfRateFields f = evrc_test::random_half_rate_fields(rng_);
            const auto &lsp = pick(half_pool_).lsp_index;
            std::copy(std::begin(lsp), std::end(lsp), f.lsp_index);
            f.delay_index = delay_;
            return evrc_test::pack_half_rate(f);
        }
        evrc_test::EighthRateFields f = evrc_test::random_eighth_rate_fields(rng_);
        const auto &lsp = pick(eighth_pool_).lsp_index;
        std::copy(std::begin(lsp), std::end(lsp), f.lsp_index);
        return evrc_test::pack_eighth_rate(f);
    }

    // Fills the LSP pools with sets FFmpeg decodes without concealment.
    bool build_pools(std::string &error) {
        return fill_pool(full_pool_, EVRC_RATE_FULL, error) && fill_pool(half_pool_, EVRC_RATE_HALF, error) &&
               fill_pool(eighth_pool_, EVRC_RATE_EIGHTH, error);
    }

private:
    static constexpr std::size_t kPoolSize = 4;

    template <class Fields>
    const Fields &pick(const std::vector<Fields> &pool) const {
        return pool[static_cast<std::size_t>(choice_) % pool.size()];
    }

    template <class Fields>
    static std::vector<std::uint8_t> pack(const Fields &f) {
        if constexpr (std::is_same_v<Fields, evrc_test::FullRateFields>) {
            return evrc_test::pack_full_rate(f);
        } else if constexpr (std::is_same_v<Fields, evrc_test::HalfRateFields>) {
            return evrc_test::pack_half_rate(f);
        } else {
            return evrc_test::pack_eighth_rate(f);
        }
    }

    template <class Fields>
    static Fields draw(std::mt19937 &rng) {
        if constexpr (std::is_same_v<Fields, evrc_test::FullRateFields>) {
            evrc_test::FullRateFields f = evrc_test::random_full_rate_fields(rng);
            f.delay_index = 20;
            f.delta_delay = 16;
            return f;
        } else if constexpr (std::is_same_v<Fields, evrc_test::HalfRateFields>) {
            evrc_test::HalfRateFields f = evrc_test::random_half_rate_fields(rng);
            f.delay_index = 20;
            return f;
        } else {
            return evrc_test::random_eighth_rate_fields(rng);
        }
    }

    template <class Fields>
    bool fill_pool(std::vector<Fields> &pool, int rate, std::string &error) {
        const std::string path = temp_path("probe.qcp");
        for (int attempt = 0; attempt < 40 && pool.size() < kPoolSize; ++attempt) {
            const Fields f = draw<Fields>(rng_);
            const std::vector<evrc::QcpPacket> packets(3, qcp_packet(pack(f)));
            Pcm pcm;
            int erasures = 0;
            if (!evrc::write_qcp(path, packets, error) || !run_ffmpeg(path, pcm, erasures, error)) return false;
            if (erasures == 0) pool.push_back(f);
        }
        std::remove(path.c_str());
        if (pool.empty()) error = "FFmpeg accepted no LSP set of rate " + std::to_string(rate);
        return !pool.empty();
    }

    std::mt19937 rng_;
    std::vector<evrc_test::FullRateFields> full_pool_;
    std::vector<evrc_test::HalfRateFields> half_pool_;
    std::vector<evrc_test::EighthRateFields> eighth_pool_;
    int delay_ = 20;
    int frame_ = 0;
    int choice_ = 0;
};

struct Case {
    const char *name;
    std::vector<int> rates;  // cycled through, one per packet
    double min_correlation;           // floors that catch a collapse
    double min_envelope_correlation;
    double max_level_diff_db;
};

void PrintTo(const Case &c, std::ostream *os) { *os << c.name; }

class Interop : public testing::TestWithParam<Case> {};

TEST_P(Interop, OurOutputFollowsFfmpegs) {
    if (!have_ffmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
    const Case &c = GetParam();
    // The pools are probed once and shared by all the cases.
    static std::string pool_error;
    static const SpeechLikeStream prototype = [] {
        SpeechLikeStream g(2024);
        g.build_pools(pool_error);
        return g;
    }();
    ASSERT_TRUE(pool_error.empty()) << pool_error;
    SpeechLikeStream gen = prototype;
    std::string error;
    std::vector<evrc::QcpPacket> packets;
    for (std::size_t i = 0; i < 250; ++i) packets.push_back(qcp_packet(gen.next(c.rates[i % c.rates.size()])));
    const std::string path = temp_path(std::string(c.name) + ".qcp");
    ASSERT_TRUE(evrc::write_qcp(path, packets, error)) << error;

    const Pcm ours = decode_ours(packets);
    Pcm theirs;
    int erasures = 0;
    ASSERT_TRUE(run_ffmpeg(path, theirs, erasures, error)) << error;
    std::remove(path.c_str());
    EXPECT_EQ(theirs.size(), ours.size()) << "FFmpeg decoded a different number of frames";

    bool silent = true;
    for (std::int16_t s : ours) silent = silent && s == 0;
    if (silent) GTEST_SKIP() << "our decoder produced only silence";

    const Similarity s = best_match(ours, theirs);
    const Similarity s0 = compare_at(ours, theirs, 0);
    const Envelope env = compare_envelopes(ours, theirs);
    std::printf("[ interop  ] %-7s best lag %+d: correlation %.4f, SNR %6.2f dB  (lag 0: %.4f, %6.2f dB); "
                "frame levels: correlation %.4f, ours %+.2f dB; FFmpeg concealed %d of %zu frames\n",
                c.name, s.lag, s.correlation, s.snr_db, s0.correlation, s0.snr_db, env.correlation,
                env.level_diff_db, erasures, packets.size());
    EXPECT_GE(s.correlation, c.min_correlation);
    EXPECT_GE(env.correlation, c.min_envelope_correlation);
    EXPECT_LE(std::fabs(env.level_diff_db), c.max_level_diff_db);
}

INSTANTIATE_TEST_SUITE_P(Rates, Interop,
                         // Noise-excited eighth-rate frames cannot match sample by
                         // sample; only their loudness can.
                         testing::Values(Case{"full", {EVRC_RATE_FULL}, 0.9, 0.9, 3.0},
                                         Case{"half", {EVRC_RATE_HALF}, 0.9, 0.9, 3.0},
                                         Case{"eighth", {EVRC_RATE_EIGHTH}, -1.0, 0.8, 6.0},
                                         Case{"mixed",
                                              {EVRC_RATE_FULL, EVRC_RATE_FULL, EVRC_RATE_HALF, EVRC_RATE_FULL,
                                               EVRC_RATE_HALF, EVRC_RATE_EIGHTH, EVRC_RATE_EIGHTH},
                                              0.9, 0.9, 3.0}),
                         [](const testing::TestParamInfo<Case> &i) { return std::string(i.param.name); });

}  // namespace
