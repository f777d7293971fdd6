// Reading and writing bit fields of the data words of an EvrcPacket.
#ifndef EVRC_CODEC_COMMON_PACKET_BITS_H
#define EVRC_CODEC_COMMON_PACKET_BITS_H

#include "codec/basic/fixed_point.h"
#include "evrc/evrc_types.h"

namespace evrc {

// The field of `width` bits (1..16) starting at packet bit `first_bit`, most
// significant bit first; packet bit n is bit 15 - n % 16 of data word n / 16.
// A field that straddles two words is joined from its two parts.
inline Word16 read_packet_bits(const Word16 *data, int first_bit, int width) {
    const int word = first_bit / 16;
    const int offset = first_bit % 16;
    if (offset + width <= 16) {
        const Word16 mask = static_cast<Word16>((1 << width) - 1);
        return static_cast<Word16>(fx::shr(data[word], static_cast<Word16>(16 - offset - width)) & mask);
    }
    const int high_width = 16 - offset;
    const int low_width = width - high_width;
    const Word16 high = static_cast<Word16>(data[word] & ((1 << high_width) - 1));
    const Word16 low =
        static_cast<Word16>(fx::shr(data[word + 1], static_cast<Word16>(16 - low_width)) & ((1 << low_width) - 1));
    return fx::add(fx::shl(high, static_cast<Word16>(low_width)), low);
}

// Stores the `width` low bits of value at packet bit `first_bit` (plain
// integer work: packing is bookkeeping, not signal arithmetic).
inline void write_packet_bits(Word16 *data, int first_bit, int width, UWord32 value) {
    for (int i = 0; i < width; ++i) {
        const int bit = first_bit + i;
        const UWord16 mask = static_cast<UWord16>(0x8000u >> (bit % 16));
        UWord16 word = static_cast<UWord16>(data[bit / 16]);
        word =
            ((value >> (width - 1 - i)) & 1u) ? static_cast<UWord16>(word | mask) : static_cast<UWord16>(word & ~mask);
        data[bit / 16] = static_cast<Word16>(word);
    }
}

}  // namespace evrc

#endif  // EVRC_CODEC_COMMON_PACKET_BITS_H
