// The state machine: every current state against every target, and the
// transitions that wait for buffers.
#include <gtest/gtest.h>

#include <thread>

#include "omx_client.h"

namespace omx_test {
namespace {

enum class Outcome { Now, Wait, InvalidEvent, SameState, Incorrect, BadParameter, Refused };

// Brings a fresh client into state s.
void bring_to(Client& c, OMX_STATETYPE s)
{
    switch (s) {
    case OMX_StateLoaded:
        return;
    case OMX_StateIdle:
        ASSERT_EQ(c.command(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
        c.allocate();
        ASSERT_TRUE(c.wait_cmd_complete(OMX_CommandStateSet, OMX_StateIdle));
        return;
    case OMX_StateExecuting:
        ASSERT_TRUE(c.start());
        return;
    case OMX_StatePause:
        ASSERT_TRUE(c.start());
        ASSERT_TRUE(c.set_state(OMX_StatePause));
        return;
    case OMX_StateWaitForResources:
        ASSERT_TRUE(c.set_state(OMX_StateWaitForResources));
        return;
    case OMX_StateInvalid:
        ASSERT_EQ(c.command(OMX_CommandStateSet, OMX_StateInvalid), OMX_ErrorNone);
        ASSERT_TRUE(c.wait_error(OMX_ErrorInvalidState));
        return;
    default:
        FAIL();
    }
}

struct Cell {
    OMX_STATETYPE from;
    unsigned to;
    Outcome outcome;
    const char* log;  // line logged, if any
};

constexpr unsigned kBeyond = 7;

const Cell kTable[] = {
    {OMX_StateLoaded, OMX_StateInvalid, Outcome::InvalidEvent, nullptr},
    {OMX_StateLoaded, OMX_StateLoaded, Outcome::SameState, nullptr},
    {OMX_StateLoaded, OMX_StateIdle, Outcome::Wait, nullptr},
    {OMX_StateLoaded, OMX_StateExecuting, Outcome::Incorrect, nullptr},
    {OMX_StateLoaded, OMX_StatePause, Outcome::Incorrect, nullptr},
    {OMX_StateLoaded, OMX_StateWaitForResources, Outcome::Now, nullptr},
    {OMX_StateLoaded, kBeyond, Outcome::BadParameter, "SCP-->Loaded to Invalid(7))\n"},
    {OMX_StateIdle, OMX_StateInvalid, Outcome::InvalidEvent, nullptr},
    {OMX_StateIdle, OMX_StateLoaded, Outcome::Wait, nullptr},
    {OMX_StateIdle, OMX_StateIdle, Outcome::SameState, nullptr},
    {OMX_StateIdle, OMX_StateExecuting, Outcome::Now, nullptr},
    {OMX_StateIdle, OMX_StatePause, Outcome::Now, nullptr},
    {OMX_StateIdle, OMX_StateWaitForResources, Outcome::Incorrect, nullptr},
    {OMX_StateIdle, kBeyond, Outcome::BadParameter, "SCP--> Idle to 7 Not Handled\n"},
    {OMX_StateExecuting, OMX_StateInvalid, Outcome::InvalidEvent, nullptr},
    {OMX_StateExecuting, OMX_StateLoaded, Outcome::Incorrect, nullptr},
    {OMX_StateExecuting, OMX_StateIdle, Outcome::Now, nullptr},
    {OMX_StateExecuting, OMX_StateExecuting, Outcome::SameState, nullptr},
    {OMX_StateExecuting, OMX_StatePause, Outcome::Now, nullptr},
    {OMX_StateExecuting, OMX_StateWaitForResources, Outcome::Incorrect, nullptr},
    {OMX_StateExecuting, kBeyond, Outcome::BadParameter, "SCP--> Executing to 7 Not Handled\n"},
    {OMX_StatePause, OMX_StateInvalid, Outcome::InvalidEvent, nullptr},
    {OMX_StatePause, OMX_StateLoaded, Outcome::Incorrect, nullptr},
    {OMX_StatePause, OMX_StateIdle, Outcome::Now, nullptr},
    {OMX_StatePause, OMX_StateExecuting, Outcome::Now, nullptr},
    {OMX_StatePause, OMX_StatePause, Outcome::SameState, nullptr},
    {OMX_StatePause, OMX_StateWaitForResources, Outcome::Incorrect, nullptr},
    {OMX_StatePause, kBeyond, Outcome::BadParameter, nullptr},
    {OMX_StateWaitForResources, OMX_StateInvalid, Outcome::InvalidEvent, nullptr},
    {OMX_StateWaitForResources, OMX_StateLoaded, Outcome::Now, nullptr},
    {OMX_StateWaitForResources, OMX_StateIdle, Outcome::BadParameter, "SCP--> 5 to 2(Not Handled)\n"},
    {OMX_StateWaitForResources, OMX_StateExecuting, Outcome::Incorrect, nullptr},
    {OMX_StateWaitForResources, OMX_StatePause, Outcome::Incorrect, nullptr},
    {OMX_StateWaitForResources, OMX_StateWaitForResources, Outcome::SameState, nullptr},
    {OMX_StateWaitForResources, kBeyond, Outcome::BadParameter, "SCP--> 5 to 7(Not Handled)\n"},
    {OMX_StateInvalid, OMX_StateLoaded, Outcome::Refused, nullptr},
    {OMX_StateInvalid, OMX_StateIdle, Outcome::Refused, nullptr},
    {OMX_StateInvalid, kBeyond, Outcome::Refused, nullptr},
};

TEST(OmxStateMachine, EveryTransitionGivesItsEventOrError)
{
    for (const Cell& cell : kTable) {
        SCOPED_TRACE(::testing::Message() << "from " << cell.from << " to " << cell.to);
        clear_log();
        Client c;
        bring_to(c, cell.from);
        ASSERT_EQ(c.state(), cell.from);
        const std::size_t from = c.event_count();
        const OMX_ERRORTYPE ret = c.command(OMX_CommandStateSet, cell.to);
        if (cell.outcome == Outcome::Refused) {
            EXPECT_EQ(ret, OMX_ErrorInvalidState);
            continue;
        }
        ASSERT_EQ(ret, OMX_ErrorNone);
        switch (cell.outcome) {
        case Outcome::Now:
            EXPECT_TRUE(c.wait_cmd_complete(OMX_CommandStateSet, cell.to, from));
            EXPECT_EQ(c.state(), static_cast<OMX_STATETYPE>(cell.to));
            break;
        case Outcome::InvalidEvent:
            EXPECT_GE(c.wait_event(OMX_EventError, static_cast<OMX_U32>(OMX_ErrorInvalidState), 1, from), 0);
            EXPECT_EQ(c.state(), OMX_StateInvalid);
            break;
        case Outcome::SameState:
            EXPECT_GE(c.wait_event(OMX_EventError, static_cast<OMX_U32>(OMX_ErrorSameState), 1, from), 0);
            break;
        case Outcome::Incorrect:
            EXPECT_GE(
                c.wait_event(OMX_EventError, static_cast<OMX_U32>(OMX_ErrorIncorrectStateTransition), 1, from), 0);
            EXPECT_EQ(c.state(), cell.from);
            break;
        case Outcome::Wait:
        case Outcome::BadParameter: {
            ASSERT_TRUE(c.barrier());
            const auto events = c.events_since(from);
            EXPECT_EQ(events.size(), 1u) << "only the barrier's event";
            EXPECT_EQ(c.state(), cell.from);
            break;
        }
        case Outcome::Refused:
            break;
        }
        if (cell.log) {
            EXPECT_TRUE(log_contains(cell.log)) << cell.log;
        }
        for (const auto& e : c.events_since(0))
            EXPECT_EQ(e.handle, c.h);
    }
}

TEST(OmxStateMachine, LoadedToIdleWaitsForTheLastBufferAndIdleToLoadedForTheLastFree)
{
    Client c;
    std::size_t from = c.event_count();
    ASSERT_EQ(c.command(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
    EXPECT_TRUE(c.comp->pending_flags & omx_evrc_adec::PENDING_LOADED_TO_IDLE);
    c.allocate(2, 1);
    ASSERT_TRUE(c.barrier());
    EXPECT_EQ(c.state(), OMX_StateLoaded);
    c.allocate(0, 1);
    ASSERT_TRUE(c.wait_cmd_complete(OMX_CommandStateSet, OMX_StateIdle, from));
    EXPECT_EQ(c.state(), OMX_StateIdle);
    EXPECT_NE(c.comp->decoder_state.load(), nullptr);

    from = c.event_count();
    ASSERT_EQ(c.command(OMX_CommandStateSet, OMX_StateLoaded), OMX_ErrorNone);
    // Three of the four buffers freed: still Idle, and no unpopulated errors
    // while the component is unloading.
    EXPECT_EQ(c.comp->free_buffer(c.h, 0, c.in[0]), OMX_ErrorNone);
    EXPECT_EQ(c.comp->free_buffer(c.h, 0, c.in[1]), OMX_ErrorNone);
    EXPECT_EQ(c.comp->free_buffer(c.h, 1, c.out[0]), OMX_ErrorNone);
    ASSERT_TRUE(c.barrier());
    EXPECT_EQ(c.state(), OMX_StateIdle);
    EXPECT_EQ(c.comp->free_buffer(c.h, 1, c.out[1]), OMX_ErrorNone);
    c.in.clear();
    c.out.clear();
    ASSERT_TRUE(c.wait_cmd_complete(OMX_CommandStateSet, OMX_StateLoaded, from));
    for (const auto& e : c.events_since(from))
        EXPECT_NE(e.data1, static_cast<OMX_U32>(OMX_ErrorPortUnpopulated));
}

TEST(OmxStateMachine, LoadedToIdleCompletesAtOnceWithBothPortsDisabled)
{
    Client c;
    std::size_t from = c.event_count();
    ASSERT_EQ(c.command(OMX_CommandPortDisable, OMX_ALL), OMX_ErrorNone);
    ASSERT_TRUE(c.wait_cmd_complete(OMX_CommandPortDisable, OMX_ALL, from));
    EXPECT_TRUE(c.set_state(OMX_StateIdle));
}

TEST(OmxStateMachine, TunneledComponentNeedsOnlyInputBuffers)
{
    Client c(omx_evrc_adec::kTunneledName);
    EXPECT_EQ(c.comp->pcm_feedback.load(), 0);
    std::size_t from = c.event_count();
    ASSERT_EQ(c.command(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
    c.allocate(2, 0);
    ASSERT_TRUE(c.wait_cmd_complete(OMX_CommandStateSet, OMX_StateIdle, from));
    EXPECT_TRUE(c.comp->in_port_populated.load());
}

TEST(OmxStateMachine, UnknownCommandAndBadFlushPort)
{
    Client c;
    const std::size_t from = c.event_count();
    EXPECT_EQ(c.command(static_cast<OMX_COMMANDTYPE>(5), 0), OMX_ErrorNone);
    EXPECT_TRUE(log_contains("SCP-->ERROR: Invali Command [5]\n"));
    EXPECT_EQ(c.command(OMX_CommandFlush, 2), OMX_ErrorBadPortIndex);
    ASSERT_TRUE(c.barrier());
    EXPECT_EQ(c.events_since(from).size(), 1u);
}

TEST(OmxStateMachine, CompletionsNeedAnEventHandler)
{
    Client c;
    OMX_CALLBACKTYPE none{nullptr, nullptr, nullptr};
    ASSERT_EQ(c.comp->set_callbacks(c.h, &none, nullptr), OMX_ErrorNone);
    clear_log();
    ASSERT_EQ(c.command(OMX_CommandStateSet, OMX_StateWaitForResources), OMX_ErrorNone);
    for (int i = 0; i < 500 && !log_contains("ERROR:CMD-->EventHandler NULL \n"); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(log_contains("ERROR:CMD-->EventHandler NULL \n"));
    EXPECT_EQ(c.state(), OMX_StateLoaded);  // the completion was dropped
    c.plain_teardown = true;
}

}  // namespace
}  // namespace omx_test
