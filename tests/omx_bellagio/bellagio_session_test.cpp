// The shared library as an OpenMAX IL client sees it through Bellagio's core:
// registered with omxregister-bellagio in a private registry, found by name
// and role, and driven with the standard OMX_ macros through a complete
// decode session whose PCM must equal the direct decoder's bit for bit.
#include <OMX_Audio.h>
#include <OMX_Component.h>
#include <OMX_Core.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "tests/omx_stress/omx_client.h"

namespace {

using omx_test::Bytes;
using omx_test::ClientLog;

char kName[] = "OMX.vemo.audio.decoder.evrc";
char kTunneledName[] = "OMX.vemo.audio.decoder.tunneled.evrc";
char kRole[] = "audio_decoder.evrc";

template <typename T>
void init_struct(T& s) {
    std::memset(&s, 0, sizeof(s));
    s.nSize = sizeof(T);
    s.nVersion.nVersion = 0x00000101;
}

class BellagioCore : public ::testing::Test {
public:
    static void SetUpTestSuite() {
        char dir_template[] = "/tmp/evrc_bellagio_XXXXXX";
        ASSERT_NE(mkdtemp(dir_template), nullptr);
        dir_ = dir_template;
        lib_dir_ = dir_ + "/lib";
        registry_ = dir_ + "/registry";
        ASSERT_EQ(mkdir(lib_dir_.c_str(), 0700), 0);
        ASSERT_EQ(symlink(EVRC_OMX_LIBRARY, (lib_dir_ + "/libevrc_omx.so").c_str()), 0);
        ASSERT_EQ(setenv("OMX_BELLAGIO_REGISTRY", registry_.c_str(), 1), 0);
        std::string env;
        if (std::strlen(SANITIZER_PRELOAD) > 0)
            env = std::string("env LD_PRELOAD='") + SANITIZER_PRELOAD + "' ASAN_OPTIONS=detect_leaks=0:malloc_fill_byte=0 ";
        const std::string cmd = env + "timeout 60 " + OMXREGISTER_BELLAGIO + " " + lib_dir_ + " >" + dir_ +
                                "/register.log 2>&1";
        ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
        ASSERT_EQ(OMX_Init(), OMX_ErrorNone);
    }
    static void TearDownTestSuite() {
        OMX_Deinit();
        unlink((lib_dir_ + "/libevrc_omx.so").c_str());
        rmdir(lib_dir_.c_str());
        unlink(registry_.c_str());
        unlink((dir_ + "/register.log").c_str());
        rmdir(dir_.c_str());
    }

protected:
    static std::string dir_, lib_dir_, registry_;
};
std::string BellagioCore::dir_, BellagioCore::lib_dir_, BellagioCore::registry_;

TEST_F(BellagioCore, RegistryListsBothNamesUnderTheDecoderRole) {
    std::vector<std::string> names;
    char name[OMX_MAX_STRINGNAME_SIZE];
    for (OMX_U32 i = 0; OMX_ComponentNameEnum(name, sizeof(name), i) == OMX_ErrorNone; ++i) names.push_back(name);
    EXPECT_NE(std::find(names.begin(), names.end(), kName), names.end());
    EXPECT_NE(std::find(names.begin(), names.end(), kTunneledName), names.end());

    for (char* n : {kName, kTunneledName}) {
        OMX_U8 role[2][OMX_MAX_STRINGNAME_SIZE] = {};
        OMX_U8* roles[2] = {role[0], role[1]};
        OMX_U32 count = 2;
        ASSERT_EQ(OMX_GetRolesOfComponent(n, &count, roles), OMX_ErrorNone) << n;
        ASSERT_GE(count, 1u);
        for (OMX_U32 i = 0; i < count; ++i) EXPECT_STREQ(reinterpret_cast<char*>(role[i]), kRole);
    }

    OMX_U8 comp[4][OMX_MAX_STRINGNAME_SIZE] = {};
    OMX_U8* comps[4] = {comp[0], comp[1], comp[2], comp[3]};
    OMX_U32 count = 4;
    ASSERT_EQ(OMX_GetComponentsOfRole(kRole, &count, comps), OMX_ErrorNone);
    ASSERT_GE(count, 1u);
    EXPECT_STREQ(reinterpret_cast<char*>(comp[0]), kName);
}

TEST_F(BellagioCore, UnknownNameIsNotFound) {
    ClientLog log;
    OMX_CALLBACKTYPE cb = log.callbacks();
    OMX_HANDLETYPE h = nullptr;
    char other[] = "OMX.vemo.audio.decoder.amr";
    EXPECT_NE(OMX_GetHandle(&h, other, &log, &cb), OMX_ErrorNone);
}

TEST_F(BellagioCore, TunneledNameAnswersThroughTheCoreAndFreesCleanly) {
    ClientLog log;
    OMX_CALLBACKTYPE cb = log.callbacks();
    OMX_HANDLETYPE h = nullptr;
    ASSERT_EQ(OMX_GetHandle(&h, kTunneledName, &log, &cb), OMX_ErrorNone);
    ASSERT_NE(h, nullptr);

    OMX_STATETYPE st = OMX_StateInvalid;
    EXPECT_EQ(OMX_GetState(h, &st), OMX_ErrorNone);
    EXPECT_EQ(st, OMX_StateLoaded);

    char comp_name[OMX_MAX_STRINGNAME_SIZE] = {};
    OMX_VERSIONTYPE comp_version{}, spec_version{};
    OMX_UUIDTYPE uuid{};
    EXPECT_EQ(OMX_GetComponentVersion(h, comp_name, &comp_version, &spec_version, &uuid), OMX_ErrorNone);
    EXPECT_EQ(comp_version.nVersion, 0x00000101u);
    EXPECT_EQ(spec_version.nVersion, 0x00000101u);

    OMX_U8 role[OMX_MAX_STRINGNAME_SIZE] = {};
    auto* c = static_cast<OMX_COMPONENTTYPE*>(h);
    EXPECT_EQ(c->ComponentRoleEnum(h, role, 0), OMX_ErrorNone);
    EXPECT_STREQ(reinterpret_cast<char*>(role), kRole);
    EXPECT_EQ(c->ComponentRoleEnum(h, role, 1), OMX_ErrorNoMore);

    // The component keeps the name it was created under as its role record.
    OMX_PARAM_COMPONENTROLETYPE role_param;
    init_struct(role_param);
    EXPECT_EQ(OMX_GetParameter(h, OMX_IndexParamStandardComponentRole, &role_param), OMX_ErrorNone);
    EXPECT_STREQ(reinterpret_cast<char*>(role_param.cRole), kTunneledName);

    EXPECT_EQ(OMX_FreeHandle(h), OMX_ErrorNone);
}

// One client session on the non-tunneled name.
class Session {
public:
    explicit Session(ClientLog& log) : log_(log), cb_(log.callbacks()) {}

