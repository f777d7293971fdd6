// Decoder state set-up, end-of-frame gain adjustment and the frame driver's
// invariants over random packet streams, good and bad.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"
#include "tests/dec_frame/frame_test_util.h"
#include "tests/support/random_packets.h"

namespace {

using dec_frame_test::iterations;
using dec_frame_test::new_decoder;

TEST(DecoderState, ReportsItsSize) {
    EXPECT_EQ(get_sizeof_evrc_dec_struct(), 1392);
    EXPECT_EQ(sizeof(EvrcDecoderState), 1392u);
}

TEST(DecoderState, InitSetsTheNamedFieldsAndLeavesTheRest) {
    EvrcDecoderState st;
    std::memset(&st, 0xA5, sizeof st);
    const Word16 pattern = static_cast<Word16>(0xA5A5);
    evrc_init_dec(&st);

    for (auto &block : st.syn_mem)
        for (Word32 m : block) EXPECT_EQ(m, 0);
    EXPECT_EQ(st.pow_quant_ptr.ptr, &evrc_acsPowQuant[0][0]);
    EXPECT_EQ(st.gauss.noise_seed, 4660);
    EXPECT_EQ(st.prev_delay, 40);
    EXPECT_EQ(st.prev_rate, EVRC_RATE_EIGHTH);
    EXPECT_EQ(st.prefilter_ramp, 32767);
    EXPECT_EQ(st.agc_new_weight, 16384);
    EXPECT_EQ(st.agc_prev_weight, 16384);
    EXPECT_EQ(st.agc_prev_gain, 0);
    EXPECT_EQ(st.tilt_last, 0);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(st.pf_buf[i], 0);
        EXPECT_EQ(st.prev_lsp[i], evrc_acsLspBiasValues[i]);
    }

    // Deliberately left alone.
    EXPECT_EQ(st.gauss.gauss_have_spare, pattern);
    EXPECT_EQ(st.gauss.gauss_spare, pattern);
    EXPECT_EQ(st.erasure_count, pattern);
    EXPECT_EQ(st.prev_erased, pattern);
    EXPECT_EQ(st.avg_acb_gain, pattern);
    EXPECT_EQ(st.avg_fcb_gain, pattern);
    EXPECT_EQ(st.tty_mode, pattern);
    EXPECT_EQ(st.tty_bit, pattern);
    for (Word16 v : st.exc_history) EXPECT_EQ(v, pattern);
    for (Word16 v : st.lpc) EXPECT_EQ(v, pattern);
    EXPECT_EQ(st.pf_buf[10], pattern);

    EvrcDecoderState again;
    std::memcpy(&again, &st, sizeof st);
    again.prev_rate = EVRC_RATE_FULL;
    again.prefilter_ramp = 3;
    evrc_init_dec_illegal_rate_transition(&again);
    EXPECT_EQ(0, std::memcmp(&again, &st, sizeof st));
}

TEST(DecoderState, TtyInitTouchesOnlyTheMode) {
    auto st = new_decoder();
    EvrcDecoderState before;
    std::memcpy(&before, st.get(), sizeof before);
    evrc_init_tty_dec(st.get(), 1);
    EXPECT_EQ(st->tty_mode, 1);
    st->tty_mode = before.tty_mode;
    EXPECT_EQ(0, std::memcmp(&before, st.get(), sizeof before));
}

// Decrement-then-double of every output sample, all 65536 inputs.
TEST(GainAdjust, DecrementsPositiveSamplesThenDoublesWithSaturation) {
    auto st = new_decoder();
    st->prev_erased = 0;
    for (int base = -32768; base < 32768; base += EVRC_FRAME_SIZE) {
        Word16 out[EVRC_FRAME_SIZE];
        for (int i = 0; i < EVRC_FRAME_SIZE; ++i) out[i] = static_cast<Word16>(std::min(base + i, 32767));
        evrc_decoder_gain_adjust(st.get(), out);
        for (int i = 0; i < EVRC_FRAME_SIZE; ++i) {
            const int x = std::min(base + i, 32767);
            const int y = x > 0 ? 2 * (x - 1) : 2 * x;
            ASSERT_EQ(out[i], std::max(-32768, std::min(32767, y))) << "input " << x;
        }
    }
    Word16 edges[EVRC_FRAME_SIZE] = {1, -1, 16384, 16385, 32767, 0, -16384, -16385};
    evrc_decoder_gain_adjust(st.get(), edges);
    const Word16 expected[8] = {0, -2, 32766, 32767, 32767, 0, -32768, -32768};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(edges[i], expected[i]) << i;
}

