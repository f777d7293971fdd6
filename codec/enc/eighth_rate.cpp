// Eighth-rate energy index.
//
// An eighth-rate frame is rebuilt as Gaussian noise, scaled per subframe by
// the three gains of one evrc_acsPowQuant row and shaped by 1/Aq(z). The row
// is chosen so that the rebuilt frame keeps the level of the input: with
//   P_j   = sum s[n]^2 / L_j over coded subframe j of asSpeech (twice the input;
//           the decoder's output is twice its synthesis, so the synthesis
//           must carry P_j / 16),
//   H_j   = sum h[n]^2, the energy of the impulse response of 1/Aq_j(z)
//           (its power gain for white noise),
// the excitation needs the variance P_j / (16 H_j), and since the decoder's
// excitation is g n / 2^21 with n of standard deviation 7896, the gain is
//   g_j^2 = (2^21 / 7896)^2 P_j / (16 H_j).
// Matching the output level rather than the residual's RMS keeps the level
// right when the coarse eighth-rate envelope does not fit the spectrum. The
// rows are compared in the log domain through the log-energy codebook, whose
// entries are 4096 log10(g^2 / 16400): the row nearest to the three targets
// t_j = 4096 log10(g_j^2 / 16400) in squared distance is taken.
#include "codec/basic/fixed_point.h"
#include "codec/enc/enc_tables.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_enc.h"
#include "evrc/evrc_tables.h"

namespace {

constexpr int kOrder = 10;
constexpr int kSubframes = 3;
constexpr int kRows = 256;
constexpr int kImpulseLen = 64;    // impulse response samples summed
constexpr Word16 kImpulse = 1024;  // impulse amplitude (h scaled by 2^10)
constexpr Word32 kLog10Of2Q26 = 20201781;
constexpr Word32 kLog10SubLenQ26[kSubframes] = {115714195, 115714195, 116258977};  // log10 53, 53, 54
// 2 log10(2^21 / 7896) - log10(16400) - log10(16) + log10(2^20): noise scale,
// codebook offset, output doubling and the impulse amplitude.
constexpr Word32 kLevelOffsetQ26 = 365748786;
constexpr Word16 kSilenceQ12 = -32768;  // log level of an all-zero subframe
constexpr Word16 kReservedIndex = 255;  // with LSP indices 15, 15 it would be the all-ones packet
constexpr Word16 kReservedLsp = 15;

// log10(v) in Q26 for v > 0.
Word32 log10_q26(Word64 v) {
    const Word16 norm = fx::norm32_l64(v);
    const Word32 mant = static_cast<Word32>(fx::L_shl64(v, norm));  // in [2^30, 2^31)
    // log10(v) = log10(mant / 2^31) + (31 - norm) log10 2
    return fx::L_add(fx::fnLog10(mant),
                     static_cast<Word32>(fx::L_sat32_64(fx::int_mult_32_16(kLog10Of2Q26, 31 - norm))));
}

// Energy of the first kImpulseLen samples of the impulse response of 1/A(z),
// the impulse being kImpulse.
Word64 impulse_energy(const Word16 *lpc_q12) {
    Word16 x[kImpulseLen] = {kImpulse};
    Word16 h[kImpulseLen];
    Word32 mem[kOrder] = {};
    evrc_voc_synthesis_filter(lpc_q12, x, h, mem, kImpulseLen);
    Word64 e = 0;
    for (int n = 0; n < kImpulseLen; ++n) e = fx::int_mac_16_16(e, h[n], h[n]);
    fx::charge(kImpulseLen);
    return e;
}

// Log-energy target of subframe j: 4096 log10(g_j^2 / 16400).
Word16 subframe_target(const Word16 *speech, int L, int j, const Word16 *lpc_q12) {
    Word64 energy = 0;
    for (int n = 0; n < L; ++n) energy = fx::int_mac_16_16(energy, speech[n], speech[n]);
    fx::charge(static_cast<UWord32>(L));
    const Word64 gain = impulse_energy(lpc_q12);
    if (energy == 0 || gain == 0) return kSilenceQ12;
    Word32 level = fx::L_sub(log10_q26(energy), log10_q26(gain));
    level = fx::L_sub(level, kLog10SubLenQ26[j]);
    level = fx::L_add(level, kLevelOffsetQ26);
    return fx::saturate(fx::L_shr(level, 14));
}

}  // namespace

extern "C" {

EVRC_API Word16 evrc_8th_rate(EvrcEncoderState *state) {
    fx::CallScope scope;
    Word16 target[kSubframes];
    for (int j = 0; j < kSubframes; ++j) {
        const int L = evrc_acsSubFrameSize[j];
        target[j] = subframe_target(state->asSpeech + EVRC_ENC_CODED_START + 53 * j, L, j, state->qlpc[j]);
    }

    const bool avoid_reserved = state->lsp_index[0] == kReservedLsp && state->lsp_index[1] == kReservedLsp;
    Word16 best = 0;
    Word64 best_dist = -1;
    for (int r = 0; r < kRows; ++r) {
        if (avoid_reserved && r == kReservedIndex) continue;
        Word64 dist = 0;
        for (int j = 0; j < kSubframes; ++j) {
            const Word32 d = fx::L_sub(target[j], evrc_enc_tables::eighth_rate_log_energy_vq[r][j]);
            dist = fx::L_add64(dist, fx::int_mult_32_32(d, d));
        }
        if (best_dist < 0 || dist < best_dist) {
            best_dist = dist;
            best = static_cast<Word16>(r);
        }
    }
    fx::charge(static_cast<UWord32>(kRows * kSubframes * 3));
    return best;
}

}  // extern "C"