    void open() {
        ASSERT_EQ(OMX_GetHandle(&h_, kName, &log_, &cb_), OMX_ErrorNone);
        ASSERT_NE(h_, nullptr);
    }

    void to_executing() {
        ASSERT_EQ(OMX_SendCommand(h_, OMX_CommandStateSet, OMX_StateIdle, nullptr), OMX_ErrorNone);
        for (OMX_U32 port : {0u, 1u}) {
            OMX_PARAM_PORTDEFINITIONTYPE def;
            init_struct(def);
            def.nPortIndex = port;
            ASSERT_EQ(OMX_GetParameter(h_, OMX_IndexParamPortDefinition, &def), OMX_ErrorNone);
            for (OMX_U32 i = 0; i < def.nBufferCountActual; ++i) {
                OMX_BUFFERHEADERTYPE* hdr = nullptr;
                ASSERT_EQ(OMX_AllocateBuffer(h_, &hdr, port, nullptr, def.nBufferSize), OMX_ErrorNone);
                (port == 0 ? in_ : out_).push_back(hdr);
            }
        }
        ASSERT_TRUE(log_.wait_state(OMX_StateIdle));
        ASSERT_EQ(OMX_SendCommand(h_, OMX_CommandStateSet, OMX_StateExecuting, nullptr), OMX_ErrorNone);
        ASSERT_TRUE(log_.wait_state(OMX_StateExecuting));
    }

