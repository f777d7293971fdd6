// Shared pieces of the encoder-stage tests: loop counts and random operands.
#ifndef EVRC_TESTS_ENC_SPEC_COMMON_H
#define EVRC_TESTS_ENC_SPEC_COMMON_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "evrc/basic_op.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_enc.h"
#include "evrc/evrc_tables.h"
#include "tests/support/iterations.h"

namespace enc_spec {

constexpr int64_t kMax32 = 2147483647, kMin32 = -kMax32 - 1;

using evrc_test::iterations;

struct Rng {
    std::mt19937_64 g;
    explicit Rng(uint64_t seed) : g(seed) {}
    int64_t in(int64_t lo, int64_t hi) { return lo + static_cast<int64_t>(g() % static_cast<uint64_t>(hi - lo + 1)); }
    // Anything, small, near the limits, or of random magnitude.
    int32_t w32() {
        const int k = static_cast<int>(in(0, 3));
        return static_cast<int32_t>(k == 0 ? static_cast<int32_t>(g()) : k == 1 ? in(-40, 40)
                                    : k == 2 ? (in(0, 1) ? kMax32 - in(0, 3) : kMin32 + in(0, 3))
                                             : static_cast<int32_t>(g()) >> in(0, 31));
    }
    int16_t w16() { return static_cast<int16_t>(w32() >> (in(0, 1) ? 16 : 0)); }
};

// A zero-filled, initialised encoder state.
inline std::unique_ptr<EvrcEncoderState> new_encoder() {
    auto st = std::make_unique<EvrcEncoderState>();
    std::memset(st.get(), 0, sizeof *st);
    evrc_init_enc(st.get());
    return st;
}

}  // namespace enc_spec

#endif  // EVRC_TESTS_ENC_SPEC_COMMON_H
