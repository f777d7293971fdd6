// Reliability of the component under load: buffers flowing from two client
// threads while a third throws malformed calls at it, hundreds of complete
// lifecycles, and malformed or foreign headers that must be refused without
// disturbing the stream. Counts scale with EVRC_STRESS_SCALE.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "omx/omx_evrc_adec.h"
#include "tests/omx_stress/omx_client.h"

namespace {

using omx_test::Bytes;
using omx_test::ClientLog;
using omx_test::scaled;

template <typename T>
void init_struct(T& s, OMX_U32 port = 0) {
    std::memset(&s, 0, sizeof(s));
    s.nSize = sizeof(T);
    s.nVersion.nVersion = 0x00000101;
    s.nPortIndex = port;
}

// A component created through the factory, as a core would, with the
// client log's callbacks; always torn down and deleted.
class Component {
public:
    Component(ClientLog& log, const char* name = "OMX.vemo.audio.decoder.evrc") {
        c_ = static_cast<omx_evrc_adec*>(get_omx_component_factory_fn());
        h_ = &c_->handle;
        std::string n(name);
        init_ = c_->component_init(&n[0]);
        OMX_CALLBACKTYPE cb = log.callbacks();
        callbacks_ = c_->set_callbacks(h_, &cb, &log);
    }
    ~Component() {
        c_->component_deinit(h_);
        delete c_;
    }
    Component(const Component&) = delete;
    Component& operator=(const Component&) = delete;

    bool ready() const { return init_ == OMX_ErrorNone && callbacks_ == OMX_ErrorNone; }
    omx_evrc_adec* operator->() { return c_; }
    OMX_HANDLETYPE h() const { return h_; }

    void set_buffer_count(OMX_U32 port, OMX_U32 count) {
        OMX_PARAM_PORTDEFINITIONTYPE def;
        init_struct(def, port);
        ASSERT_EQ(c_->get_parameter(h_, OMX_IndexParamPortDefinition, &def), OMX_ErrorNone);
        def.nBufferCountActual = count;
        ASSERT_EQ(c_->set_parameter(h_, OMX_IndexParamPortDefinition, &def), OMX_ErrorNone);
    }

    // Loaded -> Idle with every buffer of the used ports allocated.
    void to_idle(ClientLog& log, bool with_output = true) {
        ASSERT_EQ(c_->send_command(h_, OMX_CommandStateSet, OMX_StateIdle, nullptr), OMX_ErrorNone);
        for (unsigned port = 0; port < (with_output ? 2u : 1u); ++port) {
            OMX_PARAM_PORTDEFINITIONTYPE def;
            init_struct(def, port);
            ASSERT_EQ(c_->get_parameter(h_, OMX_IndexParamPortDefinition, &def), OMX_ErrorNone);
            for (OMX_U32 i = 0; i < def.nBufferCountActual; ++i) {
                OMX_BUFFERHEADERTYPE* hdr = nullptr;
                ASSERT_EQ(c_->allocate_buffer(h_, &hdr, port, nullptr, static_cast<unsigned>(def.nBufferSize)),
                          OMX_ErrorNone);
                (port == 0 ? in : out).push_back(hdr);
            }
        }
        ASSERT_TRUE(log.wait_state(OMX_StateIdle));
    }
    void set_state(ClientLog& log, OMX_STATETYPE s) {
        ASSERT_EQ(c_->send_command(h_, OMX_CommandStateSet, s, nullptr), OMX_ErrorNone);
        ASSERT_TRUE(log.wait_state(s)) << "state " << s;
    }
    // Idle -> Loaded, freeing every buffer.
    void to_loaded(ClientLog& log) {
        ASSERT_EQ(c_->send_command(h_, OMX_CommandStateSet, OMX_StateLoaded, nullptr), OMX_ErrorNone);
        free_all();
        ASSERT_TRUE(log.wait_state(OMX_StateLoaded));
    }
    void free_all() {
        for (OMX_BUFFERHEADERTYPE* hdr : in) EXPECT_EQ(c_->free_buffer(h_, 0, hdr), OMX_ErrorNone);
        for (OMX_BUFFERHEADERTYPE* hdr : out) EXPECT_EQ(c_->free_buffer(h_, 1, hdr), OMX_ErrorNone);
        in.clear();
        out.clear();
    }

