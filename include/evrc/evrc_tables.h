/*
 * Constant tables of the EVRC codec. evrc_acs... tables hold Word16 values,
 * evrc_acn... tables Word32 values. Shapes are given as array bounds.
 */
#ifndef EVRC_TABLES_H
#define EVRC_TABLES_H

#include "evrc/evrc_types.h"

EVRC_EXTERN_C_BEGIN

/* LSP codebooks: absolute ascending LSPs, one row per index. */
EVRC_API extern const Word16 evrc_acsLspVQFull1[64][2];
EVRC_API extern const Word16 evrc_acsLspVQFull2[64][2];
EVRC_API extern const Word16 evrc_acsLspVQFull3[512][3];
EVRC_API extern const Word16 evrc_acsLspVQFull4[128][3];
EVRC_API extern const Word16 evrc_acsLspVQHalf1[128][3];
EVRC_API extern const Word16 evrc_acsLspVQHalf2[128][3];
EVRC_API extern const Word16 evrc_acsLspVQHalf3[256][4];
EVRC_API extern const Word16 evrc_acsLspVQEighth1[16][5];
EVRC_API extern const Word16 evrc_acsLspVQEighth2[16][5];

/* LSP / LPC helpers. */
EVRC_API extern const Word16 evrc_acsLspBiasValues[10];
EVRC_API extern const Word16 evrc_acsInitLspTable[10];
EVRC_API extern const Word16 evrc_acsLSPInterpTbl[3];
EVRC_API extern const Word16 evrc_acsCosineCoeffs[4];
EVRC_API extern const Word16 evrc_acsPwAlpha1[10];
EVRC_API extern const Word16 evrc_acsGamma50Tab[10];
EVRC_API extern const Word16 evrc_acsGamma57Tab[10];
EVRC_API extern const Word16 evrc_acsGamma75Tab[10];
EVRC_API extern const Word16 evrc_acsGamma90Tab[10];

/* Pitch delay contour and interpolation filters. */
EVRC_API extern const Word16 evrc_acsInterpolateDelayTab[5];
EVRC_API extern const Word16 evrc_acsBlockCoeff8[8][17];
EVRC_API extern const Word16 evrc_acsBlockCoeff3[56];
EVRC_API extern const Word16 evrc_acsSubFrameSize[3];

/* Gains and fixed codebook. */
EVRC_API extern const Word16 evrc_acsACBGainTable[8];
EVRC_API extern const Word16 evrc_acsFcbGainVQFull[32];
EVRC_API extern const Word16 evrc_acsFcbGainVQHalf[16];
EVRC_API extern const Word16 evrc_acsTrackIndex[11];

/* Eighth rate and erasure concealment. */
EVRC_API extern const Word16 evrc_acsPowQuant[256][3];
EVRC_API extern const Word16 evrc_acsRandomDelay[5];

/* Arithmetic. */
EVRC_API extern const Word16 evrc_acsLog2Tbl[32];
EVRC_API extern const Word16 evrc_acsInvSqrtTable[49];

/* Encoder: rate decision and LSP search. */
EVRC_API extern const Word16 evrc_acsBandFiltAuto[2][17];
EVRC_API extern const Word32 evrc_acnRateThreshScaleFact[8];
EVRC_API extern const UWord32 evrc_acsLspSearchParams[9];

EVRC_EXTERN_C_END

#endif /* EVRC_TABLES_H */
