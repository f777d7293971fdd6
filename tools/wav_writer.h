// 16-bit mono PCM WAV output.
#ifndef EVRC_TOOLS_WAV_WRITER_H
#define EVRC_TOOLS_WAV_WRITER_H

#include <cstdint>
#include <string>
#include <vector>

namespace evrc_tool {

// Writes `pcm` as a 16-bit PCM mono WAV file at `sample_rate`. On failure
// returns false with the reason in `error` (without the path).
bool write_wav(const std::string &path, const std::vector<std::int16_t> &pcm, int sample_rate, std::string &error);

}  // namespace evrc_tool

#endif  // EVRC_TOOLS_WAV_WRITER_H
