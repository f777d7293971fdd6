// get_parameter / set_parameter / get_config / set_config. Only the members
// named below are written into the caller's structures; the rest stay as
// the caller passed them.
#include <cstring>

#include "omx/log.h"
#include "omx/omx_evrc_adec.h"

namespace {

// Configuration indices served, by number.
constexpr OMX_U32 kIndexVolume = 0x04000023;
constexpr OMX_U32 kIndexMute = 0x04000026;
// nSize the component writes into the structures it fills in.
constexpr OMX_U32 kWrittenSize = 4;

void copy_role(OMX_U8 *dst, const OMX_U8 *src) {
    std::size_t i = 0;
    for (; i < OMX_MAX_STRINGNAME_SIZE - 1 && src[i]; ++i) dst[i] = src[i];
    dst[i] = 0;
}

}  // namespace

OMX_ERRORTYPE omx_evrc_adec::get_parameter(void * /*hComp*/, OMX_INDEXTYPE index, void *params) {
    if (state == OMX_StateInvalid) {
        OMX_EVRC_LOG("Get Param in Invalid State\n");
        return OMX_ErrorInvalidState;
    }
    if (!params) return OMX_ErrorBadParameter;

    switch (static_cast<OMX_U32>(index)) {
    case OMX_IndexParamPriorityMgmt: {
        auto *p = static_cast<OMX_PRIORITYMGMTTYPE *>(params);
        p->nGroupPriority = group_priority;
        p->nGroupID = group_id;
        return OMX_ErrorNone;
    }
    case OMX_IndexParamAudioInit: {
        auto *p = static_cast<OMX_PORT_PARAM_TYPE *>(params);
        p->nPorts = 2;
        p->nStartPortNumber = 0;
        return OMX_ErrorNone;
    }
    case OMX_IndexParamImageInit:
    case OMX_IndexParamVideoInit:
    case OMX_IndexParamOtherInit: {
        auto *p = static_cast<OMX_PORT_PARAM_TYPE *>(params);
        p->nPorts = 0;
        p->nStartPortNumber = 0;
        return OMX_ErrorNone;
    }
    case OMX_IndexParamStandardComponentRole: {
        auto *p = static_cast<OMX_PARAM_COMPONENTROLETYPE *>(params);
        p->nSize = role_record.nSize;
        p->nVersion = role_record.nVersion;
        copy_role(p->cRole, role_record.cRole);
        OMX_EVRC_LOG("cRole = %s\n", reinterpret_cast<const char *>(p->cRole));
        return OMX_ErrorNone;
    }
    case OMX_IndexParamPortDefinition: {
        auto *p = static_cast<OMX_PARAM_PORTDEFINITIONTYPE *>(params);
        p->nSize = kWrittenSize;
        p->nVersion.nVersion = kVersion;
        p->eDomain = OMX_PortDomainAudio;
        if (p->nPortIndex == 0) {
            p->eDir = OMX_DirInput;
            p->nBufferCountActual = in_actual_count;
            p->nBufferCountMin = 2;
            p->nBufferSize = input_buffer_size;
            p->bEnabled = in_port_enabled ? OMX_TRUE : OMX_FALSE;
            p->bPopulated = in_port_populated ? OMX_TRUE : OMX_FALSE;
            p->format.audio.pNativeRender = nullptr;
            p->format.audio.bFlagErrorConcealment = OMX_TRUE;
            p->format.audio.eEncoding = OMX_AUDIO_CodingEVRC;
        } else if (p->nPortIndex == 1) {
            p->eDir = OMX_DirOutput;
            p->nBufferCountActual = out_actual_count;
            p->nBufferCountMin = 2;
            p->nBufferSize = output_buffer_size;
            p->bEnabled = out_port_enabled ? OMX_TRUE : OMX_FALSE;
            p->bPopulated = out_port_populated ? OMX_TRUE : OMX_FALSE;
            p->format.audio.pNativeRender = nullptr;
            p->format.audio.bFlagErrorConcealment = OMX_TRUE;
            p->format.audio.eEncoding = OMX_AUDIO_CodingPCM;
        } else {
            p->eDir = static_cast<OMX_DIRTYPE>(0x7FFFFFFF);
            OMX_EVRC_LOG("Bad Port idx %d\n", static_cast<int>(p->nPortIndex));
            return OMX_ErrorBadPortIndex;
        }
        return OMX_ErrorNone;
    }
    case OMX_IndexParamCompBufferSupplier: {
        auto *p = static_cast<OMX_PARAM_BUFFERSUPPLIERTYPE *>(params);
        OMX_ERRORTYPE ret = OMX_ErrorBadPortIndex;
        if (p->nPortIndex == 0 || p->nPortIndex == 1) {
            p->nPortIndex = 0;
            ret = OMX_ErrorNone;
        }
        OMX_EVRC_LOG("get_parameter:OMX_IndexParamCompBufferSupplier \t\t\t\teRet %08x\n", static_cast<unsigned>(ret));
        return ret;
    }
    case OMX_IndexParamAudioPortFormat: {
        auto *p = static_cast<OMX_AUDIO_PARAM_PORTFORMATTYPE *>(params);
        if (p->nPortIndex == 0) {
            p->eEncoding = OMX_AUDIO_CodingEVRC;
        } else if (p->nPortIndex == 1) {
            p->eEncoding = OMX_AUDIO_CodingPCM;
        } else {
            OMX_EVRC_LOG("get_parameter: Bad port index %d\n", static_cast<int>(p->nPortIndex));
            return OMX_ErrorBadPortIndex;
        }
        return OMX_ErrorNone;
    }
    case OMX_IndexParamAudioPcm: {
        auto *p = static_cast<OMX_AUDIO_PARAM_PCMMODETYPE *>(params);
        if (p->nPortIndex != 1) {
            OMX_EVRC_LOG("get_parameter:OMX_IndexParamAudioPcm \t\t\t\tOMX_ErrorBadPortIndex %u\n",
                         static_cast<unsigned>(p->nPortIndex));
            return OMX_ErrorBadPortIndex;
        }
        p->nChannels = pcm_params.nChannels;
        p->eNumData = pcm_params.eNumData;
        p->bInterleaved = pcm_params.bInterleaved;
        p->nBitPerSample = pcm_params.nBitPerSample;
        p->nSamplingRate = pcm_params.nSamplingRate;
        p->ePCMMode = pcm_params.ePCMMode;
        p->eChannelMapping[0] = pcm_params.eChannelMapping[0];
        p->eChannelMapping[1] = pcm_params.eChannelMapping[1];
        return OMX_ErrorNone;
    }
    case OMX_IndexParamAudioEvrc: {
        auto *p = static_cast<OMX_AUDIO_PARAM_EVRCTYPE *>(params);
        if (p->nPortIndex != 0) {
            OMX_EVRC_LOG("get_parameter:OMX_IndexParamAudioEvrc \t\t\t\tOMX_ErrorBadPortIndex %d\n",
                         static_cast<int>(p->nPortIndex));
            return OMX_ErrorBadPortIndex;
        }
        std::memcpy(p, &evrc_params, sizeof(evrc_params));
        return OMX_ErrorNone;
    }
    default: OMX_EVRC_LOG("unknown param %08x\n", static_cast<unsigned>(index)); return OMX_ErrorUnsupportedIndex;
    }
}

