// The state machine: every current state against every target, and deinit
// from a running state.
#include <gtest/gtest.h>

#include "omx_client.h"

namespace omx_test {
namespace {

// Brings a fresh client into state s.
void bring_to(Client& c, OMX_STATETYPE s)
{
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
const char* const kTable[] = {"-RR---R", "ISWXXNB", "IWSNNXB", "IXNSNXB", "IXNNSXB", "INBXXSB"};

struct Logged {
    OMX_STATETYPE from;
    unsigned to;
    const char* line;
};
const Logged kLogged[] = {{OMX_StateLoaded, 7, "SCP-->Loaded to Invalid(7))\n"},
                          {OMX_StateIdle, 7, "SCP--> Idle to 7 Not Handled\n"},
                          {OMX_StateExecuting, 7, "SCP--> Executing to 7 Not Handled\n"},
                          {OMX_StateWaitForResources, OMX_StateIdle, "SCP--> 5 to 2(Not Handled)\n"},
                          {OMX_StateWaitForResources, 7, "SCP--> 5 to 7(Not Handled)\n"}};

TEST(OmxStateMachine, EveryTransitionGivesItsEventOrError)
{
    for (unsigned from_i = 0; from_i < 6; ++from_i) {
        for (unsigned to = 0; to < 7; ++to) {
            const char outcome = kTable[from_i][to];
            const auto from_state = static_cast<OMX_STATETYPE>(from_i);
            SCOPED_TRACE(::testing::Message() << "from " << from_i << " to " << to);
            if (outcome == '-')
                continue;
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
            EXPECT_EQ(c.state(), outcome == 'I' ? OMX_StateInvalid : moves ? static_cast<OMX_STATETYPE>(to) : from_state);
            for (const Logged& l : kLogged)
                EXPECT_TRUE(l.from != from_state || l.to != to || log_contains(l.line)) << l.line;
            EXPECT_FALSE(c.foreign_handle());
        }
    }
}

TEST(OmxStateMachine, DeinitFromExecutingWarnsAndTearsDown)
{
    Client c;
    ASSERT_TRUE(c.start());
    clear_log();
    ASSERT_EQ(c.comp->component_deinit(c.h), OMX_ErrorNone);
    EXPECT_TRUE(log_contains("Warning: Received DeInit when not in LOADED state,\t\t\t\tcur_state 3\n"));
    EXPECT_TRUE(log_contains("COMPONENT DEINIT\n"));
    EXPECT_EQ(c.comp->input_thread.load(), nullptr);
    EXPECT_EQ(c.comp->cmd_thread.load(), nullptr);
    EXPECT_EQ(c.comp->decoder_state.load(), nullptr);
}

}  // namespace
}  // namespace omx_test
