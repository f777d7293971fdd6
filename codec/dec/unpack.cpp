// Erasure detection and unpacking of rate 1, 1/2 and 1/8 packets into the
// frame-parameter record, with the checks that reject malformed packets.
#include "codec/basic/fixed_point.h"
#include "codec/dec/packet_bits.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"

namespace {

constexpr Word16 kMinDelay = 20;
constexpr Word16 kMaxDelay = 120;
constexpr Word16 kMaxPulsePair = 120;  // 11*a + b with a, b in 0..10

void set_delay(EvrcFrameParams *fp, Word16 delay_index) {
    fp->delay = fx::add(delay_index, kMinDelay);
    if (fp->delay > kMaxDelay) fp->bad_frame = 1;
}

}  // namespace

extern "C" {

EVRC_API Word16 evrc_fer_detect(EvrcPacket *packet, Word16 prev_rate, Word16 prev_erased, Word16 first_word) {
    // The whole rate word is compared: stray high bits make an erasure.
    if (packet->rate == EVRC_RATE_HALF || packet->rate == EVRC_RATE_FULL) return 0;
    if (packet->rate == EVRC_RATE_EIGHTH && first_word != -1) {
        if (prev_rate == EVRC_RATE_FULL && prev_erased != 1) {
            packet->rate = EVRC_RATE_FULL;
            return 1;
        }
        return 0;
    }
    // Blank, quarter rate, unknown codes and all-ones eighth-rate packets:
    // conceal as rate 1/8 after a rate 1/8 frame, as rate 1 after any other.
    packet->rate = prev_rate;
    if (packet->rate == EVRC_RATE_EIGHTH) return 1;
    packet->rate = EVRC_RATE_FULL;
    return 1;
}

EVRC_API void evrc_unpack_full_rate(const Word16 *data, EvrcFrameParams *fp) {
    evrc_dec::PacketBitReader bits(data);
    fp->mode_bit = bits.next(1);
    const Word16 lsp1 = bits.next(6);
    const Word16 lsp2 = bits.next(6);
    const Word16 lsp3 = bits.next(9);
    const Word16 lsp4 = bits.next(7);
    const Word16 delay_index = bits.next(7);
    fp->delta_delay = bits.next(5);
    for (int k = 0; k < 3; ++k) {
        fp->acb_gain_index[k] = bits.next(3);
        fp->fcb_index[k][0] = bits.next(8);
        fp->fcb_index[k][1] = bits.next(8);
        fp->fcb_index[k][2] = bits.next(8);
        fp->fcb_index[k][3] = bits.next(11);
        fp->fcb_gain_index[k] = bits.next(5);
    }

    evrc_unquant_lsps(&evrc_acsLspVQFull1[0][0], 2, lsp1, &fp->lsp[0]);
    evrc_unquant_lsps(&evrc_acsLspVQFull2[0][0], 2, lsp2, &fp->lsp[2]);
    evrc_unquant_lsps(&evrc_acsLspVQFull3[0][0], 3, lsp3, &fp->lsp[4]);
    evrc_unquant_lsps(&evrc_acsLspVQFull4[0][0], 3, lsp4, &fp->lsp[7]);
    evrc_check_lsps(fp);
    set_delay(fp, delay_index);
}

EVRC_API void evrc_unpack_half_rate(const Word16 *data, EvrcFrameParams *fp) {
    evrc_dec::PacketBitReader bits(data);
    const Word16 lsp1 = bits.next(7);
    const Word16 lsp2 = bits.next(7);
    const Word16 lsp3 = bits.next(8);
    const Word16 delay_index = bits.next(7);
    for (int k = 0; k < 3; ++k) {
        fp->acb_gain_index[k] = bits.next(3);
        fp->fcb_index[k][0] = bits.next(10);
        fp->fcb_gain_index[k] = bits.next(4);
    }

    evrc_unquant_lsps(&evrc_acsLspVQHalf1[0][0], 3, lsp1, &fp->lsp[0]);
    evrc_unquant_lsps(&evrc_acsLspVQHalf2[0][0], 3, lsp2, &fp->lsp[3]);
    evrc_unquant_lsps(&evrc_acsLspVQHalf3[0][0], 4, lsp3, &fp->lsp[6]);
    evrc_check_lsps(fp);
    set_delay(fp, delay_index);
}

EVRC_API Word16 evrc_unpack_one_eigth_rate(const Word16 *data, EvrcFrameParams *fp) {
    evrc_dec::PacketBitReader bits(data);
    const Word16 lsp1 = bits.next(4);
    const Word16 lsp2 = bits.next(4);
    fp->energy_index = bits.next(8);

    evrc_unquant_lsps(&evrc_acsLspVQEighth1[0][0], 5, lsp1, &fp->lsp[0]);
    evrc_unquant_lsps(&evrc_acsLspVQEighth2[0][0], 5, lsp2, &fp->lsp[5]);
    evrc_check_lsps(fp);
    return fp->bad_frame;
}

EVRC_API Word16 evrc_unpack(EvrcFrameParams *fp, EvrcPacket *packet) {
    switch (packet->rate & 15) {
    case EVRC_RATE_EIGHTH: evrc_unpack_one_eigth_rate(packet->data, fp); break;
    case EVRC_RATE_HALF: evrc_unpack_half_rate(packet->data, fp); break;
    case EVRC_RATE_FULL: evrc_unpack_full_rate(packet->data, fp); break;
    default: fp->bad_frame = 1; break;
    }
    return fp->bad_frame;
}

EVRC_API Word16 evrc_check_fcb_indices(const EvrcFrameParams *fp, Word16 rate, Word16 bad_frame) {
    if (rate != EVRC_RATE_FULL || bad_frame != 0) return bad_frame;
    // Only the seven bits of each pulse pair are checked; sign and track-shift
    // bits are free.
    for (int k = 0; k < 3; ++k) {
        for (int j = 0; j < 4; ++j) {
            if ((fp->fcb_index[k][j] & 0x7F) > kMaxPulsePair) return 1;
        }
    }
    return bad_frame;
}

}  // extern "C"
