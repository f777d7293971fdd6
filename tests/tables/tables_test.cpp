// Checks of the codec's constant tables the golden streams do not make: the
// structure the LSP search relies on (ascending rows, search parameters
// matching the codebooks), rows of tables no decoded stream reads, and
// their export from the shared library under C names.
#include <dlfcn.h>

#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "evrc/evrc_tables.h"

namespace {

struct Codebook { const char *name; const Word16 *data; int rows, dim; };
#define EVRC_CODEBOOK(t) Codebook{#t, &t[0][0], int(sizeof(t) / sizeof(t[0])), int(sizeof(t[0]) / sizeof(Word16))}

// In the order of the LSP search parameters.
const Codebook kCodebooks[] = {
    EVRC_CODEBOOK(evrc_acsLspVQFull1), EVRC_CODEBOOK(evrc_acsLspVQFull2),   EVRC_CODEBOOK(evrc_acsLspVQFull3),
    EVRC_CODEBOOK(evrc_acsLspVQFull4), EVRC_CODEBOOK(evrc_acsLspVQHalf1),   EVRC_CODEBOOK(evrc_acsLspVQHalf2),
    EVRC_CODEBOOK(evrc_acsLspVQHalf3), EVRC_CODEBOOK(evrc_acsLspVQEighth1), EVRC_CODEBOOK(evrc_acsLspVQEighth2),
};

// Every row is a strictly ascending piece of an LSP vector inside (0, fs/2),
// and the search parameters describe the codebooks actually compiled in:
// high half the dimension, low half one past the last row's start offset.
TEST(LspCodebooks, RowsAscendWithinNyquistAndMatchSearchParams) {
    const int bounds[9] = {127, 127, 1534, 382, 382, 382, 1021, 76, 76};
    for (int i = 0; i < 9; ++i) {
        const Codebook &cb = kCodebooks[i];
        for (int r = 0; r < cb.rows; ++r) {
            const Word16 *row = cb.data + r * cb.dim;
            EXPECT_TRUE(row[0] > 0 && row[cb.dim - 1] < 16384) << cb.name << " row " << r;
            for (int j = 1; j < cb.dim; ++j) EXPECT_LT(row[j - 1], row[j]) << cb.name << " row " << r;
        }
        EXPECT_EQ(evrc_acsLspSearchParams[i] >> 16, UWord32(cb.dim)) << cb.name;
        EXPECT_EQ(evrc_acsLspSearchParams[i] & 0xFFFF, UWord32((cb.rows - 1) * cb.dim + 1)) << cb.name;
        EXPECT_EQ(evrc_acsLspSearchParams[i] & 0xFFFF, UWord32(bounds[i])) << cb.name;
    }
    EXPECT_EQ(kCodebooks[0].dim + kCodebooks[1].dim + kCodebooks[2].dim + kCodebooks[3].dim, 10);
    EXPECT_EQ(kCodebooks[4].dim + kCodebooks[5].dim + kCodebooks[6].dim, 10);
    EXPECT_EQ(kCodebooks[7].dim + kCodebooks[8].dim, 10);
}

// Rows printed in the codec's documentation of tables the decoder does not
// read (the golden decoder streams pin the others): a typo in a hand-written
// table or a shifted generated one shows up here.
TEST(Tables, PrintedRows) {
    struct Row { const Word16 *table; std::vector<int> values; };
    const Row rows[] = {
        {evrc_acsTrackIndex, {0, 1, 2, 3, 4, 0, 1, 2, 3, 4, 0}}, {evrc_acsBandFiltAuto[1] + 12, {-328, 172, 106, -71, 10}},
    };
    for (const Row &r : rows)
        for (std::size_t i = 0; i < r.values.size(); ++i) EXPECT_EQ(r.table[i], r.values[i]) << "entry " << i;
}


// Native code outside this library finds every table by its C name, and the
// shared library's copy is the same data as the one compiled in here.
TEST(Export, TablesVisibleInSharedLibraryUnderCNames) {
    void *lib = dlopen(EVRC_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(lib, nullptr) << dlerror();
#define EVRC_T(t) {#t, &t, sizeof(t)}
    const struct { const char *name; const void *local; std::size_t size; } tables[] = {
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
    };
    for (const auto &t : tables) {
        const void *sym = dlsym(lib, t.name);
        ASSERT_NE(sym, nullptr) << t.name << " is not exported";
        EXPECT_EQ(std::memcmp(sym, t.local, t.size), 0) << t.name;
    }
    dlclose(lib);
}

}  // namespace
