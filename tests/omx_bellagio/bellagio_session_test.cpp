// The shared library as an OpenMAX IL client sees it through Bellagio's core:
// registered with omxregister-bellagio in a private registry, found by name
// and role, and driven with the standard OMX_ macros through a decode session
// whose PCM must equal the direct decoder's bit for bit.
#include <OMX_Component.h>
#include <OMX_Core.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "evrc/evrc_dec.h"
#include "tests/support/temp_dir.h"
#include "tools/random_packets.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
char kName[] = "OMX.vemo.audio.decoder.evrc";
char kRole[] = "audio_decoder.evrc";

// Records what the component reports; every wait has a time limit.
struct Recorder {
    std::mutex mu;
    std::condition_variable cv;
    std::vector<std::array<OMX_U32, 3>> events;  // type, data1, data2
    std::deque<OMX_BUFFERHEADERTYPE *> done[2];  // emptied inputs, filled outputs
    int foreign = 0;                             // callbacks carrying another handle
    OMX_HANDLETYPE h = nullptr;

    static OMX_ERRORTYPE on_event(OMX_HANDLETYPE h, OMX_PTR app, OMX_EVENTTYPE type, OMX_U32 d1, OMX_U32 d2, OMX_PTR) {
        return static_cast<Recorder *>(app)->push(h, nullptr, 0, {static_cast<OMX_U32>(type), d1, d2});
    }
    template <int port>
    static OMX_ERRORTYPE on_done(OMX_HANDLETYPE h, OMX_PTR app, OMX_BUFFERHEADERTYPE *b) {
        return static_cast<Recorder *>(app)->push(h, b, port, {});
    }
    OMX_ERRORTYPE push(OMX_HANDLETYPE handle, OMX_BUFFERHEADERTYPE *b, int port, std::array<OMX_U32, 3> e) {
        std::lock_guard<std::mutex> lock(mu);
        foreign += h != nullptr && handle != h;
        if (b != nullptr)
            done[port].push_back(b);
        else
            events.push_back(e);
        cv.notify_all();
        return OMX_ErrorNone;
    }
    bool wait_event(OMX_EVENTTYPE type, OMX_U32 d1, OMX_U32 d2) {
        const std::array<OMX_U32, 3> e{static_cast<OMX_U32>(type), d1, d2};
        std::unique_lock<std::mutex> lock(mu);
        // Each event satisfies one wait: a second Idle completion must not be
        // mistaken for the first.
        auto it = events.end();
        if (!cv.wait_for(lock, std::chrono::seconds(20),
                         [&] { return (it = std::find(events.begin(), events.end(), e)) != events.end(); }))
            return false;
        events.erase(it);
        return true;
    }
    bool wait_state(OMX_STATETYPE s) { return wait_event(OMX_EventCmdComplete, OMX_CommandStateSet, s); }
    OMX_BUFFERHEADERTYPE *next(int port) {
        std::unique_lock<std::mutex> lock(mu);
        if (!cv.wait_for(lock, std::chrono::seconds(20), [&] { return !done[port].empty(); })) return nullptr;
        OMX_BUFFERHEADERTYPE *b = done[port].front();
        done[port].pop_front();
        return b;
    }
};

