// Encoder-only tables: analysis window, lag window, bandwidth expansion and
// the log-energy codebook paired with evrc_acsPowQuant (row r here is the
// log-domain model of row r there). Defined with the codec's other tables.
#ifndef EVRC_ENC_TABLES_H
#define EVRC_ENC_TABLES_H

#include "evrc/evrc_types.h"

namespace evrc_enc_tables {

extern const Word16 eighth_rate_log_energy_vq[256][3];  // per-subframe log energies
extern const Word16 lpc_analysis_window[160];           // Hamming window, Q15
extern const Word32 lag_window_q30[17];                 // lag window of lags 0..16, Q30
extern const Word16 lpc_bandwidth_expansion_q15[10];    // 0.994^k, k = 1..10, Q15

}  // namespace evrc_enc_tables

#endif  // EVRC_ENC_TABLES_H
