// Fixed codebook: random pulse sets are encoded into index fields by an
// independent encoder of the field layout and must decode back to the same
// vector; pitch sharpening and the gain combination against wide models.
#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <vector>

#include "evrc/evrc_dec.h"
#include "excitation_test_util.h"

using namespace exc_test;

namespace {

using Vec = std::array<int, 55>;

struct Pulse {
    int pos;   // index on the track, 0..10
    int sign;  // +1 or -1
};

// Two pulses of one track as the 8 low bits of a pair field: first position
// a, second b; the sign bit is that of the pulse at a, and b > a means the
// second pulse has the same sign, b < a the opposite one.
int encode_pair(Pulse p, Pulse q) {
    int a, b, sign;
    if (p.pos == q.pos) {
        a = b = p.pos;
        sign = p.sign;  // same sign required for a double pulse
    } else if (p.sign == q.sign) {
        a = std::min(p.pos, q.pos);
        b = std::max(p.pos, q.pos);
        sign = p.sign;
    } else {
        const Pulse &hi = p.pos > q.pos ? p : q;
        const Pulse &lo = p.pos > q.pos ? q : p;
        a = hi.pos;
        b = lo.pos;
        sign = hi.sign;
    }
    return (sign < 0 ? 0x80 : 0) | (11 * a + b);
}

Pulse random_pulse() { return {uniform(0, 10), uniform(0, 1) ? 1 : -1}; }

Vec decode(const Word16 *fields, int rate) {
    std::unique_ptr<Word16[]> fcb(new Word16[55]);  // exact size for the sanitizer
    for (int i = 0; i < 55; ++i) fcb[i] = 777;
    evrc_dec_fixed_codebook(fcb.get(), fields, static_cast<Word16>(rate));
    Vec v;
    for (int i = 0; i < 55; ++i) v[i] = fcb[i];
    return v;
}

}  // namespace

TEST(FixedCodebook, FullRatePulsesRoundTripThroughTheFieldLayout) {
    for (int it = 0; it < iterations(); ++it) {
        const int ts = uniform(0, 3);
        Vec expect{};
        Word16 f[4];
        for (int i = 0; i < 3; ++i) {
            const int track = (ts + i) % 5;
            Pulse p = random_pulse(), q = random_pulse();
            if (p.pos == q.pos) q.sign = p.sign;
            f[i] = static_cast<Word16>(encode_pair(p, q) | (uniform(0, 1) ? 0xFF00 : 0));  // high bits ignored
            expect[track + 5 * p.pos] += 2048 * p.sign;
            expect[track + 5 * q.pos] += 2048 * q.sign;
        }
        const Pulse p = random_pulse(), q = random_pulse();
        f[3] = static_cast<Word16>((ts << 9) | (p.sign < 0 ? 0x100 : 0) | (q.sign < 0 ? 0x80 : 0) | (11 * p.pos + q.pos));
        expect[(ts + 3) % 5 + 5 * p.pos] += 2048 * p.sign;
        expect[(ts + 4) % 5 + 5 * q.pos] += 2048 * q.sign;
        ASSERT_EQ(decode(f, EVRC_RATE_FULL), expect) << "it=" << it;
    }
}

TEST(FixedCodebook, OutOfRangePairsStayInsideTheVector) {
    // Pair values above 120 (rejected by the frame check) never write outside
    // the 55-entry vector, whatever the field holds.
    for (int x = 0; x < 2048; ++x) {
        Word16 bad[4] = {static_cast<Word16>(x & 0xFF), static_cast<Word16>(x & 0xFF), static_cast<Word16>(x & 0xFF),
                         static_cast<Word16>(x)};
        decode(bad, EVRC_RATE_FULL);
    }
}

TEST(FixedCodebook, HalfRatePulsesFollowTheFieldLayout) {
    for (int field = 0; field < 1024; ++field) {
        const Word16 f[1] = {static_cast<Word16>(field)};
        const int s = (field >> 9) ? -2048 : 2048;
        Vec expect{};
        expect[7 * ((field >> 6) & 7) + 0] = s;
        expect[7 * ((field >> 3) & 7) + 2] = -s;
        expect[7 * (field & 7) + 4] = s;
        ASSERT_EQ(decode(f, EVRC_RATE_HALF), expect) << field;
    }
}

namespace {

// Wide model of the pitch sharpening and the gain combination.
void model_combine(std::vector<int64_t> &exc, std::vector<int64_t> &fcb, int T, int ga, int gf, int L) {
    const int beta = 2 * std::min(std::max(ga, 3277), 14746);
    auto idx = [](int i) { return std::min(std::max(i, 0), 53); };
    for (int n = 0; n < L - T; ++n) {
        fcb[idx(n + T)] = high_half(clamp32(fcb[idx(n + T)] * 65536 + 2 * beta * fcb[idx(n)] + 32768));
    }
    for (int n = 0; n < L; ++n) exc[n] = high_half(clamp32(exc[n] * ga * 4 + 32768 + fcb[idx(n)] * gf * 2));
}

}  // namespace

TEST(FixedCodebook, CombinationMatchesWideModel) {
    for (int it = 0; it < iterations(); ++it) {
        const int L = uniform(0, 1) ? 54 : 53;
        Word32 p[3] = {uniform(3, 150) * 65536 + uniform(0, 65535), uniform(3, 150) * 65536 + uniform(0, 65535), 0};
        const int T = static_cast<int>(((int64_t(p[0]) + p[1] + 65536) >> 1) >> 16);
        const int ga = uniform(0, 7) == 0 ? 0 : uniform(0, 20000);
        const int gf = uniform(0, 23848);
        Word16 fields[4];
        for (Word16 &f : fields) f = static_cast<Word16>(uniform(0, 2047));
        for (int i = 0; i < 4; ++i) fields[i] = static_cast<Word16>((fields[i] & ~0x7F) | uniform(0, 120));
        Word16 fcb[55], exc[54];
        evrc_dec_fixed_codebook(fcb, fields, uniform(0, 1) ? EVRC_RATE_FULL : EVRC_RATE_HALF);
        const int amp = uniform(0, 1) ? 32767 : 4000;
        for (int n = 0; n < L; ++n) exc[n] = static_cast<Word16>(uniform(-amp, amp));
        std::vector<int64_t> mexc(exc, exc + L), mfcb(fcb, fcb + 55);
        model_combine(mexc, mfcb, T, ga, gf, L);

        Word16 lag = -1;
        evrc_combine_acb_fcb(exc, fcb, &lag, p, static_cast<Word16>(ga), static_cast<Word16>(gf), static_cast<Word16>(L));
        ASSERT_EQ(lag, T);
        for (int n = 0; n < 55; ++n) ASSERT_EQ(fcb[n], mfcb[n]) << "fcb n=" << n;
        for (int n = 0; n < L; ++n) ASSERT_EQ(exc[n], mexc[n]) << "exc n=" << n;
    }
}