TEST(GainAdjust, DecaysTheFixedCodebookGainAfterAnErasure) {
    auto st = new_decoder();
    Word16 out[EVRC_FRAME_SIZE] = {};

    st->prev_erased = 0;
    st->erasure_count = 5;
    st->avg_fcb_gain = 1000;
    evrc_decoder_gain_adjust(st.get(), out);
    EXPECT_EQ(st->erasure_count, 0);
    EXPECT_EQ(st->avg_fcb_gain, 1000);

    st->prev_erased = 1;
    st->pow_quant_ptr.ptr = &evrc_acsPowQuant[9][0];
    for (int count = 0; count < 6; ++count) {
        st->erasure_count = static_cast<Word16>(count);
        st->avg_fcb_gain = 20000;
        evrc_decoder_gain_adjust(st.get(), out);
        EXPECT_EQ(st->avg_fcb_gain, (20000 * (count < 3 ? 24500 : 6125)) >> 15) << count;
        EXPECT_EQ(st->pow_quant_ptr.ptr, &evrc_acsPowQuant[0][0]);
    }
}

TEST(GainAdjust, CleanUpRecordsTheFrame) {
    auto st = new_decoder();
    EvrcFrameParams fp = {};
    for (int i = 0; i < 10; ++i) fp.lsp[i] = static_cast<Word16>(100 * (i + 1));
    Word16 out[EVRC_FRAME_SIZE] = {};
    out[0] = 5;
    st->erasure_count = 2;
    evrc_dec_clean_up(st.get(), &fp, out, EVRC_RATE_HALF, 0);
    EXPECT_EQ(st->prev_rate, EVRC_RATE_HALF);
    EXPECT_EQ(st->prev_erased, 0);
    EXPECT_EQ(st->erasure_count, 0);
    EXPECT_EQ(out[0], 8);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(st->prev_lsp[i], fp.lsp[i]);
}

// A stream mixing valid packets of every rate with erasures, blanks,
// all-ones eighth-rate packets and packets the unpacker must reject.
EvrcPacket random_stream_packet(std::mt19937 &rng) {
    const int kind = evrc_test::uniform_int(rng, 0, 11);
    EvrcPacket p = {};
    switch (kind) {
    case 0:
    case 1:
    case 2: return evrc_test::random_full_rate_packet(rng);
    case 3:
    case 4: return evrc_test::random_half_rate_packet(rng);
    case 5:
    case 6: return evrc_test::random_eighth_rate_packet(rng);
    case 7: {  // erasure or undecodable rate word
        static const Word16 words[] = {0, 2, 5, 14, 0x13, 0x0104, -1};
        p = evrc_test::random_full_rate_packet(rng);
        p.rate = words[evrc_test::uniform_int(rng, 0, 6)];
        return p;
    }
    case 8:  // all-ones eighth rate
        p.rate = EVRC_RATE_EIGHTH;
        p.data[0] = -1;
        return p;
    case 9: {  // rejected rate 1: delay above 120 or an impossible pulse pair
        evrc_test::FullRateFields f = evrc_test::random_full_rate_fields(rng);
        if (evrc_test::uniform_int(rng, 0, 1) == 0)
            f.delay_index = evrc_test::uniform_int(rng, 101, 127);
        else
            f.fcb_index[evrc_test::uniform_int(rng, 0, 2)][evrc_test::uniform_int(rng, 0, 3)] |= 0x7F;
        return evrc_test::bytes_to_packet(evrc_test::pack_full_rate(f));
    }
    default: {  // random bits at a decodable rate: mostly disordered LSPs
        static const Word16 rates[] = {EVRC_RATE_EIGHTH, EVRC_RATE_HALF, EVRC_RATE_FULL};
        p.rate = rates[evrc_test::uniform_int(rng, 0, 2)];
        for (Word16 &d : p.data) d = static_cast<Word16>(rng());
        return p;
    }
    }
}

