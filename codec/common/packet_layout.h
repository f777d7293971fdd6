// The packet format: the fields of each rate with their position and width,
// which drive the unpacking in the decoder and the packing in the encoder and
// the tools; the payload size of each rate code; and the conversion between
// the byte stream (rate byte, then the payload bytes) and the word layout of
// EvrcPacket (data word k holds payload bytes 2k and 2k + 1, the earlier byte
// in the high half).
#ifndef EVRC_CODEC_COMMON_PACKET_LAYOUT_H
#define EVRC_CODEC_COMMON_PACKET_LAYOUT_H

#include <cstddef>
#include <cstdint>
#include <iterator>

#include "evrc/evrc_common.h"

namespace evrc {

enum class FieldId : std::uint8_t {
    kModeBit,     // rate 1: spectral-transition mode
    kLsp,         // LSP codebook index of split `part`
    kDelay,       // pitch delay minus 20
    kDeltaDelay,  // rate 1: delay of the previous frame, relative, plus 16
    kAcbGain,     // per subframe
    kFcb,         // per subframe, field `part` of the fixed codebook
    kFcbGain,     // per subframe
    kEnergy,      // rate 1/8: frame energy index
    kReserved,    // rate 1: last bit, carries TTY side information
};

struct PacketField {
    FieldId id;
    std::uint8_t subframe;
    std::uint8_t part;
    std::uint8_t first_bit;  // packet bit n is bit 15 - n % 16 of data word n / 16
    std::uint8_t width;
};

struct PacketLayout {
    const PacketField *fields;
    int count;
    int bits;  // bits used, fields back to back from bit 0
};

// The tables, packed back to back from bit 0:
//   rate 1   (171 bits): mode 1, LSP 6 6 9 7, delay 7, delta delay 5, then per
//            subframe ACB gain 3, FCB 8 8 8 11, FCB gain 5; reserved 1
//   rate 1/2  (80 bits): LSP 7 7 8, delay 7, then per subframe ACB gain 3,
//            FCB 10, FCB gain 4
//   rate 1/8  (16 bits): LSP 4 4, energy 8
namespace detail {

using F = FieldId;

inline constexpr PacketField kFullRate[] = {
    {F::kModeBit, 0, 0, 0, 1},     {F::kLsp, 0, 0, 1, 6},        {F::kLsp, 0, 1, 7, 6},
    {F::kLsp, 0, 2, 13, 9},        {F::kLsp, 0, 3, 22, 7},       {F::kDelay, 0, 0, 29, 7},
    {F::kDeltaDelay, 0, 0, 36, 5}, {F::kAcbGain, 0, 0, 41, 3},   {F::kFcb, 0, 0, 44, 8},
    {F::kFcb, 0, 1, 52, 8},        {F::kFcb, 0, 2, 60, 8},       {F::kFcb, 0, 3, 68, 11},
    {F::kFcbGain, 0, 0, 79, 5},    {F::kAcbGain, 1, 0, 84, 3},   {F::kFcb, 1, 0, 87, 8},
    {F::kFcb, 1, 1, 95, 8},        {F::kFcb, 1, 2, 103, 8},      {F::kFcb, 1, 3, 111, 11},
    {F::kFcbGain, 1, 0, 122, 5},   {F::kAcbGain, 2, 0, 127, 3},  {F::kFcb, 2, 0, 130, 8},
    {F::kFcb, 2, 1, 138, 8},       {F::kFcb, 2, 2, 146, 8},      {F::kFcb, 2, 3, 154, 11},
    {F::kFcbGain, 2, 0, 165, 5},   {F::kReserved, 0, 0, 170, 1},
};
inline constexpr PacketField kHalfRate[] = {
    {F::kLsp, 0, 0, 0, 7},      {F::kLsp, 0, 1, 7, 7},      {F::kLsp, 0, 2, 14, 8},     {F::kDelay, 0, 0, 22, 7},
    {F::kAcbGain, 0, 0, 29, 3}, {F::kFcb, 0, 0, 32, 10},    {F::kFcbGain, 0, 0, 42, 4}, {F::kAcbGain, 1, 0, 46, 3},
    {F::kFcb, 1, 0, 49, 10},    {F::kFcbGain, 1, 0, 59, 4}, {F::kAcbGain, 2, 0, 63, 3}, {F::kFcb, 2, 0, 66, 10},
    {F::kFcbGain, 2, 0, 76, 4},
};
inline constexpr PacketField kEighthRate[] = {
    {F::kLsp, 0, 0, 0, 4},
    {F::kLsp, 0, 1, 4, 4},
    {F::kEnergy, 0, 0, 8, 8},
};

// Every field starts where the one before it ends.
template <std::size_t N>
constexpr int packed_bits(const PacketField (&fields)[N]) {
    int bit = 0;
    for (const PacketField &f : fields) {
        if (f.first_bit != bit) return -1;
        bit += f.width;
    }
    return bit;
}
static_assert(packed_bits(kFullRate) == 171, "rate 1 fields");
static_assert(packed_bits(kHalfRate) == 80, "rate 1/2 fields");
static_assert(packed_bits(kEighthRate) == 16, "rate 1/8 fields");

inline constexpr int kPayloadByRate[] = {0, 2, 5, 10, 22};

}  // namespace detail

// The fields of rate 1, 1/2 or 1/8 in packet order; {nullptr, 0, 0} for any
// other rate.
inline PacketLayout packet_layout(Word16 rate) {
    using namespace detail;
    switch (rate) {
    case EVRC_RATE_FULL: return {kFullRate, static_cast<int>(std::size(kFullRate)), packed_bits(kFullRate)};
    case EVRC_RATE_HALF: return {kHalfRate, static_cast<int>(std::size(kHalfRate)), packed_bits(kHalfRate)};
    case EVRC_RATE_EIGHTH: return {kEighthRate, static_cast<int>(std::size(kEighthRate)), packed_bits(kEighthRate)};
    default: return {nullptr, 0, 0};
    }
}

// The field of the given rate, or nullptr when the rate has none.
inline const PacketField *find_field(Word16 rate, FieldId id, int subframe = 0, int part = 0) {
    const PacketLayout layout = packet_layout(rate);
    for (int i = 0; i < layout.count; ++i) {
        const PacketField &f = layout.fields[i];
        if (f.id == id && f.subframe == subframe && f.part == part) return &f;
    }
    return nullptr;
}

// TTY side information rides in the delay field: its two high bits are the
// header, its five low bits the data; at rate 1 the reserved bit is one more.
constexpr int kTtyHeaderBits = 2;
constexpr int kTtyDataBits = 5;

// Payload bytes after the rate byte, by rate code: blank 0, 1/8 2, 1/4 5
// (framed, but not an EVRC frame), 1/2 10, 1 22; -1 for other codes.
constexpr int kMaxPayloadBytes = 22;
inline int payload_bytes(int rate) { return rate >= 0 && rate <= EVRC_RATE_FULL ? detail::kPayloadByRate[rate] : -1; }

// Data words from n payload bytes (at most 22 are read; missing bytes are 0).
inline void payload_to_words(const std::uint8_t *payload, std::size_t n, Word16 *data) {
    if (n > kMaxPayloadBytes) n = kMaxPayloadBytes;
    for (std::size_t i = 0; i < kMaxPayloadBytes / 2; ++i) data[i] = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const unsigned shift = (i % 2 == 0) ? 8u : 0u;
        const auto word = static_cast<std::uint16_t>(data[i / 2]);
        data[i / 2] = static_cast<Word16>(word | static_cast<std::uint16_t>(payload[i] << shift));
    }
}

