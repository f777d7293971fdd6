// The codec's constant tables: the rows of those no code of this project
// reads (the decoder and encoder golden streams pin all the others), and
// their export from the shared library under C names.
#include <dlfcn.h>

#include <cmath>
#include <cstring>

#include <gtest/gtest.h>

#include "evrc/evrc_tables.h"

namespace {

TEST(Tables, RowsNoCodeReads) {
    // The half-rate gains are the odd full-rate ones; 1/sqrt(1 + i/16) in Q15
    // with 1.0 clamped; the track of each pulse position.
    for (int i = 0; i < 16; ++i) EXPECT_EQ(evrc_acsFcbGainVQHalf[i], evrc_acsFcbGainVQFull[2 * i + 1]) << i;
    EXPECT_EQ(evrc_acsInvSqrtTable[0], 32767);
    for (int i = 1; i < 49; ++i) EXPECT_EQ(evrc_acsInvSqrtTable[i], std::lround(32768.0 / std::sqrt(1.0 + i / 16.0)));
    const int track[] = {0, 1, 2, 3, 4, 0, 1, 2, 3, 4, 0};
    for (int i = 0; i < 11; ++i) EXPECT_EQ(evrc_acsTrackIndex[i], track[i]) << i;
}

// Native code outside this library finds every table by its C name, and the
// shared library's copy is the same data as the one compiled in here.
TEST(Export, TablesVisibleInSharedLibraryUnderCNames) {
    void *lib = dlopen(EVRC_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(lib, nullptr) << dlerror();
#define EVRC_T(t) \
    { #t, &t, sizeof(t) }
    const struct {
        const char *name;
        const void *local;
        std::size_t size;
    } tables[] = {
        EVRC_T(evrc_acsLspVQFull1),
        EVRC_T(evrc_acsLspVQFull2),
        EVRC_T(evrc_acsLspVQFull3),
        EVRC_T(evrc_acsLspVQFull4),
        EVRC_T(evrc_acsLspVQHalf1),
        EVRC_T(evrc_acsLspVQHalf2),
        EVRC_T(evrc_acsLspVQHalf3),
        EVRC_T(evrc_acsLspVQEighth1),
        EVRC_T(evrc_acsLspVQEighth2),
        EVRC_T(evrc_acsLspBiasValues),
        EVRC_T(evrc_acsInitLspTable),
        EVRC_T(evrc_acsLSPInterpTbl),
        EVRC_T(evrc_acsCosineCoeffs),
        EVRC_T(evrc_acsPwAlpha1),
        EVRC_T(evrc_acsGamma50Tab),
        EVRC_T(evrc_acsGamma57Tab),
        EVRC_T(evrc_acsGamma75Tab),
        EVRC_T(evrc_acsGamma90Tab),
        EVRC_T(evrc_acsInterpolateDelayTab),
        EVRC_T(evrc_acsBlockCoeff8),
        EVRC_T(evrc_acsBlockCoeff3),
        EVRC_T(evrc_acsSubFrameSize),
        EVRC_T(evrc_acsACBGainTable),
        EVRC_T(evrc_acsFcbGainVQFull),
        EVRC_T(evrc_acsFcbGainVQHalf),
        EVRC_T(evrc_acsTrackIndex),
        EVRC_T(evrc_acsPowQuant),
        EVRC_T(evrc_acsRandomDelay),
        EVRC_T(evrc_acsLog2Tbl),
        EVRC_T(evrc_acsInvSqrtTable),
        EVRC_T(evrc_acsBandFiltAuto),
        EVRC_T(evrc_acnRateThreshScaleFact),
        EVRC_T(evrc_acsLspSearchParams),
    };
    for (const auto &t : tables) {
        const void *sym = dlsym(lib, t.name);
        ASSERT_NE(sym, nullptr) << t.name << " is not exported";
        EXPECT_EQ(std::memcmp(sym, t.local, t.size), 0) << t.name;
    }
    dlclose(lib);
}

}  // namespace
