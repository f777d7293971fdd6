/* Encodes one second of a 440 Hz tone and decodes it again with the
 * installed library; fails when a packet has a rate the encoder does not
 * make or when the decoded tone is lost. */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <evrc/evrc_dec.h>
#include <evrc/evrc_enc.h>

#define FRAMES 50 /* one second */

int main(void) {
    EvrcEncoderState *enc = calloc(1, get_sizeof_evrc_enc_struct());
    EvrcDecoderState *dec = calloc(1, sizeof *dec);
    double energy_in = 0.0, energy_out = 0.0;
    int f, i;
    if (enc == NULL || dec == NULL) return 1;
    evrc_init_enc(enc);
    evrc_init_dec(dec);
    for (f = 0; f < FRAMES; ++f) {
        Word16 pcm[EVRC_FRAME_SIZE], out[EVRC_FRAME_SIZE];
        UWord16 words[EVRC_PACKET_WORDS];
        EvrcPacket packet;
        for (i = 0; i < EVRC_FRAME_SIZE; ++i) {
            const int n = f * EVRC_FRAME_SIZE + i;
            pcm[i] = (Word16)(8000.0 * sin(2.0 * 3.14159265358979 * 440.0 * n / 8000.0));
        }
        evrc_encoder(enc, pcm, words, 0, NULL);
        if (words[0] != EVRC_RATE_FULL && words[0] != EVRC_RATE_HALF && words[0] != EVRC_RATE_EIGHTH) {
            fprintf(stderr, "frame %d: rate %u\n", f, (unsigned)words[0]);
            return 1;
        }
        packet.rate = (Word16)words[0];
        memcpy(packet.data, &words[1], sizeof packet.data);
        evrc_decode(dec, &packet, out, 0);
        if (f >= FRAMES / 2) { /* past the codec's start-up */
            for (i = 0; i < EVRC_FRAME_SIZE; ++i) {
                energy_in += (double)pcm[i] * pcm[i];
                energy_out += (double)out[i] * out[i];
            }
        }
    }
    printf("decoded/input energy: %.3f\n", energy_out / energy_in);
    free(enc);
    free(dec);
    return energy_out > 0.01 * energy_in ? 0 : 1;
}