// n payload bytes (at most 22) from the data words.
inline void words_to_payload(const Word16 *data, std::size_t n, std::uint8_t *payload) {
    if (n > kMaxPayloadBytes) n = kMaxPayloadBytes;
    for (std::size_t i = 0; i < n; ++i) {
        const auto word = static_cast<std::uint16_t>(data[i / 2]);
        payload[i] = static_cast<std::uint8_t>(i % 2 == 0 ? word >> 8 : word & 0xFF);
    }
}

// Word layout from a byte stream of n bytes (rate byte first); an empty
// stream gives a blank packet.
inline EvrcPacket packet_from_bytes(const std::uint8_t *bytes, std::size_t n) {
    EvrcPacket p{};
    if (n == 0) return p;
    p.rate = bytes[0];
    payload_to_words(bytes + 1, n - 1, p.data);
    return p;
}

// The rate byte and payload_bytes(rate) payload bytes into out (room for
// 1 + kMaxPayloadBytes bytes); returns the count, 0 for codes with no size.
inline std::size_t packet_to_bytes(const EvrcPacket &packet, std::uint8_t *out) {
    const int rate = packet.rate & 0xFF;
    const int n = payload_bytes(rate);
    if (n < 0) return 0;
    out[0] = static_cast<std::uint8_t>(rate);
    words_to_payload(packet.data, static_cast<std::size_t>(n), out + 1);
    return 1 + static_cast<std::size_t>(n);
}

}  // namespace evrc

#endif  // EVRC_CODEC_COMMON_PACKET_LAYOUT_H
