#include "audio_io.h"

#include <fcntl.h>
#include <sndfile.h>
#include <soxr.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "output_file.h"

namespace evrc_tool {

namespace {

constexpr int kRate = 8000;
constexpr sf_count_t kReadBlock = 8192;  // frames per read

std::string system_error(const char *what) { return std::string(what) + ": " + std::strerror(errno); }

std::int16_t to_pcm16(float x) {
    const float scaled = std::nearbyint(x * 32768.0f);
    return static_cast<std::int16_t>(std::min(32767.0f, std::max(-32768.0f, scaled)));
}

bool read_stdin(InputAudio &audio, std::string &error) {
    std::vector<std::uint8_t> bytes;
    std::uint8_t buf[65536];
    for (;;) {
        const ssize_t n = read(STDIN_FILENO, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            error = system_error("cannot read");
            return false;
        }
        if (n == 0) break;
        bytes.insert(bytes.end(), buf, buf + n);
    }
    if (bytes.size() < 2) {
        error = "no audio on standard input";
        return false;
    }
    // A trailing odd byte is half a sample and is dropped.
    audio.pcm.resize(bytes.size() / 2);
    for (std::size_t i = 0; i < audio.pcm.size(); ++i) {
        audio.pcm[i] = static_cast<std::int16_t>(static_cast<std::uint16_t>(bytes[2 * i] | (bytes[2 * i + 1] << 8)));
    }
    audio.source_rate = kRate;
    audio.source_channels = 1;
    return true;
}

// Brings blocks of mono samples in [-1, 1) at the file's rate to 16-bit
// samples at 8000 Hz, through libsoxr when the rates differ, so that only
// the 8 kHz result of a long file is held in memory.
class Resampler {
public:
    explicit Resampler(int in_rate) {
        if (in_rate == kRate) return;
        const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
        const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
        soxr_ = soxr_create(in_rate, kRate, 1, &error_, &io, &quality, nullptr);
        ratio_ = static_cast<double>(kRate) / in_rate;
    }
    Resampler(const Resampler &) = delete;
    Resampler &operator=(const Resampler &) = delete;
    ~Resampler() { soxr_delete(soxr_); }

    // Takes n samples; n = 0 and in = nullptr flush the resampler's tail.
    bool push(const float *in, std::size_t n, std::vector<std::int16_t> &out, std::string &error) {
        if (error_ != nullptr) return fail(error);
        if (soxr_ == nullptr) {
            for (std::size_t i = 0; i < n; ++i) out.push_back(to_pcm16(in[i]));
            return true;
        }
        buffer_.resize(static_cast<std::size_t>(static_cast<double>(n) * ratio_) + 1024);
        std::size_t used = 0;
        for (;;) {
            std::size_t consumed = 0, made = 0;
            error_ = soxr_process(soxr_, in == nullptr ? nullptr : in + used, n - used, &consumed, buffer_.data(),
                                  buffer_.size(), &made);
            if (error_ != nullptr) return fail(error);
            used += consumed;
            for (std::size_t i = 0; i < made; ++i) out.push_back(to_pcm16(buffer_[i]));
            // Input: until all of it is taken; flushing: until nothing comes.
            if (in != nullptr ? used >= n && made < buffer_.size() : made == 0) return true;
        }
    }

private:
    bool fail(std::string &error) const {
        error = std::string("cannot resample: ") + error_;
        return false;
    }

