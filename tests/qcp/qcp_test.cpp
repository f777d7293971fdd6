#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "evrc/qcp.hpp"
#include "tests/support/random_packets.h"
#include "tests/support/temp_dir.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

// A QCP packet from a byte-stream packet (rate byte, then payload).
evrc::QcpPacket qcp_packet(const Bytes &stream) {
    evrc::QcpPacket p;
    p.rate = stream.at(0);
    p.data.assign(stream.begin() + 1, stream.end());
    return p;
}

// Random valid packets of the given rates, in turn.
std::vector<evrc::QcpPacket> random_packets(std::mt19937 &rng, std::size_t n, const std::vector<int> &rates) {
    std::vector<evrc::QcpPacket> out;
    for (std::size_t i = 0; i < n; ++i) {
        const int rate = rates[i % rates.size()];
        out.push_back(rate == EVRC_RATE_BLANK ? qcp_packet({0}) : qcp_packet(evrc_test::random_packet_bytes(rng, rate)));
    }
    return out;
}

Bytes write(const std::vector<evrc::QcpPacket> &packets) {
    Bytes out;
    std::string error;
    EXPECT_TRUE(evrc::write_qcp(packets, out, error)) << error;
    return out;
}

evrc::QcpReadResult read(const Bytes &b) { return evrc::read_qcp(b.data(), b.size()); }

std::uint32_t le32(const Bytes &b, std::size_t at) {
    return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (static_cast<std::uint32_t>(b[at + 3]) << 24);
}
void set32(Bytes &b, std::size_t at, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) b.at(at + i) = static_cast<std::uint8_t>(v >> (8 * i));
}

// Chunks of a file the writer made, to be rearranged into other files.
struct Chunk {
    std::string id;
    Bytes body;
};

std::vector<Chunk> split_chunks(const Bytes &file) {
    std::vector<Chunk> chunks;
    std::size_t pos = 12;
    while (pos + 8 <= file.size()) {
        const std::uint32_t n = le32(file, pos + 4);
        chunks.push_back({std::string(file.begin() + pos, file.begin() + pos + 4),
                          Bytes(file.begin() + pos + 8, file.begin() + pos + 8 + n)});
        pos += 8 + n + (n & 1);
    }
    return chunks;
}

Bytes assemble(const std::vector<Chunk> &chunks) {
    Bytes b = {'R', 'I', 'F', 'F', 0, 0, 0, 0, 'Q', 'L', 'C', 'M'};
    for (const Chunk &c : chunks) {
        b.insert(b.end(), c.id.begin(), c.id.end());
        b.resize(b.size() + 4);
        set32(b, b.size() - 4, static_cast<std::uint32_t>(c.body.size()));
        b.insert(b.end(), c.body.begin(), c.body.end());
        if (c.body.size() & 1) b.push_back(0);
    }
    set32(b, 4, static_cast<std::uint32_t>(b.size() - 8));
    return b;
}

Chunk &find(std::vector<Chunk> &chunks, const std::string &id) {
    for (Chunk &c : chunks) {
        if (c.id == id) return c;
    }
    throw std::runtime_error("no chunk " + id);
}

void expect_same_packets(const std::vector<evrc::QcpPacket> &want, const std::vector<evrc::QcpPacket> &got) {
    ASSERT_EQ(want.size(), got.size());
    for (std::size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(want[i].rate, got[i].rate) << "packet " << i;
        EXPECT_EQ(want[i].data, got[i].data) << "packet " << i;
        EXPECT_TRUE(got[i].known_rate) << "packet " << i;
    }
}

void expect_error(const Bytes &file, const std::string &fragment) {
    const evrc::QcpReadResult r = read(file);
    EXPECT_FALSE(r.ok);
    EXPECT_NE(r.error.find(fragment), std::string::npos) << "error was: " << r.error;
}

std::string own_temp_dir() { return evrc_test::own_temp_dir("evrc_qcp"); }

