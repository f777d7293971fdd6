// The component object: defaults, component_init, the small entry points,
// deinit, and null pointers.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "omx_client.h"

namespace omx_test {
namespace {

TEST(OmxLifecycle, FactoryBuildsAnUninitialisedObject)
{
    auto* c = static_cast<omx_evrc_adec*>(get_omx_component_factory_fn());
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->state.load(), OMX_StateInvalid);
    EXPECT_EQ(c->flush_ack_count.load(), 255);
    EXPECT_EQ(c->frame_duration.load(), 600u);
    EXPECT_EQ(c->volume.load(), 25u);
    EXPECT_EQ(c->input_buffer_size.load(), 720u);
    EXPECT_EQ(c->output_buffer_size.load(), 9600u);
    EXPECT_EQ(c->in_actual_count.load(), 2u);
    EXPECT_EQ(c->input_thread.load(), nullptr);
    EXPECT_EQ(c->cmd_thread.load(), nullptr);
    OMX_VERSIONTYPE v1, v2;
    EXPECT_EQ(c->get_component_version(c->callback_handle(), nullptr, &v1, &v2, nullptr), OMX_ErrorInvalidState);
    EXPECT_EQ(c->get_extension_index(c->callback_handle(), nullptr, nullptr), OMX_ErrorInvalidState);
    EXPECT_EQ(c->send_command(c->callback_handle(), OMX_CommandStateSet, OMX_StateIdle, nullptr),
              OMX_ErrorInvalidState);
    delete c;
}

TEST(OmxLifecycle, ComponentInitNamesAndDefaults)
{
    struct Case {
        const char* name;
        int feedback;
        OMX_U32 role_size;
        const char* role;
    };
    const Case cases[] = {
        {omx_evrc_adec::kName, 1, 4, omx_evrc_adec::kName},
        {omx_evrc_adec::kTunneledName, 0, 4, omx_evrc_adec::kTunneledName},
        {"OMX.vemo.audio.decoder.EVRC", 1, 2, ""},  // names are case-sensitive, and unknown ones pass
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.name);
        clear_log();
        Client c(k.name);
        EXPECT_EQ(c.init_result, OMX_ErrorNone);
        EXPECT_EQ(c.state(), OMX_StateLoaded);
        EXPECT_EQ(c.comp->pcm_feedback.load(), k.feedback);
        EXPECT_EQ(c.comp->role_record.nSize, k.role_size);
        EXPECT_EQ(c.comp->role_record.nVersion.nVersion, 0x101u);
        EXPECT_STREQ(reinterpret_cast<const char*>(c.comp->role_record.cRole), k.role);
        EXPECT_TRUE(log_contains(std::string("COMPONENT INIT ") + k.name + "\n"));
        EXPECT_EQ(c.comp->eos_timestamp.load(), 0xFFFFFFFFu);
        EXPECT_STREQ(c.comp->input_thread.load()->name, "INP");
        EXPECT_STREQ(c.comp->cmd_thread.load()->name, "CMD");
        EXPECT_EQ(c.comp->evrc_params.nSize, sizeof(OMX_AUDIO_PARAM_EVRCTYPE));
        EXPECT_EQ(c.comp->evrc_params.nChannels, 1u);
        EXPECT_EQ(c.comp->pcm_params.nSamplingRate, 8000u);
        EXPECT_EQ(c.comp->pcm_params.eEndian, OMX_EndianBig);
        OMX_VERSIONTYPE v1{}, v2{};
        EXPECT_EQ(c.comp->get_component_version(c.h, nullptr, &v1, &v2, nullptr), OMX_ErrorNone);
        EXPECT_EQ(v1.nVersion, 0x101u);
        EXPECT_EQ(v2.nVersion, 0x101u);
    }
}

TEST(OmxLifecycle, RoleEnumLeavesTheByteBehindTheText)
{
    Client c;
    unsigned char role[128];
    std::memset(role, 0xAA, sizeof(role));
    ASSERT_EQ(c.comp->component_role_enum(c.h, role, 0), OMX_ErrorNone);
    EXPECT_EQ(std::memcmp(role, "audio_decoder.evrc", 18), 0);
    EXPECT_EQ(role[18], 0xAA);
    EXPECT_EQ(role[19], 0);
    std::memset(role, 0, sizeof(role));
    ASSERT_EQ(c.comp->component_role_enum(c.h, role, 0), OMX_ErrorNone);
    EXPECT_STREQ(reinterpret_cast<char*>(role), "audio_decoder.evrc");
    EXPECT_EQ(c.comp->component_role_enum(c.h, role, 1), OMX_ErrorNoMore);
    EXPECT_EQ(c.comp->component_role_enum(c.h, nullptr, 0), OMX_ErrorNoMore);
}

