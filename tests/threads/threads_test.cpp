// Encoders and decoders on several threads at once, one state per stream:
// every stream's output equals the same stream coded alone, and the shared
// operation counter ends up with exactly the sum of the streams' counts.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <thread>
#include <vector>

#include "evrc/basic_op.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_enc.h"

namespace {

constexpr int kFrames = 60;

std::vector<Word16> tone_with_noise(unsigned seed) {
    std::vector<Word16> pcm(kFrames * EVRC_FRAME_SIZE);
    unsigned x = seed;
    for (std::size_t n = 0; n < pcm.size(); ++n) {
        x = x * 1103515245u + 12345u;
        const double v = 3000.0 * std::sin(0.07 * n * (1 + seed % 3)) + static_cast<double>((x >> 16) % 512) - 256;
        pcm[n] = static_cast<Word16>(v);
    }
    return pcm;
}

// Encodes pcm, then decodes the packets; returns packets and PCM back to back.
std::vector<Word16> round_trip(const std::vector<Word16> &pcm) {
    std::vector<unsigned char> enc_rec(get_sizeof_evrc_enc_struct(), 0);
    std::vector<unsigned char> dec_rec(sizeof(EvrcDecoderState), 0);
    auto *enc = reinterpret_cast<EvrcEncoderState *>(enc_rec.data());
    auto *dec = reinterpret_cast<EvrcDecoderState *>(dec_rec.data());
    evrc_init_enc(enc);
    evrc_init_dec(dec);
    std::vector<Word16> out;
    for (int f = 0; f < kFrames; ++f) {
        UWord16 words[EVRC_PACKET_WORDS];
        evrc_encoder(enc, &pcm[f * EVRC_FRAME_SIZE], words, 0, nullptr);
        EvrcPacket p;
        std::memcpy(&p, words, sizeof p);
        out.insert(out.end(), p.data, p.data + 11);
        Word16 speech[EVRC_FRAME_SIZE];
        evrc_decode(dec, &p, speech, 0);
        out.insert(out.end(), speech, speech + EVRC_FRAME_SIZE);
    }
    return out;
}

TEST(Threads, StreamsCodedInParallelMatchTheSameStreamsCodedAlone) {
    constexpr int kStreams = 4;
    std::vector<std::vector<Word16>> inputs, alone(kStreams), parallel(kStreams);
    UWord32 ops_alone = 0;
    for (int s = 0; s < kStreams; ++s) {
        inputs.push_back(tone_with_noise(static_cast<unsigned>(s + 1)));
        const UWord32 before = evrc_op_counter;
        alone[s] = round_trip(inputs[s]);
        ops_alone += evrc_op_counter - before;
    }
    const UWord32 before = evrc_op_counter;
    std::vector<std::thread> threads;
    for (int s = 0; s < kStreams; ++s) threads.emplace_back([&, s] { parallel[s] = round_trip(inputs[s]); });
    for (auto &t : threads) t.join();
    EXPECT_EQ(evrc_op_counter - before, ops_alone);
    for (int s = 0; s < kStreams; ++s) EXPECT_EQ(parallel[s], alone[s]) << "stream " << s;
}

}  // namespace