TEST(QcpRoundTrip, RandomStreamsOfEveryRateReadBackUnchanged) {
    std::mt19937 rng(1234);
    const std::vector<std::vector<int>> mixes = {
        {EVRC_RATE_FULL}, {EVRC_RATE_HALF}, {EVRC_RATE_EIGHTH}, {EVRC_RATE_BLANK},
        {EVRC_RATE_FULL, EVRC_RATE_EIGHTH, EVRC_RATE_HALF, EVRC_RATE_BLANK, EVRC_RATE_FULL}};
    for (const auto &mix : mixes) {
        for (std::size_t n : {0u, 1u, 2u, 7u, 50u}) {
            const auto packets = random_packets(rng, n, mix);
            const Bytes file = write(packets);
            ASSERT_EQ(file.size() % 2, 0u) << "RIFF chunks are padded to even length";
            EXPECT_EQ(le32(file, 4), file.size() - 8);
            const evrc::QcpReadResult r = read(file);
            ASSERT_TRUE(r.ok) << r.error;
            expect_same_packets(packets, r.file.packets);
            const evrc::QcpFormat &f = r.file.format;
            EXPECT_EQ(f.codec_guid, evrc::kQcpGuidEvrc);
            EXPECT_EQ(f.sampling_rate, 8000);
            EXPECT_EQ(f.block_size, 160);
            EXPECT_EQ(f.packet_size, 23);
            EXPECT_TRUE(f.has_vrat);
            EXPECT_NE(f.variable_rate, 0u);
            EXPECT_EQ(f.packet_count, n);
            for (const auto &e : f.rate_map) EXPECT_EQ(e.size, evrc::evrc_payload_bytes(e.octet));
        }
    }
}

TEST(QcpRoundTrip, PacketsReachTheDecoderInTheWordLayout) {
    std::mt19937 rng(99);
    for (int i = 0; i < 200; ++i) {
        const Bytes stream = evrc_test::random_packet_bytes(rng, std::vector<int>{1, 3, 4}[i % 3]);
        const EvrcPacket want = evrc_test::bytes_to_packet(stream);
        const EvrcPacket got = evrc::to_evrc_packet(qcp_packet(stream));
        EXPECT_EQ(got.rate, want.rate);
        for (int w = 0; w < 11; ++w) EXPECT_EQ(got.data[w], want.data[w]) << "word " << w;
        EXPECT_EQ(evrc::to_byte_stream(qcp_packet(stream)), stream);
    }
}

TEST(QcpRoundTrip, FileOnDiskReadsBack) {
    std::mt19937 rng(5);
    const auto packets = random_packets(rng, 9, {EVRC_RATE_HALF, EVRC_RATE_FULL});
    const std::string path = own_temp_dir() + "/round_trip.qcp";
    std::string error;
    ASSERT_TRUE(evrc::write_qcp(path, packets, error)) << error;
    const evrc::QcpReadResult r = evrc::read_qcp(path);
    ASSERT_TRUE(r.ok) << r.error;
    expect_same_packets(packets, r.file.packets);
    std::remove(path.c_str());
}

TEST(QcpWriter, RejectsPacketsItCannotStore) {
    Bytes out = {1, 2, 3};
    std::string error;
    evrc::QcpPacket quarter;
    quarter.rate = EVRC_RATE_QUARTER;
    quarter.data.assign(5, 0);
    EXPECT_FALSE(evrc::write_qcp({quarter}, out, error));
    EXPECT_NE(error.find("rate 2"), std::string::npos) << error;
    evrc::QcpPacket short_full;
    short_full.rate = EVRC_RATE_FULL;
    short_full.data.assign(21, 0);
    EXPECT_FALSE(evrc::write_qcp({short_full}, out, error));
    EXPECT_NE(error.find("needs 22 bytes"), std::string::npos) << error;
    EXPECT_EQ(out, (Bytes{1, 2, 3})) << "output left untouched";
    EXPECT_FALSE(evrc::write_qcp(own_temp_dir() + "/no/such/dir/x.qcp", {}, error));
    EXPECT_NE(error.find("cannot create"), std::string::npos) << error;
}

