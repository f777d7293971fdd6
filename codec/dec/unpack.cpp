// Erasure detection and unpacking of rate 1, 1/2 and 1/8 packets into the
// frame-parameter record, with the checks that reject malformed packets.
#include "codec/basic/fixed_point.h"
#include "codec/common/constants.h"
#include "codec/common/lsp_codebooks.h"
#include "codec/common/packet_bits.h"
#include "codec/common/packet_layout.h"
#include "evrc/evrc_dec.h"

namespace {

using evrc::kMaxDelay;
using evrc::kMinDelay;

constexpr Word16 kMaxPulsePair = 120;  // 11*a + b with a, b in 0..10

void set_delay(EvrcFrameParams *fp, Word16 delay_index) {
    fp->delay = fx::add(delay_index, kMinDelay);
    if (fp->delay > kMaxDelay) fp->bad_frame = 1;
}

// Reads the fields of the packet's rate into the record, LSP indices and the
// delay index aside; the reserved bit is left for the TTY reader.
void read_fields(Word16 rate, const Word16 *data, EvrcFrameParams *fp, Word16 *lsp_index, Word16 *delay_index) {
    const evrc::PacketLayout layout = evrc::packet_layout(rate);
    for (int i = 0; i < layout.count; ++i) {
        const evrc::PacketField &f = layout.fields[i];
        if (f.id == evrc::FieldId::kReserved) continue;
        const Word16 v = evrc::read_packet_bits(data, f.first_bit, f.width);
        switch (f.id) {
        case evrc::FieldId::kModeBit: fp->mode_bit = v; break;
        case evrc::FieldId::kLsp: lsp_index[f.part] = v; break;
        case evrc::FieldId::kDelay: *delay_index = v; break;
        case evrc::FieldId::kDeltaDelay: fp->delta_delay = v; break;
        case evrc::FieldId::kAcbGain: fp->acb_gain_index[f.subframe] = v; break;
        case evrc::FieldId::kFcb: fp->fcb_index[f.subframe][f.part] = v; break;
        case evrc::FieldId::kFcbGain: fp->fcb_gain_index[f.subframe] = v; break;
        case evrc::FieldId::kEnergy: fp->energy_index = v; break;
        case evrc::FieldId::kReserved: break;
        }
    }
}

// Rate 1 and 1/2: fields, LSPs with their order check, and the delay.
void unpack_speech(Word16 rate, const Word16 *data, EvrcFrameParams *fp) {
    Word16 lsp_index[4];
    Word16 delay_index = 0;
    read_fields(rate, data, fp, lsp_index, &delay_index);
    evrc::dequantise_lsps(rate, lsp_index, fp->lsp);
    evrc_check_lsps(fp);
    set_delay(fp, delay_index);
}

}  // namespace

extern "C" {

EVRC_API Word16 evrc_fer_detect(EvrcPacket *packet, Word16 prev_rate, Word16 prev_erased, Word16 first_word) {
    fx::CallScope scope;
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
    fx::CallScope scope;
    unpack_speech(EVRC_RATE_FULL, data, fp);
}

EVRC_API void evrc_unpack_half_rate(const Word16 *data, EvrcFrameParams *fp) {
    fx::CallScope scope;
    unpack_speech(EVRC_RATE_HALF, data, fp);
}

EVRC_API Word16 evrc_unpack_one_eigth_rate(const Word16 *data, EvrcFrameParams *fp) {
    fx::CallScope scope;
    Word16 lsp_index[2];
    Word16 unused_delay = 0;
    read_fields(EVRC_RATE_EIGHTH, data, fp, lsp_index, &unused_delay);
    evrc::dequantise_lsps(EVRC_RATE_EIGHTH, lsp_index, fp->lsp);
    evrc_check_lsps(fp);
    return fp->bad_frame;
}

EVRC_API Word16 evrc_unpack(EvrcFrameParams *fp, EvrcPacket *packet) {
    fx::CallScope scope;
    switch (packet->rate & 15) {
    case EVRC_RATE_EIGHTH: evrc_unpack_one_eigth_rate(packet->data, fp); break;
    case EVRC_RATE_HALF: evrc_unpack_half_rate(packet->data, fp); break;
    case EVRC_RATE_FULL: evrc_unpack_full_rate(packet->data, fp); break;
    default: fp->bad_frame = 1; break;
    }
    return fp->bad_frame;
}

EVRC_API Word16 evrc_check_fcb_indices(const EvrcFrameParams *fp, Word16 rate, Word16 bad_frame) {
    fx::CallScope scope;
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
