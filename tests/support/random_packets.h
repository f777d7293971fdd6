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

// Writes fields most significant bit first into a growing byte string.
class BitWriter {
public:
    void put(uint32_t value, int width) {
        for (int i = width - 1; i >= 0; --i) {
            if (bit_count_ % 8 == 0) bytes_.push_back(0);
            if ((value >> i) & 1u) bytes_.back() |= static_cast<uint8_t>(0x80u >> (bit_count_ % 8));
            ++bit_count_;
        }
    }
    // Pads with zero bits up to a total of nbits.
    void pad_to(std::size_t nbits) {
        while (bit_count_ < nbits) put(0, 1);
    }
    std::size_t bit_count() const { return bit_count_; }
    const std::vector<uint8_t> &bytes() const { return bytes_; }

private:
    std::vector<uint8_t> bytes_;
    std::size_t bit_count_ = 0;
};

inline int uniform_int(std::mt19937 &rng, int lo, int hi) {
    return std::uniform_int_distribution<int>(lo, hi)(rng);
}

// Ten LSPs from codebook rows, laid end to end.
struct LspRowRef {
    const Word16 *row;
    int len;
};

inline bool lsps_ascending(const LspRowRef *rows, int nrows) {
    int prev = -1;
    bool first = true;
    for (int r = 0; r < nrows; ++r) {
        for (int j = 0; j < rows[r].len; ++j) {
            const int v = rows[r].row[j];
            if (!first && v <= prev) return false;
            prev = v;
            first = false;
        }
    }
    return true;
}

// Chooses the rows one codebook at a time, each drawn until it continues the
// ascending run; restarts from the first codebook when a codebook offers no
// fitting row within a bounded number of draws.
template <int N>
inline void draw_ascending_rows(std::mt19937 &rng, const Word16 *const (&books)[N], const int (&rows)[N],
                                const int (&lens)[N], int (&index)[N]) {
    for (;;) {
        int last = -1;
        bool ok = true;
        for (int b = 0; b < N && ok; ++b) {
            ok = false;
            for (int attempt = 0; attempt < 64 * rows[b]; ++attempt) {
                const int i = uniform_int(rng, 0, rows[b] - 1);
                const Word16 *row = books[b] + static_cast<std::ptrdiff_t>(i) * lens[b];
                LspRowRef ref{row, lens[b]};
                if (!lsps_ascending(&ref, 1) || row[0] <= last) continue;
                index[b] = i;
                last = row[lens[b] - 1];
                ok = true;
                break;
            }
        }
        if (ok) return;
    }
}

inline FullRateFields random_full_rate_fields(std::mt19937 &rng) {
    FullRateFields f;
    f.mode_bit = uniform_int(rng, 0, 1);
    const Word16 *const books[4] = {&evrc_acsLspVQFull1[0][0], &evrc_acsLspVQFull2[0][0],
                                    &evrc_acsLspVQFull3[0][0], &evrc_acsLspVQFull4[0][0]};
    const int rows[4] = {64, 64, 512, 128};
    const int lens[4] = {2, 2, 3, 3};
    draw_ascending_rows(rng, books, rows, lens, f.lsp_index);
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
    const Word16 *const books[3] = {&evrc_acsLspVQHalf1[0][0], &evrc_acsLspVQHalf2[0][0],
                                    &evrc_acsLspVQHalf3[0][0]};
    const int rows[3] = {128, 128, 256};
    const int lens[3] = {3, 3, 4};
    draw_ascending_rows(rng, books, rows, lens, f.lsp_index);
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
    const Word16 *const books[2] = {&evrc_acsLspVQEighth1[0][0], &evrc_acsLspVQEighth2[0][0]};
    const int rows[2] = {16, 16};
    const int lens[2] = {5, 5};
    for (;;) {
        draw_ascending_rows(rng, books, rows, lens, f.lsp_index);
        f.energy_index = uniform_int(rng, 0, 255);
        // An all-ones data word marks an erased eighth-rate frame.
        if (!(f.lsp_index[0] == 15 && f.lsp_index[1] == 15 && f.energy_index == 255)) return f;
    }
}

// The rate byte followed by the payload. (Built element by element: GCC 12
// warns falsely about a vector insert behind a one-element vector at -O2.)
inline std::vector<uint8_t> with_rate_byte(int rate, const std::vector<uint8_t> &payload) {
    std::vector<uint8_t> out(payload.size() + 1);
    out[0] = static_cast<uint8_t>(rate);
    for (std::size_t i = 0; i < payload.size(); ++i) out[i + 1] = payload[i];
    return out;
}

// Byte-stream packets: rate byte, then the payload.
inline std::vector<uint8_t> pack_full_rate(const FullRateFields &f) {
    BitWriter w;
    w.put(static_cast<uint32_t>(f.mode_bit), 1);
    w.put(static_cast<uint32_t>(f.lsp_index[0]), 6);
    w.put(static_cast<uint32_t>(f.lsp_index[1]), 6);
    w.put(static_cast<uint32_t>(f.lsp_index[2]), 9);
    w.put(static_cast<uint32_t>(f.lsp_index[3]), 7);
    w.put(static_cast<uint32_t>(f.delay_index), 7);
    w.put(static_cast<uint32_t>(f.delta_delay), 5);
    for (int k = 0; k < 3; ++k) {
        w.put(static_cast<uint32_t>(f.acb_gain_index[k]), 3);
        w.put(static_cast<uint32_t>(f.fcb_index[k][0]), 8);
        w.put(static_cast<uint32_t>(f.fcb_index[k][1]), 8);
        w.put(static_cast<uint32_t>(f.fcb_index[k][2]), 8);
        w.put(static_cast<uint32_t>(f.fcb_index[k][3]), 11);
        w.put(static_cast<uint32_t>(f.fcb_gain_index[k]), 5);
    }
    w.put(static_cast<uint32_t>(f.reserved), 1);
    w.pad_to(176);
    return with_rate_byte(EVRC_RATE_FULL, w.bytes());  // 23 bytes
}

