// An encoder whose every packet is put through the decoder's bad-frame
// checks (erasure detection against the previous rate, unpacking, the
// fixed-codebook index check), for the fuzz target and the packet-validity
// tests. Rates passed to set_params are mapped onto valid codes: the lowest
// rate onto 1, 3 or 4, the highest onto 3 or 4. (A highest rate of 1 set
// right after a full-rate frame makes the full-to-eighth step the caller asks
// for, which the decoder treats as an illegal transition.)
#ifndef EVRC_TESTS_SUPPORT_CHECKED_ENCODER_H
#define EVRC_TESTS_SUPPORT_CHECKED_ENCODER_H

#include <cstdint>
#include <cstring>
#include <vector>

#include "evrc/evrc_dec.h"
#include "evrc/evrc_enc.h"

namespace evrc_test {

class CheckedEncoder {
public:
    CheckedEncoder() : mem_(get_sizeof_evrc_enc_struct(), 0) { evrc_init_enc(state()); }

    EvrcEncoderState *state() { return reinterpret_cast<EvrcEncoderState *>(mem_.data()); }

    // max_pick: any value, even for half and odd for full; min_pick: any
    // value, modulo 3 for eighth, half and full.
    void set_params(unsigned max_pick, unsigned min_pick, UWord32 flag_a, UWord32 flag_b, UWord32 flag_c,
                    UWord32 skip_noise_update) {
        static const UWord32 kRates[3] = {EVRC_RATE_EIGHTH, EVRC_RATE_HALF, EVRC_RATE_FULL};
        evrc_set_enc_params(state(), kRates[1 + max_pick % 2], kRates[min_pick % 3], flag_a, flag_b, flag_c,
                            skip_noise_update);
    }

    // Encodes 160 samples; true when the packet passes every check.
    bool encode(const int16_t *pcm) {
        UWord16 words[EVRC_PACKET_WORDS];
        std::memset(words, 0xA5, sizeof words);
        evrc_encoder(state(), pcm, words, 0, nullptr);
        std::memcpy(&packet, words, sizeof packet);
        EvrcPacket probe = packet;
        bool ok = evrc_fer_detect(&probe, prev_rate_, 0, probe.data[0]) == 0;
        if (ok) {
            EvrcFrameParams fp{};
            ok = evrc_check_fcb_indices(&fp, probe.rate, evrc_unpack(&fp, &probe)) == 0;
        }
        prev_rate_ = packet.rate;
        return ok;
    }

    EvrcPacket packet{};

private:
    std::vector<unsigned char> mem_;
    Word16 prev_rate_ = EVRC_RATE_EIGHTH;
};

}  // namespace evrc_test

#endif  // EVRC_TESTS_SUPPORT_CHECKED_ENCODER_H
