// The frame driver's invariants over random packet streams, good and bad,
// a long erasure run (the concealment's thresholds, ramp and noise mix are
// pinned by the golden streams' erasure runs), and the TTY fields it reads; then what the decoded streams of the golden
// test do not reach: the in-place conversion between the byte-stream and
// word layouts (no caller in this project) and the LSP-to-LPC overflow
// fallback; the LSP order check at equal neighbours and the erasure
// detection's table. (The other packet checks and the field layout are pinned by the golden streams, the encoder's
// pack/unpack round trip and FFmpeg reading the encoder's files.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"
#include "tests/support/iterations.h"
#include "tools/random_packets.h"

namespace {

using evrc_random::uniform_int;
using evrc_test::iterations;

// A decoder record as the component creates it: zero-filled, then set up.
std::unique_ptr<EvrcDecoderState> new_decoder() {
    auto st = std::make_unique<EvrcDecoderState>();
    std::memset(st.get(), 0, sizeof(EvrcDecoderState));
    evrc_init_dec(st.get());
    return st;
}

// Valid packets of every rate half the time, otherwise random bits under a
// rate word, decodable or not: erasures, all-ones eighth-rate words, and
// disordered LSPs, delays and pulse pairs the unpacker must reject.
EvrcPacket random_stream_packet(std::mt19937 &rng) {
    if (uniform_int(rng, 0, 1) == 0) return evrc_random::random_any_rate_packet(rng);
    static const Word16 words[] = {0, 1, 1, 2, 3, 4, 4, 5, 14, 0x13, 0x0104, -1};
    EvrcPacket p{words[uniform_int(rng, 0, 11)], {}};
    for (Word16 &d : p.data) d = uniform_int(rng, 0, 3) == 0 ? Word16{-1} : static_cast<Word16>(rng());
    return p;
}

// Two decoders on one stream, output buffers pre-filled differently: equal
// outputs mean every sample was written and decoding is deterministic. With
// the postfilter off the AGC and postfilter state never change.
TEST(FrameDriver, DeterministicFullyWrittenOutputOverMixedStreams) {
    std::mt19937 rng(41);
    EXPECT_EQ(get_sizeof_evrc_dec_struct(), 1392);
    for (int postfilter_off : {0, 1}) {
        auto a = new_decoder();
        auto b = new_decoder();
        const EvrcDecoderState initial = *a;
        for (int frame = 0; frame < iterations(600); ++frame) {
            EvrcPacket pa = random_stream_packet(rng), pb = pa;
            Word16 out_a[EVRC_FRAME_SIZE], out_b[EVRC_FRAME_SIZE];
            std::fill(out_a, out_a + EVRC_FRAME_SIZE, 12345);
            std::fill(out_b, out_b + EVRC_FRAME_SIZE, -7);
            ASSERT_EQ(evrc_decode(a.get(), &pa, out_a, postfilter_off), 0);
            ASSERT_EQ(evrc_decode(b.get(), &pb, out_b, postfilter_off), 0);
            ASSERT_EQ(0, std::memcmp(out_a, out_b, sizeof out_a)) << "frame " << frame;
            ASSERT_EQ(0, std::memcmp(a.get(), b.get(), sizeof(EvrcDecoderState))) << "frame " << frame;
            ASSERT_GE(a->prev_delay, 20);
            ASSERT_LE(a->prev_delay, 120);
            if (postfilter_off == 0) continue;
            ASSERT_EQ(a->agc_prev_gain, initial.agc_prev_gain);
            ASSERT_EQ(a->agc_new_weight, initial.agc_new_weight);
            ASSERT_EQ(a->agc_prev_weight, initial.agc_prev_weight);
            ASSERT_EQ(a->tilt_last, initial.tilt_last);
            ASSERT_EQ(0, std::memcmp(a->pf_buf, initial.pf_buf, sizeof a->pf_buf));
            ASSERT_EQ(0, std::memcmp(a->syn_mem[1], initial.syn_mem[1], sizeof a->syn_mem[1]));
        }
    }
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
// frame from one after a good one.
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
        {0x0013, 0, EVRC_RATE_FULL, 0, 1, EVRC_RATE_FULL},  // the whole rate word is compared
        {0x0013, 0, EVRC_RATE_EIGHTH, 0, 1, EVRC_RATE_EIGHTH},
        {0x0104, 0, EVRC_RATE_HALF, 0, 1, EVRC_RATE_FULL},
        {EVRC_RATE_BLANK, 0, EVRC_RATE_HALF, 0, 1, EVRC_RATE_FULL},
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

using Buffer = std::vector<uint8_t>;

Buffer noise_buffer(std::mt19937 &rng) {
    Buffer b(24);
    for (uint8_t &x : b) x = static_cast<uint8_t>(rng());
    return b;
}

// Stream to words and back for every rate; the word view holds the rate word,
// then the earlier byte in each word's high half.
TEST(Repacking, EveryRateRoundTripsThroughTheWordLayout) {
    std::mt19937 rng(31);
    for (int it = 0; it < iterations(200); ++it) {
        for (int rate : {EVRC_RATE_EIGHTH, EVRC_RATE_HALF, EVRC_RATE_FULL}) {
            const std::vector<uint8_t> bytes = evrc_random::random_packet_bytes(rng, rate);
            Buffer b = noise_buffer(rng);
            std::memcpy(b.data(), bytes.data(), bytes.size());
            evrc_repacking_kel_to_dsp(b.data());
            uint16_t w[12];
            std::memcpy(w, b.data(), sizeof w);
            const EvrcPacket expected = evrc_random::bytes_to_packet(bytes);
            EXPECT_EQ(w[0], rate);
            for (size_t k = 0; k < (bytes.size() - 1) / 2; ++k)
                ASSERT_EQ(static_cast<Word16>(w[k + 1]), expected.data[k]) << "word " << k;
            ASSERT_EQ(evrc_repacking_dsp_to_kel(b.data()), static_cast<int>(bytes.size()));
            ASSERT_EQ(0, std::memcmp(b.data(), bytes.data(), bytes.size())) << "rate " << rate;
        }
    }
}

TEST(Repacking, EdgeLayouts) {
    std::mt19937 rng(32);
    // Words to stream leaves the byte behind the packet (b[11] or b[23]) stale.
    for (int rate : {EVRC_RATE_HALF, EVRC_RATE_FULL}) {
        const EvrcPacket p = evrc_random::random_packet(rng, rate);
        Buffer b = noise_buffer(rng);
        const uint16_t rate_word = static_cast<uint16_t>(p.rate);
        std::memcpy(b.data(), &rate_word, 2);
        std::memcpy(b.data() + 2, p.data, sizeof p.data);
        const Buffer before = b;
        const int n = evrc_repacking_dsp_to_kel(b.data());
        ASSERT_EQ(n, rate == EVRC_RATE_FULL ? 23 : 11);
        EXPECT_TRUE(std::equal(b.begin() + n, b.end(), before.begin() + n));
        const std::vector<uint8_t> stream = evrc_random::packet_to_bytes(p);
        EXPECT_EQ(0, std::memcmp(b.data(), stream.data(), stream.size()));
    }
    // Rates without payload and unknown rates leave the buffer alone.
    const int cases[][2] = {{0x00, 1}, {0x02, 0}, {0x05, 0}, {0x0F, 0}, {0x30, 1}};
    for (const auto &c : cases) {
        Buffer b = noise_buffer(rng);
        b[0] = static_cast<uint8_t>(c[0]);
        const Buffer before = b;
        EXPECT_EQ(evrc_repacking_dsp_to_kel(b.data()), c[1]) << c[0];
        EXPECT_EQ(b, before) << c[0];
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
