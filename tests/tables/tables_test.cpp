// Checks of the codec's constant tables: the values that define them, the
// formulas some of them follow, the structural properties the decoder relies
// on (ascending LSP rows, mirrored filter phases), and their export from the
// shared library under C names.
#include <dlfcn.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "evrc/evrc_tables.h"

namespace {

template <typename T, std::size_t N>
std::vector<int> Row(const T (&row)[N]) {
    return std::vector<int>(row, row + N);
}

struct Codebook {
    const char *name;
    const Word16 *data;
    int rows;
    int dim;
};

#define EVRC_CODEBOOK(t) \
    Codebook { #t, &t[0][0], static_cast<int>(sizeof(t) / sizeof(t[0])), static_cast<int>(sizeof(t[0]) / sizeof(Word16)) }

// In the order of the LSP search parameters.
const Codebook kCodebooks[] = {
    EVRC_CODEBOOK(evrc_acsLspVQFull1), EVRC_CODEBOOK(evrc_acsLspVQFull2),   EVRC_CODEBOOK(evrc_acsLspVQFull3),
    EVRC_CODEBOOK(evrc_acsLspVQFull4), EVRC_CODEBOOK(evrc_acsLspVQHalf1),   EVRC_CODEBOOK(evrc_acsLspVQHalf2),
    EVRC_CODEBOOK(evrc_acsLspVQHalf3), EVRC_CODEBOOK(evrc_acsLspVQEighth1), EVRC_CODEBOOK(evrc_acsLspVQEighth2),
};

std::vector<int> FirstRow(const Codebook &cb) { return std::vector<int>(cb.data, cb.data + cb.dim); }

TEST(LspCodebooks, FirstRowsAreTheDefiningValues) {
    const std::vector<std::vector<int>> first = {
        {465, 635},        {1710, 2747},        {4470, 5526, 6707},         {9092, 10387, 12960},
        {443, 597, 1291},  {3198, 4053, 5552},  {7763, 8392, 10386, 13354}, {1379, 2277, 3660, 4775, 6846},
        {8789, 10022, 10194, 12066, 13361},
    };
    for (std::size_t i = 0; i < first.size(); ++i) {
        EXPECT_EQ(FirstRow(kCodebooks[i]), first[i]) << kCodebooks[i].name;
    }
    EXPECT_EQ(Row(evrc_acsLspVQFull1[1]), (std::vector<int>{956, 2136}));
}

// Every row is a valid piece of an LSP vector: strictly ascending and inside
// (0, fs/2). The splits of each rate together cover LSPs 1..10.
TEST(LspCodebooks, EveryRowStrictlyAscendingWithinNyquist) {
    for (const Codebook &cb : kCodebooks) {
        for (int r = 0; r < cb.rows; ++r) {
            const Word16 *row = cb.data + r * cb.dim;
            EXPECT_GT(row[0], 0) << cb.name << " row " << r;
            EXPECT_LT(row[cb.dim - 1], 16384) << cb.name << " row " << r;
            for (int j = 1; j < cb.dim; ++j) {
                EXPECT_LT(row[j - 1], row[j]) << cb.name << " row " << r << " column " << j;
            }
        }
    }
    EXPECT_EQ(kCodebooks[0].dim + kCodebooks[1].dim + kCodebooks[2].dim + kCodebooks[3].dim, 10);
    EXPECT_EQ(kCodebooks[4].dim + kCodebooks[5].dim + kCodebooks[6].dim, 10);
    EXPECT_EQ(kCodebooks[7].dim + kCodebooks[8].dim, 10);
}

// The search parameters must describe the codebooks actually compiled in:
// high half the dimension, low half one past the last row's start offset.
TEST(LspCodebooks, SearchParamsMatchCodebookShapes) {
    const int bounds[9] = {127, 127, 1534, 382, 382, 382, 1021, 76, 76};
    for (int i = 0; i < 9; ++i) {
        const Codebook &cb = kCodebooks[i];
        const UWord32 word = evrc_acsLspSearchParams[i];
        EXPECT_EQ(static_cast<int>(word >> 16), cb.dim) << cb.name;
        EXPECT_EQ(static_cast<int>(word & 0xFFFF), (cb.rows - 1) * cb.dim + 1) << cb.name;
        EXPECT_EQ(static_cast<int>(word & 0xFFFF), bounds[i]) << cb.name;
    }
}

TEST(LspStartValues, BiasAndInitialSets) {
    // 0.048 * k of the sampling frequency, Q15.
    for (int k = 1; k <= 10; ++k) {
        EXPECT_EQ(evrc_acsLspBiasValues[k - 1], std::lround(0.048 * k * 32768.0)) << k;
    }
    // The encoder's set is evenly spaced from 1573 to 15728.
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(evrc_acsInitLspTable[i], std::lround(1573.0 + i * (15728.0 - 1573.0) / 9.0)) << i;
    }
}

// Bandwidth-expansion tables are gamma^k in Q15 for k = 1..10, to within
// the rounding of the stored values.
TEST(WeightingTables, PowersOfGamma) {
    struct {
        const Word16 *table;
        double gamma;
        const char *name;
    } const cases[] = {
        {evrc_acsGamma50Tab, 0.50, "Gamma50"}, {evrc_acsGamma57Tab, 0.57, "Gamma57"},
        {evrc_acsGamma75Tab, 0.75, "Gamma75"}, {evrc_acsGamma90Tab, 0.90, "Gamma90"},
        {evrc_acsPwAlpha1, 0.80, "PwAlpha1"},
    };
    for (const auto &c : cases) {
        for (int k = 1; k <= 10; ++k) {
            EXPECT_NEAR(c.table[k - 1], std::pow(c.gamma, k) * 32768.0, 1.0) << c.name << " k=" << k;
        }
    }
    EXPECT_EQ(evrc_acsGamma57Tab[0], 18678);
    EXPECT_EQ(evrc_acsGamma90Tab[9], 11425);
}

TEST(SmallTables, DefiningValues) {
    EXPECT_EQ(Row(evrc_acsLSPInterpTbl), (std::vector<int>{5462, 16384, 27306}));
    EXPECT_EQ(Row(evrc_acsCosineCoeffs), (std::vector<int>{698, -26585, -4369, -21845}));
    EXPECT_EQ(Row(evrc_acsSubFrameSize), (std::vector<int>{53, 53, 54}));
    EXPECT_EQ(evrc_acsSubFrameSize[0] + evrc_acsSubFrameSize[1] + evrc_acsSubFrameSize[2], 160);
    EXPECT_EQ(Row(evrc_acsACBGainTable), (std::vector<int>{0, 4915, 9011, 11469, 13107, 14746, 16384, 19661}));
    EXPECT_EQ(Row(evrc_acsTrackIndex), (std::vector<int>{0, 1, 2, 3, 4, 0, 1, 2, 3, 4, 0}));
    EXPECT_EQ(Row(evrc_acsRandomDelay), (std::vector<int>{55, 80, 39, 71, 33}));
}

// The first weight is 1.0 in Q15, which only exists as an unsigned value.
TEST(SmallTables, InterpolateDelayTabReadAsUnsigned) {
    std::vector<unsigned> w;
    for (Word16 v : evrc_acsInterpolateDelayTab) w.push_back(static_cast<UWord16>(v));
    EXPECT_EQ(w, (std::vector<unsigned>{32768, 21912, 11059, 0, 0}));
}

TEST(GainTables, HalfRateIsOddEntriesOfFullRate) {
    for (int i = 0; i < 16; ++i) {
        EXPECT_EQ(evrc_acsFcbGainVQHalf[i], evrc_acsFcbGainVQFull[2 * i + 1]) << i;
    }
    EXPECT_EQ(evrc_acsFcbGainVQFull[0], 10);
    EXPECT_EQ(evrc_acsFcbGainVQFull[31], 23848);
    for (int i = 1; i < 32; ++i) {
        EXPECT_LT(evrc_acsFcbGainVQFull[i - 1], evrc_acsFcbGainVQFull[i]) << i;
    }
}

TEST(PowQuant, PrintedRowsAndRange) {
    const std::vector<std::vector<int>> first = {{121, 127, 99}, {956, 1292, 1260}, {338, 314, 407}, {3608, 2724, 2428}};
    for (int r = 0; r < 4; ++r) EXPECT_EQ(Row(evrc_acsPowQuant[r]), first[r]) << r;
    EXPECT_EQ(Row(evrc_acsPowQuant[255]), (std::vector<int>{12800, 15108, 14395}));
    for (const auto &row : evrc_acsPowQuant) {
        for (Word16 g : row) EXPECT_GE(g, 0);
    }
}

TEST(InterpolationFilters, BlockCoeff8Phases) {
    EXPECT_EQ(Row(evrc_acsBlockCoeff8[0]), (std::vector<int>{109, -146, 99, 180, -901, 2411, -5769, 20443, 20443, -5769,
                                                             2411, -901, 180, 99, -146, 109, -87}));
    EXPECT_EQ(Row(evrc_acsBlockCoeff8[4]), (std::vector<int>{-67, 179, -434, 864, -1444, 2096, -2697, 3123, 29491, 3123,
                                                             -2697, 2096, -1444, 864, -434, 179, -67}));
    // Phase 0 is symmetric about the point between taps 7 and 8.
    for (int j = 0; j < 16; ++j) EXPECT_EQ(evrc_acsBlockCoeff8[0][j], evrc_acsBlockCoeff8[0][15 - j]) << j;
    // Phase 8 - p is phase p reversed; phase 4 is its own mirror image.
    for (int p = 1; p <= 4; ++p) {
        for (int j = 0; j < 17; ++j) {
            EXPECT_EQ(evrc_acsBlockCoeff8[8 - p][j], evrc_acsBlockCoeff8[p][16 - j]) << "phase " << p << " tap " << j;
        }
    }
    // Every phase has a DC gain of about 1.0 (Q15).
    for (int p = 0; p < 8; ++p) {
        int sum = 0;
        for (Word16 c : evrc_acsBlockCoeff8[p]) sum += c;
        EXPECT_NEAR(sum, 32750, 100) << "phase " << p;
    }
}

TEST(InterpolationFilters, BlockCoeff3PhasesMirror) {
    // Eight phases of seven taps stored row by row: phase 8 - p is phase p
    // reversed, and phase 0 is symmetric over its first six taps.
    const Word16(*ph)[7] = reinterpret_cast<const Word16(*)[7]>(evrc_acsBlockCoeff3);
    for (int p = 1; p <= 4; ++p) {
        for (int j = 0; j < 7; ++j) {
            EXPECT_EQ(ph[8 - p][j], ph[p][6 - j]) << "phase " << p << " tap " << j;
        }
    }
    for (int j = 0; j < 6; ++j) EXPECT_EQ(ph[0][j], ph[0][5 - j]) << j;
    EXPECT_EQ(evrc_acsBlockCoeff3[0], -747);
    EXPECT_EQ(evrc_acsBlockCoeff3[55], -709);
}

TEST(ArithmeticTables, Log2TableFollowsFormula) {
    for (int i = 0; i < 32; ++i) {
        EXPECT_EQ(evrc_acsLog2Tbl[i], std::lround(1024.0 * (30.0 + std::log2(1.0 + i / 32.0)))) << i;
    }
    EXPECT_EQ(evrc_acsLog2Tbl[31], 31721);
}

TEST(ArithmeticTables, InvSqrtTableFollowsFormula) {
    EXPECT_EQ(evrc_acsInvSqrtTable[0], 32767);
    for (int i = 1; i < 49; ++i) {
        EXPECT_EQ(evrc_acsInvSqrtTable[i], std::lround(32768.0 / std::sqrt(1.0 + i / 16.0))) << i;
    }
    EXPECT_EQ(evrc_acsInvSqrtTable[16], 23170);
    EXPECT_EQ(evrc_acsInvSqrtTable[48], 16384);
}

TEST(EncoderTables, BandFilterAutocorrelation) {
    EXPECT_EQ(evrc_acsBandFiltAuto[0][0], 13528);
    EXPECT_EQ(evrc_acsBandFiltAuto[0][16], 202);
    EXPECT_EQ(evrc_acsBandFiltAuto[1][0], 15566);
    EXPECT_EQ(evrc_acsBandFiltAuto[1][1], -20843);
    EXPECT_EQ(evrc_acsBandFiltAuto[1][16], 10);
    // Lag 0 of an autocorrelation dominates every other lag.
    for (const auto &row : evrc_acsBandFiltAuto) {
        for (int i = 1; i < 17; ++i) EXPECT_LE(std::abs(row[i]), row[0] * 2) << i;
    }
}

TEST(EncoderTables, RateThresholdsPackUpperAndLower) {
    const int upper[8] = {2304, 3226, 4352, 4736, 4966, 5350, 6528, 20378};
    const int lower[8] = {1792, 1792, 2048, 2202, 2278, 2406, 2816, 8090};
    for (int i = 0; i < 8; ++i) {
        const UWord32 w = static_cast<UWord32>(evrc_acnRateThreshScaleFact[i]);
        EXPECT_EQ(static_cast<int>(w >> 16), upper[i]) << i;
        EXPECT_EQ(static_cast<int>(w & 0xFFFF), lower[i]) << i;
    }
}

// Native code outside this library finds every table by its C name, and the
// shared library's copy is the same data as the one compiled in here.
TEST(Export, TablesVisibleInSharedLibraryUnderCNames) {
    void *lib = dlopen(EVRC_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(lib, nullptr) << dlerror();
    struct {
        const char *name;
        const void *local;
        std::size_t size;
    } const tables[] = {
#define EVRC_T(t) {#t, &t, sizeof(t)}
        EVRC_T(evrc_acsLspVQFull1),     EVRC_T(evrc_acsLspVQFull2),        EVRC_T(evrc_acsLspVQFull3),
        EVRC_T(evrc_acsLspVQFull4),     EVRC_T(evrc_acsLspVQHalf1),        EVRC_T(evrc_acsLspVQHalf2),
        EVRC_T(evrc_acsLspVQHalf3),     EVRC_T(evrc_acsLspVQEighth1),      EVRC_T(evrc_acsLspVQEighth2),
        EVRC_T(evrc_acsLspBiasValues),  EVRC_T(evrc_acsInitLspTable),      EVRC_T(evrc_acsLSPInterpTbl),
        EVRC_T(evrc_acsCosineCoeffs),   EVRC_T(evrc_acsPwAlpha1),          EVRC_T(evrc_acsGamma50Tab),
        EVRC_T(evrc_acsGamma57Tab),     EVRC_T(evrc_acsGamma75Tab),        EVRC_T(evrc_acsGamma90Tab),
        EVRC_T(evrc_acsInterpolateDelayTab), EVRC_T(evrc_acsBlockCoeff8),  EVRC_T(evrc_acsBlockCoeff3),
        EVRC_T(evrc_acsSubFrameSize),   EVRC_T(evrc_acsACBGainTable),      EVRC_T(evrc_acsFcbGainVQFull),
        EVRC_T(evrc_acsFcbGainVQHalf),  EVRC_T(evrc_acsTrackIndex),        EVRC_T(evrc_acsPowQuant),
        EVRC_T(evrc_acsRandomDelay),    EVRC_T(evrc_acsLog2Tbl),           EVRC_T(evrc_acsInvSqrtTable),
        EVRC_T(evrc_acsBandFiltAuto),   EVRC_T(evrc_acnRateThreshScaleFact), EVRC_T(evrc_acsLspSearchParams),
#undef EVRC_T
    };
    for (const auto &t : tables) {
        const void *sym = dlsym(lib, t.name);
        ASSERT_NE(sym, nullptr) << t.name << " is not exported";
        EXPECT_EQ(std::memcmp(sym, t.local, t.size), 0) << t.name;
    }
    dlclose(lib);
}

}  // namespace
