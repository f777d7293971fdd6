// QCP files: the RIFF 'QLCM' container that phones use for voice recordings.
//
// A QCP file is a RIFF file of form type 'QLCM' holding
//   'fmt '  codec identity (GUID, name), bit rate, packet and block sizes,
//           sampling rate and the rate map: for each rate octet, the number
//           of packet bytes that follow it;
//   'vrat'  variable-rate flag and packet count;
//   'data'  the packets, each its rate octet followed by its bytes;
// and possibly 'labl', 'offs', 'text', 'cnfg' or other chunks, which are
// skipped. Chunks are padded to an even length.
//
// Only EVRC streams are accepted. The reader never throws on bad input: it
// returns a result whose `error` names the problem (without the file name,
// which the caller adds).
#ifndef EVRC_QCP_HPP
#define EVRC_QCP_HPP

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "evrc/evrc_common.h"

namespace evrc {

using QcpGuid = std::array<std::uint8_t, 16>;

// Codec GUIDs as stored in the file (the first three groups little-endian).
extern EVRC_API const QcpGuid kQcpGuidEvrc;    // {e689d48d-9076-46b5-91ef-736a5100ceb4}
extern EVRC_API const QcpGuid kQcpGuid13k;     // {5e7f6d41-b115-11d0-ba91-00805fb4b97e}
extern EVRC_API const QcpGuid kQcpGuid13kAlt;  // {5e7f6d42-b115-11d0-ba91-00805fb4b97e}
extern EVRC_API const QcpGuid kQcpGuidSmv;     // {8d7c2b75-a797-ed49-985e-d53c8cc75f84}

// Rate word handed to the decoder for a packet whose rate octet the file's
// rate map does not know: not a rate code, so the decoder conceals it.
constexpr Word16 kQcpErasureRate = 0xFF;

// Longest EVRC payload (rate 1: 171 bits in 22 bytes).
constexpr std::size_t kEvrcMaxPayload = 22;

// Payload bytes that follow the rate octet for each EVRC rate code, or -1
// for a code EVRC does not define (rate 1/4 included).
EVRC_API int evrc_payload_bytes(int rate);

struct QcpRateMapEntry {
    std::uint8_t size;   // payload bytes after the rate octet
    std::uint8_t octet;  // the rate octet
};

struct QcpFormat {
    std::uint8_t major_version = 1;
    std::uint8_t minor_version = 0;
    QcpGuid codec_guid{};
    std::uint16_t codec_version = 1;
    std::string codec_name;
    std::uint16_t average_bps = 0;
    std::uint16_t packet_size = 0;  // largest packet, rate octet included
    std::uint16_t block_size = 0;   // samples per packet
    std::uint16_t sampling_rate = 0;
    std::uint16_t sample_size = 0;  // bits per sample
    std::vector<QcpRateMapEntry> rate_map;
    bool has_vrat = false;
    std::uint32_t variable_rate = 0;  // non-zero: variable rate
    std::uint32_t packet_count = 0;   // as the 'vrat' chunk declares it
};

struct QcpPacket {
    std::uint8_t rate = 0;           // rate octet as stored
    bool known_rate = true;          // false: octet missing from the rate map
    std::vector<std::uint8_t> data;  // the bytes after the rate octet
};

struct QcpFile {
    QcpFormat format;
    std::vector<QcpPacket> packets;
};

struct QcpReadResult {
    bool ok = false;
    std::string error;  // set when !ok
    QcpFile file;
    // Forgiving reads of a damaged file: what is wrong with it (for example
    // "truncated at byte 1234"), empty when the file is whole.
    std::string damage;
    std::uint64_t truncated_at = 0;  // file size when it stops short of its header's length
    explicit operator bool() const { return ok; }
};

// Strict reading refuses a file that stops short of the length its headers
// declare. Forgiving reading takes every whole packet such a file holds (a
// recording whose copy stopped early) and describes the loss in `damage`;
// it still refuses files that are not EVRC QCP, and files cut before the
// 'fmt ' chunk is complete.
enum class QcpReadMode { kStrict, kForgiving };

// Parses a QCP image held in memory.
EVRC_API QcpReadResult read_qcp(const std::uint8_t *bytes, std::size_t size, QcpReadMode mode = QcpReadMode::kStrict);
// Reads and parses a QCP file; I/O failures are reported like format errors.
EVRC_API QcpReadResult read_qcp(const std::string &path, QcpReadMode mode = QcpReadMode::kStrict);

// Builds an EVRC QCP image from packets whose rate octets are 0, 1, 3 or 4
// and whose data have the size the rate needs. Returns false with `error`
// set (and `out` untouched) otherwise.
EVRC_API bool write_qcp(const std::vector<QcpPacket> &packets, std::vector<std::uint8_t> &out, std::string &error);
EVRC_API bool write_qcp(const std::string &path, const std::vector<QcpPacket> &packets, std::string &error);

// The packet as the decoder takes it: rate word, then the data two bytes a
// word, the earlier byte in the high half; unused words are zero. A packet
// of unknown rate becomes an erasure (kQcpErasureRate).
EVRC_API EvrcPacket to_evrc_packet(const QcpPacket &packet);

// The packet as a byte stream (rate byte, then payload) for consumers that
// frame packets by EVRC's own rate codes. Packets of unknown or undecodable
// rate become a blank packet, which the decoder conceals.
EVRC_API std::vector<std::uint8_t> to_byte_stream(const QcpPacket &packet);

}  // namespace evrc

#endif  // EVRC_QCP_HPP
