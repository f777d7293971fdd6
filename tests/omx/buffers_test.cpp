// Buffer allocation, parameters and configuration; decoding through the
// component against a direct decode of the same packets.
#include <gtest/gtest.h>

#include <random>
#include <thread>

#include "omx_client.h"

namespace omx_test {
namespace {

const OMX_INDEXTYPE kVolume = static_cast<OMX_INDEXTYPE>(0x04000023);
const OMX_INDEXTYPE kMute = static_cast<OMX_INDEXTYPE>(0x04000026);

TEST(OmxBuffers, CountsSizesAndUseBuffer) {
    Client c;
    int app = 0;
    // Requested sizes below the port's are raised to it, larger ones kept;
    // a third buffer on a port of two is refused.
    const struct {
        unsigned port, request, alloc;
    } kAllocs[] = {{0, 100, 720}, {0, 800, 800}, {1, 100, 9600}, {1, 20000, 20000}};
    for (const auto &a : kAllocs) {
        OMX_BUFFERHEADERTYPE *hdr = nullptr;
        ASSERT_EQ(c.comp->allocate_buffer(c.h, &hdr, a.port, &app, a.request), OMX_ErrorNone);
        (a.port ? c.out : c.in).push_back(hdr);
        EXPECT_EQ(hdr->nAllocLen, a.alloc);
        EXPECT_EQ(hdr->pAppPrivate, &app);
        EXPECT_EQ(a.port ? hdr->nOutputPortIndex : hdr->nInputPortIndex, a.port);
        std::memset(hdr->pBuffer, 0x5A, hdr->nAllocLen);  // the whole block is ours
    }
    OMX_BUFFERHEADERTYPE *x = nullptr;
    EXPECT_EQ(c.comp->allocate_buffer(c.h, &x, 0, nullptr, 0), OMX_ErrorInsufficientResources);
    clear_log();
    EXPECT_EQ(c.comp->allocate_buffer(c.h, &x, 2, nullptr, 0), OMX_ErrorBadPortIndex);
    EXPECT_TRUE(log_contains("Error: Invalid Port Index received 2\n"));
    EXPECT_TRUE(c.comp->in_port_populated && c.comp->out_port_populated);

    // use_buffer: a larger client buffer raises the port's size, a smaller
    // one is described with the port's size.
    Client u;
    std::vector<unsigned char> mem(1000), mem2(500);
    ASSERT_EQ(u.comp->use_buffer(u.h, &x, 0, nullptr, 1000, mem.data()), OMX_ErrorNone);
    u.in.push_back(x);
    EXPECT_EQ(x->pBuffer, mem.data());
    OMX_PARAM_PORTDEFINITIONTYPE def{};
    ASSERT_EQ(u.comp->get_parameter(u.h, OMX_IndexParamPortDefinition, &def), OMX_ErrorNone);
    EXPECT_EQ(def.nBufferSize, 1000u);
    ASSERT_EQ(u.comp->use_buffer(u.h, &x, 0, nullptr, 500, mem2.data()), OMX_ErrorNone);
    u.in.push_back(x);
    EXPECT_EQ(x->nAllocLen, 1000u);
    EXPECT_EQ(u.comp->use_buffer(u.h, &x, 0, nullptr, 500, mem2.data()), OMX_ErrorInsufficientResources);
    EXPECT_EQ(u.comp->use_buffer(u.h, &x, 5, nullptr, 500, mem2.data()), OMX_ErrorBadPortIndex);
}

// The records a client negotiates: the port definitions (the input count
// never below two), PCM on port 1 only, unknown indices refused, nothing set
// once the component runs. Volume and mute are only stored (they change no
// sample): their range and the refusal while executing.
TEST(OmxParameters, PortDefinitionsPcmAndConfig) {
    Client c;
    OMX_PARAM_PORTDEFINITIONTYPE def{};
    for (OMX_U32 port : {0u, 1u, 2u}) {
        def.nPortIndex = port;
        EXPECT_EQ(c.comp->get_parameter(c.h, OMX_IndexParamPortDefinition, &def),
                  port < 2 ? OMX_ErrorNone : OMX_ErrorBadPortIndex);
        EXPECT_TRUE(port == 2 || def.format.audio.eEncoding == (port ? OMX_AUDIO_CodingPCM : OMX_AUDIO_CodingEVRC));
    }
    for (OMX_U32 port : {0u, 1u}) {
        def.nPortIndex = port;
        def.nBufferCountActual = 1 + 2 * port;
        def.nBufferSize = 100 + port;
        ASSERT_EQ(c.comp->set_parameter(c.h, OMX_IndexParamPortDefinition, &def), OMX_ErrorNone);
    }
    EXPECT_EQ(c.comp->in_actual_count.load(), 2u);
    EXPECT_EQ(c.comp->out_actual_count.load(), 3u);
    EXPECT_EQ(c.comp->input_buffer_size.load(), 100u);

    OMX_AUDIO_PARAM_PCMMODETYPE pcm{};
    for (OMX_U32 port : {0u, 1u}) {
        pcm.nPortIndex = port;
        EXPECT_EQ(c.comp->get_parameter(c.h, OMX_IndexParamAudioPcm, &pcm),
                  port ? OMX_ErrorNone : OMX_ErrorBadPortIndex);
        EXPECT_EQ(c.comp->set_parameter(c.h, OMX_IndexParamAudioPcm, &pcm),
                  port ? OMX_ErrorNone : OMX_ErrorBadPortIndex);
    }
    EXPECT_EQ(pcm.nSamplingRate, 8000u);
    clear_log();
    EXPECT_EQ(c.comp->get_parameter(c.h, static_cast<OMX_INDEXTYPE>(0x7F000001), &pcm), OMX_ErrorUnsupportedIndex);
    EXPECT_TRUE(log_contains("unknown param 7f000001\n"));

    OMX_AUDIO_CONFIG_VOLUMETYPE vol{};
    for (OMX_S32 v : {101, -1, 100}) {
        vol.sVolume.nValue = v;
        EXPECT_EQ(c.comp->set_config(c.h, kVolume, &vol), v == 100 ? OMX_ErrorNone : OMX_ErrorBadParameter);
    }
    OMX_AUDIO_CONFIG_MUTETYPE mute{};
    mute.bMute = OMX_TRUE;
    ASSERT_EQ(c.comp->set_config(c.h, kMute, &mute), OMX_ErrorNone);
    ASSERT_EQ(c.comp->get_config(c.h, kVolume, &vol), OMX_ErrorNone);
    ASSERT_EQ(c.comp->get_config(c.h, kMute, &mute), OMX_ErrorNone);
    EXPECT_EQ(vol.sVolume.nValue, 100);
    EXPECT_EQ(mute.bMute, OMX_TRUE);

    Client e;  // at its default counts
    ASSERT_TRUE(e.start());
    EXPECT_EQ(e.comp->set_parameter(e.h, OMX_IndexParamPortDefinition, &def), OMX_ErrorIncorrectStateOperation);
    EXPECT_EQ(e.comp->set_config(e.h, kMute, &mute), OMX_ErrorInvalidState);
    EXPECT_TRUE(log_contains("set_parameter is not in proper state\n"));
    EXPECT_TRUE(log_contains("set_config:Ignore in Exe state\n"));
}

Bytes concat(const std::vector<Bytes> &parts) {
    Bytes all;
    for (const auto &p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

// Feeds the byte stream of random packets in random chunks, one buffer at a
// time, and checks every output buffer against the reference decoder: it
// holds the PCM of the last batch of at most 30 packets completed in its
// input buffer. Chunks are long enough that a packet spans at most two.
void run_session(uint32_t seed, std::size_t packet_count, std::size_t min_chunk, std::size_t max_chunk) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    const auto packets = random_stream(seed, packet_count);
    const Bytes stream = concat(packets);
    RefDecoder ref;
    std::vector<Bytes> pcm;
    std::vector<std::size_t> ends;  // where each packet ends in the stream
    for (const auto &p : packets) {
        pcm.push_back(ref.decode(p));
        ends.push_back((ends.empty() ? 0 : ends.back()) + p.size());
    }

    Client c;
    ASSERT_TRUE(c.start());
    std::mt19937 rng(seed ^ 0x5a5a5a5au);
    std::size_t start = 0, next_packet = 0, buffers = 0;
    while (start < stream.size()) {
        const std::size_t stop = start + std::min(stream.size() - start, std::uniform_int_distribution<std::size_t>(
                                                                             min_chunk, max_chunk)(rng));
        const std::size_t first = next_packet;
        while (next_packet < ends.size() && ends[next_packet] <= stop) ++next_packet;
        Bytes expected;
        if (next_packet > first)
            expected = concat(std::vector<Bytes>(
                pcm.begin() + static_cast<std::ptrdiff_t>(next_packet - (next_packet - first - 1) % 30 - 1),
                pcm.begin() + static_cast<std::ptrdiff_t>(next_packet)));
        // The first output carries the input timestamp; later ones add
        // 1000 * bytes / 16000 to it.
        const OMX_TICKS in_ts = static_cast<OMX_TICKS>(1000 * buffers + 7);
        const uint64_t out_ts = static_cast<uint64_t>(in_ts) + (buffers ? (1000u * expected.size()) / 16000u : 0);

        const auto at = [&](std::size_t i) { return stream.begin() + static_cast<std::ptrdiff_t>(i); };
        ASSERT_TRUE(c.exchange(buffers % 2, Bytes(at(start), at(stop)), 0, in_ts));
        const Returned r = c.fbd(buffers), e = c.ebd(buffers);
        ASSERT_EQ(r.hdr, c.out[buffers % 2]);
        ASSERT_EQ(e.hdr, c.in[buffers % 2]);
        ++buffers;
        EXPECT_EQ(e.filled, 0u);
        ASSERT_TRUE(r.data == expected) << "PCM differs in buffer " << buffers;
        EXPECT_EQ(static_cast<uint64_t>(r.timestamp), out_ts);
        start = stop;
    }
    EXPECT_EQ(next_packet, packets.size());
    EXPECT_FALSE(c.foreign_handle());
    EXPECT_EQ(c.comp->fbd_count.load(), buffers);
}

TEST(OmxDataPath, RandomStreamsSplitAnywhereMatchDirectDecoding) {
    // Short buffers split most packets across two buffers; long ones hold
    // more than 30 packets, of which only the last batch is delivered.
    run_session(1, 150, 23, 60);
    run_session(2, 400, 23, 720);
}

TEST(OmxDataPath, BadRateByteReturnsBothBuffersAndLaterBuffersDecodeCleanly) {
    std::mt19937 rng(11);
    const auto a = evrc_random::random_packet_bytes(rng, EVRC_RATE_HALF);
    const auto b = evrc_random::random_packet_bytes(rng, EVRC_RATE_FULL);
    Client c;
    ASSERT_TRUE(c.start());

    // A good packet, then a rate byte of 5: the whole buffer is abandoned.
    Bytes bad = a;
    bad.push_back(5);
    bad.push_back(0);
    const std::size_t from = c.event_count();
    ASSERT_TRUE(c.exchange(0, bad));
    ASSERT_NE(c.ebd(0).hdr, nullptr);
    EXPECT_EQ(c.fbd(0).filled, 0u);
    EXPECT_GE(c.wait_event(OMX_EventError, static_cast<OMX_U32>(OMX_ErrorStreamCorrupt), 1, from), 0);
    EXPECT_TRUE(log_contains("Error: Wrong rate"));

    // The abandoned packet was never decoded, and the slots start over (a
    // stale slot would be decoded first).
    const Bytes expected = RefDecoder().decode(b);
    ASSERT_TRUE(c.exchange(1, b));
    EXPECT_TRUE(c.fbd(1).data == expected);
}

TEST(OmxDataPath, PauseHoldsBuffersThenMarksAndEndOfStreamTravel) {
    std::mt19937 rng(17);
    const auto p = evrc_random::random_packet_bytes(rng, EVRC_RATE_FULL);
    const Bytes want = RefDecoder().decode(p);  // before the component decodes: one decoder at a time
    Client c;
    ASSERT_TRUE(c.start());
    ASSERT_TRUE(c.set_state(OMX_StatePause));
    ASSERT_TRUE(c.exchange(0, p));
    std::this_thread::sleep_for(kQuiet);
    EXPECT_EQ(c.returned_count(), 0u);
    ASSERT_TRUE(c.set_state(OMX_StateExecuting));
    ASSERT_NE(c.ebd(0).hdr, nullptr);
    EXPECT_TRUE(c.fbd(0).data == want);

    // A mark aimed at this component: OMX_EventMark when the input returns.
    int tag_self = 0, tag_other = 0, other_component = 0;
    OMX_MARKTYPE mark{c.h, &tag_self};
    std::size_t from = c.event_count();
    ASSERT_EQ(c.command(OMX_CommandMarkBuffer, 0, &mark), OMX_ErrorNone);
    ASSERT_TRUE(c.exchange(1, p));
    ASSERT_NE(c.fbd(1).hdr, nullptr);
    long i = c.wait_event(OMX_EventMark, 0, 0, from);
    ASSERT_GE(i, 0);
    EXPECT_EQ(c.events_since(static_cast<std::size_t>(i))[0].data, &tag_self);
    EXPECT_TRUE(c.wait_cmd_complete(OMX_CommandMarkBuffer, 0, from));
    EXPECT_EQ(c.fbd(1).mark_target, nullptr);

    // Aimed elsewhere: copied into the output buffer, cleared on the input.
    OMX_MARKTYPE other{&other_component, &tag_other};
    ASSERT_EQ(c.command(OMX_CommandMarkBuffer, 0, &other), OMX_ErrorNone);
    ASSERT_TRUE(c.exchange(0, p));
    const Returned r = c.fbd(2), e = c.ebd(2);
    ASSERT_NE(r.hdr, nullptr);
    ASSERT_NE(e.hdr, nullptr);
    EXPECT_EQ(r.mark_target, &other_component);
    EXPECT_EQ(r.mark_data, &tag_other);
    EXPECT_EQ(e.mark_target, nullptr);
    EXPECT_EQ(c.command(OMX_CommandMarkBuffer, 1, &mark), OMX_ErrorNotImplemented);
    EXPECT_EQ(c.command(OMX_CommandMarkBuffer, 0, nullptr), OMX_ErrorBadParameter);

    // End of stream: an empty flagged output and the buffer-flag event.
    from = c.event_count();
    ASSERT_TRUE(
        c.exchange(1, evrc_random::random_packet_bytes(rng, EVRC_RATE_EIGHTH), OMX_BUFFERFLAG_EOS, 0x123456789LL));
    const Returned eos = c.fbd(3);
    ASSERT_NE(eos.hdr, nullptr);
    EXPECT_EQ(eos.filled, 0u);
    EXPECT_EQ(eos.flags, static_cast<OMX_U32>(OMX_BUFFERFLAG_EOS));
    EXPECT_GE(c.wait_event(OMX_EventBufferFlag, 1, OMX_BUFFERFLAG_EOS, from), 0);
    EXPECT_EQ(c.comp->eos_timestamp.load(), 0x23456789u);
}

}  // namespace
}  // namespace omx_test
