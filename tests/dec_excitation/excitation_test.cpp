// Excitation stages at the edges the decoded streams of the golden test do
// not reach: fixed-codebook fields out of range, and the pitch pre-filter on
// loud signals, odd lags and gains above its cap. Buffers are allocated at
// their exact size so that the address sanitizer sees any stray access. (The
// rebuild of an erased frame's history is pinned by the golden erasure
// streams, which catch planted faults in its delay rule and contour.)
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <vector>

#include "codec/dec/reference_forms.h"
#include "evrc/evrc_dec.h"
#include "tests/support/effects.h"
#include "tests/support/iterations.h"

namespace {

using evrc_test::effects;
using evrc_test::iterations;

int uniform(int lo, int hi) {
    static std::mt19937 gen(12345);
    return std::uniform_int_distribution<int>(lo, hi)(gen);
}

// 128 history samples, then 64 for the subframe and the look-ahead.
constexpr int kHist = 128;
constexpr int kBufLen = 192;

TEST(FixedCodebook, OutOfRangePairsStayInsideTheVector) {
    // Pair values above 120 (rejected by the frame check) never write outside
    // the 55-entry vector (allocated at its exact size for the sanitizer).
    std::unique_ptr<Word16[]> fcb(new Word16[55]);
    for (int x = 0; x < 2048; ++x) {
        const Word16 f = static_cast<Word16>(x & 0xFF), bad[4] = {f, f, f, static_cast<Word16>(x)};
        evrc_dec_fixed_codebook(fcb.get(), bad, EVRC_RATE_FULL);
    }
}

// The exported filter against the operator-by-operator form: output, weight
// and flag, for lags reaching before the history and beyond the subframe.
TEST(PitchPreFilter, MatchesReferenceAndReadsOnlyTheHistory) {
    for (int it = 0; it < iterations(300); ++it) {
        const Word16 L = static_cast<Word16>(53 + uniform(0, 1));
        const Word16 T = static_cast<Word16>(uniform(0, 9) == 0 ? uniform(-5, 200) : uniform(20, 135));
        const Word16 gain = static_cast<Word16>(uniform(0, 3) == 0 ? uniform(16384, 32767) : uniform(0, 16384));
        std::vector<Word16> b(kBufLen), out(L), want(L);  // exact size: anything read outside would be reported
        const int amplitude = uniform(0, 1) ? 32767 : 5000;
        for (Word16 &v : b) v = static_cast<Word16>(uniform(-amplitude, amplitude));
        ASSERT_EQ(
            effects([&] { evrc_pitch_pre_filter(b.data() + kHist + L - 1, T, out.data(), gain, L); }),
            effects([&] { evrc_dec::pitch_pre_filter_reference(b.data(), kBufLen, kHist, T, want.data(), gain, L); }));
        ASSERT_EQ(out, want) << "T=" << T;
    }
}

}  // namespace
