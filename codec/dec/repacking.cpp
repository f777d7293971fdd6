// In-place conversion of a 24-byte packet buffer between the byte-stream
// layout (rate byte, then the data bytes in order) and the word layout of
// EvrcPacket (16-bit words, earlier data byte in the high half). Only the
// odd-numbered bytes move: with little-endian words, word k is byte 2k (low
// half) and byte 2k + 1 (high half).
#include <cstdint>
#include "codec/basic/fixed_point.h"

#include "codec/common/packet_layout.h"
#include "evrc/evrc_dec.h"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "packet repacking moves bytes of little-endian 16-bit words");

namespace {

constexpr int kPacketWords = EVRC_PACKET_WORDS;

// Byte-stream length by rate code, rate byte included; quarter rate is not
// carried.
int stream_length(int rate) { return rate == EVRC_RATE_QUARTER ? 0 : 1 + evrc::payload_bytes(rate); }

}  // namespace

extern "C" {

EVRC_API void evrc_repacking_kel_to_dsp(void *buffer) {
    fx::CallScope scope;
    auto *b = static_cast<uint8_t *>(buffer);
    // Top down, so that no byte is overwritten before it is read.
    for (int k = kPacketWords - 1; k >= 1; --k) b[2 * k + 1] = b[2 * k - 1];
    b[1] = 0;
}

EVRC_API int evrc_repacking_dsp_to_kel(void *buffer) {
    fx::CallScope scope;
    auto *b = static_cast<uint8_t *>(buffer);
    const int rate = b[0] & 15;
    if (rate > EVRC_RATE_FULL) return 0;
    const int n = stream_length(rate);
    if (rate == EVRC_RATE_BLANK || rate == EVRC_RATE_QUARTER) return n;
    b[1] = b[3];
    if (rate == EVRC_RATE_EIGHTH) return n;
    // Bottom up; the odd byte behind the packet keeps its stale contents.
    for (int k = 1; k <= n / 2 - 1; ++k) b[2 * k + 1] = b[2 * k + 3];
    return n;
}

}  // extern "C"
