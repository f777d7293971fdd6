// Concealment inside whole decoded streams (evrc_decode): long erasure runs
// and recovery after erasures.
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "tests/dec_conceal/conceal_support.h"
#include "tests/support/random_packets.h"

namespace {

using conceal_test::fresh_state;
using conceal_test::StatePtr;

EvrcPacket erasure_packet(Word16 rate_word) {
    EvrcPacket p{};
    p.rate = rate_word;
    return p;
}

int peak(const Word16 *out) {
    int m = 0;
    for (int i = 0; i < EVRC_FRAME_SIZE; ++i) m = std::max(m, std::abs(static_cast<int>(out[i])));
    return m;
}

void decode_full_rate_frames(EvrcDecoderState *st, std::mt19937 &rng, int n, int postfilter_off = 0) {
    Word16 out[EVRC_FRAME_SIZE];
    for (int i = 0; i < n; ++i) {
        EvrcPacket p = evrc_test::random_full_rate_packet(rng);
        evrc_decode(st, &p, out, postfilter_off);
    }
}

// A long run of erasures after voiced speech fades to (near) silence and
// leaves the decoder able to decode the next good frame, which clears the
// erasure bookkeeping.
TEST(ConcealedStream, LongErasureRunFadesOutAndRecovers) {
    for (int postfilter_off : {0, 1}) {
        std::mt19937 rng(21);
        StatePtr st = fresh_state();
        decode_full_rate_frames(st.get(), rng, 10, postfilter_off);

        Word16 out[EVRC_FRAME_SIZE];
        const int run = conceal_test::iterations(120);
        for (int i = 0; i < run; ++i) {
            EvrcPacket p = erasure_packet(i % 2 ? 0x0013 : EVRC_RATE_BLANK);
            evrc_decode(st.get(), &p, out, postfilter_off);
            ASSERT_EQ(st->erasure_count, std::min(i + 1, 32767));
            ASSERT_EQ(st->prev_erased, 1);
            ASSERT_EQ(st->prev_rate, EVRC_RATE_FULL);  // concealed as rate 1 after rate 1
        }
        EXPECT_LE(peak(out), 4) << "postfilter_off " << postfilter_off;
        EXPECT_EQ(st->prefilter_ramp, 0);

        EvrcPacket good = evrc_test::random_full_rate_packet(rng);
        evrc_decode(st.get(), &good, out, postfilter_off);
        EXPECT_EQ(st->erasure_count, 0);
        EXPECT_EQ(st->prev_erased, 0);
        EXPECT_EQ(st->prev_rate, EVRC_RATE_FULL);
    }
}

// After eighth-rate frames, losses are concealed as eighth-rate noise at the
// level of the last gain row and then at the first row's level.
TEST(ConcealedStream, ErasuresAfterEighthRateStayComfortNoise) {
    std::mt19937 rng(8);
    StatePtr st = fresh_state();
    Word16 out[EVRC_FRAME_SIZE];
    for (int i = 0; i < 5; ++i) {
        EvrcPacket p = evrc_test::random_eighth_rate_packet(rng);
        evrc_decode(st.get(), &p, out, 0);
    }
    const Word16 *last_row = st->pow_quant_ptr.ptr;
    const int mean = static_cast<int>((32768 + 2 * 10923 * (int64_t{last_row[0]} + last_row[1] + last_row[2])) >> 16);

    EvrcPacket lost = erasure_packet(EVRC_RATE_QUARTER);
    evrc_decode(st.get(), &lost, out, 0);
    EXPECT_EQ(st->conceal_gains[0], mean);
    EXPECT_EQ(st->prev_rate, EVRC_RATE_EIGHTH);
    EXPECT_EQ(st->pow_quant_ptr.ptr, &evrc_acsPowQuant[0][0]);

    for (int i = 0; i < 20; ++i) {
        EvrcPacket p = erasure_packet(static_cast<Word16>(0x00F0 + i));
        evrc_decode(st.get(), &p, out, 0);
        ASSERT_EQ(st->conceal_gains[0], 116);
        ASSERT_EQ(st->prev_rate, EVRC_RATE_EIGHTH);
    }
    EXPECT_EQ(st->erasure_count, 21);

    EvrcPacket p = evrc_test::random_eighth_rate_packet(rng);
    evrc_decode(st.get(), &p, out, 0);
    EXPECT_EQ(st->erasure_count, 0);
    EXPECT_EQ(st->prev_erased, 0);
}

}  // namespace
