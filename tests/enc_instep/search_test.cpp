// The fixed-codebook search's indices, read back by the decoder's own
// codebook, recover codevectors placed in the target.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "evrc/evrc_dec.h"
#include "evrc/evrc_enc.h"
#include "evrc/evrc_tables.h"
#include "tests/support/iterations.h"

namespace {

// With a unit impulse response and no sharpening (lag beyond the subframe)
// the target is the codevector itself; the search must find every pulse of
// a codevector of its own codebook, and the decoder must read them back.
TEST(CodebookStages, FixedCodebookRecoversItsOwnCodevectors) {
    std::mt19937 rng(9);
    Word16 h[54] = {2048};
    for (int it = 0; it < evrc_test::iterations(300); ++it) {
        const Word16 rate = it % 3 == 0 ? EVRC_RATE_HALF : EVRC_RATE_FULL;
        Word16 fields[4];
        if (rate == EVRC_RATE_FULL) {
            for (int i = 0; i < 3; ++i) fields[i] = static_cast<Word16>((rng() & 0x80) | (rng() % 121));
            fields[3] = static_cast<Word16>(((rng() % 4) << 9) | (rng() & 0x180) | (rng() % 121));
        } else {
            fields[0] = static_cast<Word16>(rng() & 0x3FF);
        }
        Word16 pulses[55];
        evrc_dec_fixed_codebook(pulses, fields, rate);
        Word16 x[54];
        for (int n = 0; n < 54; ++n) x[n] = static_cast<Word16>(pulses[n] / 4);
        // Distinct single pulses only: a double pulse leaves its track with
        // one position, like the single-pulse tracks.
        const bool distinct = std::count_if(pulses, pulses + 54, [](Word16 p) { return p == 2048 || p == -2048; }) ==
                              (rate == EVRC_RATE_FULL ? 8 : 3);
        if (pulses[54] != 0 || !distinct) continue;
        Word16 found_fields[4] = {};
        const Word16 gain = evrc_acelp(x, nullptr, h, 0, 200, rate, 54, found_fields);
        Word16 found[55];
        evrc_dec_fixed_codebook(found, found_fields, rate);
        for (int n = 0; n < 54; ++n) ASSERT_EQ(pulses[n], found[n]) << "iteration " << it << " sample " << n;
        // Unit pulse 2048 filtered to 2048, target 512: g / 2^15 * 2048 = 512.
        const int entry = rate == EVRC_RATE_FULL ? gain : 2 * gain + 1;
        EXPECT_NEAR(std::log(evrc_acsFcbGainVQFull[entry] / 8192.0), 0.0, 0.16) << "iteration " << it;
    }
}

}  // namespace
