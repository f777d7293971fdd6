// Decoding through the component against a direct decode of the same packets.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <thread>

#include "omx_client.h"
#include "tests/support/random_packets.h"

namespace omx_test {
namespace {

// What the component must return for one input buffer, given the packets
// completed inside it: the PCM of the last batch of at most 30 of them.
struct Expected {
    std::vector<uint8_t> pcm;
    OMX_TICKS timestamp;
};

std::vector<uint8_t> concat(const std::vector<std::vector<uint8_t>>& packets)
{
    std::vector<uint8_t> all;
    for (const auto& p : packets)
        all.insert(all.end(), p.begin(), p.end());
    return all;
}

// Feeds `chunks` of the byte stream one buffer at a time and checks every
// output buffer against the reference decoder. Chunks are long enough that a
// packet spans at most two buffers.
void run_session(uint32_t seed, std::size_t packet_count, std::size_t min_chunk, std::size_t max_chunk)
{
    SCOPED_TRACE("seed " + std::to_string(seed));
    const auto packets = random_stream(seed, packet_count);
    const auto stream = concat(packets);

    // Reference PCM per packet, and where each packet ends in the stream.
    RefDecoder ref;
    std::vector<std::vector<uint8_t>> pcm;
    std::vector<std::size_t> ends;
    std::size_t pos = 0;
    for (const auto& p : packets) {
        pcm.push_back(pcm_bytes(ref.decode(p)));
        pos += p.size();
        ends.push_back(pos);
    }

    Client c;
    ASSERT_TRUE(c.start());

    std::mt19937 rng(seed ^ 0x5a5a5a5au);
    std::size_t start = 0, next_packet = 0, buffers = 0;
    uint64_t out_ts = 0;
    while (start < stream.size()) {
        const std::size_t len =
            std::min(stream.size() - start, std::uniform_int_distribution<std::size_t>(min_chunk, max_chunk)(rng));
        const std::size_t stop = start + len;
        std::vector<uint8_t> chunk(stream.begin() + static_cast<std::ptrdiff_t>(start),
                                   stream.begin() + static_cast<std::ptrdiff_t>(stop));

        // Packets completed in this buffer; the output holds the last batch.
        std::size_t first = next_packet;
        while (next_packet < ends.size() && ends[next_packet] <= stop)
            ++next_packet;
        const std::size_t n = next_packet - first;
        std::vector<uint8_t> expected;
        if (n > 0) {
            const std::size_t last_batch = (n - 1) % 30 + 1;
            for (std::size_t i = next_packet - last_batch; i < next_packet; ++i)
                expected.insert(expected.end(), pcm[i].begin(), pcm[i].end());
        }
        const OMX_TICKS in_ts = static_cast<OMX_TICKS>(1000 * buffers + 7);
        // The first output carries the input timestamp; later ones add
        // 1000 * bytes / 16000 to it.
        out_ts = static_cast<uint64_t>(in_ts) + (buffers ? (1000u * expected.size()) / 16000u : 0);

        OMX_BUFFERHEADERTYPE* ib = c.in[buffers % 2];
        OMX_BUFFERHEADERTYPE* ob = c.out[buffers % 2];
        ASSERT_EQ(c.etb(ib, chunk, 0, in_ts), OMX_ErrorNone);
        ASSERT_EQ(c.ftb(ob), OMX_ErrorNone);
        ++buffers;
        ASSERT_TRUE(c.wait_ebd(buffers));
        ASSERT_TRUE(c.wait_fbd(buffers));
        const Returned r = c.fbd().back();
        EXPECT_EQ(r.hdr, ob);
        EXPECT_EQ(c.ebd().back().hdr, ib);
        EXPECT_EQ(c.ebd().back().filled, 0u);
        ASSERT_EQ(r.filled, expected.size()) << "buffer " << buffers << " completing " << n << " packets";
        ASSERT_TRUE(r.data == expected) << "PCM differs in buffer " << buffers;
        EXPECT_EQ(static_cast<uint64_t>(r.timestamp), out_ts);
        EXPECT_EQ(r.handle, c.h);
        start = stop;
    }
    EXPECT_EQ(next_packet, packets.size());
    EXPECT_EQ(c.comp->etb_count.load(), 0u);
    EXPECT_EQ(c.comp->ftb_count.load(), 0u);
    EXPECT_EQ(c.comp->fbd_count.load(), buffers);
}

TEST(OmxDataPath, RandomStreamsSplitAnywhereMatchDirectDecoding)
{
    // Short buffers split most packets across two buffers; long ones hold
    // more than 30 packets, of which only the last batch is delivered.
    run_session(1, 150, 23, 60);
    run_session(2, 400, 23, 720);
}

TEST(OmxDataPath, ThirtyFullRatePacketsFillOneOutputBuffer)
{
    std::mt19937 rng(7);
    std::vector<uint8_t> buf;
    RefDecoder ref;
    std::vector<uint8_t> expected;
    for (int i = 0; i < 30; ++i) {
        const auto p = evrc_test::random_packet_bytes(rng, EVRC_RATE_FULL);
        buf.insert(buf.end(), p.begin(), p.end());
        const auto pcm = pcm_bytes(ref.decode(p));
        expected.insert(expected.end(), pcm.begin(), pcm.end());
    }
    ASSERT_EQ(buf.size(), 690u);
    Client c;
    ASSERT_TRUE(c.start());
    ASSERT_EQ(c.etb(c.in[0], buf), OMX_ErrorNone);
    ASSERT_EQ(c.ftb(c.out[0]), OMX_ErrorNone);
    ASSERT_TRUE(c.wait_fbd(1));
    EXPECT_EQ(c.fbd()[0].filled, 9600u);
    EXPECT_TRUE(c.fbd()[0].data == expected);
    EXPECT_EQ(c.comp->total_frames.load(), 30);
}

TEST(OmxDataPath, BadRateByteReturnsBothBuffersAndLaterBuffersDecodeCleanly)
{
    std::mt19937 rng(11);
    const auto a = evrc_test::random_packet_bytes(rng, EVRC_RATE_HALF);
    const auto b = evrc_test::random_packet_bytes(rng, EVRC_RATE_FULL);
    Client c;
    ASSERT_TRUE(c.start());

    // A good packet, then a rate byte of 5: the whole buffer is abandoned.
    std::vector<uint8_t> bad = a;
    bad.push_back(5);
    bad.push_back(0);
    const std::size_t from = c.event_count();
    ASSERT_EQ(c.etb(c.in[0], bad), OMX_ErrorNone);
    ASSERT_EQ(c.ftb(c.out[0]), OMX_ErrorNone);
    ASSERT_TRUE(c.wait_fbd(1));
    ASSERT_TRUE(c.wait_ebd(1));
    EXPECT_EQ(c.fbd()[0].filled, 0u);
    EXPECT_GE(c.wait_event(OMX_EventError, static_cast<OMX_U32>(OMX_ErrorStreamCorrupt), 1, from), 0);
    EXPECT_TRUE(log_contains("Error: Wrong rate"));

    // The abandoned packet was never decoded, and the slots start over.
    RefDecoder ref;
    std::vector<uint8_t> expected;
    std::vector<uint8_t> good;
    for (int i = 0; i < 30; ++i) {
        const auto& p = (i % 2) ? a : b;
        good.insert(good.end(), p.begin(), p.end());
        const auto pcm = pcm_bytes(ref.decode(p));
        expected.insert(expected.end(), pcm.begin(), pcm.end());
    }
    ASSERT_EQ(c.etb(c.in[1], good), OMX_ErrorNone);
    ASSERT_EQ(c.ftb(c.out[1]), OMX_ErrorNone);
    ASSERT_TRUE(c.wait_fbd(2));
    EXPECT_TRUE(c.fbd()[1].data == expected);
}

TEST(OmxDataPath, PacketSplitOverThreeBuffersIsAnUnderflowWithoutEvent)
{
    std::mt19937 rng(5);
    const auto p = evrc_test::random_packet_bytes(rng, EVRC_RATE_FULL);
    Client c;
    ASSERT_TRUE(c.start());
    const std::size_t from = c.event_count();
    // 5 bytes, then 5 more: the packet is still incomplete after the second.
    ASSERT_EQ(c.etb(c.in[0], std::vector<uint8_t>(p.begin(), p.begin() + 5)), OMX_ErrorNone);
    ASSERT_EQ(c.ftb(c.out[0]), OMX_ErrorNone);
    ASSERT_TRUE(c.wait_fbd(1));
    EXPECT_EQ(c.fbd()[0].filled, 0u);  // no packet completed in it
    ASSERT_EQ(c.etb(c.in[1], std::vector<uint8_t>(p.begin() + 5, p.begin() + 10)), OMX_ErrorNone);
    ASSERT_EQ(c.ftb(c.out[1]), OMX_ErrorNone);
    ASSERT_TRUE(c.wait_fbd(2));
    ASSERT_TRUE(c.wait_ebd(2));
    EXPECT_EQ(c.fbd()[1].filled, 0u);
    EXPECT_EQ(c.comp->resid_len.load(), 10u);
    EXPECT_TRUE(log_contains("Insufficient data\n"));
    ASSERT_TRUE(c.barrier());
    for (const auto& e : c.events_since(from))
        EXPECT_FALSE(e.type == OMX_EventError && e.data1 != static_cast<OMX_U32>(OMX_ErrorSameState));
}

TEST(OmxDataPath, EndOfStreamBufferReturnsEmptyFlaggedOutputAndEvent)
{
    std::mt19937 rng(3);
    const auto p = evrc_test::random_packet_bytes(rng, EVRC_RATE_EIGHTH);
    Client c;
    ASSERT_TRUE(c.start());
    const std::size_t from = c.event_count();
    ASSERT_EQ(c.etb(c.in[0], p, OMX_BUFFERFLAG_EOS, 0x123456789LL), OMX_ErrorNone);
    ASSERT_EQ(c.ftb(c.out[0]), OMX_ErrorNone);
    ASSERT_TRUE(c.wait_fbd(1));
    const Returned r = c.fbd()[0];
    EXPECT_EQ(r.filled, 0u);
    EXPECT_EQ(r.flags, static_cast<OMX_U32>(OMX_BUFFERFLAG_EOS));
    EXPECT_GE(c.wait_event(OMX_EventBufferFlag, 1, OMX_BUFFERFLAG_EOS, from), 0);
    EXPECT_EQ(c.comp->eos_timestamp.load(), 0x23456789u);
    EXPECT_EQ(c.comp->eos_pending.load(), 0);

    // An empty end-of-stream buffer behaves the same.
    ASSERT_EQ(c.etb(c.in[1], {}, OMX_BUFFERFLAG_EOS), OMX_ErrorNone);
    ASSERT_EQ(c.ftb(c.out[1]), OMX_ErrorNone);
    ASSERT_TRUE(c.wait_fbd(2));
    EXPECT_EQ(c.fbd()[1].filled, 0u);
    EXPECT_EQ(c.fbd()[1].flags, static_cast<OMX_U32>(OMX_BUFFERFLAG_EOS));
    const long first = c.wait_event(OMX_EventBufferFlag, 1, OMX_BUFFERFLAG_EOS, from);
    EXPECT_GE(c.wait_event(OMX_EventBufferFlag, 1, OMX_BUFFERFLAG_EOS, static_cast<std::size_t>(first) + 1), 0);
}

TEST(OmxDataPath, InputBufferWaitsForAnOutputBuffer)
{
    std::mt19937 rng(9);
    const auto p = evrc_test::random_packet_bytes(rng, EVRC_RATE_HALF);
    Client c;
    ASSERT_TRUE(c.start());
    ASSERT_EQ(c.etb(c.in[0], p), OMX_ErrorNone);
    std::this_thread::sleep_for(kQuiet);
    EXPECT_TRUE(c.ebd().empty());
    ASSERT_EQ(c.ftb(c.out[0]), OMX_ErrorNone);
    ASSERT_TRUE(c.wait_fbd(1));
    RefDecoder ref;
    EXPECT_TRUE(c.fbd()[0].data == pcm_bytes(ref.decode(p)));
}

TEST(OmxDataPath, MarksReachTheTargetOrTravelToTheOutput)
{
    std::mt19937 rng(13);
    const auto p = evrc_test::random_packet_bytes(rng, EVRC_RATE_FULL);
    Client c;
    ASSERT_TRUE(c.start());
    int tag_self = 0, tag_other = 0, other_component = 0;

    // Aimed at this component: OMX_EventMark when the input buffer returns.
    OMX_MARKTYPE mark{c.h, &tag_self};
    std::size_t from = c.event_count();
    ASSERT_EQ(c.command(OMX_CommandMarkBuffer, 0, &mark), OMX_ErrorNone);
    ASSERT_EQ(c.etb(c.in[0], p), OMX_ErrorNone);
    ASSERT_EQ(c.ftb(c.out[0]), OMX_ErrorNone);
    ASSERT_TRUE(c.wait_fbd(1));
    long i = c.wait_event(OMX_EventMark, 0, 0, from);
    ASSERT_GE(i, 0);
    EXPECT_EQ(c.events_since(static_cast<std::size_t>(i))[0].data, &tag_self);
    EXPECT_TRUE(c.wait_cmd_complete(OMX_CommandMarkBuffer, 0, from));
    EXPECT_EQ(c.fbd()[0].mark_target, nullptr);

    // Aimed elsewhere: copied into the output buffer, cleared on the input.
    OMX_MARKTYPE other{&other_component, &tag_other};
    ASSERT_EQ(c.command(OMX_CommandMarkBuffer, 0, &other), OMX_ErrorNone);
    ASSERT_EQ(c.etb(c.in[1], p), OMX_ErrorNone);
    ASSERT_EQ(c.ftb(c.out[1]), OMX_ErrorNone);
    ASSERT_TRUE(c.wait_fbd(2));
    ASSERT_TRUE(c.wait_ebd(2));
    EXPECT_EQ(c.fbd()[1].mark_target, &other_component);
    EXPECT_EQ(c.fbd()[1].mark_data, &tag_other);
    EXPECT_EQ(c.ebd()[1].mark_target, nullptr);
    EXPECT_TRUE(log_contains("Reset i/p Buffer Mark\n"));

    EXPECT_EQ(c.command(OMX_CommandMarkBuffer, 1, &mark), OMX_ErrorNotImplemented);
    EXPECT_EQ(c.command(OMX_CommandMarkBuffer, 0, nullptr), OMX_ErrorBadParameter);
}

TEST(OmxDataPath, PauseHoldsBuffersUntilExecuting)
{
    std::mt19937 rng(17);
    const auto p = evrc_test::random_packet_bytes(rng, EVRC_RATE_FULL);
    Client c;
    ASSERT_TRUE(c.start());
    ASSERT_TRUE(c.set_state(OMX_StatePause));
    ASSERT_EQ(c.etb(c.in[0], p), OMX_ErrorNone);
    ASSERT_EQ(c.ftb(c.out[0]), OMX_ErrorNone);
    std::this_thread::sleep_for(kQuiet);
    EXPECT_TRUE(c.ebd().empty());
    EXPECT_TRUE(c.fbd().empty());
    ASSERT_TRUE(c.set_state(OMX_StateExecuting));
    ASSERT_TRUE(c.wait_ebd(1));
    ASSERT_TRUE(c.wait_fbd(1));
    RefDecoder ref;
    EXPECT_TRUE(c.fbd()[0].data == pcm_bytes(ref.decode(p)));
}

TEST(OmxDataPath, SecondIdleReusesTheDecoderStateFromScratch)
{
    std::mt19937 rng(19);
    std::vector<uint8_t> buf;
    std::vector<std::vector<uint8_t>> packets;
    for (int i = 0; i < 10; ++i) {
        packets.push_back(evrc_test::random_packet_bytes(rng, i % 2 ? EVRC_RATE_EIGHTH : EVRC_RATE_FULL));
        buf.insert(buf.end(), packets.back().begin(), packets.back().end());
    }
    std::vector<uint8_t> expected;
    RefDecoder ref;
    for (const auto& p : packets) {
        const auto pcm = pcm_bytes(ref.decode(p));
        expected.insert(expected.end(), pcm.begin(), pcm.end());
    }

    Client c;
    ASSERT_TRUE(c.start());
    EvrcDecoderState* first = c.comp->decoder_state.load();
    ASSERT_EQ(c.etb(c.in[0], buf), OMX_ErrorNone);
    ASSERT_EQ(c.ftb(c.out[0]), OMX_ErrorNone);
    ASSERT_TRUE(c.wait_fbd(1));
    EXPECT_TRUE(c.fbd()[0].data == expected);

    ASSERT_TRUE(c.set_state(OMX_StateIdle));
    std::size_t from = c.event_count();
    ASSERT_EQ(c.command(OMX_CommandStateSet, OMX_StateLoaded), OMX_ErrorNone);
    c.free_all();
    ASSERT_TRUE(c.wait_cmd_complete(OMX_CommandStateSet, OMX_StateLoaded, from));
    ASSERT_TRUE(c.start());
    EXPECT_EQ(c.comp->decoder_state.load(), first);
    ASSERT_EQ(c.etb(c.in[0], buf), OMX_ErrorNone);
    ASSERT_EQ(c.ftb(c.out[0]), OMX_ErrorNone);
    ASSERT_TRUE(c.wait_fbd(2));
    EXPECT_TRUE(c.fbd()[1].data == expected);
}

TEST(OmxDataPath, HeaderChecksOfEmptyAndFillThisBuffer)
{
    Client c;
    ASSERT_TRUE(c.start());
    OMX_BUFFERHEADERTYPE copy = *c.in[0];
    EXPECT_EQ(c.comp->empty_this_buffer(c.h, nullptr), OMX_ErrorBadParameter);
    EXPECT_EQ(c.comp->fill_this_buffer(c.h, nullptr), OMX_ErrorBadParameter);
    copy.nSize = 80 + 1;
    EXPECT_EQ(c.comp->empty_this_buffer(c.h, &copy), OMX_ErrorBadParameter);
    copy.nSize = sizeof(OMX_BUFFERHEADERTYPE);
    copy.nVersion.nVersion = 0x102;
    EXPECT_EQ(c.comp->empty_this_buffer(c.h, &copy), OMX_ErrorVersionMismatch);
    copy.nVersion.nVersion = 0x101;
    copy.nInputPortIndex = 1;
    EXPECT_EQ(c.comp->empty_this_buffer(c.h, &copy), OMX_ErrorBadPortIndex);
    copy.nInputPortIndex = 0;
    // A header the component did not hand out, and too much data.
    EXPECT_EQ(c.comp->empty_this_buffer(c.h, &copy), OMX_ErrorBadParameter);
    EXPECT_TRUE(log_contains("Bad header " + std::string([&] {
                                 char b[64];
                                 std::snprintf(b, sizeof(b), "%p \n", static_cast<void*>(&copy));
                                 return std::string(b);
                             }())));
    c.in[0]->nFilledLen = c.in[0]->nAllocLen + 1;
    EXPECT_EQ(c.comp->empty_this_buffer(c.h, c.in[0]), OMX_ErrorBadParameter);

    OMX_BUFFERHEADERTYPE ocopy = *c.out[0];
    ocopy.nOutputPortIndex = 0;
    EXPECT_EQ(c.comp->fill_this_buffer(c.h, &ocopy), OMX_ErrorBadPortIndex);
    ocopy.nOutputPortIndex = 1;
    ocopy.nVersion.nVersion = 0;
    EXPECT_EQ(c.comp->fill_this_buffer(c.h, &ocopy), OMX_ErrorVersionMismatch);

    // Outside Executing and Pause input is refused, and counted all the same.
    ASSERT_TRUE(c.set_state(OMX_StateIdle));
    const uint32_t before = c.comp->etb_count;
    c.in[0]->nFilledLen = 0;
    EXPECT_EQ(c.comp->empty_this_buffer(c.h, c.in[0]), OMX_ErrorInvalidState);
    EXPECT_EQ(c.comp->etb_count.load(), before + 1);
}

}  // namespace
}  // namespace omx_test
