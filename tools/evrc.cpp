// evrc: command-line front end of the EVRC codec.
//
//   evrc encode [options] IN OUT.qcp
//   evrc decode [--raw] [--omx] [--no-postfilter] [--strict] IN OUT
//   evrc info FILE
//
// Every failure is one line on stderr naming the file and the problem, and a
// non-zero exit status: 1 for bad files, 2 for bad usage.
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "audio_io.h"
#include "codec/common/packet_layout.h"
#include "evrc/evrc_dec.h"
#include "evrc/evrc_enc.h"
#include "evrc/qcp.hpp"
#include "omx_decode.h"
#include "output_file.h"

namespace {

constexpr int kExitBadFile = 1;
constexpr int kExitUsage = 2;
constexpr std::size_t kSlotBytes = 24;
constexpr double kFrameSeconds = 0.02;
constexpr double kProgressAfterSeconds = 5.0;  // shorter inputs show no progress line

const char kUsage[] =
    "usage: evrc encode [--max-rate R] [--min-rate R] [--limit N [--limit-mode M]] [--raw] IN OUT.qcp\n"
    "       evrc decode [--raw] [--omx] [--no-postfilter] [--strict] IN OUT\n"
    "       evrc info FILE\n"
    "       evrc --help\n"
    "\n"
    "encode: speech to EVRC packets in a QCP file.\n"
    "  IN                any audio file libsndfile reads (WAV, FLAC, AIFF, Ogg, ...),\n"
    "                    any rate and channel count: mixed to mono, resampled to 8 kHz;\n"
    "                    '-' reads headerless 16-bit little-endian 8 kHz mono PCM\n"
    "                    from standard input\n"
    "  --max-rate R      highest rate the encoder may use: full, half or eighth\n"
    "  --min-rate R      lowest rate the encoder may use (default eighth)\n"
    "  --limit N         limit full-rate frames (N = 0..65535), see --limit-mode\n"
    "  --limit-mode M    spacing: at most one full-rate frame in every N + 1 (default);\n"
    "                    run: at most N full-rate frames in a row\n"
    "  --raw             write 24-byte packet slots (as 'decode --raw' reads) instead\n"
    "\n"
    "decode: EVRC packets to 8 kHz mono speech.\n"
    "  IN                QCP file (RIFF 'QLCM') holding an EVRC stream\n"
    "  OUT               the extension picks the format (.wav, .flac, .ogg, .aiff, ...;\n"
    "                    none: WAV); '-' writes headerless 16-bit little-endian PCM\n"
    "                    to standard output (evrc decode in.qcp - | aplay -f S16_LE -r 8000)\n"
    "  --raw             IN is a sequence of 24-byte packet slots instead:\n"
    "                    byte 0 the rate code, bytes 1-22 the packet bytes,\n"
    "                    byte 23 unused\n"
    "  --omx             decode through the OpenMAX IL decoder component\n"
    "                    instead of calling the decoder directly\n"
    "  --no-postfilter   skip the decoder's post-processing (not with --omx)\n"
    "  --strict          refuse a file that is cut short instead of decoding the\n"
    "                    whole packets it holds\n"
    "\n"
    "info: codec, duration, packets per rate and damage of a QCP file, without decoding.\n"
    "\n"
    "Packets of unknown rate are concealed by the decoder. Bad files are\n"
    "reported as 'FILE: problem' with exit status 1; usage errors exit with 2.\n";

int usage_error(const std::string &message) {
    std::fprintf(stderr, "evrc: %s\n(run 'evrc --help' for usage)\n", message.c_str());
    return kExitUsage;
}

int file_error(const std::string &path, const std::string &problem) {
    std::fprintf(stderr, "%s: %s\n", path.c_str(), problem.c_str());
    return kExitBadFile;
}

bool read_file(const std::string &path, std::vector<std::uint8_t> &bytes, std::string &error) {
    std::FILE *fp = std::fopen(path.c_str(), "rb");
    if (fp == nullptr) {
        error = std::string("cannot open: ") + std::strerror(errno);
        return false;
    }
    std::uint8_t buf[65536];
    std::size_t got;
    while ((got = std::fread(buf, 1, sizeof buf, fp)) > 0) bytes.insert(bytes.end(), buf, buf + got);
    const bool failed = std::ferror(fp) != 0;
    const int read_errno = errno;
    std::fclose(fp);
    if (failed) error = std::string("cannot read: ") + std::strerror(read_errno);
    return !failed;
}

// Splits positional arguments from options. `handle(option, next, used)`
// checks an option, sets `used` when it takes the next argument as its value
// and returns non-zero (the exit status) to stop.
template <typename Handler>
int parse_args(int argc, char **argv, std::vector<std::string> &positional, Handler handle) {
    bool options_done = false;
    for (int i = 2; i < argc; ++i) {
        const std::string a = argv[i];
        if (!options_done && a == "--") {
            options_done = true;
        } else if (!options_done && a.size() > 1 && a[0] == '-') {
            const char *value = i + 1 < argc ? argv[i + 1] : nullptr;
            bool used_value = false;
            if (const int rc = handle(a, value, used_value)) return rc;
            if (used_value) ++i;
        } else {
            positional.push_back(a);
        }
    }
    return 0;
}

// ---- Packet counts ---------------------------------------------------

struct RateCounts {
    std::size_t full = 0, half = 0, quarter = 0, eighth = 0, blank = 0, unknown = 0;

