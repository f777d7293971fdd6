// evrc_signed_32_div_16 against its literal form, the restoring division in
// sixteen compare-and-subtract steps through the counted shl/add operators.
// Result, overflow flag and operation count must agree for every input.
#include <cstdint>
#include <random>

#include <gtest/gtest.h>

#include "codec/basic/fixed_point.h"
#include "evrc/basic_op.h"

namespace {

void expect_same(Word32 num, Word16 den) {
    Word16 q[2];
    UWord32 ops[2];
    Word32 flag[2];
    for (int i = 0; i < 2; ++i) {
        evrc_giOverflow = 0;
        const UWord32 before = evrc_op_counter;
        {
            fx::CallScope scope;
            q[i] = i == 0 ? fx::signed_32_div_16_reference(num, den) : evrc_signed_32_div_16(num, den);
        }
        ops[i] = evrc_op_counter - before;
        flag[i] = evrc_giOverflow;
    }
    ASSERT_EQ(q[1], q[0]) << num << " / " << den;
    ASSERT_EQ(ops[1], ops[0]) << num << " / " << den;
    ASSERT_EQ(flag[1], flag[0]) << num << " / " << den;
}

// Edges around quotients 0, 1 and 2 and the 32-bit limits, then random
// operands of random bit lengths so that quotients below, near and above 1.0
// all come up often.
TEST(SignedDivisionModel, MatchesTheRestoringDivision) {
    for (Word16 den : {0, 1, -1, 2, 3, 255, 16384, 32767, -32767, -32768}) {
        const Word64 one = static_cast<Word64>(den < 0 ? -den : den) << 16;
        for (Word64 base : {Word64{0}, one, 2 * one, Word64{fx::kMax32}, -Word64{fx::kMin32}})
            for (int delta = -3; delta <= 3; ++delta)
                for (int sign : {1, -1}) {
                    const Word64 n = sign * (base + delta);
                    if (n >= fx::kMin32 && n <= fx::kMax32) expect_same(static_cast<Word32>(n), den);
                }
    }
    std::mt19937 rng(77);
    for (int i = 0; i < 400000; ++i) {
        const Word32 num = static_cast<Word32>(rng()) >> (rng() % 32);
        expect_same(num, static_cast<Word16>(static_cast<Word16>(rng()) >> (rng() % 16)));
    }
}

}  // namespace