    soxr_t soxr_ = nullptr;
    soxr_error_t error_ = nullptr;
    double ratio_ = 1.0;
    std::vector<float> buffer_;
};

// Reads the whole file, averaging the channels of each frame.
bool read_resampled(SNDFILE *sf, const SF_INFO &info, std::vector<std::int16_t> &pcm, std::string &error) {
    const int channels = info.channels;
    std::vector<float> block(static_cast<std::size_t>(kReadBlock) * static_cast<std::size_t>(channels));
    std::vector<float> mono(static_cast<std::size_t>(kReadBlock));
    Resampler resampler(info.samplerate);
    if (info.frames > 0) {
        pcm.reserve(static_cast<std::size_t>(static_cast<double>(info.frames) * kRate / info.samplerate) + 1);
    }
    for (;;) {
        const sf_count_t got = sf_readf_float(sf, block.data(), kReadBlock);
        if (got <= 0) break;
        for (sf_count_t f = 0; f < got; ++f) {
            const float *frame = &block[static_cast<std::size_t>(f) * static_cast<std::size_t>(channels)];
            float sum = 0.0f;
            for (int c = 0; c < channels; ++c) sum += frame[c];
            mono[static_cast<std::size_t>(f)] = sum / static_cast<float>(channels);
        }
        if (!resampler.push(mono.data(), static_cast<std::size_t>(got), pcm, error)) return false;
    }
    if (sf_error(sf) != SF_ERR_NO_ERROR) {
        error = std::string("cannot read: ") + sf_strerror(sf);
        return false;
    }
    return resampler.push(nullptr, 0, pcm, error);
}

struct FormatChoice {
    int format = 0;
    std::string name;
};

std::string extension_of(const std::string &path) {
    const std::size_t slash = path.rfind('/');
    const std::size_t dot = path.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash) || dot + 1 == path.size()) return "";
    std::string ext = path.substr(dot + 1);
    for (char &c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return ext;
}

// The libsndfile format an output name asks for: the major format whose
// usual extension it has, with the first encoding that takes 8 kHz mono.
bool choose_format(const std::string &path, FormatChoice &choice, std::string &error) {
    std::string ext = extension_of(path);
    if (ext.empty()) ext = "wav";
    // libsndfile's own names for some formats differ from the usual ones.
    std::string lookup = ext;
    if (ext == "aif") lookup = "aiff";
    if (ext == "ogg") lookup = "oga";
    if (ext == "mp3") lookup = "m1a";
    static const int kEncodings[] = {SF_FORMAT_PCM_16, SF_FORMAT_VORBIS, SF_FORMAT_OPUS, SF_FORMAT_MPEG_LAYER_III,
                                     SF_FORMAT_ALAW};
    std::vector<int> majors;
    if (ext == "opus") {
        majors.push_back(SF_FORMAT_OGG);
    } else {
        int count = 0;
        sf_command(nullptr, SFC_GET_FORMAT_MAJOR_COUNT, &count, sizeof count);
        for (int i = 0; i < count; ++i) {
            SF_FORMAT_INFO fi{};
            fi.format = i;
            if (sf_command(nullptr, SFC_GET_FORMAT_MAJOR, &fi, sizeof fi) != 0) continue;
            if (fi.extension != nullptr && lookup == fi.extension) majors.push_back(fi.format);
        }
    }
    for (int major : majors) {
        for (int enc : kEncodings) {
            if (ext == "opus" && enc != SF_FORMAT_OPUS) continue;
            SF_INFO info{};
            info.samplerate = kRate;
            info.channels = 1;
            info.format = major | enc;
            if (sf_format_check(&info)) {
                choice.format = info.format;
                choice.name = ext;
                return true;
            }
        }
    }
    error = "unknown output format '." + ext + "' (use .wav, .flac, .ogg, .aiff, ... or - for raw PCM)";
    return false;
}

}  // namespace

bool read_audio(const std::string &path, InputAudio &audio, std::string &error) {
    if (path == "-") return read_stdin(audio, error);
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) {
        error = system_error("cannot open");
        return false;
    }
    struct FdCloser {
        int fd;
        ~FdCloser() { close(fd); }
    } closer{fd};
    struct stat st;
    if (fstat(fd, &st) != 0) {
        error = system_error("cannot open");
        return false;
    }
    if (S_ISDIR(st.st_mode)) {
        error = "cannot open: Is a directory";
        return false;
    }
    if (S_ISREG(st.st_mode) && st.st_size == 0) {
        error = "empty file";
        return false;
    }
    SF_INFO info{};
    SNDFILE *sf = sf_open_fd(fd, SFM_READ, &info, SF_FALSE);
    if (sf == nullptr) {
        std::string why = sf_strerror(nullptr);
        while (!why.empty() && (why.back() == '.' || why.back() == '\n')) why.pop_back();
        error = "not an audio file (" + why + ")";
        return false;
    }
    const bool read_ok = read_resampled(sf, info, audio.pcm, error);
    sf_close(sf);
    if (!read_ok) return false;
    if (audio.pcm.empty()) {
        error = "holds no audio samples";
        return false;
    }
    audio.source_rate = info.samplerate;
    audio.source_channels = info.channels;
    return true;
}

bool output_format_known(const std::string &path, std::string &error) {
    FormatChoice choice;
    return path == "-" || choose_format(path, choice, error);
}

bool write_audio(const std::string &path, const std::vector<std::int16_t> &pcm, std::string &error) {
    OutputFile out;
    if (path == "-") {
        std::vector<std::uint8_t> bytes(pcm.size() * 2);
        for (std::size_t i = 0; i < pcm.size(); ++i) {
            const auto v = static_cast<std::uint16_t>(pcm[i]);
            bytes[2 * i] = static_cast<std::uint8_t>(v & 0xFF);
            bytes[2 * i + 1] = static_cast<std::uint8_t>(v >> 8);
        }
        return out.open(path, error) && out.write(bytes.data(), bytes.size(), error) && out.commit(error);
    }
    FormatChoice choice;
    if (!choose_format(path, choice, error)) return false;
    if (!out.open(path, error)) return false;
    SF_INFO info{};
    info.samplerate = kRate;
    info.channels = 1;
    info.format = choice.format;
    SNDFILE *sf = sf_open_fd(out.fd(), SFM_WRITE, &info, SF_FALSE);
    if (sf == nullptr) {
        error = std::string("cannot write: ") + sf_strerror(nullptr);
        return false;
    }
    const auto count = static_cast<sf_count_t>(pcm.size());
    const sf_count_t written = sf_write_short(sf, pcm.data(), count);
    if (written != count) error = std::string("cannot write: ") + sf_strerror(sf);
    if (sf_close(sf) != 0 && error.empty()) error = std::string("cannot write: ") + sf_strerror(nullptr);
    return error.empty() && out.commit(error);
}

}  // namespace evrc_tool
