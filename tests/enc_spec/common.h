// Shared pieces of the encoder-stage tests: loop counts, random operands and
// models of the counted operators (result, overflow flag, weight).
#ifndef EVRC_TESTS_ENC_SPEC_COMMON_H
#define EVRC_TESTS_ENC_SPEC_COMMON_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>

#include "evrc/basic_op.h"

namespace enc_spec {

constexpr int64_t kMax32 = 2147483647, kMin32 = -kMax32 - 1;

inline int iterations(int fallback) {
    const char *env = std::getenv("EVRC_TEST_ITERATIONS");
    const int n = env ? std::atoi(env) : 0;
    return n > 0 && n < fallback ? n : fallback;
}

struct Rng {
    std::mt19937_64 g;
    explicit Rng(uint64_t seed) : g(seed) {}
    int64_t in(int64_t lo, int64_t hi) { return lo + static_cast<int64_t>(g() % static_cast<uint64_t>(hi - lo + 1)); }
    // 32-bit value: anything, small, near the limits, or of random magnitude.
    int32_t w32() {
        switch (in(0, 3)) {
        case 0: return static_cast<int32_t>(g());
        case 1: return static_cast<int32_t>(in(-40, 40));
        case 2: return static_cast<int32_t>(in(0, 1) ? kMax32 - in(0, 3) : kMin32 + in(0, 3));
        default: return static_cast<int32_t>(static_cast<int32_t>(g()) >> in(0, 31));
        }
    }
    int16_t w16() { return static_cast<int16_t>(w32() >> (in(0, 1) ? 16 : 0)); }
};

inline int64_t sat(int64_t v, int64_t hi) { return v > hi ? hi : (v < -hi - 1 ? -hi - 1 : v); }
inline int16_t hi16(int32_t x) { return static_cast<int16_t>(x >> 16); }
inline int32_t lo16u(int32_t x) { return x & 0xFFFF; }

// Counted operators as the text defines them; out-of-line arithmetic
// functions are called through their exported form, whose effects the
// observer picks up from the globals.
struct Ops {
    bool flag = false;
    uint32_t weight = 0;
    int64_t clamp32(int64_t v) {
        if (v > kMax32 || v < kMin32) flag = true;
        return sat(v, kMax32);
    }
    int32_t L_mult(int32_t a, int32_t b) { return weight += 1, static_cast<int32_t>(clamp32(2 * int64_t{a} * b)); }
    int32_t L_mac(int32_t acc, int32_t a, int32_t b) {
        return weight += 1, static_cast<int32_t>(clamp32(acc + 2 * int64_t{a} * b));
    }
    int32_t L_shl(int32_t x, int n) {
        weight += 2;
        if (n <= 0) return x >> std::min(-n, 31);
        const __int128 v = static_cast<__int128>(x) * (static_cast<__int128>(1) << std::min(n, 40));
        return static_cast<int32_t>(clamp32(v > kMax32 ? kMax32 + 1 : v < kMin32 ? kMin32 - 1 : static_cast<int64_t>(v)));
    }
    int32_t L_mult_32_16(int32_t L, int16_t b) {
        const int64_t high = clamp32(2 * int64_t{hi16(L)} * b);
        return weight += 5, static_cast<int32_t>(clamp32(high + ((lo16u(L) * b) >> 15)));
    }
    int64_t L_mult64_32_32(int32_t a, int32_t b) {
        const int64_t cross = int64_t{lo16u(a)} * hi16(b) + int64_t{lo16u(b)} * hi16(a);
        return weight += 5, clamp32(2 * int64_t{hi16(a)} * hi16(b)) + (cross >> 15);
    }
};

// Flag and weight of a call, the flag cleared before it.
template <class F>
std::pair<bool, uint32_t> effects(F f) {
    evrc_giOverflow = 0;
    const uint32_t before = evrc_op_counter;
    f();
    return {evrc_giOverflow != 0, evrc_op_counter - before};
}

// The same for a model: the globals' effects of the exported functions it
// calls plus those of the modelled operators.
template <class F>
std::pair<bool, uint32_t> model_effects(F f) {
    Ops o;
    const auto e = effects([&] { f(o); });
    return {e.first || o.flag, e.second + o.weight};
}

}  // namespace enc_spec

#endif  // EVRC_TESTS_ENC_SPEC_COMMON_H
