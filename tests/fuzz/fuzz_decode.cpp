// libFuzzer target: arbitrary packets into the decoder.
//
// Input: byte 0 is the postfilter_off argument, byte 1 picks how the rest is
// read, then 24-byte packets:
//   even byte 1: byte-stream slots (rate byte, packet bytes, one spare
//                byte), turned into the word layout;
//   odd byte 1:  twelve little-endian words taken as they are, so the rate
//                word can be any 16-bit value.
// Every call must return 0 and write all 160 samples: each packet is decoded
// on two identical states into buffers pre-filled differently, and the two
// outputs must agree.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "evrc/evrc_dec.h"
#include "tools/random_packets.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 2) return 0;
    const int postfilter_off = data[0];
    const bool words = (data[1] & 1) != 0;
    static EvrcDecoderState a, b;
    for (EvrcDecoderState *st : {&a, &b}) {
        std::memset(st, 0, sizeof *st);
        evrc_init_dec(st);
    }
    for (const std::uint8_t *at = data + 2; at + 24 <= data + size; at += 24) {
        EvrcPacket pa = evrc_random::bytes_to_packet(std::vector<std::uint8_t>(at, at + 24));
        if (words) {
            for (int w = 0; w < EVRC_PACKET_WORDS; ++w)
                (&pa.rate)[w] = static_cast<Word16>(at[2 * w] | (at[2 * w + 1] << 8));
        }
        EvrcPacket pb = pa;
        Word16 out_a[EVRC_FRAME_SIZE], out_b[EVRC_FRAME_SIZE];
        std::memset(out_a, 0x5A, sizeof out_a);
        std::memset(out_b, 0xA5, sizeof out_b);
        if (evrc_decode(&a, &pa, out_a, postfilter_off) != 0 || evrc_decode(&b, &pb, out_b, postfilter_off) != 0) {
            __builtin_trap();
        }
        if (std::memcmp(out_a, out_b, sizeof out_a) != 0) __builtin_trap();  // a sample left unwritten
    }
    return 0;
}