inline std::vector<uint8_t> pack_half_rate(const HalfRateFields &f) {
    BitWriter w;
    w.put(static_cast<uint32_t>(f.lsp_index[0]), 7);
    w.put(static_cast<uint32_t>(f.lsp_index[1]), 7);
    w.put(static_cast<uint32_t>(f.lsp_index[2]), 8);
    w.put(static_cast<uint32_t>(f.delay_index), 7);
    for (int k = 0; k < 3; ++k) {
        w.put(static_cast<uint32_t>(f.acb_gain_index[k]), 3);
        w.put(static_cast<uint32_t>(f.fcb_index[k]), 10);
        w.put(static_cast<uint32_t>(f.fcb_gain_index[k]), 4);
    }
    return with_rate_byte(EVRC_RATE_HALF, w.bytes());  // 11 bytes
}

inline std::vector<uint8_t> pack_eighth_rate(const EighthRateFields &f) {
    BitWriter w;
    w.put(static_cast<uint32_t>(f.lsp_index[0]), 4);
    w.put(static_cast<uint32_t>(f.lsp_index[1]), 4);
    w.put(static_cast<uint32_t>(f.energy_index), 8);
    return with_rate_byte(EVRC_RATE_EIGHTH, w.bytes());  // 3 bytes
}

// Byte-stream length of a packet, rate byte included (0 for rates that
// carry no decodable payload other than blank).
inline std::size_t packet_length_for_rate(int rate) {
    switch (rate) {
    case EVRC_RATE_BLANK: return 1;
    case EVRC_RATE_EIGHTH: return 3;
    case EVRC_RATE_HALF: return 11;
    case EVRC_RATE_FULL: return 23;
    default: return 0;
    }
}

// Word layout from byte-stream bytes: word 0 is the rate byte, data word k
// takes payload bytes 2k (high half) and 2k+1 (low half); missing bytes are 0.
inline EvrcPacket bytes_to_packet(const uint8_t *bytes, std::size_t n) {
    EvrcPacket p{};
    if (n == 0) return p;
    p.rate = static_cast<Word16>(bytes[0]);
    for (std::size_t i = 1; i < n && i < 1 + 2 * 11; ++i) {
        const std::size_t d = i - 1;
        const unsigned shift = (d % 2 == 0) ? 8u : 0u;
        const uint16_t cur = static_cast<uint16_t>(p.data[d / 2]);
        p.data[d / 2] = static_cast<Word16>(cur | static_cast<uint16_t>(bytes[i] << shift));
    }
    return p;
}

inline EvrcPacket bytes_to_packet(const std::vector<uint8_t> &bytes) {
    return bytes_to_packet(bytes.data(), bytes.size());
}

// Byte stream from the word layout, as long as the packet's rate says.
inline std::vector<uint8_t> packet_to_bytes(const EvrcPacket &p) {
    const std::size_t n = packet_length_for_rate(p.rate & 0xFF);
    std::vector<uint8_t> out;
    if (n == 0) return out;
    out.push_back(static_cast<uint8_t>(p.rate & 0xFF));
    for (std::size_t d = 0; d + 1 < n; ++d) {
        const uint16_t w = static_cast<uint16_t>(p.data[d / 2]);
        out.push_back(static_cast<uint8_t>(d % 2 == 0 ? (w >> 8) : (w & 0xFF)));
    }
    return out;
}

inline std::vector<uint8_t> random_full_rate_bytes(std::mt19937 &rng) {
    return pack_full_rate(random_full_rate_fields(rng));
}
inline std::vector<uint8_t> random_half_rate_bytes(std::mt19937 &rng) {
    return pack_half_rate(random_half_rate_fields(rng));
}
inline std::vector<uint8_t> random_eighth_rate_bytes(std::mt19937 &rng) {
    return pack_eighth_rate(random_eighth_rate_fields(rng));
}

inline EvrcPacket random_full_rate_packet(std::mt19937 &rng) { return bytes_to_packet(random_full_rate_bytes(rng)); }
inline EvrcPacket random_half_rate_packet(std::mt19937 &rng) { return bytes_to_packet(random_half_rate_bytes(rng)); }
inline EvrcPacket random_eighth_rate_packet(std::mt19937 &rng) {
    return bytes_to_packet(random_eighth_rate_bytes(rng));
}

// A valid packet of the given rate (EVRC_RATE_EIGHTH, _HALF or _FULL).
inline std::vector<uint8_t> random_packet_bytes(std::mt19937 &rng, int rate) {
    switch (rate) {
    case EVRC_RATE_FULL: return random_full_rate_bytes(rng);
    case EVRC_RATE_HALF: return random_half_rate_bytes(rng);
    default: return random_eighth_rate_bytes(rng);
    }
}

inline EvrcPacket random_packet(std::mt19937 &rng, int rate) { return bytes_to_packet(random_packet_bytes(rng, rate)); }

// A valid packet of a random decodable rate (1, 1/2 or 1/8).
inline EvrcPacket random_any_rate_packet(std::mt19937 &rng) {
    static const int rates[3] = {EVRC_RATE_EIGHTH, EVRC_RATE_HALF, EVRC_RATE_FULL};
    return random_packet(rng, rates[uniform_int(rng, 0, 2)]);
}

}  // namespace evrc_test

#endif  // EVRC_TESTS_SUPPORT_RANDOM_PACKETS_H