    void add(int rate, bool known) {
        if (!known) {
            ++unknown;
            return;
        }
        switch (rate) {
        case EVRC_RATE_FULL: ++full; break;
        case EVRC_RATE_HALF: ++half; break;
        case 2: ++quarter; break;
        case EVRC_RATE_EIGHTH: ++eighth; break;
        case EVRC_RATE_BLANK: ++blank; break;
        default: ++unknown; break;
        }
    }
    std::size_t total() const { return full + half + quarter + eighth + blank + unknown; }
    // Coded bits: 171, 80 and 16 per full, half and eighth-rate packet.
    double bits() const {
        return 171.0 * static_cast<double>(full) + 80.0 * static_cast<double>(half) +
               40.0 * static_cast<double>(quarter) + 16.0 * static_cast<double>(eighth);
    }
    double seconds() const { return kFrameSeconds * static_cast<double>(total()); }
    double kbps() const { return total() == 0 ? 0.0 : bits() / seconds() / 1000.0; }
    std::string text(bool with_unknown = true) const {
        std::string s = "full " + std::to_string(full) + ", half " + std::to_string(half);
        if (quarter != 0) s += ", quarter " + std::to_string(quarter);
        s += ", eighth " + std::to_string(eighth);
        if (blank != 0) s += ", blank " + std::to_string(blank);
        if (with_unknown && unknown != 0) s += ", unknown rate " + std::to_string(unknown);
        return s;
    }
};

// ---- encode ----------------------------------------------------------

struct EncodeOptions {
    UWord32 max_rate = EVRC_RATE_FULL;
    UWord32 min_rate = EVRC_RATE_EIGHTH;
    bool limit = false;
    UWord32 limit_count = 0;
    bool limit_run = false;
    bool limit_mode_given = false;
    bool raw = false;
    std::string in, out;
};

bool parse_rate(const std::string &name, UWord32 &rate) {
    if (name == "full") {
        rate = EVRC_RATE_FULL;
    } else if (name == "half") {
        rate = EVRC_RATE_HALF;
    } else if (name == "eighth") {
        rate = EVRC_RATE_EIGHTH;
    } else {
        return false;
    }
    return true;
}

int parse_encode(int argc, char **argv, EncodeOptions &opt) {
    std::vector<std::string> positional;
    const int rc = parse_args(argc, argv, positional, [&](const std::string &a, const char *value, bool &used) {
        if (a == "--raw") {
            opt.raw = true;
            return 0;
        }
        if (a != "--max-rate" && a != "--min-rate" && a != "--limit" && a != "--limit-mode") {
            return usage_error("unknown option '" + a + "'");
        }
        if (value == nullptr) return usage_error(a + " needs a value");
        used = true;
        const std::string v = value;
        if (a == "--max-rate" || a == "--min-rate") {
            if (!parse_rate(v, a == "--max-rate" ? opt.max_rate : opt.min_rate)) {
                return usage_error(a + " takes full, half or eighth, not '" + v + "'");
            }
        } else if (a == "--limit") {
            char *end = nullptr;
            errno = 0;
            const unsigned long n = std::strtoul(v.c_str(), &end, 10);
            if (v.empty() || *end != '\0' || errno != 0 || n > 65535 || v[0] == '-') {
                return usage_error("--limit takes a count from 0 to 65535, not '" + v + "'");
            }
            opt.limit = true;
            opt.limit_count = static_cast<UWord32>(n);
        } else {
            if (v != "spacing" && v != "run") return usage_error("--limit-mode takes spacing or run, not '" + v + "'");
            opt.limit_run = v == "run";
            opt.limit_mode_given = true;
        }
        return 0;
    });
    if (rc != 0) return rc;
    if (positional.size() != 2) return usage_error("encode needs an input file and an output file");
    if (opt.limit_mode_given && !opt.limit) return usage_error("--limit-mode needs --limit");
    if (opt.min_rate > opt.max_rate) return usage_error("--min-rate is above --max-rate");
    opt.in = positional[0];
    opt.out = positional[1];
    return 0;
}

// Bytes of packet words 1.. (first bit in the top bit of word 1).
std::uint8_t packet_byte(const UWord16 *packet, std::size_t i) {
    const UWord16 word = packet[1 + i / 2];
    return static_cast<std::uint8_t>(i % 2 == 0 ? word >> 8 : word & 0xFF);
}

// A progress line on standard error, redrawn a few times a second, for long
// inputs when standard error is a terminal.
class Progress {
public:
    Progress(const std::string &name, std::size_t frames)
        : name_(name),
          frames_(frames),
          on_(isatty(STDERR_FILENO) != 0 && kFrameSeconds * static_cast<double>(frames) > kProgressAfterSeconds) {}
    void update(std::size_t done) {
        if (!on_) return;
        const auto now = std::chrono::steady_clock::now();
        if (now - last_ < kRedrawInterval) return;
        last_ = now;
        std::fprintf(stderr, "\r%s: encoding %.1f of %.1f s (%zu%%)", name_.c_str(),
                     kFrameSeconds * static_cast<double>(done), kFrameSeconds * static_cast<double>(frames_),
                     done * 100 / frames_);
        std::fflush(stderr);
    }
    void clear() {
        if (on_) std::fputs("\r\033[K", stderr);
    }

private:
    static constexpr std::chrono::milliseconds kRedrawInterval{250};
    std::string name_;
    std::size_t frames_;
    bool on_;
    std::chrono::steady_clock::time_point last_{};
};

int run_encode(const EncodeOptions &opt) {
    if (evrc_tool::same_file(opt.in, opt.out)) {
        return file_error(opt.out, "is the input file; refusing to overwrite it");
    }
    evrc_tool::InputAudio audio;
    std::string error;
    if (!evrc_tool::read_audio(opt.in, audio, error)) return file_error(opt.in, error);

    auto state = std::make_unique<EvrcEncoderState>();  // zero-filled
    evrc_init_enc(state.get());
    const UWord32 flag_a = opt.limit ? (1u | (opt.limit_run ? 2u : 0u) | (opt.limit_count << 2)) : 0u;
    evrc_set_enc_params(state.get(), opt.max_rate, opt.min_rate, flag_a, 0, 0, 0);

    const std::size_t frames = (audio.pcm.size() + EVRC_ENC_FRAME - 1) / EVRC_ENC_FRAME;
    audio.pcm.resize(frames * EVRC_ENC_FRAME, 0);  // the last frame is padded with silence
    std::vector<evrc::QcpPacket> packets;
    std::vector<std::uint8_t> raw;
    RateCounts counts;
    Progress progress(opt.in == "-" ? "encoding" : opt.in, frames);
    for (std::size_t f = 0; f < frames; ++f) {
        UWord16 packet[12] = {};
        evrc_encoder(state.get(), &audio.pcm[f * EVRC_ENC_FRAME], packet, 0, nullptr);
        const int rate = packet[0];
        const int size = evrc::evrc_payload_bytes(rate);
        counts.add(rate, size >= 0);
        if (opt.raw) {
            raw.push_back(static_cast<std::uint8_t>(rate));
            for (std::size_t i = 0; i < kSlotBytes - 2; ++i) raw.push_back(packet_byte(packet, i));
            raw.push_back(0);
        } else {
            evrc::QcpPacket p;
            p.rate = static_cast<std::uint8_t>(rate);
            for (int i = 0; i < size; ++i) p.data.push_back(packet_byte(packet, static_cast<std::size_t>(i)));
            packets.push_back(std::move(p));
        }
        progress.update(f + 1);
    }
    progress.clear();

    if (!opt.raw && !evrc::write_qcp(packets, raw, error)) return file_error(opt.out, error);
    evrc_tool::OutputFile out;
    if (!out.open(opt.out, error) || !out.write(raw.data(), raw.size(), error) || !out.commit(error)) {
        return file_error(opt.out, error);
    }
    std::fprintf(stderr, "%s: %.2f s, %zu packets (%s), %.2f kbit/s\n", opt.out.c_str(), counts.seconds(),
                 counts.total(), counts.text().c_str(), counts.kbps());
    return 0;
}

// ---- decode ----------------------------------------------------------

struct DecodeOptions {
    bool raw = false;
    bool omx = false;
    bool postfilter_off = false;
    bool strict = false;
    std::string in, out;
};

// The stream in both forms the decoders take.
struct Stream {
    std::vector<EvrcPacket> packets;               // word layout, for evrc_decode
    std::vector<std::vector<std::uint8_t>> bytes;  // byte stream, for the component
    std::string damage;                            // what a forgiving read skipped
};

// Byte-stream length of a packet, rate byte included, by the component's
// framing; 0 for codes it does not frame.
std::size_t byte_stream_length(unsigned rate) {
    const int payload = evrc::payload_bytes(static_cast<int>(rate));
    return payload < 0 ? 0 : 1 + static_cast<std::size_t>(payload);
}

bool load_raw(const std::string &path, bool strict, Stream &s, std::string &error) {
    std::vector<std::uint8_t> bytes;
    if (!read_file(path, bytes, error)) return false;
    if (bytes.size() % kSlotBytes != 0) {
        if (strict) {
            error = std::to_string(bytes.size()) + " bytes is not a whole number of 24-byte packet slots";
            return false;
        }
        s.damage = "truncated at byte " + std::to_string(bytes.size());
    }
    for (std::size_t at = 0; at + kSlotBytes <= bytes.size(); at += kSlotBytes) {
        const std::uint8_t *slot = &bytes[at];
        EvrcPacket p{};
        p.rate = slot[0];
        evrc::payload_to_words(slot + 1, kSlotBytes - 1, p.data);
        s.packets.push_back(p);
        const std::size_t n = byte_stream_length(slot[0]);
        if (n == 0) {
            s.bytes.push_back({0});  // blank: the component conceals it
        } else {
            s.bytes.emplace_back(slot, slot + n);
        }
    }
    return true;
}

bool load_qcp(const std::string &path, bool strict, Stream &s, std::string &error) {
    evrc::QcpReadResult r = evrc::read_qcp(path, strict ? evrc::QcpReadMode::kStrict : evrc::QcpReadMode::kForgiving);
    if (!r) {
        error = r.error;
        return false;
    }
    for (const evrc::QcpPacket &p : r.file.packets) {
        s.packets.push_back(evrc::to_evrc_packet(p));
        s.bytes.push_back(evrc::to_byte_stream(p));
    }
    s.damage = r.damage;
    return true;
}

std::vector<std::int16_t> decode_direct(std::vector<EvrcPacket> &packets, bool postfilter_off) {
    std::vector<std::int16_t> pcm(packets.size() * EVRC_FRAME_SIZE);
    auto state = std::make_unique<EvrcDecoderState>();  // zero-filled
    evrc_init_dec(state.get());
    for (std::size_t i = 0; i < packets.size(); ++i) {
        evrc_decode(state.get(), &packets[i], &pcm[i * EVRC_FRAME_SIZE], postfilter_off ? 1 : 0);
    }
    return pcm;
}

int run_decode(const DecodeOptions &opt) {
    if (evrc_tool::same_file(opt.in, opt.out)) {
        return file_error(opt.out, "is the input file; refusing to overwrite it");
    }
    std::string error;
    if (!evrc_tool::output_format_known(opt.out, error)) return file_error(opt.out, error);
    Stream stream;
    if (!(opt.raw ? load_raw(opt.in, opt.strict, stream, error) : load_qcp(opt.in, opt.strict, stream, error))) {
        return file_error(opt.in, error);
    }
    std::vector<std::int16_t> pcm;
    if (opt.omx && !stream.bytes.empty()) {
        if (!evrc_tool::decode_with_component(stream.bytes, pcm, error)) return file_error(opt.in, error);
    } else if (!opt.omx) {
        pcm = decode_direct(stream.packets, opt.postfilter_off);
    }
    if (!evrc_tool::write_audio(opt.out, pcm, error)) return file_error(opt.out, error);
    if (!stream.damage.empty()) {
        std::fprintf(stderr, "%s: %s: decoded %zu packets\n", opt.in.c_str(), stream.damage.c_str(),
                     stream.packets.size());
    }
    return 0;
}

int parse_decode(int argc, char **argv, DecodeOptions &opt) {
    std::vector<std::string> positional;
    const int rc = parse_args(argc, argv, positional, [&](const std::string &a, const char *, bool &) {
        if (a == "--raw") {
            opt.raw = true;
        } else if (a == "--omx") {
            opt.omx = true;
        } else if (a == "--no-postfilter") {
            opt.postfilter_off = true;
        } else if (a == "--strict") {
            opt.strict = true;
        } else {
            return usage_error("unknown option '" + a + "'");
        }
        return 0;
    });
    if (rc != 0) return rc;
    if (positional.size() != 2) return usage_error("decode needs an input file and an output file");
    if (opt.omx && opt.postfilter_off) return usage_error("--no-postfilter cannot be used with --omx");
    opt.in = positional[0];
    opt.out = positional[1];
    return 0;
}

// ---- info ------------------------------------------------------------

std::string guid_text(const evrc::QcpGuid &g) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "{%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x}", g[3], g[2],
                  g[1], g[0], g[5], g[4], g[7], g[6], g[8], g[9], g[10], g[11], g[12], g[13], g[14], g[15]);
    return buf;
}

