#include "wav_writer.h"

#include <fcntl.h>
#include <sndfile.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace evrc_tool {

bool write_wav(const std::string &path, const std::vector<std::int16_t> &pcm, int sample_rate, std::string &error) {
    error.clear();
    SF_INFO info{};
    info.samplerate = sample_rate;
    info.channels = 1;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    // Opened here rather than by libsndfile so that the reason for a
    // failure is the system's own message.
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (fd < 0) {
        error = std::string("cannot create: ") + std::strerror(errno);
        return false;
    }
    SNDFILE *sf = sf_open_fd(fd, SFM_WRITE, &info, SF_TRUE);
    if (sf == nullptr) {
        error = std::string("cannot write: ") + sf_strerror(nullptr);
        close(fd);
        return false;
    }
    const auto count = static_cast<sf_count_t>(pcm.size());
    const sf_count_t written = sf_write_short(sf, pcm.data(), count);
    if (written != count) error = std::string("cannot write: ") + sf_strerror(sf);
    if (sf_close(sf) != 0 && written == count) error = std::string("cannot write: ") + sf_strerror(nullptr);
    return error.empty();
}

}  // namespace evrc_tool
