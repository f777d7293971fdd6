// Bit packing of the encoder's packet fields (stub).
#include "codec/basic/fixed_point.h"
#include "evrc/evrc_enc.h"

extern "C" {

EVRC_API void evrc_init_pack(Word32 n, Word16 *acc, Word16 *free_bits, UWord16 *out) {
    for (Word32 i = 0; i < n; ++i) out[i] = 0;
    *acc = 0;
    *free_bits = 16;
}

EVRC_API void evrc_bit_pack(Word32 value, Word16 *acc, Word16 *free_bits, Word32 width, UWord16 **out) {
    (void)value; (void)acc; (void)free_bits; (void)width; (void)out;
}

EVRC_API void evrc_flush_pack(Word16 acc, Word16 free_bits, UWord16 *out) {
    (void)acc; (void)free_bits; (void)out;
}

}  // extern "C"
