// Component object: construction, component_init / component_deinit,
// destruction, and the entry points that need no worker.
#include <cstdlib>
#include <cstring>

#include "omx/log.h"
#include "omx/omx_evrc_adec.h"

extern "C" {
EVRC_API struct timeval evrc_decode_tv1;
EVRC_API struct timeval evrc_decode_tv2;
EVRC_API struct timezone evrc_decode_tz1;
EVRC_API struct timezone evrc_decode_tz2;
EVRC_API int64_t evrc_decode_total_time_us = 0;
EVRC_API int64_t evrc_decode_time_us = 0;

EVRC_API void *get_omx_component_factory_fn(void) { return static_cast<void *>(new (std::nothrow) omx_evrc_adec()); }
}

namespace {

void init_mutex(pthread_mutex_t *m, pthread_mutexattr_t *attr) {
    pthread_mutexattr_init(attr);
    pthread_mutex_init(m, attr);
}

void destroy_mutex(pthread_mutex_t *m, pthread_mutexattr_t *attr) {
    pthread_mutex_destroy(m);
    pthread_mutexattr_destroy(attr);
}

// Copies at most 127 characters and a terminating zero.
void copy_name(OMX_U8 *dst, const char *src) {
    std::size_t i = 0;
    for (; i < OMX_MAX_STRINGNAME_SIZE - 1 && src[i]; ++i) dst[i] = static_cast<OMX_U8>(src[i]);
    dst[i] = 0;
}

}  // namespace

omx_evrc_adec::omx_evrc_adec()
    : pcm_out_buf{},
      frames_in_buffer(0),
      total_frames(0),
      flush_ack_count(255),
      etb_count(0),
      ftb_count(0),
      eos_pending(0),
      input_parked(0),
      frame_duration(600),
      pending_flags(0),
      fbd_count(0),
      out_timestamp(0),
      pcm_feedback(1),
      eos_timestamp(0),
      output_buffer_size(kOutputBufferSize),
      input_buffer_size(kInputBufferSize),
      decoder_state(nullptr),
      in_port_enabled(1),
      out_port_enabled(1),
      in_port_populated(0),
      out_port_populated(0),
      in_actual_count(2),
      out_actual_count(2),
      in_alloc_count(0),
      out_alloc_count(0),
      event_flag(0),
      input_blocked(0),
      app_data(nullptr),
      volume(25),
      state(OMX_StateInvalid),
      callbacks{},
      input_thread(nullptr),
      cmd_thread(nullptr),
      mark_target(nullptr),
      mark_data(nullptr),
      pkt_write_ptr(nullptr),
      pkt_array(nullptr),
      resid_read_ptr(nullptr),
      resid_buf(nullptr),
      resid_len(0),
      resume_pending(0),
      idle_pending(0),
      packet_complete(0),
      group_priority(0),
      group_id(0),
      buffer_supplier(OMX_BufferSupplyUnspecified),
      shutting_down(false),
      cb_handle(&handle) {
    std::memset(&handle, 0, sizeof(handle));
    std::memset(&evrc_params, 0, sizeof(evrc_params));
    std::memset(&pcm_params, 0, sizeof(pcm_params));
    std::memset(&role_record, 0, sizeof(role_record));
    callbacks.EventHandler = nullptr;
    callbacks.EmptyBufferDone = nullptr;
    callbacks.FillBufferDone = nullptr;
    init_mutex(&data_q_lock, &data_q_attr);
    init_mutex(&cmd_q_lock, &cmd_q_attr);
    init_mutex(&out_count_lock, &out_count_attr);
    init_mutex(&in_count_lock, &in_count_attr);
    init_mutex(&state_lock, &state_attr);
    init_mutex(&flush_lock, &flush_attr);
    init_mutex(&event_lock, &event_attr);
    init_mutex(&park_lock, &park_attr);
    pthread_cond_init(&event_cond, nullptr);
    sem_init(&cmd_done_sem, 0, 0);
    sem_init(&resume_sem, 0, 0);
}

omx_evrc_adec::~omx_evrc_adec() {
    sem_destroy(&cmd_done_sem);
    sem_destroy(&resume_sem);
    destroy_mutex(&data_q_lock, &data_q_attr);
    destroy_mutex(&cmd_q_lock, &cmd_q_attr);
    destroy_mutex(&out_count_lock, &out_count_attr);
    destroy_mutex(&in_count_lock, &in_count_attr);
    destroy_mutex(&state_lock, &state_attr);
    destroy_mutex(&flush_lock, &flush_attr);
    destroy_mutex(&event_lock, &event_attr);
    destroy_mutex(&park_lock, &park_attr);
    pthread_cond_destroy(&event_cond);
    in_buf_map.eraseall();
    out_buf_map.eraseall();
}

