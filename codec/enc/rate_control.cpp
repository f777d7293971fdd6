// Encoder rate control: the state record's set-up, the caller's rate limits
// and flags, and evrc_ratedec, which wraps the band-energy rate selection with
// the rules the caller and the codec impose, in this order: first frame full,
// forced eighth, no full-to-eighth step, full-rate limiting, clamp to the
// caller's range.
//
// lRateCtrlFlags: bit 12 one-shot noise reset, bit 13 forced eighth, bit 14
// full-rate limiting on, bit 15 limiting variant, bits 16..31 the count N.
#include "codec/basic/fixed_point.h"
#include "evrc/evrc_enc.h"
#include "evrc/evrc_tables.h"

namespace {

constexpr UWord32 kStateBytes = 3544;
constexpr Word32 kLeadWord0 = 524288;
constexpr Word32 kNoiseInit = 5059644;
constexpr Word32 kSignalInit[2] = {3200000, 320000};
constexpr Word16 kSeedInit = 1234;
constexpr Word16 kPrevDelayInit = 40;
constexpr Word16 kNoiseLevelInit = 16;

constexpr UWord32 kFlagNoiseReset = 1u << 12;
constexpr UWord32 kFlagForceEighth = 1u << 13;
constexpr UWord32 kFlagLimitFull = 1u << 14;
constexpr UWord32 kFlagLimitVariant = 1u << 15;
constexpr int kLimitCountShift = 16;

constexpr Word16 kRateEighth = 1;
constexpr Word16 kRateQuarter = 2;
constexpr Word16 kRateHalf = 3;
constexpr Word16 kRateFull = 4;

inline Word16 low16(UWord32 x) { return static_cast<Word16>(static_cast<UWord16>(x)); }

// Counters stop at the top of their 16-bit range.
inline Word16 bump(Word16 c) { return c == 32767 ? c : static_cast<Word16>(c + 1); }

// Full-rate limiting: N full-rate frames allowed per window of the counter.
Word16 limit_full_rate(EvrcEncoderState *st, Word16 rate, UWord32 flags) {
    const UWord32 n = flags >> kLimitCountShift;
    if ((flags & kFlagLimitVariant) == 0) {
        // Counter runs every frame; a full-rate frame passes only once more
        // than N frames have gone by since the last one that passed.
        st->sFullRateCount = bump(st->sFullRateCount);
        if (rate == kRateFull) {
            if (n < static_cast<UWord32>(static_cast<Word32>(st->sFullRateCount))) {
                st->sFullRateCount = 0;
            } else {
                rate = kRateHalf;
            }
        }
        return rate;
    }
    // Counter runs over consecutive full-rate frames; the (N+1)-th is demoted.
    if (rate == kRateFull) {
        st->sFullRateCount = bump(st->sFullRateCount);
        if (n < static_cast<UWord32>(static_cast<Word32>(st->sFullRateCount))) {
            rate = kRateHalf;
            st->sFullRateCount = 0;
        }
    } else {
        st->sFullRateCount = 0;
    }
    return rate;
}

}  // namespace

extern "C" {

EVRC_API UWord32 get_sizeof_evrc_enc_struct(void) {
    fx::CallScope scope;
    return kStateBytes;
}

// Writes only the fields with a non-zero start; the caller has zero-filled
// the record before.
EVRC_API void evrc_init_enc(EvrcEncoderState *state) {
    fx::CallScope scope;
    state->lead[0] = kLeadWord0;
    state->lead[1] = 0;
    for (int k = 0; k < 2; ++k) {
        state->band_noise[k] = kNoiseInit;
        state->band_signal[k] = kSignalInit[k];
        state->band_energy[k] = kSignalInit[k];
    }
    for (int i = 0; i < 10; ++i) {
        state->qlsp[i] = evrc_acsInitLspTable[i];
        state->root_lsp[i] = evrc_acsInitLspTable[i];
    }
    state->eighth[0] = kSeedInit;
    state->sPrevDelay = kPrevDelayInit;
    state->sMaxRate = kRateFull;
    state->sMinRate = 0;
    state->noise_level = kNoiseLevelInit;
    state->uq_lsp[0] = 0;
    state->uq_lsp[1] = 0;
}

EVRC_API void evrc_set_enc_params(EvrcEncoderState *state, UWord32 max_rate, UWord32 min_rate, UWord32 flag_a,
                                  UWord32 flag_b, UWord32 flag_c, UWord32 skip_noise_update) {
    fx::CallScope scope;
    state->sMinRate = low16(min_rate > max_rate ? max_rate : min_rate);
    state->sMaxRate = low16(max_rate);
    state->sSkipNoiseUpdate = low16(skip_noise_update);
    // Wider values of A carry the limiting variant (bit 15) and N (16..31).
    state->lRateCtrlFlags = static_cast<Word32>((flag_b << 13) | (flag_a << 14) | (flag_c << 12));
}

EVRC_API Word16 evrc_ratedec(EvrcEncoderState *state) {
    fx::CallScope scope;
    UWord32 flags = static_cast<UWord32>(state->lRateCtrlFlags);
    if (flags & kFlagNoiseReset) {
        flags &= ~kFlagNoiseReset;
        state->lRateCtrlFlags = static_cast<Word32>(flags);
        state->band_noise[0] = kNoiseInit;
        state->band_noise[1] = kNoiseInit;
    }

    Word16 rate = evrc_rate_selection(state->autocorr, state->snr_index, state->band_noise, state->band_energy,
                                      &state->hangover, &state->sFirstFrameDone, state->sPrevRate, state->sRate,
                                      state->window_shift, state->autocorr_shift);

    if (state->sFirstFrameDone == 0) {
        state->sFirstFrameDone = 1;
        rate = kRateFull;
    }
    if (flags & kFlagForceEighth) rate = kRateEighth;
    if (state->sRate == kRateFull && rate < kRateQuarter) rate = kRateHalf;
    if (flags & kFlagLimitFull) rate = limit_full_rate(state, rate, flags);

    if (rate > state->sMaxRate) rate = state->sMaxRate;
    if (rate < state->sMinRate) rate = state->sMinRate;

    state->sPrevRate = state->sRate;
    state->sRate = rate;
    return rate;
}

}  // extern "C"
