// Output fingerprints of the decoder on fixed pseudo-random streams.
//
// Each case decodes a seeded stream and folds every output sample into a
// 64-bit FNV-1a hash; the weighted-operation count of the whole stream and
// the number of frames that raised the overflow flag are pinned too. The
// constants were recorded from the plain (unoptimised) arithmetic and are the
// same on 32- and 64-bit targets, so any rewrite of a hot loop that changes
// one output bit, one operation or one saturation shows up here.
#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "evrc/basic_op.h"
#include "evrc/evrc_dec.h"
#include "tools/random_packets.h"

namespace {

enum class Mix { Full, Half, Eighth, Erasures, Bad, Everything };

struct Fingerprint {
    uint64_t hash;
    UWord32 ops;
    int overflow_frames;  // frames during which some operator saturated
};

// A packet whose data words are pure noise: LSPs out of order, delays out of
// range and the like, which the decoder must detect or tolerate.
EvrcPacket noise_packet(std::mt19937 &rng, Word16 rate) {
    EvrcPacket p{};
    p.rate = rate;
    for (auto &w : p.data) w = static_cast<Word16>(evrc_random::uniform_int(rng, -32768, 32767));
    return p;
}

EvrcPacket next_packet(std::mt19937 &rng, Mix mix) {
    using namespace evrc_random;
    switch (mix) {
    case Mix::Full: return random_full_rate_packet(rng);
    case Mix::Half: return random_half_rate_packet(rng);
    case Mix::Eighth: return random_eighth_rate_packet(rng);
    case Mix::Erasures: {
        // Runs of erasures (both erasure rate words) between good frames.
        const int k = uniform_int(rng, 0, 3);
        if (k == 0) return EvrcPacket{EVRC_RATE_BLANK, {}};
        if (k == 1) return EvrcPacket{0x0013, {}};
        return random_any_rate_packet(rng);
    }
    case Mix::Bad: {
        static const Word16 rates[] = {
            EVRC_RATE_EIGHTH, EVRC_RATE_HALF, EVRC_RATE_FULL, EVRC_RATE_QUARTER, 5, 0x00FF, -1};
        if (uniform_int(rng, 0, 2) == 0) return random_any_rate_packet(rng);
        EvrcPacket p = noise_packet(rng, rates[uniform_int(rng, 0, 6)]);
        // An all-ones rate 1/8 word now and then.
        if (p.rate == EVRC_RATE_EIGHTH && uniform_int(rng, 0, 1) == 0) p.data[0] = -1;
        return p;
    }
    case Mix::Everything:
    default: {
        const int k = uniform_int(rng, 0, 9);
        if (k < 3) return random_full_rate_packet(rng);
        if (k < 5) return random_half_rate_packet(rng);
        if (k < 7) return random_eighth_rate_packet(rng);
        if (k == 7) return EvrcPacket{static_cast<Word16>(uniform_int(rng, 0, 1) ? 0x0013 : 0), {}};
        return noise_packet(rng, static_cast<Word16>(uniform_int(rng, 0, 6)));
    }
    }
}

Fingerprint decode_stream(uint32_t seed, Mix mix, int postfilter_off, int frames) {
    std::mt19937 rng(seed);
    std::vector<unsigned char> record(sizeof(EvrcDecoderState), 0);
    auto *st = reinterpret_cast<EvrcDecoderState *>(record.data());
    evrc_init_dec(st);

    int overflow_frames = 0;
    const UWord32 ops_before = evrc_op_counter;
    uint64_t hash = 0xcbf29ce484222325ull;  // FNV-1a offset basis
    Word16 out[EVRC_FRAME_SIZE];
    for (int f = 0; f < frames; ++f) {
        EvrcPacket p = next_packet(rng, mix);
        evrc_giOverflow = 0;
        evrc_decode(st, &p, out, postfilter_off);
        overflow_frames += evrc_giOverflow != 0;
        for (Word16 s : out) {
            const auto u = static_cast<uint16_t>(s);
            for (int b = 0; b < 2; ++b) {
                hash ^= (u >> (8 * b)) & 0xFFu;
                hash *= 0x100000001b3ull;  // FNV prime
            }
        }
    }
    return Fingerprint{hash, static_cast<UWord32>(evrc_op_counter - ops_before), overflow_frames};
}

struct GoldenCase {
    const char *name;
    uint32_t seed;
    Mix mix;
    int postfilter_off;
    Fingerprint expected;
};

const int kFrames = 300;

const GoldenCase kCases[] = {
    // clang-format off
    {"full",           11, Mix::Full,       0, {0x31e2816172a7fdc6ull, 6403665u, 300}},
    {"full_pf_off",    11, Mix::Full,       1, {0x1c35fdb2ba7dc72eull, 4993667u, 300}},
    {"half",           12, Mix::Half,       0, {0x9363d3bf0965f8f0ull, 6397046u, 300}},
    {"half_pf_off",    12, Mix::Half,       1, {0x3215d8dee19f99f6ull, 4988387u, 300}},
    {"eighth",         13, Mix::Eighth,     0, {0x35235749f788cf84ull, 6763773u, 4}},
    {"eighth_pf_off",  13, Mix::Eighth,     1, {0x23ce88faeaa32a5eull, 5756166u, 4}},
    {"erasures",       14, Mix::Erasures,   0, {0x62d745db0def71ddull, 6958209u, 100}},
    {"erasures_pf_off",14, Mix::Erasures,   1, {0xeddcb94c40af0249ull, 5741846u, 100}},
    {"bad",            15, Mix::Bad,        0, {0x30a22df3c8f58401ull, 7000118u, 92}},
    {"bad_pf_off",     15, Mix::Bad,        1, {0x004413e111be0c85ull, 5785514u, 92}},
    {"everything",     16, Mix::Everything, 0, {0x0a101f947705bf65ull, 6857094u, 151}},
    {"everything_pf2", 16, Mix::Everything, 2, {0x74018e94a513c4e3ull, 5821088u, 151}},
    // clang-format on
};

TEST(DecoderGolden, StreamsKeepTheirFingerprints) {
    for (const GoldenCase &c : kCases) {
        SCOPED_TRACE(c.name);
        const Fingerprint got = decode_stream(c.seed, c.mix, c.postfilter_off, kFrames);
        EXPECT_EQ(got.hash, c.expected.hash) << std::hex << "0x" << got.hash;
        EXPECT_EQ(got.ops, c.expected.ops);
        EXPECT_EQ(got.overflow_frames, c.expected.overflow_frames);
    }
}

}  // namespace
