// libFuzzer target: arbitrary PCM and encoder parameters into the encoder;
// every packet must pass the decoder's bad-frame checks.
//
// Input: 6 header bytes set the parameters (max rate, min rate, flag word A
// from two bytes, then one byte whose bits 0, 1, 2 are flag B, flag C and
// skip-noise-update), then frames of 1 + 320 bytes: a control byte (odd: set
// the parameters again from its bits 1-7 as max, min, B, C, skip, keeping A)
// and 160 little-endian samples.
#include <cstddef>
#include <cstdint>

#include "tests/support/checked_encoder.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    constexpr std::size_t kHeader = 6;
    constexpr std::size_t kFrameBytes = 1 + 2 * EVRC_ENC_FRAME;
    constexpr int kMaxFrames = 24;
    if (size < kHeader) return 0;
    evrc_test::CheckedEncoder enc;
    const UWord32 flag_a = data[2] | (static_cast<UWord32>(data[3]) << 8);
    enc.set_params(data[0], data[1], flag_a, data[4] & 1, (data[4] >> 1) & 1, (data[4] >> 2) & 1);
    int frames = 0;
    for (std::size_t at = kHeader; at + kFrameBytes <= size && frames < kMaxFrames; at += kFrameBytes, ++frames) {
        const std::uint8_t ctl = data[at];
        if (ctl & 1) enc.set_params((ctl >> 1) & 3, (ctl >> 3) & 3, flag_a, (ctl >> 5) & 1, (ctl >> 6) & 1, ctl >> 7);
        int16_t pcm[EVRC_ENC_FRAME];
        for (int n = 0; n < EVRC_ENC_FRAME; ++n) {
            pcm[n] = static_cast<int16_t>(data[at + 1 + 2 * n] | (data[at + 2 + 2 * n] << 8));
        }
        if (!enc.encode(pcm)) __builtin_trap();
    }
    return 0;
}
