// Writes seed inputs for the fuzz targets: valid packet sequences in both
// packet layouts, valid QCP files, and encoder inputs (parameter header and
// frames of tones, noise and silence).
//   make_seeds DECODE_DIR QCP_DIR [ENCODE_DIR]
#include <cmath>
#include <cstdio>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "evrc/qcp.hpp"
#include "tools/random_packets.h"

static bool save(const std::string &path, const std::vector<std::uint8_t> &bytes) {
    std::ofstream f(path, std::ios::binary);
    return static_cast<bool>(
        f.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size())).flush());
}

int main(int argc, char **argv) {
    if (argc != 3 && argc != 4) {
        std::fprintf(stderr, "usage: make_seeds DECODE_DIR QCP_DIR [ENCODE_DIR]\n");
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
    // Encoder seeds: default parameters (full down to eighth), then forced
    // eighth, then half rate at most; 12 frames of a tone with pauses, noise.
    for (int n = 0; argc == 4 && n < 3; ++n) {
        std::vector<std::uint8_t> input = {2, static_cast<std::uint8_t>(n == 2 ? 0 : 3), 0,
                                           0, static_cast<std::uint8_t>(n == 1 ? 1 : 0), 0};
        std::normal_distribution<double> noise(0.0, 300.0);
        for (int f = 0; f < 12; ++f) {
            input.push_back(0);
            for (int i = 0; i < 160; ++i) {
                const double t = (f * 160 + i) / 8000.0;
                const double tone = f % 4 == 3 ? 0.0 : 6000 * std::sin(2 * 3.14159265 * (150 + 40 * f) * t);
                const auto v = static_cast<std::int16_t>(std::lround(tone + noise(rng)));
                input.push_back(static_cast<std::uint8_t>(v & 0xFF));
                input.push_back(static_cast<std::uint8_t>((v >> 8) & 0xFF));
            }
        }
        if (!save(std::string(argv[3]) + "/seed" + std::to_string(n) + ".bin", input)) return 1;
    }
    return 0;
}
