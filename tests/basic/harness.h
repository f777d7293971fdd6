// Shared pieces of the arithmetic tests: biased operand generators, the
// iteration count, an observer that captures result, flag and counter delta
// of one call, and an exact wide-integer type for the 64-bit models.
#ifndef EVRC_TESTS_BASIC_HARNESS_H
#define EVRC_TESTS_BASIC_HARNESS_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <random>
#include <sstream>
#include <string>
#include <tuple>

#include "evrc/basic_op.h"

namespace basic_test {

// Number of random cases per operator; EVRC_TEST_ITERATIONS overrides it
// (slow targets such as emulators and sanitizer builds lower it).
inline long iterations() {
    static const long n = [] {
        const char *env = std::getenv("EVRC_TEST_ITERATIONS");
        if (env != nullptr) {
            char *end = nullptr;
            const long v = std::strtol(env, &end, 10);
            if (end != env && *end == '\0' && v > 0) return v;
        }
        return 1000000L;
    }();
    return n;
}

// The expensive functions run on a fraction of the iterations.
inline long slow_iterations() {
    const long n = iterations() / 8;
    return n > 0 ? n : 1;
}

// What one call did: its value, the flag afterwards and the counter delta.
struct Outcome {
    int64_t value;
    bool flag;
    uint32_t weight;
};

inline bool operator==(const Outcome &a, const Outcome &b) {
    return a.value == b.value && a.flag == b.flag && a.weight == b.weight;
}

inline std::ostream &operator<<(std::ostream &os, const Outcome &o) {
    return os << "{value " << o.value << ", flag " << o.flag << ", weight " << o.weight << "}";
}

// Calls f with the flag preset to `initial_flag` and reports the effects. The
// flag must end as 1 when the call overflowed and be left alone otherwise, so
// `flag` is true exactly when the call wrote it.
template <class F>
Outcome observe(F f, Word32 initial_flag = 0) {
    evrc_giOverflow = initial_flag;
    const UWord32 before = evrc_op_counter;
    const int64_t v = static_cast<int64_t>(f());
    const UWord32 after = evrc_op_counter;
    bool flag;
    if (evrc_giOverflow == initial_flag) {
        flag = false;
    } else {
        EXPECT_EQ(evrc_giOverflow, 1) << "the flag is only ever written with 1";
        flag = true;
    }
    return {v, flag, static_cast<uint32_t>(after - before)};
}

// Operand generator biased towards the values where fixed-point code breaks.
class Gen {
public:
    explicit Gen(uint64_t seed) : rng_(seed) {}

    uint64_t bits() { return rng_(); }
    int pick(int n) { return static_cast<int>(bits() % static_cast<uint64_t>(n)); }

    // A value of the given width (16, 32 or 64 bits), sign-extended.
    int64_t value(int width) {
        const int64_t max = width == 64 ? INT64_MAX : (int64_t{1} << (width - 1)) - 1;
        const int64_t min = -max - 1;
        switch (pick(8)) {
            case 0: {  // extremes and their neighbours
                const int64_t base[] = {0, 1, -1, max, min, max - 1, min + 1, 2, -2};
                return base[pick(9)];
            }
            case 1:  // small
                return pick(129) - 64;
            case 2: {  // powers of two, and their neighbours
                const int64_t p = int64_t{1} << pick(width - 1);
                const int64_t v = p + (pick(3) - 1);
                return pick(2) ? v : -v;
            }
            case 3:  // few significant bits at the top of the range
                return static_cast<int64_t>(bits() & 0xFFFF000000000000ull) >> (64 - width);
            default:
                return static_cast<int64_t>(bits()) >> (64 - width);
        }
    }