int run_info(const std::string &path) {
    std::vector<std::uint8_t> bytes;
    std::string error;
    if (!read_file(path, bytes, error)) return file_error(path, error);
    const evrc::QcpReadResult r = evrc::read_qcp(bytes.data(), bytes.size(), evrc::QcpReadMode::kForgiving);
    if (!r) return file_error(path, r.error);
    const evrc::QcpFormat &f = r.file.format;
    RateCounts counts;
    for (const evrc::QcpPacket &p : r.file.packets) counts.add(p.rate, p.known_rate);

    std::vector<std::string> problems;
    if (!r.damage.empty()) {
        std::string p = r.damage;
        if (r.truncated_at != 0) {
            const std::uint64_t declared =
                8ull + (static_cast<std::uint64_t>(bytes[4]) | (static_cast<std::uint64_t>(bytes[5]) << 8) |
                        (static_cast<std::uint64_t>(bytes[6]) << 16) | (static_cast<std::uint64_t>(bytes[7]) << 24));
            p += " (the RIFF header declares " + std::to_string(declared) + " bytes)";
        }
        problems.push_back(p + "; " + std::to_string(r.file.packets.size()) + " whole packets");
    }
    if (!f.has_vrat) {
        problems.push_back("no 'vrat' chunk");
    } else if (r.damage.empty() && f.packet_count != r.file.packets.size()) {
        problems.push_back("'vrat' chunk declares " + std::to_string(f.packet_count) + " packets, the file holds " +
                           std::to_string(r.file.packets.size()));
    }
    if (counts.unknown != 0) problems.push_back(std::to_string(counts.unknown) + " packets of unknown rate");

    std::printf("file:      %s\n", path.c_str());
    std::printf("codec:     EVRC %s%s%s\n", guid_text(f.codec_guid).c_str(), f.codec_name.empty() ? "" : ", ",
                f.codec_name.c_str());
    std::printf("duration:  %.2f s (%zu packets of 20 ms)\n", counts.seconds(), counts.total());
    std::printf("packets:   %s; unknown rate %zu\n", counts.text(false).c_str(), counts.unknown);
    std::printf("bit rate:  %.2f kbit/s average\n", counts.kbps());
    if (problems.empty()) {
        std::printf("problems:  none\n");
    } else {
        for (std::size_t i = 0; i < problems.size(); ++i) {
            std::printf("%s%s\n", i == 0 ? "problems:  " : "           ", problems[i].c_str());
        }
    }
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        std::fputs(kUsage, stderr);
        return kExitUsage;
    }
    const std::string command = argv[1];
    if (command == "--help" || command == "-h" || command == "help") {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (command == "encode") {
        EncodeOptions opt;
        if (const int rc = parse_encode(argc, argv, opt)) return rc;
        return run_encode(opt);
    }
    if (command == "decode") {
        DecodeOptions opt;
        if (const int rc = parse_decode(argc, argv, opt)) return rc;
        return run_decode(opt);
    }
    if (command == "info") {
        std::vector<std::string> positional;
        const int rc = parse_args(argc, argv, positional, [](const std::string &a, const char *, bool &) {
            return usage_error("unknown option '" + a + "'");
        });
        if (rc != 0) return rc;
        if (positional.size() != 1) return usage_error("info needs one file");
        return run_info(positional[0]);
    }
    return usage_error("unknown command '" + command + "'");
}
