// Eighth-rate decoding: gain rows, noise excitation, synthesis path and the
// end-of-frame bookkeeping.
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "tests/dec_conceal/conceal_support.h"
#include "tests/support/random_packets.h"

namespace {

using conceal_test::fresh_state;
using conceal_test::StatePtr;

EvrcFrameParams random_eighth_params(std::mt19937 &rng) {
    EvrcPacket p = evrc_test::random_eighth_rate_packet(rng);
    EvrcFrameParams fp{};
    evrc_unpack(&fp, &p);
    return fp;
}

// The 160 noise samples the frame draws from the state's generator.
std::vector<Word16> frame_noise(EvrcGaussRecord gen) {
    std::vector<Word16> n(EVRC_FRAME_SIZE);
    for (auto &v : n) v = evrc_ran_gaussian(&gen);
    return n;
}

// Excitation of the frame: round(2·g·noise / 2^6 / 2^16) per subframe gain.
std::vector<Word16> excitation_model(const std::vector<Word16> &noise, const Word16 *gains) {
    std::vector<Word16> e(EVRC_FRAME_SIZE);
    for (int i = 0; i < EVRC_FRAME_SIZE; ++i) {
        const int64_t p = (2 * int64_t{gains[i < 53 ? 0 : (i < 106 ? 1 : 2)]} * noise[i]) >> 6;
        e[i] = static_cast<Word16>((p + 0x8000) >> 16);
    }
    return e;
}

class EighthRateGains : public ::testing::TestWithParam<int> {};

// The energy index selects a row of the power codebook, which scales the
// noise of the three subframes and is remembered for concealment; the
// history ends with the newest 128 excitation samples.
TEST_P(EighthRateGains, RowScalesNoiseIntoHistory) {
    std::mt19937 rng(static_cast<uint32_t>(GetParam()));
    StatePtr st = fresh_state();
    conceal_test::fill_history(st.get(), 7, 3000);
    EvrcFrameParams fp = random_eighth_params(rng);
    fp.energy_index = static_cast<Word16>(GetParam());

    const std::vector<Word16> noise = frame_noise(st->gauss);
    EvrcGaussRecord after = st->gauss;
    for (int i = 0; i < EVRC_FRAME_SIZE; ++i) evrc_ran_gaussian(&after);

    Word16 out[EVRC_FRAME_SIZE];
    evrc_decode_8th(st.get(), &fp, out, 0, 0, 1);

    const Word16 *row = evrc_acsPowQuant[GetParam()];
    EXPECT_EQ(st->pow_quant_ptr.ptr, row);
    const std::vector<Word16> exc = excitation_model(noise, row);
    for (int i = 0; i < EVRC_HISTORY_LEN; ++i) ASSERT_EQ(st->exc_history[i], exc[32 + i]) << i;

    EXPECT_EQ(st->gauss.noise_seed, after.noise_seed);
    EXPECT_EQ(st->gauss.gauss_have_spare, after.gauss_have_spare);
    EXPECT_EQ(0, std::memcmp(st->prev_lsp, fp.lsp, sizeof fp.lsp));
    EXPECT_EQ(st->prev_rate, EVRC_RATE_EIGHTH);
    EXPECT_EQ(st->prev_erased, 0);
}

INSTANTIATE_TEST_SUITE_P(Rows, EighthRateGains, ::testing::Values(0, 1, 77, 254, 255));

// Synthesis-only model of a frame: LSPs interpolated from the previous frame,
// all-pole synthesis with the state's memory, then the output shaping.
std::vector<Word16> synthesis_only_model(const EvrcDecoderState &st, const EvrcFrameParams &fp,
                                         const Word16 *gains) {
    const std::vector<Word16> exc = excitation_model(frame_noise(st.gauss), gains);
    Word32 mem[10];
    std::memcpy(mem, st.syn_mem[0], sizeof mem);
    std::vector<Word16> out(EVRC_FRAME_SIZE);
    for (int j = 0; j < 3; ++j) {
        const int L = evrc_acsSubFrameSize[j];
        Word16 lsp[10], lpc[10];
        cmn1x_interpolate_lsp(st.prev_lsp, fp.lsp, lsp, evrc_acsLSPInterpTbl[j]);
        cmn1x_lsp2lpc(lsp, lpc, 3);
        evrc_voc_synthesis_filter(lpc, &exc[53 * j], &out[53 * j], mem, static_cast<Word16>(L));
    }
    conceal_test::gain_adjust_model(out.data());
    return out;
}

// With the post-processing off the output is the synthesis filter's, and
// only postfilter_off = 0 switches it on (2 counts as off here).
TEST(EighthRate, PostprocessingRunsOnlyForZero) {
    std::mt19937 rng(11);
    StatePtr st = fresh_state();
    Word16 out[EVRC_FRAME_SIZE];
    EvrcFrameParams warm = random_eighth_params(rng);
    evrc_decode_8th(st.get(), &warm, out, 0, 0, 0);  // prev_lsp and filter memory from a real frame

    for (int frame = 0; frame < 4; ++frame) {
        EvrcFrameParams fp = random_eighth_params(rng);
        const std::vector<Word16> expect = synthesis_only_model(*st, fp, evrc_acsPowQuant[fp.energy_index]);

        StatePtr off2 = conceal_test::copy_state(*st), on = conceal_test::copy_state(*st);
        EvrcFrameParams fp2 = fp, fp_on = fp;
        Word16 out2[EVRC_FRAME_SIZE], out_on[EVRC_FRAME_SIZE];
        evrc_decode_8th(st.get(), &fp, out, 0, 0, 1);
        evrc_decode_8th(off2.get(), &fp2, out2, 0, 0, 2);
        evrc_decode_8th(on.get(), &fp_on, out_on, 0, 0, 0);

        ASSERT_EQ(std::vector<Word16>(out, out + EVRC_FRAME_SIZE), expect) << "frame " << frame;
        ASSERT_EQ(0, std::memcmp(out, out2, sizeof out));
        ASSERT_EQ(0, std::memcmp(st.get(), off2.get(), sizeof(EvrcDecoderState)));
        EXPECT_NE(0, std::memcmp(out, out_on, sizeof out)) << "post-processing had no effect";
    }
}

}  // namespace
