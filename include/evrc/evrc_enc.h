/*
 * EVRC encoder: 160 samples of 16-bit PCM at 8 kHz in, one packet of rate 1,
 * 1/2 or 1/8 out (word 0 the rate code, words 1.. the bits, first bit in the
 * most significant bit of word 1).
 *
 * The caller owns the state record (get_sizeof_evrc_enc_struct() bytes),
 * zero-fills it once, calls evrc_init_enc, optionally evrc_set_enc_params
 * (at any time between frames), then evrc_encoder once per frame. The encoder
 * never allocates; one record per stream, one thread at a time per record.
 *
 * Parameter roles are marked I (read), O (written) or IO; Qn formats follow
 * the parameter where they matter.
 */
#ifndef EVRC_ENC_H
#define EVRC_ENC_H

#include "evrc/evrc_common.h"

EVRC_EXTERN_C_BEGIN

#define EVRC_ENC_FRAME 160   /* samples per frame */
#define EVRC_ENC_HISTORY 128 /* adaptive-codebook history */
#define EVRC_ENC_ACB_LEN (EVRC_ENC_HISTORY + 54 + 10)
#define EVRC_ENC_MODRES_LEN (EVRC_ENC_HISTORY + EVRC_ENC_FRAME)
/* The 160 samples a packet codes are asSpeech[80 .. 240): the second half of
 * the previous frame and the first half of the current one. The LPC analysis
 * window is centred on sample 240, so the subframe centres (about 106, 160,
 * 213) lie 1/6, 1/2 and 5/6 of the way between the previous and the current
 * analysis, the weights of the subframe LSP interpolation; the encoder's
 * algorithmic delay is these 80 samples of look-ahead. */
#define EVRC_ENC_CODED_START 80

/* Encoder state, exactly 3544 bytes on 32- and 64-bit builds. Fields stand in
 * the order of the encoder's state table; the owning stage of each working
 * memory is named beside it. */
typedef struct EvrcEncoderState {
    Word32 lead[2];           /* 524288, 0 at init; not read */
    Word32 autocorr[17];      /* LPC analysis: lags 0..16, normalised */
    Word32 lpc[10];           /* LPC analysis: a1..a10 Q27, bandwidth-expanded */
    Word32 wsf_mem[2][3][10]; /* weighted synthesis filter of the coding error (modified
                                 residual less excitation): [0] working, [1] saved;
                                 blocks: synthesis, weighting zeros, weighting poles */
    Word32 p_poly[6];         /* LPC analysis: symmetric polynomial */
    Word32 q_poly[6];         /* LPC analysis: antisymmetric polynomial */
    Word32 band_noise[2];     /* rate decision: noise estimate per band */
    Word32 band_signal[2];    /* rate decision: signal estimate per band */
    Word32 band_energy[2];    /* rate decision: smoothed band energy */
    Word32 pred_error;        /* LPC analysis: final Durbin error energy */
    Word32 lsp_weights[10];   /* LSP quantisation: raw weights of the frame */
    Word16 sLpcFlag;          /* spectral-transition flag (full-rate mode bit) */
    Word16 pad0;
    Word32 lRateCtrlFlags;                    /* rate-control flags (evrc_set_enc_params) */
    Word16 asSpeech[2 * EVRC_ENC_FRAME];      /* previous then current frame, 2x input */
    Word16 residual[2 * EVRC_ENC_FRAME];      /* pitch analysis: LPC residual of asSpeech */
    Word16 mod_residual[EVRC_ENC_MODRES_LEN]; /* signal modification: modified residual */
    Word16 acb_mem[EVRC_ENC_ACB_LEN];         /* local decoder: excitation history, subframe, 10 ahead */
    Word16 qlpc[3][10];                       /* quantised LPC per subframe, Q12 */
    Word16 prev_lpc[10];                      /* previous frame's LPC, Q12 */
    Word16 cur_lpc[10];                       /* current frame's LPC, Q12 */
    Word16 uqlpc[3][10];                      /* unquantised LPC per subframe, Q12 */
    Word16 qlsp[10];                          /* current quantised LSPs, Q15 */
    Word16 prev_qlsp[10];                     /* previous quantised LSPs */
    Word16 root_lsp[10];                      /* LSP memory of the root search (previous frame's set) */
    Word16 snr_index[2];                      /* rate decision: band SNR indices 0..7 */
    Word16 noise_lpc[10];                     /* noise estimation: LPC snapshot (high halves) */
    Word16 lsp_index[4];                      /* LSP codebook indices */
    Word16 eighth[4];                         /* eighth-rate stage; eighth[0] is the seed (1234) */
    Word16 shift_carry_copy;                  /* sShiftCarry at the start of the subframe */
    Word16 window_shift;                      /* result of cmn1x_hamming_window */
    Word16 autocorr_shift;                    /* result of evrc_autocorr */
    Word16 uq_lsp[10];                        /* unquantised LSPs of the frame, Q15 */
    Word16 sDelay;                            /* open-loop delay 20..120 */
    Word16 sBeta;                             /* open-loop pitch gain, Q15 */
    Word16 sPrevDelay;
    Word16 sRate;
    Word16 sPrevRate;
    Word16 sFirstFrameDone;
    Word16 hangover; /* rate decision hangover counter */
    Word16 sMaxRate;
    Word16 sMinRate;
    Word16 sFullRateCount;
    Word16 low_beta_count;  /* rate decision: frames with low beta */
    Word16 high_beta_count; /* rate decision: frames with high beta */
    Word16 pred_gain;       /* noise estimation: prediction-gain value */
    Word16 sSkipNoiseUpdate;
    Word16 noise_level;   /* noise estimation: scalar level */
    Word16 noise_pending; /* noise estimation: snapshot pending */
    Word16 sAccumShift;   /* accumulated RCELP shift, Q8 samples */
    Word16 sShiftCarry;   /* shift-frame position carried to the next subframe */
    Word16 sigmod[3];     /* signal modification working values */
    /* Working room of the open stages (each stage carves named fields out of
     * its own block; the three blocks keep the record at 3544 bytes). */
    Word16 work_lpc[24];      /* LPC analysis, spectral-transition flag, eighth rate */
    Word16 work_pitch[130];   /* pitch analysis and signal modification */
    Word16 noise_gen[3];      /* local decoder: the decoder's noise generator at eighth rate
                                 (have-spare, spare, seed), mirrored */
    Word16 noise_gen_started; /* 0 until the mirrored generator is seeded */
    Word32 spare[30];         /* unused, zero */
    Word16 work_core[29];     /* frame driver, codebook searches, local decoder */
} EvrcEncoderState;

