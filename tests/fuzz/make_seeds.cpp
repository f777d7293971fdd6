// Writes seed inputs for the fuzz targets: valid packet sequences in both
// packet layouts, and valid QCP files.
//   make_seeds DECODE_DIR QCP_DIR
#include <cstdio>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "evrc/qcp.hpp"
#include "tools/random_packets.h"

static bool save(const std::string &path, const std::vector<std::uint8_t> &bytes) {
    std::ofstream f(path, std::ios::binary);
    return static_cast<bool>(f.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size())).flush());
}

int main(int argc, char **argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: make_seeds DECODE_DIR QCP_DIR\n");
        return 2;
    }
    std::mt19937 rng(42);
    const std::vector<std::vector<int>> mixes = {{4}, {3}, {1}, {4, 1, 3}};
    for (int n = 0; n < 8; ++n) {
        const std::vector<int> &mix = mixes[n / 2];
        std::vector<std::uint8_t> input = {0, static_cast<std::uint8_t>(n % 2)}, qcp;
        std::vector<evrc::QcpPacket> packets;
        for (int i = 0; i < 8; ++i) {
            std::vector<std::uint8_t> bytes = evrc_random::random_packet_bytes(rng, mix[i % mix.size()]);
            packets.push_back({bytes[0], true, std::vector<std::uint8_t>(bytes.begin() + 1, bytes.end())});
            bytes.resize(24);
            const EvrcPacket p = evrc_random::bytes_to_packet(bytes);
            for (int k = 0; k < 12 && n % 2; ++k) {  // word layout, little-endian
                bytes[2 * k] = static_cast<std::uint8_t>((&p.rate)[k] & 0xFF);
                bytes[2 * k + 1] = static_cast<std::uint8_t>(((&p.rate)[k] >> 8) & 0xFF);
            }
            input.insert(input.end(), bytes.begin(), bytes.end());
        }
        std::string error;
        const std::string name = "/seed" + std::to_string(n);
        if (!save(argv[1] + name + ".bin", input) || !evrc::write_qcp(packets, qcp, error) ||
            !save(argv[2] + name + ".qcp", qcp)) {
            return 1;
        }
    }
    return 0;
}