// Two decoders on one stream, output buffers pre-filled differently: equal
// outputs mean every sample was written and decoding is deterministic.
TEST(FrameDriver, WritesEveryOutputSampleDeterministicallyOverMixedStreams) {
    std::mt19937 rng(41);
    for (int postfilter_off : {0, 1}) {
        auto a = new_decoder();
        auto b = new_decoder();
        for (int frame = 0; frame < iterations(600); ++frame) {
            const EvrcPacket packet = random_stream_packet(rng);
            EvrcPacket pa = packet, pb = packet;
            Word16 out_a[EVRC_FRAME_SIZE], out_b[EVRC_FRAME_SIZE];
            for (int i = 0; i < EVRC_FRAME_SIZE; ++i) {
                out_a[i] = 12345;
                out_b[i] = static_cast<Word16>(-i);
            }
            ASSERT_EQ(evrc_decode(a.get(), &pa, out_a, postfilter_off), 0);
            ASSERT_EQ(evrc_decode(b.get(), &pb, out_b, postfilter_off), 0);
            ASSERT_EQ(0, std::memcmp(out_a, out_b, sizeof out_a)) << "frame " << frame;
            ASSERT_EQ(0, std::memcmp(a.get(), b.get(), sizeof(EvrcDecoderState))) << "frame " << frame;
            ASSERT_GE(a->prev_delay, 20);
            ASSERT_LE(a->prev_delay, 120);
        }
    }
}

TEST(FrameDriver, PostfilterOffNeverTouchesTheAgcOrPostfilterState) {
    std::mt19937 rng(42);
    auto st = new_decoder();
    EvrcDecoderState initial;
    std::memcpy(&initial, st.get(), sizeof initial);
    for (int frame = 0; frame < iterations(400); ++frame) {
        EvrcPacket p = random_stream_packet(rng);
        Word16 out[EVRC_FRAME_SIZE];
        evrc_decode(st.get(), &p, out, 1);
        ASSERT_EQ(st->agc_prev_gain, initial.agc_prev_gain);
        ASSERT_EQ(st->agc_new_weight, initial.agc_new_weight);
        ASSERT_EQ(st->agc_prev_weight, initial.agc_prev_weight);
        ASSERT_EQ(st->tilt_last, initial.tilt_last);
        ASSERT_EQ(0, std::memcmp(st->pf_buf, initial.pf_buf, sizeof st->pf_buf));
        ASSERT_EQ(0, std::memcmp(st->syn_mem[1], initial.syn_mem[1], sizeof st->syn_mem[1]));
    }
}

// A rate 1/8 packet after rate 1 restarts the decoder and is then decoded
// normally: it sounds exactly as in a freshly created decoder.
TEST(FrameDriver, EighthRateAfterFullRateRestartsTheDecoder) {
    std::mt19937 rng(44);
    for (int trial = 0; trial < iterations(20); ++trial) {
        auto st = new_decoder();
        const int frames = evrc_test::uniform_int(rng, 1, 6);
        for (int f = 0; f < frames; ++f) {
            EvrcPacket p = evrc_test::random_packet(rng, f == frames - 1 || f % 2 ? EVRC_RATE_FULL : EVRC_RATE_HALF);
            Word16 out[EVRC_FRAME_SIZE];
            evrc_decode(st.get(), &p, out, 0);
        }
        ASSERT_EQ(st->prev_rate, EVRC_RATE_FULL);
        ASSERT_EQ(st->prev_erased, 0);

        auto fresh = new_decoder();
        fresh->gauss = st->gauss;
        fresh->gauss.noise_seed = 4660;

        const EvrcPacket eighth = evrc_test::random_eighth_rate_packet(rng);
        EvrcPacket p1 = eighth, p2 = eighth;
        Word16 restarted[EVRC_FRAME_SIZE], reference[EVRC_FRAME_SIZE];
        evrc_decode(st.get(), &p1, restarted, 0);
        evrc_decode(fresh.get(), &p2, reference, 0);
        ASSERT_EQ(0, std::memcmp(restarted, reference, sizeof restarted)) << "trial " << trial;
        EXPECT_EQ(st->prev_rate, EVRC_RATE_EIGHTH);
        EXPECT_EQ(st->prev_erased, 0);
        EXPECT_EQ(p1.rate, EVRC_RATE_EIGHTH);
    }
}