TEST(QcpReader, SkipsOtherChunksWhereverTheyStand) {
    std::mt19937 rng(7);
    const auto packets = random_packets(rng, 5, {EVRC_RATE_FULL, EVRC_RATE_EIGHTH});
    auto chunks = split_chunks(write(packets));
    ASSERT_EQ(chunks.size(), 3u);
    const Chunk labl{"labl", Bytes(48, 'x')};
    const Chunk text{"text", Bytes{'h', 'i', '!'}};  // odd: padded
    const Chunk offs{"offs", Bytes(13, 0xFF)};
    const Chunk cnfg{"cnfg", Bytes(2, 0)};
    const Chunk odd{"\x01\x02zz", Bytes(1, 0x55)};
    std::vector<Chunk> shuffled = {text, find(chunks, "fmt "), labl, odd, find(chunks, "vrat"),
                                   cnfg, find(chunks, "data"), offs};
    const evrc::QcpReadResult r = read(assemble(shuffled));
    ASSERT_TRUE(r.ok) << r.error;
    expect_same_packets(packets, r.file.packets);

    // The 'vrat' chunk is optional, and the data may come before the format.
    const evrc::QcpReadResult r2 = read(assemble({find(chunks, "data"), odd, find(chunks, "fmt ")}));
    ASSERT_TRUE(r2.ok) << r2.error;
    expect_same_packets(packets, r2.file.packets);
    EXPECT_FALSE(r2.file.format.has_vrat);
}

TEST(QcpReader, OddDataChunkIsPaddedAndAPaddingByteMissingAtTheEndIsTolerated) {
    std::mt19937 rng(8);
    const auto packets = random_packets(rng, 3, {EVRC_RATE_FULL});  // 69 data bytes
    Bytes file = write(packets);
    ASSERT_EQ(le32(file, file.size() - 69 - 1 - 4), 69u);
    EXPECT_EQ(file.back(), 0);
    file.pop_back();
    set32(file, 4, static_cast<std::uint32_t>(file.size() - 8));
    const evrc::QcpReadResult r = read(file);
    ASSERT_TRUE(r.ok) << r.error;
    expect_same_packets(packets, r.file.packets);
}

TEST(QcpReader, EveryStrictPrefixIsRejectedWithoutHarm) {
    std::mt19937 rng(11);
    const Bytes file = write(random_packets(rng, 6, {EVRC_RATE_FULL, EVRC_RATE_HALF, EVRC_RATE_EIGHTH}));
    for (std::size_t n = 0; n < file.size(); ++n) {
        const Bytes prefix(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(n));
        const evrc::QcpReadResult r = read(prefix);
        EXPECT_FALSE(r.ok) << "prefix of " << n << " bytes";
        EXPECT_FALSE(r.error.empty());
        EXPECT_TRUE(r.file.packets.empty());
    }
    EXPECT_TRUE(read(file).ok);
}

TEST(QcpReader, DataEndingInsideAPacketNamesItsOffset) {
    std::mt19937 rng(12);
    auto chunks = split_chunks(write(random_packets(rng, 4, {EVRC_RATE_HALF})));
    Chunk &data = find(chunks, "data");
    for (std::size_t cut = 1; cut < 11; ++cut) {
        std::vector<Chunk> c = chunks;
        find(c, "data").body.resize(data.body.size() - cut);
        // The last packet starts 33 bytes into the data chunk, which starts at 194.
        expect_error(assemble(c), "inside a packet at byte offset 227");
    }
}

TEST(QcpReader, EveryHeaderBitFlipIsEitherAcceptedOrNamed) {
    std::mt19937 rng(13);
    const auto packets = random_packets(rng, 4, {EVRC_RATE_FULL, EVRC_RATE_EIGHTH});
    const Bytes file = write(packets);
    for (std::size_t byte = 0; byte < 194; ++byte) {
        for (int bit = 0; bit < 8; ++bit) {
            Bytes b = file;
            b[byte] ^= static_cast<std::uint8_t>(1u << bit);
            const evrc::QcpReadResult r = read(b);
            if (byte >= 22 && byte < 38) {
                EXPECT_NE(r.error.find("not EVRC"), std::string::npos) << "GUID byte " << byte << ": " << r.error;
            }
            const bool in_rate_map = byte >= 130 && byte < 150;
            if (r.ok) {
                // Fields other than the rate map do not change the framing.
                if (!in_rate_map) expect_same_packets(packets, r.file.packets);
            } else {
                EXPECT_FALSE(r.error.empty());
            }
        }
    }
}

