// Erasure concealment: the concealment called on prepared states against
// wide-integer models of its steps (the thresholds and ramps a decoded
// stream rarely meets exactly), and erasure runs inside decoded streams.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"
#include "tools/random_packets.h"

namespace {

using StatePtr = std::unique_ptr<EvrcDecoderState>;

// A zero-filled, initialised record, as a caller creates one.
StatePtr fresh_state() {
    StatePtr st(new EvrcDecoderState);
    std::memset(st.get(), 0, sizeof(EvrcDecoderState));
    evrc_init_dec(st.get());
    return st;
}

int64_t sat32(int64_t v) { return std::min<int64_t>(std::max<int64_t>(v, INT32_MIN), INT32_MAX); }
int sat16(int64_t v) { return static_cast<int>(std::min<int64_t>(std::max<int64_t>(v, -32768), 32767)); }
// Rounded and truncated Q15 products of non-negative operands.
int mult_r_model(int a, int b) { return static_cast<int>(sat32(2 * int64_t{a} * b + 0x8000) >> 16); }

// Fills the excitation history with a deterministic band-limited signal.
void fill_history(EvrcDecoderState *st, uint32_t seed, int amplitude) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> d(-amplitude, amplitude);
    int prev = 0;
    for (auto &v : st->exc_history) {
        prev = (prev + d(rng)) / 2;
        v = static_cast<Word16>(prev);
    }
}

// ---- concealment on prepared states ----

// A state in the middle of a voiced stretch.
StatePtr voiced_state(Word16 avg_acb_gain, Word16 avg_fcb_gain) {
    StatePtr st = fresh_state();
    fill_history(st.get(), 3, 6000);
    st->prev_delay = 47;
    st->pitch_lag = 47;
    st->acb_gain = 9011;
    st->prev_rate = EVRC_RATE_FULL;
    st->prev_erased = 0;
    st->avg_acb_gain = avg_acb_gain;
    st->avg_fcb_gain = avg_fcb_gain;
    return st;
}

// One concealed frame, post-processing off.
void conceal(EvrcDecoderState *st, Word16 rate) {
    EvrcFrameParams fp{};
    Word16 out[EVRC_FRAME_SIZE];
    evrc_decode_erasure(st, &fp, out, rate, 1, 1);
}

// The excitation a voiced concealment writes into the history: the adaptive
// codebook at the chosen delays, attenuated by avg_acb_gain and the ramp,
// plus optional noise, for the three subframes.
std::vector<Word16> voiced_history_model(const EvrcDecoderState &st0, bool random_delays, const Word16 *noise,
                                         int gn) {
    std::vector<Word16> buf(st0.exc_history, st0.exc_history + EVRC_HISTORY_LEN + EVRC_MAX_SUBFRAME + 10);
    static const Word16 jitter[5] = {55, 80, 39, 71, 33};
    int ramp = st0.prefilter_ramp;
    for (int j = 0; j < 3; ++j) {
        const int L = evrc_acsSubFrameSize[j];
        Word32 points[3];
        for (int i = 0; i < 3; ++i)
            points[i] = static_cast<Word32>((random_delays ? jitter[j + i] : st0.prev_delay) * 65536);
        Word16 *cur = &buf[EVRC_HISTORY_LEN];
        evrc_rx_acb_excitation(points, cur, static_cast<Word16>(L));
        for (int i = 0; i < L; ++i) {
            const int64_t scaled = 4 * int64_t{cur[i]} * st0.avg_acb_gain + 32768;
            const int high = static_cast<int32_t>(static_cast<uint32_t>(scaled)) >> 16;
            int e = mult_r_model(ramp, high);
            if (noise) {
                const int64_t with_noise = sat32(2 * int64_t{noise[i]} * gn +
                                                               sat32(int64_t{e} * 65536 + 32768));
                e = static_cast<int>(with_noise >> 16);
            }
            cur[i] = static_cast<Word16>(e);
        }
        ramp = ramp - 1638 < 0 ? 0 : ramp - 1638;
        std::memmove(buf.data(), buf.data() + L, sizeof(Word16) * EVRC_HISTORY_LEN);
    }
    buf.resize(EVRC_HISTORY_LEN);
    return buf;
}

// Above 4914 the last delay is held; at 4914 and below the delays follow the
// jitter pattern. Below 6554 noise from a generator seeded by twice the tenth
// LSP is added at a tenth of avg_fcb_gain (silent for a zero average); the
// decoder's own generator is not touched. The ramp falls by 1638 per
// concealed subframe and stops at 0.
TEST(ErasureVoiced, DelayChoiceAttenuationAndNoise) {
    const Word16 cases[][2] = {{16000, 5000}, {6554, 5000}, {6553, 12000}, {4915, 0}, {4914, 0}, {3000, 12000}, {1000, 0}};
    for (const auto &c : cases) {
        StatePtr st = voiced_state(c[0], c[1]);
        st->gauss = EvrcGaussRecord{1, 77, 999};
        const EvrcDecoderState before = *st;
        EvrcGaussRecord gen{0, 0, static_cast<Word16>(sat16(2 * int64_t{st->prev_lsp[9]}))};
        Word16 noise[EVRC_MAX_SUBFRAME];
        for (auto &v : noise) v = evrc_ran_gaussian(&gen);
        conceal(st.get(), EVRC_RATE_FULL);
        const bool noisy = c[0] < 6554;
        ASSERT_EQ(std::vector<Word16>(st->exc_history, st->exc_history + EVRC_HISTORY_LEN),
                  voiced_history_model(before, c[0] <= 4914, noisy ? noise : nullptr,
                                                     noisy ? mult_r_model(c[1], 3277) : 0))
            << "avg_acb_gain " << c[0];
        EXPECT_EQ(st->gauss.gauss_have_spare, 1);
        EXPECT_EQ(st->gauss.gauss_spare, 77);
        EXPECT_EQ(st->gauss.noise_seed, 999);
        EXPECT_EQ(st->prefilter_ramp, 32767 - 3 * 1638);
    }
    StatePtr st = voiced_state(8000, 100);
    st->prefilter_ramp = 3000;
    conceal(st.get(), EVRC_RATE_HALF);
    EXPECT_EQ(st->prefilter_ramp, 0);
}

// ---- concealment inside decoded streams ----

// A long run of erasures after voiced speech fades to (near) silence and
// leaves the decoder able to decode the next good frame, which clears the
// erasure bookkeeping.
TEST(ConcealedStream, LongErasureRunFadesOutAndRecovers) {
    for (int postfilter_off : {0, 1}) {
        std::mt19937 rng(21);
        StatePtr st = fresh_state();
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

}  // namespace
