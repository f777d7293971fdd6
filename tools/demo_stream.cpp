// evrc_demo_stream OUT.qcp [SECONDS]: writes a synthetic EVRC QCP file for
// demonstrations and listening checks. There is no encoder in this library,
// so the packets are drawn at random but shaped like a conversation:
// talkspurts of voiced full- and half-rate frames (LSPs held for a few
// frames, a slowly gliding pitch, strong adaptive-codebook gains) separated
// by eighth-rate background noise, with an occasional lost frame.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "evrc/qcp.hpp"
#include "tools/random_packets.h"

namespace {

class ConversationStream {
public:
    explicit ConversationStream(unsigned seed) : rng_(seed) {}

    evrc::QcpPacket next() {
        if (remaining_ == 0) start_segment();
        --remaining_;
        ++frame_;
        std::vector<std::uint8_t> bytes;
        if (rate_ == EVRC_RATE_EIGHTH) {
            if (frame_ % 8 == 1) background_ = evrc_random::random_eighth_rate_fields(rng_);
            evrc_random::EighthRateFields f = background_;
            f.energy_index = std::clamp(f.energy_index % 40 + evrc_random::uniform_int(rng_, -2, 2), 0, 255);
            bytes = evrc_random::pack_eighth_rate(f);
        } else {
            glide_pitch();
            bytes = rate_ == EVRC_RATE_FULL ? voiced_full() : voiced_half();
        }
        evrc::QcpPacket p;
        p.rate = bytes[0];
        p.data.assign(bytes.begin() + 1, bytes.end());
        return p;
    }

private:
    void start_segment() {
        const bool talk = rate_ == EVRC_RATE_EIGHTH;
        rate_ = talk ? (evrc_random::uniform_int(rng_, 0, 3) == 0 ? EVRC_RATE_HALF : EVRC_RATE_FULL)
                     : EVRC_RATE_EIGHTH;
        remaining_ = talk ? evrc_random::uniform_int(rng_, 25, 80) : evrc_random::uniform_int(rng_, 10, 40);
        if (talk) delay_ = evrc_random::uniform_int(rng_, 20, 70);
    }

    void glide_pitch() {
        prev_delay_ = delay_;
        delay_ = std::clamp(delay_ + evrc_random::uniform_int(rng_, -2, 2), 5, 90);
    }

    template <class Fields>
    void hold_lsps(Fields &f, Fields &held) {
        if (frame_ % 5 == 1 || held_rate_ != rate_) held = f;
        held_rate_ = rate_;
        std::copy(std::begin(held.lsp_index), std::end(held.lsp_index), f.lsp_index);
    }

    std::vector<std::uint8_t> voiced_full() {
        evrc_random::FullRateFields f = evrc_random::random_full_rate_fields(rng_);
        hold_lsps(f, held_full_);
        f.delay_index = delay_;
        f.delta_delay = std::clamp(delay_ - prev_delay_ + 16, 1, 31);
        for (int k = 0; k < 3; ++k) {
            f.acb_gain_index[k] = evrc_random::uniform_int(rng_, 4, 6);
            f.fcb_gain_index[k] = evrc_random::uniform_int(rng_, 18, 22);
        }
        return evrc_random::pack_full_rate(f);
    }

    std::vector<std::uint8_t> voiced_half() {
        evrc_random::HalfRateFields f = evrc_random::random_half_rate_fields(rng_);
        hold_lsps(f, held_half_);
        f.delay_index = delay_;
        for (int k = 0; k < 3; ++k) {
            f.acb_gain_index[k] = evrc_random::uniform_int(rng_, 4, 6);
            f.fcb_gain_index[k] = evrc_random::uniform_int(rng_, 9, 11);
        }
        return evrc_random::pack_half_rate(f);
    }

    std::mt19937 rng_;
    int rate_ = EVRC_RATE_FULL;  // the first segment is background noise
    int held_rate_ = 0;
    int remaining_ = 0;
    int frame_ = 0;
    int delay_ = 40;
    int prev_delay_ = 40;
    evrc_random::FullRateFields held_full_;
    evrc_random::HalfRateFields held_half_;
    evrc_random::EighthRateFields background_;
};

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2 || argc > 3) {
        std::fprintf(stderr, "usage: evrc_demo_stream OUT.qcp [SECONDS]\n");
        return 2;
    }
    const int seconds = argc == 3 ? std::atoi(argv[2]) : 10;
    if (seconds < 1 || seconds > 3600) {
        std::fprintf(stderr, "evrc_demo_stream: SECONDS must be 1 to 3600\n");
        return 2;
    }
    ConversationStream stream(20261122);
    std::vector<evrc::QcpPacket> packets;
    for (int i = 0; i < seconds * 50; ++i) packets.push_back(stream.next());
    // One lost frame in a hundred, recorded as a blank packet.
    for (std::size_t i = 97; i < packets.size(); i += 100) packets[i] = evrc::QcpPacket{};
    std::string error;
    if (!evrc::write_qcp(argv[1], packets, error)) {
        std::fprintf(stderr, "%s: %s\n", argv[1], error.c_str());
        return 1;
    }
    std::printf("%s: %zu packets, %d s\n", argv[1], packets.size(), seconds);
    return 0;
}
