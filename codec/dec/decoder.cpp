// Decoder state set-up and the frame driver: packet validation, the choice
// between normal, eighth-rate and concealed decoding, and the per-subframe
// rate 1 / rate 1/2 decoding path.
#include "codec/basic/fixed_point.h"
#include "codec/common/constants.h"
#include "codec/common/packet_bits.h"
#include "codec/common/packet_layout.h"
#include "codec/dec/excitation_internal.h"
#include "codec/dec/frame_tail.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_tables.h"

static_assert(sizeof(EvrcDecoderState) == 1392, "the decoder state record is 1392 bytes on every target");
static_assert(sizeof(EvrcFrameParams) == 33 * sizeof(Word16), "the frame parameters are 33 words");

namespace {

using evrc::kFcbLen;
using evrc::kOrder;
using evrc::kSubframes;

constexpr Word16 kInitialSeed = 4660;
constexpr Word16 kAgcWeight = 16384;  // 0.5
constexpr Word16 kInitialDelay = 40;
constexpr Word16 kPrefilterRampStep = 6554;
constexpr Word16 kThirdQ16 = 21845;        // 1/3: running mean of the ACB gains
constexpr Word16 kTwentyFourthQ16 = 2731;  // 1/24: running mean of the FCB gains

// high half of ((avg << 16) + 32768 + gain * weight): one rounded step of a
// running mean.
Word16 accumulate_gain(Word16 avg, Word16 gain, Word16 weight) {
    const Word32 acc = fx::L_add(fx::L_deposit_h(avg), 32768);
    return fx::extract_h(fx::extract64_l(fx::int_mac_16_16(acc, gain, weight)));
}

// TTY side information carried in the delay field (and, at rate 1, the
// reserved bit); read for the rate now in force.
void read_tty_fields(EvrcDecoderState *st, const EvrcPacket *packet, Word16 rate) {
    const evrc::PacketField *delay = evrc::find_field(rate, evrc::FieldId::kDelay);
    if (delay == nullptr) {
        st->tty_header = 0;
        st->tty_data = 0;
        return;
    }
    st->tty_header = evrc::read_packet_bits(packet->data, delay->first_bit, evrc::kTtyHeaderBits);
    st->tty_data = evrc::read_packet_bits(packet->data, delay->first_bit + evrc::kTtyHeaderBits, evrc::kTtyDataBits);
    const evrc::PacketField *reserved = evrc::find_field(rate, evrc::FieldId::kReserved);
    if (reserved != nullptr) st->tty_bit = evrc::read_packet_bits(packet->data, reserved->first_bit, reserved->width);
}

// Frame set-up of the rate 1 / rate 1/2 path.
void start_speech_frame(EvrcDecoderState *st, EvrcFrameParams *fp, Word16 rate) {
    if (rate == EVRC_RATE_FULL && st->prev_erased != 0 && fp->delta_delay != 0) evrc_fix_dlay_contour(st, fp);
    if (fx::abs_s(fx::sub(st->prev_delay, fp->delay)) >= evrc::kDelayJump) st->prev_delay = fp->delay;
    st->avg_acb_gain = 0;
    st->avg_fcb_gain = 0;
}

// Subframe LPC coefficients, bandwidth-expanded in the first rate-1 frame
// after an erasure that carries the mode bit.
void speech_subframe_lpc(EvrcDecoderState *st, const EvrcFrameParams *fp, int k) {
    evrc_dec::subframe_lpc(st, fp->lsp, k);
    if ((st->prev_erased & fp->mode_bit) != 0) evrc_bwe_lpc_sp(st->lpc, st->lpc, evrc_acsGamma75Tab);
}

// Adaptive plus fixed codebook excitation of subframe k, built behind the
// history; returns the pitch pre-filtered copy in `prefiltered`.
void build_excitation(EvrcDecoderState *st, const EvrcFrameParams *fp, Word16 rate, int k, int L, Word16 *prefiltered) {
    Word16 *exc = evrc_dec::current_subframe(st);
    Word32 points[3];
    evrc_interpol_delay(fp->delay, st->prev_delay, static_cast<Word16>(k), points);

    st->acb_gain = evrc_acsACBGainTable[fp->acb_gain_index[k]];
    st->avg_acb_gain = accumulate_gain(st->avg_acb_gain, st->acb_gain, kThirdQ16);
    evrc_rx_acb_excitation(points, exc, static_cast<Word16>(L));

    Word16 fcb[kFcbLen];
    evrc_dec_fixed_codebook(fcb, fp->fcb_index[k], rate);

    Word16 gain_index = fp->fcb_gain_index[k];
    if (rate == EVRC_RATE_HALF) gain_index = fx::add(fx::shl(gain_index, 1), 1);
    const Word16 fcb_gain = evrc_acsFcbGainVQFull[gain_index];
    st->avg_fcb_gain = accumulate_gain(st->avg_fcb_gain, fcb_gain, kTwentyFourthQ16);

    evrc_combine_acb_fcb(exc, fcb, &st->pitch_lag, points, st->acb_gain, fcb_gain, static_cast<Word16>(L));
    st->prefilter_ramp = fx::add(st->prefilter_ramp, kPrefilterRampStep);
    evrc_pitch_pre_filter(exc + L - 1, st->pitch_lag, prefiltered, st->acb_gain, static_cast<Word16>(L));
}

void decode_speech_frame(EvrcDecoderState *st, EvrcFrameParams *fp, Word16 rate, Word16 *output, int postfilter_off) {
    start_speech_frame(st, fp, rate);
    const evrc_dec::PostfilterSetting pf = evrc_dec::speech_postfilter(rate);
    const bool postfilter = evrc_dec::speech_postfilter_on(postfilter_off);
    for (int k = 0; k < kSubframes; ++k) {
        const int L = evrc_acsSubFrameSize[k];
        Word16 prefiltered[EVRC_MAX_SUBFRAME];
        speech_subframe_lpc(st, fp, k);
        build_excitation(st, fp, rate, k, L, prefiltered);
        evrc_dec::shift_exc_history(st, L);
        evrc_dec::subframe_output(st, prefiltered, pf, postfilter, k, output);
    }
    st->prev_delay = fp->delay;
    evrc_dec_clean_up(st, fp, output, rate, 0);
}

}  // namespace

