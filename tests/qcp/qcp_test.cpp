#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "evrc/qcp.hpp"
#include "tests/support/temp_dir.h"
#include "tools/random_packets.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Packets = std::vector<evrc::QcpPacket>;

// Offsets in a file the writer made: the 'data' chunk header, then its body.
constexpr std::size_t kDataChunk = 186, kData = 194;

std::uint32_t le32(const Bytes &b, std::size_t at) {
    return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (static_cast<std::uint32_t>(b[at + 3]) << 24);
}

// The bodies of the three chunks the writer makes, to be rearranged into other files.
struct Chunks {
    explicit Chunks(const Bytes &f)
        : fmt(f.data() + 20, f.data() + 170),
          vrat(f.data() + 178, f.data() + kDataChunk),
          data(f.data() + kData, f.data() + kData + le32(f, kDataChunk + 4)) {}
    Bytes fmt, vrat, data;
};

evrc::QcpPacket qcp_packet(const Bytes &stream) {
    return {stream.at(0), true, Bytes(stream.begin() + 1, stream.end())};
}

// Random valid packets of the given rates, in turn.
Packets random_packets(std::mt19937 &rng, std::size_t n, const std::vector<int> &rates) {
    Packets out;
    for (std::size_t i = 0; i < n; ++i) {
        const int rate = rates[i % rates.size()];
        out.push_back(qcp_packet(rate == EVRC_RATE_BLANK ? Bytes{0} : evrc_random::random_packet_bytes(rng, rate)));
    }
    return out;
}

Bytes write(const Packets &packets) {
    Bytes out;
    std::string error;
    EXPECT_TRUE(evrc::write_qcp(packets, out, error)) << error;
    return out;
}

evrc::QcpReadResult read(const Bytes &b) { return evrc::read_qcp(b.data(), b.size()); }

void set32(Bytes &b, std::size_t at, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) b.at(at + i) = static_cast<std::uint8_t>(v >> (8 * i));
}

Bytes assemble(const std::vector<std::pair<std::string, Bytes>> &chunks) {
    Bytes b = {'R', 'I', 'F', 'F', 0, 0, 0, 0, 'Q', 'L', 'C', 'M'};
    for (const auto &[id, body] : chunks) {
        b.insert(b.end(), id.begin(), id.end());
        b.resize(b.size() + 4);
        set32(b, b.size() - 4, static_cast<std::uint32_t>(body.size()));
        b.insert(b.end(), body.begin(), body.end());
        if (body.size() & 1) b.push_back(0);
    }
    set32(b, 4, static_cast<std::uint32_t>(b.size() - 8));
    return b;
}

void expect_same_packets(const Packets &want, const evrc::QcpReadResult &r) {
    ASSERT_TRUE(r.ok) << r.error;
    ASSERT_EQ(want.size(), r.file.packets.size());
    for (std::size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(want[i].rate, r.file.packets[i].rate) << "packet " << i;
        EXPECT_EQ(want[i].data, r.file.packets[i].data) << "packet " << i;
        EXPECT_TRUE(r.file.packets[i].known_rate) << "packet " << i;
    }
}

void expect_error(const Bytes &file, const std::string &fragment) {
    const evrc::QcpReadResult r = read(file);
    EXPECT_FALSE(r.ok);
    EXPECT_NE(r.error.find(fragment), std::string::npos) << "error was: " << r.error;
}

// Streams of every rate and length read back unchanged, with the header
// the writer must give them; the writer refuses packets it cannot store and
// leaves its output alone.
TEST(QcpFiles, RoundTripAndWriterRefusals) {
    std::mt19937 rng(1234);
    for (const auto &mix : std::vector<std::vector<int>>{{4}, {3}, {1}, {0}, {4, 1, 3, 0, 4}}) {
        for (std::size_t n : {0u, 1u, 7u, 50u}) {
            const Packets packets = random_packets(rng, n, mix);
            const Bytes file = write(packets);
            ASSERT_EQ(file.size() % 2, 0u) << "RIFF chunks are padded to even length";
            EXPECT_EQ(le32(file, 4), file.size() - 8);
            const evrc::QcpReadResult r = read(file);
            expect_same_packets(packets, r);
            const evrc::QcpFormat &f = r.file.format;
            EXPECT_TRUE(f.codec_guid == evrc::kQcpGuidEvrc && f.sampling_rate == 8000 && f.block_size == 160 &&
                        f.packet_size == 23 && f.has_vrat && f.variable_rate != 0 && f.packet_count == n);
        }
    }
    Bytes out = {1, 2, 3};
    std::string error;
    EXPECT_FALSE(evrc::write_qcp({{EVRC_RATE_QUARTER, true, Bytes(5)}}, out, error));
    EXPECT_NE(error.find("rate 2"), std::string::npos) << error;
    EXPECT_FALSE(evrc::write_qcp({{EVRC_RATE_FULL, true, Bytes(21)}}, out, error));
    EXPECT_NE(error.find("needs 22 bytes"), std::string::npos) << error;
    EXPECT_EQ(out, (Bytes{1, 2, 3}));
    EXPECT_FALSE(evrc::write_qcp(evrc_test::own_temp_dir("evrc_qcp") + "/no/such/dir/x.qcp", {}, error));
    EXPECT_NE(error.find("cannot create"), std::string::npos) << error;
}

