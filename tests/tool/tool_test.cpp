#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/wait.h>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "evrc/qcp.hpp"
#include "tests/support/temp_dir.h"
#include "tools/random_packets.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Pcm = std::vector<std::int16_t>;

std::string tmp(const std::string &name = "") { return evrc_test::own_temp_dir("evrc_tool") + "/" + name; }

std::string slurp(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), {}};
}

void save(const std::string &path, const Bytes &b) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char *>(b.data()), static_cast<std::streamsize>(b.size()));
}

struct ToolRun {
    int status;
    std::string out, err;
};

ToolRun run(std::vector<std::string> args) {
    args.insert(args.begin(), EVRC_TOOL_PATH);
    std::string cmd;
    for (const std::string &a : args) {
        cmd += " '";
        for (char c : a) cmd += c == '\'' ? std::string("'\\''") : std::string(1, c);
        cmd += "'";
    }
    const int rc = std::system((cmd + " >'" + tmp("tool.out") + "' 2>'" + tmp("tool.err") + "'").c_str());
    return {WIFEXITED(rc) ? WEXITSTATUS(rc) : -1, slurp(tmp("tool.out")), slurp(tmp("tool.err"))};
}

// Random valid packets as the byte stream (rate byte, payload), ending blank.
std::vector<Bytes> random_stream(unsigned seed, std::size_t n) {
    std::mt19937 rng(seed);
    const int rates[] = {EVRC_RATE_FULL, EVRC_RATE_HALF, EVRC_RATE_EIGHTH, EVRC_RATE_FULL};
    std::vector<Bytes> out;
    for (std::size_t i = 0; i < n; ++i) out.push_back(evrc_random::random_packet_bytes(rng, rates[i % 4]));
    out.push_back({EVRC_RATE_BLANK});
    return out;
}

std::string write_qcp_file(const std::string &name, const std::vector<Bytes> &stream) {
    std::vector<evrc::QcpPacket> packets;
    for (const Bytes &b : stream) packets.push_back({b[0], true, Bytes(b.begin() + 1, b.end())});
    std::string error;
    EXPECT_TRUE(evrc::write_qcp(tmp(name), packets, error)) << error;
    return tmp(name);
}

Pcm decode_directly(const std::vector<Bytes> &stream, int postfilter_off) {
    Pcm pcm(stream.size() * EVRC_FRAME_SIZE);
    auto st = std::make_unique<EvrcDecoderState>();
    evrc_init_dec(st.get());
    for (std::size_t i = 0; i < stream.size(); ++i) {
        EvrcPacket p = evrc_random::bytes_to_packet(stream[i]);
        evrc_decode(st.get(), &p, &pcm[i * EVRC_FRAME_SIZE], postfilter_off);
    }
    return pcm;
}

// Samples of an audio file, checking that it is 8 kHz mono (and 16-bit PCM
// WAV unless `any_format`).
Pcm read_wav(const std::string &path, bool any_format = false) {
    SF_INFO info{};
    SNDFILE *sf = sf_open(path.c_str(), SFM_READ, &info);
    EXPECT_NE(sf, nullptr) << path << ": " << sf_strerror(nullptr);
    if (sf == nullptr) return {};
    EXPECT_EQ(info.samplerate, 8000);
    EXPECT_EQ(info.channels, 1);
    EXPECT_TRUE(any_format || info.format == (SF_FORMAT_WAV | SF_FORMAT_PCM_16));
    Pcm pcm(static_cast<std::size_t>(info.frames));
    EXPECT_EQ(sf_read_short(sf, pcm.data(), info.frames), info.frames);
    sf_close(sf);
    return pcm;
}