OMX_ERRORTYPE omx_evrc_adec::component_init(char *name) {
    if (!name) return OMX_ErrorBadParameter;

    state = OMX_StateLoaded;
    total_frames = 0;
    volume = 25;
    frame_duration = 600;
    out_timestamp = 0;
    fbd_count = 0;
    eos_pending = 0;
    etb_count = 0;
    ftb_count = 0;
    pcm_feedback = 1;
    input_blocked = 0;
    eos_timestamp = 0xFFFFFFFFu;
    shutting_down = false;

    std::memset(&evrc_params, 0, sizeof(evrc_params));
    evrc_params.nSize = sizeof(OMX_AUDIO_PARAM_EVRCTYPE);
    evrc_params.nChannels = 1;

    std::memset(&pcm_params, 0, sizeof(pcm_params));
    pcm_params.nChannels = 1;
    pcm_params.eNumData = OMX_NumericalDataSigned;
    pcm_params.eEndian = OMX_EndianBig;
    pcm_params.bInterleaved = OMX_TRUE;
    pcm_params.nBitPerSample = 16;
    pcm_params.nSamplingRate = 8000;
    pcm_params.ePCMMode = OMX_AUDIO_PCMModeLinear;
    pcm_params.eChannelMapping[0] = OMX_AUDIO_ChannelLF;
    pcm_params.eChannelMapping[1] = OMX_AUDIO_ChannelRF;

    if (!pkt_array) {
        pkt_array = static_cast<unsigned char *>(std::calloc(1, kSlots * kSlotSize));
        if (!pkt_array) return OMX_ErrorInsufficientResources;
    }
    pkt_write_ptr = pkt_array;

    if (!resid_buf) {
        resid_buf = static_cast<unsigned char *>(std::calloc(1, kSlotSize));
        if (!resid_buf) return OMX_ErrorInsufficientResources;
    }
    resid_read_ptr = resid_buf;

    role_record.nVersion.nVersion = kVersion;
    if (std::strcmp(name, kName) == 0) {
        pcm_feedback = 1;
        role_record.nSize = 4;
        copy_name(role_record.cRole, name);
    } else if (std::strcmp(name, kTunneledName) == 0) {
        pcm_feedback = 0;
        role_record.nSize = 4;
        copy_name(role_record.cRole, name);
    } else {
        // Unknown names are accepted as the non-tunneled decoder.
        role_record.nSize = 2;
        copy_name(role_record.cRole, "");
    }

    if (!input_thread) {
        input_thread = omx_evrc_thread_create(process_in_port_msg, this, "INPUT_THREAD");
        if (!input_thread) {
            OMX_EVRC_LOG("ERROR!!! Failed to start Input port thread\n");
            return OMX_ErrorInsufficientResources;
        }
    }
    if (!cmd_thread) {
        cmd_thread = omx_evrc_thread_create(process_command_msg, this, "CMD_THREAD");
        if (!cmd_thread) {
            OMX_EVRC_LOG("ERROR!!!Failed to start \t\t\t\tcommand message thread\n");
            return OMX_ErrorInsufficientResources;
        }
    }

    OMX_EVRC_LOG("COMPONENT INIT %s\n", name);
    return OMX_ErrorNone;
}

OMX_ERRORTYPE omx_evrc_adec::component_deinit(void * /*hComp*/) {
    const OMX_STATETYPE cur = state;
    if (cur >= OMX_StateIdle)
        OMX_EVRC_LOG("Warning: Received DeInit when not in LOADED state,\t\t\t\tcur_state %d\n", cur);

    // Neither worker may stay blocked from here on: a parked input thread and
    // a command thread waiting for a flush acknowledgement are released.
    shutting_down = true;
    pthread_mutex_lock(&park_lock);
    if (input_parked) {
        sem_post(&resume_sem);
        input_parked = 0;
    }
    pthread_mutex_unlock(&park_lock);
    pthread_mutex_lock(&event_lock);
    pthread_cond_broadcast(&event_cond);
    pthread_mutex_unlock(&event_lock);

    // The input worker is told to stop, then the command worker, and only
    // then is either waited for, so that they wind down at the same time
    // rather than one after the other. The command worker is waited for
    // first: it may still post to the input worker, whose record must
    // outlive it; the input worker posts only to itself.
    WorkerThread *const input = input_thread.load();
    WorkerThread *const command = cmd_thread.load();
    omx_evrc_thread_request_stop(input);
    omx_evrc_thread_request_stop(command);
    omx_evrc_thread_join(command);
    cmd_thread = nullptr;
    omx_evrc_thread_join(input);
    input_thread = nullptr;

    input_blocked = 0;
    resume_pending = 0;
    idle_pending = 0;
    eos_pending = 0;
    etb_count = 0;
    ftb_count = 0;
    in_port_enabled = 1;
    out_port_enabled = 1;
    in_port_populated = 0;
    out_port_populated = 0;

    std::free(pkt_array);
    pkt_array = pkt_write_ptr = nullptr;
    std::free(resid_buf);
    resid_buf = resid_read_ptr = nullptr;
    decoder_destroy();

    OMX_EVRC_LOG("COMPONENT DEINIT\n");
    return OMX_ErrorNone;
}