TEST(QcpReader, NamesWhatIsWrongWithTheFile) {
    std::mt19937 rng(14);
    const Bytes good = write(random_packets(rng, 2, {EVRC_RATE_FULL}));

    expect_error({}, "empty file");
    expect_error({'R', 'I'}, "truncated RIFF header");
    expect_error({'I', 'D', '3', 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, "not a RIFF file");
    Bytes wave = good;
    std::copy_n("WAVE", 4, wave.begin() + 8);
    expect_error(wave, "not a QCP file: RIFF form type is 'WAVE'");

    struct GuidCase {
        evrc::QcpGuid guid;
        const char *what;
    };
    for (const GuidCase &g : {GuidCase{evrc::kQcpGuid13k, "not EVRC: the codec is QCELP-13K"},
                              GuidCase{evrc::kQcpGuid13kAlt, "not EVRC: the codec is QCELP-13K"},
                              GuidCase{evrc::kQcpGuidSmv, "not EVRC: the codec is SMV"},
                              GuidCase{evrc::QcpGuid{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16},
                                       "unknown codec GUID {04030201-0605-0807-090a-0b0c0d0e0f10}"}}) {
        Bytes b = good;
        std::copy(g.guid.begin(), g.guid.end(), b.begin() + 22);
        expect_error(b, g.what);
    }

    auto chunks = split_chunks(good);
    expect_error(assemble({find(chunks, "fmt "), find(chunks, "vrat")}), "no 'data' chunk");
    expect_error(assemble({find(chunks, "vrat"), find(chunks, "data")}), "no 'fmt ' chunk");
    {
        auto c = chunks;
        find(c, "fmt ").body.resize(100);
        expect_error(assemble(c), "'fmt ' chunk too short");
        c = chunks;
        find(c, "vrat").body.resize(4);
        expect_error(assemble(c), "'vrat' chunk too short");
        c = chunks;
        find(c, "fmt ").body[110] = 9;  // number of rates
        expect_error(assemble(c), "rate map lists 9 rates");
        c = chunks;
        find(c, "fmt ").body[114] = 23;  // full rate given with its rate octet counted
        expect_error(assemble(c), "rate map gives 23 bytes for rate 4; EVRC packets of that rate have 22");
    }
    Bytes long_riff = good;
    set32(long_riff, 4, static_cast<std::uint32_t>(good.size()));
    expect_error(long_riff, "the RIFF header declares");
    Bytes long_data = good;
    set32(long_data, 190, 0xFFFFFFF0u);
    expect_error(long_data, "truncated 'data' chunk at byte offset 186");
}

TEST(QcpReader, UnknownRateOctetIsAnErasureOfTheLargestPacketSize) {
    std::mt19937 rng(15);
    const auto packets = random_packets(rng, 3, {EVRC_RATE_FULL});
    Bytes file = write(packets);
    file[194 + 23] = 0x07;  // second packet's rate octet
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
    tail[194] = 0x42;
    const evrc::QcpReadResult t = read(tail);
    ASSERT_TRUE(t.ok) << t.error;
    ASSERT_EQ(t.file.packets.size(), 1u);
    EXPECT_EQ(t.file.packets[0].data.size(), 2u);
}

TEST(QcpReader, ReportsFilesItCannotRead) {
    const evrc::QcpReadResult missing = evrc::read_qcp(own_temp_dir() + "/does-not-exist.qcp");
    EXPECT_FALSE(missing.ok);
    EXPECT_NE(missing.error.find("cannot open: No such file"), std::string::npos) << missing.error;
    const evrc::QcpReadResult dir = evrc::read_qcp(own_temp_dir());
    EXPECT_FALSE(dir.ok);
    EXPECT_NE(dir.error.find("cannot"), std::string::npos) << dir.error;
}

}  // namespace