/* ---- Entry points ---------------------------------------------------- */
EVRC_API UWord32 get_sizeof_evrc_enc_struct(void); /* 3544 */
EVRC_API void evrc_init_enc(EvrcEncoderState *state);
EVRC_API void evrc_set_enc_params(EvrcEncoderState *state, UWord32 max_rate, UWord32 min_rate, UWord32 flag_a,
                                  UWord32 flag_b, UWord32 flag_c, UWord32 skip_noise_update);
/* I input[160], O packet[12], I side_info[5] (read only when side_enable != 0
 * and side_info[0] == 1). Returns 0. */
EVRC_API int evrc_encoder(EvrcEncoderState *state, const Word16 *input, UWord16 *packet, UWord32 side_enable,
                          const UWord16 *side_info);

/* ---- Rate decision and noise estimation ------------------------------ */
EVRC_API Word16 evrc_ratedec(EvrcEncoderState *state);
EVRC_API Word16 evrc_rate_selection(const Word32 autocorr[17], const Word16 snr_index[2], const Word32 noise[2],
                                    Word32 band_energy[2], Word16 *hangover, Word16 *first_frame_done, Word16 prev_rate,
                                    Word16 last_rate, Word16 window_shift, Word16 autocorr_shift);
EVRC_API void evrc_update_rate_info(Word32 noise[2], const Word32 band_energy[2], Word32 signal[2], Word16 snr_index[2],
                                    Word16 *low_beta_count, Word16 *high_beta_count, Word16 beta);
EVRC_API Word32 cmn1x_compute_bne(Word32 noise[2], const Word32 band_energy[2], const Word16 flag[2],
                                  const Word16 scale[2]);
EVRC_API Word32 cmn1x_compute_signal(Word32 signal[2], const Word32 band_energy[2], UWord16 gain);
EVRC_API void cmn1x_compute_snr(const Word32 signal[2], const Word32 noise[2], Word16 snr_index[2]);
/* speech = the 160 current samples of asSpeech */
EVRC_API void evrc_background_noise_estimation(EvrcEncoderState *state, const Word16 *speech);

/* ---- LSP quantisation ------------------------------------------------ */
EVRC_API void evrc_compute_lsp_weights(const Word16 lsp[10], Word32 weights[10]);
EVRC_API void evrc_norm_lsp_weights(const Word32 *weights, Word16 *norm, Word16 n);
EVRC_API void evrc_search_lsps(const Word16 *weights, const Word16 *target, Word16 *lsp_floor, const Word16 *codebook,
                               UWord32 params, Word16 *out, Word16 *index);
EVRC_API void evrc_quantize_lsps(Word32 weights[10], Word16 qlsp[10], Word16 *indices, const Word16 target[10],
                                 Word16 rate);

