// Algebraic fixed-codebook search in the weighted domain.
//
// The decoder sharpens the pulse vector with the comb 1/(1 - b z^-T)
// (b the adaptive gain clamped to 0.2 .. 0.9, T the subframe's lag); the
// search folds that comb into the weighted impulse response h, so a pulse
// at p contributes hs[n - p] to the filtered vector. With
//   d[n]     = sum_k x[k] hs[k - n]              (backward-filtered target)
//   rr[i][j] = sum_k hs[k - i] hs[k - j]         (correlation of hs)
// a pulse set with signs s_p scores C^2 / E, C = sum s_p d[p],
// E = sum_p sum_q s_p s_q rr[p][q]; the best set maximises it.
//
// Rate 1 (35 bits): five interleaved tracks t + 5m (m = 0..10); three tracks
// carry two pulses, two (chosen by a 2-bit track shift) carry one. Signs are
// preset from d and the excitation-domain residual. For every track shift
// (in order of promise: single-pulse tracks with the weakest second
// candidates first; the first of equal scores wins) and each of the two
// strongest starting tracks, a depth-first search places the pulses: one
// pulse fixed at the strongest position of the starting track, the others
// in pairs of tracks searched jointly with the earlier pulses held (the
// first three slots do not depend on the shift; a pair's first track is
// scanned strongest position first). The best kRefined of these eight sets
// are then improved: every pair of pulses is taken out and placed again
// jointly with the other six held (its first pulse at one of the
// kRepairCandidates strongest places of its track; kept when the score
// rises), then each pulse moves to the best place on its track, in two
// passes; the best result wins.
// Rate 1/2 (10 bits): three pulses at 7p + 2i with signs +s, -s, +s, all
// 2 x 8^3 combinations scored.
// The gain index is then the table entry nearest 1.2 times the
// least-squares gain (see kGainLiftNum).
#include <cmath>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "codec/basic/fixed_point.h"
#include "codec/common/excitation.h"
#include "codec/enc/dot16.h"
#include "codec/enc/encoder_internal.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_enc.h"
#include "evrc/evrc_tables.h"

