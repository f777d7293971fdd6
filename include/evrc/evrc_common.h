/*
 * EVRC signal-path pieces shared by the encoder and the decoder: rate codes
 * and the packet word layout, LSP codebooks, LSP interpolation and LSP-to-LPC
 * conversion, bandwidth expansion, the pitch delay contour and the adaptive
 * codebook, the fixed-codebook pulse layout and the sum of the two codebooks,
 * and the tenth-order LPC filters.
 *
 * Parameter formats: LSPs are Q15 fractions of the sampling frequency, LPC
 * coefficients a1..a10 of A(z) = 1 - sum a_k z^-k are Q12, delays are Q16
 * samples at the delay points and Q24 along the contour.
 */
#ifndef EVRC_COMMON_H
#define EVRC_COMMON_H

#include "evrc/evrc_types.h"

EVRC_EXTERN_C_BEGIN

/* Rate codes (the packet's rate word). Any other code is an erasure. */
enum { EVRC_RATE_BLANK = 0, EVRC_RATE_EIGHTH = 1, EVRC_RATE_QUARTER = 2, EVRC_RATE_HALF = 3, EVRC_RATE_FULL = 4 };

#define EVRC_FRAME_SIZE 160
#define EVRC_PACKET_WORDS 12

/* One packet in the word layout: rate word, then 11 data words, the first
 * packet bit in the most significant bit of data[0]. */
typedef struct EvrcPacket {
    Word16 rate;
    Word16 data[11];
} EvrcPacket;

/* Excitation buffers (the decoder's exc_history, the encoder's adaptive
 * codebook memory): EVRC_HISTORY_LEN past samples, the current subframe of at
 * most EVRC_MAX_SUBFRAME samples, and ten samples beyond it. */
#define EVRC_HISTORY_LEN 128 /* past excitation samples */
#define EVRC_MAX_SUBFRAME 54

/* LSP codebooks and LSP-to-LPC conversion. */
/* I codebook (rows of row_len Q15 LSPs), I row_index, O out[row_len] */
EVRC_API void evrc_unquant_lsps(const Word16 *codebook, Word16 row_len, Word16 row_index, Word16 *out);
/* I prev[10], I cur[10], O out[10]; weight Q15 of cur (read unsigned). Returns out[9]. */
EVRC_API Word16 cmn1x_interpolate_lsp(const Word16 *prev, const Word16 *cur, Word16 *out, Word16 weight);
/* I lsp[10], IO a[10] Q12 (kept, bandwidth-expanded, when the conversion overflows) */
EVRC_API void cmn1x_lsp2lpc(const Word16 *lsp, Word16 *a, Word16 shift);
EVRC_API void evrc_voc_compute_poly_product(const Word16 *lsp, Word32 *poly, Word16 order);
EVRC_API Word32 evrc_voc_poscos(Word16 lsp);
EVRC_API void evrc_voc_lsp_convolve(Word32 b, const Word32 *in, Word32 *out, Word16 n);
/* out[k] = factors[k] * in[k] (Q15 factors), rounded; out may equal in. Returns out[9]. */
EVRC_API Word16 evrc_bwe_lpc_sp(const Word16 *in, Word16 *out, const Word16 *factors);

/* Pitch delay contour and adaptive codebook. */
EVRC_API void evrc_interpol_delay(Word16 cur_delay, Word16 prev_delay, Word16 subframe, Word32 *points);
EVRC_API void evrc_construct_delay_contour(const Word32 *points, Word32 *contour, Word16 L);
EVRC_API void evrc_voc_rclp_block_interp(Word16 *exc, const Word32 *contour, const Word16 *filter, Word16 N,
                                         Word16 n_samples);
EVRC_API void evrc_rx_acb_excitation(const Word32 *points, Word16 *exc, Word16 L);

/* Fixed codebook and the sum of the two codebooks. */
EVRC_API void evrc_dec_fixed_codebook(Word16 *fcb, const Word16 *indices, Word16 rate);
EVRC_API void evrc_combine_acb_fcb(Word16 *exc, Word16 *fcb, Word16 *pitch_lag, const Word32 *points, Word16 acb_gain,
                                   Word16 fcb_gain, Word16 L);

/* Tenth-order LPC filters. */
EVRC_API void evrc_voc_synthesis_filter(const Word16 *lpc, const Word16 *in, Word16 *out, Word32 *mem, Word16 L);
EVRC_API void evrc_voc_prediction_filter(const Word16 *in, const Word16 *lpc, Word16 *out, Word16 L, Word16 shift);

EVRC_EXTERN_C_END

#endif /* EVRC_COMMON_H */