extern "C" {

EVRC_API int get_sizeof_evrc_dec_struct(void) {
    fx::CallScope scope;
    return static_cast<int>(sizeof(EvrcDecoderState));
}

EVRC_API void evrc_init_dec(EvrcDecoderState *st) {
    fx::CallScope scope;
    // Only the fields below are set; the excitation history, LPC, gain
    // averages, erasure bookkeeping, TTY fields and the noise generator's
    // spare keep their contents (a new record is zero-filled by its creator).
    for (auto &block : st->syn_mem) {
        for (Word32 &m : block) m = 0;
    }
    st->pow_quant_ptr.ptr = &evrc_acsPowQuant[0][0];
    st->gauss.noise_seed = kInitialSeed;
    st->prev_delay = kInitialDelay;
    st->prev_rate = EVRC_RATE_EIGHTH;
    st->prefilter_ramp = 32767;
    st->agc_new_weight = kAgcWeight;
    st->agc_prev_weight = kAgcWeight;
    st->agc_prev_gain = 0;
    st->tilt_last = 0;
    for (int i = 0; i < kOrder; ++i) st->pf_buf[i] = 0;
    for (int i = 0; i < kOrder; ++i) st->prev_lsp[i] = evrc_acsLspBiasValues[i];
}

EVRC_API void evrc_init_dec_illegal_rate_transition(EvrcDecoderState *st) {
    fx::CallScope scope;
    evrc_init_dec(st);
}

EVRC_API void evrc_init_tty_dec(EvrcDecoderState *st, Word16 mode) {
    fx::CallScope scope;
    st->tty_mode = mode;
}

EVRC_API void evrc_check_illegal_rate_transition(EvrcDecoderState *st, Word16 rate) {
    fx::CallScope scope;
    // Rate 1/8 straight after rate 1 cannot happen in a valid stream: restart.
    if ((rate & 15) == EVRC_RATE_EIGHTH && st->prev_rate == EVRC_RATE_FULL) evrc_init_dec_illegal_rate_transition(st);
}

EVRC_API Word16 evrc_fer_detect_and_unpack(EvrcDecoderState *st, EvrcFrameParams *fp, EvrcPacket *packet) {
    fx::CallScope scope;
    if (evrc_fer_detect(packet, st->prev_rate, st->prev_erased, packet->data[0]) == 1) return 1;
    return evrc_unpack(fp, packet);
}

EVRC_API int evrc_decode(EvrcDecoderState *st, EvrcPacket *packet, Word16 *output, int postfilter_off) {
    fx::CallScope scope;
    EvrcFrameParams fp = {};

    evrc_check_illegal_rate_transition(st, packet->rate);
    const Word16 conceal = evrc_fer_detect(packet, st->prev_rate, st->prev_erased, packet->data[0]);
    if (conceal == 0) {
        Word16 bad = evrc_unpack(&fp, packet);
        if ((packet->rate & 15) == EVRC_RATE_FULL) bad = evrc_check_fcb_indices(&fp, EVRC_RATE_FULL, bad);
        fp.bad_frame = bad;
    }

    const Word16 rate = static_cast<Word16>(packet->rate & 15);
    if (st->tty_mode == 1) read_tty_fields(st, packet, rate);

    if (conceal != 0 || fp.bad_frame != 0) {
        evrc_decode_erasure(st, &fp, output, rate, 1, postfilter_off);
    } else if (rate == EVRC_RATE_HALF || rate == EVRC_RATE_FULL) {
        decode_speech_frame(st, &fp, rate, output, postfilter_off);
    } else {
        evrc_decode_8th(st, &fp, output, 0, 0, postfilter_off);
    }
    return 0;
}

}  // extern "C"