TEST(QcpReader, SkipsOtherChunksWhereverTheyStandAndToleratesAMissingLastPad) {
    std::mt19937 rng(7);
    const Packets packets = random_packets(rng, 5, {EVRC_RATE_FULL, EVRC_RATE_EIGHTH});
    Chunks c(write(packets));
    const std::pair<std::string, Bytes> odd{"\x01\x02zz", Bytes(1, 0x55)};
    expect_same_packets(packets, read(assemble({{"text", {'h', 'i', '!'}},
                                                {"fmt ", c.fmt},
                                                odd,
                                                {"vrat", c.vrat},
                                                {"data", c.data},
                                                {"offs", Bytes(13, 0xFF)}})));
    // The 'vrat' chunk is optional, and the data may come before the format.
    const evrc::QcpReadResult r = read(assemble({{"data", c.data}, odd, {"fmt ", c.fmt}}));
    expect_same_packets(packets, r);
    EXPECT_FALSE(r.file.format.has_vrat);

    // Three full-rate packets make an odd data chunk, padded; a file whose
    // padding byte is missing at the end is read all the same.
    const Packets full = random_packets(rng, 3, {EVRC_RATE_FULL});
    Bytes file = write(full);
    ASSERT_EQ(le32(file, kDataChunk + 4), 69u);
    ASSERT_EQ(file.size(), kData + 70);
    EXPECT_EQ(file.back(), 0);
    file.pop_back();
    set32(file, 4, static_cast<std::uint32_t>(file.size() - 8));
    expect_same_packets(full, read(file));
}

// Every prefix of a file is refused with a reason (the tool test sweeps cuts
// inside the data chunk through the forgiving reader).
TEST(QcpReader, TruncatedFilesAreRejectedWithAReason) {
    std::mt19937 rng(11);
    const Bytes file = write(random_packets(rng, 6, {EVRC_RATE_FULL, EVRC_RATE_HALF, EVRC_RATE_EIGHTH}));
    for (std::size_t n = 0; n < file.size(); ++n) {
        const evrc::QcpReadResult r = read(Bytes(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(n)));
        EXPECT_TRUE(!r.ok && !r.error.empty() && r.file.packets.empty()) << "prefix of " << n << " bytes";
    }
}

TEST(QcpReader, NamesWhatIsWrongWithTheFile) {
    std::mt19937 rng(14);
    const Bytes good = write(random_packets(rng, 2, {EVRC_RATE_FULL}));
    expect_error({'I', 'D', '3', 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, "not a RIFF file");
    Bytes b = good;
    std::copy_n("WAVE", 4, b.begin() + 8);
    expect_error(b, "not a QCP file: RIFF form type is 'WAVE'");
    const std::pair<evrc::QcpGuid, const char *> guids[] = {
        {evrc::kQcpGuid13k, "not EVRC: the codec is QCELP-13K"},
        {evrc::kQcpGuid13kAlt, "not EVRC: the codec is QCELP-13K"},
        {evrc::kQcpGuidSmv, "not EVRC: the codec is SMV"},
        {{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16},
         "unknown codec GUID {04030201-0605-0807-090a-0b0c0d0e0f10}"}};
    for (const auto &[guid, what] : guids) {
        b = good;
        std::copy(guid.begin(), guid.end(), b.begin() + 22);
        expect_error(b, what);
    }
    Chunks c(good);
    const Bytes &fmt = c.fmt, &vrat = c.vrat, &data = c.data;
    expect_error(assemble({{"fmt ", fmt}, {"vrat", vrat}}), "no 'data' chunk");
    expect_error(assemble({{"vrat", vrat}, {"data", data}}), "no 'fmt ' chunk");
    Bytes f = fmt;
    f[110] = 9;  // number of rates
    expect_error(assemble({{"fmt ", f}, {"data", data}}), "rate map lists 9 rates");
    f = fmt;
    f[114] = 23;  // full rate given with its rate octet counted
    expect_error(assemble({{"fmt ", f}, {"data", data}}),
                 "rate map gives 23 bytes for rate 4; EVRC packets of that rate have 22");
}

TEST(QcpReader, UnknownRateOctetIsAnErasureOfTheLargestPacketSize) {
    std::mt19937 rng(15);
    const Packets packets = random_packets(rng, 3, {EVRC_RATE_FULL});
    Bytes file = write(packets);
    file[kData + 23] = 0x07;  // second packet's rate octet
    const evrc::QcpReadResult r = read(file);
    ASSERT_TRUE(r.ok) << r.error;
    ASSERT_EQ(r.file.packets.size(), 3u);
    EXPECT_FALSE(r.file.packets[1].known_rate);
    EXPECT_EQ(r.file.packets[1].data, packets[1].data);
    EXPECT_EQ(evrc::to_evrc_packet(r.file.packets[1]).rate, evrc::kQcpErasureRate);
    EXPECT_EQ(evrc::to_byte_stream(r.file.packets[1]), Bytes{0});
    EXPECT_EQ(r.file.packets[2].data, packets[2].data) << "the stream stays in step";
    // At the end of the data an unknown packet takes what is left.
    Bytes tail = write(random_packets(rng, 1, {EVRC_RATE_EIGHTH}));
    tail[kData] = 0x42;
    const evrc::QcpReadResult t = read(tail);
    ASSERT_TRUE(t.ok) << t.error;
    ASSERT_EQ(t.file.packets.size(), 1u);
    EXPECT_EQ(t.file.packets[0].data.size(), 2u);
}

}  // namespace