namespace {

constexpr int kMaxLen = 54;
constexpr int kPulseVectorLen = 55;  // the decoded pulse vector's length
constexpr int kTracks = 5;
constexpr int kTrackPositions = 11;
constexpr int kFullPulses = 8;
constexpr int kTrackStride = 12;  // kTrackPositions padded, rows of the track-major copies
constexpr int kShifts = 4;        // track shifts of the rate-1 layout
constexpr int kShiftsTried = 4;   // track shifts searched, most promising first
constexpr int kRefinePasses = 2;
constexpr int kRefined = 4;  // depth-first sets (of 2 per shift) improved further
constexpr int kHalfPulses = 3;
constexpr int kHalfPositions = 8;
constexpr int kHalfStep = 7;
constexpr int kHalfTrackStep = 2;
constexpr int kCorrBits = 14;    // d scaled below 2^14
constexpr int kMatrixBits = 20;  // rr[0][0] scaled below 2^20: C^2 E stays in 64 bits
constexpr int kAccBits = 30;     // the correlation sums in 32 bits
constexpr int kFullGains = 32;
constexpr int kHalfGains = 16;
constexpr int kGainQ = 15;  // filtered contribution = gain * z / 2^15
constexpr int kEnergyBits = 31;
constexpr int kPairPasses = 1;        // pair re-placement passes after the depth-first search
constexpr int kRepairCandidates = 7;  // first-track positions tried when a pair is placed again
// The gain chosen is the table entry nearest 1.2 times the least-squares
// gain: the least-squares gain shrinks with the (low) correlation of the
// pulse vector and the target, which leaves the decoded spectrum too weak
// away from the strongest harmonics; measured on speech, 1.2 gives the
// least log-spectral distance (1.1 to 1.3 within 0.03 dB).
constexpr Word64 kGainLiftNum = 6;
constexpr Word64 kGainLiftDen = 5;
// Track-major diagonal entries beyond the subframe: any candidate there has
// E < 0, so the fast search never takes one.
constexpr Word32 kPadEnergy = -(1 << 30);

struct Search {
    int L;
    Word16 hs[kMaxLen];
    Word32 d[kMaxLen];
    Word32 rr[kMaxLen][kMaxLen];
    bool fold_signs;       // rate 1: signs preset from d and folded into d, rr
    Word32 sign[kMaxLen];  // +1 / -1
    // Track-major copies for the fast rate-1 search: entry (t, m) of a row
    // is column t + 5m. Aligned to the vectors the search reads them in
    // (the matrix to whole cache lines): a vector across two lines costs
    // twice.
    alignas(16) Word32 dt[kTracks][kTrackStride];
    alignas(64) Word32 rrt[kMaxLen][kTracks][kTrackStride];
    Word32 diag[kMaxLen];                             // rr[p][p]
    alignas(16) Word32 diagt[kTracks][kTrackStride];  // rr[p][p] track-major, padding kPadEnergy
    Word64 strength[kMaxLen];                         // |d / |d| + r / |r|| (scaled), the sign preset's measure
    int cand[kTracks][kTrackPositions];               // track indices m, strongest d first (ties: lower m)
    bool full_matrix;                                 // rr is filled (the rate-1 reference), else rrt
};

// Offset of position p in a track-major row.
constexpr int track_major_of(int p) { return (p % kTracks) * kTrackStride + p / kTracks; }
struct TrackMajorTable {
    unsigned char offset[kMaxLen];
    constexpr TrackMajorTable() : offset() {
        for (int p = 0; p < kMaxLen; ++p) offset[p] = static_cast<unsigned char>(track_major_of(p));
    }
};
constexpr TrackMajorTable kTrackMajor;
inline int track_major(int p) { return kTrackMajor.offset[p]; }

// hs = h through the decoder's sharpening comb, in place with rounding.
void sharpen(const Word16 *h, Word16 *hs, int L, Word16 acb_gain, Word16 lag) {
    std::memcpy(hs, h, L * sizeof(Word16));
    const Word16 beta = evrc::sharpening_gain(acb_gain);
    fx::charge(fx::weight::shl);  // the doubling, counted as the shift it is
    if (lag <= 0) return;
    // mac_r(L_deposit_h(..)) through the uncounted bodies, their weights
    // charged once: a counted operator is a read-modify-write of the counter
    // on the loop's chain.
    for (int n = lag; n < L; ++n) {
        const Word32 high = static_cast<Word32>(static_cast<UWord32>(static_cast<UWord16>(hs[n])) << 16);
        hs[n] = fx::detail::round32(fx::detail::L_mac(high, beta, hs[n - lag]));
    }
    if (lag < L) fx::charge((fx::weight::L_deposit_h + fx::weight::mac_r) * static_cast<UWord32>(L - lag));
}

int bits_of(Word64 v) {
    if (v < 0) v = -v;
    int b = 0;
    while (v >> b) ++b;
    return b;
}

// floor(sqrt(v)), v >= 0: the double estimate (within one of the root for
// v < 2^63) corrected to the exact integer root.
Word64 isqrt(Word64 v) {
    if (v <= 0) return 0;
    Word64 r = static_cast<Word64>(std::sqrt(static_cast<double>(v)));
    while (r > 0 && r > v / r) --r;
    while (r + 1 <= v / (r + 1)) ++r;
    return r;
}

// Rate 1 signs: those of d[n] / |d| + r[n] / |r| (r the excitation-domain
// residual, when given), that is of d[n] |r| + r[n] |d|. Other rates keep
// every sign positive.
void preset_signs(Search &s, const Word16 *residual) {
    Word64 dd = 0, rr = 0;
    for (int n = 0; n < s.L; ++n) {
        dd += static_cast<Word64>(s.d[n]) * s.d[n];
        if (residual != nullptr) rr += static_cast<Word64>(residual[n]) * residual[n];
    }
    const Word64 d_norm = isqrt(dd), r_norm = isqrt(rr);
    const Word64 fold = s.fold_signs ? -1 : 0;
    for (int n = 0; n < s.L; ++n) {
        const Word64 r = residual != nullptr ? residual[n] : 0;
        const Word64 b = r_norm > 0 ? s.d[n] * r_norm + r * d_norm : s.d[n];
        const Word64 negative = b >> 63;  // -1 or 0, no branch on the unpredictable sign
        s.sign[n] = static_cast<Word32>((negative & fold) | 1);
        s.strength[n] = (b ^ negative) - negative;
    }
}

int track_size(int t, int L);

// Compare-exchange pairs of a sorting network for eleven values (35 steps;
// checked on all 2^11 inputs of zeros and ones, which covers every input).
constexpr unsigned char kSortEleven[35][2] = {{0, 9}, {1, 6}, {2, 4}, {3, 7}, {5, 8},  {0, 1},  {3, 5}, {4, 10}, {6, 9},
                                              {7, 8}, {1, 3}, {2, 5}, {4, 7}, {8, 10}, {0, 4},  {1, 2}, {3, 7},  {5, 9},
                                              {6, 8}, {0, 1}, {2, 6}, {4, 5}, {7, 8},  {9, 10}, {2, 4}, {3, 6},  {5, 7},
                                              {8, 9}, {1, 2}, {3, 4}, {5, 6}, {7, 8},  {2, 3},  {4, 5}, {6, 7}};
static_assert(kTrackPositions == 11, "the network sorts one track");

// Per track the positions by falling d (sign folded), for the pair searches'
// first track: a pulse pair rarely puts its first pulse at a weak position.
// Falling strength, ties keeping the lower m first: the keys strength * 16 +
// 15 - m are distinct and order the positions so (strength < 2^35, so the
// keys fit; a missing eleventh position gets key 0, below every other), and
// the network sorts them without data-dependent branches.
void rank_candidates(Search &s) {
    constexpr int kIndexBits = 4;
    constexpr UWord64 kIndexMask = (1u << kIndexBits) - 1;
    for (int t = 0; t < kTracks; ++t) {
        const int n = track_size(t, s.L);
        UWord64 key[kTrackPositions];
        for (int m = 0; m < kTrackPositions; ++m) {
            key[m] = m < n ? (static_cast<UWord64>(s.strength[t + kTracks * m]) << kIndexBits) | (kIndexMask - m) : 0;
        }
        // Unrolled whole, the keys stay in registers.
#pragma GCC unroll 35
        for (const auto &step : kSortEleven) {
            const UWord64 a = key[step[0]], b = key[step[1]];
            key[step[0]] = a > b ? a : b;
            key[step[1]] = a > b ? b : a;
        }
        for (int r = 0; r < n; ++r) s.cand[t][r] = static_cast<int>(kIndexMask - (key[r] & kIndexMask));
    }
}

constexpr float kScoreMargin = 0.99999f;  // float estimates of C^2 / E within 10^-5
constexpr int kLanes = 4;
constexpr int kBlocks = kTrackStride / kLanes;  // vectors per track
typedef Word32 Lanes32 __attribute__((vector_size(16)));
typedef float LanesF __attribute__((vector_size(16)));
static_assert(kTrackStride % kLanes == 0, "track rows are whole vectors");

inline void store_lanes(Word32 *p, Lanes32 v) { std::memcpy(p, &v, sizeof(v)); }

// Lane-wise products of 16-bit values held in the low halves of a's lanes
// (zeros above) with the 16-bit value in the low half of b (zeros above):
// one pmaddwd on SSE2.
inline Lanes32 times16(Lanes32 a, Word32 b) {
#if defined(__SSE2__)
    __m128i av, bv = _mm_set1_epi32(b);
    std::memcpy(&av, &a, sizeof(av));
    const __m128i p = _mm_madd_epi16(av, bv);
    Lanes32 r;
    std::memcpy(&r, &p, sizeof(r));
    return r;
#else
    const Lanes32 as = (a ^ 0x8000) - 0x8000;  // the low halves sign-extended
    return as * static_cast<Word32>(static_cast<Word16>(b));
#endif
}

inline Lanes32 load_lanes(const Word32 *p) {
    Lanes32 v;
    std::memcpy(&v, p, sizeof(v));
    return v;
}

// The track-major matrix row by row from the last: with g[n] = h[L-1-n],
//   rr[i][j] = rr[i + 1][j + 1] + g[i] g[j]   (rr[L][.] = 0),
// and column j + 1 of a track-major row is the next track's entry m (the
// entry m + 1 of track 0 after track 4), so each row is the previous one
// moved by one track plus g[i] times g: whole-row vector steps. Every
// intermediate value is an entry of the matrix (below 2^31 by the scaling),
// so the sums are those of the column-wise form; they are scaled and their
// signs folded as they are stored. Padding columns (j >= L) stay zero.
void track_major_matrix(Search &s, const Word16 *hr, const Word32 *flip, int rshift) {
    const int L = s.L;
    constexpr int kRow = kTracks * kTrackStride;
    constexpr int kLastTrack = kRow - kTrackStride;
    constexpr int kVectors = kRow / kLanes;
    // g in 32-bit lanes holding its 16 bits and zeros above (the form of the
    // 16 x 16-bit multiply below), and the two sign patterns of a row: f for
    // a row whose own sign is kept, ~f for one whose sign flips.
    Word32 g[kRow] = {}, signs[2][kRow] = {};
    for (int n = 0; n < L; ++n) {
        g[track_major(n)] = static_cast<UWord16>(hr[L - 1 - n]);
        signs[0][track_major(n)] = flip[n];
    }
    for (int k = 0; k < kRow; ++k) signs[1][k] = ~signs[0][k];
    Word32 rows[2][kRow] = {};                  // rows i + 1 and i, unscaled, in turn
    const Lanes32 last_kept = {-1, -1, -1, 0};  // column 59 lies beyond every subframe
    for (int i = L - 1; i >= 0; --i) {
        const Word32 gi = static_cast<UWord16>(hr[L - 1 - i]);
        const Word32 *u = rows[i & 1];
        Word32 *next = rows[(i + 1) & 1];
        for (int k = 0; k < kLastTrack; k += kLanes) {
            store_lanes(next + k, load_lanes(u + k + kTrackStride) + times16(load_lanes(g + k), gi));
        }
        for (int k = kLastTrack; k < kRow; k += kLanes) {
            Lanes32 v = load_lanes(u + k - kLastTrack + 1) + times16(load_lanes(g + k), gi);
            if (k + kLanes == kRow) v &= last_kept;
            store_lanes(next + k, v);
        }
        Word32 *row = &s.rrt[i][0][0];
        const Word32 *x = signs[flip[i] & 1];
        for (int v = 0; v < kVectors; ++v) {
            const Lanes32 xv = load_lanes(x + kLanes * v);
            store_lanes(row + kLanes * v, ((load_lanes(next + kLanes * v) >> rshift) ^ xv) - xv);
        }
        s.diag[i] = row[track_major(i)];
    }
    for (int k = 0; k < kTracks * kTrackStride; ++k) {
        const int p = k % kTrackStride * kTracks + k / kTrackStride;
        (&s.diagt[0][0])[k] = p < L ? s.diag[p] : kPadEnergy;
    }
}

// Longest dot product of the convolutions below (a multiple of 8).
constexpr int kDotLen = 56;
using evrc_enc::dot16;
using evrc_enc::dot_terms;

// d[n] = sum_{k >= n} x[k] hs[k - n]. With max |x| * sum |hs| < 2^31 every
// partial sum, in any order, fits 32 bits: each d[n] is then a dot product
// of fixed length over zero-padded copies (no loops of varying length);
// otherwise the sums are taken in 64 bits.
void backward_filter(const Word16 *x, const Word16 *hs, int L, Word64 *d) {
    Word32 x_max = 0, h_sum = 0;
    for (int n = 0; n < L; ++n) {
        const Word32 a = x[n] < 0 ? -x[n] : x[n];
        x_max = a > x_max ? a : x_max;
        h_sum += hs[n] < 0 ? -hs[n] : hs[n];
    }
    if (static_cast<Word64>(x_max) * h_sum >= (static_cast<Word64>(1) << 31)) {
        for (int n = 0; n < L; ++n) {
            Word64 acc = 0;
            for (int k = n; k < L; ++k) acc = fx::int_mac_16_16(acc, x[k], hs[k - n]);
            d[n] = acc;
        }
        return;
    }
    Word16 xp[kMaxLen + kDotLen] = {}, hp[kDotLen] = {};
    for (int n = 0; n < L; ++n) {
        xp[n] = x[n];
        hp[n] = hs[n];
    }
    for (int n = 0; n < L; ++n) d[n] = dot16(xp + n, hp, dot_terms(L - n));
}

// Backward-filtered target and correlation matrix, each scaled to a fixed
// headroom (only ratios of them matter).
void prepare(Search &s, const Word16 *x, const Word16 *residual) {
    const int L = s.L;
    Word64 d64[kMaxLen];
    backward_filter(x, s.hs, L, d64);
    Word64 peak = 0;
    for (int n = 0; n < L; ++n) {
        const Word64 a = d64[n] < 0 ? -d64[n] : d64[n];
        peak = a > peak ? a : peak;
    }
    const int dshift = bits_of(peak) > kCorrBits ? bits_of(peak) - kCorrBits : 0;
    for (int n = 0; n < L; ++n) s.d[n] = static_cast<Word32>(d64[n] >> dshift);
    if (s.fold_signs) {
        preset_signs(s, residual);
        std::memset(s.dt, 0, sizeof(s.dt));
        for (int n = 0; n < L; ++n) {
            s.d[n] *= s.sign[n];
            (&s.dt[0][0])[track_major(n)] = s.d[n];
        }
        rank_candidates(s);
    } else {
        // Other rates keep every sign positive and need no candidate order.
        for (int n = 0; n < L; ++n) s.sign[n] = 1;
    }
    // The response is scaled down so that rr[0][0], the largest entry and
    // a bound on every partial sum (Cauchy-Schwarz), fits 31 bits; the
    // entries are then brought below 2^kMatrixBits.
    Word64 energy = 0;
    for (int n = 0; n < L; ++n) energy = fx::int_mac_16_16(energy, s.hs[n], s.hs[n]);
    int hshift = 0;
    while ((energy >> (2 * hshift)) >= (static_cast<Word64>(1) << kAccBits)) ++hshift;
    Word16 hr[kMaxLen];
    for (int n = 0; n < L; ++n) hr[n] = static_cast<Word16>(s.hs[n] >> hshift);

    // rr[i][i + delta] = sum_{m=0}^{L-1-i-delta} h[m] h[m + delta]: for each
    // delta a running sum from the end of the subframe, scaled and with the
    // signs folded as it is stored (rr[0][0], the energy, sets the scale).
    Word32 energy32 = 0;
    for (int n = 0; n < L; ++n) energy32 += static_cast<Word32>(hr[n]) * hr[n];
    const int b = bits_of(energy32);
    const int rshift = b > kMatrixBits ? b - kMatrixBits : 0;
    fx::charge(static_cast<UWord32>(L * (L + 1) / 2));
    Word32 flip[kMaxLen];
    for (int n = 0; n < L; ++n) flip[n] = s.sign[n] < 0 ? -1 : 0;
    if (!s.full_matrix) {
        track_major_matrix(s, hr, flip, rshift);
        return;
    }
    // Column j = L - 1 - k holds the sums of k + 1 terms: acc[delta] gains
    // h[k] h[k + delta] (one vector step over delta), then rr[j - delta][j]
    // = acc[delta] >> rshift, negated where the two signs differ.
    Word32 acc[kMaxLen] = {};
    for (int k = 0; k < L; ++k) {
        const int j = L - 1 - k;
        const Word16 hk = hr[k];
        for (int delta = 0; delta <= j; ++delta) acc[delta] += static_cast<Word32>(hk) * hr[k + delta];
        s.diag[j] = acc[0] >> rshift;
        for (int delta = 0; delta <= j; ++delta) {
            const int i = j - delta;
            const Word32 m = flip[i] ^ flip[j];
            const Word32 v = ((acc[delta] >> rshift) ^ m) - m;
            s.rr[i][j] = v;
            s.rr[j][i] = v;
        }
    }
}

// C'^2 / E' > C^2 / E, with E, E' > 0.
bool better(Word64 c_new, Word64 e_new, Word64 c_best, Word64 e_best) {
    return c_new * c_new * e_best > c_best * c_best * e_new;
}

// ---- Rate 1 -------------------------------------------------------------

struct PulseSet {
    int pos[kFullPulses];
    int count;
    Word64 c;
    Word64 e;
};

// Positions t + 5m of track t inside the subframe.
int track_size(int t, int L) {
    const int n = (L - 1 - t) / kTracks + 1;
    return n < kTrackPositions ? n : kTrackPositions;
}

// How many positions of track t (strongest first) a pair search tries for
// its first pulse.
int first_count(const Search &s, int t, int tried) {
    const int n = track_size(t, s.L);
    return n < tried ? n : tried;
}

// rrv[p] = sum over the set's pulses q of rr[p][q] (signs folded), for the
// positions p of track t.
void cross_terms_reference(const Search &s, const PulseSet &set, int t, Word64 *rrv) {
    for (int m = 0; m < track_size(t, s.L); ++m) {
        const int p = t + kTracks * m;
        Word64 acc = 0;
        for (int k = 0; k < set.count; ++k) acc += s.rr[p][set.pos[k]];
        rrv[p] = acc;
    }
}

void add_pulse_reference(const Search &s, PulseSet &set, int p) {
    Word64 cross = 0;
    for (int k = 0; k < set.count; ++k) cross += s.rr[p][set.pos[k]];
    set.c += s.d[p];
    set.e += s.rr[p][p] + 2 * cross;
    set.pos[set.count++] = p;
}

// Best pair of pulses on tracks t1, t2 added to set (t2 < 0: one pulse).
// The second track's terms are gathered first so that the inner loop reads
// one matrix entry per candidate; C^2 of the best so far is kept.
void place_reference(const Search &s, PulseSet &set, int t1, int t2, int tried = kTrackPositions) {
    Word64 rrv[kMaxLen];
    cross_terms_reference(s, set, t1, rrv);
    int n2 = 1;
    Word64 c2[kTrackPositions] = {};
    Word64 e2[kTrackPositions] = {};
    int p2s[kTrackPositions] = {-1};
    if (t2 >= 0) {
        cross_terms_reference(s, set, t2, rrv);
        n2 = track_size(t2, s.L);
        for (int m = 0; m < n2; ++m) {
            const int p = t2 + kTracks * m;
            p2s[m] = p;
            c2[m] = s.d[p];
            e2[m] = s.rr[p][p] + 2 * rrv[p];
        }
    }
    int best1 = -1, best2 = -1;
    Word64 bc2 = 0, be = 1;
    const int n1 = t2 >= 0 ? first_count(s, t1, tried) : track_size(t1, s.L);
    for (int r = 0; r < n1; ++r) {
        const int m1 = t2 >= 0 ? s.cand[t1][r] : r;
        const int p1 = t1 + kTracks * m1;
        const Word64 c1 = set.c + s.d[p1];
        const Word64 e1 = set.e + s.rr[p1][p1] + 2 * rrv[p1];
        const Word32 *row = s.rr[p1];
        for (int m2 = 0; m2 < n2; ++m2) {
            const Word64 c = c1 + c2[m2];
            const Word64 e = e1 + e2[m2] + (t2 >= 0 ? 2 * static_cast<Word64>(row[p2s[m2]]) : 0);
            if (e <= 0) continue;
            const Word64 cc = c * c;
            if (best1 < 0 || cc * be > bc2 * e) {
                bc2 = cc;
                be = e;
                best1 = p1;
                best2 = p2s[m2];
            }
        }
    }
    if (best1 < 0) best1 = t1;
    add_pulse_reference(s, set, best1);
    if (best2 >= 0) add_pulse_reference(s, set, best2);
}

// Track shifts in order of promise: the two single-pulse tracks should be
// those whose second strongest candidate is weakest (the four shifts allow
// the pairs (3,4), (4,0), (0,1), (1,2)). order[0..3] receives the shifts.
void rank_track_shifts(const Search &s, int *order) {
    Word32 second[kTracks];
    for (int t = 0; t < kTracks; ++t) {
        Word32 first = -1, sec = -1;
        for (int m = 0; m < track_size(t, s.L); ++m) {
            // The two largest so far, without branching on the values.
            const Word32 v = s.d[t + kTracks * m];
            const Word32 lower = v < first ? v : first;
            sec = lower > sec ? lower : sec;
            first = v > first ? v : first;
        }
        second[t] = sec < 0 ? 0 : sec;
    }
    Word32 cost[kShifts];
    for (int ts = 0; ts < kShifts; ++ts) {
        cost[ts] = second[(ts + 3) % kTracks] + second[(ts + 4) % kTracks];
        order[ts] = ts;
    }
    for (int a = 1; a < kShifts; ++a) {
        for (int b = a; b > 0 && cost[order[b]] < cost[order[b - 1]]; --b) {
            const int t = order[b];
            order[b] = order[b - 1];
            order[b - 1] = t;
        }
    }
}

int strongest_on_track(const Search &s, int t) {
    int best = t;
    Word32 top = s.d[t];
    for (int m = 1; m < track_size(t, s.L); ++m) {
        const Word32 v = s.d[t + kTracks * m];
        best = v > top ? t + kTracks * m : best;
        top = v > top ? v : top;
    }
    return best;
}

// Refinement: each pulse in turn moves to the best position of its track
// with the others held.
void refine_reference(const Search &s, PulseSet &set) {
    for (int k = 0; k < set.count; ++k) {
        const int old = set.pos[k];
        const int t = old % kTracks;
        Word64 cross_old = 0;
        for (int m = 0; m < set.count; ++m) {
            if (m != k) cross_old += s.rr[old][set.pos[m]];
        }
        const Word64 c_rest = set.c - s.d[old];
        const Word64 e_rest = set.e - s.rr[old][old] - 2 * cross_old;
        int best = old;
        Word64 bc = set.c, be = set.e;
        for (int i = 0; i < track_size(t, s.L); ++i) {
            const int p = t + kTracks * i;
            Word64 cross = 0;
            for (int m = 0; m < set.count; ++m) {
                if (m != k) cross += s.rr[p][set.pos[m]];
            }
            const Word64 c = c_rest + s.d[p];
            const Word64 e = e_rest + s.rr[p][p] + 2 * cross;
            if (e > 0 && better(c, e, bc, be)) {
                bc = c;
                be = e;
                best = p;
            }
        }
        set.pos[k] = best;
        set.c = bc;
        set.e = be;
    }
}

// Improvement passes: each pair of pulses in turn is taken out and placed
// again on its two tracks with the other six held, kept when the score
// rises.
void refine_pairs_reference(const Search &s, PulseSet &set) {
    for (int pass = 0; pass < kPairPasses; ++pass) {
        for (int k = 0; k + 1 < set.count; k += 2) {
            PulseSet trial = {};
            for (int i = 0; i < set.count; ++i) {
                if (i != k && i != k + 1) add_pulse_reference(s, trial, set.pos[i]);
            }
            place_reference(s, trial, set.pos[k] % kTracks, set.pos[k + 1] % kTracks, kRepairCandidates);
            if (trial.e > 0 && better(trial.c, trial.e, set.c, set.e)) set = trial;
        }
    }
}

// The order in which the depth-first search fills the eight slots from a
// starting track: the five tracks from there on, then once more the three
// tracks that carry two pulses under track shift ts.
// (A table of every start and shift, built at compile time.)
struct SlotOrders {
    int slots[kTracks][kShifts][kFullPulses];
    constexpr SlotOrders() : slots() {
        for (int start = 0; start < kTracks; ++start) {
            for (int ts = 0; ts < kShifts; ++ts) {
                int *out = slots[start][ts];
                int n = 0;
                for (int k = 0; k < kTracks; ++k) out[n++] = (start + k) % kTracks;
                for (int k = 0; k < kTracks; ++k) {
                    const int t = (start + k) % kTracks;
                    if (t != (ts + 3) % kTracks && t != (ts + 4) % kTracks) out[n++] = t;
                }
            }
        }
    }
};
constexpr SlotOrders kSlotOrders;
const int *slot_order(int start, int ts) { return kSlotOrders.slots[start][ts]; }

// Starting tracks: the two whose strongest candidate is strongest.
void starting_tracks(const Search &s, int *starts) {
    int first = 0, second = 1;
    Word32 top[kTracks];
    for (int t = 0; t < kTracks; ++t) top[t] = s.d[strongest_on_track(s, t)];
    if (top[second] > top[first]) first = 1, second = 0;
    for (int t = 2; t < kTracks; ++t) {
        if (top[t] > top[first]) {
            second = first;
            first = t;
        } else if (top[t] > top[second]) {
            second = t;
        }
    }
    starts[0] = first;
    starts[1] = second;
}

// Whether set a ranks above set b: a positive energy, then the larger C^2 / E.
template <typename Set>
bool ranks_above(const Set &a, const Set &b) {
    return a.e > 0 && (b.e <= 0 || better(a.c, a.e, b.c, b.e));
}

// Indices 0 .. n of the sets by falling rank, the earlier first among equals.
template <typename Set>
void rank_sets(const Set *sets, int n, int *rank) {
    for (int a = 0; a < n; ++a) {
        int b = a;
        for (; b > 0 && ranks_above(sets[a], sets[rank[b - 1]]); --b) rank[b] = rank[b - 1];
        rank[b] = a;
    }
}

// Depth-first search over the eight slots for each track shift
// order[0 .. kShiftsTried) and each of the two strongest starting tracks;
// the kRefined best of these sets then go through the pair re-placement and
// the refinement passes, and the best result wins (with its shift).
PulseSet search_full_reference(const Search &s, const int *order, int *ts_out) {
    int starts[2];
    starting_tracks(s, starts);
    PulseSet sets[2 * kShiftsTried];
    int shift_of[2 * kShiftsTried];
    int n = 0;
    for (int k = 0; k < kShiftsTried; ++k) {
        for (const int start : starts) {
            const int *slots = slot_order(start, order[k]);
            PulseSet set = {};
            add_pulse_reference(s, set, strongest_on_track(s, slots[0]));
            for (int q = 1; q < kFullPulses; q += 2) {
                place_reference(s, set, slots[q], q + 1 < kFullPulses ? slots[q + 1] : -1);
            }
            shift_of[n] = order[k];
            sets[n++] = set;
        }
    }
    int rank[2 * kShiftsTried];
    rank_sets(sets, n, rank);
    PulseSet winner = {};
    int winner_ts = order[0];
    for (int r = 0; r < kRefined && r < n; ++r) {
        PulseSet set = sets[rank[r]];
        refine_pairs_reference(s, set);
        for (int pass = 0; pass < kRefinePasses; ++pass) refine_reference(s, set);
        if (r == 0 || ranks_above(set, winner)) {
            winner = set;
            winner_ts = shift_of[rank[r]];
        }
    }
    *ts_out = winner_ts;
    return winner;
}

// ---- Rate 1, fast form ----------------------------------------------------
//
// The same search with the same arithmetic and the same choices, organised
// for speed: the matrix, d and the diagonal are copied track-major (the
// entries of one track's positions contiguous, twelve lanes per track), each
// set keeps sum_q rr[p][q] over its pulses for every p (updated by one row per
// added or moved pulse instead of being summed again for each candidate), and
// the first three slots, which do not depend on the track shift, are searched
// once for all shifts. The eight depth-first sets keep only the sums their
// last placements read; the full sums are formed for the four that are
// refined. All sums are of the same integers as in the reference form, so
// they are equal; every comparison is the same exact comparison of C^2 / E.
//
// Every placement scans its candidates in the reference order and keeps the
// first with the largest C^2 / E (E > 0) that beats its starting value. The
// scores are estimated in float, twelve lanes at a time, and a candidate is
// compared exactly only when its estimate reaches a threshold: the best
// estimate of the scan's first row of candidates (of the set's own score when
// a pulse is moved), raised to that of each new exact choice, less a 10^-5
// margin. The estimates are within a few 2^-24 of the exact scores, so no
// candidate whose exact score reaches the best's can fail the test, and the
// exact comparisons see every candidate that can be chosen, in scan order.
// The candidates that pass are visited through a bit mask of the lanes (few
// pass, at unpredictable places: branching lane by lane mispredicts).

// The twelve lanes of one track, as vectors.
struct TrackLanes {
    Lanes32 v[kBlocks];
};

struct FastSet {
    int pos[kFullPulses];
    int count;
    Word64 c;
    Word64 e;
    alignas(16) Word32 cross[kTracks][kTrackStride];  // sum over the set of rr[t + 5m][q]
};

// A depth-first set before refinement: its pulses and score (the sums its
// placements read are formed on the way).
struct DepthSet {
    int pos[kFullPulses];
    int count;
    Word64 c;
    Word64 e;
    int prefix;  // the shift-independent first slots it grew from
};

// cross += row p, cross -= row p (all tracks; padding entries stay zero), in
// whole vectors (as plain loops the compiler cannot rule out that the two
// overlap, and adds entry by entry).
void add_row(Word32 *cross, const Search &s, int p) {
    const Word32 *row = &s.rrt[p][0][0];
    for (int i = 0; i < kTracks * kTrackStride; i += kLanes) {
        store_lanes(cross + i, load_lanes(cross + i) + load_lanes(row + i));
    }
}
void sub_row(Word32 *cross, const Search &s, int p) {
    const Word32 *row = &s.rrt[p][0][0];
    for (int i = 0; i < kTracks * kTrackStride; i += kLanes) {
        store_lanes(cross + i, load_lanes(cross + i) - load_lanes(row + i));
    }
}

Word32 cross_at(const FastSet &set, int p) { return (&set.cross[0][0])[track_major(p)]; }

void add_pulse_fast(const Search &s, FastSet &set, int p) {
    set.c += s.d[p];
    set.e += s.diag[p] + 2 * static_cast<Word64>(cross_at(set, p));
    set.pos[set.count++] = p;
    add_row(&set.cross[0][0], s, p);
}

void empty_set(FastSet &set) {
    set.count = 0;
    set.c = 0;
    set.e = 0;
    std::memset(set.cross, 0, sizeof(set.cross));
}

// Candidates of one row: C = c1 + c2, E = e1 + e2 (+ 2 seg, a matrix row's
// entries on the lanes' track). Every sum is an exact score term (|C| < 2^17,
// |E| < 2^27 by the scaling; padding lanes have E < 0).
inline void row_lanes(Word32 c1, Word32 e1, const TrackLanes &c2, const TrackLanes &e2, const Word32 *seg, Lanes32 *cv,
                      Lanes32 *ev) {
    for (int b = 0; b < kBlocks; ++b) {
        cv[b] = c1 + c2.v[b];
        ev[b] = e1 + e2.v[b];
        if (seg != nullptr) ev[b] += 2 * load_lanes(seg + kLanes * b);
    }
}

// Largest estimate of C^2 / E over the lanes with E > 0 (0 when there is none).
template <int Blocks = kBlocks>
inline float row_peak(const Lanes32 *cv, const Lanes32 *ev) {
    const LanesF zero = {0.0f, 0.0f, 0.0f, 0.0f};
    const LanesF one = {1.0f, 1.0f, 1.0f, 1.0f};
    LanesF peak = zero;
    for (int b = 0; b < Blocks; ++b) {
        const Lanes32 positive = ev[b] > 0;
        const LanesF cf = __builtin_convertvector(cv[b], LanesF);
        const LanesF ef = __builtin_convertvector(ev[b], LanesF);
        LanesF q = cf * cf / (positive ? ef : one);
        q = positive ? q : zero;
        peak = q > peak ? q : peak;
    }
    float m = peak[0];
    for (int lane = 1; lane < kLanes; ++lane) m = peak[lane] > m ? peak[lane] : m;
    return m;
}

// Exact running choice of a scan: C, E and C^2 of the best so far, and its
// row and lane (row -1: the starting value, not a candidate).
struct Choice {
    Word64 c;
    Word64 cc;
    Word64 e;
    int row;
    int lane;
};

// Bit kLanes * b + lane set for each set lane of the hit masks.
template <int Blocks = kBlocks>
inline unsigned hit_bits(const Lanes32 *hit) {
#if defined(__SSE2__)
    unsigned bits = 0;
    for (int b = 0; b < Blocks; ++b) {
        __m128 v;
        std::memcpy(&v, &hit[b], sizeof(v));
        bits |= static_cast<unsigned>(_mm_movemask_ps(v)) << (kLanes * b);
    }
    return bits;
#else
    unsigned bits = 0;
    for (int b = 0; b < Blocks; ++b) {
        for (int lane = 0; lane < kLanes; ++lane) bits |= (hit[b][lane] != 0 ? 1u : 0u) << (kLanes * b + lane);
    }
    return bits;
#endif
}

// The lanes of row r in scan order: a lane with E > 0 whose estimate
// reaches thr is compared exactly, and taken when C^2 * E_best > C_best^2 * E
// (the threshold then rises to the new choice's estimate less the margin).
// Lanes outside `lanes` are left (a caller's candidate that cannot win).
template <int Blocks>
inline void scan_lanes(int r, const Lanes32 *cv, const Lanes32 *ev, float &thr, Choice &best, unsigned lanes = ~0u) {
    Lanes32 hit[Blocks];
    for (int b = 0; b < Blocks; ++b) {
        const LanesF cf = __builtin_convertvector(cv[b], LanesF);
        const LanesF ef = __builtin_convertvector(ev[b], LanesF);
        hit[b] = (ev[b] > 0) & (cf * cf >= thr * ef);
    }
    unsigned bits = hit_bits<Blocks>(hit) & lanes;
    while (bits != 0) {
        const int m = __builtin_ctz(bits);
        bits &= bits - 1;
        Word32 cw, ew;  // lane m of the row
        std::memcpy(&cw, reinterpret_cast<const char *>(cv) + sizeof(Word32) * m, sizeof(cw));
        std::memcpy(&ew, reinterpret_cast<const char *>(ev) + sizeof(Word32) * m, sizeof(ew));
        const Word64 c = cw;
        const Word64 e = ew;
        const Word64 cc = c * c;
        if (cc * best.e > best.cc * e) {
            best = {c, cc, e, r, m};
            const float cf = static_cast<float>(c);
            const float t = cf * cf / static_cast<float>(e) * kScoreMargin;
            thr = t > thr ? t : thr;
        }
    }
}

// Rows r < n (lanes from row(r, cv, ev)) in scan order through scan_lanes.
// A negative thr: the first row's best estimate less the margin. The
// candidate at lane `same_lane` of row `same_row` (if any) is the caller's
// starting choice itself: its score equals the start's, so it can never be
// taken and is not compared.
template <int Blocks = kBlocks, typename Row>
inline void scan_rows(int n, Row row, float thr, Choice &best, int same_row = -1, int same_lane = 0) {
    if (n <= 0) return;
    Lanes32 cv[Blocks], ev[Blocks];
    row(0, cv, ev);
    if (thr < 0) thr = row_peak<Blocks>(cv, ev) * kScoreMargin;
    const unsigned others = ~(1u << same_lane);
    scan_lanes<Blocks>(0, cv, ev, thr, best, same_row == 0 ? others : ~0u);
    for (int r = 1; r < n; ++r) {
        row(r, cv, ev);
        scan_lanes<Blocks>(r, cv, ev, thr, best, same_row == r ? others : ~0u);
    }
}

// A placement's choice: one or two pulses (p2 < 0: one) and the set's C and
// E with them.
struct Pick {
    int p1;
    int p2;
    Word64 c;
    Word64 e;
};

// The lanes of track t: its correlations with the target, and the energy
// terms a pulse on it adds to a set whose sums on the track are cross.
void track_lanes(const Search &s, int t, const Word32 *cross, TrackLanes &c, TrackLanes &e) {
    for (int b = 0; b < kBlocks; ++b) {
        c.v[b] = load_lanes(&s.dt[t][kLanes * b]);
        e.v[b] = load_lanes(&s.diagt[t][kLanes * b]) + 2 * load_lanes(cross + kLanes * b);
    }
}

// The pairs of place_reference for the tracks t1, t2 (the first of the n1
// strongest positions of t1, in scan order, with each position of t2), the
// set's sums on the two tracks in cross1, cross2: scanned from `best` with
// threshold thr (a negative thr: the first row's best estimate).
void scan_pairs(const Search &s, Word64 set_c, Word64 set_e, const Word32 *cross1, const Word32 *cross2, int t1, int t2,
                int n1, float thr, Choice &best, int same_row = -1, int same_lane = 0) {
    TrackLanes c2, e2;
    track_lanes(s, t2, cross2, c2, e2);
    const Word32 c0 = static_cast<Word32>(set_c);
    const Word32 e0 = static_cast<Word32>(set_e);
    const int *cand = s.cand[t1];
    const auto row = [&](int r, Lanes32 *cv, Lanes32 *ev) {
        const int m1 = cand[r];
        row_lanes(c0 + s.dt[t1][m1], e0 + s.diagt[t1][m1] + 2 * cross1[m1], c2, e2, s.rrt[t1 + kTracks * m1][t2], cv,
                  ev);
    };
    scan_rows(n1, row, thr, best, same_row, same_lane);
}

// place_reference for the tracks t1, t2 (see scan_pairs).
Pick best_pair(const Search &s, Word64 set_c, Word64 set_e, const Word32 *cross1, const Word32 *cross2, int t1, int t2,
               int n1) {
    Choice best = {0, 0, 1, -1, -1};
    scan_pairs(s, set_c, set_e, cross1, cross2, t1, t2, n1, -1.0f, best);
    const int *cand = s.cand[t1];
    if (best.row >= 0) {
        return {t1 + kTracks * cand[best.row], t2 + kTracks * best.lane, best.c, best.e};
    }
    // No candidate with C != 0: the first with E > 0, else one pulse at t1.
    const int n2 = track_size(t2, s.L);
    for (int r = 0; r < n1; ++r) {
        const int m1 = cand[r];
        const int p1 = t1 + kTracks * m1;
        const Word64 c1 = set_c + s.d[p1];
        const Word64 e1 = set_e + s.diag[p1] + 2 * static_cast<Word64>(cross1[m1]);
        for (int m2 = 0; m2 < n2; ++m2) {
            const int p2 = t2 + kTracks * m2;
            const Word64 e =
                e1 + s.diag[p2] + 2 * (static_cast<Word64>(cross2[m2]) + static_cast<Word64>(s.rrt[p1][t2][m2]));
            if (e > 0) return {p1, p2, c1 + s.d[p2], e};
        }
    }
    return {t1, -1, set_c + s.d[t1], set_e + s.diag[t1] + 2 * static_cast<Word64>(cross1[0])};
}

// place_reference for the single track t1, the set's sums on it in cross1.
Pick best_single(const Search &s, Word64 set_c, Word64 set_e, const Word32 *cross1, int t1) {
    TrackLanes c2, e2;
    track_lanes(s, t1, cross1, c2, e2);
    const Word32 c0 = static_cast<Word32>(set_c);
    const Word32 e0 = static_cast<Word32>(set_e);
    const auto row = [&](int, Lanes32 *cv, Lanes32 *ev) { row_lanes(c0, e0, c2, e2, nullptr, cv, ev); };
    Choice best = {0, 0, 1, -1, -1};
    scan_rows(1, row, -1.0f, best);
    if (best.row >= 0) return {t1 + kTracks * best.lane, -1, best.c, best.e};
    const int n1 = track_size(t1, s.L);
    for (int m1 = 0; m1 < n1; ++m1) {
        const int p1 = t1 + kTracks * m1;
        const Word64 e = set_e + s.diag[p1] + 2 * static_cast<Word64>(cross1[m1]);
        if (e > 0) return {p1, -1, set_c + s.d[p1], e};
    }
    return {t1, -1, set_c + s.d[t1], set_e + s.diag[t1] + 2 * static_cast<Word64>(cross1[0])};
}

// Adds a placement's pulses to a set with full sums.
void add_pick(const Search &s, FastSet &set, const Pick &pick) {
    set.c = pick.c;
    set.e = pick.e;
    set.pos[set.count++] = pick.p1;
    add_row(&set.cross[0][0], s, pick.p1);
    if (pick.p2 >= 0) {
        set.pos[set.count++] = pick.p2;
        add_row(&set.cross[0][0], s, pick.p2);
    }
}

// refine_reference with the kept cross sums: the others' sum at p is the
// set's sum less the moving pulse's own entry rr[old][p] (the matrix is
// symmetric, so these are row old's entries on the track). With E <= 0 no
// position beats the set's score.
//
// Returns the index of the last pulse that moved, -1 for none. A pulse
// whose placement has seen no other pulse move since the pass before
// cannot move: that pass left it at the first of the best places with the
// others where they are now. So a pass that moves none leaves every later
// pass nothing to move, and after a pass whose last move was pulse `until`,
// the next has nothing to move from pulse `until` on unless it moves one of
// the pulses before: it stops there.
int refine_fast(const Search &s, FastSet &set, int until) {
    int moved = -1;
    for (int k = 0; k < set.count; ++k) {
        if (k >= until && moved < 0) break;
        if (set.e <= 0) continue;
        const int old = set.pos[k];
        const int t = old % kTracks;
        const Word32 c_rest = static_cast<Word32>(set.c - s.d[old]);
        const Word32 e_rest =
            static_cast<Word32>(set.e - s.diag[old] - 2 * (static_cast<Word64>(cross_at(set, old)) - s.diag[old]));
        TrackLanes c2, e2;
        for (int b = 0; b < kBlocks; ++b) {
            c2.v[b] = load_lanes(&s.dt[t][kLanes * b]);
            e2.v[b] = load_lanes(&s.diagt[t][kLanes * b]) +
                      2 * (load_lanes(&set.cross[t][kLanes * b]) - load_lanes(&s.rrt[old][t][kLanes * b]));
        }
        const auto row = [&](int, Lanes32 *cv, Lanes32 *ev) { row_lanes(c_rest, e_rest, c2, e2, nullptr, cv, ev); };
        Choice best = {set.c, set.c * set.c, set.e, -1, -1};
        const float cf = static_cast<float>(set.c);
        // Lane old / 5 leaves the pulse where it is.
        scan_rows(1, row, cf * cf / static_cast<float>(set.e) * kScoreMargin, best, 0, old / kTracks);
        if (best.row < 0) continue;
        const int p = t + kTracks * best.lane;
        sub_row(&set.cross[0][0], s, old);
        add_row(&set.cross[0][0], s, p);
        moved = k;
        set.pos[k] = p;
        set.c = best.c;
        set.e = best.e;
    }
    return moved;
}

// refine_pairs_reference: the set without pulses a, b has
// E - 2 cross[a] - 2 cross[b] + rr[a][a] + rr[b][b] + 2 rr[a][b]; its sums
// on the two tracks are the set's less rows a and b there.
void refine_pairs_fast(const Search &s, FastSet &set) {
    for (int pass = 0; pass < kPairPasses; ++pass) {
        for (int k = 0; k + 1 < set.count; k += 2) {
            const int a = set.pos[k], b = set.pos[k + 1];
            const int ta = a % kTracks, tb = b % kTracks;
            const Word64 c = set.c - s.d[a] - s.d[b];
            const Word64 e = set.e - 2 * static_cast<Word64>(cross_at(set, a)) -
                             2 * static_cast<Word64>(cross_at(set, b)) + s.diag[a] + s.diag[b] +
                             2 * static_cast<Word64>((&s.rrt[a][0][0])[track_major(b)]);
            alignas(16) Word32 cross1[kTrackStride], cross2[kTrackStride];
            for (int i = 0; i < kTrackStride; ++i) {
                cross1[i] = set.cross[ta][i] - s.rrt[a][ta][i] - s.rrt[b][ta][i];
                cross2[i] = set.cross[tb][i] - s.rrt[a][tb][i] - s.rrt[b][tb][i];
            }
            // The pair placed again is kept only when it beats the set, so
            // only such pairs are compared (from the set's score): the first
            // of the best of them is the placement's choice whenever that
            // choice is kept. With E <= 0 no pair beats the set.
            if (set.e <= 0) continue;
            Choice best = {set.c, set.c * set.c, set.e, -1, -1};
            const float cf = static_cast<float>(set.c);
            // The candidate of a's row and b's lane puts the pair back.
            const int n1 = first_count(s, ta, kRepairCandidates);
            int row_a = -1;
            for (int r = 0; r < n1; ++r) row_a = s.cand[ta][r] == a / kTracks ? r : row_a;
            scan_pairs(s, c, e, cross1, cross2, ta, tb, n1, cf * cf / static_cast<float>(set.e) * kScoreMargin, best,
                       row_a, b / kTracks);
            if (best.row < 0) continue;
            const Pick pick = {ta + kTracks * s.cand[ta][best.row], tb + kTracks * best.lane, best.c, best.e};
            // The trial set: the other pulses in their order, then the pair.
            int n = 0;
            for (int i = 0; i < set.count; ++i) {
                if (i != k && i != k + 1) set.pos[n++] = set.pos[i];
            }
            sub_row(&set.cross[0][0], s, a);
            sub_row(&set.cross[0][0], s, b);
            set.count = n;
            add_pick(s, set, pick);
        }
    }
}

// search_full_reference with the first three slots, which do not depend on
// the track shift, searched once per starting track.
PulseSet search_full_fast(const Search &s, const int *order, int *ts_out) {
    int starts[2];
    starting_tracks(s, starts);
    FastSet prefix[2];
    for (int i = 0; i < 2; ++i) {
        const int *slots = slot_order(starts[i], order[0]);
        FastSet &set = prefix[i];
        empty_set(set);
        add_pulse_fast(s, set, strongest_on_track(s, slots[0]));
        for (int q = 1; q < 5; q += 2) {
            add_pick(s, set,
                     best_pair(s, set.c, set.e, set.cross[slots[q]], set.cross[slots[q + 1]], slots[q], slots[q + 1],
                               track_size(slots[q], s.L)));
        }
    }
    DepthSet sets[2 * kShiftsTried];
    int shift_of[2 * kShiftsTried];
    int n = 0;
    // Two shifts can put the same two tracks first among the double-pulse
    // tracks after the same start (shifts s - 1 and s after start s): their
    // pair placements are one, made once.
    Pick pairs[2][kTracks * kTracks];
    bool placed[2][kTracks * kTracks] = {};
    for (int k = 0; k < kShiftsTried; ++k) {
        for (int i = 0; i < 2; ++i) {
            const int *slots = slot_order(starts[i], order[k]);
            const FastSet &pre = prefix[i];
            DepthSet &set = sets[n];
            const int key = slots[5] * kTracks + slots[6];
            if (!placed[i][key]) {
                pairs[i][key] = best_pair(s, pre.c, pre.e, pre.cross[slots[5]], pre.cross[slots[6]], slots[5], slots[6],
                                          track_size(slots[5], s.L));
                placed[i][key] = true;
            }
            const Pick &pair = pairs[i][key];
            alignas(16) Word32 cross7[kTrackStride];
            for (int m = 0; m < kTrackStride; ++m) {
                cross7[m] = pre.cross[slots[7]][m] + s.rrt[pair.p1][slots[7]][m] +
                            (pair.p2 >= 0 ? s.rrt[pair.p2][slots[7]][m] : 0);
            }
            const Pick single = best_single(s, pair.c, pair.e, cross7, slots[7]);
            std::memcpy(set.pos, pre.pos, sizeof(set.pos));
            set.count = pre.count;
            set.pos[set.count++] = pair.p1;
            if (pair.p2 >= 0) set.pos[set.count++] = pair.p2;
            set.pos[set.count++] = single.p1;
            set.c = single.c;
            set.e = single.e;
            set.prefix = i;
            shift_of[n++] = order[k];
        }
    }
    int rank[2 * kShiftsTried];
    rank_sets(sets, n, rank);
    FastSet refined[kRefined];
    int winner = 0;
    for (int r = 0; r < kRefined && r < n; ++r) {
        const DepthSet &depth = sets[rank[r]];
        const FastSet &pre = prefix[depth.prefix];
        FastSet &set = refined[r];
        std::memcpy(set.pos, depth.pos, sizeof(set.pos));
        set.count = depth.count;
        set.c = depth.c;
        set.e = depth.e;
        std::memcpy(set.cross, pre.cross, sizeof(set.cross));
        for (int q = pre.count; q < depth.count; ++q) add_row(&set.cross[0][0], s, depth.pos[q]);
        refine_pairs_fast(s, set);
        for (int pass = 0, until = set.count; pass < kRefinePasses && until >= 0; ++pass) {
            until = refine_fast(s, set, until);
        }
        if (r > 0 && ranks_above(set, refined[winner])) winner = r;
    }
    *ts_out = shift_of[rank[winner]];
    const FastSet &best = refined[winner];
    PulseSet out = {};
    std::memcpy(out.pos, best.pos, sizeof(out.pos));
    out.count = best.count;
    out.c = best.c;
    out.e = best.e;
    return out;
}

// Two pulses of one track (indices m1, m2, signs neg1, neg2) as the 8-bit
// field: sign of the pulse at a, pair 11a + b, b < a for opposite signs.
Word16 pair_field(int m1, bool neg1, int m2, bool neg2) {
    int a, b;
    bool neg;
    if (neg1 == neg2) {
        a = m1 < m2 ? m1 : m2;
        b = m1 < m2 ? m2 : m1;
        neg = neg1;
    } else {
        a = m1 > m2 ? m1 : m2;
        b = m1 > m2 ? m2 : m1;
        neg = m1 > m2 ? neg1 : neg2;
    }
    return static_cast<Word16>((neg ? 0x80 : 0) | (11 * a + b));
}

void encode_full(const PulseSet &set, const Word32 *sign, int ts, Word16 *indices) {
    int first[kTracks], second[kTracks];
    for (int t = 0; t < kTracks; ++t) first[t] = second[t] = -1;
    for (int k = 0; k < set.count; ++k) {
        const int p = set.pos[k];
        const int t = p % kTracks;
        (first[t] < 0 ? first[t] : second[t]) = p;
    }
    for (int i = 0; i < 3; ++i) {
        const int t = (ts + i) % kTracks;
        const int p1 = first[t] < 0 ? t : first[t];
        const int p2 = second[t] < 0 ? p1 : second[t];
        indices[i] = pair_field(p1 / kTracks, sign[p1] < 0, p2 / kTracks, sign[p2] < 0);
    }
    const int ta = (ts + 3) % kTracks, tb = (ts + 4) % kTracks;
    const int pa = first[ta] < 0 ? ta : first[ta];
    const int pb = first[tb] < 0 ? tb : first[tb];
    indices[3] = static_cast<Word16>((ts << 9) | (sign[pa] < 0 ? 0x100 : 0) | (sign[pb] < 0 ? 0x80 : 0) |
                                     (11 * (pa / kTracks) + pb / kTracks));
}

// ---- Rate 1/2 ---------------------------------------------------------------

// rr[i][j] from the track-major copy.
Word32 entry(const Search &s, int i, int j) { return s.rrt[i][j % kTracks][j / kTracks]; }

// All 2 x 8^3 combinations in the reference's scan order (p0, p1, then p2)
// through the lane scan: a row per (p0, p1), the eight p2 in two vectors.
// The first combination with E > 0 is taken even with C = 0, and any later
// one with C != 0 then beats it, so the choice is the scan's (first of the
// best with C != 0), else the first with E > 0, else field 0.
Word16 search_half(const Search &s) {
    constexpr int kHalfBlocks = kHalfPositions / kLanes;
    Word32 d2[kHalfPositions], e2[kHalfPositions];
    Word32 r0[kHalfPositions][kHalfPositions], r1[kHalfPositions][kHalfPositions];
    for (int p2 = 0; p2 < kHalfPositions; ++p2) {
        const int q2 = kHalfStep * p2 + 2 * kHalfTrackStep;
        const bool in = q2 < s.L;
        d2[p2] = in ? s.d[q2] : 0;
        e2[p2] = in ? s.diag[q2] : kPadEnergy;
        for (int p = 0; p < kHalfPositions; ++p) {
            const int q0 = kHalfStep * p, q1 = q0 + kHalfTrackStep;
            r0[p][p2] = in && q0 < s.L ? entry(s, q0, q2) : 0;
            r1[p][p2] = in && q1 < s.L ? entry(s, q1, q2) : 0;
        }
    }
    int rows[kHalfPositions * kHalfPositions];  // p0 * 8 + p1 of the rows inside the subframe
    int n = 0;
    for (int p0 = 0; p0 < kHalfPositions; ++p0) {
        for (int p1 = 0; p1 < kHalfPositions; ++p1) {
            if (kHalfStep * p0 < s.L && kHalfStep * p1 + kHalfTrackStep < s.L) rows[n++] = p0 * kHalfPositions + p1;
        }
    }
    const auto row = [&](int r, Lanes32 *cv, Lanes32 *ev) {
        const int p0 = rows[r] / kHalfPositions, p1 = rows[r] % kHalfPositions;
        const int q0 = kHalfStep * p0, q1 = kHalfStep * p1 + kHalfTrackStep;
        const Word32 c01 = s.d[q0] - s.d[q1];
        const Word32 e01 = s.diag[q0] + s.diag[q1] - 2 * entry(s, q0, q1);
        for (int b = 0; b < kHalfBlocks; ++b) {
            cv[b] = c01 + load_lanes(d2 + kLanes * b);
            ev[b] = e01 + load_lanes(e2 + kLanes * b) +
                    2 * (load_lanes(&r0[p0][kLanes * b]) - load_lanes(&r1[p1][kLanes * b]));
        }
    };
    if (n == 0) return 0;
    Choice best = {0, 0, 1, -1, -1};
    scan_rows<kHalfBlocks>(n, row, -1.0f, best);
    const auto field = [&](int r, int p2, Word64 c) {
        return static_cast<Word16>((c < 0 ? 0x200 : 0) | (rows[r] << 3) | p2);
    };
    if (best.row >= 0) return field(best.row, best.lane, best.c);
    for (int r = 0; r < n; ++r) {
        Lanes32 cv[kHalfBlocks], ev[kHalfBlocks];
        row(r, cv, ev);
        for (int p2 = 0; p2 < kHalfPositions; ++p2) {
            if (ev[p2 / kLanes][p2 % kLanes] > 0) return field(r, p2, cv[p2 / kLanes][p2 % kLanes]);
        }
    }
    return 0;
}

// ---- Gain -------------------------------------------------------------------

// z = hs * (decoded pulse vector), unit pulses counted as 1 (double pulses 2);
// the decoded vector (55 entries) into fcb.
void filtered_codevector(const Word16 *indices, Word16 rate, const Search &s, Word32 *z, Word16 *fcb) {
    evrc_dec_fixed_codebook(fcb, indices, rate);
    // z[n] = sum_{p <= n} amp[p] hs[n - p] as dot products of fixed length
    // over zero-padded copies (hs reversed), for all p at once: the few
    // pulses' places are not branched on. The amplitudes are small integers,
    // so the 32-bit sums are those of the pulse-by-pulse form.
    Word16 amp[kDotLen] = {}, hrev[kMaxLen + kDotLen] = {};
    for (int p = 0; p < s.L; ++p) {
        amp[p] = static_cast<Word16>(fcb[p] / 2048);
        hrev[kMaxLen - 1 - p] = s.hs[p];
    }
    for (int n = 0; n < s.L; ++n) z[n] = dot16(amp, hrev + kMaxLen - 1 - n, dot_terms(n + 1));
}

// Gain index of the least error g^2 |z|^2 / 2^30 - 2 g c / 2^15, c = 1.2 <x,z>.
Word16 gain_index(const Word16 *x, const Word32 *z, int L, Word16 rate) {
    Word64 c = 0, e = 0;
    for (int n = 0; n < L; ++n) {
        c += static_cast<Word64>(x[n]) * z[n];
        e += static_cast<Word64>(z[n]) * z[n];
    }
    c = c * kGainLiftNum / kGainLiftDen;
    int shift = 0;
    const Word64 limit = static_cast<Word64>(1) << kEnergyBits;
    while ((e >> shift) >= limit || (c >> shift) >= limit || (c >> shift) < -limit) ++shift;
    e >>= shift;
    c >>= shift;
    const bool full = rate == EVRC_RATE_FULL;
    const int n = full ? kFullGains : kHalfGains;
    int best = 0;
    Word64 best_err = 0;
    for (int i = 0; i < n; ++i) {
        const Word64 g = evrc_acsFcbGainVQFull[full ? i : 2 * i + 1];
        // g^2 e / 2^15 - 2 g c, both sides scaled by 2^15.
        const Word64 err = ((g * g * e) >> kGainQ) - 2 * g * c;
        const bool take = i == 0 || err < best_err;
        best_err = take ? err : best_err;
        best = take ? i : best;
    }
    return static_cast<Word16>(best);
}

// The whole search; `reference` selects the reference form of the rate-1
// pulse search.
Word16 acelp(const Word16 *target, const Word16 *residual, const Word16 *h, Word16 acb_gain, Word16 lag, Word16 rate,
             Word16 L, Word16 *indices, bool reference, Word16 *pulses) {
    Search s;
    s.L = L < 1 ? 1 : (L > kMaxLen ? kMaxLen : L);
    s.fold_signs = rate == EVRC_RATE_FULL;
    s.full_matrix = reference && rate == EVRC_RATE_FULL;
    sharpen(h, s.hs, s.L, acb_gain, lag);
    prepare(s, target, residual);

    if (rate == EVRC_RATE_FULL) {
        int order[kShifts];
        rank_track_shifts(s, order);
        int ts = order[0];
        PulseSet set;
        set = reference ? search_full_reference(s, order, &ts) : search_full_fast(s, order, &ts);
        encode_full(set, s.sign, ts, indices);
    } else {
        indices[0] = search_half(s);
    }
    Word32 z[kMaxLen];
    Word16 fcb[kPulseVectorLen];
    filtered_codevector(indices, rate == EVRC_RATE_FULL ? EVRC_RATE_FULL : EVRC_RATE_HALF, s, z,
                        pulses != nullptr ? pulses : fcb);
    return gain_index(target, z, s.L, rate);
}

}  // namespace

namespace evrc_enc {

Word16 acelp_reference(const Word16 *target, const Word16 *residual, const Word16 *h, Word16 acb_gain, Word16 lag,
                       Word16 rate, Word16 L, Word16 *indices) {
    return acelp(target, residual, h, acb_gain, lag, rate, L, indices, true, nullptr);
}

Word16 acelp_with_pulses(const Word16 *target, const Word16 *residual, const Word16 *h, Word16 acb_gain, Word16 lag,
                         Word16 rate, Word16 L, Word16 *indices, Word16 *pulses) {
    fx::CallScope scope;
    return acelp(target, residual, h, acb_gain, lag, rate, L, indices, false, pulses);
}

}  // namespace evrc_enc

extern "C" {

EVRC_API Word16 evrc_acelp(const Word16 *target, const Word16 *residual, const Word16 *h, Word16 acb_gain, Word16 lag,
                           Word16 rate, Word16 L, Word16 *indices) {
    fx::CallScope scope;
    return acelp(target, residual, h, acb_gain, lag, rate, L, indices, false, nullptr);
}

}  // extern "C"
