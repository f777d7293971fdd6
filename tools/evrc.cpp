// evrc: command-line front end of the EVRC decoder.
//
//   evrc decode [--raw] [--omx] [--no-postfilter] IN OUT.wav
//
// Every failure is one line on stderr naming the file and the problem, and a
// non-zero exit status: 1 for bad files, 2 for bad usage.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "codec/common/packet_layout.h"
#include "evrc/evrc_dec.h"
#include "evrc/qcp.hpp"
#include "omx_decode.h"
#include "wav_writer.h"

namespace {

constexpr int kExitBadFile = 1;
constexpr int kExitUsage = 2;
constexpr std::size_t kSlotBytes = 24;
constexpr int kSampleRate = 8000;

const char kUsage[] =
    "usage: evrc decode [--raw] [--omx] [--no-postfilter] IN OUT.wav\n"
    "       evrc --help\n"
    "\n"
    "Decodes EVRC speech to a 16-bit PCM mono WAV file at 8000 Hz.\n"
    "\n"
    "  IN                QCP file (RIFF 'QLCM') holding an EVRC stream\n"
    "  --raw             IN is a sequence of 24-byte packet slots instead:\n"
    "                    byte 0 the rate code, bytes 1-22 the packet bytes,\n"
    "                    byte 23 unused\n"
    "  --omx             decode through the OpenMAX IL decoder component\n"
    "                    instead of calling the decoder directly\n"
    "  --no-postfilter   skip the decoder's post-processing (not with --omx)\n"
    "\n"
    "Packets of unknown rate are concealed by the decoder. Bad files are\n"
    "reported as 'FILE: problem' with exit status 1; usage errors exit with 2.\n";

struct Options {
    bool raw = false;
    bool omx = false;
    bool postfilter_off = false;
    std::string in;
    std::string out;
};

// The stream in both forms the decoders take.
struct Stream {
    std::vector<EvrcPacket> packets;                  // word layout, for evrc_decode
    std::vector<std::vector<std::uint8_t>> bytes;     // byte stream, for the component
};

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

// Byte-stream length of a packet, rate byte included, by the component's
// framing; 0 for codes it does not frame.
std::size_t byte_stream_length(unsigned rate) {
    const int payload = evrc::payload_bytes(static_cast<int>(rate));
    return payload < 0 ? 0 : 1 + static_cast<std::size_t>(payload);
}

bool load_raw(const std::string &path, Stream &s, std::string &error) {
    std::vector<std::uint8_t> bytes;
    if (!read_file(path, bytes, error)) return false;
    if (bytes.size() % kSlotBytes != 0) {
        error = std::to_string(bytes.size()) + " bytes is not a whole number of 24-byte packet slots";
        return false;
    }
    for (std::size_t at = 0; at < bytes.size(); at += kSlotBytes) {
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

bool load_qcp(const std::string &path, Stream &s, std::string &error) {
    evrc::QcpReadResult r = evrc::read_qcp(path);
    if (!r) {
        error = r.error;
        return false;
    }
    for (const evrc::QcpPacket &p : r.file.packets) {
        s.packets.push_back(evrc::to_evrc_packet(p));
        s.bytes.push_back(evrc::to_byte_stream(p));
    }
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

bool same_file(const std::string &a, const std::string &b) {
    struct stat sa, sb;
    if (stat(a.c_str(), &sa) != 0 || stat(b.c_str(), &sb) != 0) return false;
    return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

int run_decode(const Options &opt) {
    if (same_file(opt.in, opt.out)) return file_error(opt.out, "is the input file; refusing to overwrite it");
    Stream stream;
    std::string error;
    if (!(opt.raw ? load_raw(opt.in, stream, error) : load_qcp(opt.in, stream, error))) {
        return file_error(opt.in, error);
    }
    std::vector<std::int16_t> pcm;
    if (opt.omx) {
        if (!evrc_tool::decode_with_component(stream.bytes, pcm, error)) return file_error(opt.in, error);
    } else {
        pcm = decode_direct(stream.packets, opt.postfilter_off);
    }
    if (!evrc_tool::write_wav(opt.out, pcm, kSampleRate, error)) return file_error(opt.out, error);
    return 0;
}

int parse_decode(int argc, char **argv, Options &opt) {
    std::vector<std::string> positional;
    bool options_done = false;
    for (int i = 2; i < argc; ++i) {
        const std::string a = argv[i];
        if (!options_done && a == "--") {
            options_done = true;
        } else if (!options_done && a == "--raw") {
            opt.raw = true;
        } else if (!options_done && a == "--omx") {
            opt.omx = true;
        } else if (!options_done && a == "--no-postfilter") {
            opt.postfilter_off = true;
        } else if (!options_done && a.size() > 1 && a[0] == '-') {
            return usage_error("unknown option '" + a + "'");
        } else {
            positional.push_back(a);
        }
    }
    if (positional.size() != 2) return usage_error("decode needs an input file and an output file");
    if (opt.omx && opt.postfilter_off) return usage_error("--no-postfilter cannot be used with --omx");
    opt.in = positional[0];
    opt.out = positional[1];
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
    if (command != "decode") return usage_error("unknown command '" + command + "'");
    Options opt;
    if (const int rc = parse_decode(argc, argv, opt)) return rc;
    return run_decode(opt);
}
