// The command-line decoder gives the same WAV file, byte for byte, whether
// it decodes directly or through the OpenMAX IL component.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "evrc/qcp.hpp"
#include "tests/support/random_packets.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

class ToolOmx : public ::testing::Test {
protected:
    void SetUp() override {
        char dir_template[] = "/tmp/evrc_tool_omx_XXXXXX";
        ASSERT_NE(mkdtemp(dir_template), nullptr);
        dir_ = dir_template;
    }
    void TearDown() override {
        for (const std::string& f : created_) std::remove(f.c_str());
        rmdir(dir_.c_str());
    }

    std::string path(const std::string& name) {
        created_.push_back(dir_ + "/" + name);
        return created_.back();
    }

    // Runs `evrc decode [extra] in out`, bounded in time; returns the exit
    // status.
    int decode(const std::string& extra, const std::string& in, const std::string& out) {
        const std::string log = path("log.txt");
        const std::string cmd = "timeout 120 '" + std::string(EVRC_TOOL_PATH) + "' decode " + extra + " '" + in +
                                "' '" + out + "' >'" + log + "' 2>&1";
        const int status = std::system(cmd.c_str());
        if (status != 0) ADD_FAILURE() << cmd << "\n" << slurp_text(log);
        return status;
    }

    static Bytes slurp(const std::string& file) {
        std::ifstream f(file, std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
    }
    static std::string slurp_text(const std::string& file) {
        const Bytes b = slurp(file);
        return std::string(b.begin(), b.end());
    }

    void expect_same_wav(const std::string& in, const std::string& options) {
        const std::string direct = path("direct.wav");
        const std::string omx = path("omx.wav");
        ASSERT_EQ(decode(options, in, direct), 0);
        ASSERT_EQ(decode(options + " --omx", in, omx), 0);
        const Bytes a = slurp(direct);
        const Bytes b = slurp(omx);
        ASSERT_GT(a.size(), 44u);
        EXPECT_EQ(a.size(), b.size());
        EXPECT_TRUE(a == b) << "the two WAV files differ";
    }

    std::string dir_;
    std::vector<std::string> created_;
};

// Every rate a QCP file can hold (blank, 1/8, 1/2, 1) in random order, long
// enough to span many input buffers, with runs of one rate so that each
// buffer size limit (30 packets, 720 bytes) is met.
std::vector<evrc::QcpPacket> all_rate_packets(unsigned seed, std::size_t n) {
    std::mt19937 rng(seed);
    static const int rates[] = {EVRC_RATE_BLANK, EVRC_RATE_EIGHTH, EVRC_RATE_HALF, EVRC_RATE_FULL};
    std::vector<evrc::QcpPacket> out;
    while (out.size() < n) {
        const int rate = rates[evrc_test::uniform_int(rng, 0, 3)];
        const int run = evrc_test::uniform_int(rng, 1, 40);
        for (int i = 0; i < run && out.size() < n; ++i) {
            evrc::QcpPacket p;
            p.rate = static_cast<std::uint8_t>(rate);
            if (rate != EVRC_RATE_BLANK) {
                const Bytes b = evrc_test::random_packet_bytes(rng, rate);
                p.data.assign(b.begin() + 1, b.end());
            }
            out.push_back(std::move(p));
        }
    }
    return out;
}

TEST_F(ToolOmx, QcpWithAllRatesGivesIdenticalWavFiles) {
    const std::string qcp = path("all_rates.qcp");
    std::string error;
    ASSERT_TRUE(evrc::write_qcp(qcp, all_rate_packets(99, 700), error)) << error;
    expect_same_wav(qcp, "");
}

TEST_F(ToolOmx, RawSlotsGiveIdenticalWavFiles) {
    // 24-byte slots, rate byte first, junk behind each packet; blank and
    // quarter-rate slots, which carry nothing to decode, are concealed.
    std::mt19937 rng(5);
    Bytes raw;
    for (int i = 0; i < 200; ++i) {
        const int rate = evrc_test::uniform_int(rng, 0, 4);
        Bytes slot(24);
        for (auto& x : slot) x = static_cast<std::uint8_t>(rng());
        Bytes p;
        if (rate == EVRC_RATE_EIGHTH || rate == EVRC_RATE_HALF || rate == EVRC_RATE_FULL) {
            p = evrc_test::random_packet_bytes(rng, rate);
        } else {
            p.push_back(static_cast<std::uint8_t>(rate));
        }
        std::copy(p.begin(), p.end(), slot.begin());
        raw.insert(raw.end(), slot.begin(), slot.end());
    }
    const std::string in = path("slots.bin");
    std::ofstream(in, std::ios::binary).write(reinterpret_cast<const char*>(raw.data()),
                                              static_cast<std::streamsize>(raw.size()));
    expect_same_wav(in, "--raw");
}

}  // namespace
