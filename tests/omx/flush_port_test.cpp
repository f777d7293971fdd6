// Flushes, port disable and enable.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

#include "omx_client.h"
#include "tests/support/random_packets.h"

namespace omx_test {
namespace {

TEST(OmxFlush, EachPortReturnsQueuedBuffersAndReportsItsPorts)
{
    Client c;
    ASSERT_TRUE(c.start());

    // An input buffer waits for an output buffer; flushing all returns it
    // and completes port 0, then port 1.
    std::size_t from = c.event_count();
    ASSERT_EQ(c.etb(c.in[0], {EVRC_RATE_BLANK}), OMX_ErrorNone);
    ASSERT_EQ(c.command(OMX_CommandFlush, OMX_ALL), OMX_ErrorNone);
    ASSERT_TRUE(c.wait_ebd(1));
    EXPECT_EQ(c.ebd()[0].hdr, c.in[0]);
    const long p0 = c.wait_event(OMX_EventCmdComplete, OMX_CommandFlush, 0, from);
    const long p1 = c.wait_event(OMX_EventCmdComplete, OMX_CommandFlush, 1, from);
    ASSERT_GE(p0, 0);
    ASSERT_GE(p1, 0);
    EXPECT_LT(p0, p1);

    // An output buffer alone: it comes back unfilled.
    c.out[0]->nFilledLen = 77;
    ASSERT_EQ(c.ftb(c.out[0]), OMX_ErrorNone);
    from = c.event_count();
    ASSERT_EQ(c.command(OMX_CommandFlush, 1), OMX_ErrorNone);
    ASSERT_TRUE(c.wait_fbd(1));
    EXPECT_EQ(c.fbd()[0].hdr, c.out[0]);
    EXPECT_EQ(c.fbd()[0].filled, 77u);
    ASSERT_TRUE(c.wait_cmd_complete(OMX_CommandFlush, 1, from));

    // Port 0 alone still flushes the whole input side, reporting port 0 only.
    ASSERT_EQ(c.ftb(c.out[1]), OMX_ErrorNone);
    from = c.event_count();
    ASSERT_EQ(c.command(OMX_CommandFlush, 0), OMX_ErrorNone);
    ASSERT_TRUE(c.wait_fbd(2));
    ASSERT_TRUE(c.wait_cmd_complete(OMX_CommandFlush, 0, from));
    ASSERT_TRUE(c.barrier());
    for (const auto& e : c.events_since(from))
        EXPECT_FALSE(e.type == OMX_EventCmdComplete && e.data2 == 1);
    EXPECT_EQ(c.comp->etb_count.load(), 0u);
    EXPECT_EQ(c.comp->ftb_count.load(), 0u);
    EXPECT_EQ(c.comp->flush_ack_count.load(), 0);
}

TEST(OmxFlush, ExecutingToIdleFlushesWithoutFlushEvents)
{
    Client c;
    ASSERT_TRUE(c.start());
    const std::size_t from = c.event_count();
    ASSERT_EQ(c.etb(c.in[0], {EVRC_RATE_BLANK}), OMX_ErrorNone);
    ASSERT_TRUE(c.set_state(OMX_StateIdle));
    ASSERT_TRUE(c.wait_ebd(1));
    for (const auto& e : c.events_since(from))
        EXPECT_NE(e.data1, static_cast<OMX_U32>(OMX_CommandFlush));
}

TEST(OmxFlush, FlushWhileParkedInPauseReleasesThenParksAgain)
{
    Client c;
    ASSERT_TRUE(c.start());
    ASSERT_TRUE(c.set_state(OMX_StatePause));
    ASSERT_EQ(c.etb(c.in[0], {EVRC_RATE_BLANK}), OMX_ErrorNone);
    ASSERT_EQ(c.ftb(c.out[0]), OMX_ErrorNone);
    std::size_t from = c.event_count();
    ASSERT_EQ(c.command(OMX_CommandFlush, OMX_ALL), OMX_ErrorNone);
    ASSERT_TRUE(c.wait_cmd_complete(OMX_CommandFlush, 1, from));
    ASSERT_TRUE(c.wait_ebd(1));
    ASSERT_TRUE(c.wait_fbd(1));

    ASSERT_EQ(c.etb(c.in[1], {EVRC_RATE_BLANK}), OMX_ErrorNone);
    ASSERT_EQ(c.ftb(c.out[1]), OMX_ErrorNone);
    std::this_thread::sleep_for(kQuiet);
    EXPECT_EQ(c.ebd().size(), 1u);
    EXPECT_EQ(c.fbd().size(), 1u);
    ASSERT_TRUE(c.set_state(OMX_StateExecuting));
    ASSERT_TRUE(c.wait_fbd(2));
    EXPECT_EQ(c.fbd()[1].filled, 320u);
}

TEST(OmxFlush, FlushRestartsTheDecoderAndDropsAPartialPacket)
{
    std::mt19937 rng(23);
    const auto a = evrc_test::random_packet_bytes(rng, EVRC_RATE_FULL);
    const auto b = evrc_test::random_packet_bytes(rng, EVRC_RATE_FULL);
    const auto d = evrc_test::random_packet_bytes(rng, EVRC_RATE_HALF);
    RefDecoder ref;
    ref.decode(a);
    ref.reset();
    const auto expected = pcm_bytes(ref.decode(d));

    Client c;
    ASSERT_TRUE(c.start());
    std::vector<uint8_t> first = a;
    first.insert(first.end(), b.begin(), b.begin() + 9);  // b is cut short
    ASSERT_EQ(c.etb(c.in[0], first), OMX_ErrorNone);
    ASSERT_EQ(c.ftb(c.out[0]), OMX_ErrorNone);
    ASSERT_TRUE(c.wait_fbd(1));
    std::size_t from = c.event_count();
    ASSERT_EQ(c.command(OMX_CommandFlush, OMX_ALL), OMX_ErrorNone);
    ASSERT_TRUE(c.wait_cmd_complete(OMX_CommandFlush, 1, from));
    EXPECT_EQ(c.comp->resid_len.load(), 0u);
    ASSERT_EQ(c.etb(c.in[1], d), OMX_ErrorNone);
    ASSERT_EQ(c.ftb(c.out[1]), OMX_ErrorNone);
    ASSERT_TRUE(c.wait_fbd(2));
    EXPECT_TRUE(c.fbd()[1].data == expected);
}

TEST(OmxFlush, FlushInLoadedNeverCompletesButDeinitReleasesIt)
{
    Client c;
    std::atomic<bool> returned{false};
    std::thread sender([&] {
        c.command(OMX_CommandFlush, OMX_ALL);
        returned = true;
    });
    std::this_thread::sleep_for(kQuiet);
    EXPECT_FALSE(returned.load());
    EXPECT_EQ(c.event_count(), 0u);
    c.plain_teardown = true;
    c.comp->component_deinit(c.h);
    for (int i = 0; i < 500 && !returned; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(returned.load());
    if (returned)
        sender.join();
    else
        sender.detach();
    EXPECT_EQ(c.event_count(), 0u);
}

TEST(OmxPorts, ImmediateDisableAndEnableRepeatTheirCompletions)
{
    Client c;
    std::size_t from = 0;
    auto count = [&](OMX_COMMANDTYPE cmd, OMX_U32 port) {
        int n = 0;
        for (const auto& e : c.events_since(from))
            n += e.type == OMX_EventCmdComplete && e.data1 == static_cast<OMX_U32>(cmd) && e.data2 == port;
        return n;
    };
    // The completion for the command's own parameter is queued last; once
    // it has arrived every other one has too.
    auto wait_last = [&](OMX_COMMANDTYPE cmd, OMX_U32 port, int n) {
        for (int i = 0; i < 2500 && count(cmd, port) < n; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        ASSERT_TRUE(c.barrier());
    };

    ASSERT_EQ(c.command(OMX_CommandPortDisable, 1), OMX_ErrorNone);
    wait_last(OMX_CommandPortDisable, 1, 2);
    EXPECT_EQ(count(OMX_CommandPortDisable, 1), 2);
    EXPECT_EQ(c.comp->pcm_feedback.load(), 0);

    from = c.event_count();
    ASSERT_EQ(c.command(OMX_CommandPortDisable, OMX_ALL), OMX_ErrorNone);
    wait_last(OMX_CommandPortDisable, OMX_ALL, 1);
    EXPECT_EQ(count(OMX_CommandPortDisable, 0), 1);
    EXPECT_EQ(count(OMX_CommandPortDisable, 1), 1);
    EXPECT_EQ(count(OMX_CommandPortDisable, OMX_ALL), 1);

    from = c.event_count();
    clear_log();
    ASSERT_EQ(c.command(OMX_CommandPortDisable, 0), OMX_ErrorNone);
    wait_last(OMX_CommandPortDisable, 0, 2);
    EXPECT_EQ(count(OMX_CommandPortDisable, 0), 2);
    EXPECT_TRUE(log_contains("OMX_CommandPortDisable: disable wrong port ID"));

    from = c.event_count();
    ASSERT_EQ(c.command(OMX_CommandPortEnable, OMX_ALL), OMX_ErrorNone);
    wait_last(OMX_CommandPortEnable, OMX_ALL, 1);
    EXPECT_EQ(count(OMX_CommandPortEnable, 0), 1);
    EXPECT_EQ(count(OMX_CommandPortEnable, 1), 1);
    EXPECT_EQ(count(OMX_CommandPortEnable, OMX_ALL), 1);
    EXPECT_EQ(c.comp->pcm_feedback.load(), 1);
    EXPECT_EQ(c.comp->in_port_enabled.load(), 1);
}

TEST(OmxPorts, DisableWhileRunningWaitsForFreesAndEnableForBuffers)
{
    std::mt19937 rng(29);
    const auto p = evrc_test::random_packet_bytes(rng, EVRC_RATE_FULL);
    Client c;
    ASSERT_TRUE(c.start());

    for (OMX_U32 port : {0u, 1u}) {
        SCOPED_TRACE(port);
        auto& bufs = port == 0 ? c.in : c.out;
        std::size_t from = c.event_count();
        ASSERT_EQ(c.command(OMX_CommandPortDisable, port), OMX_ErrorNone);
        if (port == 0)
            EXPECT_EQ(c.etb(c.in[0], p), OMX_ErrorIncorrectStateOperation);
        else
            EXPECT_EQ(c.ftb(c.out[0]), OMX_ErrorIncorrectStateOperation);
        EXPECT_EQ(c.comp->free_buffer(c.h, port, bufs[0]), OMX_ErrorNone);
        ASSERT_TRUE(c.barrier());
        for (const auto& e : c.events_since(from))
            EXPECT_FALSE(e.type == OMX_EventCmdComplete && e.data1 == OMX_CommandPortDisable);
        EXPECT_EQ(c.comp->free_buffer(c.h, port, bufs[1]), OMX_ErrorNone);
        bufs.clear();
        ASSERT_TRUE(c.wait_cmd_complete(OMX_CommandPortDisable, port, from));

        from = c.event_count();
        ASSERT_EQ(c.command(OMX_CommandPortEnable, port), OMX_ErrorNone);
        for (int i = 0; i < 2; ++i) {
            OMX_BUFFERHEADERTYPE* hdr = nullptr;
            ASSERT_EQ(c.comp->allocate_buffer(c.h, &hdr, port, nullptr, 0), OMX_ErrorNone);
            bufs.push_back(hdr);
        }
        ASSERT_TRUE(c.wait_cmd_complete(OMX_CommandPortEnable, port, from));
        for (const auto& e : c.events_since(from))
            EXPECT_NE(e.type, OMX_EventError);
    }
    EXPECT_EQ(c.comp->pcm_feedback.load(), 1);
    ASSERT_EQ(c.etb(c.in[0], p), OMX_ErrorNone);
    ASSERT_EQ(c.ftb(c.out[0]), OMX_ErrorNone);
    ASSERT_TRUE(c.wait_fbd(1));
    RefDecoder ref;
    EXPECT_TRUE(c.fbd().back().data == pcm_bytes(ref.decode(p)));
}

}  // namespace
}  // namespace omx_test