// A rate 1 packet the unpacker rejects is concealed as rate 1, exactly like
// an erasure after a rate 1 frame.
TEST(FrameDriver, RejectedFullRatePacketIsConcealedLikeAnErasure) {
    std::mt19937 rng(45);
    for (int trial = 0; trial < iterations(20); ++trial) {
        auto a = new_decoder();
        for (int f = 0; f < 3; ++f) {
            EvrcPacket p = evrc_test::random_full_rate_packet(rng);
            Word16 out[EVRC_FRAME_SIZE];
            evrc_decode(a.get(), &p, out, 0);
        }
        auto b = new_decoder();
        std::memcpy(b.get(), a.get(), sizeof(EvrcDecoderState));

        evrc_test::FullRateFields f = evrc_test::random_full_rate_fields(rng);
        if (trial % 2 == 0)
            f.fcb_index[trial % 3][trial % 4] = 0x79;
        else
            f.delay_index = 101;
        EvrcPacket bad = evrc_test::bytes_to_packet(evrc_test::pack_full_rate(f));
        EvrcPacket erased = {};
        erased.rate = 14;
        Word16 out_bad[EVRC_FRAME_SIZE], out_erased[EVRC_FRAME_SIZE];
        evrc_decode(a.get(), &bad, out_bad, 0);
        evrc_decode(b.get(), &erased, out_erased, 0);
        ASSERT_EQ(0, std::memcmp(out_bad, out_erased, sizeof out_bad)) << "trial " << trial;
        EXPECT_EQ(a->prev_erased, 1);
        EXPECT_EQ(a->erasure_count, 1);
    }
}

TEST(FrameDriver, GoodFrameAfterErasuresClearsTheErasureBookkeeping) {
    std::mt19937 rng(46);
    auto st = new_decoder();
    Word16 out[EVRC_FRAME_SIZE];
    EvrcPacket p = evrc_test::random_full_rate_packet(rng);
    evrc_decode(st.get(), &p, out, 0);
    for (int i = 0; i < 3; ++i) {
        EvrcPacket erased = {};
        evrc_decode(st.get(), &erased, out, 0);
    }
    EXPECT_EQ(st->erasure_count, 3);
    EXPECT_EQ(st->prev_erased, 1);
    p = evrc_test::random_half_rate_packet(rng);
    evrc_decode(st.get(), &p, out, 0);
    EXPECT_EQ(st->erasure_count, 0);
    EXPECT_EQ(st->prev_erased, 0);
    EXPECT_EQ(st->prev_rate, EVRC_RATE_HALF);
}

// Decodes one packet on copies of a state and tells whether the outputs match.
bool same_output(const EvrcDecoderState &a, const EvrcDecoderState &b, const EvrcPacket &packet) {
    auto da = new_decoder();
    auto db = new_decoder();
    std::memcpy(da.get(), &a, sizeof a);
    std::memcpy(db.get(), &b, sizeof b);
    EvrcPacket pa = packet, pb = packet;
    Word16 oa[EVRC_FRAME_SIZE], ob[EVRC_FRAME_SIZE];
    evrc_decode(da.get(), &pa, oa, 0);
    evrc_decode(db.get(), &pb, ob, 0);
    return std::memcmp(oa, ob, sizeof oa) == 0;
}

// A delay jump of 16 or more from the previous frame gives a flat contour at
// the new delay; a jump of 15 glides from the previous delay.
TEST(FrameDriver, LargeDelayJumpsAreNotInterpolated) {
    std::mt19937 rng(49);
    auto st = new_decoder();
    for (int f = 0; f < 4; ++f) {
        EvrcPacket p = evrc_test::random_full_rate_packet(rng);
        Word16 out[EVRC_FRAME_SIZE];
        evrc_decode(st.get(), &p, out, 0);
    }
    for (int trial = 0; trial < iterations(10); ++trial) {
        evrc_test::FullRateFields f = evrc_test::random_full_rate_fields(rng);
        f.delay_index = evrc_test::uniform_int(rng, 20, 80);
        const Word16 delay = static_cast<Word16>(f.delay_index + 20);
        const EvrcPacket p = evrc_test::bytes_to_packet(evrc_test::pack_full_rate(f));
        EvrcDecoderState flat = *st;
        flat.prev_delay = delay;
        for (int sign : {-1, 1}) {
            EvrcDecoderState jump = *st;
            jump.prev_delay = static_cast<Word16>(delay + sign * 16);
            EXPECT_TRUE(same_output(jump, flat, p)) << "delay " << delay << " jump " << sign * 16;
            jump.prev_delay = static_cast<Word16>(delay + sign * 15);
            EXPECT_FALSE(same_output(jump, flat, p)) << "delay " << delay << " jump " << sign * 15;
        }
    }
}

