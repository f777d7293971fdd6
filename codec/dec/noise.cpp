// Pseudo-random generators of the decoder: a 16-bit linear congruential
// uniform generator and a polar-method Gaussian generator built on it.
//
// The Gaussian generator produces samples in pairs: the second sample of an
// accepted pair is kept in the record and returned by the next call without
// drawing. A rejected pair is not redrawn; it yields one cheap approximate
// sample made from the pair and a third uniform draw instead, so a call
// always draws at most three uniforms.
#include <cstdint>

#include "codec/basic/fixed_point.h"
#include "evrc/evrc_dec.h"

namespace {

constexpr uint32_t kLcgMultiplier = 25173;
constexpr uint32_t kLcgIncrement = 13849;

// Advances the seed one step (wrapping at 16 bits) and returns the new seed
// halved as a signed value, -16384..16383.
inline Word16 lcg_draw(Word16 *seed) {
    const uint32_t next = (static_cast<uint16_t>(*seed) * kLcgMultiplier + kLcgIncrement) & 0xFFFFu;
    *seed = static_cast<Word16>(static_cast<uint16_t>(next));
    return fx::shr(*seed, 1);
}

inline Word16 low15(Word16 v) { return static_cast<Word16>(v & 0x7FFF); }

// Plain two's-complement negation of a 32-bit value (wraps for MIN_32).
inline Word32 wrapping_negate(Word32 v) { return static_cast<Word32>(0u - static_cast<uint32_t>(v)); }

// Cheap stand-in sample for a pair that fell outside the unit circle.
Word16 fallback_sample(Word16 *seed, Word16 x, Word16 y) {
    const Word16 u3 = lcg_draw(seed);
    return fx::add(fx::add(fx::shr(x, 3), fx::shr(y, 3)), fx::add(-4096, fx::shr(low15(u3), 2)));
}

// Polar transform of an accepted pair (x, y) with radius² s (Q31): returns
// the sample for y and stores the one for x as the spare.
Word16 polar_pair(EvrcGaussRecord *gen, Word16 x, Word16 y, Word32 s) {
    // -ln(s) in Q26, rounded at bit 15.
    const Word32 l = fx::L_add(wrapping_negate(fx::log_3term(s)), 32768);
    const Word16 n = fx::norm_l(s);
    const Word16 d = fx::extract_h(fx::L_add(fx::L_shl(s, n), 32768));
    const Word16 q = fx::signed_32_div_16(static_cast<Word32>(static_cast<uint32_t>(l) & 0xFFFF0000u), d);

    const Word16 m = fx::norm_l(fx::L_deposit_h(q));
    Word32 t = fx::L_add(fx::taylor_sqroot(fx::L_shl(fx::L_deposit_h(q), m)), 32768);

    // Exponent of the square root; an odd exponent takes a factor 1/sqrt(2)
    // into the mantissa so that it can be halved exactly.
    int e = m - n - 2;
    if (e & 1) {
        t = fx::L_mult_su(fx::extract_h(t), 46341);
        e = m - n - 3;
    }

    const Word16 k = fx::norm_l(static_cast<Word32>(static_cast<uint32_t>(t) & 0xFFFF0000u));
    t = fx::L_shl(t, k);
    const Word16 sh = fx::sub(fx::shr(static_cast<Word16>(-e), 1), k);
    const Word16 g = fx::extract_h(t);

    gen->gauss_spare = fx::extract_h(fx::L_add(32768, fx::L_shl(fx::L_mult(g, x), sh)));
    const Word64 scaled_y = fx::L_shl64(fx::L_mult(g, y), sh);
    const Word64 rounded = static_cast<Word64>(static_cast<uint64_t>(scaled_y) + 32768u);
    const Word16 result = fx::extract_h(static_cast<Word32>(fx::L_sat32_64(rounded)));
    gen->gauss_have_spare = 1;
    return result;
}

}  // namespace

extern "C" {

EVRC_API Word16 evrc_ran_uniform(Word16 *seed) {
    fx::CallScope scope;
    return low15(lcg_draw(seed));
}

EVRC_API Word16 evrc_ran_gaussian(EvrcGaussRecord *gen) {
    fx::CallScope scope;
    if (gen->gauss_have_spare == 1) {
        gen->gauss_have_spare = 0;
        return gen->gauss_spare;
    }

    const Word16 u1 = lcg_draw(&gen->noise_seed);
    const Word16 u2 = lcg_draw(&gen->noise_seed);

    // x and y uniform in [-1, 1) (Q15); w is y / 2.
    const Word32 twice_u1 = static_cast<Word32>((2u * static_cast<uint32_t>(u1)) & 0xFFFFu);
    const Word16 x = fx::extract_l(fx::L_add(twice_u1, -32768));
    const Word16 w = fx::extract_l(fx::L_add(low15(u2), -16384));
    const Word16 y = static_cast<Word16>(fx::L_add(w, w));

    // x² + y² in Q31, at 64 bits so that points beyond the unit circle show.
    const Word64 s = fx::L_add64(fx::L_mult(x, x), fx::L_shl64(fx::L_mult(w, w), 2));
    if (s == 0 || s > (Word64{1} << 31)) return fallback_sample(&gen->noise_seed, x, y);

    return polar_pair(gen, x, y, static_cast<Word32>(static_cast<uint32_t>(s)));
}

}  // extern "C"
