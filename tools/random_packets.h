// Random valid EVRC packets for the demonstration stream, the tests and the
// benchmarks (there is no encoder to make real ones yet).
//
// Every field is drawn at random, within the limits a decoder accepts: LSP
// codebook rows that give ten strictly ascending LSPs, a delay index of at
// most 100, rate-1 fixed-codebook fields whose low seven bits are at most
// 120, and a rate 1/8 data word that is not all ones. Packets come in two
// layouts:
//   - byte stream: the rate byte followed by the payload bytes (3, 11 and 23
//     bytes in all for rate 1/8, 1/2 and 1; unused bits are 0);
//   - word layout (EvrcPacket).
// Fields go where the codec's packet layout table puts them.
#ifndef EVRC_TOOLS_RANDOM_PACKETS_H
#define EVRC_TOOLS_RANDOM_PACKETS_H

#include <cstddef>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include "codec/common/packet_bits.h"
#include "codec/common/packet_layout.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"

namespace evrc_random {

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
    int fcb_index[3] = {};       // 10 bits
    int fcb_gain_index[3] = {};  // 4 bits
};

struct EighthRateFields {
    int lsp_index[2] = {};  // 4 bits each
    int energy_index = 0;   // 8 bits
};

inline int uniform_int(std::mt19937 &rng, int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }

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
    draw_ascending_rows(
        rng,
        {&evrc_acsLspVQFull1[0][0], &evrc_acsLspVQFull2[0][0], &evrc_acsLspVQFull3[0][0], &evrc_acsLspVQFull4[0][0]},
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

// Word layout from byte-stream bytes (missing bytes are 0, bytes past the
// 23rd ignored) and back, as long as the packet's rate says (empty for codes
// other than blank, 1/8, 1/2 and 1).
inline EvrcPacket bytes_to_packet(const std::vector<uint8_t> &bytes) {
    return evrc::packet_from_bytes(bytes.data(), bytes.size());
}

inline std::vector<uint8_t> packet_to_bytes(const EvrcPacket &p) {
    if ((p.rate & 0xFF) == EVRC_RATE_QUARTER) return {};
    uint8_t out[1 + evrc::kMaxPayloadBytes];
    return std::vector<uint8_t>(out, out + evrc::packet_to_bytes(p, out));
}

// Stores one field of the rate's layout.
inline void put_field(EvrcPacket &p, evrc::FieldId id, int value, int subframe = 0, int part = 0) {
    const evrc::PacketField *f = evrc::find_field(p.rate, id, subframe, part);
    evrc::write_packet_bits(p.data, f->first_bit, f->width, static_cast<UWord32>(value));
}

inline std::vector<uint8_t> pack_full_rate(const FullRateFields &f) {
    using evrc::FieldId;
    EvrcPacket p{EVRC_RATE_FULL, {}};
    put_field(p, FieldId::kModeBit, f.mode_bit);
    for (int i = 0; i < 4; ++i) put_field(p, FieldId::kLsp, f.lsp_index[i], 0, i);
    put_field(p, FieldId::kDelay, f.delay_index);
    put_field(p, FieldId::kDeltaDelay, f.delta_delay);
    for (int k = 0; k < 3; ++k) {
        put_field(p, FieldId::kAcbGain, f.acb_gain_index[k], k);
        for (int j = 0; j < 4; ++j) put_field(p, FieldId::kFcb, f.fcb_index[k][j], k, j);
        put_field(p, FieldId::kFcbGain, f.fcb_gain_index[k], k);
    }
    put_field(p, FieldId::kReserved, f.reserved);
    return packet_to_bytes(p);
}

inline std::vector<uint8_t> pack_half_rate(const HalfRateFields &f) {
    using evrc::FieldId;
    EvrcPacket p{EVRC_RATE_HALF, {}};
    for (int i = 0; i < 3; ++i) put_field(p, FieldId::kLsp, f.lsp_index[i], 0, i);
    put_field(p, FieldId::kDelay, f.delay_index);
    for (int k = 0; k < 3; ++k) {
        put_field(p, FieldId::kAcbGain, f.acb_gain_index[k], k);
        put_field(p, FieldId::kFcb, f.fcb_index[k], k);
        put_field(p, FieldId::kFcbGain, f.fcb_gain_index[k], k);
    }
    return packet_to_bytes(p);
}

inline std::vector<uint8_t> pack_eighth_rate(const EighthRateFields &f) {
    using evrc::FieldId;
    EvrcPacket p{EVRC_RATE_EIGHTH, {}};
    for (int i = 0; i < 2; ++i) put_field(p, FieldId::kLsp, f.lsp_index[i], 0, i);
    put_field(p, FieldId::kEnergy, f.energy_index);
    return packet_to_bytes(p);
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

}  // namespace evrc_random

#endif  // EVRC_TOOLS_RANDOM_PACKETS_H
