// Shared helpers of the frame-level decoder tests.
#ifndef EVRC_TESTS_DEC_FRAME_FRAME_TEST_UTIL_H
#define EVRC_TESTS_DEC_FRAME_FRAME_TEST_UTIL_H

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "evrc/evrc_dec.h"

namespace dec_frame_test {

// Loop count of the randomised tests; EVRC_TEST_ITERATIONS overrides it (slow
// emulated runs turn it down).
inline int iterations(int fallback) {
    const char *env = std::getenv("EVRC_TEST_ITERATIONS");
    if (env == nullptr) return fallback;
    const int n = std::atoi(env);
    return n > 0 && n < fallback ? n : fallback;
}

// A decoder record as the component creates it: zero-filled, then set up.
inline std::unique_ptr<EvrcDecoderState> new_decoder() {
    auto st = std::make_unique<EvrcDecoderState>();
    std::memset(st.get(), 0, sizeof(EvrcDecoderState));
    evrc_init_dec(st.get());
    return st;
}

// Reads `width` bits from packet bit `first` on, one bit at a time.
inline int reference_field(const Word16 *data, int first, int width) {
    int v = 0;
    for (int n = first; n < first + width; ++n) {
        const int bit = (static_cast<uint16_t>(data[n / 16]) >> (15 - n % 16)) & 1;
        v = (v << 1) | bit;
    }
    return v;
}

}  // namespace dec_frame_test

#endif  // EVRC_TESTS_DEC_FRAME_FRAME_TEST_UTIL_H