TEST(BellagioCore, FoundByRoleAndDecodesLikeTheDirectDecoderUpToEndOfStream) {
    const std::string dir = evrc_test::own_temp_dir("evrc_bellagio");  // removed at exit
    ASSERT_EQ(mkdir((dir + "/lib").c_str(), 0700), 0);
    ASSERT_EQ(symlink(EVRC_OMX_LIBRARY, (dir + "/lib/libevrc_omx.so").c_str()), 0);
    ASSERT_EQ(setenv("OMX_BELLAGIO_REGISTRY", (dir + "/registry").c_str(), 1), 0);
    // The sanitizer runtimes must be preloaded into the uninstrumented tool.
    const std::string env =
        std::strlen(SANITIZER_PRELOAD) == 0
            ? ""
            : std::string("env LD_PRELOAD='") + SANITIZER_PRELOAD + "' ASAN_OPTIONS=detect_leaks=0:malloc_fill_byte=0 ";
    const std::string cmd =
        env + "timeout 60 " + OMXREGISTER_BELLAGIO + " " + dir + "/lib >" + dir + "/register.log 2>&1";
    ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
    ASSERT_EQ(OMX_Init(), OMX_ErrorNone);

    OMX_U8 comp[4][OMX_MAX_STRINGNAME_SIZE] = {};
    OMX_U8 *comps[4] = {comp[0], comp[1], comp[2], comp[3]};
    OMX_U32 count = 4;
    ASSERT_EQ(OMX_GetComponentsOfRole(kRole, &count, comps), OMX_ErrorNone);
    ASSERT_GE(count, 1u);
    EXPECT_STREQ(reinterpret_cast<char *>(comp[0]), kName);

    Recorder rec;
    OMX_CALLBACKTYPE cb{&Recorder::on_event, &Recorder::on_done<0>, &Recorder::on_done<1>};
    OMX_HANDLETYPE h = nullptr;
    ASSERT_EQ(OMX_GetHandle(&h, kName, &rec, &cb), OMX_ErrorNone);
    rec.h = h;
    auto set_state = [&](OMX_STATETYPE s) {
        return OMX_SendCommand(h, OMX_CommandStateSet, s, nullptr) == OMX_ErrorNone;
    };
    OMX_BUFFERHEADERTYPE *bufs[2][2] = {};
    ASSERT_TRUE(set_state(OMX_StateIdle));
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(OMX_AllocateBuffer(h, &bufs[i / 2][i % 2], static_cast<OMX_U32>(i / 2), nullptr, 0), OMX_ErrorNone);
    ASSERT_TRUE(rec.wait_state(OMX_StateIdle));
    ASSERT_TRUE(set_state(OMX_StateExecuting) && rec.wait_state(OMX_StateExecuting));

    // Buffers of 1 to 30 random packets, each output holding all their
    // frames; the last is an empty end-of-stream buffer, which comes back as
    // an empty output flagged end-of-stream, with the buffer-flag event.
    std::vector<unsigned char> mem(static_cast<std::size_t>(get_sizeof_evrc_dec_struct()), 0);
    auto *st = reinterpret_cast<EvrcDecoderState *>(mem.data());
    evrc_init_dec(st);
    std::mt19937 rng(20240611);
    static const int kRates[] = {EVRC_RATE_EIGHTH, EVRC_RATE_HALF, EVRC_RATE_FULL};
    for (int b = 0; b < 40; ++b) {
        Bytes input;
        std::vector<std::int16_t> expected;
        for (int k = b < 39 ? evrc_random::uniform_int(rng, 1, 30) : 0; k > 0; --k) {
            const Bytes p = evrc_random::random_packet_bytes(rng, kRates[evrc_random::uniform_int(rng, 0, 2)]);
            input.insert(input.end(), p.begin(), p.end());
            EvrcPacket packet = evrc_random::bytes_to_packet(p);
            expected.resize(expected.size() + EVRC_FRAME_SIZE);
            evrc_decode(st, &packet, expected.data() + expected.size() - EVRC_FRAME_SIZE, 0);
        }
        OMX_BUFFERHEADERTYPE *in = bufs[0][b % 2];
        std::copy(input.begin(), input.end(), in->pBuffer);
        in->nFilledLen = static_cast<OMX_U32>(input.size());
        in->nOffset = 0;
        in->nFlags = b == 39 ? OMX_BUFFERFLAG_EOS : 0;
        ASSERT_EQ(OMX_FillThisBuffer(h, bufs[1][b % 2]), OMX_ErrorNone);
        ASSERT_EQ(OMX_EmptyThisBuffer(h, in), OMX_ErrorNone);
        ASSERT_EQ(rec.next(0), in);
        OMX_BUFFERHEADERTYPE *out = rec.next(1);
        ASSERT_EQ(out, bufs[1][b % 2]);
        ASSERT_EQ(out->nFilledLen, expected.size() * 2) << "buffer " << b;
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(),
                               reinterpret_cast<const std::int16_t *>(out->pBuffer + out->nOffset)))
            << "buffer " << b << " differs from the direct decoder";
        EXPECT_EQ(out->nFlags, b == 39 ? static_cast<OMX_U32>(OMX_BUFFERFLAG_EOS) : 0u);
    }
    EXPECT_TRUE(rec.wait_event(OMX_EventBufferFlag, 1, OMX_BUFFERFLAG_EOS));

    ASSERT_TRUE(set_state(OMX_StateIdle) && rec.wait_state(OMX_StateIdle));
    ASSERT_TRUE(set_state(OMX_StateLoaded));
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(OMX_FreeBuffer(h, static_cast<OMX_U32>(i / 2), bufs[i / 2][i % 2]), OMX_ErrorNone);
    ASSERT_TRUE(rec.wait_state(OMX_StateLoaded));
    EXPECT_EQ(rec.foreign, 0) << "every callback carries the client's handle";
    EXPECT_EQ(OMX_FreeHandle(h), OMX_ErrorNone);
    OMX_Deinit();
}

}  // namespace
