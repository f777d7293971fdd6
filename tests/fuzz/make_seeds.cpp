// Writes seed inputs for the fuzz targets: valid packet sequences in both
// packet layouts, and valid QCP files.
//   make_seeds DECODE_DIR QCP_DIR
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "evrc/qcp.hpp"
#include "tests/support/random_packets.h"

namespace {

bool save(const std::string &path, const std::vector<std::uint8_t> &bytes) {
    std::FILE *fp = std::fopen(path.c_str(), "wb");
    if (fp == nullptr) return false;
    const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), fp) == bytes.size();
    return std::fclose(fp) == 0 && ok;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: make_seeds DECODE_DIR QCP_DIR\n");
        return 2;
    }
    std::mt19937 rng(42);
    const std::vector<std::vector<int>> mixes = {
        {EVRC_RATE_FULL}, {EVRC_RATE_HALF}, {EVRC_RATE_EIGHTH}, {EVRC_RATE_FULL, EVRC_RATE_EIGHTH, EVRC_RATE_HALF}};
    int n = 0;
    for (const auto &mix : mixes) {
        for (int layout = 0; layout < 2; ++layout) {
            std::vector<std::uint8_t> input = {0, static_cast<std::uint8_t>(layout)};
            std::vector<evrc::QcpPacket> packets;
            for (int i = 0; i < 8; ++i) {
                const std::vector<std::uint8_t> bytes = evrc_test::random_packet_bytes(rng, mix[i % mix.size()]);
                std::vector<std::uint8_t> slot(24, 0);
                if (layout == 0) {
                    std::copy(bytes.begin(), bytes.end(), slot.begin());
                } else {
                    const EvrcPacket p = evrc_test::bytes_to_packet(bytes);
                    const Word16 *w = &p.rate;
                    for (int k = 0; k < 12; ++k) {
                        slot[2 * k] = static_cast<std::uint8_t>(w[k] & 0xFF);
                        slot[2 * k + 1] = static_cast<std::uint8_t>((w[k] >> 8) & 0xFF);
                    }
                }
                input.insert(input.end(), slot.begin(), slot.end());
                evrc::QcpPacket q;
                q.rate = bytes[0];
                q.data.assign(bytes.begin() + 1, bytes.end());
                packets.push_back(q);
            }
            if (!save(std::string(argv[1]) + "/seed" + std::to_string(n) + ".bin", input)) return 1;
            std::vector<std::uint8_t> qcp;
            std::string error;
            if (!evrc::write_qcp(packets, qcp, error) ||
                !save(std::string(argv[2]) + "/seed" + std::to_string(n) + ".qcp", qcp)) {
                return 1;
            }
            ++n;
        }
    }
    return 0;
}