/* ---- Bit packing ------------------------------------------------------- */
/* Clears n words of out (when n >= 1); *acc = 0, *free_bits = 16. */
EVRC_API void evrc_init_pack(Word32 n, Word16 *acc, Word16 *free_bits, UWord16 *out);
/* Appends the `width` low bits of value, most significant first; *out moves
 * on by one word each time a word fills. */
EVRC_API void evrc_bit_pack(Word32 value, Word16 *acc, Word16 *free_bits, Word32 width, UWord16 **out);
/* Writes the partly filled word (if any) at out; out is not advanced. */
EVRC_API void evrc_flush_pack(Word16 acc, Word16 free_bits, UWord16 *out);

/* ---- Open stages -------------------------------------------------------
 * The analysis, search and eighth-rate stages. Each is documented where it is
 * declared below; they are called by evrc_encoder in its fixed order and may be
 * called on their own by native code that owns an EvrcEncoderState. */

/* LPC analysis.
 * I in[160], O out[160]: the frame times the analysis window, scaled up by
 * 2^shift (shift >= 0) to use the 16-bit range; returns shift. */
EVRC_API Word16 cmn1x_hamming_window(const Word16 *in, Word16 *out);
/* I x[160], O r[17]: r[k] = sum 2 x[n] x[n+k] (summed in 64 bits), all lags
 * shifted left by the returned shift (right when it is negative, for loud
 * frames) so that r[0] fills 32 bits; all-zero input gives r = 0, shift 0. */
EVRC_API Word16 evrc_autocorr(const Word16 *x, Word32 *r);
/* I r[17] (lag-windowed internally on a copy), O lpc[10] a1..a10 in Q27 of
 * A(z) = 1 - sum a_k z^-k; returns the final prediction error energy in the
 * units of r[0], below r[0] by at least r[0] / 1024 (0 when r[0] is 0). An
 * ill-conditioned or silent frame stops the recursion early (higher
 * coefficients 0), so the filter is always stable. */
EVRC_API Word32 cmn1x_durbins_recursion(const Word32 *r, Word32 *lpc);
/* Spectral-transition flag of the frame (the full-rate mode bit): 1 when the
 * previous frame's LPC leave more than four times (6 dB) the residual energy of
 * the frame's own LPC on its autocorrelation; reads lpc (before bandwidth
 * expansion) and autocorr, keeps the previous LPC in work_lpc. */
EVRC_API Word16 evrc_update_lpcflag(EvrcEncoderState *state);
/* IO lpc[10] Q27: a_k times 0.994^k. */
EVRC_API void evrc_bandwidth_expand_lpcs(Word32 *lpc);
/* I lpc[10] Q27, O p[6], O q[6]: coefficients 0..5 (Q22, coefficient 0 = 1)
 * of the sum and difference polynomials A(z) +- z^-11 A(1/z) with their
 * fixed roots at z = -1 and z = 1 divided out (both then symmetric). */
EVRC_API void cmn1x_lpc2pq(const Word32 *lpc, Word32 *p, Word32 *q);
/* I p[6], q[6], O lsp[10] Q15 ascending, I prev[10]: the previous frame's
 * set, copied to lsp when fewer than ten interlaced roots are found. LSPs are
 * fractions of the sampling rate (16384 = 4 kHz), at least 64 apart and from
 * 0 and 16384. Returns 1 when ten roots were found, 0 when the previous set
 * was used. */
EVRC_API Word16 cmn1x_pq2lsp(const Word32 *p, const Word32 *q, Word16 *lsp, const Word16 *prev);

/* Eighth rate. Called after the frame's quantised subframe LPC (qlpc) are
 * built; reads asSpeech, qlpc and lsp_index. Returns the 8-bit row index of
 * evrc_acsPowQuant whose gains give comfort noise the level of the frame
 * (never 255 when lsp_index[0] and lsp_index[1] are both 15). */
EVRC_API Word16 evrc_8th_rate(EvrcEncoderState *state);

/* Pitch analysis.
 * I speech[320] (asSpeech), I prev_lpc[10], cur_lpc[10] Q12, I subframe_lpc[3][10]
 * Q12 (the unquantised LPC of the three subframes), O residual[320]: the coded
 * segment asSpeech[80 .. 240) filtered subframe by subframe (53, 53, 54
 * samples) by A_j(z), the samples before it by A_prev(z), those after it by
 * A_cur(z); in the units of the speech. */
EVRC_API void evrc_compute_residual(const Word16 *speech, const Word16 *prev_lpc, const Word16 *cur_lpc,
                                    const Word16 (*subframe_lpc)[10], Word16 *residual);