// Writes a speech-band chirp with some noise; returns the first channel.
Pcm write_tone(const std::string &path, int format, int rate, int channels, double seconds) {
    std::mt19937 rng(7);
    std::normal_distribution<double> noise(0.0, 300.0);
    const auto frames = static_cast<std::size_t>(seconds * rate);
    Pcm first(frames), all;
    for (std::size_t i = 0; i < frames; ++i) {
        const double t = static_cast<double>(i) / rate;
        const double v = 6000.0 * std::sin(2 * M_PI * (200.0 + 400.0 * t) * t) + noise(rng);
        first[i] = static_cast<std::int16_t>(v);
        for (int c = 0; c < channels; ++c) all.push_back(static_cast<std::int16_t>(c == 0 ? v : v / 2));
    }
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = channels;
    info.format = format;
    SNDFILE *sf = sf_open(path.c_str(), SFM_WRITE, &info);
    EXPECT_NE(sf, nullptr) << path << ": " << sf_strerror(nullptr);
    if (sf == nullptr) return first;
    EXPECT_EQ(sf_writef_short(sf, all.data(), static_cast<sf_count_t>(frames)), static_cast<sf_count_t>(frames));
    sf_close(sf);
    return first;
}

// Outputs are written beside their destination under a dot name and renamed.
void expect_no_temporary_files() {
    for (const auto &entry : std::filesystem::directory_iterator(tmp())) {
        EXPECT_NE(entry.path().filename().string()[0], '.') << entry.path();
    }
}

