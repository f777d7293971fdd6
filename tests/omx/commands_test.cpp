// The commands: the state machine (every current state against every
// target, deinit from a running state), flushes, port disable and enable.
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <random>

#include "omx_client.h"

namespace omx_test {
namespace {

// Brings a fresh client into state s.
void bring_to(Client &c, OMX_STATETYPE s) {
    if (s == OMX_StateIdle) {
        ASSERT_EQ(c.command(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
        c.allocate();
        ASSERT_TRUE(c.wait_cmd_complete(OMX_CommandStateSet, OMX_StateIdle));
    } else if (s == OMX_StateExecuting || s == OMX_StatePause) {
        ASSERT_TRUE(c.start());
        ASSERT_TRUE(s != OMX_StatePause || c.set_state(s));
    } else if (s == OMX_StateWaitForResources) {
        ASSERT_TRUE(c.set_state(s));
    } else if (s == OMX_StateInvalid) {
        ASSERT_EQ(c.command(OMX_CommandStateSet, OMX_StateInvalid), OMX_ErrorNone);
        ASSERT_GE(c.wait_event(OMX_EventError, static_cast<OMX_U32>(OMX_ErrorInvalidState), 0, 0, true), 0);
    }
}

// Rows: current state Invalid, Loaded .. WaitForResources. Columns: target
// Invalid, Loaded .. WaitForResources, then 7 (beyond the last state).
// N completes now, W waits for buffers (nothing yet), I goes Invalid with an
// error event, S is a SameState error, X an IncorrectStateTransition error,
// B ignored as a bad parameter, R refused by the call itself, - not tried.
const char *const kTable[] = {"-RR---R", "ISWXXNB", "IWSNNXB", "IXNSNXB", "IXNNSXB", "INBXXSB"};

struct Logged {
    OMX_STATETYPE from;
    unsigned to;
    const char *line;
};
const Logged kLogged[] = {{OMX_StateLoaded, 7, "SCP-->Loaded to Invalid(7))\n"},
                          {OMX_StateIdle, 7, "SCP--> Idle to 7 Not Handled\n"},
                          {OMX_StateExecuting, 7, "SCP--> Executing to 7 Not Handled\n"},
                          {OMX_StateWaitForResources, OMX_StateIdle, "SCP--> 5 to 2(Not Handled)\n"},
                          {OMX_StateWaitForResources, 7, "SCP--> 5 to 7(Not Handled)\n"}};

TEST(OmxStateMachine, EveryTransitionGivesItsEventOrError) {
    for (unsigned from_i = 0; from_i < 6; ++from_i) {
        for (unsigned to = 0; to < 7; ++to) {
            const char outcome = kTable[from_i][to];
            const auto from_state = static_cast<OMX_STATETYPE>(from_i);
            SCOPED_TRACE(::testing::Message() << "from " << from_i << " to " << to);
            if (outcome == '-') continue;
            clear_log();
            Client c;
            bring_to(c, from_state);
            ASSERT_EQ(c.state(), from_state);
            const std::size_t from = c.event_count();
            const OMX_ERRORTYPE ret = c.command(OMX_CommandStateSet, to);
            if (outcome == 'R') {
                EXPECT_EQ(ret, OMX_ErrorInvalidState);
                continue;
            }
            ASSERT_EQ(ret, OMX_ErrorNone);
            const OMX_ERRORTYPE err = outcome == 'I'   ? OMX_ErrorInvalidState
                                      : outcome == 'S' ? OMX_ErrorSameState
                                                       : OMX_ErrorIncorrectStateTransition;
            if (outcome == 'N') {
                EXPECT_TRUE(c.wait_cmd_complete(OMX_CommandStateSet, to, from));
            } else if (outcome == 'W' || outcome == 'B') {
                ASSERT_TRUE(c.barrier());
                EXPECT_EQ(c.events_since(from).size(), 1u) << "only the barrier's event";
            } else {
                EXPECT_GE(c.wait_event(OMX_EventError, static_cast<OMX_U32>(err), 1, from), 0);
            }
            const bool moves = outcome == 'N' || outcome == 'I';
            EXPECT_EQ(c.state(), outcome == 'I' ? OMX_StateInvalid
                                 : moves        ? static_cast<OMX_STATETYPE>(to)
                                                : from_state);
            for (const Logged &l : kLogged)
                EXPECT_TRUE(l.from != from_state || l.to != to || log_contains(l.line)) << l.line;
            EXPECT_FALSE(c.foreign_handle());
        }
    }
}

TEST(OmxStateMachine, DeinitFromExecutingWarnsAndTearsDown) {
    Client c;
    ASSERT_TRUE(c.start());
    clear_log();
    ASSERT_EQ(c.comp->component_deinit(c.h), OMX_ErrorNone);
    EXPECT_TRUE(log_contains("Warning: Received DeInit when not in LOADED state,\t\t\t\tcur_state 3\n"));
    EXPECT_TRUE(log_contains("COMPONENT DEINIT\n"));
    EXPECT_TRUE(!c.comp->input_thread.load() && !c.comp->cmd_thread.load() && !c.comp->decoder_state.load());
}

// A worker told to stop ends without any further message; a message posted
// to it afterwards (as the other worker may still do while it winds down)
// is refused, and lands neither in the worker nor in a file opened since.
TEST(OmxWorkers, StopEndsTheWorkerAndRefusesLatePosts) {
    static std::atomic<int> handled{0};
    WorkerThread *t = omx_evrc_thread_create([](void *, unsigned char) { ++handled; }, nullptr, "TEST");
    ASSERT_NE(t, nullptr);
    omx_evrc_post_msg(t, 1);
    for (int i = 0; i < 2000 && handled == 0; ++i) usleep(1000);
    ASSERT_EQ(handled, 1);
    omx_evrc_thread_request_stop(t);
    FILE *f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    omx_evrc_post_msg(t, 1);
    omx_evrc_thread_join(t);
    EXPECT_EQ(handled, 1);
    std::fseek(f, 0, SEEK_END);
    EXPECT_EQ(std::ftell(f), 0);
    std::fclose(f);
}

TEST(OmxFlush, EachPortReturnsQueuedBuffersAndRestartsTheDecoder) {
    std::mt19937 rng(23);
    const auto a = evrc_random::random_packet_bytes(rng, EVRC_RATE_FULL);
    const auto b = evrc_random::random_packet_bytes(rng, EVRC_RATE_FULL);
    const auto d = evrc_random::random_packet_bytes(rng, EVRC_RATE_HALF);
    Client c;
    ASSERT_TRUE(c.start());

    // An input buffer waits for an output buffer; flushing all returns it
    // and completes port 0, then port 1.
    std::size_t from = c.event_count();
    ASSERT_EQ(c.etb(c.in[0], {EVRC_RATE_BLANK}), OMX_ErrorNone);
    ASSERT_EQ(c.command(OMX_CommandFlush, OMX_ALL), OMX_ErrorNone);
    EXPECT_EQ(c.ebd(0).hdr, c.in[0]);
    const long p0 = c.wait_event(OMX_EventCmdComplete, OMX_CommandFlush, 0, from);
    const long p1 = c.wait_event(OMX_EventCmdComplete, OMX_CommandFlush, 1, from);
    ASSERT_GE(p0, 0);
    EXPECT_LT(p0, p1);

    // An output buffer alone comes back unfilled.
    c.out[0]->nFilledLen = 77;
    ASSERT_EQ(c.ftb(c.out[0]), OMX_ErrorNone);
    from = c.event_count();
    ASSERT_EQ(c.command(OMX_CommandFlush, 1), OMX_ErrorNone);
    ASSERT_EQ(c.fbd(0).hdr, c.out[0]);
    EXPECT_EQ(c.fbd(0).filled, 77u);
    ASSERT_TRUE(c.wait_cmd_complete(OMX_CommandFlush, 1, from));

    // Port 0 alone still flushes the whole input side, reporting port 0 only.
    ASSERT_EQ(c.ftb(c.out[1]), OMX_ErrorNone);
    from = c.event_count();
    ASSERT_EQ(c.command(OMX_CommandFlush, 0), OMX_ErrorNone);
    ASSERT_NE(c.fbd(1).hdr, nullptr);
    ASSERT_TRUE(c.wait_cmd_complete(OMX_CommandFlush, 0, from));
    ASSERT_TRUE(c.barrier());
    for (const auto &e : c.events_since(from)) EXPECT_FALSE(e.type == OMX_EventCmdComplete && e.data2 == 1);
    EXPECT_EQ(c.comp->etb_count.load(), 0u);
    EXPECT_EQ(c.comp->ftb_count.load(), 0u);
    EXPECT_EQ(c.comp->flush_ack_count.load(), 0);

    // A flush drops a partial packet and starts the decoder afresh.
    Bytes first = a;
    first.insert(first.end(), b.begin(), b.begin() + 9);
    ASSERT_TRUE(c.exchange(0, first));
    ASSERT_NE(c.fbd(2).hdr, nullptr);
    from = c.event_count();
    ASSERT_EQ(c.command(OMX_CommandFlush, OMX_ALL), OMX_ErrorNone);
    ASSERT_TRUE(c.wait_cmd_complete(OMX_CommandFlush, 1, from));
    EXPECT_EQ(c.comp->resid_len.load(), 0u);
    // Reference first: two decoders running at once would race on the
    // arithmetic layer's shared diagnostic counter.
    RefDecoder ref;  // the component's decoder has seen `a` before its restart
    ref.decode(a);
    ref.reset();
    const Bytes expected = ref.decode(d);
    ASSERT_TRUE(c.exchange(1, d));
    EXPECT_TRUE(c.fbd(3).data == expected);
}

TEST(OmxPorts, DisableWhileRunningWaitsForFreesAndEnableForBuffers) {
    std::mt19937 rng(29);
    const auto p = evrc_random::random_packet_bytes(rng, EVRC_RATE_FULL);
    Client c;
    ASSERT_TRUE(c.start());

    for (OMX_U32 port : {0u, 1u}) {
        SCOPED_TRACE(port);
        auto &bufs = port == 0 ? c.in : c.out;
        std::size_t from = c.event_count();
        ASSERT_EQ(c.command(OMX_CommandPortDisable, port), OMX_ErrorNone);
        EXPECT_EQ(port == 0 ? c.etb(c.in[0], p) : c.ftb(c.out[0]), OMX_ErrorIncorrectStateOperation);
        EXPECT_EQ(c.comp->free_buffer(c.h, port, bufs[0]), OMX_ErrorNone);
        ASSERT_TRUE(c.barrier());
        for (const auto &e : c.events_since(from))
            EXPECT_FALSE(e.type == OMX_EventCmdComplete && e.data1 == OMX_CommandPortDisable);
        EXPECT_EQ(c.comp->free_buffer(c.h, port, bufs[1]), OMX_ErrorNone);
        bufs.clear();
        ASSERT_TRUE(c.wait_cmd_complete(OMX_CommandPortDisable, port, from));

        from = c.event_count();
        ASSERT_EQ(c.command(OMX_CommandPortEnable, port), OMX_ErrorNone);
        c.allocate(port == 0 ? 2 : 0, port == 1 ? 2 : 0);
        ASSERT_EQ(bufs.size(), 2u);
        ASSERT_TRUE(c.wait_cmd_complete(OMX_CommandPortEnable, port, from));
        for (const auto &e : c.events_since(from)) EXPECT_NE(e.type, OMX_EventError);
    }
    EXPECT_EQ(c.comp->pcm_feedback.load(), 1);
    const Bytes want = RefDecoder().decode(p);  // before the component decodes: one decoder at a time
    ASSERT_TRUE(c.exchange(0, p));
    EXPECT_TRUE(c.fbd(0).data == want);
}

}  // namespace
}  // namespace omx_test
