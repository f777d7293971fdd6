// The encoder's rate rules and packet rules. evrc_ratedec over the band
// selection: first frame full, never full straight to eighth, forced eighth,
// both full-rate limiting variants, one-shot noise reset, the clamp to the
// caller's range (applied last), hangover after speech. Whole frames: side
// information replaces the delay fields, the caller's limits hold, and a
// large delay jump packs a zero delta.
#include <cmath>

#include "common.h"

namespace {

using namespace enc_spec;
using Rates = std::vector<int>;

// Rate decisions for frames the selection rates full ('L': a strong low band
// at SNR index 0) or eighth ('S': no energy, SNR index `snr`).
Rates decide(EvrcEncoderState *st, const char *pattern, Word16 snr = 7) {
    Rates rates;
    for (; *pattern; ++pattern) {
        std::memset(st->autocorr, 0, sizeof st->autocorr);
        const bool loud = *pattern == 'L';
        st->autocorr[0] = loud ? 0x40000000 : 0;
        st->snr_index[0] = st->snr_index[1] = loud ? 0 : snr;
        rates.push_back(evrc_ratedec(st));
    }
    return rates;
}

TEST(RateRules, FirstFrameStepDownForcingAndClamp) {
    auto st = new_encoder();
    EXPECT_EQ(decide(st.get(), "SSSLSL"), (Rates{4, 3, 1, 4, 3, 4}));
    EXPECT_EQ(st->sPrevRate, 3);
    evrc_set_enc_params(st.get(), 4, 0, 0, 1, 0, 0);
    EXPECT_EQ(decide(st.get(), "LLL"), (Rates{3, 1, 1})) << "forced eighth steps down through half";
    evrc_set_enc_params(st.get(), 4, 3, 0, 1, 0, 0);
    EXPECT_EQ(decide(st.get(), "LS"), (Rates{3, 3})) << "the minimum is applied after forcing";
    // A minimum above the maximum becomes the maximum; both are the low 16
    // bits of arguments compared as unsigned 32-bit values.
    evrc_set_enc_params(st.get(), 3, 4, 0, 0, 0, 0);
    EXPECT_EQ(st->sMinRate, 3);
    evrc_set_enc_params(st.get(), 0x10004, 3, 0, 0, 0, 0x10001);
    EXPECT_EQ(std::vector<int>({st->sMaxRate, st->sMinRate, st->sSkipNoiseUpdate}), (Rates{4, 3, 1}));
    auto forced = new_encoder(), capped = new_encoder();
    evrc_set_enc_params(forced.get(), 4, 0, 0, 1, 0, 0);
    EXPECT_EQ(decide(forced.get(), "L"), (Rates{1})) << "forcing comes after the first-frame rule";
    evrc_set_enc_params(capped.get(), 3, 1, 0, 0, 0, 0);
    EXPECT_EQ(decide(capped.get(), "SLS"), (Rates{3, 3, 1})) << "the first frame is clamped too";
}

TEST(RateRules, FullRateLimitingVariants) {
    const UWord32 n = 2;
    auto every = new_encoder(), run = new_encoder();
    evrc_set_enc_params(every.get(), 4, 0, 1 | (n << 2), 0, 0, 0);  // counter runs every frame
    EXPECT_EQ(static_cast<UWord32>(every->lRateCtrlFlags), (1u << 14) | (n << 16));
    EXPECT_EQ(decide(every.get(), "LLLLLLSSLL"), (Rates{3, 3, 4, 3, 3, 4, 3, 1, 4, 3}));
    evrc_set_enc_params(run.get(), 4, 0, 3 | (n << 2), 0, 0, 0);  // over consecutive full frames
    EXPECT_EQ(decide(run.get(), "LLLLLLLSLLL"), (Rates{4, 4, 3, 4, 4, 3, 4, 3, 4, 4, 3}));
}

TEST(RateRules, NoiseResetIsOneShot) {
    auto st = new_encoder();
    evrc_set_enc_params(st.get(), 4, 0, 0, 0, 1, 0);
    for (const Word32 expect : {5059644, 7}) {
        st->band_noise[0] = st->band_noise[1] = 7;
        decide(st.get(), "S");
        EXPECT_EQ(std::vector<Word32>(st->band_noise, st->band_noise + 2), std::vector<Word32>(2, expect));
        EXPECT_EQ(st->lRateCtrlFlags, 0);
    }
    EXPECT_EQ(st->sMinRate, 0) << "the rate decision leaves the caller's limits alone";
}

TEST(RateRules, HangoverAfterSpeech) {
    auto st = new_encoder();
    EXPECT_EQ(decide(st.get(), "LLSS"), (Rates{4, 4, 3, 1})) << "none at the first step down after start";
    EXPECT_EQ(st->sFirstFrameDone, 2);
    // 7 extra full frames at a low-band SNR index of 2 or less, 3 at index 3,
    // none from 4; then half, then eighth.
    const int extra[5] = {7, 7, 7, 3, 0};
    for (Word16 snr = 0; snr < 5; ++snr) {
        decide(st.get(), "LL");
        Rates want(extra[snr], 4);
        want.insert(want.end(), {3, 1});
        EXPECT_EQ(decide(st.get(), std::string(want.size(), 'S').c_str(), snr), want) << "SNR index " << snr;
    }
}

// ---- Whole frames -------------------------------------------------------------

struct Stream {
    std::unique_ptr<EvrcEncoderState> st = new_encoder();
    Rng rng;
    int frame_no = 0;
    explicit Stream(uint64_t seed) : rng(seed) {}
    // Silence, noise and pulse trains of drifting pitch, at varying level.
    void next(UWord16 *packet, const UWord16 *side = nullptr) {
        Word16 pcm[160];
        const int kind = (frame_no / 6) % 4;
        const double amp = std::ldexp(1.0, static_cast<int>(rng.in(6, 14))), period = 25 + (frame_no * 7) % 90;
        for (int n = 0; n < 160; ++n) {
            const double t = frame_no * 160 + n;
            const double v = kind == 0 ? 0 : kind == 1 ? amp * static_cast<double>(rng.in(-1000, 1000)) / 1000
                                                       : amp * (std::fmod(t, period) < 3 ? 1.0 : -0.05);
            pcm[n] = static_cast<Word16>(std::max(-32768.0, std::min(32767.0, v)));
        }
        ++frame_no;
        evrc_encoder(st.get(), pcm, packet, side != nullptr, side);
    }
};

EvrcFrameParams unpack(const UWord16 *packet) {
    EvrcFrameParams fp{};
    (packet[0] == 4 ? evrc_unpack_full_rate : evrc_unpack_half_rate)(reinterpret_cast<const Word16 *>(packet + 1), &fp);
    return fp;
}

TEST(FrameRules, SideInformationReplacesDelayFields) {
    for (const UWord32 max_rate : {3u, 4u}) {
        Stream s(3 + max_rate);
        evrc_set_enc_params(s.st.get(), max_rate, 0, 0, 0, 0, 0);
        auto dec = std::make_unique<EvrcDecoderState>();  // reads the fields back in TTY mode
        std::memset(dec.get(), 0, sizeof *dec);
        evrc_init_dec(dec.get());
        evrc_init_tty_dec(dec.get(), 1);
        UWord16 packet[12];
        for (int f = 0; f < iterations(30); ++f) {
            const UWord16 side[5] = {1, 0xFFFF, static_cast<UWord16>(f & 3), static_cast<UWord16>((5 * f) & 31),
                                     static_cast<UWord16>(f & 1)};
            s.next(packet, side);
            ASSERT_EQ(packet[0], max_rate) << "every such frame at the highest allowed rate";
            const EvrcFrameParams fp = unpack(packet);
            ASSERT_EQ(fp.delta_delay, 0);
            for (int k = 0; k < 3; ++k) ASSERT_EQ(fp.acb_gain_index[k], 0);
            EvrcPacket pk;
            std::memcpy(&pk, packet, sizeof pk);
            Word16 pcm[160];
            evrc_decode(dec.get(), &pk, pcm, 0);
            ASSERT_EQ(std::vector<int>({dec->tty_header, dec->tty_data}), std::vector<int>({side[2], side[3]}));
            ASSERT_EQ(dec->tty_bit, max_rate == 4 ? side[4] : 0) << "final bit";
        }
        EXPECT_EQ(s.st->sMinRate, static_cast<Word16>(max_rate)) << "the raised minimum persists";
        s.next(packet);
        EXPECT_EQ(packet[0], max_rate);
    }
}

// A minimum of full rate makes every packet full, a maximum of half none;
// a delay jump of 16 or more packs a zero delta and moves the previous delay.
TEST(FrameRules, RateLimitsAndDeltaDelay) {
    Stream s(9), capped(10);
    evrc_set_enc_params(s.st.get(), 4, 4, 0, 0, 0, 0);
    evrc_set_enc_params(capped.st.get(), 3, 0, 0, 0, 0, 0);
    int jumps = 0;
    for (int f = 0; f < iterations(90); ++f) {
        UWord16 packet[12];
        capped.next(packet);
        ASSERT_TRUE(packet[0] == 1 || packet[0] == 3) << f;
        const Word16 prev = static_cast<Word16>(s.rng.in(20, 120));
        s.st->sPrevDelay = prev;
        s.next(packet);
        ASSERT_EQ(packet[0], 4) << f;
        const EvrcFrameParams fp = unpack(packet);
        const int d = fp.delay - prev;
        ASSERT_EQ(fp.delta_delay, std::abs(d) >= 16 ? 0 : d + 16) << f;
        ASSERT_EQ(s.st->sPrevDelay, fp.delay);
        jumps += std::abs(d) >= 16;
    }
    EXPECT_TRUE(iterations(90) < 90 || (jumps > 0 && jumps < 90)) << jumps;
}

}  // namespace
