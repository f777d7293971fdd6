// Shared helpers of the concealment tests: fresh decoder states and small
// wide-integer models of the decoder's scalar steps.
#ifndef EVRC_TESTS_DEC_CONCEAL_SUPPORT_H
#define EVRC_TESTS_DEC_CONCEAL_SUPPORT_H

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>

#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"

namespace conceal_test {

struct StateDeleter {
    void operator()(EvrcDecoderState *st) const { std::free(st); }
};
using StatePtr = std::unique_ptr<EvrcDecoderState, StateDeleter>;

// A zero-filled, initialised record, as a caller creates one.
inline StatePtr fresh_state() {
    auto *st = static_cast<EvrcDecoderState *>(std::calloc(1, sizeof(EvrcDecoderState)));
    evrc_init_dec(st);
    return StatePtr(st);
}

inline StatePtr copy_state(const EvrcDecoderState &src) {
    auto *st = static_cast<EvrcDecoderState *>(std::malloc(sizeof(EvrcDecoderState)));
    std::memcpy(st, &src, sizeof src);
    return StatePtr(st);
}

inline int iterations(int fallback) {
    const char *env = std::getenv("EVRC_TEST_ITERATIONS");
    const int n = env ? std::atoi(env) : 0;
    return n > 0 && n < fallback ? n : fallback;
}

inline int64_t sat32(int64_t v) {
    return v > INT32_MAX ? INT32_MAX : (v < INT32_MIN ? INT32_MIN : v);
}
inline int sat16(int64_t v) { return v > 32767 ? 32767 : (v < -32768 ? -32768 : static_cast<int>(v)); }

// Rounded Q15 product (non-negative a or b never saturates).
inline int mult_r_model(int a, int b) {
    if (a == -32768 && b == -32768) return 32767;
    return static_cast<int>(sat32(2 * int64_t{a} * b + 0x8000) >> 16);
}
inline int mult_model(int a, int b) {
    if (a == -32768 && b == -32768) return 32767;
    return static_cast<int>((int64_t{a} * b) >> 15);
}

// End-of-frame output shaping: positive samples lose 1, then all double.
inline void gain_adjust_model(Word16 *out) {
    for (int i = 0; i < EVRC_FRAME_SIZE; ++i) {
        int v = out[i];
        if (v > 0) --v;
        out[i] = static_cast<Word16>(sat16(2 * int64_t{v}));
    }
}

// Fills the excitation history with a deterministic band-limited signal.
inline void fill_history(EvrcDecoderState *st, uint32_t seed, int amplitude) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> d(-amplitude, amplitude);
    int prev = 0;
    for (auto &v : st->exc_history) {
        prev = (prev + d(rng)) / 2;
        v = static_cast<Word16>(prev);
    }
}

}  // namespace conceal_test

#endif  // EVRC_TESTS_DEC_CONCEAL_SUPPORT_H
