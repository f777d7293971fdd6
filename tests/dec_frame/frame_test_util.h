// Shared helpers of the frame-level decoder tests.
#ifndef EVRC_TESTS_DEC_FRAME_FRAME_TEST_UTIL_H
#define EVRC_TESTS_DEC_FRAME_FRAME_TEST_UTIL_H

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "evrc/evrc_dec.h"

namespace dec_frame_test {

// Loop count of the randomised tests; EVRC_TEST_ITERATIONS lowers it.
inline int iterations(int fallback) {
    const char *env = std::getenv("EVRC_TEST_ITERATIONS");
    const int n = env ? std::atoi(env) : 0;
    return n > 0 && n < fallback ? n : fallback;
}

// A decoder record as the component creates it: zero-filled, then set up.
inline std::unique_ptr<EvrcDecoderState> new_decoder() {
    auto st = std::make_unique<EvrcDecoderState>();
    std::memset(st.get(), 0, sizeof(EvrcDecoderState));
    evrc_init_dec(st.get());
    return st;
}

}  // namespace dec_frame_test

#endif  // EVRC_TESTS_DEC_FRAME_FRAME_TEST_UTIL_H
