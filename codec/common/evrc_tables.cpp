// Small constant tables of the codec: LSP start values and interpolation
// weights, bandwidth-expansion factors, delay interpolation weights, gain
// codebooks, arithmetic look-up tables and the encoder's rate-decision and
// LSP-search constants. The large codebooks live in evrc_tables_generated.cpp.
//
// Including the header gives every definition below external C linkage.
#include "evrc/evrc_tables.h"

// ---------------------------------------------------------------------------
// LSP and LPC helpers (Q15 unless noted).

// Previous-frame LSPs of a freshly initialised decoder: evenly spread,
// 0.048 * k of the sampling frequency for k = 1..10.
const Word16 evrc_acsLspBiasValues[10] = {
    1573, 3146, 4719, 6291, 7864, 9437, 11010, 12583, 14156, 15729,
};

// Starting LSP set of the encoder: ten evenly spaced values from 1573 to
// 15728, rounded to the nearest integer.
const Word16 evrc_acsInitLspTable[10] = {
    1573, 3146, 4719, 6291, 7864, 9437, 11010, 12582, 14155, 15728,
};

// Weight of the current frame's LSPs in subframes 0, 1, 2 (1/6, 1/2, 5/6).
const Word16 evrc_acsLSPInterpTbl[3] = {5462, 16384, 27306};

// Polynomial coefficients of the cosine approximation.
const Word16 evrc_acsCosineCoeffs[4] = {698, -26585, -4369, -21845};

// 0.8^k, k = 1..10: the LPC fallback when an LSP set overflows.
const Word16 evrc_acsPwAlpha1[10] = {
    26214, 20972, 16777, 13422, 10737, 8590, 6872, 5498, 4398, 3518,
};

// gamma^k, k = 1..10, for the postfilter, bandwidth expansion and the
// encoder's perceptual weighting.
const Word16 evrc_acsGamma50Tab[10] = {16384, 8192, 4096, 2048, 1024, 512, 256, 128, 64, 32};
const Word16 evrc_acsGamma57Tab[10] = {18678, 10646, 6068, 3459, 1972, 1124, 641, 365, 208, 119};
const Word16 evrc_acsGamma75Tab[10] = {
    24576, 18432, 13824, 10368, 7776, 5832, 4374, 3281, 2460, 1845,
};
const Word16 evrc_acsGamma90Tab[10] = {
    29491, 26542, 23888, 21499, 19349, 17414, 15673, 14106, 12695, 11425,
};

// ---------------------------------------------------------------------------
// Pitch delay contour.

// Weight of the previous frame's delay at frame positions 0, 53, 106, 160
// and beyond. Readers take the entries as unsigned 16-bit values, so the
// first entry is 32768 (stored as its 16-bit pattern 0x8000).
const Word16 evrc_acsInterpolateDelayTab[5] = {-32768, 21912, 11059, 0, 0};

// Subframe lengths: 53 + 53 + 54 = 160 samples.
const Word16 evrc_acsSubFrameSize[3] = {53, 53, 54};

// ---------------------------------------------------------------------------
// Gains and fixed codebook.

// Adaptive-codebook gains, Q14 (16384 = 1.0).
const Word16 evrc_acsACBGainTable[8] = {0, 4915, 9011, 11469, 13107, 14746, 16384, 19661};

// Fixed-codebook gains, roughly 1.28 dB apart.
const Word16 evrc_acsFcbGainVQFull[32] = {
    10,  13,  17,  22,   28,   36,   46,   59,   76,   97,   125,  161,  206,   265,   340,   437,
    561, 720, 925, 1187, 1525, 1958, 2514, 3227, 4144, 5321, 6832, 8773, 11265, 14464, 18573, 23848,
};

// The odd entries of the full-rate table.
const Word16 evrc_acsFcbGainVQHalf[16] = {
    13, 22, 36, 59, 97, 161, 265, 437, 720, 1187, 1958, 3227, 5321, 8773, 14464, 23848,
};

// Track number of a pulse position modulo 5.
const Word16 evrc_acsTrackIndex[11] = {0, 1, 2, 3, 4, 0, 1, 2, 3, 4, 0};

// ---------------------------------------------------------------------------
// Erasure concealment.

// Jittered delays used for weakly voiced concealed frames.
const Word16 evrc_acsRandomDelay[5] = {55, 80, 39, 71, 33};

// ---------------------------------------------------------------------------
// Arithmetic.

// round(1024 * (30 + log2(1 + i/32))), i = 0..31.
const Word16 evrc_acsLog2Tbl[32] = {
    30720, 30765, 30810, 30852, 30894, 30934, 30974, 31012, 31050, 31086, 31122, 31156, 31190, 31224, 31256, 31288,
    31319, 31349, 31379, 31409, 31437, 31465, 31493, 31520, 31547, 31573, 31599, 31624, 31649, 31673, 31697, 31721,
};

// round(32768 / sqrt(1 + i/16)), i = 0..48, the first entry held at 32767.
const Word16 evrc_acsInvSqrtTable[49] = {
    32767, 31790, 30894, 30070, 29309, 28602, 27945, 27330, 26755, 26214, 25705, 25225, 24770,
    24339, 23930, 23541, 23170, 22817, 22479, 22155, 21845, 21548, 21263, 20988, 20724, 20470,
    20225, 19988, 19760, 19539, 19326, 19119, 18919, 18725, 18536, 18354, 18176, 18004, 17837,
    17674, 17515, 17361, 17211, 17064, 16921, 16782, 16646, 16514, 16384,
};

// ---------------------------------------------------------------------------
// Encoder: rate decision and LSP search.

// Autocorrelation of the two band-pass filters' impulse responses, lags 0..16.
const Word16 evrc_acsBandFiltAuto[2][17] = {
    {13528, 17345, -1097, -10144, -5962, 96, -913, -5482, -6006, -1920, 1531, 1562, 228, -73, 417, 526, 202},
    {15566, -20843, 1754, 6829, -1930, -3913, 2257, 2519, -3442, 857, 820, -343, -328, 172, 106, -71, 10},
};

// Rate thresholds per SNR index: upper factor << 16 | lower factor, both in
// 1/256 of the noise estimate.
#define EVRC_THRESH(upper, lower) static_cast<Word32>((static_cast<UWord32>(upper) << 16) | (lower))
const Word32 evrc_acnRateThreshScaleFact[8] = {
    EVRC_THRESH(2304, 1792), EVRC_THRESH(3226, 1792), EVRC_THRESH(4352, 2048), EVRC_THRESH(4736, 2202),
    EVRC_THRESH(4966, 2278), EVRC_THRESH(5350, 2406), EVRC_THRESH(6528, 2816), EVRC_THRESH(20378, 8090),
};
#undef EVRC_THRESH

// Per LSP codebook: split dimension << 16 | (rows * dimension - dimension + 1),
// the bound below which a candidate's start offset lies. Order: Full1..4,
// Half1..3, Eighth1..2.
#define EVRC_SEARCH(dim, rows) ((static_cast<UWord32>(dim) << 16) | static_cast<UWord32>((rows) * (dim) - (dim) + 1))
const UWord32 evrc_acsLspSearchParams[9] = {
    EVRC_SEARCH(2, 64),  EVRC_SEARCH(2, 64),  EVRC_SEARCH(3, 512), EVRC_SEARCH(3, 128), EVRC_SEARCH(3, 128),
    EVRC_SEARCH(3, 128), EVRC_SEARCH(4, 256), EVRC_SEARCH(5, 16),  EVRC_SEARCH(5, 16),
};
#undef EVRC_SEARCH
