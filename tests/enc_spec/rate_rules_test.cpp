// The rate rules evrc_ratedec lays over the band-energy selection: first
// frame full, never full straight to eighth, the forced-eighth flag, both
// full-rate limiting variants, the one-shot noise reset, the clamp to the
// caller's range (applied last), and the hangover after speech.
#include <cstring>
#include <memory>
#include <vector>

#include "common.h"
#include "evrc/evrc_enc.h"

namespace {

struct Encoder {
    std::unique_ptr<EvrcEncoderState> st = std::make_unique<EvrcEncoderState>();
    Encoder() {
        std::memset(st.get(), 0, sizeof *st);
        evrc_init_enc(st.get());
    }
    // One rate decision for a frame the selection rates full (loud: a strong
    // low band, SNR index 0) or eighth (silent: no energy).
    Word16 frame(bool loud, Word16 silent_snr = 7) {
        std::memset(st->autocorr, 0, sizeof st->autocorr);
        st->autocorr[0] = loud ? 0x40000000 : 0;
        st->snr_index[0] = st->snr_index[1] = loud ? 0 : silent_snr;
        return evrc_ratedec(st.get());
    }
    std::vector<int> frames(const char *pattern) {  // 'L' loud, 'S' silent
        std::vector<int> rates;
        for (; *pattern; ++pattern) rates.push_back(frame(*pattern == 'L'));
        return rates;
    }
};

using Rates = std::vector<int>;

TEST(RateRules, FirstFrameFullAndNoFullToEighthStep) {
    Encoder e;
    EXPECT_EQ(e.frames("SSSLS"), (Rates{4, 3, 1, 4, 3}));
    EXPECT_EQ(e.st->sPrevRate, 4);
    EXPECT_EQ(e.st->sRate, 3);
    Encoder capped;
    evrc_set_enc_params(capped.st.get(), 3, 1, 0, 0, 0, 0);
    EXPECT_EQ(capped.frames("SLS"), (Rates{3, 3, 1})) << "the first-frame rule is clamped too";
}

TEST(RateRules, ForcedEighthAndClampOrder) {
    Encoder e;
    EXPECT_EQ(e.frame(true), 4);
    evrc_set_enc_params(e.st.get(), 4, 0, 0, 1, 0, 0);
    EXPECT_EQ(e.frames("LLL"), (Rates{3, 1, 1})) << "forced eighth still steps down through half";
    evrc_set_enc_params(e.st.get(), 4, 3, 0, 1, 0, 0);
    EXPECT_EQ(e.frames("LS"), (Rates{3, 3})) << "the minimum rate is applied after forcing";
    Encoder first;
    evrc_set_enc_params(first.st.get(), 4, 0, 0, 1, 0, 0);
    EXPECT_EQ(first.frame(true), 1) << "forcing comes after the first-frame rule";
    // Limits: a minimum above the maximum becomes the maximum; both are the
    // low 16 bits of 32-bit arguments compared unsigned.
    evrc_set_enc_params(e.st.get(), 3, 4, 0, 0, 0, 0);
    EXPECT_EQ(e.st->sMinRate, 3);
    evrc_set_enc_params(e.st.get(), 0x10004, 3, 0, 0, 0, 0x10001);
    EXPECT_EQ(e.st->sMaxRate, 4);
    EXPECT_EQ(e.st->sMinRate, 3);
    EXPECT_EQ(e.st->sSkipNoiseUpdate, 1);
    EXPECT_EQ(e.frames("SL"), (Rates{3, 4}));
}

TEST(RateRules, FullRateLimitingVariants) {
    const UWord32 n = 2;
    Encoder every;  // counter runs every frame; full passes once it exceeds N
    evrc_set_enc_params(every.st.get(), 4, 0, 1 | (n << 2), 0, 0, 0);
    EXPECT_EQ(static_cast<UWord32>(every.st->lRateCtrlFlags), (1u << 14) | (n << 16));
    EXPECT_EQ(every.frames("LLLLLLSSLL"), (Rates{3, 3, 4, 3, 3, 4, 3, 1, 4, 3}));
    Encoder run;  // counter runs over consecutive full frames; the (N+1)-th is demoted
    evrc_set_enc_params(run.st.get(), 4, 0, 3 | (n << 2), 0, 0, 0);
    EXPECT_EQ(run.frames("LLLLLLLSLLL"), (Rates{4, 4, 3, 4, 4, 3, 4, 3, 4, 4, 3}));
    EXPECT_EQ(run.st->sFullRateCount, 0);
}

TEST(RateRules, NoiseResetIsOneShot) {
    Encoder e;
    evrc_set_enc_params(e.st.get(), 4, 0, 0, 0, 1, 0);
    EXPECT_EQ(e.st->lRateCtrlFlags, 1 << 12);
    e.st->band_noise[0] = e.st->band_noise[1] = 7;
    e.frame(false);
    EXPECT_EQ(e.st->band_noise[0], 5059644);
    EXPECT_EQ(e.st->band_noise[1], 5059644);
    EXPECT_EQ(e.st->lRateCtrlFlags, 0);
    e.st->band_noise[0] = e.st->band_noise[1] = 7;
    e.frame(false);
    EXPECT_EQ(e.st->band_noise[0], 7);
    EXPECT_EQ(e.st->sMinRate, 0) << "rate decision leaves the caller's limits alone";
}

TEST(RateRules, HangoverAfterSpeech) {
    Encoder e;
    // The first speech-to-silence step after start gets no hangover.
    EXPECT_EQ(e.frames("LLSS"), (Rates{4, 4, 3, 1}));
    EXPECT_EQ(e.st->sFirstFrameDone, 2);
    // Later: 7 extra full frames at a low-band SNR index of 2 or less, 3 at 3,
    // none at 4 or more; then half, then eighth.
    const Word16 snr[3] = {2, 3, 4};
    const int extra[3] = {7, 3, 0};
    for (int c = 0; c < 3; ++c) {
        e.frames("LL");
        Rates got, want(extra[c], 4);
        want.push_back(3);
        want.push_back(1);
        for (int i = 0; i < extra[c] + 2; ++i) got.push_back(e.frame(false, snr[c]));
        EXPECT_EQ(got, want) << "SNR index " << snr[c];
    }
}

}  // namespace
