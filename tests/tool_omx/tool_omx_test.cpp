// The command-line decoder gives the same WAV file, byte for byte, whether
// it decodes directly or through the OpenMAX IL component.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "evrc/qcp.hpp"
#include "tools/random_packets.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes slurp(const std::string& file)
{
    std::ifstream f(file, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

// Decodes `in` with `evrc decode`, directly and with --omx, and compares.
void expect_same_wav(const std::string& in, const std::string& options)
{
    Bytes wav[2];
    for (int omx = 0; omx < 2; ++omx) {
        const std::string out = in + (omx ? ".omx.wav" : ".wav"), log = in + ".log";
        const std::string cmd = "timeout 120 '" + std::string(EVRC_TOOL_PATH) + "' decode " + options +
                                (omx ? " --omx '" : " '") + in + "' '" + out + "' >'" + log + "' 2>&1";
        const int status = std::system(cmd.c_str());
        const Bytes msg = slurp(log);
        EXPECT_EQ(status, 0) << cmd << "\n" << std::string(msg.begin(), msg.end());
        wav[omx] = slurp(out);
        for (const std::string& f : {out, log})
            std::remove(f.c_str());
    }
    ASSERT_GT(wav[0].size(), 44u);
    EXPECT_TRUE(wav[0] == wav[1]) << "the two WAV files differ";
}

TEST(ToolOmx, QcpAndRawInputsGiveIdenticalWavFiles)
{
    char dir_template[] = "/tmp/evrc_tool_omx_XXXXXX";
    ASSERT_NE(mkdtemp(dir_template), nullptr);
    const std::string dir = dir_template;
    std::mt19937 rng(99);

    // QCP: every rate it can hold (blank, 1/8, 1/2, 1), in runs of one rate
    // so that each input buffer limit (30 packets, 720 bytes) is met.
    static const int kRates[] = {EVRC_RATE_BLANK, EVRC_RATE_EIGHTH, EVRC_RATE_HALF, EVRC_RATE_FULL};
    std::vector<evrc::QcpPacket> packets;
    while (packets.size() < 700) {
        const int rate = kRates[evrc_random::uniform_int(rng, 0, 3)];
        for (int run = evrc_random::uniform_int(rng, 1, 40); run > 0; --run) {
            evrc::QcpPacket p;
            p.rate = static_cast<std::uint8_t>(rate);
            const Bytes b = rate == EVRC_RATE_BLANK ? Bytes{0} : evrc_random::random_packet_bytes(rng, rate);
            p.data.assign(b.begin() + 1, b.end());
            packets.push_back(std::move(p));
        }
    }
    std::string error;
    ASSERT_TRUE(evrc::write_qcp(dir + "/all_rates.qcp", packets, error)) << error;
    expect_same_wav(dir + "/all_rates.qcp", "");

    // Raw: 24-byte slots, rate byte first, junk behind each packet; blank
    // and quarter-rate slots carry nothing to decode and are concealed.
    Bytes raw;
    for (int i = 0; i < 200; ++i) {
        const int rate = evrc_random::uniform_int(rng, 0, 4);
        Bytes slot(24);
        for (auto& x : slot)
            x = static_cast<std::uint8_t>(rng());
        const Bytes p = rate == EVRC_RATE_BLANK || rate == EVRC_RATE_QUARTER ? Bytes{static_cast<std::uint8_t>(rate)}
                                                                             : evrc_random::random_packet_bytes(rng, rate);
        std::copy(p.begin(), p.end(), slot.begin());
        raw.insert(raw.end(), slot.begin(), slot.end());
    }
    std::ofstream(dir + "/slots.bin", std::ios::binary)
        .write(reinterpret_cast<const char*>(raw.data()), static_cast<std::streamsize>(raw.size()));
    expect_same_wav(dir + "/slots.bin", "--raw");
    for (const char* f : {"/all_rates.qcp", "/slots.bin", ""})
        std::remove((dir + f).c_str());
}

}  // namespace