TEST(OmxLifecycle, UnimplementedEntryPoints)
{
    Client c;
    clear_log();
    OMX_INDEXTYPE idx;
    EXPECT_EQ(c.comp->get_extension_index(c.h, const_cast<char*>("x"), &idx), OMX_ErrorNotImplemented);
    EXPECT_EQ(c.comp->component_tunnel_request(c.h, 0, nullptr, 0, nullptr), OMX_ErrorNotImplemented);
    OMX_BUFFERHEADERTYPE* hdr = nullptr;
    EXPECT_EQ(c.comp->use_EGL_image(c.h, &hdr, 0, nullptr, nullptr), OMX_ErrorNotImplemented);
    EXPECT_TRUE(log_contains("Error, Not implemented\n"));
    EXPECT_TRUE(log_contains("Error: component_tunnel_request Not Implemented\n"));
    EXPECT_TRUE(log_contains("Error : use_EGL_image:  Not Implemented \n"));
}

TEST(OmxLifecycle, DeinitFromExecutingWarnsAndTearsDown)
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
    EXPECT_EQ(c.comp->pkt_array, nullptr);
    // Buffers outlive deinit; once out of Executing they can still be freed.
    c.comp->state = OMX_StateLoaded;
    c.free_all();
    c.plain_teardown = true;
}

TEST(OmxLifecycle, DeinitReleasesAParkedInputThread)
{
    Client c;
    ASSERT_TRUE(c.start());
    ASSERT_TRUE(c.set_state(OMX_StatePause));
    ASSERT_EQ(c.etb(c.in[0], {EVRC_RATE_BLANK}), OMX_ErrorNone);
    ASSERT_EQ(c.ftb(c.out[0]), OMX_ErrorNone);
    for (int i = 0; i < 500 && !c.comp->input_parked; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    EXPECT_TRUE(c.comp->input_parked.load());
    ASSERT_EQ(c.comp->component_deinit(c.h), OMX_ErrorNone);
    c.comp->state = OMX_StateLoaded;
    c.free_all();
    c.plain_teardown = true;
}

TEST(OmxLifecycle, NullPointersAreBadParameters)
{
    Client c;
    EXPECT_EQ(c.comp->get_state(c.h, nullptr), OMX_ErrorBadParameter);
    EXPECT_EQ(c.comp->get_parameter(c.h, OMX_IndexParamPortDefinition, nullptr), OMX_ErrorBadParameter);
    EXPECT_EQ(c.comp->set_parameter(c.h, OMX_IndexParamPortDefinition, nullptr), OMX_ErrorBadParameter);
    EXPECT_EQ(c.comp->get_config(c.h, static_cast<OMX_INDEXTYPE>(0x04000023), nullptr), OMX_ErrorBadParameter);
    EXPECT_EQ(c.comp->set_config(c.h, static_cast<OMX_INDEXTYPE>(0x04000023), nullptr), OMX_ErrorBadParameter);
    EXPECT_EQ(c.comp->allocate_buffer(c.h, nullptr, 0, nullptr, 0), OMX_ErrorBadParameter);
    unsigned char mem[16];
    EXPECT_EQ(c.comp->use_buffer(c.h, nullptr, 0, nullptr, 16, mem), OMX_ErrorBadParameter);
    EXPECT_EQ(c.comp->free_buffer(c.h, 0, nullptr), OMX_ErrorBadParameter);
    EXPECT_EQ(c.comp->set_callbacks(c.h, nullptr, nullptr), OMX_ErrorBadParameter);
    EXPECT_EQ(c.comp->get_component_version(c.h, nullptr, nullptr, nullptr, nullptr), OMX_ErrorBadParameter);
    EXPECT_EQ(c.comp->component_init(nullptr), OMX_ErrorBadParameter);
}

}  // namespace
}  // namespace omx_test