OMX_ERRORTYPE omx_evrc_adec::set_parameter(void * /*hComp*/, OMX_INDEXTYPE index, void *params) {
    if (state != OMX_StateLoaded) {
        OMX_EVRC_LOG("set_parameter is not in proper state\n");
        return OMX_ErrorIncorrectStateOperation;
    }
    if (!params) return OMX_ErrorBadParameter;

    switch (static_cast<OMX_U32>(index)) {
    case OMX_IndexParamPriorityMgmt: {
        const auto *p = static_cast<const OMX_PRIORITYMGMTTYPE *>(params);
        group_priority = p->nGroupPriority;
        group_id = p->nGroupID;
        return OMX_ErrorNone;
    }
    case OMX_IndexParamStandardComponentRole: {
        const auto *p = static_cast<const OMX_PARAM_COMPONENTROLETYPE *>(params);
        role_record.nSize = p->nSize;
        role_record.nVersion = p->nVersion;
        copy_role(role_record.cRole, p->cRole);
        return OMX_ErrorNone;
    }
    case OMX_IndexParamPortDefinition: {
        const auto *p = static_cast<const OMX_PARAM_PORTDEFINITIONTYPE *>(params);
        if (pending_flags & PENDING_LOADED_TO_IDLE) {
            // While Loaded-to-Idle waits for buffers only an input port
            // definition, and only with a port disabled, may change.
            if (!(p->eDir == OMX_DirInput && (!in_port_enabled || !out_port_enabled))) {
                OMX_EVRC_LOG("Set Parameter called in Invalid State\n");
                return OMX_ErrorIncorrectStateOperation;
            }
        }
        const OMX_U32 count = p->nBufferCountActual < 2 ? 2 : p->nBufferCountActual;
        if (p->nPortIndex == 0) {
            in_actual_count = count;
            input_buffer_size = p->nBufferSize;
        } else if (p->nPortIndex == 1) {
            out_actual_count = count;
            output_buffer_size = p->nBufferSize;
        } else {
            return OMX_ErrorBadPortIndex;
        }
        return OMX_ErrorNone;
    }
    case OMX_IndexParamCompBufferSupplier: {
        const auto *p = static_cast<const OMX_PARAM_BUFFERSUPPLIERTYPE *>(params);
        OMX_ERRORTYPE ret = OMX_ErrorBadPortIndex;
        if (p->nPortIndex == 0 || p->nPortIndex == 1) {
            buffer_supplier = p->eBufferSupplier;
            ret = OMX_ErrorNone;
        }
        OMX_EVRC_LOG("set_parameter:OMX_IndexParamCompBufferSupplier: \t\t\t\teRet  %08x\n",
                     static_cast<unsigned>(ret));
        return ret;
    }
    case OMX_IndexParamAudioPortFormat: {
        auto *p = static_cast<OMX_AUDIO_PARAM_PORTFORMATTYPE *>(params);
        if (p->nPortIndex == 1) {
            p->eEncoding = OMX_AUDIO_CodingPCM;
        } else if (p->nPortIndex == 0) {
            p->eEncoding = OMX_AUDIO_CodingEVRC;
        } else {
            OMX_EVRC_LOG("set_parameter: Bad port index %d\n", static_cast<int>(p->nPortIndex));
            return OMX_ErrorBadPortIndex;
        }
        return OMX_ErrorNone;
    }
    case OMX_IndexParamAudioPcm: {
        const auto *p = static_cast<const OMX_AUDIO_PARAM_PCMMODETYPE *>(params);
        if (p->nPortIndex != 1) {
            // The message names get_parameter; it is the one this call logs.
            OMX_EVRC_LOG("get_parameter:OMX_IndexParamAudioPcm \t\t\t\tOMX_ErrorBadPortIndex %d\n",
                         static_cast<int>(p->nPortIndex));
            return OMX_ErrorBadPortIndex;
        }
        pcm_params.nChannels = p->nChannels;
        pcm_params.eNumData = p->eNumData;
        pcm_params.bInterleaved = p->bInterleaved;
        pcm_params.nBitPerSample = p->nBitPerSample;
        pcm_params.nSamplingRate = p->nSamplingRate;
        pcm_params.ePCMMode = p->ePCMMode;
        pcm_params.eChannelMapping[0] = p->eChannelMapping[0];
        pcm_params.eChannelMapping[1] = p->eChannelMapping[1];
        return OMX_ErrorNone;
    }
    case OMX_IndexParamAudioEvrc: std::memcpy(&evrc_params, params, sizeof(evrc_params)); return OMX_ErrorNone;
    default: OMX_EVRC_LOG("unknown param %d\n", static_cast<int>(index)); return OMX_ErrorUnsupportedIndex;
    }
}

