// Shared pieces of the arithmetic tests: biased operand generators, an
// observer of the result, flag and counter delta of one call, and the driver
// that holds the exported and the inline form of an operator to a model.
#ifndef EVRC_TESTS_BASIC_HARNESS_H
#define EVRC_TESTS_BASIC_HARNESS_H

#include <gtest/gtest.h>

#include <random>
#include <sstream>

#include "codec/basic/fixed_point.h"

namespace basic_test {

constexpr int64_t kMax16 = 32767, kMin16 = -32768, kMax32 = 2147483647, kMin32 = -kMax32 - 1;

// Random cases per operator, divided for the expensive functions;
// EVRC_TEST_ITERATIONS lowers it on slow targets (emulators, sanitizers).
inline long iterations(long divisor = 1) {
    const long env = std::getenv("EVRC_TEST_ITERATIONS") ? std::atol(std::getenv("EVRC_TEST_ITERATIONS")) : 0;
    return std::max((env > 0 ? env : 1000000L) / divisor, 1L);
}

// What one call did: its value, whether it set the flag, the counter delta.
struct Outcome {
    int64_t value;
    bool flag;
    uint32_t weight;
    bool operator==(const Outcome &o) const { return value == o.value && flag == o.flag && weight == o.weight; }
};
inline std::ostream &operator<<(std::ostream &os, const Outcome &o) {
    return os << "{" << o.value << ", flag " << o.flag << ", weight " << o.weight << "}";
}
inline Outcome plain(int64_t v, uint32_t w = 0) { return {v, false, w}; }
// v clamped to [-hi - 1, hi], flagging when it had to.
inline Outcome clamp(int64_t v, int64_t hi, uint32_t w) {
    return v > hi ? Outcome{hi, true, w} : v < -hi - 1 ? Outcome{-hi - 1, true, w} : plain(v, w);
}

// Calls f with the flag preset to `initial` (the flag must only ever be
// written with 1, and only on overflow) and reports what the call did.
template <class F>
Outcome observe(F f, Word32 initial = 0) {
    evrc_giOverflow = initial;
    { fx::CallScope settle; }  // counts left by unscoped calls before this one
    const UWord32 before = evrc_op_counter;
    int64_t v;
    {
        fx::CallScope scope;  // the inline forms count inside a scope
        v = static_cast<int64_t>(f());
    }
    EXPECT_TRUE(evrc_giOverflow == initial || evrc_giOverflow == 1) << "the flag is only ever written with 1";
    return {v, evrc_giOverflow != initial, static_cast<uint32_t>(evrc_op_counter - before)};
}

// Operand generator biased towards the values where fixed-point code breaks.
struct Gen {
    std::mt19937_64 rng;
    explicit Gen(const std::string &seed) {
        std::seed_seq seq(seed.begin(), seed.end());
        rng.seed(seq);
    }
    uint64_t bits() { return rng(); }
    int pick(int n) { return static_cast<int>(bits() % static_cast<uint64_t>(n)); }
    // A signed value of `width` bits: extremes, small, powers of two and their
    // neighbours, few significant bits, or anything.
    int64_t value(int width) {
        const int64_t max = width == 64 ? INT64_MAX : (int64_t{1} << (width - 1)) - 1;
        const int64_t edges[] = {0, 1, -1, 2, -2, max, -max - 1, max - 1, -max};
        const int64_t p = (int64_t{1} << pick(width - 1)) + pick(3) - 1;
        const int k = pick(8);
        if (k < 3) return k == 0 ? edges[pick(9)] : k == 1 ? pick(129) - 64 : pick(2) ? p : -p;
        return static_cast<int64_t>(bits() & (k == 3 ? 0xFFFF000000000000ull : ~0ull)) >> (64 - width);
    }
    Word16 w16() { return static_cast<Word16>(value(16)); }
    Word32 w32() { return static_cast<Word32>(value(32)); }
    // 64-bit values, now and then close to the 32-bit limits.
    Word64 w64() {
        const int k = pick(6);
        if (k == 0) return int64_t{pick(2) ? INT32_MAX : INT32_MIN} + pick(9) - 4 + (pick(4) ? 0 : pick(100000));
        return k == 1 ? static_cast<int64_t>(bits()) >> pick(64) : value(64);
    }
    // A shift count: mostly small, sometimes anything a Word16 holds.
    Word16 shift() {
        const Word16 edges[] = {-32768, 32767, 64, -64, 63, -63, 65, -65};
        const int k = pick(6);
        return k == 0 ? w16() : k == 1 ? edges[pick(8)] : static_cast<Word16>(pick(141) - 70);
    }
};

// Runs `n` random cases: the operands come from gen(Gen&) as a tuple, and the
// exported and the inline form must both match the model's result, flag and
// counter delta. The flag preset alternates so that a stray clear shows up.
template <class G, class M, class E, class In>
void differential(const std::string &name, long n, G gen, M model, E exported, In inlined) {
    Gen g(name);
    int failures = 0;
    for (long i = 0; i < n && failures < 5; ++i) {
        const auto args = gen(g);
        const Outcome want = std::apply(model, args);
        const Outcome got[2] = {observe([&] { return std::apply(exported, args); }, (i & 1) ? 7 : 0),
                                observe([&] { return std::apply(inlined, args); }, (i & 1) ? 0 : 7)};
        for (int form = 0; form < 2; ++form) {
            if (got[form] == want) continue;
            std::ostringstream os;
            std::apply([&](auto... a) { ((os << " " << static_cast<int64_t>(a)), ...); }, args);
            ADD_FAILURE() << (form ? "fx::" : "evrc_") << name << "(" << os.str() << " ): got " << got[form]
                          << ", expected " << want;
            ++failures;
        }
    }
}

// The exported and the inline form of an operator, as generic callables, and
// the driver over both for `n` cases.
#define EVRC_FORMS(op) [](auto... x) { return ::evrc_##op(x...); }, [](auto... x) { return fx::op(x...); }
#define EVRC_DIFF(op, gen, ...) differential(#op, n, gen, __VA_ARGS__, EVRC_FORMS(op))

// Operand tuples.
using I = int64_t;
inline const auto one16 = [](Gen &g) { return std::make_tuple(g.w16()); };
inline const auto two16 = [](Gen &g) { return std::make_tuple(g.w16(), g.w16()); };
inline const auto one32 = [](Gen &g) { return std::make_tuple(g.w32()); };
inline const auto two32 = [](Gen &g) { return std::make_tuple(g.w32(), g.w32()); };
inline const auto one64 = [](Gen &g) { return std::make_tuple(g.w64()); };

// Integer for the 64-bit models: exact 128-bit where the compiler has it,
// otherwise arithmetic modulo 2^64, which is all the models keep (low64).
#if defined(__SIZEOF_INT128__)
using Wide = __int128;
#else
using Wide = uint64_t;
#endif
inline int64_t low64(Wide v) { return static_cast<int64_t>(static_cast<uint64_t>(v)); }

// floor(x / 2^n) for n >= 0, computed by division.
inline int64_t floor_div_pow2(int64_t x, int n) {
    if (n >= 63) return x < 0 ? -1 : 0;
    const int64_t d = int64_t{1} << n;
    return x / d - (x % d != 0 && x < 0 ? 1 : 0);
}

}  // namespace basic_test

#endif  // EVRC_TESTS_BASIC_HARNESS_H
