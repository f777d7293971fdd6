#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <random>
#include <iterator>
#include <string>
#include <vector>

#include "evrc/qcp.hpp"
#include "tools/random_packets.h"
#include "tests/support/temp_dir.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Pcm = std::vector<std::int16_t>;

std::string tmp(const std::string &name = "") { return evrc_test::own_temp_dir("evrc_tool") + "/" + name; }

std::string slurp(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), {}};
}

void save(const std::string &path, const Bytes &b) {
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char *>(b.data()), static_cast<std::streamsize>(b.size()));
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

// Samples of a WAV file, checking that it is 16-bit mono PCM at 8000 Hz.
Pcm read_wav(const std::string &path) {
    SF_INFO info{};
    SNDFILE *sf = sf_open(path.c_str(), SFM_READ, &info);
    EXPECT_NE(sf, nullptr) << path << ": " << sf_strerror(nullptr);
    if (sf == nullptr) return {};
    EXPECT_EQ(info.samplerate, 8000);
    EXPECT_EQ(info.channels, 1);
    EXPECT_EQ(info.format, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    Pcm pcm(static_cast<std::size_t>(info.frames));
    EXPECT_EQ(sf_read_short(sf, pcm.data(), info.frames), info.frames);
    sf_close(sf);
    return pcm;
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
    EXPECT_NE(help.out.find("usage: evrc decode"), std::string::npos) << help.out;
    EXPECT_EQ(run({}).status, 2);
    for (const auto &args : std::vector<std::vector<std::string>>{{"encode", "a", "b"}, {"decode"},
                                                                  {"decode", "in.qcp"}, {"decode", "a", "b", "c"},
                                                                  {"decode", "--bogus", "a", "b"},
                                                                  {"decode", "--omx", "--no-postfilter", "a", "b"}}) {
        const ToolRun r = run(args);
        EXPECT_EQ(r.status, 2) << args[0];
        EXPECT_EQ(r.err.rfind("evrc: ", 0), 0u) << r.err;
    }
}

TEST(Tool, DecodesQcpAndRawSlotsLikeTheLibrary) {
    const std::vector<Bytes> stream = random_stream(3, 40);
    const Pcm want = decode_directly(stream, 0);
    const std::string qcp = write_qcp_file("in.qcp", stream);
    ToolRun r = run({"decode", qcp, tmp("qcp.wav")});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(read_wav(tmp("qcp.wav")), want);
    // Through the OpenMAX IL component: the same samples, over two input buffers.
    r = run({"decode", "--omx", qcp, tmp("omx.wav")});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(read_wav(tmp("omx.wav")), want);
    r = run({"decode", "--no-postfilter", qcp, tmp("nopf.wav")});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(read_wav(tmp("nopf.wav")), decode_directly(stream, 1));

    // Raw slots with junk behind each packet: the decoder must ignore it.
    std::mt19937 junk(17);
    Bytes raw;
    for (const Bytes &b : stream) {
        for (std::size_t i = 0; i < 24; ++i) raw.push_back(i < b.size() ? b[i] : static_cast<std::uint8_t>(junk()));
    }
    save(tmp("in.bin"), raw);
    for (const bool omx : {false, true}) {
        r = run(omx ? std::vector<std::string>{"decode", "--raw", "--omx", tmp("in.bin"), tmp("omx_raw.wav")}
                    : std::vector<std::string>{"decode", "--raw", tmp("in.bin"), tmp("raw.wav")});
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(read_wav(tmp(omx ? "omx_raw.wav" : "raw.wav")), want);
    }
}

TEST(Tool, BadInputIsNamedAndNothingIsWritten) {
    const std::string good = write_qcp_file("good.qcp", random_stream(5, 6)), qcp = slurp(good);
    const std::string out = tmp("untouched.wav");
    save(out, Bytes{'k', 'e', 'e', 'p'});
    save(tmp("text.qcp"), Bytes{'h', 'e', 'l', 'l', 'o', '\n'});
    save(tmp("cut.qcp"), Bytes(qcp.begin(), qcp.end() - 5));
    save(tmp("odd.bin"), Bytes(50, 4));
    const std::pair<std::string, const char *> inputs[] = {{tmp("missing.qcp"), "cannot open"},
                                                           {tmp(), "cannot"},
                                                           {tmp("text.qcp"), "not a RIFF file"},
                                                           {tmp("cut.qcp"), "truncated"}};
    for (const auto &[in, problem] : inputs) expect_file_error(run({"decode", in, out}), in, problem);
    expect_file_error(run({"decode", "--raw", tmp("odd.bin"), out}), tmp("odd.bin"), "24-byte packet slots");
    EXPECT_EQ(slurp(out), "keep") << "a failed decode must not touch the output";

    expect_file_error(run({"decode", good, tmp("no/such/dir/out.wav")}), tmp("no/such/dir/out.wav"), "cannot create");
    expect_file_error(run({"decode", good, good}), good, "refusing to overwrite");
    EXPECT_EQ(slurp(good), qcp);
}

}  // namespace
