// Constants of the signal path that the encoder and the decoder share.
#ifndef EVRC_CODEC_COMMON_CONSTANTS_H
#define EVRC_CODEC_COMMON_CONSTANTS_H

#include "evrc/evrc_common.h"

namespace evrc {

constexpr int kOrder = 10;          // LPC order, LSPs per frame
constexpr int kSubframes = 3;       // subframes of 53, 53 and 54 samples
constexpr int kSubframeStep = 53;   // subframe k starts at frame sample 53k
constexpr int kFcbLen = 55;         // fixed-codebook vector
constexpr Word16 kFcbPulse = 2048;  // amplitude of one pulse
constexpr int kFcbTracks = 5;       // rate-1 pulses sit on tracks t + 5i
constexpr Word16 kMinDelay = 20;    // pitch delay bounds, samples
constexpr Word16 kMaxDelay = 120;
constexpr Word16 kDelayJump = 16;     // delay changes this large are not interpolated
constexpr Word16 kLspToLpcShift = 3;  // shift of cmn1x_lsp2lpc for Q12 coefficients
constexpr int kLookAhead = 10;        // adaptive-codebook samples beyond the subframe

// Start of subframe k in the frame.
constexpr int subframe_start(int k) { return kSubframeStep * k; }

}  // namespace evrc

#endif  // EVRC_CODEC_COMMON_CONSTANTS_H
