// Shared helpers of the excitation and post-processing tests: iteration
// count, random numbers, exact clamping and an excitation buffer allocated
// at its exact size so that the address sanitizer sees any stray access.
#ifndef EVRC_TESTS_DEC_EXCITATION_UTIL_H
#define EVRC_TESTS_DEC_EXCITATION_UTIL_H

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <random>

#include "evrc/evrc_dec.h"

namespace exc_test {

inline int iterations(int fallback = 300) {
    const char *env = std::getenv("EVRC_TEST_ITERATIONS");
    const int n = env ? std::atoi(env) : 0;
    return n > 0 && n < fallback ? n : fallback;
}

inline std::mt19937 &rng() {
    static std::mt19937 gen(12345);
    return gen;
}

inline int uniform(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng()); }

inline int64_t clamp32(int64_t x) {
    return x > INT32_MAX ? INT32_MAX : (x < INT32_MIN ? INT32_MIN : x);
}

inline int64_t floor_div(int64_t a, int64_t b) { return a >= 0 ? a / b : -((-a + b - 1) / b); }

// High 16 bits of a value already within 32 bits.
inline int64_t high_half(int64_t x) { return floor_div(x, 65536); }

// 128 history samples, then 64 for the subframe and the look-ahead.
constexpr int kHist = 128;
constexpr int kBufLen = 192;

struct ExcBuffer {
    std::unique_ptr<Word16[]> data{new Word16[kBufLen]};
    Word16 *subframe() { return data.get() + kHist; }
    Word16 &operator[](int i) { return data[i]; }
    void randomize(int amplitude) {
        for (int i = 0; i < kBufLen; ++i) data[i] = static_cast<Word16>(uniform(-amplitude, amplitude));
    }
};

}  // namespace exc_test

#endif
