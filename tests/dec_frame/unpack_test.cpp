// Packet unpacking, erasure detection and the checks that reject packets.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"
#include "tests/dec_frame/frame_test_util.h"
#include "tests/support/random_packets.h"

namespace {

using dec_frame_test::iterations;
using dec_frame_test::reference_field;

constexpr Word16 kUntouched = 0x5A5A;

EvrcFrameParams untouched_params() {
    EvrcFrameParams fp;
    Word16 *w = &fp.mode_bit;
    for (int i = 0; i < 33; ++i) w[i] = kUntouched;
    fp.bad_frame = 0;
    return fp;
}

void expect_rows(const Word16 *lsp, const Word16 *row, int len) {
    for (int i = 0; i < len; ++i) EXPECT_EQ(lsp[i], row[i]) << "lsp " << i;
}

TEST(Unpack, FullRateFieldsLandWhereTheyWerePacked) {
    std::mt19937 rng(11);
    for (int it = 0; it < iterations(300); ++it) {
        const evrc_test::FullRateFields f = evrc_test::random_full_rate_fields(rng);
        EvrcPacket p = evrc_test::bytes_to_packet(evrc_test::pack_full_rate(f));
        EvrcFrameParams fp = untouched_params();
        ASSERT_EQ(evrc_unpack(&fp, &p), 0);
        EXPECT_EQ(fp.mode_bit, f.mode_bit);
        expect_rows(&fp.lsp[0], evrc_acsLspVQFull1[f.lsp_index[0]], 2);
        expect_rows(&fp.lsp[2], evrc_acsLspVQFull2[f.lsp_index[1]], 2);
        expect_rows(&fp.lsp[4], evrc_acsLspVQFull3[f.lsp_index[2]], 3);
        expect_rows(&fp.lsp[7], evrc_acsLspVQFull4[f.lsp_index[3]], 3);
        EXPECT_EQ(fp.delay, f.delay_index + 20);
        EXPECT_EQ(fp.delta_delay, f.delta_delay);
        for (int k = 0; k < 3; ++k) {
            EXPECT_EQ(fp.acb_gain_index[k], f.acb_gain_index[k]);
            for (int j = 0; j < 4; ++j) EXPECT_EQ(fp.fcb_index[k][j], f.fcb_index[k][j]);
            EXPECT_EQ(fp.fcb_gain_index[k], f.fcb_gain_index[k]);
        }
        EXPECT_EQ(fp.energy_index, kUntouched);
        EXPECT_EQ(evrc_check_fcb_indices(&fp, EVRC_RATE_FULL, 0), 0);
    }
}

// The packers of the test support write what the unpacker reads: rate 1/2
// and rate 1/8 leave the fields of other rates alone.
TEST(Unpack, HalfAndEighthRateFieldsLandWhereTheyWerePacked) {
    std::mt19937 rng(12);
    for (int it = 0; it < iterations(200); ++it) {
        const evrc_test::HalfRateFields h = evrc_test::random_half_rate_fields(rng);
        EvrcPacket p = evrc_test::bytes_to_packet(evrc_test::pack_half_rate(h));
        EvrcFrameParams fp = untouched_params();
        ASSERT_EQ(evrc_unpack(&fp, &p), 0);
        expect_rows(&fp.lsp[0], evrc_acsLspVQHalf1[h.lsp_index[0]], 3);
        expect_rows(&fp.lsp[3], evrc_acsLspVQHalf2[h.lsp_index[1]], 3);
        expect_rows(&fp.lsp[6], evrc_acsLspVQHalf3[h.lsp_index[2]], 4);
        EXPECT_EQ(fp.delay, h.delay_index + 20);
        for (int k = 0; k < 3; ++k) {
            EXPECT_EQ(fp.acb_gain_index[k], h.acb_gain_index[k]);
            EXPECT_EQ(fp.fcb_index[k][0], h.fcb_index[k]);
            EXPECT_EQ(fp.fcb_gain_index[k], h.fcb_gain_index[k]);
        }
        EXPECT_EQ(fp.mode_bit, kUntouched);
        EXPECT_EQ(fp.delta_delay, kUntouched);
        EXPECT_EQ(fp.energy_index, kUntouched);

        const evrc_test::EighthRateFields e = evrc_test::random_eighth_rate_fields(rng);
        p = evrc_test::bytes_to_packet(evrc_test::pack_eighth_rate(e));
        fp = untouched_params();
        ASSERT_EQ(evrc_unpack(&fp, &p), 0);
        expect_rows(&fp.lsp[0], evrc_acsLspVQEighth1[e.lsp_index[0]], 5);
        expect_rows(&fp.lsp[5], evrc_acsLspVQEighth2[e.lsp_index[1]], 5);
        EXPECT_EQ(fp.energy_index, e.energy_index);
        EXPECT_EQ(fp.delay, kUntouched);
        EXPECT_EQ(fp.mode_bit, kUntouched);
    }
}

// Arbitrary data words, valid or not: every field must equal the bits a
// one-bit-at-a-time reader finds at its position.
TEST(Unpack, FieldsOfArbitraryBitsMatchABitByBitReader) {
    std::mt19937 rng(14);
    std::uniform_int_distribution<int> word(-32768, 32767);
    for (int it = 0; it < iterations(300); ++it) {
        Word16 data[11];
        for (Word16 &d : data) d = static_cast<Word16>(word(rng));

        EvrcFrameParams fp = {};
        evrc_unpack_full_rate(data, &fp);
        EXPECT_EQ(fp.mode_bit, reference_field(data, 0, 1));
        EXPECT_EQ(fp.lsp[0], evrc_acsLspVQFull1[reference_field(data, 1, 6)][0]);
        EXPECT_EQ(fp.lsp[4], evrc_acsLspVQFull3[reference_field(data, 13, 9)][0]);
        EXPECT_EQ(fp.lsp[9], evrc_acsLspVQFull4[reference_field(data, 22, 7)][2]);
        EXPECT_EQ(fp.delay, reference_field(data, 29, 7) + 20);
        EXPECT_EQ(fp.delta_delay, reference_field(data, 36, 5));
        for (int k = 0; k < 3; ++k) {
            const int base = 41 + 43 * k;
            EXPECT_EQ(fp.acb_gain_index[k], reference_field(data, base, 3));
            EXPECT_EQ(fp.fcb_index[k][0], reference_field(data, base + 3, 8));
            EXPECT_EQ(fp.fcb_index[k][1], reference_field(data, base + 11, 8));
            EXPECT_EQ(fp.fcb_index[k][2], reference_field(data, base + 19, 8));
            EXPECT_EQ(fp.fcb_index[k][3], reference_field(data, base + 27, 11));
            EXPECT_EQ(fp.fcb_gain_index[k], reference_field(data, base + 38, 5));
        }

        fp = {};
        evrc_unpack_half_rate(data, &fp);
        EXPECT_EQ(fp.lsp[0], evrc_acsLspVQHalf1[reference_field(data, 0, 7)][0]);
        EXPECT_EQ(fp.lsp[3], evrc_acsLspVQHalf2[reference_field(data, 7, 7)][0]);
        EXPECT_EQ(fp.lsp[9], evrc_acsLspVQHalf3[reference_field(data, 14, 8)][3]);
        EXPECT_EQ(fp.delay, reference_field(data, 22, 7) + 20);
        for (int k = 0; k < 3; ++k) {
            const int base = 29 + 17 * k;
            EXPECT_EQ(fp.acb_gain_index[k], reference_field(data, base, 3));
            EXPECT_EQ(fp.fcb_index[k][0], reference_field(data, base + 3, 10));
            EXPECT_EQ(fp.fcb_gain_index[k], reference_field(data, base + 13, 4));
        }

        fp = {};
        evrc_unpack_one_eigth_rate(data, &fp);
        EXPECT_EQ(fp.lsp[0], evrc_acsLspVQEighth1[reference_field(data, 0, 4)][0]);
        EXPECT_EQ(fp.lsp[5], evrc_acsLspVQEighth2[reference_field(data, 4, 4)][0]);
        EXPECT_EQ(fp.energy_index, reference_field(data, 8, 8));
    }
}

TEST(Unpack, OnlyTheLowFourBitsOfTheRateWordChooseTheLayout) {
    std::mt19937 rng(15);
    EvrcPacket p = evrc_test::random_full_rate_packet(rng);
    EvrcFrameParams plain = {};
    evrc_unpack(&plain, &p);
    p.rate = 0x0F4;  // low four bits: rate 1
    EvrcFrameParams high_bits = {};
    EXPECT_EQ(evrc_unpack(&high_bits, &p), 0);
    EXPECT_EQ(0, std::memcmp(&plain, &high_bits, sizeof plain));

    for (Word16 rate : {0, 2, 5, 15}) {
        p.rate = rate;
        EvrcFrameParams fp = {};
        EXPECT_EQ(evrc_unpack(&fp, &p), 1) << "rate " << rate;
    }
}

TEST(Unpack, DelayIndex100IsAcceptedAnd101Rejected) {
    std::mt19937 rng(16);
    evrc_test::FullRateFields full = evrc_test::random_full_rate_fields(rng);
    evrc_test::HalfRateFields half = evrc_test::random_half_rate_fields(rng);
    for (int index : {100, 101, 127}) {
        const Word16 expect_bad = index > 100 ? 1 : 0;
        full.delay_index = index;
        half.delay_index = index;
        EvrcPacket pf = evrc_test::bytes_to_packet(evrc_test::pack_full_rate(full));
        EvrcPacket ph = evrc_test::bytes_to_packet(evrc_test::pack_half_rate(half));
        EvrcFrameParams fp = {};
        EXPECT_EQ(evrc_unpack(&fp, &pf), expect_bad) << "rate 1, index " << index;
        EXPECT_EQ(fp.delay, index + 20);
        fp = {};
        EXPECT_EQ(evrc_unpack(&fp, &ph), expect_bad) << "rate 1/2, index " << index;
    }
}

TEST(Unpack, OrderCheckRejectsEqualAndDescendingNeighbours) {
    EvrcFrameParams fp = {};
    for (int i = 0; i < 10; ++i) fp.lsp[i] = static_cast<Word16>(1000 * (i + 1));
    evrc_check_lsps(&fp);
    EXPECT_EQ(fp.bad_frame, 0);
    for (int i = 0; i < 9; ++i) {
        for (int delta : {0, -1}) {
            EvrcFrameParams bad = fp;
            bad.lsp[i + 1] = static_cast<Word16>(bad.lsp[i] + delta);
            evrc_check_lsps(&bad);
            EXPECT_EQ(bad.bad_frame, 1) << "pair " << i << " delta " << delta;
        }
    }
}

// Two rows of adjacent rate-1 codebooks whose boundary LSPs are equal make an
// otherwise ascending packet bad.
TEST(Unpack, EqualLspsAcrossTwoCodebooksRejectThePacket) {
    int row1 = -1, row2 = -1;
    for (int i = 0; i < 64 && row1 < 0; ++i) {
        for (int j = 0; j < 64 && row1 < 0; ++j) {
            if (evrc_acsLspVQFull1[i][1] == evrc_acsLspVQFull2[j][0] &&
                evrc_acsLspVQFull1[i][0] < evrc_acsLspVQFull1[i][1] &&
                evrc_acsLspVQFull2[j][0] < evrc_acsLspVQFull2[j][1]) {
                row1 = i;
                row2 = j;
            }
        }
    }
    ASSERT_GE(row1, 0) << "no rate-1 rows with equal boundary LSPs";

    std::mt19937 rng(17);
    for (int attempt = 0; attempt < 10000; ++attempt) {
        evrc_test::FullRateFields f = evrc_test::random_full_rate_fields(rng);
        f.lsp_index[0] = row1;
        f.lsp_index[1] = row2;
        EvrcPacket p = evrc_test::bytes_to_packet(evrc_test::pack_full_rate(f));
        EvrcFrameParams fp = {};
        const Word16 bad = evrc_unpack(&fp, &p);
        bool rest_ascending = true;
        for (int i = 0; i < 9; ++i) rest_ascending = rest_ascending && (i == 1 || fp.lsp[i] < fp.lsp[i + 1]);
        if (!rest_ascending) continue;
        ASSERT_EQ(fp.lsp[1], fp.lsp[2]);
        EXPECT_EQ(bad, 1);
        return;
    }
    FAIL() << "no ascending continuation found";
}

TEST(Unpack, FixedCodebookCheckLooksAtTheLowSevenBitsOnly) {
    std::mt19937 rng(18);
    const evrc_test::FullRateFields f = evrc_test::random_full_rate_fields(rng);
    EvrcPacket p = evrc_test::bytes_to_packet(evrc_test::pack_full_rate(f));
    EvrcFrameParams good = {};
    ASSERT_EQ(evrc_unpack(&good, &p), 0);
    for (int k = 0; k < 3; ++k) {
        for (int j = 0; j < 4; ++j) {
            EvrcFrameParams fp = good;
            fp.fcb_index[k][j] = 0x79;  // 121
            EXPECT_EQ(evrc_check_fcb_indices(&fp, EVRC_RATE_FULL, 0), 1) << k << "," << j;
            fp.fcb_index[k][j] = 0xF8;  // low seven bits 120
            EXPECT_EQ(evrc_check_fcb_indices(&fp, EVRC_RATE_FULL, 0), 0) << k << "," << j;
            fp.fcb_index[k][j] = j == 3 ? 0x7F8 : 0xF8;  // extra 11-bit field bits are free
            EXPECT_EQ(evrc_check_fcb_indices(&fp, EVRC_RATE_FULL, 0), 0) << k << "," << j;
        }
    }
    EvrcFrameParams fp = good;
    fp.fcb_index[1][2] = 0x7F;
    EXPECT_EQ(evrc_check_fcb_indices(&fp, EVRC_RATE_HALF, 0), 0);  // only rate 1 is checked
    EXPECT_EQ(evrc_check_fcb_indices(&good, EVRC_RATE_FULL, 1), 1);  // a bad frame stays bad
}

struct FerCase {
    Word16 rate;
    Word16 first_word;
    Word16 prev_rate;
    Word16 prev_erased;
    Word16 conceal;
    Word16 rate_after;
};

TEST(FerDetect, ChoosesDecodeOrConcealmentAndTheRateToConcealAs) {
    const FerCase cases[] = {
        {EVRC_RATE_FULL, 0, EVRC_RATE_EIGHTH, 1, 0, EVRC_RATE_FULL},
        {EVRC_RATE_HALF, -1, EVRC_RATE_FULL, 0, 0, EVRC_RATE_HALF},
        {EVRC_RATE_EIGHTH, 0x1234, EVRC_RATE_HALF, 0, 0, EVRC_RATE_EIGHTH},
        {EVRC_RATE_EIGHTH, 0x1234, EVRC_RATE_FULL, 1, 0, EVRC_RATE_EIGHTH},
        // Rate 1/8 straight after a good rate 1 frame.
        {EVRC_RATE_EIGHTH, 0x1234, EVRC_RATE_FULL, 0, 1, EVRC_RATE_FULL},
        // All-ones rate 1/8: erasure, concealed by the previous-rate rule.
        {EVRC_RATE_EIGHTH, -1, EVRC_RATE_EIGHTH, 0, 1, EVRC_RATE_EIGHTH},
        {EVRC_RATE_EIGHTH, -1, EVRC_RATE_HALF, 0, 1, EVRC_RATE_FULL},
        // The whole rate word is compared.
        {0x0013, 0, EVRC_RATE_FULL, 0, 1, EVRC_RATE_FULL},
        {0x0013, 0, EVRC_RATE_EIGHTH, 0, 1, EVRC_RATE_EIGHTH},
        {0x0104, 0, EVRC_RATE_HALF, 0, 1, EVRC_RATE_FULL},
        {EVRC_RATE_BLANK, 0, EVRC_RATE_HALF, 0, 1, EVRC_RATE_FULL},
        {EVRC_RATE_QUARTER, 0, EVRC_RATE_EIGHTH, 1, 1, EVRC_RATE_EIGHTH},
        {7, 0, EVRC_RATE_FULL, 1, 1, EVRC_RATE_FULL},
    };
    for (const FerCase &c : cases) {
        EvrcPacket p = {};
        p.rate = c.rate;
        p.data[0] = c.first_word;
        EXPECT_EQ(evrc_fer_detect(&p, c.prev_rate, c.prev_erased, c.first_word), c.conceal)
            << "rate word " << c.rate << " prev " << c.prev_rate;
        EXPECT_EQ(p.rate, c.rate_after) << "rate word " << c.rate << " prev " << c.prev_rate;
    }
}

TEST(FerDetect, DetectAndUnpackUsesTheStateButSkipsTheCodebookCheck) {
    auto st = dec_frame_test::new_decoder();
    std::mt19937 rng(19);
    evrc_test::FullRateFields f = evrc_test::random_full_rate_fields(rng);
    f.fcb_index[0][0] = 0x79;
    EvrcPacket p = evrc_test::bytes_to_packet(evrc_test::pack_full_rate(f));
    EvrcFrameParams fp = {};
    EXPECT_EQ(evrc_fer_detect_and_unpack(st.get(), &fp, &p), 0);

    st->prev_rate = EVRC_RATE_EIGHTH;
    EvrcPacket blank = {};
    EXPECT_EQ(evrc_fer_detect_and_unpack(st.get(), &fp, &blank), 1);
    EXPECT_EQ(blank.rate, EVRC_RATE_EIGHTH);

    // No restart here: rate 1/8 after rate 1 is an erasure concealed as rate 1.
    st->prev_rate = EVRC_RATE_FULL;
    EvrcPacket eighth = evrc_test::random_eighth_rate_packet(rng);
    EXPECT_EQ(evrc_fer_detect_and_unpack(st.get(), &fp, &eighth), 1);
    EXPECT_EQ(eighth.rate, EVRC_RATE_FULL);
    EXPECT_EQ(st->prev_rate, EVRC_RATE_FULL);
}

}  // namespace