// Only a rate 1 frame right after an erasure with a non-zero delta delay
// rebuilds the lost frame's history first.
TEST(FrameDriver, DeltaDelayAfterAnErasureRebuildsTheHistory) {
    std::mt19937 rng(50);
    auto st = new_decoder();
    Word16 out[EVRC_FRAME_SIZE];
    for (int f = 0; f < 3; ++f) {
        EvrcPacket p = evrc_test::random_full_rate_packet(rng);
        evrc_decode(st.get(), &p, out, 0);
    }
    EvrcPacket erased = {};
    evrc_decode(st.get(), &erased, out, 0);
    ASSERT_EQ(st->prev_erased, 1);
    EvrcDecoderState not_erased = *st;
    not_erased.prev_erased = 0;

    evrc_test::FullRateFields f = evrc_test::random_full_rate_fields(rng);
    f.mode_bit = 0;  // keep the LPC bandwidth expansion out of the comparison
    f.delta_delay = 0;
    EXPECT_TRUE(same_output(*st, not_erased, evrc_test::bytes_to_packet(evrc_test::pack_full_rate(f))));
    f.delta_delay = 9;
    EXPECT_FALSE(same_output(*st, not_erased, evrc_test::bytes_to_packet(evrc_test::pack_full_rate(f))));
    // Rate 1/2 carries no delta delay.
    EXPECT_TRUE(same_output(*st, not_erased, evrc_test::random_half_rate_packet(rng)));
}

TEST(FrameDriver, TtyFieldsComeFromTheDelayBitsAtTheRateInForce) {
    std::mt19937 rng(47);
    auto st = new_decoder();
    evrc_init_tty_dec(st.get(), 1);
    Word16 out[EVRC_FRAME_SIZE];

    evrc_test::FullRateFields full = evrc_test::random_full_rate_fields(rng);
    full.delay_index = 0x5A;  // 10 11010
    full.reserved = 1;
    EvrcPacket p = evrc_test::bytes_to_packet(evrc_test::pack_full_rate(full));
    evrc_decode(st.get(), &p, out, 0);
    EXPECT_EQ(st->tty_header, 2);
    EXPECT_EQ(st->tty_data, 0x1A);
    EXPECT_EQ(st->tty_bit, 1);

    // Read even when the frame is rejected and concealed.
    evrc_test::HalfRateFields half = evrc_test::random_half_rate_fields(rng);
    half.delay_index = 0x7F;  // delay 147: rejected
    p = evrc_test::bytes_to_packet(evrc_test::pack_half_rate(half));
    evrc_decode(st.get(), &p, out, 0);
    EXPECT_EQ(st->prev_erased, 1);
    EXPECT_EQ(st->tty_header, 3);
    EXPECT_EQ(st->tty_data, 0x1F);
    EXPECT_EQ(st->tty_bit, 1);  // kept at other rates

    p = evrc_test::random_eighth_rate_packet(rng);
    evrc_decode(st.get(), &p, out, 0);
    EXPECT_EQ(st->tty_header, 0);
    EXPECT_EQ(st->tty_data, 0);
    EXPECT_EQ(st->tty_bit, 1);

    // Without TTY mode the fields are left alone.
    evrc_init_tty_dec(st.get(), 0);
    st->tty_header = 7;
    p = evrc_test::bytes_to_packet(evrc_test::pack_full_rate(full));
    evrc_decode(st.get(), &p, out, 0);
    EXPECT_EQ(st->tty_header, 7);
}

// Random valid speech frames decode to a signal: neither silence nor a wall
// of saturated samples.
TEST(FrameDriver, RandomValidFramesDecodeToAudibleUnsaturatedSignal) {
    std::mt19937 rng(48);
    for (int postfilter_off : {0, 1}) {
        auto st = new_decoder();
        double energy = 0;
        long saturated = 0;
        long samples = 0;
        for (int frame = 0; frame < iterations(300); ++frame) {
            EvrcPacket p = evrc_test::random_any_rate_packet(rng);
            Word16 out[EVRC_FRAME_SIZE];
            evrc_decode(st.get(), &p, out, postfilter_off);
            for (Word16 s : out) {
                energy += static_cast<double>(s) * s;
                saturated += (s >= 32766 || s <= -32767);
                ++samples;
            }
        }
        const double rms = std::sqrt(energy / static_cast<double>(samples));
        EXPECT_GT(rms, 30.0) << "postfilter_off " << postfilter_off;
        EXPECT_LT(saturated, samples / 100) << "postfilter_off " << postfilter_off;
    }
}

}  // namespace