/* Sets sDelay (20..120) and sBeta (Q15) from state->residual. */
EVRC_API void evrc_calc_frame_delay_and_beta(EvrcEncoderState *state);
/* Frame start of the signal modification (accumulated shift bookkeeping). */
EVRC_API void evrc_update_rcelp_shift(EvrcEncoderState *state);
/* Delay contour (Q24 per sample) of a subframe of L samples and 10 beyond,
 * from the three points of evrc_interpol_delay. */
EVRC_API void evrc_construct_delay_contour_enc(const Word32 *points, Word32 *contour, Word16 L);
/* Signal modification (RCELP). The modified residual is the residual read
 * at t - 10 - s(t), s the accumulated shift sAccumShift (Q8 samples, within
 * +-8 samples); sShiftCarry counts the samples already written beyond the
 * current subframe.
 * Shift search of one shift frame: I residual (the shift frame at the current
 * shift; residual[-(m/8 + 1) .. len + m/8 + 1) readable, m = max_shift_q3),
 * I target[len] the adaptive-codebook prediction, I len <= 160, I max_shift_q3
 * (1/8 samples). Returns the further shift k (Q3, |k| <= max_shift_q3) for
 * which residual[n - k] correlates best with the target (normalised), or 0
 * when the best normalised correlation is below 0.3. */
EVRC_API Word16 evrc_comp_shift(const Word16 *residual, const Word16 *target, Word16 len, Word16 max_shift_q3);
/* I x[len] (3 <= len <= 160), O *peak_pos the centre of the largest 3-sample
 * energy; returns that energy over the average 3-sample energy, Q8
 * (saturated; 0 for silence). */
EVRC_API Word16 evrc_peak_to_avg_ratio(const Word16 *x, Word16 len, Word16 *peak_pos);
/* Fractional read of a block: I in (in[-m .. len + m) readable, m = 9 +
 * |shift_q3| / 8), O out[len] = in[n - shift] for a shift in Q3 samples,
 * whole positions copied, others through the 17-tap 1/8-sample filter
 * evrc_acsBlockCoeff8. */
EVRC_API void evrc_rcelp_fixed_block_interp(const Word16 *in, Word16 *out, Word16 shift_q3, Word16 len);
/* IO state, I shift_q8: the accumulated shift after a shift frame (Q8),
 * stored within its bound; sigmod[0] takes the change, sigmod[1] counts
 * consecutive shift frames at the bound. */
EVRC_API void evrc_update_hysteresis(EvrcEncoderState *state, Word16 shift_q8);

/* Codebook searches and the weighted synthesis filter.
 * Weighted synthesis filter H(z) = W(z) / Aq(z), W(z) = A(z/0.9) / A(z/0.5):
 * I in[L], O out[L] (may be in), I qlpc[10] Q12 quantised LPC of the
 * subframe, I num[10], den[10] Q12 weighting zeros and poles (a_i 0.9^i and
 * a_i 0.5^i of the unquantised LPC), IO mem[30]: three blocks of ten Word32
 * (synthesis, weighting zeros, weighting poles; past outputs of each section,
 * most recent first). */
EVRC_API void evrc_weighted_synthesis_filter(const Word16 *in, Word16 *out, const Word16 *qlpc, const Word16 *num,
                                             const Word16 *den, Word32 *mem, Word16 L);
/* Adaptive-codebook gain. I target[L] weighted target (zero-input response
 * removed), I acb[L] adaptive-codebook vector, I h[L] weighted impulse
 * response (Q11: 2048 = 1.0), O fcb_target[L] = target minus the table gain
 * times the filtered acb. Returns the index 0..7 into evrc_acsACBGainTable. */
EVRC_API Word16 evrc_remove_acb(const Word16 *target, const Word16 *acb, const Word16 *h, Word16 *fcb_target, Word16 L);
/* Fixed-codebook search. I target[L] (adaptive contribution removed), I
 * residual[L] or NULL: the excitation-domain target less the gained adaptive
 * vector, which with the backward-filtered target presets the pulse signs at
 * rate 1, I h[L] Q11, I acb_gain Q14 and I lag: the pitch sharpening the
 * decoder applies,
 * I rate (4: 35-bit codebook, four fields; 3: 10-bit codebook, one field),
 * I L, O indices[4] (rate 1) or [1] (rate 1/2) in the packet's field layout.
 * Returns the gain index (rate 1: 0..31 into evrc_acsFcbGainVQFull; rate 1/2:
 * 0..15, the decoder reading entry 2 idx + 1). */
EVRC_API Word16 evrc_acelp(const Word16 *target, const Word16 *residual, const Word16 *h, Word16 acb_gain, Word16 lag,
                           Word16 rate, Word16 L, Word16 *indices);

EVRC_EXTERN_C_END

#endif /* EVRC_ENC_H */
