// evrc_signed_32_div_16 against the plain restoring division it replaces:
// sixteen compare-and-subtract steps through the counted shl/add operators.
// Result, overflow flag and operation count must agree for every input.
#include <cstdint>
#include <random>

#include <gtest/gtest.h>

#include "codec/basic/fixed_point.h"
#include "evrc/basic_op.h"

namespace {

Word64 abs64(Word32 v) { return v < 0 ? -static_cast<Word64>(v) : static_cast<Word64>(v); }

Word16 reference_div(Word32 num, Word16 den) {
    const Word32 d = fx::L_deposit_h(den);
    Word64 rem = abs64(num);
    const Word64 dabs = abs64(d);
    Word16 q = fx::shl(0, 1);
    for (int k = 0; k < 16; ++k) {
        if (k > 0) q = fx::shl(q, 1);
        const Word64 part = dabs >> k;
        if (rem >= part) {
            rem -= part;
            q = fx::add(q, 1);
        }
    }
    return (num ^ d) < 0 ? static_cast<Word16>(-q) : q;
}

struct Outcome {
    Word16 q;
    UWord32 ops;
    Word32 flag;
};

template <typename F>
Outcome run(F f, Word32 num, Word16 den) {
    evrc_giOverflow = 0;
    const UWord32 before = evrc_op_counter;
    const Word16 q = f(num, den);
    return Outcome{q, evrc_op_counter - before, evrc_giOverflow};
}

void expect_same(Word32 num, Word16 den) {
    const Outcome want = run(reference_div, num, den);
    const Outcome got = run(evrc_signed_32_div_16, num, den);
    ASSERT_EQ(got.q, want.q) << num << " / " << den;
    ASSERT_EQ(got.ops, want.ops) << num << " / " << den;
    ASSERT_EQ(got.flag, want.flag) << num << " / " << den;
}

TEST(SignedDivisionModel, EdgesAroundQuotientOne) {
    const Word16 dens[] = {0, 1, -1, 2, 3, 255, 16384, 32767, -32767, -32768};
    for (Word16 den : dens) {
        const Word64 one = static_cast<Word64>(den < 0 ? -den : den) << 16;
        for (Word64 base : {Word64{0}, one, 2 * one, Word64{fx::kMax32}, -Word64{fx::kMin32}}) {
            for (int delta = -3; delta <= 3; ++delta) {
                for (int sign : {1, -1}) {
                    const Word64 n = sign * (base + delta);
                    if (n < fx::kMin32 || n > fx::kMax32) continue;
                    expect_same(static_cast<Word32>(n), den);
                }
            }
        }
    }
}

TEST(SignedDivisionModel, RandomOperandsOfAllMagnitudes) {
    std::mt19937 rng(77);
    for (int i = 0; i < 400000; ++i) {
        // Random bit lengths so that quotients below, near and above 1.0 all
        // come up often.
        const Word32 num = static_cast<Word32>(rng()) >> (rng() % 32);
        const Word16 den = static_cast<Word16>(static_cast<Word16>(rng()) >> (rng() % 16));
        expect_same(num, den);
    }
}

}  // namespace
