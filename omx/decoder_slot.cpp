// The component's side of the codec, the one place where the two meet: the
// decoder state is created (or zero-filled again) on Loaded -> Idle,
// re-initialised by a data flush and freed by component_deinit; decode_batch
// runs the decoder over the packet slots of one batch.
#include <cstdlib>
#include <cstring>

#include "omx/omx_evrc_adec.h"

bool omx_evrc_adec::decoder_create() {
    EvrcDecoderState *dec = decoder_state;
    const int size = get_sizeof_evrc_dec_struct();
    const std::size_t bytes = size > 0 ? static_cast<std::size_t>(size) : 1;
    if (!dec) {
        dec = static_cast<EvrcDecoderState *>(std::calloc(1, bytes));
        if (!dec) return false;
        decoder_state = dec;
    } else {
        std::memset(static_cast<void *>(dec), 0, bytes);
    }
    evrc_init_dec(dec);
    return true;
}

void omx_evrc_adec::decoder_reset() {
    if (EvrcDecoderState *dec = decoder_state) evrc_init_dec(dec);
}

void omx_evrc_adec::decoder_destroy() { std::free(decoder_state.exchange(nullptr)); }

void omx_evrc_adec::byte_swap(unsigned char *buf, unsigned char len) {
    for (unsigned char i = 0; i < len; i = static_cast<unsigned char>(i + 2)) {
        const unsigned char t = buf[i];
        buf[i] = buf[i + 1];
        buf[i + 1] = t;
    }
}

// Each 24-byte slot becomes an EvrcPacket in place: swapping the bytes of
// every pair turns the big-endian byte stream into the 12 native words.
// The decode time of each packet (from its byte swap to the end of its
// decoding) is added to evrc_decode_total_time_us, with evrc_decode_tv1/tv2
// left at the last packet's start and end. One clock reading between two
// packets serves as the end of the one and the start of the next (only the
// loop step lies between them), which halves the clock readings.
void omx_evrc_adec::decode_batch(unsigned int n) {
    EvrcDecoderState *dec = decoder_state;
    if (n == 0) return;
    struct timeval start;
    struct timezone start_tz;
    gettimeofday(&start, &start_tz);
    for (unsigned int k = 0; k < n; ++k) {
        unsigned char *slot = pkt_array + k * kSlotSize;
        evrc_decode_tv1 = start;
        evrc_decode_tz1 = start_tz;
        byte_swap(slot, static_cast<unsigned char>(kSlotSize));
        if (dec) evrc_decode(dec, reinterpret_cast<EvrcPacket *>(slot), pcm_out_buf + EVRC_FRAME_SIZE * k, 0);
        gettimeofday(&evrc_decode_tv2, &evrc_decode_tz2);
        const int32_t elapsed = static_cast<int32_t>((evrc_decode_tv2.tv_sec - evrc_decode_tv1.tv_sec) * 1000000 +
                                                     (evrc_decode_tv2.tv_usec - evrc_decode_tv1.tv_usec));
        evrc_decode_total_time_us += elapsed;
        start = evrc_decode_tv2;
        start_tz = evrc_decode_tz2;
    }
}