    void close() {
        ASSERT_EQ(OMX_SendCommand(h_, OMX_CommandStateSet, OMX_StateIdle, nullptr), OMX_ErrorNone);
        ASSERT_TRUE(log_.wait_state(OMX_StateIdle));
        ASSERT_EQ(OMX_SendCommand(h_, OMX_CommandStateSet, OMX_StateLoaded, nullptr), OMX_ErrorNone);
        for (OMX_BUFFERHEADERTYPE* hdr : in_) ASSERT_EQ(OMX_FreeBuffer(h_, 0, hdr), OMX_ErrorNone);
        for (OMX_BUFFERHEADERTYPE* hdr : out_) ASSERT_EQ(OMX_FreeBuffer(h_, 1, hdr), OMX_ErrorNone);
        in_.clear();
        out_.clear();
        ASSERT_TRUE(log_.wait_state(OMX_StateLoaded));
        ASSERT_EQ(OMX_FreeHandle(h_), OMX_ErrorNone);
        h_ = nullptr;
    }

    ~Session() {
        if (h_ != nullptr) OMX_FreeHandle(h_);
    }

    OMX_HANDLETYPE h_ = nullptr;
    std::vector<OMX_BUFFERHEADERTYPE*> in_, out_;

private:
    ClientLog& log_;
    OMX_CALLBACKTYPE cb_;
};

void fill_input(OMX_BUFFERHEADERTYPE* hdr, const Bytes& data, OMX_U32 flags = 0) {
    ASSERT_LE(data.size(), hdr->nAllocLen);
    if (!data.empty()) std::memcpy(hdr->pBuffer, data.data(), data.size());
    hdr->nOffset = 0;
    hdr->nFilledLen = static_cast<OMX_U32>(data.size());
    hdr->nFlags = flags;
}

TEST_F(BellagioCore, DecodeSessionMatchesTheDirectDecoder) {
    std::mt19937 rng(20240611);
    const omx_test::Stream stream = omx_test::random_stream(rng, 40);
    const std::vector<std::int16_t> expected = omx_test::reference_pcm(stream.packets);

    ClientLog log;
    Session s(log);
    ASSERT_NO_FATAL_FAILURE(s.open());
    ASSERT_NO_FATAL_FAILURE(s.to_executing());

    for (OMX_BUFFERHEADERTYPE* out : s.out_) ASSERT_EQ(OMX_FillThisBuffer(s.h_, out), OMX_ErrorNone);
    std::size_t next = 0;
    for (OMX_BUFFERHEADERTYPE* in : s.in_) {
        ASSERT_NO_FATAL_FAILURE(fill_input(in, stream.buffers[next++]));
        ASSERT_EQ(OMX_EmptyThisBuffer(s.h_, in), OMX_ErrorNone);
    }

    std::vector<OMX_BUFFERHEADERTYPE*> idle_inputs;
    std::vector<std::int16_t> pcm;
    std::size_t outputs = 0;
    std::vector<OMX_U32> output_sizes;
    while (outputs < stream.buffers.size()) {
        ASSERT_TRUE(log.wait_any_buffer()) << "after " << outputs << " output buffers";
        while (OMX_BUFFERHEADERTYPE* in = log.take_empty_done()) {
            if (next == stream.buffers.size()) {
                idle_inputs.push_back(in);
                continue;
            }
            ASSERT_NO_FATAL_FAILURE(fill_input(in, stream.buffers[next++]));
            ASSERT_EQ(OMX_EmptyThisBuffer(s.h_, in), OMX_ErrorNone);
        }
        while (OMX_BUFFERHEADERTYPE* out = log.take_fill_done()) {
            output_sizes.push_back(out->nFilledLen);
            omx_test::append_pcm(pcm, out);
            ++outputs;
            if (outputs < stream.buffers.size()) {
                ASSERT_EQ(OMX_FillThisBuffer(s.h_, out), OMX_ErrorNone);
            }
        }
    }
    for (std::size_t b = 0; b < stream.buffers.size(); ++b)
        EXPECT_EQ(output_sizes[b], stream.packets_in_buffer[b] * 320) << "output buffer " << b;
    ASSERT_EQ(pcm.size(), expected.size());
    EXPECT_TRUE(pcm == expected) << "PCM through the core differs from the direct decoder";

    // Every buffer and event came back under the handle the client holds,
    // with the client's own application data.
    EXPECT_EQ(log.foreign_callbacks(s.h_), 0);

    // An empty input buffer flagged end-of-stream: an empty output buffer
    // flagged end-of-stream and the buffer-flag event.
    while (idle_inputs.size() < s.in_.size()) {
        OMX_BUFFERHEADERTYPE* in = log.wait_empty_done();
        ASSERT_NE(in, nullptr);
        idle_inputs.push_back(in);
    }
    OMX_BUFFERHEADERTYPE* in = idle_inputs[0];
    ASSERT_NO_FATAL_FAILURE(fill_input(in, Bytes{}, OMX_BUFFERFLAG_EOS));
    ASSERT_EQ(OMX_EmptyThisBuffer(s.h_, in), OMX_ErrorNone);
    ASSERT_EQ(OMX_FillThisBuffer(s.h_, s.out_[0]), OMX_ErrorNone);
    OMX_BUFFERHEADERTYPE* out = log.wait_fill_done();
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(out->nFilledLen, 0u);
    EXPECT_EQ(out->nFlags, static_cast<OMX_U32>(OMX_BUFFERFLAG_EOS));
    EXPECT_TRUE(log.wait_event(OMX_EventBufferFlag, 1, OMX_BUFFERFLAG_EOS));

    ASSERT_NO_FATAL_FAILURE(s.close());
}

TEST_F(BellagioCore, MarkAimedAtTheClientHandleComesBackAsAMarkEvent) {
    ClientLog log;
    Session s(log);
    ASSERT_NO_FATAL_FAILURE(s.open());
    ASSERT_NO_FATAL_FAILURE(s.to_executing());

    int mark_data = 0;
    OMX_MARKTYPE mark{s.h_, &mark_data};
    ASSERT_EQ(OMX_SendCommand(s.h_, OMX_CommandMarkBuffer, 0, &mark), OMX_ErrorNone);

    std::mt19937 rng(7);
    ASSERT_NO_FATAL_FAILURE(fill_input(s.in_[0], evrc_test::random_packet_bytes(rng, EVRC_RATE_FULL)));
    ASSERT_EQ(OMX_EmptyThisBuffer(s.h_, s.in_[0]), OMX_ErrorNone);
    ASSERT_EQ(OMX_FillThisBuffer(s.h_, s.out_[0]), OMX_ErrorNone);
    ASSERT_NE(log.wait_empty_done(), nullptr);
    OMX_BUFFERHEADERTYPE* out = log.wait_fill_done();
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(out->nFilledLen, 320u);

    bool seen = false;
    for (const omx_test::Event& e : log.all_events())
        if (e.type == OMX_EventMark) {
            seen = true;
            EXPECT_EQ(e.handle, s.h_);
            EXPECT_EQ(e.data, &mark_data);
        }
    EXPECT_TRUE(seen) << "no OMX_EventMark for a mark aimed at this component";
    // The mark stays with this component: it is not passed on downstream.
    EXPECT_EQ(out->hMarkTargetComponent, nullptr);

    ASSERT_NO_FATAL_FAILURE(s.close());
}

}  // namespace
