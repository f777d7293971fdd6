#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "evrc/evrc_dec.h"
#include "evrc/qcp.hpp"
#include "tests/support/random_packets.h"
#include "tests/support/temp_dir.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Pcm = std::vector<std::int16_t>;

std::string own_temp_dir() { return evrc_test::own_temp_dir("evrc_tool"); }

struct ToolRun {
    int status = -1;
    std::string out, err;
};

std::string slurp(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

std::string quote(const std::string &s) {
    std::string q = "'";
    for (char c : s) q += (c == '\'') ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

ToolRun run(const std::vector<std::string> &args) {
    const std::string dir = own_temp_dir();
    std::string cmd = quote(EVRC_TOOL_PATH);
    for (const std::string &a : args) cmd += " " + quote(a);
    cmd += " >" + quote(dir + "/tool.out") + " 2>" + quote(dir + "/tool.err");
    const int rc = std::system(cmd.c_str());
    ToolRun r;
    r.status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    r.out = slurp(dir + "/tool.out");
    r.err = slurp(dir + "/tool.err");
    return r;
}

std::string tmp(const std::string &name) { return own_temp_dir() + "/" + name; }

void save(const std::string &path, const Bytes &b) {
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char *>(b.data()),
                                                 static_cast<std::streamsize>(b.size()));
}

bool exists(const std::string &path) { return std::ifstream(path).good(); }

// Random valid packets as the byte stream (rate byte, payload).
std::vector<Bytes> random_stream(unsigned seed, std::size_t n) {
    std::mt19937 rng(seed);
    std::vector<Bytes> out;
    const int rates[] = {EVRC_RATE_FULL, EVRC_RATE_HALF, EVRC_RATE_EIGHTH, EVRC_RATE_FULL};
    for (std::size_t i = 0; i < n; ++i) out.push_back(evrc_test::random_packet_bytes(rng, rates[i % 4]));
    out.push_back({EVRC_RATE_BLANK});
    return out;
}

std::string write_qcp_file(const std::string &name, const std::vector<Bytes> &stream) {
    std::vector<evrc::QcpPacket> packets;
    for (const Bytes &b : stream) {
        evrc::QcpPacket p;
        p.rate = b[0];
        p.data.assign(b.begin() + 1, b.end());
        packets.push_back(p);
    }
    const std::string path = tmp(name);
    std::string error;
    EXPECT_TRUE(evrc::write_qcp(path, packets, error)) << error;
    return path;
}

Pcm decode_directly(const std::vector<Bytes> &stream, int postfilter_off) {
    Pcm pcm(stream.size() * EVRC_FRAME_SIZE);
    auto st = std::make_unique<EvrcDecoderState>();
    evrc_init_dec(st.get());
    for (std::size_t i = 0; i < stream.size(); ++i) {
        EvrcPacket p = evrc_test::bytes_to_packet(stream[i]);
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
    const std::vector<std::vector<std::string>> bad = {
        {"encode", "a", "b"},          {"decode"},
        {"decode", "in.qcp"},          {"decode", "a", "b", "c"},
        {"decode", "--bogus", "a", "b"}, {"decode", "--omx", "--no-postfilter", "a", "b"}};
    for (const auto &args : bad) {
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

    r = run({"decode", "--no-postfilter", qcp, tmp("nopf.wav")});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(read_wav(tmp("nopf.wav")), decode_directly(stream, 1));

    // Raw slots with junk behind each packet: the decoder must ignore it.
    std::mt19937 junk(17);
    Bytes raw;
    for (const Bytes &b : stream) {
        Bytes slot(24);
        for (auto &x : slot) x = static_cast<std::uint8_t>(junk());
        std::copy(b.begin(), b.end(), slot.begin());
        raw.insert(raw.end(), slot.begin(), slot.end());
    }
    save(tmp("in.bin"), raw);
    r = run({"decode", "--raw", tmp("in.bin"), tmp("raw.wav")});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(read_wav(tmp("raw.wav")), want);
}

TEST(Tool, ThroughTheComponentMatchesOrSaysWhy) {
    const std::vector<Bytes> stream = random_stream(4, 20);
    const std::string qcp = write_qcp_file("omx.qcp", stream);
    std::remove(tmp("omx.wav").c_str());
    const ToolRun r = run({"decode", "--omx", qcp, tmp("omx.wav")});
    if (r.status == 0) {
        EXPECT_EQ(read_wav(tmp("omx.wav")), decode_directly(stream, 0));
    } else {
        expect_file_error(r, qcp, "");
        EXPECT_FALSE(exists(tmp("omx.wav")));
    }
}

TEST(Tool, BadInputIsNamedAndNothingIsWritten) {
    const std::vector<Bytes> stream = random_stream(5, 6);
    const std::string good = write_qcp_file("good.qcp", stream);
    const std::string out = tmp("untouched.wav");
    save(out, Bytes{'k', 'e', 'e', 'p'});

    expect_file_error(run({"decode", tmp("missing.qcp"), out}), tmp("missing.qcp"), "cannot open");
    expect_file_error(run({"decode", own_temp_dir(), out}), own_temp_dir(), "cannot");

    save(tmp("text.qcp"), Bytes{'h', 'e', 'l', 'l', 'o', '\n'});
    expect_file_error(run({"decode", tmp("text.qcp"), out}), tmp("text.qcp"), "not a RIFF file");

    const std::string qcp = slurp(good);
    save(tmp("cut.qcp"), Bytes(qcp.begin(), qcp.end() - 5));
    expect_file_error(run({"decode", tmp("cut.qcp"), out}), tmp("cut.qcp"), "truncated");

    save(tmp("odd.bin"), Bytes(50, 4));
    expect_file_error(run({"decode", "--raw", tmp("odd.bin"), out}), tmp("odd.bin"), "24-byte packet slots");

    EXPECT_EQ(slurp(out), "keep") << "a failed decode must not touch the output";

    expect_file_error(run({"decode", good, tmp("no/such/dir/out.wav")}), tmp("no/such/dir/out.wav"),
                      "cannot create");
    expect_file_error(run({"decode", good, good}), good, "refusing to overwrite");
    EXPECT_EQ(slurp(good), qcp);
}

}  // namespace
