/*
 * EVRC decoder: one 20 ms packet in, 160 samples of 16-bit PCM at 8 kHz out.
 *
 * The caller owns the state record (get_sizeof_evrc_dec_struct() bytes),
 * zero-fills it once, calls evrc_init_dec, then evrc_decode once per packet.
 * The decoder never allocates and never fails: bad or missing packets are
 * concealed.
 */
#ifndef EVRC_DEC_H
#define EVRC_DEC_H

#include "evrc/evrc_common.h"
#include "evrc/evrc_types.h"

EVRC_EXTERN_C_BEGIN

/* Unpacked parameters of one frame (33 words). */
typedef struct EvrcFrameParams {
    Word16 mode_bit;          /* 0: rate 1 only */
    Word16 lsp[10];           /* 1-10: dequantised LSPs, Q15 of fs */
    Word16 bad_frame;         /* 11 */
    Word16 energy_index;      /* 12: rate 1/8 only */
    Word16 delay;             /* 13: pitch delay in samples (index + 20) */
    Word16 delta_delay;       /* 14: rate 1 only */
    Word16 acb_gain_index[3]; /* 15-17 */
    Word16 fcb_index[3][4];   /* 18-29: four fields per subframe */
    Word16 fcb_gain_index[3]; /* 30-32 */
} EvrcFrameParams;

/* Gaussian noise generator record. */
typedef struct EvrcGaussRecord {
    Word16 gauss_have_spare;
    Word16 gauss_spare;
    Word16 noise_seed;
} EvrcGaussRecord;

/* Decoder state, exactly 1392 bytes on 32- and 64-bit builds. */
typedef struct EvrcDecoderState {
    /* syn_mem[0]: synthesis filter, syn_mem[1]: postfilter poles,
     * syn_mem[2..3]: spare filter memory blocks. */
    Word32 syn_mem[4][10];
    union {
        const Word16 *ptr; /* row of evrc_acsPowQuant of the last 1/8 frame */
        Word64 pad;        /* keeps the record's size on 32-bit builds */
    } pow_quant_ptr;
    Word16 erasure_count;
    EvrcGaussRecord gauss; /* gauss_have_spare, gauss_spare, noise_seed */
    Word16 lpc[10];
    Word16 prev_delay;
    Word16 prev_rate;
    Word16 acb_gain;
    Word16 prefilter_ramp;
    Word16 agc_new_weight; /* AGC weight of the new gain (Q15) */
    Word16 exc_saved[EVRC_HISTORY_LEN];
    Word16 prev_erased;
    Word16 conceal_gains[3];
    Word16 agc_prev_gain; /* previous smoothed AGC gain */
    Word16 tilt_last;     /* last input sample of the tilt filter */
    /* 128 past samples, the current subframe, and 10 samples beyond it. */
    Word16 exc_history[EVRC_HISTORY_LEN + EVRC_MAX_SUBFRAME + 10];
    Word16 prev_lsp[10];
    Word16 avg_acb_gain;
    Word16 avg_fcb_gain;
    Word16 pitch_lag;
    Word16 erased_start_delay;
    Word16 agc_prev_weight; /* AGC weight of the previous gain (Q15) */
    /* ten remembered tilt-compensated samples, then the current subframe's */
    Word16 pf_buf[10 + EVRC_MAX_SUBFRAME];
    Word16 tty_header;
    Word16 tty_data;
    Word16 tty_bit;
    Word16 tty_mode;
    Word16 reserved[184]; /* working room; keeps the record at 1392 bytes */
} EvrcDecoderState;

EVRC_API int get_sizeof_evrc_dec_struct(void);
EVRC_API void evrc_init_dec(EvrcDecoderState *st);
EVRC_API void evrc_init_dec_illegal_rate_transition(EvrcDecoderState *st);
EVRC_API void evrc_init_tty_dec(EvrcDecoderState *st, Word16 mode);
EVRC_API int evrc_decode(EvrcDecoderState *st, EvrcPacket *packet, Word16 *output, int postfilter_off);
EVRC_API void evrc_check_illegal_rate_transition(EvrcDecoderState *st, Word16 rate);
EVRC_API Word16 evrc_fer_detect_and_unpack(EvrcDecoderState *st, EvrcFrameParams *fp, EvrcPacket *packet);
EVRC_API void evrc_dec_clean_up(EvrcDecoderState *st, EvrcFrameParams *fp, Word16 *output, Word16 rate, Word16 erased);
EVRC_API void evrc_decoder_gain_adjust(EvrcDecoderState *st, Word16 *output);

/* Packet format and unpacking. */
EVRC_API Word16 evrc_fer_detect(EvrcPacket *packet, Word16 prev_rate, Word16 prev_erased, Word16 first_word);
EVRC_API Word16 evrc_unpack(EvrcFrameParams *fp, EvrcPacket *packet);
EVRC_API void evrc_unpack_full_rate(const Word16 *data, EvrcFrameParams *fp);
EVRC_API void evrc_unpack_half_rate(const Word16 *data, EvrcFrameParams *fp);
EVRC_API Word16 evrc_unpack_one_eigth_rate(const Word16 *data, EvrcFrameParams *fp);
EVRC_API Word16 evrc_check_fcb_indices(const EvrcFrameParams *fp, Word16 rate, Word16 bad_frame);

/* LSP order check. */
EVRC_API void evrc_check_lsps(EvrcFrameParams *fp);

/* Excitation history of an erased frame, rebuilt from the next rate-1 frame. */
EVRC_API void evrc_fix_dlay_contour(EvrcDecoderState *st, EvrcFrameParams *fp);

/* Synthesis and post-processing. */
EVRC_API void evrc_pitch_pre_filter(const Word16 *exc_last, Word16 pitch_lag, Word16 *out, Word16 acb_gain, Word16 L);
EVRC_API void evrc_decoder_postfilter(EvrcDecoderState *st, Word16 *out, const Word16 *poles, const Word16 *zeros,
                                      Word16 L, Word16 tilt);
EVRC_API Word16 evrc_decoder_agc(EvrcDecoderState *st, const Word16 *ref, const Word16 *in, Word16 *out, Word16 mode,
                                 Word16 L);

/* Eighth rate, noise generation and erasure concealment. */
EVRC_API void evrc_decode_8th(EvrcDecoderState *st, EvrcFrameParams *fp, Word16 *output, Word16 erased,
                              Word16 use_conceal_gains, int postfilter_off);
EVRC_API Word16 evrc_ran_uniform(Word16 *seed);
EVRC_API Word16 evrc_ran_gaussian(EvrcGaussRecord *gen);
EVRC_API void evrc_decode_erasure(EvrcDecoderState *st, EvrcFrameParams *fp, Word16 *output, Word16 rate, Word16 erased,
                                  int postfilter_off);

/* Packet repacking between the byte-stream and word layouts (24 bytes). */
EVRC_API void evrc_repacking_kel_to_dsp(void *buffer);
EVRC_API int evrc_repacking_dsp_to_kel(void *buffer);

EVRC_EXTERN_C_END

#endif /* EVRC_DEC_H */