    std::vector<OMX_BUFFERHEADERTYPE*> in, out;

private:
    omx_evrc_adec* c_;
    OMX_HANDLETYPE h_;
    OMX_ERRORTYPE init_;
    OMX_ERRORTYPE callbacks_;
};

void fill_input(OMX_BUFFERHEADERTYPE* hdr, const Bytes& data) {
    if (!data.empty()) std::memcpy(hdr->pBuffer, data.data(), data.size());
    hdr->nOffset = 0;
    hdr->nFilledLen = static_cast<OMX_U32>(data.size());
    hdr->nFlags = 0;
}

// Malformed calls that must all be refused; returns how many were not.
// `valid_in` and `valid_out` are copies of real headers, taken while the
// component did not hold them.
int refused_calls_accepted(omx_evrc_adec* c, OMX_HANDLETYPE h, const OMX_BUFFERHEADERTYPE& valid_in,
                           const OMX_BUFFERHEADERTYPE& valid_out) {
    int accepted = 0;
    auto expect = [&](OMX_ERRORTYPE got, OMX_ERRORTYPE want) { accepted += (got != want); };

    OMX_BUFFERHEADERTYPE bad_in = valid_in;
    bad_in.nSize = sizeof(OMX_BUFFERHEADERTYPE) - 4;
    expect(c->empty_this_buffer(h, &bad_in), OMX_ErrorBadParameter);
    bad_in = valid_in;
    bad_in.nVersion.nVersion = 0x00000102;
    expect(c->empty_this_buffer(h, &bad_in), OMX_ErrorVersionMismatch);
    bad_in = valid_in;
    bad_in.nInputPortIndex = 1;
    expect(c->empty_this_buffer(h, &bad_in), OMX_ErrorBadPortIndex);
    // Well-formed, but not one of this component's headers.
    bad_in = valid_in;
    expect(c->empty_this_buffer(h, &bad_in), OMX_ErrorBadParameter);
    expect(c->empty_this_buffer(h, nullptr), OMX_ErrorBadParameter);

    OMX_BUFFERHEADERTYPE bad_out = valid_out;
    bad_out.nSize = 0;
    expect(c->fill_this_buffer(h, &bad_out), OMX_ErrorBadParameter);
    bad_out = valid_out;
    bad_out.nVersion.nVersion = 0;
    expect(c->fill_this_buffer(h, &bad_out), OMX_ErrorVersionMismatch);
    bad_out = valid_out;
    bad_out.nOutputPortIndex = 0;
    expect(c->fill_this_buffer(h, &bad_out), OMX_ErrorBadPortIndex);
    expect(c->fill_this_buffer(h, nullptr), OMX_ErrorBadParameter);

    expect(c->get_parameter(h, OMX_IndexParamPortDefinition, nullptr), OMX_ErrorBadParameter);
    expect(c->get_config(h, static_cast<OMX_INDEXTYPE>(0x04000023), nullptr), OMX_ErrorBadParameter);
    expect(c->get_state(h, nullptr), OMX_ErrorBadParameter);
    OMX_PARAM_PORTDEFINITIONTYPE def;
    init_struct(def, 7);
    expect(c->get_parameter(h, OMX_IndexParamPortDefinition, &def), OMX_ErrorBadPortIndex);
    expect(c->send_command(h, OMX_CommandFlush, 2, nullptr), OMX_ErrorBadPortIndex);
    return accepted;
}

TEST(OmxStress, TwoClientThreadsDecodeTheStreamExactlyWhileBadCallsAreRefused) {
    std::mt19937 rng(424242);
    const omx_test::Stream stream = omx_test::random_stream(rng, scaled(3000), 4);
    const std::vector<std::int16_t> expected = omx_test::reference_pcm(stream.packets);
    const std::size_t nbuf = stream.buffers.size();

    ClientLog log;
    Component c(log);
    ASSERT_TRUE(c.ready());
    ASSERT_NO_FATAL_FAILURE(c.set_buffer_count(0, 4));
    ASSERT_NO_FATAL_FAILURE(c.set_buffer_count(1, 3));
    ASSERT_NO_FATAL_FAILURE(c.to_idle(log));
    ASSERT_NO_FATAL_FAILURE(c.set_state(log, OMX_StateExecuting));

    const OMX_BUFFERHEADERTYPE in_template = *c.in[0];
    const OMX_BUFFERHEADERTYPE out_template = *c.out[0];
    std::atomic<bool> failed{false};
    std::atomic<bool> done{false};
    std::vector<std::int16_t> pcm;
    std::vector<std::size_t> sizes;

    std::thread feeder([&] {
        std::size_t next = 0;
        for (OMX_BUFFERHEADERTYPE* hdr : c.in) {
            fill_input(hdr, stream.buffers[next++]);
            if (c->empty_this_buffer(c.h(), hdr) != OMX_ErrorNone) failed = true;
        }
        while (next < nbuf && !failed) {
            OMX_BUFFERHEADERTYPE* hdr = log.wait_empty_done();
            if (hdr == nullptr) {
                failed = true;
                break;
            }
            fill_input(hdr, stream.buffers[next++]);
            if (c->empty_this_buffer(c.h(), hdr) != OMX_ErrorNone) failed = true;
        }
    });
    std::thread drainer([&] {
        std::size_t outstanding = 0;
        for (OMX_BUFFERHEADERTYPE* hdr : c.out) {
            if (c->fill_this_buffer(c.h(), hdr) != OMX_ErrorNone) failed = true;
            ++outstanding;
        }
        std::size_t received = 0;
        while (received < nbuf && !failed) {
            OMX_BUFFERHEADERTYPE* hdr = log.wait_fill_done();
            if (hdr == nullptr) {
                failed = true;
                break;
            }
            --outstanding;
            ++received;
            sizes.push_back(hdr->nFilledLen);
            omx_test::append_pcm(pcm, hdr);
            if (received + outstanding < nbuf) {
                if (c->fill_this_buffer(c.h(), hdr) != OMX_ErrorNone) failed = true;
                ++outstanding;
            }
        }
        done = true;
    });
    std::atomic<int> wrongly_accepted{0};
    std::thread heckler([&] {
        while (!done) {
            wrongly_accepted += refused_calls_accepted(c.operator->(), c.h(), in_template, out_template);
            std::this_thread::yield();
        }
    });
    feeder.join();
    drainer.join();
    heckler.join();

    ASSERT_FALSE(failed) << "a buffer did not come back in time or a valid call was refused";
    EXPECT_EQ(wrongly_accepted.load(), 0);
    ASSERT_EQ(sizes.size(), nbuf);
    for (std::size_t b = 0; b < nbuf; ++b)
        ASSERT_EQ(sizes[b], stream.packets_in_buffer[b] * 320) << "output buffer " << b;
    EXPECT_TRUE(pcm == expected) << "PCM differs from the direct decoder";
    EXPECT_EQ(log.foreign_callbacks(c.h()), 0);

    // Input buffers still held by the component come back on the way to Idle.
    ASSERT_NO_FATAL_FAILURE(c.set_state(log, OMX_StateIdle));
    ASSERT_NO_FATAL_FAILURE(c.to_loaded(log));
}

// Runs one input buffer through an Executing component and checks that its
// output comes back with the right length.
void decode_one(Component& c, ClientLog& log, std::mt19937& rng) {
    const Bytes packet = evrc_test::random_packet_bytes(rng, EVRC_RATE_FULL);
    fill_input(c.in[0], packet);
    ASSERT_EQ(c->fill_this_buffer(c.h(), c.out[0]), OMX_ErrorNone);
    ASSERT_EQ(c->empty_this_buffer(c.h(), c.in[0]), OMX_ErrorNone);
    ASSERT_EQ(log.wait_empty_done(), c.in[0]);
    OMX_BUFFERHEADERTYPE* out = log.wait_fill_done();
    ASSERT_EQ(out, c.out[0]);
    EXPECT_EQ(out->nFilledLen, 320u);
}

TEST(OmxStress, HundredsOfCompleteLifecycles) {
    std::mt19937 rng(99);
    const std::size_t rounds = scaled(300);
    for (std::size_t round = 0; round < rounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        ClientLog log;
        const bool tunneled = round % 5 == 4;
        Component c(log, tunneled ? "OMX.vemo.audio.decoder.tunneled.evrc" : "OMX.vemo.audio.decoder.evrc");
        ASSERT_TRUE(c.ready());
        ASSERT_NO_FATAL_FAILURE(c.to_idle(log, !tunneled));
        ASSERT_NO_FATAL_FAILURE(c.set_state(log, OMX_StateExecuting));
        if (!tunneled && round % 3 == 0) {
            ASSERT_NO_FATAL_FAILURE(decode_one(c, log, rng));
        }
        if (round % 4 == 1) {
            ASSERT_NO_FATAL_FAILURE(c.set_state(log, OMX_StatePause));
            ASSERT_NO_FATAL_FAILURE(c.set_state(log, OMX_StateExecuting));
        }
        ASSERT_NO_FATAL_FAILURE(c.set_state(log, OMX_StateIdle));
        if (round % 7 == 6) {
            // Buffers freed in Idle without a pending Loaded: each free is
            // reported as an error event; then the component is torn down
            // from Idle.
            c.free_all();
            for (std::size_t i = 0; i < (tunneled ? 2u : 4u); ++i)
                EXPECT_TRUE(log.wait_event(OMX_EventError, OMX_ErrorPortUnpopulated, 0));
            continue;
        }
        ASSERT_NO_FATAL_FAILURE(c.to_loaded(log));
        EXPECT_EQ(log.foreign_callbacks(c.h()), 0);
    }
}

TEST(OmxStress, BadHeadersAreRefusedAndTheStreamGoesOn) {
    ClientLog log;
    Component c(log);
    ASSERT_TRUE(c.ready());
    // Loaded: no buffer may be created through a null header pointer.
    EXPECT_EQ(c->allocate_buffer(c.h(), nullptr, 0, nullptr, 720), OMX_ErrorBadParameter);
    EXPECT_EQ(c->free_buffer(c.h(), 0, nullptr), OMX_ErrorBadParameter);
    ASSERT_NO_FATAL_FAILURE(c.to_idle(log));
    ASSERT_NO_FATAL_FAILURE(c.set_state(log, OMX_StateExecuting));

    EXPECT_EQ(refused_calls_accepted(c.operator->(), c.h(), *c.in[0], *c.out[0]), 0);

    // The stream is undisturbed: the next buffers decode exactly.
    std::mt19937 rng(3);
    const omx_test::Stream stream = omx_test::random_stream(rng, 6);
    std::vector<std::int16_t> pcm;
    for (const Bytes& buf : stream.buffers) {
        fill_input(c.in[0], buf);
        ASSERT_EQ(c->fill_this_buffer(c.h(), c.out[0]), OMX_ErrorNone);
        ASSERT_EQ(c->empty_this_buffer(c.h(), c.in[0]), OMX_ErrorNone);
        ASSERT_EQ(log.wait_empty_done(), c.in[0]);
        OMX_BUFFERHEADERTYPE* out = log.wait_fill_done();
        ASSERT_EQ(out, c.out[0]);
        omx_test::append_pcm(pcm, out);
    }
    EXPECT_TRUE(pcm == omx_test::reference_pcm(stream.packets));

    ASSERT_NO_FATAL_FAILURE(c.set_state(log, OMX_StateIdle));
    ASSERT_NO_FATAL_FAILURE(c.to_loaded(log));
}

}  // namespace
