// Bit packing: packet fields are appended most significant bit first into
// 16-bit words. The cursor is three caller-held variables: an accumulator in
// which the k bits already packed into the current word stand in bits k..1
// (bit 0 clear, ready to receive the next bit), the count of free positions
// (16 - k) and a pointer to the next output word.
#include "codec/basic/fixed_point.h"
#include "evrc/evrc_enc.h"

namespace {

constexpr Word16 kWordBits = 16;
constexpr Word32 kBit16 = 0x10000;

// Plain 16-bit left shift of the accumulator (bits pushed out are lost); a
// negative count, possible only for a corrupt cursor, shifts right.
inline Word16 acc_shift(Word16 acc, int n) {
    if (n < 0) return static_cast<Word16>(acc >> (n < -15 ? 15 : -n));
    if (n > 15) return 0;
    return static_cast<Word16>(static_cast<UWord16>(static_cast<UWord32>(static_cast<UWord16>(acc)) << n));
}

}  // namespace

extern "C" {

EVRC_API void evrc_init_pack(Word32 n, Word16 *acc, Word16 *free_bits, UWord16 *out) {
    fx::CallScope scope;
    for (Word32 i = 0; i < n; ++i) out[i] = 0;
    *acc = 0;
    *free_bits = kWordBits;
}

EVRC_API void evrc_bit_pack(Word32 value, Word16 *acc, Word16 *free_bits, Word32 width, UWord16 **out) {
    fx::CallScope scope;
    if (width >= 1 && width <= kWordBits - 1 && value >= 0 && value < (Word32{1} << width) && *free_bits >= 1 &&
        *free_bits <= kWordBits) {
        // A field that fits its width, on a sound cursor: the shifts below
        // cannot saturate (the value stands below 2^31 after the last), so
        // the field goes in whole runs of bits, as many as the current word
        // takes at a time, with the shifts charged as the loop counts them.
        fx::charge(2 + 2 * static_cast<UWord32>(width));
        UWord32 a = static_cast<UWord16>(*acc);
        int free_count = *free_bits;
        for (int left = width; left > 0;) {
            const int m = left < free_count ? left : free_count;
            const UWord32 run = (static_cast<UWord32>(value) >> (left - m)) & ((1u << m) - 1u);
            left -= m;
            if (m == free_count) {
                // The last bit of the run completes the word.
                **out = static_cast<UWord16>((a << (m - 1)) | run);
                ++*out;
                a = 0;
                free_count = kWordBits;
            } else {
                a = ((a << m) | (run << 1)) & 0xFFFFu;
                free_count -= m;
            }
        }
        *acc = static_cast<Word16>(static_cast<UWord16>(a));
        *free_bits = static_cast<Word16>(free_count);
        return;
    }
    // The shift count is narrowed to the operator's 16-bit count argument.
    const Word16 align = static_cast<Word16>(static_cast<UWord16>(static_cast<UWord32>(16 - width)));
    Word32 x = fx::L_shl(value, align);  // field MSB at bit 15
    Word16 a = *acc;
    Word16 free_count = *free_bits;
    for (Word32 i = 0; i < width; ++i) {
        free_count = static_cast<Word16>(free_count - 1);
        x = fx::L_shl(x, 1);
        const Word16 bit = static_cast<Word16>((x & kBit16) >> 16);
        a = static_cast<Word16>(a | bit);
        if (free_count == 0) {
            **out = static_cast<UWord16>(a);
            ++*out;
            a = 0;
            free_count = kWordBits;
        }
        a = acc_shift(a, 1);
    }
    *acc = a;
    *free_bits = free_count;
}

EVRC_API void evrc_flush_pack(Word16 acc, Word16 free_bits, UWord16 *out) {
    fx::CallScope scope;
    if (free_bits == kWordBits) return;
    *out = static_cast<UWord16>(acc_shift(acc, free_bits - 1));
}

}  // extern "C"
