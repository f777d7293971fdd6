// Frame-level rules of the encoder seen in its packets: the caller's rate
// limits, side information in place of the delay fields, and the delta delay.
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "common.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_enc.h"

namespace {

using namespace enc_spec;

struct Stream {
    std::unique_ptr<EvrcEncoderState> st = std::make_unique<EvrcEncoderState>();
    Rng rng;
    int frame_no = 0;
    explicit Stream(uint64_t seed) : rng(seed) {
        std::memset(st.get(), 0, sizeof *st);
        evrc_init_enc(st.get());
    }
    // Voiced bursts with a drifting pitch, noise and silence, at varying level.
    void next(UWord16 *packet, const UWord16 *side = nullptr) {
        Word16 pcm[160];
        const int kind = (frame_no / 6) % 4;
        const double amp = std::ldexp(1.0, static_cast<int>(rng.in(6, 14))), period = 25 + (frame_no * 7) % 90;
        for (int n = 0; n < 160; ++n) {
            const double t = frame_no * 160 + n;
            const double v = kind == 0 ? 0 : kind == 1 ? amp * (rng.in(-1000, 1000) / 1000.0)
                                                       : amp * (std::fmod(t, period) < 3 ? 1.0 : -0.05);
            pcm[n] = static_cast<Word16>(std::max(-32768.0, std::min(32767.0, v)));
        }
        ++frame_no;
        evrc_encoder(st.get(), pcm, packet, side != nullptr, side);
    }
};

EvrcFrameParams unpack(const UWord16 *packet) {
    EvrcFrameParams fp{};
    const Word16 *bits = reinterpret_cast<const Word16 *>(packet + 1);
    (packet[0] == 4 ? evrc_unpack_full_rate : evrc_unpack_half_rate)(bits, &fp);
    return fp;
}

TEST(DriverRules, RateLimitsHoldForEveryFrame) {
    const int frames = iterations(120);
    Stream capped(1), floored(2);
    evrc_set_enc_params(capped.st.get(), 3, 0, 0, 0, 0, 0);
    evrc_set_enc_params(floored.st.get(), 4, 4, 0, 0, 0, 0);
    UWord16 packet[12];
    for (int f = 0; f < frames; ++f) {
        capped.next(packet);
        ASSERT_TRUE(packet[0] == 1 || packet[0] == 3) << f;
        floored.next(packet);
        ASSERT_EQ(packet[0], 4) << f;
    }
}

TEST(DriverRules, SideInformationReplacesDelayFields) {
    for (const UWord32 max_rate : {3u, 4u}) {
        Stream s(3 + max_rate);
        evrc_set_enc_params(s.st.get(), max_rate, 0, 0, 0, 0, 0);
        auto dec = std::make_unique<EvrcDecoderState>();  // reads the fields back in TTY mode
        std::memset(dec.get(), 0, sizeof *dec);
        evrc_init_dec(dec.get());
        evrc_init_tty_dec(dec.get(), 1);
        for (int f = 0; f < iterations(30); ++f) {
            const UWord16 side[5] = {1, 0xFFFF, static_cast<UWord16>(f & 3), static_cast<UWord16>((5 * f) & 31),
                                     static_cast<UWord16>(f & 1)};
            UWord16 packet[12];
            s.next(packet, side);
            ASSERT_EQ(packet[0], max_rate) << "side information sends every frame at the highest allowed rate";
            const EvrcFrameParams fp = unpack(packet);
            ASSERT_EQ(fp.delay - 20, side[2] << 5 | side[3]);
            ASSERT_EQ(fp.delta_delay, 0);
            for (int k = 0; k < 3; ++k) ASSERT_EQ(fp.acb_gain_index[k], 0);
            EvrcPacket pk;
            std::memcpy(&pk, packet, sizeof pk);
            Word16 pcm[160];
            evrc_decode(dec.get(), &pk, pcm, 0);
            ASSERT_EQ(dec->tty_header, side[2]);
            ASSERT_EQ(dec->tty_data, side[3]);
            if (max_rate == 4) {
                ASSERT_EQ(dec->tty_bit, side[4]) << "final bit";
            }
        }
        EXPECT_EQ(s.st->sMinRate, static_cast<Word16>(max_rate)) << "the raised minimum persists";
        UWord16 packet[12];
        s.next(packet);
        EXPECT_EQ(packet[0], max_rate);
    }
}

TEST(DriverRules, LargeDelayJumpPacksZeroDelta) {
    Stream s(9);
    evrc_set_enc_params(s.st.get(), 4, 4, 0, 0, 0, 0);
    int zero = 0, coded = 0;
    for (int f = 0; f < iterations(90); ++f) {
        const Word16 prev = static_cast<Word16>(s.rng.in(20, 120));
        s.st->sPrevDelay = prev;
        UWord16 packet[12];
        s.next(packet);
        const EvrcFrameParams fp = unpack(packet);
        const int d = fp.delay - prev;
        ASSERT_EQ(fp.delta_delay, std::abs(d) >= 16 ? 0 : d + 16) << f;
        ASSERT_EQ(s.st->sPrevDelay, fp.delay);
        ++(std::abs(d) >= 16 ? zero : coded);
    }
    EXPECT_TRUE(iterations(90) < 90 || (zero > 0 && coded > 0)) << zero << " " << coded;
}

}  // namespace