OMX_ERRORTYPE omx_evrc_adec::get_component_version(void * /*hComp*/, char * /*name*/, OMX_VERSIONTYPE *compVersion,
                                                   OMX_VERSIONTYPE *specVersion, unsigned char (* /*uuid*/)[128]) {
    if (state == OMX_StateInvalid) {
        OMX_EVRC_LOG("Get Comp Version in Invalid State\n");
        return OMX_ErrorInvalidState;
    }
    if (!compVersion || !specVersion) return OMX_ErrorBadParameter;
    compVersion->nVersion = kVersion;
    specVersion->nVersion = kVersion;
    return OMX_ErrorNone;
}

OMX_ERRORTYPE omx_evrc_adec::get_state(void * /*hComp*/, OMX_STATETYPE *out) {
    if (!out) return OMX_ErrorBadParameter;
    *out = state;
    return OMX_ErrorNone;
}

OMX_ERRORTYPE omx_evrc_adec::set_callbacks(void * /*hComp*/, OMX_CALLBACKTYPE *cb, void *appData) {
    if (!cb) return OMX_ErrorBadParameter;
    callbacks.EventHandler = cb->EventHandler;
    callbacks.EmptyBufferDone = cb->EmptyBufferDone;
    callbacks.FillBufferDone = cb->FillBufferDone;
    app_data = appData;
    return OMX_ErrorNone;
}

OMX_ERRORTYPE omx_evrc_adec::component_role_enum(void * /*hComp*/, unsigned char *role, unsigned int index) {
    if (!role || index != 0) return OMX_ErrorNoMore;
    // The 18 characters of the role, then a zero one byte further on: the
    // byte right behind the text keeps its value, so only a zero-filled
    // buffer comes back terminated.
    static const char kRoleText[] = "audio_decoder.evrc";
    const std::size_t n = sizeof(kRoleText) - 1;
    std::memcpy(role, kRoleText, n);
    role[n + 1] = 0;
    return OMX_ErrorNone;
}

OMX_ERRORTYPE omx_evrc_adec::get_extension_index(void * /*hComp*/, char * /*name*/, OMX_INDEXTYPE * /*index*/) {
    if (state == OMX_StateInvalid) {
        OMX_EVRC_LOG("Get Extension Index in Invalid State\n");
        return OMX_ErrorInvalidState;
    }
    OMX_EVRC_LOG("Error, Not implemented\n");
    return OMX_ErrorNotImplemented;
}

OMX_ERRORTYPE omx_evrc_adec::component_tunnel_request(void * /*hComp*/, unsigned int /*port*/, void * /*peerComp*/,
                                                      unsigned int /*peerPort*/, OMX_TUNNELSETUPTYPE * /*setup*/) {
    OMX_EVRC_LOG("Error: component_tunnel_request Not Implemented\n");
    return OMX_ErrorNotImplemented;
}

OMX_ERRORTYPE omx_evrc_adec::use_EGL_image(void * /*hComp*/, OMX_BUFFERHEADERTYPE ** /*hdr*/, unsigned int /*port*/,
                                           void * /*appData*/, void * /*eglImage*/) {
    OMX_EVRC_LOG("Error : use_EGL_image:  Not Implemented \n");
    return OMX_ErrorNotImplemented;
}

void omx_evrc_adec::event(OMX_EVENTTYPE ev, OMX_U32 data1, OMX_U32 data2, OMX_PTR data) {
    if (auto handler = callbacks.EventHandler.load())
        handler(callback_handle(), app_data.load(), ev, data1, data2, data);
}

OMX_STATETYPE omx_evrc_adec::locked_state() {
    OMX_STATETYPE s = OMX_StateInvalid;
    pthread_mutex_lock(&state_lock);
    get_state(callback_handle(), &s);
    pthread_mutex_unlock(&state_lock);
    return s;
}
