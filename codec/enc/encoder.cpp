// Encoder frame driver: LPC analysis, open-loop pitch, rate decision, LSP
// quantisation, then per subframe the delay contour, signal modification,
// adaptive and fixed codebook searches in the weighted domain and the local
// decoder that keeps the excitation history and filter memories in step with
// what the decoder will hold. The packet is written field by field as the
// stages produce their indices.
//
// The searches match the weighted error: the modified residual (the speech's
// residual through the filters it is synthesised with) less the excitation,
// through the subframe's weighted synthesis filter (quantised synthesis,
// perceptual weighting) and the error emphasis (shaping.cpp). Both
// filters are linear, so one memory each carries the error of the subframes
// before: the target of a subframe is the modified residual through them
// from those memories, and the impulse response the same from rest; once
// the excitation is known, the residual less the excitation brings the
// memories up to date.
#include <cstring>

#include "codec/basic/fixed_point.h"
#include "codec/common/constants.h"
#include "codec/common/excitation.h"
#include "codec/common/packet_layout.h"
#include "codec/enc/encoder_internal.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_enc.h"
#include "evrc/evrc_tables.h"

static_assert(sizeof(EvrcEncoderState) == 3544, "the encoder state record is 3544 bytes on every target");

namespace {

using evrc::FieldId;
using evrc::kOrder;
using evrc::kSubframes;
constexpr int kFrame = EVRC_ENC_FRAME;
constexpr int kHistory = EVRC_ENC_HISTORY;
constexpr int kMaxSubframe = EVRC_MAX_SUBFRAME;
constexpr int kAhead = evrc::kLookAhead;  // samples the adaptive codebook builds beyond a subframe
constexpr Word16 kImpulse = 2048;         // unit pulse of the impulse response (Q11)
constexpr int kEighthBlock = 54;          // filter update of an eighth-rate frame
constexpr Word32 kDeltaOffset = 16;       // the delta delay is packed plus 16
constexpr int kBlockTaps8 = 8;            // half-width of the interpolation filter
constexpr Word16 kMaxRateCode = EVRC_RATE_FULL;
constexpr Word16 kDecoderNoiseSeed = 4660;      // the decoder's initial noise seed
constexpr Word16 kSpeechToExcitationShift = 2;  // doubled-speech residual to the excitation
constexpr Word16 kExcitationRound = 2;          // rounds that shift (a floor would bias the level)
constexpr Word16 kNoiseShift = 6;               // noise times gain: Q22 down to the excitation

// The per-sample loops below apply the operators through their uncounted
// bodies (fx::detail) and charge their weights once per loop: a counted
// operator is a read-modify-write of memory on every call, a chain through
// the loop that is slower than the arithmetic.

using FilterMemory = Word32[3][kOrder];
using evrc_enc::emphasise_error;
using evrc_enc::kErrorEmphasisWords;

// The error emphasis memory, in the working block of the frame driver.
Word16 *emphasis_memory(EvrcEncoderState *st) { return st->work_core; }

// The error filters' memories follow residual - excitation over L samples
// (weighted synthesis with the given filters, then the emphasis).
void follow_error(EvrcEncoderState *st, const Word16 *residual, const Word16 *exc, const Word16 *qlpc,
                  const Word16 *num, const Word16 *den, int L) {
    Word16 error[kMaxSubframe];
    for (int n = 0; n < L; ++n) error[n] = fx::detail::sat16(static_cast<Word32>(residual[n]) - exc[n]);
    fx::charge(fx::weight::sub * static_cast<UWord32>(L));
    evrc_weighted_synthesis_filter(error, error, qlpc, num, den, &st->wsf_mem[0][0][0], static_cast<Word16>(L));
    emphasise_error(error, L, emphasis_memory(st));
}

// Widths of the packet fields by rate code, field, subframe and part, from
// the packet layout (a table in place of a search of the layout per field).
constexpr int kFieldKinds = static_cast<int>(FieldId::kReserved) + 1;
constexpr int kMaxParts = 4;
struct FieldWidths {
    std::uint8_t width[EVRC_RATE_FULL + 1][kFieldKinds][kSubframes][kMaxParts];
    template <std::size_t N>
    constexpr void add(int rate, const evrc::PacketField (&fields)[N]) {
        for (const evrc::PacketField &f : fields) width[rate][static_cast<int>(f.id)][f.subframe][f.part] = f.width;
    }
    constexpr FieldWidths() : width() {
        add(EVRC_RATE_FULL, evrc::detail::kFullRate);
        add(EVRC_RATE_HALF, evrc::detail::kHalfRate);
        add(EVRC_RATE_EIGHTH, evrc::detail::kEighthRate);
    }
};
constexpr FieldWidths kFieldWidths;

// Packing cursor over the packet's bit words. Field widths come from the
// packet layout of the rate: rate 1 and rate 1/2 use their own tables; any
// other code packs its LSP indices as rate 1/8 does and the rest as rate 1/2.
struct Packer {
    Word16 acc;
    Word16 free_bits;
    UWord16 *out;
    Word16 rate;
    void put(Word32 value, Word32 width) { evrc_bit_pack(value, &acc, &free_bits, width, &out); }
    void put(FieldId id, Word32 value, int subframe = 0, int part = 0) {
        put(value, kFieldWidths.width[layout_rate(id)][static_cast<int>(id)][subframe][part]);
    }
    Word16 layout_rate(FieldId id) const {
        if (rate == EVRC_RATE_FULL || rate == EVRC_RATE_HALF) return rate;
        return id == FieldId::kLsp || id == FieldId::kEnergy ? EVRC_RATE_EIGHTH : EVRC_RATE_HALF;
    }
};

// The LSP codebook indices, one field per split of the rate.
void pack_lsp_indices(Packer &pk, const Word16 *index) {
    const int n = pk.rate == EVRC_RATE_FULL ? 4 : (pk.rate == EVRC_RATE_HALF ? 3 : 2);
    for (int i = 0; i < n; ++i) pk.put(FieldId::kLsp, index[i], 0, i);
}

// Mask clearing the delta-delay field in its packet word (it lies within one
// word), for side information at rate 1.
constexpr UWord16 delta_clear_mask(const evrc::PacketField &f) {
    const int shift = 16 - (f.first_bit % 16) - f.width;
    return static_cast<UWord16>(~(((1u << f.width) - 1u) << shift));
}

// Subframe LPC sets (Q12) from LSPs interpolated between two frames.
void subframe_lpcs(const Word16 *prev, const Word16 *cur, Word16 (*lpc)[kOrder]) {
    for (int j = 0; j < kSubframes; ++j) {
        Word16 lsp[kOrder];
        cmn1x_interpolate_lsp(prev, cur, lsp, evrc_acsLSPInterpTbl[j]);
        cmn1x_lsp2lpc(lsp, lpc[j], evrc::kLspToLpcShift);
    }
}

// Windowing, autocorrelation, Durbin, flag, expansion, LSPs.
void analyse_lpc(EvrcEncoderState *st) {
    Word16 windowed[kFrame];
    st->window_shift = cmn1x_hamming_window(st->asSpeech + kFrame, windowed);
    st->autocorr_shift = evrc_autocorr(windowed, st->autocorr);
    st->pred_error = cmn1x_durbins_recursion(st->autocorr, st->lpc);
    st->sLpcFlag = evrc_update_lpcflag(st);
    evrc_bandwidth_expand_lpcs(st->lpc);
    cmn1x_lpc2pq(st->lpc, st->p_poly, st->q_poly);
    cmn1x_pq2lsp(st->p_poly, st->q_poly, st->uq_lsp, st->root_lsp);
}

// Unquantised subframe filters, then the Q12 LPC copies.
void update_lpc_copies(EvrcEncoderState *st) {
    subframe_lpcs(st->root_lsp, st->uq_lsp, st->uqlpc);
    std::memcpy(st->root_lsp, st->uq_lsp, sizeof(st->root_lsp));
    std::memcpy(st->prev_lpc, st->cur_lpc, sizeof(st->prev_lpc));
    for (int i = 0; i < kOrder; ++i) st->cur_lpc[i] = fx::round32(fx::L_shl(st->lpc[i], 1));
}

// Perceptual weighting zeros and poles of one unquantised LPC set.
void weighting_coefficients(const Word16 *lpc, Word16 *num, Word16 *den) {
    for (int i = 0; i < kOrder; ++i) {
        num[i] = fx::round32(fx::L_mult(evrc_acsGamma90Tab[i], lpc[i]));
        den[i] = fx::round32(fx::L_mult(evrc_acsGamma50Tab[i], lpc[i]));
    }
}

// Saved filter memories take the working ones.
void save_filter_memories(EvrcEncoderState *st) { std::memcpy(st->wsf_mem[1], st->wsf_mem[0], sizeof(st->wsf_mem[0])); }

// The decoder's eighth-rate excitation: its Gaussian generator (seeded as
// the decoder seeds it) scaled by the energy row's three subframe gains,
// round(2 g n / 2^22), written through the history as the decoder does.
void mirror_noise_excitation(EvrcEncoderState *st, Word16 energy_index) {
    EvrcGaussRecord gen = {st->noise_gen[0], st->noise_gen[1], st->noise_gen[2]};
    if (st->noise_gen_started == 0) {
        gen = {0, 0, kDecoderNoiseSeed};
        st->noise_gen_started = 1;
    }
    Word16 noise[kFrame];
    for (Word16 &v : noise) v = evrc_ran_gaussian(&gen);
    st->noise_gen[0] = gen.gauss_have_spare;
    st->noise_gen[1] = gen.gauss_spare;
    st->noise_gen[2] = gen.noise_seed;

    const Word16 *gains = evrc_acsPowQuant[energy_index & 0xFF];
    int start = 0;
    for (int j = 0; j < kSubframes; ++j) {
        const int L = evrc_acsSubFrameSize[j];
        for (int n = 0; n < L; ++n) {
            st->acb_mem[kHistory + n] = fx::round32(fx::L_shr(fx::L_mult(gains[j], noise[start + n]), kNoiseShift));
        }
        std::memmove(st->acb_mem, st->acb_mem + L, kHistory * sizeof(Word16));
        start += L;
    }
}

// Residual samples (doubled-speech units) at the excitation's level.
void to_excitation_level(const Word16 *residual, Word16 *out, int L) {
    for (int n = 0; n < L; ++n) {
        out[n] = static_cast<Word16>(fx::detail::sat16(static_cast<Word32>(residual[n]) + kExcitationRound) >>
                                     kSpeechToExcitationShift);
    }
    fx::charge((fx::weight::add + fx::weight::shr) * static_cast<UWord32>(L));
}

// Eighth-rate energy, the excitation history as the decoder will
// rebuild it, and the error filters' memories brought up to date over the
// last subframe with the coded segment's last residual samples less the
// rebuilt excitation.
void encode_eighth_rate(EvrcEncoderState *st, Packer &pk) {
    const Word16 energy_index = evrc_8th_rate(st);
    pk.put(FieldId::kEnergy, energy_index);
    mirror_noise_excitation(st, energy_index);
    Word16 num[kOrder], den[kOrder];
    weighting_coefficients(st->uqlpc[kSubframes - 1], num, den);
    Word16 residual[kEighthBlock];
    to_excitation_level(st->residual + EVRC_ENC_CODED_START + kFrame - kEighthBlock, residual, kEighthBlock);
    follow_error(st, residual, st->acb_mem + kHistory - kEighthBlock, st->qlpc[kSubframes - 1], num, den, kEighthBlock);
    save_filter_memories(st);
    st->sAccumShift = 0;
    st->sShiftCarry = 0;
}

// The delta delay; a large jump moves the previous delay at once.
Word32 delta_delay(EvrcEncoderState *st) {
    const Word32 d = static_cast<Word32>(st->sDelay) - st->sPrevDelay;
    if (d >= evrc::kDelayJump || d <= -evrc::kDelayJump) {
        st->sPrevDelay = st->sDelay;
        return 0;
    }
    return d + kDeltaOffset;
}

// Everything one subframe needs between its stages.
struct Subframe {
    int j;
    int L;
    Word32 points[3];
    Word16 num[kOrder], den[kOrder];
    Word16 h[kMaxSubframe];
    Word16 acb8[kMaxSubframe + kAhead];
    Word16 residual[kMaxSubframe];  // modified residual at the excitation's level
    Word16 target[kMaxSubframe];
    Word16 fcb_target[kMaxSubframe];
};

// Weighting coefficients and the impulse response.
void weighted_responses(EvrcEncoderState *st, Subframe &sf) {
    weighting_coefficients(st->uqlpc[sf.j], sf.num, sf.den);
    FilterMemory mem = {};
    Word16 pulse[kMaxSubframe] = {kImpulse};
    evrc_weighted_synthesis_filter(pulse, sf.h, st->qlpc[sf.j], sf.num, sf.den, &mem[0][0], static_cast<Word16>(sf.L));
    Word16 emphasis[kErrorEmphasisWords] = {};
    emphasise_error(sf.h, sf.L, emphasis);
}

// The delay contour and the adaptive-codebook vector the
// decoder will build (8-tap interpolation), over L + 10 samples. It is built
// in place behind the history (the excitation area, which the local decoder
// overwrites afterwards; the interpolation reads no sample of it before
// writing it). The signal modification takes no 3-tap candidate.
void adaptive_candidates(EvrcEncoderState *st, Subframe &sf, Word32 *contour) {
    evrc_interpol_delay(st->sDelay, st->sPrevDelay, static_cast<Word16>(sf.j), sf.points);
    evrc_construct_delay_contour_enc(sf.points, contour, static_cast<Word16>(sf.L));
    const Word16 n = static_cast<Word16>(sf.L + kAhead);
    evrc_voc_rclp_block_interp(st->acb_mem + kHistory, contour, &evrc_acsBlockCoeff8[0][0], kBlockTaps8, n);
    std::memcpy(sf.acb8, st->acb_mem + kHistory, n * sizeof(Word16));
}

// Signal modification, then the modified residual history moves
// down so that the subframe stands just below kHistory. The residual is in
// the units of the doubled speech, while the decoder doubles what it
// synthesises from the excitation: the codebooks match a quarter of the
// modified residual, the excitation standing at half the input's level.
void modified_residual(EvrcEncoderState *st, Subframe &sf, const Word32 *contour) {
    evrc_enc::modify_subframe(st, sf.j, sf.L, contour, nullptr, sf.acb8);
    std::memmove(st->mod_residual, st->mod_residual + sf.L, (EVRC_ENC_MODRES_LEN - sf.L) * sizeof(Word16));
    to_excitation_level(st->mod_residual + kHistory - sf.L, sf.residual, sf.L);
}

// The target: the modified residual through the subframe's quantised
// synthesis filter (the filter that formed the coded residual, so that this
// gives back the speech), its weighting and the error emphasis, continuing
// the error of the subframes before (copies of the memories).
void weighted_target(EvrcEncoderState *st, Subframe &sf) {
    FilterMemory mem;
    std::memcpy(mem, st->wsf_mem[0], sizeof(mem));
    evrc_weighted_synthesis_filter(sf.residual, sf.target, st->qlpc[sf.j], sf.num, sf.den, &mem[0][0],
                                   static_cast<Word16>(sf.L));
    Word16 emphasis[kErrorEmphasisWords];
    std::memcpy(emphasis, emphasis_memory(st), sizeof(emphasis));
    emphasise_error(sf.target, sf.L, emphasis);
}

Word16 fcb_gain_of(Word16 index, Word16 rate) {
    return rate == EVRC_RATE_FULL ? evrc_acsFcbGainVQFull[index] : evrc_acsFcbGainVQFull[2 * index + 1];
}

// Excitation e = hi((acb * gp) << 2 + 32768 + L_mult(fcb, gc)), exact in
// 64 bits, the high half saturated; fcb is the decoder's sharpened vector.
void build_excitation(EvrcEncoderState *st, const Subframe &sf, Word16 *fcb, Word16 acb_gain, Word16 fcb_gain) {
    // The decoder's sharpening of the pulses (evrc_combine_acb_fcb less its
    // excitation sum, which counts nothing and is formed here instead).
    Word16 lag;
    evrc::sharpen_pulses(fcb, &lag, sf.points, acb_gain, static_cast<Word16>(sf.L));
    Word16 *exc = st->acb_mem + kHistory;
    for (int n = 0; n < sf.L; ++n) {
        const Word64 acb_part = static_cast<Word64>(static_cast<Word32>(sf.acb8[n]) * acb_gain) * 4;
        const Word64 sum = acb_part + 32768 + fx::detail::L_mult(fcb[n], fcb_gain);
        exc[n] = static_cast<Word16>(fx::L_sat32_64(sum) >> 16);
    }
    fx::charge(fx::weight::L_mult * static_cast<UWord32>(sf.L));
}

// The residual less the excitation drives the working filter memories; the
// history moves down by L; the saved memories follow.
void update_local_decoder(EvrcEncoderState *st, const Subframe &sf) {
    follow_error(st, sf.residual, st->acb_mem + kHistory, st->qlpc[sf.j], sf.num, sf.den, sf.L);
    std::memmove(st->acb_mem, st->acb_mem + sf.L, kHistory * sizeof(Word16));
    save_filter_memories(st);
}

// The modified residual less the gained adaptive vector (excitation level),
// which helps preset the pulse signs.
void residual_after_acb(const Subframe &sf, Word16 acb_gain, Word16 *out) {
    for (int n = 0; n < sf.L; ++n) {
        const Word16 gained = fx::detail::mult_r(acb_gain, fx::detail::shl(sf.acb8[n], 1));
        out[n] = fx::detail::sat16(static_cast<Word32>(sf.residual[n]) - gained);
    }
    fx::charge((fx::weight::shl + fx::weight::mult_r + fx::weight::sub) * static_cast<UWord32>(sf.L));
}

// Fixed-codebook fields and gain index of subframe j: four fields at rate 1,
// one otherwise.
void pack_fixed_codebook(Packer &pk, int j, const Word16 *fcb_index, Word16 gain_index, Word16 cb_rate) {
    const int fields = cb_rate == EVRC_RATE_FULL ? 4 : 1;
    for (int i = 0; i < fields; ++i) pk.put(FieldId::kFcb, fcb_index[i], j, i);
    pk.put(FieldId::kFcbGain, gain_index, j);
}

// One subframe; returns its adaptive gain index.
Word16 encode_subframe(EvrcEncoderState *st, Packer &pk, int j, Word16 rate, bool side) {
    Subframe sf;
    sf.j = j;
    sf.L = evrc_acsSubFrameSize[j];
    st->shift_carry_copy = st->sShiftCarry;
    weighted_responses(st, sf);

    Word32 contour[kMaxSubframe + kAhead];
    adaptive_candidates(st, sf, contour);
    modified_residual(st, sf, contour);
    weighted_target(st, sf);

    Word16 acb_index = evrc_remove_acb(sf.target, sf.acb8, sf.h, sf.fcb_target, static_cast<Word16>(sf.L));
    if (side) {
        acb_index = 0;
        std::memcpy(sf.fcb_target, sf.target, sizeof(sf.target));
    }
    pk.put(FieldId::kAcbGain, acb_index, j);
    const Word16 acb_gain = evrc_acsACBGainTable[acb_index];

    const Word16 cb_rate = rate == EVRC_RATE_FULL ? EVRC_RATE_FULL : EVRC_RATE_HALF;
    Word16 ltp_residual[kMaxSubframe];
    residual_after_acb(sf, acb_gain, ltp_residual);
    Word16 fcb_index[4] = {};
    Word16 fcb[evrc::kFcbLen];  // the pulses of fcb_index, decoded (as the decoder will)
    const Word16 gain_index =
        evrc_enc::acelp_with_pulses(sf.fcb_target, ltp_residual, sf.h, acb_gain, evrc::sharpening_lag(sf.points),
                                    cb_rate, static_cast<Word16>(sf.L), fcb_index, fcb);
    pack_fixed_codebook(pk, j, fcb_index, gain_index, cb_rate);

    build_excitation(st, sf, fcb, acb_gain, fcb_gain_of(gain_index, cb_rate));
    update_local_decoder(st, sf);
    return acb_index;
}

// The half- and full-rate path (and rate code 2, whose fields after
// the LSPs are those of half rate).
void encode_speech(EvrcEncoderState *st, Packer &pk, Word16 rate, bool side, const UWord16 *side_info,
                   UWord16 *packet) {
    evrc_update_rcelp_shift(st);
    if (side) {
        pk.put(side_info[2], evrc::kTtyHeaderBits);
        pk.put(side_info[3], evrc::kTtyDataBits);
    } else {
        pk.put(FieldId::kDelay, st->sDelay - evrc::kMinDelay);
    }
    const Word32 delta = delta_delay(st);
    if (rate == EVRC_RATE_FULL) pk.put(FieldId::kDeltaDelay, side ? 0 : delta);

    Word16 gain_index[kSubframes];
    for (int j = 0; j < kSubframes; ++j) gain_index[j] = encode_subframe(st, pk, j, rate, side);
    st->sPrevDelay = st->sDelay;

    if (side && rate == EVRC_RATE_FULL) {
        const evrc::PacketField &delta_field = *evrc::find_field(EVRC_RATE_FULL, FieldId::kDeltaDelay);
        packet[1 + delta_field.first_bit / 16] &= delta_clear_mask(delta_field);
        pk.put(FieldId::kReserved, side_info[4]);
    }
    evrc_flush_pack(pk.acc, pk.free_bits, pk.out);
    const Word32 sum = static_cast<Word32>(gain_index[0]) + gain_index[1] + gain_index[2];
    if (gain_index[kSubframes - 1] != 1 && sum < 2) {
        st->sAccumShift = 0;
        st->sShiftCarry = 0;
    }
}

}  // namespace

