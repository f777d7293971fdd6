// Random valid EVRC packets for tests and benchmarks.
//
// Every field is drawn at random, within the limits a decoder accepts: LSP
// codebook rows that give ten strictly ascending LSPs, a delay index of at
// most 100, rate-1 fixed-codebook fields whose low seven bits are at most
// 120, and a rate 1/8 data word that is not all ones. Packets come in two
// layouts:
//   - byte stream: the rate byte followed by the payload bytes (3, 11 and 23
//     bytes in all for rate 1/8, 1/2 and 1; the last rate-1 byte carries bits
//     168-175, of which 171-175 are unused and written as 0);
//   - word layout (EvrcPacket): rate word, then data words holding two
//     payload bytes each, the earlier byte in the high half.
#ifndef EVRC_TESTS_SUPPORT_RANDOM_PACKETS_H
#define EVRC_TESTS_SUPPORT_RANDOM_PACKETS_H

#include <cstddef>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"

namespace evrc_test {

// Field values of one packet, as carried on the wire (indices, not the
// decoded values).
struct FullRateFields {
    int mode_bit = 0;
    int lsp_index[4] = {};  // 6, 6, 9, 7 bits
    int delay_index = 0;    // 7 bits, delay = index + 20
    int delta_delay = 0;    // 5 bits
    int acb_gain_index[3] = {};
    int fcb_index[3][4] = {};  // 8, 8, 8, 11 bits
    int fcb_gain_index[3] = {};
    int reserved = 0;  // bit 170
};

struct HalfRateFields {
    int lsp_index[3] = {};  // 7, 7, 8 bits
    int delay_index = 0;    // 7 bits
    int acb_gain_index[3] = {};
    int fcb_index[3] = {};  // 10 bits
    int fcb_gain_index[3] = {};  // 4 bits
};

struct EighthRateFields {
    int lsp_index[2] = {};  // 4 bits each
    int energy_index = 0;   // 8 bits
};

inline int uniform_int(std::mt19937 &rng, int lo, int hi) {
    return std::uniform_int_distribution<int>(lo, hi)(rng);
}

// Chooses the codebook rows one codebook at a time, each drawn until it is
// ascending and continues the run; restarts from the first codebook when a
// codebook offers no fitting row within a bounded number of draws.
template <int N>
inline void draw_ascending_rows(std::mt19937 &rng, const Word16 *const (&books)[N], const int (&rows)[N],
                                const int (&lens)[N], int (&index)[N]) {
    for (;;) {
        int last = -1;
        bool ok = true;
        for (int b = 0; b < N && ok; ++b) {
            ok = false;
            for (int attempt = 0; attempt < 64 * rows[b] && !ok; ++attempt) {
                const int i = uniform_int(rng, 0, rows[b] - 1);
                const Word16 *row = books[b] + static_cast<std::ptrdiff_t>(i) * lens[b];
                ok = row[0] > last;
                for (int j = 1; j < lens[b]; ++j) ok = ok && row[j] > row[j - 1];
                if (ok) index[b] = i, last = row[lens[b] - 1];
            }
        }
        if (ok) return;
    }
}

inline FullRateFields random_full_rate_fields(std::mt19937 &rng) {
    FullRateFields f;
    f.mode_bit = uniform_int(rng, 0, 1);
    draw_ascending_rows(rng, {&evrc_acsLspVQFull1[0][0], &evrc_acsLspVQFull2[0][0], &evrc_acsLspVQFull3[0][0],
                              &evrc_acsLspVQFull4[0][0]},
                        {64, 64, 512, 128}, {2, 2, 3, 3}, f.lsp_index);
    f.delay_index = uniform_int(rng, 0, 100);
    f.delta_delay = uniform_int(rng, 0, 31);
    for (int k = 0; k < 3; ++k) {
        f.acb_gain_index[k] = uniform_int(rng, 0, 7);
        // Low seven bits at most 120; the bits above them are free.
        for (int j = 0; j < 3; ++j) f.fcb_index[k][j] = (uniform_int(rng, 0, 1) << 7) | uniform_int(rng, 0, 120);
        f.fcb_index[k][3] = (uniform_int(rng, 0, 15) << 7) | uniform_int(rng, 0, 120);
        f.fcb_gain_index[k] = uniform_int(rng, 0, 31);
    }
    f.reserved = uniform_int(rng, 0, 1);
    return f;
}

inline HalfRateFields random_half_rate_fields(std::mt19937 &rng) {
    HalfRateFields f;
    draw_ascending_rows(rng, {&evrc_acsLspVQHalf1[0][0], &evrc_acsLspVQHalf2[0][0], &evrc_acsLspVQHalf3[0][0]},
                        {128, 128, 256}, {3, 3, 4}, f.lsp_index);
    f.delay_index = uniform_int(rng, 0, 100);
    for (int k = 0; k < 3; ++k) {
        f.acb_gain_index[k] = uniform_int(rng, 0, 7);
        f.fcb_index[k] = uniform_int(rng, 0, 1023);
        f.fcb_gain_index[k] = uniform_int(rng, 0, 15);
    }
    return f;
}

inline EighthRateFields random_eighth_rate_fields(std::mt19937 &rng) {
    EighthRateFields f;
    do {
        draw_ascending_rows(rng, {&evrc_acsLspVQEighth1[0][0], &evrc_acsLspVQEighth2[0][0]}, {16, 16}, {5, 5},
                            f.lsp_index);
        f.energy_index = uniform_int(rng, 0, 255);
        // An all-ones data word marks an erased eighth-rate frame.
    } while (f.lsp_index[0] == 15 && f.lsp_index[1] == 15 && f.energy_index == 255);
    return f;
}

// The rate byte, then (value, width) fields most significant bit first,
// zero-padded to `payload_bytes`.
inline std::vector<uint8_t> pack_fields(int rate, std::size_t payload_bytes,
                                        const std::vector<std::pair<int, int>> &fields) {
    std::vector<uint8_t> out(payload_bytes + 1, 0);
    out[0] = static_cast<uint8_t>(rate);
    std::size_t bit = 8;
    for (const auto &[value, width] : fields) {
        for (int i = width - 1; i >= 0; --i, ++bit) {
            if ((static_cast<uint32_t>(value) >> i) & 1u) out[bit / 8] |= static_cast<uint8_t>(0x80u >> (bit % 8));
        }
    }
    return out;
}

inline std::vector<uint8_t> pack_full_rate(const FullRateFields &f) {
    std::vector<std::pair<int, int>> v = {{f.mode_bit, 1},       {f.lsp_index[0], 6}, {f.lsp_index[1], 6},
                                          {f.lsp_index[2], 9},   {f.lsp_index[3], 7}, {f.delay_index, 7},
                                          {f.delta_delay, 5}};
    for (int k = 0; k < 3; ++k) {
        v.insert(v.end(), {{f.acb_gain_index[k], 3}, {f.fcb_index[k][0], 8}, {f.fcb_index[k][1], 8},
                           {f.fcb_index[k][2], 8}, {f.fcb_index[k][3], 11}, {f.fcb_gain_index[k], 5}});
    }
    v.push_back({f.reserved, 1});
    return pack_fields(EVRC_RATE_FULL, 22, v);
}

inline std::vector<uint8_t> pack_half_rate(const HalfRateFields &f) {
    std::vector<std::pair<int, int>> v = {
        {f.lsp_index[0], 7}, {f.lsp_index[1], 7}, {f.lsp_index[2], 8}, {f.delay_index, 7}};
    for (int k = 0; k < 3; ++k) v.insert(v.end(), {{f.acb_gain_index[k], 3}, {f.fcb_index[k], 10}, {f.fcb_gain_index[k], 4}});
    return pack_fields(EVRC_RATE_HALF, 10, v);
}

inline std::vector<uint8_t> pack_eighth_rate(const EighthRateFields &f) {
    return pack_fields(EVRC_RATE_EIGHTH, 2, {{f.lsp_index[0], 4}, {f.lsp_index[1], 4}, {f.energy_index, 8}});
}

// Word layout from byte-stream bytes: word 0 is the rate byte, data word k
// takes payload bytes 2k (high half) and 2k+1 (low half); missing bytes are 0
// and bytes past the 23rd are ignored.
inline EvrcPacket bytes_to_packet(const std::vector<uint8_t> &bytes) {
    EvrcPacket p{};
    if (bytes.empty()) return p;
    p.rate = static_cast<Word16>(bytes[0]);
    for (std::size_t d = 0; d + 1 < bytes.size() && d < 22; ++d) {
        const uint16_t cur = static_cast<uint16_t>(p.data[d / 2]);
        p.data[d / 2] = static_cast<Word16>(cur | static_cast<uint16_t>(bytes[d + 1] << (d % 2 ? 0 : 8)));
    }
    return p;
}

// Byte stream from the word layout, as long as the packet's rate says (empty
// for rates other than blank, 1/8, 1/2 and 1).
inline std::vector<uint8_t> packet_to_bytes(const EvrcPacket &p) {
    const int rate = p.rate & 0xFF;
    const std::size_t lengths[5] = {1, 3, 0, 11, 23};
    const std::size_t n = rate <= 4 ? lengths[rate] : 0;
    std::vector<uint8_t> out;
    for (std::size_t d = 0; d < n; ++d) {
        const uint16_t w = d == 0 ? static_cast<uint16_t>(rate) : static_cast<uint16_t>(p.data[(d - 1) / 2]);
        out.push_back(static_cast<uint8_t>(d % 2 ? (w >> 8) : (w & 0xFF)));
    }
    return out;
}

// A valid packet of the given rate (EVRC_RATE_EIGHTH, _HALF or _FULL).
inline std::vector<uint8_t> random_packet_bytes(std::mt19937 &rng, int rate) {
    switch (rate) {
    case EVRC_RATE_FULL: return pack_full_rate(random_full_rate_fields(rng));
    case EVRC_RATE_HALF: return pack_half_rate(random_half_rate_fields(rng));
    default: return pack_eighth_rate(random_eighth_rate_fields(rng));
    }
}

inline EvrcPacket random_packet(std::mt19937 &rng, int rate) { return bytes_to_packet(random_packet_bytes(rng, rate)); }
inline EvrcPacket random_full_rate_packet(std::mt19937 &rng) { return random_packet(rng, EVRC_RATE_FULL); }
inline EvrcPacket random_half_rate_packet(std::mt19937 &rng) { return random_packet(rng, EVRC_RATE_HALF); }
inline EvrcPacket random_eighth_rate_packet(std::mt19937 &rng) { return random_packet(rng, EVRC_RATE_EIGHTH); }

// A valid packet of a random decodable rate (1, 1/2 or 1/8).
inline EvrcPacket random_any_rate_packet(std::mt19937 &rng) {
    static const int rates[3] = {EVRC_RATE_EIGHTH, EVRC_RATE_HALF, EVRC_RATE_FULL};
    return random_packet(rng, rates[uniform_int(rng, 0, 2)]);
}

}  // namespace evrc_test

#endif  // EVRC_TESTS_SUPPORT_RANDOM_PACKETS_H
