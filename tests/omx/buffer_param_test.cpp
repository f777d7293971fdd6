// Buffer allocation; parameters and configuration.
#include <gtest/gtest.h>

#include "omx_client.h"

namespace omx_test {
namespace {

const OMX_INDEXTYPE kVolume = static_cast<OMX_INDEXTYPE>(0x04000023);
const OMX_INDEXTYPE kMute = static_cast<OMX_INDEXTYPE>(0x04000026);

TEST(OmxBuffers, CountsSizesAndUseBuffer)
{
    Client c;
    int app = 0;
    // Requested sizes below the port's are raised to it, larger ones kept;
    // a third buffer on a port of two is refused.
    const struct {
        unsigned port, request, alloc;
    } kAllocs[] = {{0, 100, 720}, {0, 800, 800}, {1, 100, 9600}, {1, 20000, 20000}};
    for (const auto& a : kAllocs) {
        OMX_BUFFERHEADERTYPE* hdr = nullptr;
        ASSERT_EQ(c.comp->allocate_buffer(c.h, &hdr, a.port, &app, a.request), OMX_ErrorNone);
        (a.port ? c.out : c.in).push_back(hdr);
        EXPECT_EQ(hdr->nAllocLen, a.alloc);
        EXPECT_EQ(hdr->pAppPrivate, &app);
        EXPECT_EQ(a.port ? hdr->nOutputPortIndex : hdr->nInputPortIndex, a.port);
        std::memset(hdr->pBuffer, 0x5A, hdr->nAllocLen);  // the whole block is ours
    }
    OMX_BUFFERHEADERTYPE* x = nullptr;
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

TEST(OmxParameters, GetAndSetRecords)
{
    Client c;
    OMX_PARAM_PORTDEFINITIONTYPE def;
    for (OMX_U32 port : {0u, 1u}) {
        std::memset(&def, 0xEE, sizeof(def));
        def.nPortIndex = port;
        ASSERT_EQ(c.comp->get_parameter(c.h, OMX_IndexParamPortDefinition, &def), OMX_ErrorNone);
        EXPECT_EQ(def.nSize, 4u);
        EXPECT_EQ(def.nBufferSize, port ? 9600u : 720u);
        EXPECT_EQ(def.format.audio.eEncoding, port ? OMX_AUDIO_CodingPCM : OMX_AUDIO_CodingEVRC);
    }
    def.nPortIndex = 2;
    EXPECT_EQ(c.comp->get_parameter(c.h, OMX_IndexParamPortDefinition, &def), OMX_ErrorBadPortIndex);

    OMX_AUDIO_PARAM_PCMMODETYPE pcm;
    std::memset(&pcm, 0xEE, sizeof(pcm));
    pcm.nPortIndex = 0;
    EXPECT_EQ(c.comp->get_parameter(c.h, OMX_IndexParamAudioPcm, &pcm), OMX_ErrorBadPortIndex);
    pcm.nPortIndex = 1;
    ASSERT_EQ(c.comp->get_parameter(c.h, OMX_IndexParamAudioPcm, &pcm), OMX_ErrorNone);
    EXPECT_EQ(pcm.nSamplingRate, 8000u);
    uint32_t endian_bytes = 0;
    std::memcpy(&endian_bytes, &pcm.eEndian, sizeof(endian_bytes));
    EXPECT_EQ(endian_bytes, 0xEEEEEEEEu);  // not written

    OMX_PARAM_BUFFERSUPPLIERTYPE sup{};
    clear_log();
    EXPECT_EQ(c.comp->get_parameter(c.h, static_cast<OMX_INDEXTYPE>(0x7F000001), &sup), OMX_ErrorUnsupportedIndex);
    EXPECT_TRUE(log_contains("unknown param 7f000001\n"));

    // The input count stays at its minimum of two; sizes and the output count
    // are taken.
    def.nPortIndex = 0;
    def.nBufferCountActual = 1;
    def.nBufferSize = 100;
    ASSERT_EQ(c.comp->set_parameter(c.h, OMX_IndexParamPortDefinition, &def), OMX_ErrorNone);
    EXPECT_EQ(c.comp->in_actual_count.load(), 2u);
    EXPECT_EQ(c.comp->input_buffer_size.load(), 100u);
    def.nPortIndex = 1;
    def.nBufferCountActual = 3;
    ASSERT_EQ(c.comp->set_parameter(c.h, OMX_IndexParamPortDefinition, &def), OMX_ErrorNone);
    EXPECT_EQ(c.comp->out_actual_count.load(), 3u);

    OMX_AUDIO_PARAM_EVRCTYPE evrc{}, back{};
    evrc.nPortIndex = 9;  // not checked on set, and stored with the record
    evrc.nMaxBitRate = 4;
    ASSERT_EQ(c.comp->set_parameter(c.h, OMX_IndexParamAudioEvrc, &evrc), OMX_ErrorNone);
    ASSERT_EQ(c.comp->get_parameter(c.h, OMX_IndexParamAudioEvrc, &back), OMX_ErrorNone);
    EXPECT_EQ(back.nPortIndex, 9u);
    EXPECT_EQ(back.nMaxBitRate, 4u);

    pcm.nPortIndex = 0;
    EXPECT_EQ(c.comp->set_parameter(c.h, OMX_IndexParamAudioPcm, &pcm), OMX_ErrorBadPortIndex);
    EXPECT_TRUE(log_contains("get_parameter:OMX_IndexParamAudioPcm \t\t\t\tOMX_ErrorBadPortIndex 0\n"));

    Client e;
    ASSERT_TRUE(e.start());
    OMX_PRIORITYMGMTTYPE prio{};
    EXPECT_EQ(e.comp->set_parameter(e.h, OMX_IndexParamPriorityMgmt, &prio), OMX_ErrorIncorrectStateOperation);
    EXPECT_TRUE(log_contains("set_parameter is not in proper state\n"));
}

TEST(OmxConfig, VolumeAndMute)
{
    Client c;
    OMX_AUDIO_CONFIG_VOLUMETYPE vol{};
    ASSERT_EQ(c.comp->get_config(c.h, kVolume, &vol), OMX_ErrorNone);
    EXPECT_EQ(vol.sVolume.nValue, 25);
    EXPECT_EQ(vol.sVolume.nMax, 100);
    for (OMX_S32 v : {100, 101, -1}) {
        vol.sVolume.nValue = v;
        EXPECT_EQ(c.comp->set_config(c.h, kVolume, &vol), v == 100 ? OMX_ErrorNone : OMX_ErrorBadParameter);
    }
    EXPECT_EQ(c.comp->volume.load(), 100u);
    vol.nPortIndex = 1;
    EXPECT_EQ(c.comp->set_config(c.h, kVolume, &vol), OMX_ErrorBadPortIndex);

    OMX_AUDIO_CONFIG_MUTETYPE mute{};
    mute.bMute = OMX_TRUE;
    ASSERT_EQ(c.comp->set_config(c.h, kMute, &mute), OMX_ErrorNone);
    mute.bMute = OMX_FALSE;
    ASSERT_EQ(c.comp->get_config(c.h, kMute, &mute), OMX_ErrorNone);
    EXPECT_EQ(mute.bMute, OMX_TRUE);
    mute.bMute = static_cast<OMX_BOOL>(2);  // only exactly OMX_TRUE mutes
    ASSERT_EQ(c.comp->set_config(c.h, kMute, &mute), OMX_ErrorNone);
    ASSERT_EQ(c.comp->get_config(c.h, kMute, &mute), OMX_ErrorNone);
    EXPECT_EQ(mute.bMute, OMX_FALSE);
    EXPECT_EQ(c.comp->get_config(c.h, OMX_IndexParamPortDefinition, &mute), OMX_ErrorUnsupportedIndex);

    ASSERT_TRUE(c.start());
    EXPECT_EQ(c.comp->set_config(c.h, kMute, &mute), OMX_ErrorInvalidState);
    EXPECT_TRUE(log_contains("set_config:Ignore in Exe state\n"));
}

}  // namespace
}  // namespace omx_test
