// Erasure detection and unpacking of rate 1, 1/2 and 1/8 packets into the
// frame-parameter record, with the checks that reject malformed packets.
#include "codec/basic/fixed_point.h"
#include "codec/common/constants.h"
#include "codec/common/lsp_codebooks.h"
#include "codec/dec/packet_bits.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"

namespace {

using evrc::kMaxDelay;
using evrc::kMinDelay;

constexpr Word16 kMaxPulsePair = 120;  // 11*a + b with a, b in 0..10

void set_delay(EvrcFrameParams *fp, Word16 delay_index) {
    fp->delay = fx::add(delay_index, kMinDelay);
    if (fp->delay > kMaxDelay) fp->bad_frame = 1;
}

// The LSP codebook indices at the start of a packet of the given rate.
void read_lsp_indices(evrc_dec::PacketBitReader &bits, Word16 rate, Word16 *indices) {
    const evrc::LspSplits s = evrc::lsp_splits(rate);
    for (int i = 0; i < s.count; ++i) indices[i] = bits.next(s.splits[i].index_bits);
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
    Word16 lsp_index[4];
    read_lsp_indices(bits, EVRC_RATE_FULL, lsp_index);
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

    evrc::dequantise_lsps(EVRC_RATE_FULL, lsp_index, fp->lsp);
    evrc_check_lsps(fp);
    set_delay(fp, delay_index);
}

EVRC_API void evrc_unpack_half_rate(const Word16 *data, EvrcFrameParams *fp) {
    evrc_dec::PacketBitReader bits(data);
    Word16 lsp_index[3];
    read_lsp_indices(bits, EVRC_RATE_HALF, lsp_index);
    const Word16 delay_index = bits.next(7);
    for (int k = 0; k < 3; ++k) {
        fp->acb_gain_index[k] = bits.next(3);
        fp->fcb_index[k][0] = bits.next(10);
        fp->fcb_gain_index[k] = bits.next(4);
    }

    evrc::dequantise_lsps(EVRC_RATE_HALF, lsp_index, fp->lsp);
    evrc_check_lsps(fp);
    set_delay(fp, delay_index);
}

EVRC_API Word16 evrc_unpack_one_eigth_rate(const Word16 *data, EvrcFrameParams *fp) {
    evrc_dec::PacketBitReader bits(data);
    Word16 lsp_index[2];
    read_lsp_indices(bits, EVRC_RATE_EIGHTH, lsp_index);
    fp->energy_index = bits.next(8);

    evrc::dequantise_lsps(EVRC_RATE_EIGHTH, lsp_index, fp->lsp);
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
