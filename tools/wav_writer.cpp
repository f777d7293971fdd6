#include "wav_writer.h"

#include <sndfile.h>

namespace evrc_tool {

bool write_wav(const std::string &path, const std::vector<std::int16_t> &pcm, int sample_rate, std::string &error) {
    error.clear();
    SF_INFO info{};
    info.samplerate = sample_rate;
    info.channels = 1;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE *sf = sf_open(path.c_str(), SFM_WRITE, &info);
    if (sf == nullptr) {
        error = std::string("cannot create: ") + sf_strerror(nullptr);
        return false;
    }
    const auto count = static_cast<sf_count_t>(pcm.size());
    const sf_count_t written = sf_write_short(sf, pcm.data(), count);
    if (written != count) error = std::string("cannot write: ") + sf_strerror(sf);
    if (sf_close(sf) != 0 && written == count) error = std::string("cannot write: ") + sf_strerror(nullptr);
    return error.empty();
}

}  // namespace evrc_tool
