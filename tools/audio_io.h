// Audio in and out of the command-line tool: any file libsndfile reads,
// brought to 8 kHz mono 16-bit for the encoder, and the decoder's output
// written in the format the output name's extension asks for.
#ifndef EVRC_TOOLS_AUDIO_IO_H
#define EVRC_TOOLS_AUDIO_IO_H

#include <cstdint>
#include <string>
#include <vector>

namespace evrc_tool {

struct InputAudio {
    std::vector<std::int16_t> pcm;  // 8000 Hz mono
    int source_rate = 0;
    int source_channels = 0;
};

// Reads `path` ("-": headerless 16-bit little-endian 8 kHz mono PCM from
// standard input), mixes the channels down to mono and resamples to
// 8000 Hz. On failure returns false with the reason in `error`.
bool read_audio(const std::string &path, InputAudio &audio, std::string &error);

// Writes 8 kHz mono PCM to `path`: "-" gives headerless 16-bit
// little-endian samples on standard output, otherwise the extension picks
// the libsndfile format (.wav, .flac, .ogg, .aiff, ...; no extension: WAV).
// Nothing is left at `path` when writing fails.
bool write_audio(const std::string &path, const std::vector<std::int16_t> &pcm, std::string &error);

// Checks that `path` names an output format write_audio knows.
bool output_format_known(const std::string &path, std::string &error);

}  // namespace evrc_tool

#endif  // EVRC_TOOLS_AUDIO_IO_H
