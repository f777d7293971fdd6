// Reliability of the component under load: buffers flowing from two client
// threads while a third throws malformed calls at it, and hundreds of
// complete lifecycles. Counts scale with EVRC_STRESS_SCALE (default 1).
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <random>
#include <thread>

#include "tests/omx/omx_client.h"

namespace omx_test {
namespace {

std::size_t scaled(std::size_t n) {
    const char *v = std::getenv("EVRC_STRESS_SCALE");
    const double s = v != nullptr && *v != '\0' ? std::strtod(v, nullptr) : 1.0;
    const auto scaled_n = static_cast<std::size_t>(static_cast<double>(n) * (s > 0 ? s : 1.0));
    return scaled_n > 0 ? scaled_n : 1;
}

// Malformed calls that must all be refused; returns how many were not.
// `in` and `out` are copies of real headers, so not the component's own.
int refused_calls_accepted(Client &c, OMX_BUFFERHEADERTYPE in, OMX_BUFFERHEADERTYPE out) {
    int accepted = 0;
    auto expect = [&](OMX_ERRORTYPE got, OMX_ERRORTYPE want) { accepted += got != want; };
    auto call = [&](bool output, OMX_U32 size, OMX_U32 version, OMX_U32 port) {
        OMX_BUFFERHEADERTYPE b = output ? out : in;
        b.nSize = size;
        b.nVersion.nVersion = version;
        (output ? b.nOutputPortIndex : b.nInputPortIndex) = port;
        return output ? c.comp->fill_this_buffer(c.h, &b) : c.comp->empty_this_buffer(c.h, &b);
    };
    const OMX_U32 size = sizeof(OMX_BUFFERHEADERTYPE);
    expect(call(false, size - 4, 0x101, 0), OMX_ErrorBadParameter);
    expect(call(false, size, 0x102, 0), OMX_ErrorVersionMismatch);
    expect(call(false, size, 0x101, 1), OMX_ErrorBadPortIndex);
    expect(call(false, size, 0x101, 0), OMX_ErrorBadParameter);  // well-formed, but a foreign header
    expect(c.comp->empty_this_buffer(c.h, nullptr), OMX_ErrorBadParameter);
    expect(call(true, 0, 0x101, 1), OMX_ErrorBadParameter);
    expect(call(true, size, 0, 1), OMX_ErrorVersionMismatch);
    expect(call(true, size, 0x101, 0), OMX_ErrorBadPortIndex);
    expect(c.comp->fill_this_buffer(c.h, nullptr), OMX_ErrorBadParameter);
    expect(c.comp->get_parameter(c.h, OMX_IndexParamPortDefinition, nullptr), OMX_ErrorBadParameter);
    expect(c.comp->get_config(c.h, static_cast<OMX_INDEXTYPE>(0x04000023), nullptr), OMX_ErrorBadParameter);
    expect(c.comp->get_state(c.h, nullptr), OMX_ErrorBadParameter);
    expect(c.command(OMX_CommandFlush, 2), OMX_ErrorBadPortIndex);
    return accepted;
}

TEST(OmxStress, TwoClientThreadsDecodeTheStreamExactlyWhileBadCallsAreRefused) {
    // Buffers of one to four random packets; each output holds all of them.
    std::mt19937 rng(424242);
    const std::size_t nbuf = scaled(3000);
    const auto packets = random_stream(424242, nbuf * 4);
    std::vector<Bytes> buffers(nbuf), expected(nbuf);
    RefDecoder ref;
    for (std::size_t b = 0, next = 0; b < nbuf; ++b) {
        for (int k = evrc_random::uniform_int(rng, 1, 4); k > 0; --k, ++next) {
            buffers[b].insert(buffers[b].end(), packets[next].begin(), packets[next].end());
            const Bytes pcm = ref.decode(packets[next]);
            expected[b].insert(expected[b].end(), pcm.begin(), pcm.end());
        }
    }

    Client c;
    ASSERT_TRUE(c.start());

    std::atomic<bool> failed{false}, done{false};
    std::atomic<int> wrongly_accepted{0};
    // Copies of real headers for the malformed calls, taken before the
    // component starts writing into the originals.
    const OMX_BUFFERHEADERTYPE in_copy = *c.in[0], out_copy = *c.out[0];
    std::thread feeder([&] {
        for (std::size_t next = 0; next < nbuf && !failed; ++next) {
            OMX_BUFFERHEADERTYPE *hdr = next < c.in.size() ? c.in[next] : c.ebd(next - c.in.size()).hdr;
            failed = failed || hdr == nullptr || c.etb(hdr, buffers[next]) != OMX_ErrorNone;
        }
    });
    std::thread drainer([&] {
        for (std::size_t next = 0; next < nbuf + c.out.size() && !failed; ++next) {
            const std::size_t got = next - c.out.size();
            OMX_BUFFERHEADERTYPE *hdr = next < c.out.size() ? c.out[next] : c.fbd(got).hdr;
            if (hdr != nullptr && next >= c.out.size() && c.fbd(got).data != expected[got])
                ADD_FAILURE() << "output buffer " << got << " differs from the direct decoder";
            failed = failed || hdr == nullptr || (next < nbuf && c.ftb(hdr) != OMX_ErrorNone);
        }
        done = true;
    });
    std::thread heckler([&, in = in_copy, out = out_copy] {
        while (!done) wrongly_accepted += refused_calls_accepted(c, in, out);
    });
    feeder.join();
    drainer.join();
    heckler.join();
    ASSERT_FALSE(failed) << "a buffer did not come back in time or a valid call was refused";
    EXPECT_EQ(wrongly_accepted.load(), 0);
    EXPECT_FALSE(c.foreign_handle());
}

TEST(OmxStress, HundredsOfCompleteLifecycles) {
    for (std::size_t round = 0; round < scaled(300); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        const bool tunneled = round % 5 == 4;
        Client c(tunneled ? omx_evrc_adec::kTunneledName : omx_evrc_adec::kName);
        ASSERT_EQ(c.command(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
        c.allocate(2, tunneled ? 0 : 2);
        ASSERT_TRUE(c.wait_cmd_complete(OMX_CommandStateSet, OMX_StateIdle));
        ASSERT_TRUE(c.set_state(OMX_StateExecuting));
        if (round % 4 == 1) {
            ASSERT_TRUE(c.set_state(OMX_StatePause));
            ASSERT_TRUE(c.set_state(OMX_StateExecuting));
        }
        ASSERT_TRUE(c.set_state(OMX_StateIdle));
        const std::size_t from = c.event_count();
        if (round % 7 == 6) {
            // Buffers freed in Idle without a pending Loaded: each free is
            // reported as an error event; the client then tears down from Idle.
            const std::size_t n = c.in.size() + c.out.size();
            c.free_all();
            ASSERT_TRUE(c.barrier());
            std::size_t unpopulated = 0;
            for (const auto &e : c.events_since(from))
                unpopulated += e.type == OMX_EventError && e.data1 == static_cast<OMX_U32>(OMX_ErrorPortUnpopulated);
            EXPECT_EQ(unpopulated, n);
            continue;
        }
        ASSERT_EQ(c.command(OMX_CommandStateSet, OMX_StateLoaded), OMX_ErrorNone);
        c.free_all();
        ASSERT_TRUE(c.wait_cmd_complete(OMX_CommandStateSet, OMX_StateLoaded, from));
        for (const auto &e : c.events_since(from))
            EXPECT_NE(e.type, OMX_EventError) << "no unpopulated errors while unloading";
        EXPECT_FALSE(c.foreign_handle());
    }
}

}  // namespace
}  // namespace omx_test
