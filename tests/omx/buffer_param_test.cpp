// Buffer allocation and release; parameters and configuration.
#include <gtest/gtest.h>

#include <cstring>

#include "omx_client.h"

namespace omx_test {
namespace {

static_assert(OMX_IndexParamPriorityMgmt == 0x01000001, "index numbers of the installed headers");
static_assert(OMX_IndexParamStandardComponentRole == 0x01000017, "index numbers of the installed headers");
static_assert(OMX_IndexParamPortDefinition == 0x02000001, "index numbers of the installed headers");
static_assert(OMX_IndexParamAudioPortFormat == 0x04000001, "index numbers of the installed headers");
static_assert(OMX_IndexParamAudioPcm == 0x04000002, "index numbers of the installed headers");
static_assert(OMX_IndexParamAudioEvrc == 0x04000019, "index numbers of the installed headers");

const OMX_INDEXTYPE kVolume = static_cast<OMX_INDEXTYPE>(0x04000023);
const OMX_INDEXTYPE kMute = static_cast<OMX_INDEXTYPE>(0x04000026);

TEST(OmxBuffers, CountsSizesAndHeaderFields)
{
    Client c;
    int app = 0;
    OMX_BUFFERHEADERTYPE *a = nullptr, *b = nullptr, *x = nullptr;
    ASSERT_EQ(c.comp->allocate_buffer(c.h, &a, 0, &app, 100), OMX_ErrorNone);
    c.in.push_back(a);
    EXPECT_EQ(a->nAllocLen, 720u);
    EXPECT_EQ(a->nSize, sizeof(OMX_BUFFERHEADERTYPE));
    EXPECT_EQ(a->nVersion.nVersion, 0x101u);
    EXPECT_EQ(a->pAppPrivate, &app);
    EXPECT_EQ(a->nInputPortIndex, 0u);
    EXPECT_EQ(a->pBuffer, reinterpret_cast<OMX_U8*>(a + 1));
    ASSERT_EQ(c.comp->allocate_buffer(c.h, &b, 0, nullptr, 800), OMX_ErrorNone);
    c.in.push_back(b);
    EXPECT_EQ(b->nAllocLen, 800u);
    EXPECT_EQ(c.comp->allocate_buffer(c.h, &x, 0, nullptr, 0), OMX_ErrorInsufficientResources);

    ASSERT_EQ(c.comp->allocate_buffer(c.h, &a, 1, nullptr, 100), OMX_ErrorNone);
    c.out.push_back(a);
    EXPECT_EQ(a->nAllocLen, 9600u);
    EXPECT_EQ(a->nOutputPortIndex, 1u);
    ASSERT_EQ(c.comp->allocate_buffer(c.h, &b, 1, nullptr, 20000), OMX_ErrorNone);
    c.out.push_back(b);
    EXPECT_EQ(b->nAllocLen, 20000u);
    std::memset(b->pBuffer, 0x5A, b->nAllocLen);  // the whole block is ours

    clear_log();
    EXPECT_EQ(c.comp->allocate_buffer(c.h, &x, 2, nullptr, 0), OMX_ErrorBadPortIndex);
    EXPECT_TRUE(log_contains("Error: Invalid Port Index received 2\n"));
    EXPECT_EQ(c.comp->in_alloc_count.load(), 2u);
    EXPECT_EQ(c.comp->out_alloc_count.load(), 2u);
    EXPECT_TRUE(c.comp->in_port_populated && c.comp->out_port_populated);
}

TEST(OmxBuffers, UseBufferRaisesThePortBufferSize)
{
    Client c;
    std::vector<unsigned char> mem(1000), mem2(500);
    OMX_BUFFERHEADERTYPE* hdr = nullptr;
    ASSERT_EQ(c.comp->use_buffer(c.h, &hdr, 0, nullptr, 1000, mem.data()), OMX_ErrorNone);
    c.in.push_back(hdr);
    EXPECT_EQ(hdr->pBuffer, mem.data());
    EXPECT_EQ(hdr->nAllocLen, 1000u);
    EXPECT_EQ(c.comp->input_buffer_size.load(), 1000u);
    OMX_PARAM_PORTDEFINITIONTYPE def{};
    def.nPortIndex = 0;
    ASSERT_EQ(c.comp->get_parameter(c.h, OMX_IndexParamPortDefinition, &def), OMX_ErrorNone);
    EXPECT_EQ(def.nBufferSize, 1000u);
    // A smaller client buffer is described with the port's size.
    ASSERT_EQ(c.comp->use_buffer(c.h, &hdr, 0, nullptr, 500, mem2.data()), OMX_ErrorNone);
    c.in.push_back(hdr);
    EXPECT_EQ(hdr->nAllocLen, 1000u);
    EXPECT_EQ(c.comp->use_buffer(c.h, &hdr, 0, nullptr, 500, mem2.data()), OMX_ErrorInsufficientResources);
    EXPECT_EQ(c.comp->use_buffer(c.h, &hdr, 5, nullptr, 500, mem2.data()), OMX_ErrorBadPortIndex);
}

TEST(OmxBuffers, FreeInExecutingKeepsTheBufferAndReportsUnpopulated)
{
    Client c;
    ASSERT_TRUE(c.start());
    std::size_t from = c.event_count();
    EXPECT_EQ(c.comp->free_buffer(c.h, 0, c.in[0]), OMX_ErrorNone);
    EXPECT_TRUE(c.wait_error(OMX_ErrorPortUnpopulated, from));
    EXPECT_TRUE(c.comp->search_input_bufhdr(c.in[0]));
    EXPECT_EQ(c.comp->in_alloc_count.load(), 2u);

    // Headers the port never handed out are refused, not freed.
    ASSERT_TRUE(c.set_state(OMX_StateIdle));
    OMX_BUFFERHEADERTYPE foreign{};
    EXPECT_EQ(c.comp->free_buffer(c.h, 0, &foreign), OMX_ErrorBadParameter);
    EXPECT_EQ(c.comp->free_buffer(c.h, 1, c.in[0]), OMX_ErrorBadParameter);
    EXPECT_EQ(c.comp->free_buffer(c.h, 3, c.in[0]), OMX_ErrorBadPortIndex);
    EXPECT_TRUE(c.comp->search_input_bufhdr(c.in[0]));
}

TEST(OmxParameters, GetReturnsTheDocumentedRecords)
{
    Client c;
    OMX_PARAM_PORTDEFINITIONTYPE def;
    for (OMX_U32 port : {0u, 1u}) {
        std::memset(&def, 0xEE, sizeof(def));
        def.nPortIndex = port;
        ASSERT_EQ(c.comp->get_parameter(c.h, OMX_IndexParamPortDefinition, &def), OMX_ErrorNone);
        EXPECT_EQ(def.nSize, 4u);
        EXPECT_EQ(def.nVersion.nVersion, 0x101u);
        EXPECT_EQ(def.eDir, port ? OMX_DirOutput : OMX_DirInput);
        EXPECT_EQ(def.nBufferCountActual, 2u);
        EXPECT_EQ(def.nBufferCountMin, 2u);
        EXPECT_EQ(def.nBufferSize, port ? 9600u : 720u);
        EXPECT_EQ(def.bEnabled, OMX_TRUE);
        EXPECT_EQ(def.bPopulated, OMX_FALSE);
        EXPECT_EQ(def.eDomain, OMX_PortDomainAudio);
        EXPECT_EQ(def.format.audio.bFlagErrorConcealment, OMX_TRUE);
        EXPECT_EQ(def.format.audio.eEncoding, port ? OMX_AUDIO_CodingPCM : OMX_AUDIO_CodingEVRC);
        EXPECT_EQ(def.format.audio.pNativeRender, nullptr);
    }
    def.nPortIndex = 2;
    EXPECT_EQ(c.comp->get_parameter(c.h, OMX_IndexParamPortDefinition, &def), OMX_ErrorBadPortIndex);
    EXPECT_EQ(static_cast<unsigned>(def.eDir), 0x7FFFFFFFu);

    OMX_PORT_PARAM_TYPE ports{};
    ASSERT_EQ(c.comp->get_parameter(c.h, OMX_IndexParamAudioInit, &ports), OMX_ErrorNone);
    EXPECT_EQ(ports.nPorts, 2u);
    for (auto idx : {OMX_IndexParamImageInit, OMX_IndexParamVideoInit, OMX_IndexParamOtherInit}) {
        ports.nPorts = 9;
        ASSERT_EQ(c.comp->get_parameter(c.h, idx, &ports), OMX_ErrorNone);
        EXPECT_EQ(ports.nPorts, 0u);
    }

    OMX_AUDIO_PARAM_PORTFORMATTYPE fmt{};
    fmt.nPortIndex = 0;
    ASSERT_EQ(c.comp->get_parameter(c.h, OMX_IndexParamAudioPortFormat, &fmt), OMX_ErrorNone);
    EXPECT_EQ(fmt.eEncoding, OMX_AUDIO_CodingEVRC);
    fmt.nPortIndex = 7;
    EXPECT_EQ(c.comp->get_parameter(c.h, OMX_IndexParamAudioPortFormat, &fmt), OMX_ErrorBadPortIndex);

    OMX_AUDIO_PARAM_PCMMODETYPE pcm;
    std::memset(&pcm, 0xEE, sizeof(pcm));
    pcm.nPortIndex = 0;
    EXPECT_EQ(c.comp->get_parameter(c.h, OMX_IndexParamAudioPcm, &pcm), OMX_ErrorBadPortIndex);
    pcm.nPortIndex = 1;
    ASSERT_EQ(c.comp->get_parameter(c.h, OMX_IndexParamAudioPcm, &pcm), OMX_ErrorNone);
    EXPECT_EQ(pcm.nChannels, 1u);
    EXPECT_EQ(pcm.nBitPerSample, 16u);
    EXPECT_EQ(pcm.nSamplingRate, 8000u);
    EXPECT_EQ(pcm.bInterleaved, OMX_TRUE);
    EXPECT_EQ(pcm.eChannelMapping[0], OMX_AUDIO_ChannelLF);
    EXPECT_EQ(pcm.eChannelMapping[1], OMX_AUDIO_ChannelRF);
    uint32_t endian_bytes = 0;
    std::memcpy(&endian_bytes, &pcm.eEndian, sizeof(endian_bytes));
    EXPECT_EQ(endian_bytes, 0xEEEEEEEEu);  // not written

    OMX_AUDIO_PARAM_EVRCTYPE evrc{};
    evrc.nPortIndex = 1;
    EXPECT_EQ(c.comp->get_parameter(c.h, OMX_IndexParamAudioEvrc, &evrc), OMX_ErrorBadPortIndex);
    evrc.nPortIndex = 0;
    ASSERT_EQ(c.comp->get_parameter(c.h, OMX_IndexParamAudioEvrc, &evrc), OMX_ErrorNone);
    EXPECT_EQ(evrc.nSize, sizeof(OMX_AUDIO_PARAM_EVRCTYPE));
    EXPECT_EQ(evrc.nChannels, 1u);

    OMX_PARAM_COMPONENTROLETYPE role{};
    ASSERT_EQ(c.comp->get_parameter(c.h, OMX_IndexParamStandardComponentRole, &role), OMX_ErrorNone);
    EXPECT_EQ(role.nSize, 4u);
    EXPECT_STREQ(reinterpret_cast<char*>(role.cRole), omx_evrc_adec::kName);

    OMX_PARAM_BUFFERSUPPLIERTYPE sup{};
    sup.nPortIndex = 1;
    EXPECT_EQ(c.comp->get_parameter(c.h, OMX_IndexParamCompBufferSupplier, &sup), OMX_ErrorNone);
    EXPECT_EQ(sup.nPortIndex, 0u);
    sup.nPortIndex = 2;
    EXPECT_EQ(c.comp->get_parameter(c.h, OMX_IndexParamCompBufferSupplier, &sup), OMX_ErrorBadPortIndex);

    clear_log();
    EXPECT_EQ(c.comp->get_parameter(c.h, static_cast<OMX_INDEXTYPE>(0x7F000001), &sup), OMX_ErrorUnsupportedIndex);
    EXPECT_TRUE(log_contains("unknown param 7f000001\n"));
}

TEST(OmxParameters, SetStoresAndIsOnlyAllowedInLoaded)
{
    Client c;
    OMX_PARAM_PORTDEFINITIONTYPE def{};
    def.nPortIndex = 0;
    def.nBufferCountActual = 1;
    def.nBufferSize = 100;
    ASSERT_EQ(c.comp->set_parameter(c.h, OMX_IndexParamPortDefinition, &def), OMX_ErrorNone);
    EXPECT_EQ(c.comp->in_actual_count.load(), 2u);
    EXPECT_EQ(c.comp->input_buffer_size.load(), 100u);
    OMX_BUFFERHEADERTYPE* hdr = nullptr;
    ASSERT_EQ(c.comp->allocate_buffer(c.h, &hdr, 0, nullptr, 50), OMX_ErrorNone);
    c.in.push_back(hdr);
    EXPECT_EQ(hdr->nAllocLen, 100u);
    def.nPortIndex = 1;
    def.nBufferCountActual = 3;
    ASSERT_EQ(c.comp->set_parameter(c.h, OMX_IndexParamPortDefinition, &def), OMX_ErrorNone);
    EXPECT_EQ(c.comp->out_actual_count.load(), 3u);
    def.nPortIndex = 2;
    EXPECT_EQ(c.comp->set_parameter(c.h, OMX_IndexParamPortDefinition, &def), OMX_ErrorBadPortIndex);

    OMX_AUDIO_PARAM_EVRCTYPE evrc{};
    evrc.nPortIndex = 9;  // not checked on set
    evrc.nMinBitRate = 1;
    evrc.nMaxBitRate = 4;
    evrc.bPostFilter = OMX_TRUE;
    ASSERT_EQ(c.comp->set_parameter(c.h, OMX_IndexParamAudioEvrc, &evrc), OMX_ErrorNone);
    OMX_AUDIO_PARAM_EVRCTYPE back{};
    ASSERT_EQ(c.comp->get_parameter(c.h, OMX_IndexParamAudioEvrc, &back), OMX_ErrorNone);
    EXPECT_EQ(back.nPortIndex, 9u);  // the whole stored record comes back
    EXPECT_EQ(back.nMaxBitRate, 4u);
    EXPECT_EQ(back.bPostFilter, OMX_TRUE);

    OMX_AUDIO_PARAM_PCMMODETYPE pcm{};
    pcm.nPortIndex = 0;
    clear_log();
    EXPECT_EQ(c.comp->set_parameter(c.h, OMX_IndexParamAudioPcm, &pcm), OMX_ErrorBadPortIndex);
    EXPECT_TRUE(log_contains("get_parameter:OMX_IndexParamAudioPcm \t\t\t\tOMX_ErrorBadPortIndex 0\n"));
    pcm.nPortIndex = 1;
    pcm.nSamplingRate = 16000;
    ASSERT_EQ(c.comp->set_parameter(c.h, OMX_IndexParamAudioPcm, &pcm), OMX_ErrorNone);
    EXPECT_EQ(c.comp->pcm_params.nSamplingRate, 16000u);

    OMX_PRIORITYMGMTTYPE prio{};
    prio.nGroupPriority = 5;
    prio.nGroupID = 6;
    ASSERT_EQ(c.comp->set_parameter(c.h, OMX_IndexParamPriorityMgmt, &prio), OMX_ErrorNone);
    OMX_PRIORITYMGMTTYPE prio2{};
    ASSERT_EQ(c.comp->get_parameter(c.h, OMX_IndexParamPriorityMgmt, &prio2), OMX_ErrorNone);
    EXPECT_EQ(prio2.nGroupPriority, 5u);
    EXPECT_EQ(prio2.nGroupID, 6u);

    OMX_PARAM_COMPONENTROLETYPE role{};
    role.nSize = 9;
    std::strcpy(reinterpret_cast<char*>(role.cRole), "audio_decoder.evrc");
    ASSERT_EQ(c.comp->set_parameter(c.h, OMX_IndexParamStandardComponentRole, &role), OMX_ErrorNone);
    EXPECT_EQ(c.comp->role_record.nSize, 9u);

    EXPECT_EQ(c.comp->set_parameter(c.h, static_cast<OMX_INDEXTYPE>(0x7F000001), &role), OMX_ErrorUnsupportedIndex);

    // While Loaded-to-Idle waits for buffers, only an input definition with
    // a port disabled may change.
    ASSERT_EQ(c.command(OMX_CommandStateSet, OMX_StateIdle), OMX_ErrorNone);
    def.nPortIndex = 0;
    def.eDir = OMX_DirInput;
    EXPECT_EQ(c.comp->set_parameter(c.h, OMX_IndexParamPortDefinition, &def), OMX_ErrorIncorrectStateOperation);
    c.comp->out_port_enabled = 0;
    EXPECT_EQ(c.comp->set_parameter(c.h, OMX_IndexParamPortDefinition, &def), OMX_ErrorNone);
    c.comp->out_port_enabled = 1;
    c.free_all();
}

TEST(OmxParameters, SetRefusedOutsideLoaded)
{
    Client c;
    ASSERT_TRUE(c.start());
    OMX_PRIORITYMGMTTYPE prio{};
    EXPECT_EQ(c.comp->set_parameter(c.h, OMX_IndexParamPriorityMgmt, &prio), OMX_ErrorIncorrectStateOperation);
    EXPECT_TRUE(log_contains("set_parameter is not in proper state\n"));
}

TEST(OmxConfig, VolumeAndMute)
{
    Client c;
    OMX_AUDIO_CONFIG_VOLUMETYPE vol;
    std::memset(&vol, 0, sizeof(vol));
    ASSERT_EQ(c.comp->get_config(c.h, kVolume, &vol), OMX_ErrorNone);
    EXPECT_EQ(vol.nSize, 4u);
    EXPECT_EQ(vol.nVersion.nVersion, 0x101u);
    EXPECT_EQ(vol.bLinear, OMX_TRUE);
    EXPECT_EQ(vol.sVolume.nValue, 25);
    EXPECT_EQ(vol.sVolume.nMax, 100);
    vol.sVolume.nValue = 100;
    EXPECT_EQ(c.comp->set_config(c.h, kVolume, &vol), OMX_ErrorNone);
    vol.sVolume.nValue = 101;
    EXPECT_EQ(c.comp->set_config(c.h, kVolume, &vol), OMX_ErrorBadParameter);
    vol.sVolume.nValue = -1;
    EXPECT_EQ(c.comp->set_config(c.h, kVolume, &vol), OMX_ErrorBadParameter);
    EXPECT_EQ(c.comp->volume.load(), 100u);
    vol.nPortIndex = 1;
    EXPECT_EQ(c.comp->set_config(c.h, kVolume, &vol), OMX_ErrorBadPortIndex);
    EXPECT_EQ(c.comp->get_config(c.h, kVolume, &vol), OMX_ErrorBadPortIndex);

    OMX_AUDIO_CONFIG_MUTETYPE mute{};
    mute.bMute = OMX_TRUE;
    ASSERT_EQ(c.comp->set_config(c.h, kMute, &mute), OMX_ErrorNone);
    EXPECT_TRUE(c.comp->pending_flags & omx_evrc_adec::PENDING_MUTE);
    mute.bMute = OMX_FALSE;
    ASSERT_EQ(c.comp->get_config(c.h, kMute, &mute), OMX_ErrorNone);
    EXPECT_EQ(mute.bMute, OMX_TRUE);
    mute.bMute = static_cast<OMX_BOOL>(2);  // only exactly OMX_TRUE mutes
    ASSERT_EQ(c.comp->set_config(c.h, kMute, &mute), OMX_ErrorNone);
    ASSERT_EQ(c.comp->get_config(c.h, kMute, &mute), OMX_ErrorNone);
    EXPECT_EQ(mute.bMute, OMX_FALSE);
    EXPECT_EQ(c.comp->get_config(c.h, OMX_IndexParamPortDefinition, &mute), OMX_ErrorUnsupportedIndex);
    EXPECT_EQ(c.comp->set_config(c.h, OMX_IndexParamPortDefinition, &mute), OMX_ErrorUnsupportedIndex);

    ASSERT_TRUE(c.start());
    mute.bMute = OMX_TRUE;
    EXPECT_EQ(c.comp->set_config(c.h, kMute, &mute), OMX_ErrorInvalidState);
    EXPECT_TRUE(log_contains("set_config:Ignore in Exe state\n"));
}

}  // namespace
}  // namespace omx_test
