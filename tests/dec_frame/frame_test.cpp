// What the decoded streams of the golden test do not reach: a long erasure
// run (the concealment's thresholds, ramp and noise mix are pinned by the
// golden streams' erasure runs), the TTY fields, the in-place conversion
// between the byte-stream and word layouts (no caller in this project), the
// LSP-to-LPC overflow fallback, the LSP order check at equal neighbours and
// the erasure detection's table. (The other packet checks and the field
// layout are pinned by the golden streams, the encoder's pack/unpack round
// trip and FFmpeg reading the encoder's files; so are a fully written,
// deterministic output and the postfilter state left alone when it is off:
// the golden streams pin every sample and every counted operation.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <random>
#include <vector>

#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"
#include "tests/support/iterations.h"
#include "tools/random_packets.h"

namespace {

using evrc_test::iterations;

// A decoder record as the component creates it: zero-filled (value-
// initialised), then set up.
std::unique_ptr<EvrcDecoderState> new_decoder() {
    auto st = std::make_unique<EvrcDecoderState>();
    evrc_init_dec(st.get());
    return st;
}

// A long run of erasures after voiced speech fades to (near) silence and
// leaves the decoder able to decode the next good frame, which clears the
// erasure bookkeeping.
TEST(ConcealedStream, LongErasureRunFadesOutAndRecovers) {
    for (int postfilter_off : {0, 1}) {
        std::mt19937 rng(21);
        auto st = new_decoder();
        Word16 out[EVRC_FRAME_SIZE];
        for (int i = 0; i < 10; ++i) {
            EvrcPacket p = evrc_random::random_full_rate_packet(rng);
            evrc_decode(st.get(), &p, out, postfilter_off);
        }
        for (int i = 0; i < 120; ++i) {  // the fade needs the whole run, even in shortened test runs
            EvrcPacket p{static_cast<Word16>(i % 2 ? 0x0013 : EVRC_RATE_BLANK), {}};
            evrc_decode(st.get(), &p, out, postfilter_off);
            ASSERT_EQ(st->erasure_count, std::min(i + 1, 32767));
            ASSERT_EQ(st->prev_erased, 1);
            ASSERT_EQ(st->prev_rate, EVRC_RATE_FULL);  // concealed as rate 1 after rate 1
        }
        for (Word16 v : out) ASSERT_LE(std::abs(v), 4) << "postfilter_off " << postfilter_off;
        EXPECT_EQ(st->prefilter_ramp, 0);
        EvrcPacket good = evrc_random::random_full_rate_packet(rng);
        evrc_decode(st.get(), &good, out, postfilter_off);
        EXPECT_EQ(st->erasure_count, 0);
        EXPECT_EQ(st->prev_erased, 0);
        EXPECT_EQ(st->prev_rate, EVRC_RATE_FULL);
    }
}

TEST(FrameDriver, TtyFieldsComeFromTheDelayBitsAtTheRateInForce) {
    std::mt19937 rng(47);
    auto st = new_decoder();
    evrc_init_tty_dec(st.get(), 1);
    Word16 out[EVRC_FRAME_SIZE];
    auto expect_tty = [&](EvrcPacket p, int header, int data, int bit) {
        evrc_decode(st.get(), &p, out, 0);
        EXPECT_EQ(st->tty_header, header);
        EXPECT_EQ(st->tty_data, data);
        EXPECT_EQ(st->tty_bit, bit);
    };
    evrc_random::FullRateFields full = evrc_random::random_full_rate_fields(rng);
    full.delay_index = 0x5A;  // 10 11010
    full.reserved = 1;
    const EvrcPacket full_packet = evrc_random::bytes_to_packet(evrc_random::pack_full_rate(full));
    expect_tty(full_packet, 2, 0x1A, 1);
    // Read even when the frame is rejected (delay 147) and concealed.
    evrc_random::HalfRateFields half = evrc_random::random_half_rate_fields(rng);
    half.delay_index = 0x7F;
    expect_tty(evrc_random::bytes_to_packet(evrc_random::pack_half_rate(half)), 3, 0x1F, 1);
    EXPECT_EQ(st->prev_erased, 1);
    expect_tty(evrc_random::random_eighth_rate_packet(rng), 0, 0, 1);
    // Without TTY mode the fields are left alone.
    evrc_init_tty_dec(st.get(), 0);
    st->tty_header = 7;
    expect_tty(full_packet, 7, 0, 1);
}

// Random LSP sets with small, zero and negative steps: bad exactly when some
// neighbour is not strictly above the one before.
TEST(Unpack, OrderCheckRejectsEqualAndDescendingNeighbours) {
    std::mt19937 rng(16);
    for (int it = 0; it < iterations(3000); ++it) {
        EvrcFrameParams fp = {};
        int v = 0, ascending = 1;
        for (Word16 &l : fp.lsp) l = static_cast<Word16>(v += static_cast<int>(rng() % 100) - (it % 2 ? 5 : 0));
        for (int i = 0; i < 9; ++i) ascending &= fp.lsp[i] < fp.lsp[i + 1];
        evrc_check_lsps(&fp);
        ASSERT_EQ(fp.bad_frame, 1 - ascending) << "iteration " << it;
    }
}

// Which packets are decoded and which concealed, and as what rate: the
// golden streams do not tell an eighth-rate packet after an erased full-rate
// frame from one after a good one, nor a rate word with stray high bits from
// a valid one. (Blank packets and the erasure word 0x13 are theirs.)
TEST(FerDetect, ChoosesDecodeOrConcealmentAndTheRateToConcealAs) {
    // rate word, first data word, previous rate, previous erased -> conceal, rate after
    const Word16 cases[][6] = {
        {EVRC_RATE_FULL, 0, EVRC_RATE_EIGHTH, 1, 0, EVRC_RATE_FULL},
        {EVRC_RATE_HALF, -1, EVRC_RATE_FULL, 0, 0, EVRC_RATE_HALF},
        {EVRC_RATE_EIGHTH, 0x1234, EVRC_RATE_HALF, 0, 0, EVRC_RATE_EIGHTH},
        {EVRC_RATE_EIGHTH, 0x1234, EVRC_RATE_FULL, 1, 0, EVRC_RATE_EIGHTH},
        {EVRC_RATE_EIGHTH, 0x1234, EVRC_RATE_FULL, 0, 1, EVRC_RATE_FULL},  // straight after good rate 1
        {EVRC_RATE_EIGHTH, -1, EVRC_RATE_EIGHTH, 0, 1, EVRC_RATE_EIGHTH},  // all ones: erasure
        {EVRC_RATE_EIGHTH, -1, EVRC_RATE_HALF, 0, 1, EVRC_RATE_FULL},
        {0x0104, 0, EVRC_RATE_HALF, 0, 1, EVRC_RATE_FULL},  // the whole rate word is compared
        {EVRC_RATE_QUARTER, 0, EVRC_RATE_EIGHTH, 1, 1, EVRC_RATE_EIGHTH},
        {7, 0, EVRC_RATE_FULL, 1, 1, EVRC_RATE_FULL},
    };
    for (const auto &c : cases) {
        EvrcPacket p = {};
        p.rate = c[0];
        p.data[0] = c[1];
        EXPECT_EQ(evrc_fer_detect(&p, c[2], c[3], c[1]), c[4]) << "rate word " << c[0] << " prev " << c[2];
        EXPECT_EQ(p.rate, c[5]) << "rate word " << c[0] << " prev " << c[2];
    }
}

// Random buffers under every rate byte. Words to stream: the payload bytes of
// the rates that have one, the earlier byte of each word first, the rate
// byte and the byte behind the payload left alone, and buffers of the other
// codes (high nibble ignored) untouched; stream to words gives the words back.
TEST(Repacking, BothDirectionsUnderEveryRateByte) {
    std::mt19937 rng(31);
    for (int it = 0; it < iterations(3000); ++it) {
        std::vector<uint8_t> b(24);
        for (uint8_t &x : b) x = static_cast<uint8_t>(rng());
        if (it % 2) b[0] = static_cast<uint8_t>((b[0] & 0xF0) | (it % 3 ? EVRC_RATE_FULL : EVRC_RATE_HALF));
        const std::vector<uint8_t> before = b;
        const int rate = b[0] & 15, n = evrc_repacking_dsp_to_kel(b.data());
        const bool payload = rate == EVRC_RATE_EIGHTH || rate == EVRC_RATE_HALF || rate == EVRC_RATE_FULL;
        const int kLength[5] = {1, 3, 0, 11, 23};  // rate byte and payload
        ASSERT_EQ(n, rate > 4 ? 0 : kLength[rate]);
        std::vector<uint8_t> want = before;
        for (int i = 0; payload && i < n - 1; ++i) want[1 + i] = before[i % 2 ? i + 1 : i + 3];
        ASSERT_EQ(b, want) << "rate byte " << int(before[0]);
        if (!payload) continue;
        evrc_repacking_kel_to_dsp(b.data());
        EXPECT_EQ(b[1], 0);
        ASSERT_TRUE(std::equal(b.begin() + 2, b.begin() + n + 1, before.begin() + 2)) << "rate " << rate;
    }
}

// LSPs crowded at one band edge overflow Q24: the previous vector is kept,
// scaled by powers of 0.8.
TEST(LspToLpc, OverflowingSetKeepsThePreviousVectorScaledByPowersOfPointEight) {
    const Word16 low[10] = {10, 20, 30, 40, 50, 60, 70, 80, 90, 100};
    const Word16 high[10] = {16280, 16290, 16300, 16310, 16320, 16330, 16340, 16350, 16360, 16370};
    for (const Word16 *lsp : {low, high}) {
        const Word16 before[10] = {4096, -4096, 32767, -32768, 1, -1, 100, 2000, -3000, 12345};
        Word16 a[10];
        std::copy(before, before + 10, a);
        cmn1x_lsp2lpc(lsp, a, 3);
        for (int i = 0; i < 10; ++i)
            EXPECT_EQ(a[i], static_cast<Word16>((2 * int64_t{before[i]} * evrc_acsPwAlpha1[i] + 0x8000) >> 16)) << i;
    }
}

}  // namespace
