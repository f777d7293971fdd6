// QCP (RIFF 'QLCM') reader and writer for EVRC streams.
#include "evrc/qcp.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>

#include "codec/common/packet_layout.h"

namespace evrc {

const QcpGuid kQcpGuidEvrc = {0x8d, 0xd4, 0x89, 0xe6, 0x76, 0x90, 0xb5, 0x46,
                              0x91, 0xef, 0x73, 0x6a, 0x51, 0x00, 0xce, 0xb4};
const QcpGuid kQcpGuid13k = {0x41, 0x6d, 0x7f, 0x5e, 0x15, 0xb1, 0xd0, 0x11,
                             0xba, 0x91, 0x00, 0x80, 0x5f, 0xb4, 0xb9, 0x7e};
const QcpGuid kQcpGuid13kAlt = {0x42, 0x6d, 0x7f, 0x5e, 0x15, 0xb1, 0xd0, 0x11,
                                0xba, 0x91, 0x00, 0x80, 0x5f, 0xb4, 0xb9, 0x7e};
const QcpGuid kQcpGuidSmv = {0x75, 0x2b, 0x7c, 0x8d, 0x97, 0xa7, 0x49, 0xed,
                             0x98, 0x5e, 0xd5, 0x3c, 0x8c, 0xc7, 0x5f, 0x84};

namespace {

// Layout of the 'fmt ' chunk body.
constexpr std::size_t kFmtGuidAt = 2;
constexpr std::size_t kFmtVersionAt = 18;
constexpr std::size_t kFmtNameAt = 20;
constexpr std::size_t kFmtNameLen = 80;
constexpr std::size_t kFmtBpsAt = 100;
constexpr std::size_t kFmtNumRatesAt = 110;
constexpr std::size_t kFmtRateMapAt = 114;
constexpr std::size_t kFmtRateMapSlots = 8;
constexpr std::size_t kFmtMinSize = kFmtRateMapAt + 2 * kFmtRateMapSlots;  // 130
constexpr std::size_t kFmtSize = kFmtMinSize + 20;                         // 150, with the reserved words

constexpr std::size_t kMaxPayloadKept = kEvrcMaxPayload;

const char *const kEvrcCodecName = "TIA IS-127 Enhanced Variable Rate Codec, Speech Service Option 3";

std::uint16_t le16(const std::uint8_t *p) { return static_cast<std::uint16_t>(p[0] | (p[1] << 8)); }

std::uint32_t le32(const std::uint8_t *p) {
    return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
           (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

void put16(std::vector<std::uint8_t> &out, std::uint32_t v) {
    out.push_back(static_cast<std::uint8_t>(v & 0xFF));
    out.push_back(static_cast<std::uint8_t>((v >> 8) & 0xFF));
}

void put32(std::vector<std::uint8_t> &out, std::uint32_t v) {
    put16(out, v & 0xFFFF);
    put16(out, v >> 16);
}

void put_id(std::vector<std::uint8_t> &out, const char *id) { out.insert(out.end(), id, id + 4); }

std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

std::string format(const char *fmt, ...) {
    char buf[256];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    return buf;
}

// A four-character code for messages; bytes outside printable ASCII are
// shown as hex escapes.
std::string fourcc(const std::uint8_t *p) {
    std::string s = "'";
    for (int i = 0; i < 4; ++i) {
        if (p[i] >= 0x20 && p[i] < 0x7F && p[i] != '\'') {
            s += static_cast<char>(p[i]);
        } else {
            s += format("\\x%02x", p[i]);
        }
    }
    return s + "'";
}

std::string guid_text(const QcpGuid &g) {
    return format("{%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x}", g[3], g[2], g[1], g[0],
                  g[5], g[4], g[7], g[6], g[8], g[9], g[10], g[11], g[12], g[13], g[14], g[15]);
}

bool is_id(const std::uint8_t *p, const char *id) { return std::memcmp(p, id, 4) == 0; }

// Null-terminated text of a fixed-size field, printable characters only.
std::string fixed_text(const std::uint8_t *p, std::size_t n) {
    std::string s;
    for (std::size_t i = 0; i < n && p[i] != 0; ++i) {
        s += (p[i] >= 0x20 && p[i] < 0x7F) ? static_cast<char>(p[i]) : '?';
    }
    return s;
}

QcpReadResult fail(std::string message) {
    QcpReadResult r;
    r.error = std::move(message);
    return r;
}

// Checks the codec identity; empty when the stream is EVRC.
std::string check_codec(const QcpFormat &f) {
    if (f.codec_guid == kQcpGuidEvrc) return {};
    if (f.codec_guid == kQcpGuid13k || f.codec_guid == kQcpGuid13kAlt) return "not EVRC: the codec is QCELP-13K";
    if (f.codec_guid == kQcpGuidSmv) return "not EVRC: the codec is SMV";
    std::string msg = "not EVRC: unknown codec GUID " + guid_text(f.codec_guid);
    if (!f.codec_name.empty()) msg += " ('" + f.codec_name + "')";
    return msg;
}

// Parses the 'fmt ' body; empty string on success.
std::string parse_fmt(const std::uint8_t *p, std::size_t n, QcpFormat &f) {
    if (n < kFmtMinSize) return format("'fmt ' chunk too short: %zu bytes, at least %zu needed", n, kFmtMinSize);
    f.major_version = p[0];
    f.minor_version = p[1];
    std::copy(p + kFmtGuidAt, p + kFmtGuidAt + 16, f.codec_guid.begin());
    f.codec_version = le16(p + kFmtVersionAt);
    f.codec_name = fixed_text(p + kFmtNameAt, kFmtNameLen);
    f.average_bps = le16(p + kFmtBpsAt);
    f.packet_size = le16(p + kFmtBpsAt + 2);
    f.block_size = le16(p + kFmtBpsAt + 4);
    f.sampling_rate = le16(p + kFmtBpsAt + 6);
    f.sample_size = le16(p + kFmtBpsAt + 8);
    const std::uint32_t num_rates = le32(p + kFmtNumRatesAt);
    if (num_rates > kFmtRateMapSlots) {
        return format("rate map lists %u rates, at most %zu fit", static_cast<unsigned>(num_rates), kFmtRateMapSlots);
    }
    f.rate_map.clear();
    for (std::uint32_t i = 0; i < num_rates; ++i) {
        f.rate_map.push_back({p[kFmtRateMapAt + 2 * i], p[kFmtRateMapAt + 2 * i + 1]});
    }
    return {};
}

// Checks the rate map against EVRC's packet sizes; empty string if it fits.
std::string check_rate_map(const std::vector<QcpRateMapEntry> &map) {
    for (std::size_t i = 0; i < map.size(); ++i) {
        const QcpRateMapEntry &e = map[i];
        const int expected = evrc_payload_bytes(e.octet);
        if (expected >= 0 && e.size != expected) {
            return format("rate map gives %u bytes for rate %u; EVRC packets of that rate have %d", e.size, e.octet,
                          expected);
        }
        if (e.size > kEvrcMaxPayload) {
            return format("rate map gives %u bytes for rate %u, more than an EVRC packet holds (%zu)", e.size, e.octet,
                          kEvrcMaxPayload);
        }
        for (std::size_t j = 0; j < i; ++j) {
            if (map[j].octet == e.octet && map[j].size != e.size) {
                return format("rate map gives two sizes for rate %u", e.octet);
            }
        }
    }
    return {};
}

// Payload size by rate octet, -1 for octets the file does not define.
std::array<int, 256> payload_sizes(const std::vector<QcpRateMapEntry> &map) {
    std::array<int, 256> sizes;
    sizes.fill(-1);
    if (map.empty()) {
        for (int r = 0; r < 256; ++r) sizes[static_cast<std::size_t>(r)] = evrc_payload_bytes(r);
    } else {
        for (const QcpRateMapEntry &e : map) sizes[e.octet] = e.size;
    }
    return sizes;
}

// Splits the 'data' chunk into packets; `base` is its file offset. A chunk
// that ends inside a packet is an error, or, when `forgiving`, the end of
// the stream, described in `damage` unless something was found before.
std::string parse_data(const std::uint8_t *p, std::size_t n, std::uint64_t base, const QcpFormat &f,
                       std::vector<QcpPacket> &packets, bool forgiving, std::string &damage) {
    const std::array<int, 256> sizes = payload_sizes(f.rate_map);
    std::size_t pos = 0;
    while (pos < n) {
        QcpPacket pkt;
        pkt.rate = p[pos];
        const int size = sizes[pkt.rate];
        std::size_t take;
        if (size >= 0) {
            take = static_cast<std::size_t>(size);
            if (n - pos - 1 < take) {
                std::string problem = format(
                    "'data' chunk ends inside a packet at byte offset %llu: rate %u needs %zu bytes, "
                    "%zu present",
                    static_cast<unsigned long long>(base + pos), pkt.rate, take + 1, n - pos);
                if (!forgiving) return problem;
                if (damage.empty()) damage = std::move(problem);
                return {};
            }
        } else {
            // Unknown rate octet: the packet is lost but the file goes on; it
            // is taken to fill the file's largest packet size.
            pkt.known_rate = false;
            const std::size_t slot = std::max<std::size_t>(f.packet_size, 1);
            take = std::min(slot - 1, n - pos - 1);
        }
        const std::uint8_t *d = p + pos + 1;
        pkt.data.assign(d, d + std::min(take, kMaxPayloadKept));
        packets.push_back(std::move(pkt));
        pos += 1 + take;
    }
    return {};
}

}  // namespace

int evrc_payload_bytes(int rate) {
    // A quarter-rate frame has a size but no EVRC frame to carry.
    return rate == EVRC_RATE_QUARTER ? -1 : payload_bytes(rate);
}

QcpReadResult read_qcp(const std::uint8_t *bytes, std::size_t size, QcpReadMode mode) {
    const bool forgiving = mode == QcpReadMode::kForgiving;
    static const std::uint8_t riff[4] = {'R', 'I', 'F', 'F'};
    if (size == 0) return fail("empty file");
    if (size < 4 && std::memcmp(bytes, riff, size) == 0) return fail("truncated RIFF header");
    if (size < 4 || !is_id(bytes, "RIFF")) return fail("not a RIFF file");
    if (size < 12) return fail(format("truncated RIFF header: %zu bytes", size));
    if (!is_id(bytes + 8, "QLCM"))
        return fail("not a QCP file: RIFF form type is " + fourcc(bytes + 8) + ", not 'QLCM'");
    const std::uint64_t declared = static_cast<std::uint64_t>(le32(bytes + 4)) + 8;
    // A file cut short is read up to where it stops when forgiving.
    const bool cut = declared > size;
    if (cut && !forgiving) {
        return fail(format("truncated file: the RIFF header declares %llu bytes, %zu present",
                           static_cast<unsigned long long>(declared), size));
    }
    const std::size_t end = cut ? size : static_cast<std::size_t>(declared);

    QcpReadResult result;
    std::string damage;  // the first sign of damage met in a forgiving read
    if (cut) {
        damage = format("truncated at byte %zu", size);
        result.truncated_at = size;
    }
    QcpFormat &f = result.file.format;
    bool have_fmt = false;
    const std::uint8_t *data = nullptr;
    std::size_t data_size = 0;
    std::size_t data_at = 0;
    std::size_t pos = 12;
    while (pos < end) {
        if (end - pos < 8) {
            std::string problem = format("truncated chunk header at byte offset %zu", pos);
            if (!forgiving) return fail(problem);
            if (damage.empty()) damage = std::move(problem);
            break;
        }
        const std::uint8_t *id = bytes + pos;
        const std::uint64_t csize = le32(bytes + pos + 4);
        const std::size_t body = pos + 8;
        std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(csize, end - body));
        const bool chunk_cut = csize > end - body;
        if (chunk_cut) {
            std::string problem = format("truncated %s chunk at byte offset %zu: declares %llu bytes, %zu present",
                                         fourcc(id).c_str(), pos, static_cast<unsigned long long>(csize), end - body);
            if (!forgiving || (is_id(id, "fmt ") && !have_fmt && n < kFmtMinSize)) return fail(problem);
            if (damage.empty()) damage = std::move(problem);
        }
        if (is_id(id, "fmt ") && !have_fmt) {
            std::string err = parse_fmt(bytes + body, n, f);
            if (!err.empty()) return fail(err);
            err = check_codec(f);
            if (!err.empty()) return fail(err);
            have_fmt = true;
        } else if (is_id(id, "vrat") && !f.has_vrat) {
            if (n < 8 && !chunk_cut) return fail(format("'vrat' chunk too short: %zu bytes, 8 needed", n));
            if (n >= 8) {
                f.has_vrat = true;
                f.variable_rate = le32(bytes + body);
                f.packet_count = le32(bytes + body + 4);
            }
        } else if (is_id(id, "data") && data == nullptr) {
            data = bytes + body;
            data_size = n;
            data_at = body;
        }
        // A missing pad byte after the last chunk is tolerated.
        pos = body + n + (n & 1);
    }
    if (!have_fmt)
        return fail(cut ? format("truncated at byte %zu, before the 'fmt ' chunk", size) : "no 'fmt ' chunk");
    // A damaged file that stops before its 'data' chunk holds no packets.
    if (data == nullptr && damage.empty()) return fail("no 'data' chunk");
    std::string err = check_rate_map(f.rate_map);
    if (!err.empty()) return fail(err);
    if (data != nullptr) {
        err = parse_data(data, data_size, data_at, f, result.file.packets, forgiving, damage);
        if (!err.empty()) return fail(err);
    }
    result.damage = std::move(damage);
    result.ok = true;
    return result;
}

QcpReadResult read_qcp(const std::string &path, QcpReadMode mode) {
    struct Closer {
        void operator()(std::FILE *fp) const { std::fclose(fp); }
    };
    std::unique_ptr<std::FILE, Closer> fp(std::fopen(path.c_str(), "rb"));
    if (!fp) return fail(std::string("cannot open: ") + std::strerror(errno));
    std::vector<std::uint8_t> bytes;
    std::uint8_t buf[65536];
    for (;;) {
        const std::size_t got = std::fread(buf, 1, sizeof buf, fp.get());
        bytes.insert(bytes.end(), buf, buf + got);
        if (got < sizeof buf) break;
    }
    if (std::ferror(fp.get())) return fail(std::string("cannot read: ") + std::strerror(errno));
    return read_qcp(bytes.data(), bytes.size(), mode);
}

bool write_qcp(const std::vector<QcpPacket> &packets, std::vector<std::uint8_t> &out, std::string &error) {
    std::uint64_t data_size = 0;
    for (std::size_t i = 0; i < packets.size(); ++i) {
        const QcpPacket &p = packets[i];
        const int size = evrc_payload_bytes(p.rate);
        if (size < 0) {
            error = format("packet %zu: rate %u is not an EVRC rate that can be stored", i, p.rate);
            return false;
        }
        if (p.data.size() != static_cast<std::size_t>(size)) {
            error = format("packet %zu: rate %u needs %d bytes, got %zu", i, p.rate, size, p.data.size());
            return false;
        }
        data_size += 1 + p.data.size();
    }
    const std::uint64_t total = 12 + 8 + kFmtSize + 8 + 8 + 8 + data_size + (data_size & 1);
    if (total - 8 > 0xFFFFFFFFu || packets.size() > 0xFFFFFFFFu) {
        error = "too many packets for one QCP file";
        return false;
    }

    std::vector<std::uint8_t> b;
    b.reserve(static_cast<std::size_t>(total));
    put_id(b, "RIFF");
    put32(b, static_cast<std::uint32_t>(total - 8));
    put_id(b, "QLCM");

    put_id(b, "fmt ");
    put32(b, kFmtSize);
    b.push_back(1);  // major version
    b.push_back(0);  // minor version
    b.insert(b.end(), kQcpGuidEvrc.begin(), kQcpGuidEvrc.end());
    put16(b, 1);  // codec version
    const std::size_t name_len = std::strlen(kEvrcCodecName);
    b.insert(b.end(), kEvrcCodecName, kEvrcCodecName + name_len);
    b.insert(b.end(), kFmtNameLen - name_len, 0);
    put16(b, 8500);                 // average bits per second
    put16(b, 1 + kEvrcMaxPayload);  // largest packet, rate octet included
    put16(b, EVRC_FRAME_SIZE);      // samples per packet
    put16(b, 8000);                 // sampling rate
    put16(b, 16);                   // bits per sample
    static const int kRates[] = {EVRC_RATE_FULL, EVRC_RATE_HALF, EVRC_RATE_EIGHTH, EVRC_RATE_BLANK};
    put32(b, 4);
    for (int r : kRates) {
        b.push_back(static_cast<std::uint8_t>(evrc_payload_bytes(r)));
        b.push_back(static_cast<std::uint8_t>(r));
    }
    b.insert(b.end(), 2 * (kFmtRateMapSlots - 4) + 20, 0);  // unused map slots, reserved words

    put_id(b, "vrat");
    put32(b, 8);
    put32(b, 1);  // variable rate
    put32(b, static_cast<std::uint32_t>(packets.size()));

    put_id(b, "data");
    put32(b, static_cast<std::uint32_t>(data_size));
    for (const QcpPacket &p : packets) {
        b.push_back(p.rate);
        b.insert(b.end(), p.data.begin(), p.data.end());
    }
    if (data_size & 1) b.push_back(0);
    out = std::move(b);
    return true;
}

bool write_qcp(const std::string &path, const std::vector<QcpPacket> &packets, std::string &error) {
    std::vector<std::uint8_t> bytes;
    if (!write_qcp(packets, bytes, error)) return false;
    std::FILE *fp = std::fopen(path.c_str(), "wb");
    if (fp == nullptr) {
        error = std::string("cannot create: ") + std::strerror(errno);
        return false;
    }
    const bool wrote = std::fwrite(bytes.data(), 1, bytes.size(), fp) == bytes.size();
    const int write_errno = errno;
    const bool closed = std::fclose(fp) == 0;
    if (!wrote || !closed) {
        error = std::string("cannot write: ") + std::strerror(wrote ? errno : write_errno);
        return false;
    }
    return true;
}

EvrcPacket to_evrc_packet(const QcpPacket &packet) {
    EvrcPacket p{};
    const bool evrc_rate = packet.known_rate && packet.rate <= EVRC_RATE_FULL;
    p.rate = evrc_rate ? static_cast<Word16>(packet.rate) : kQcpErasureRate;
    payload_to_words(packet.data.data(), packet.data.size(), p.data);
    return p;
}

std::vector<std::uint8_t> to_byte_stream(const QcpPacket &packet) {
    const int size = evrc_payload_bytes(packet.rate);
    if (!packet.known_rate || size < 0 || packet.data.size() != static_cast<std::size_t>(size)) return {0};
    std::vector<std::uint8_t> out{packet.rate};
    out.insert(out.end(), packet.data.begin(), packet.data.end());
    return out;
}

}  // namespace evrc
