// Reading bit fields out of the data words of an EvrcPacket.
#ifndef EVRC_CODEC_DEC_PACKET_BITS_H
#define EVRC_CODEC_DEC_PACKET_BITS_H

#include "codec/basic/fixed_point.h"
#include "evrc/evrc_types.h"

namespace evrc_dec {

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
    const Word16 low = static_cast<Word16>(fx::shr(data[word + 1], static_cast<Word16>(16 - low_width)) &
                                           ((1 << low_width) - 1));
    return fx::add(fx::shl(high, static_cast<Word16>(low_width)), low);
}

// Sequential reader over the fields of one packet.
class PacketBitReader {
public:
    explicit PacketBitReader(const Word16 *data) : data_(data) {}
    Word16 next(int width) {
        const Word16 v = read_packet_bits(data_, pos_, width);
        pos_ += width;
        return v;
    }

private:
    const Word16 *data_;
    int pos_ = 0;
};

}  // namespace evrc_dec

#endif  // EVRC_CODEC_DEC_PACKET_BITS_H