extern "C" {

EVRC_API int evrc_encoder(EvrcEncoderState *st, const Word16 *input, UWord16 *packet, UWord32 side_enable,
                          const UWord16 *side_info) {
    fx::CallScope scope;
    const bool side = side_enable != 0 && side_info[0] == 1;
    for (int i = 0; i < kFrame; ++i) st->asSpeech[kFrame + i] = fx::shl(input[i], 1);

    analyse_lpc(st);
    update_lpc_copies(st);
    evrc_compute_residual(st->asSpeech, st->prev_lpc, st->cur_lpc, st->uqlpc, st->residual);
    evrc_calc_frame_delay_and_beta(st);

    if (side) st->sMinRate = st->sMaxRate < kMaxRateCode ? st->sMaxRate : kMaxRateCode;
    evrc_ratedec(st);
    evrc_update_rate_info(st->band_noise, st->band_energy, st->band_signal, st->snr_index, &st->low_beta_count,
                          &st->high_beta_count, st->sBeta);
    if (st->sSkipNoiseUpdate == 0) evrc_background_noise_estimation(st, st->asSpeech + kFrame);
    st->sSkipNoiseUpdate = 0;

    const Word16 rate = st->sRate;
    Packer pk;
    evrc_init_pack(EVRC_PACKET_WORDS, &pk.acc, &pk.free_bits, packet);
    pk.out = packet + 1;
    pk.rate = rate;
    packet[0] = static_cast<UWord16>(rate);
    if (rate == EVRC_RATE_FULL) pk.put(FieldId::kModeBit, st->sLpcFlag);

    std::memcpy(st->prev_qlsp, st->qlsp, sizeof(st->prev_qlsp));
    evrc_quantize_lsps(st->lsp_weights, st->qlsp, st->lsp_index, st->uq_lsp, rate);
    pack_lsp_indices(pk, st->lsp_index);
    subframe_lpcs(st->prev_qlsp, st->qlsp, st->qlpc);

    if (rate == EVRC_RATE_EIGHTH) {
        encode_eighth_rate(st, pk);
    } else {
        encode_speech(st, pk, rate, side, side_info, packet);
    }
    std::memcpy(st->asSpeech, st->asSpeech + kFrame, kFrame * sizeof(Word16));
    return 0;
}

}  // extern "C"