OMX_ERRORTYPE omx_evrc_adec::get_config(void * /*hComp*/, OMX_INDEXTYPE index, void *config) {
    if (state == OMX_StateInvalid) {
        OMX_EVRC_LOG("Get Config in Invalid State\n");
        return OMX_ErrorInvalidState;
    }
    if (!config) return OMX_ErrorBadParameter;

    switch (static_cast<OMX_U32>(index)) {
    case kIndexVolume: {
        auto *p = static_cast<OMX_AUDIO_CONFIG_VOLUMETYPE *>(config);
        if (p->nPortIndex != 0) return OMX_ErrorBadPortIndex;
        p->nSize = kWrittenSize;
        p->nVersion.nVersion = kVersion;
        p->bLinear = OMX_TRUE;
        p->sVolume.nValue = static_cast<OMX_S32>(volume.load());
        p->sVolume.nMin = 0;
        p->sVolume.nMax = 100;
        return OMX_ErrorNone;
    }
    case kIndexMute: {
        auto *p = static_cast<OMX_AUDIO_CONFIG_MUTETYPE *>(config);
        if (p->nPortIndex != 0) return OMX_ErrorBadPortIndex;
        p->nSize = kWrittenSize;
        p->nVersion.nVersion = kVersion;
        p->bMute = (pending_flags & PENDING_MUTE) ? OMX_TRUE : OMX_FALSE;
        return OMX_ErrorNone;
    }
    default: return OMX_ErrorUnsupportedIndex;
    }
}

OMX_ERRORTYPE omx_evrc_adec::set_config(void * /*hComp*/, OMX_INDEXTYPE index, void *config) {
    const OMX_STATETYPE cur = state;
    if (cur == OMX_StateExecuting) {
        OMX_EVRC_LOG("set_config:Ignore in Exe state\n");
        return OMX_ErrorInvalidState;
    }
    if (cur == OMX_StateInvalid) {
        OMX_EVRC_LOG("Set Config in Invalid State\n");
        return OMX_ErrorInvalidState;
    }
    if (!config) return OMX_ErrorBadParameter;

    switch (static_cast<OMX_U32>(index)) {
    case kIndexVolume: {
        const auto *p = static_cast<const OMX_AUDIO_CONFIG_VOLUMETYPE *>(config);
        if (p->nPortIndex != 0) return OMX_ErrorBadPortIndex;
        // nValue is signed in the structure; a negative value is out of range
        // as well once taken as unsigned.
        const OMX_U32 v = static_cast<OMX_U32>(p->sVolume.nValue);
        if (v > 100) return OMX_ErrorBadParameter;
        volume = static_cast<uint32_t>(v);
        return OMX_ErrorNone;
    }
    case kIndexMute: {
        const auto *p = static_cast<const OMX_AUDIO_CONFIG_MUTETYPE *>(config);
        if (p->nPortIndex != 0) return OMX_ErrorBadPortIndex;
        if (p->bMute == OMX_TRUE)
            pending_flags |= PENDING_MUTE;
        else
            pending_flags &= ~PENDING_MUTE;
        return OMX_ErrorNone;
    }
    default: return OMX_ErrorUnsupportedIndex;
    }
}