// A failure is one line on stderr that starts with the file's name.
void expect_file_error(const ToolRun &r, const std::string &file, const std::string &problem) {
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_EQ(r.err.rfind(file + ": ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(problem), std::string::npos) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
}

TEST(Tool, HelpAndUsageErrors) {
    const ToolRun help = run({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("usage: evrc encode"), std::string::npos) << help.out;
    EXPECT_EQ(run({}).status, 2);
    const std::vector<std::vector<std::string>> usage_errors = {
        {"encode", "a"},
        {"encode", "--max-rate", "quarter", "a", "b"},
        {"encode", "--limit", "-1", "a", "b"},
        {"encode", "--limit-mode", "run", "a", "b"},
        {"encode", "--min-rate", "full", "--max-rate", "half", "a", "b"},
        {"info"},
        {"transcode", "a", "b"},
        {"decode"},
        {"decode", "in.qcp"},
        {"decode", "a", "b", "c"},
        {"decode", "--bogus", "a", "b"},
        {"decode", "--omx", "--no-postfilter", "a", "b"}};
    for (const auto &args : usage_errors) {
        const ToolRun r = run(args);
        EXPECT_EQ(r.status, 2) << args[0];
        EXPECT_EQ(r.err.rfind("evrc: ", 0), 0u) << r.err;
    }
}

// A QCP file and raw slots with junk behind each packet (which the decoder
// must ignore), directly and through the OpenMAX IL component (over two input
// buffers), with and without the postfilter.
TEST(Tool, DecodesQcpAndRawSlotsLikeTheLibrary) {
    const std::vector<Bytes> stream = random_stream(3, 40);
    const Pcm want = decode_directly(stream, 0), unfiltered = decode_directly(stream, 1);
    const std::string qcp = write_qcp_file("in.qcp", stream), raw = tmp("in.bin");
    std::mt19937 junk(17);
    Bytes slots;
    for (const Bytes &b : stream) {
        for (std::size_t i = 0; i < 24; ++i) slots.push_back(i < b.size() ? b[i] : static_cast<std::uint8_t>(junk()));
    }
    save(raw, slots);
    auto decodes_to = [&](std::vector<std::string> args, const Pcm &pcm) {
        args.insert(args.begin(), "decode");
        args.push_back(tmp("out.wav"));
        std::filesystem::remove(args.back());
        const ToolRun r = run(args);
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(read_wav(tmp("out.wav")), pcm) << args[1] << " " << args[2];
    };
    decodes_to({qcp}, want);
    decodes_to({"--omx", qcp}, want);
    decodes_to({"--no-postfilter", qcp}, unfiltered);
    decodes_to({"--raw", raw}, want);
    decodes_to({"--raw", "--omx", raw}, want);
}

// Bad inputs and outputs of every command: one line naming the file, exit
// status 1, and no output file touched or left behind.
TEST(Tool, BadInputIsNamedAndNothingIsWritten) {
    const std::string good = write_qcp_file("good.qcp", random_stream(5, 6)), qcp = slurp(good);
    const std::string out = tmp("untouched.wav");
    save(out, Bytes{'k', 'e', 'e', 'p'});
    save(tmp("text.qcp"), Bytes{'h', 'e', 'l', 'l', 'o', '\n'});
    save(tmp("cut.qcp"), Bytes(qcp.begin(), qcp.end() - 5));
    save(tmp("odd.bin"), Bytes(50, 4));
    save(tmp("empty.wav"), Bytes{});
    write_tone(tmp("ok.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 8000, 1, 0.1);
    for (const auto &[in, problem] : std::vector<std::pair<std::string, const char *>>{
             {tmp("missing.qcp"), "cannot open"}, {tmp(), "cannot"}, {tmp("text.qcp"), "not a RIFF file"}}) {
        expect_file_error(run({"decode", in, out}), in, problem);
        expect_file_error(run({"info", in}), in, problem);
    }
    for (const auto &[in, problem] :
         std::vector<std::pair<std::string, const char *>>{{tmp("missing.wav"), "cannot open"},
                                                           {tmp("text.qcp"), "not an audio file"},
                                                           {tmp("empty.wav"), "empty"}}) {
        expect_file_error(run({"encode", in, out}), in, problem);
    }
    expect_file_error(run({"decode", "--strict", tmp("cut.qcp"), out}), tmp("cut.qcp"), "truncated");
    expect_file_error(run({"decode", "--strict", "--raw", tmp("odd.bin"), out}), tmp("odd.bin"),
                      "24-byte packet slots");
    expect_file_error(run({"decode", good, tmp("out.xyz")}), tmp("out.xyz"), "unknown output format");
    EXPECT_EQ(slurp(out), "keep") << "a failed run must not touch the output";

    const std::vector<std::vector<std::string>> uncreatable = {{"decode", good, tmp("no/such/dir/out.wav")},
                                                               {"encode", tmp("ok.wav"), tmp("none/out.qcp")},
                                                               {"encode", tmp("ok.wav"), tmp()}};
    for (const auto &args : uncreatable) expect_file_error(run(args), args[2], "cannot create");
    std::filesystem::create_directories(tmp("locked"));
    std::filesystem::permissions(tmp("locked"),
                                 std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);
    if (geteuid() != 0) {  // root writes anywhere
        expect_file_error(run({"encode", tmp("ok.wav"), tmp("locked/out.qcp")}), tmp("locked/out.qcp"),
                          "cannot create");
    }
    EXPECT_TRUE(std::filesystem::is_empty(tmp("locked")));
    expect_file_error(run({"decode", good, good}), good, "refusing to overwrite");
    EXPECT_EQ(slurp(good), qcp);
    expect_no_temporary_files();
}

// Audio files of any rate and channel count are brought to 8 kHz mono and
// encoded; our decoder and FFmpeg's read the result.
TEST(Tool, EncodesAudioFilesThatEveryReaderReads) {
    struct Case {
        const char *name;
        int format, rate, channels;
        double seconds;
    };
    const Case cases[] = {{"stereo.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 44100, 2, 1.53},
                          {"wide.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16, 16000, 1, 0.71}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        write_tone(tmp(c.name), c.format, c.rate, c.channels, c.seconds);
        const std::string qcp = tmp(std::string(c.name) + ".qcp");
        const ToolRun enc = run({"encode", tmp(c.name), qcp});
        ASSERT_EQ(enc.status, 0) << enc.err;
        const std::size_t packets = static_cast<std::size_t>(std::ceil(c.seconds * 50));
        EXPECT_NE(enc.err.find(std::to_string(packets) + " packets"), std::string::npos) << enc.err;
        ASSERT_EQ(run({"decode", qcp, tmp("dec.flac")}).status, 0);
        EXPECT_EQ(read_wav(tmp("dec.flac"), true).size(), packets * EVRC_FRAME_SIZE);
        if (std::system("command -v ffmpeg >/dev/null 2>&1") == 0) {
            const std::string cmd = "ffmpeg -nostdin -v error -y -i '" + qcp + "' '" + tmp("ff.wav") + "'";
            ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
            // FFmpeg's floating-point decoder is not bit-exact with ours, but
            // a decoder fault that either could hide collapses the correlation.
            const Pcm ours = read_wav(tmp("dec.flac"), true), theirs = read_wav(tmp("ff.wav"), true);
            ASSERT_EQ(theirs.size(), ours.size());
            double xy = 0, xx = 0, yy = 0;
            for (std::size_t i = 0; i < ours.size(); ++i)
                xy += 1.0 * ours[i] * theirs[i], xx += 1.0 * ours[i] * ours[i], yy += 1.0 * theirs[i] * theirs[i];
            EXPECT_GT(xy / std::sqrt(xx * yy + 1), 0.9);
            std::printf("[ ffmpeg   ] %s: correlation %.4f\n", c.name, xy / std::sqrt(xx * yy + 1));
        }
    }

    // 8 kHz 16-bit mono reaches the encoder untouched: the same samples from
    // standard input give the same file; raw slots decode to the same speech.
    const Pcm tone = write_tone(tmp("narrow.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 8000, 1, 0.5);
    const auto *le = reinterpret_cast<const std::uint8_t *>(tone.data());  // the hosts are little-endian
    save(tmp("narrow.pcm"), Bytes(le, le + 2 * tone.size()));
    ASSERT_EQ(run({"encode", tmp("narrow.wav"), tmp("file.qcp")}).status, 0);
    ASSERT_EQ(std::system(("'" + std::string(EVRC_TOOL_PATH) + "' encode - '" + tmp("pipe.qcp") + "' <'" +
                           tmp("narrow.pcm") + "' 2>/dev/null")
                              .c_str()),
              0);
    EXPECT_EQ(slurp(tmp("file.qcp")), slurp(tmp("pipe.qcp")));
    ASSERT_EQ(run({"encode", "--raw", tmp("narrow.wav"), tmp("slots.bin")}).status, 0);
    ASSERT_EQ(run({"decode", "--raw", tmp("slots.bin"), tmp("slots.wav")}).status, 0);
    ASSERT_EQ(run({"decode", tmp("file.qcp"), tmp("file.wav")}).status, 0);
    EXPECT_EQ(read_wav(tmp("slots.wav")), read_wav(tmp("file.wav")));
    const ToolRun piped = run({"decode", tmp("file.qcp"), "-"});
    ASSERT_EQ(piped.status, 0);
    EXPECT_EQ(piped.out.size(), 2 * read_wav(tmp("file.wav")).size());
}

// The rate options reach the encoder's rate control: every packet sequence
// keeps the bound each option sets.
TEST(Tool, RateOptionsBoundThePackets) {
    write_tone(tmp("rates.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 8000, 1, 2.0);
    // Packets per rate, the shortest distance between full-rate packets and
    // the longest run of them.
    struct Stats {
        std::size_t count[5] = {}, gap = SIZE_MAX, longest = 0;
    };
    auto rates = [](std::vector<std::string> options) {
        options.insert(options.begin(), "encode");
        options.insert(options.end(), {tmp("rates.wav"), tmp("rates.qcp")});
        EXPECT_EQ(run(options).status, 0);
        Stats st;
        std::size_t i = 0, last = SIZE_MAX, run_length = 0;
        for (const evrc::QcpPacket &p : evrc::read_qcp(tmp("rates.qcp")).file.packets) {
            ++st.count[p.rate % 5];
            run_length = p.rate == EVRC_RATE_FULL ? run_length + 1 : 0;
            st.longest = std::max(st.longest, run_length);
            if (p.rate == EVRC_RATE_FULL) st.gap = std::min(st.gap, last == SIZE_MAX ? SIZE_MAX : i - last), last = i;
            ++i;
        }
        return st;
    };
    EXPECT_GT(rates({}).longest, 3u) << "the test signal needs runs of full-rate frames";
    EXPECT_EQ(rates({"--max-rate", "half"}).count[EVRC_RATE_FULL], 0u);
    EXPECT_EQ(rates({"--max-rate", "eighth"}).count[EVRC_RATE_EIGHTH], 100u);
    EXPECT_EQ(rates({"--min-rate", "half"}).count[EVRC_RATE_EIGHTH], 0u);
    EXPECT_EQ(rates({"--min-rate", "full"}).count[EVRC_RATE_FULL], 100u);
    const Stats spaced = rates({"--limit", "3"});
    EXPECT_GT(spaced.count[EVRC_RATE_FULL], 0u);
    EXPECT_GE(spaced.gap, 4u);
    EXPECT_EQ(rates({"--limit", "2", "--limit-mode", "run"}).longest, 2u);
}

// info names what is wrong with a file without refusing it. A recording
// cut off anywhere in its packets gives up only what was cut: every whole
// packet before the cut decodes as in the full file.
TEST(Tool, InfoAndCutFilesDecodeTheirWholePacketsUnlessStrict) {
    const std::vector<Bytes> stream = random_stream(11, 7);
    const std::string full = write_qcp_file("whole.qcp", stream);
    const std::string bytes = slurp(full);
    const ToolRun whole = run({"info", full});
    ASSERT_EQ(whole.status, 0) << whole.err;
    EXPECT_NE(whole.out.find("duration:  0.16 s (8 packets of 20 ms)"), std::string::npos) << whole.out;
    EXPECT_NE(whole.out.find("packets:   full 3, half 2, eighth 2, blank 1; unknown rate 0"), std::string::npos)
        << whole.out;
    EXPECT_NE(whole.out.find("problems:  none"), std::string::npos) << whole.out;
    std::string odd = bytes;
    odd.replace(odd.find("vrat"), 4, "junk");          // an unknown chunk now
    odd[odd.find("data") + 8] = static_cast<char>(2);  // a rate octet the rate map does not list
    save(tmp("odd.qcp"), Bytes(odd.begin(), odd.end()));
    const ToolRun info = run({"info", tmp("odd.qcp")});
    ASSERT_EQ(info.status, 0) << info.err;
    EXPECT_NE(info.out.find("no 'vrat' chunk"), std::string::npos) << info.out;
    EXPECT_NE(info.out.find("packets of unknown rate"), std::string::npos) << info.out;

    const Pcm want = decode_directly(stream, 0);
    const std::size_t data_at = bytes.find("data");
    ASSERT_NE(data_at, std::string::npos);
    std::vector<std::size_t> packet_end;  // file offset after each packet
    std::size_t at = data_at + 8;
    for (const Bytes &b : stream) packet_end.push_back(at += b.size());
    const std::string cut = tmp("cut_sweep.qcp");
    for (std::size_t len = data_at; len < bytes.size(); ++len) {
        SCOPED_TRACE(len);
        save(cut, Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(len)));
        const std::size_t whole =
            static_cast<std::size_t>(std::upper_bound(packet_end.begin(), packet_end.end(), len) - packet_end.begin());
        const ToolRun r = run({"decode", cut, tmp("cut.wav")});
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.err, cut + ": truncated at byte " + std::to_string(len) + ": decoded " + std::to_string(whole) +
                             " packets\n");
        EXPECT_EQ(read_wav(tmp("cut.wav")),
                  Pcm(want.begin(), want.begin() + static_cast<std::ptrdiff_t>(whole * EVRC_FRAME_SIZE)));
        expect_file_error(run({"decode", "--strict", cut, tmp("strict.wav")}), cut, "truncated");
        EXPECT_FALSE(std::filesystem::exists(tmp("strict.wav")));
        const ToolRun info = run({"info", cut});
        EXPECT_EQ(info.status, 0);
        EXPECT_NE(info.out.find("problems:  truncated at byte " + std::to_string(len)), std::string::npos) << info.out;
    }
}

}  // namespace