    Word16 w16() { return static_cast<Word16>(value(16)); }
    Word32 w32() { return static_cast<Word32>(value(32)); }
    Word64 w64() {
        // Now and then a 64-bit value close to the 32-bit limits.
        if (pick(6) == 0) {
            const int64_t edge = pick(2) ? INT32_MAX : INT32_MIN;
            return edge + (pick(9) - 4) + (pick(4) == 0 ? static_cast<int64_t>(bits() % 100000) : 0);
        }
        if (pick(6) == 0) return static_cast<int64_t>(bits()) >> pick(64);
        return value(64);
    }
    // A shift count: mostly small, sometimes anything a Word16 can hold.
    Word16 shift() {
        switch (pick(6)) {
            case 0: return static_cast<Word16>(value(16));
            case 1: {
                const Word16 e[] = {-32768, 32767, 64, -64, 63, -63, 65, -65};
                return e[pick(8)];
            }
            default: return static_cast<Word16>(pick(141) - 70);
        }
    }

private:
    std::mt19937_64 rng_;
};

// Flag preset alternating between clear and an unrelated nonzero value.
inline Word32 preset(long i) { return (i & 1) ? 7 : 0; }

// Stops a differential loop after a handful of reported mismatches.
class Mismatches {
public:
    // `what` builds the description of the failing call, only when needed.
    template <class D>
    bool report(const Outcome &got, const Outcome &want, D what) {
        if (got == want) return true;
        ADD_FAILURE() << what() << ": got " << got << ", expected " << want;
        return ++count_ < 5;
    }

private:
    int count_ = 0;
};

template <class Tuple>
std::string describe(const std::string &name, const Tuple &args) {
    std::ostringstream os;
    os << name << "(";
    const char *sep = "";
    std::apply([&](auto... a) { ((os << sep << static_cast<int64_t>(a), sep = ", "), ...); }, args);
    os << ")";
    return os.str();
}

inline uint64_t seed_of(const std::string &name) {
    uint64_t h = 1469598103934665603ull;  // FNV-1a
    for (char c : name) h = (h ^ static_cast<unsigned char>(c)) * 1099511628211ull;
    return h;
}

// Runs `n` random cases: the operands come from gen(Gen&) as a tuple, and the
// exported and the inline form must both match the model's result, flag and
// counter delta. The flag preset alternates so that a stray clear shows up.
template <class G, class M, class E, class I>
void differential(const std::string &name, long n, G gen, M model, E exported, I inlined) {
    Gen g(seed_of(name));
    Mismatches mismatches;
    for (long i = 0; i < n; ++i) {
        const auto args = gen(g);
        const Outcome want = std::apply(model, args);
        const Outcome got_e = observe([&] { return std::apply(exported, args); }, preset(i));
        if (!mismatches.report(got_e, want, [&] { return describe("evrc_" + name, args); })) return;
        const Outcome got_i = observe([&] { return std::apply(inlined, args); }, preset(i + 1));
        if (!mismatches.report(got_i, want, [&] { return describe("fx::" + name, args); })) return;
    }
}

// The exported and the inline form of an operator, as generic callables.
#define EVRC_FORMS(op)                                                  \
    [](auto... x) { return ::evrc_##op(x...); }, [](auto... x) { return fx::op(x...); }

// Exact integer for the 64-bit models: a native 128-bit integer where the
// compiler has one, otherwise arithmetic modulo 2^64, which is all that the
// models keep of their results (see low64).
#if defined(__SIZEOF_INT128__)
using Exact = __int128;
inline int64_t low64(Exact v) { return static_cast<int64_t>(static_cast<uint64_t>(v)); }
#define EVRC_TEST_NATIVE_INT128 1
#endif

class Modular64 {
public:
    Modular64(int64_t v = 0) : v_(static_cast<uint64_t>(v)) {}  // NOLINT: implicit on purpose
    friend Modular64 operator+(Modular64 a, Modular64 b) { return raw(a.v_ + b.v_); }
    friend Modular64 operator-(Modular64 a, Modular64 b) { return raw(a.v_ - b.v_); }
    friend Modular64 operator*(Modular64 a, Modular64 b) { return raw(a.v_ * b.v_); }
    friend int64_t low64(Modular64 a) { return static_cast<int64_t>(a.v_); }

private:
    static Modular64 raw(uint64_t v) {
        Modular64 m;
        m.v_ = v;
        return m;
    }
    uint64_t v_;
};

#if !defined(EVRC_TEST_NATIVE_INT128)
using Exact = Modular64;
#endif

// 2^n as an Exact, 0 <= n <= 63.
inline Exact pow2(int n) {
    return n == 63 ? Exact(INT64_MAX) + Exact(1) : Exact(int64_t{1} << n);
}

// floor(x / 2^n) for n >= 0, computed by division.
inline int64_t floor_div_pow2(int64_t x, int n) {
    if (n >= 63) return x < 0 ? -1 : 0;
    const int64_t d = int64_t{1} << n;
    int64_t q = x / d;
    if (x % d != 0 && x < 0) --q;
    return q;
}

}  // namespace basic_test

#endif  // EVRC_TESTS_BASIC_HARNESS_H
