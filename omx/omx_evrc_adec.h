// OpenMAX IL audio decoder component for EVRC speech.
//
// Input port 0 takes EVRC packets (a rate byte followed by the packet's
// bytes); output port 1 returns 16-bit PCM, 8000 Hz, mono, 320 bytes per
// packet. The component answers to "OMX.vemo.audio.decoder.evrc" and
// "OMX.vemo.audio.decoder.tunneled.evrc" with the role "audio_decoder.evrc".
//
// An OpenMAX IL core obtains an object from get_omx_component_factory_fn(),
// calls component_init(name), and then forwards the standard calls to the
// virtual operations below. Two worker threads do the work: the command
// thread (process_command_msg) and the input thread (process_in_port_msg),
// each woken by one byte per message written into its pipe.
#ifndef EVRC_OMX_EVRC_ADEC_H
#define EVRC_OMX_EVRC_ADEC_H

#include <OMX_Audio.h>
#include <OMX_Component.h>
#include <OMX_Core.h>
#include <OMX_Index.h>
#include <OMX_Types.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/time.h>

#include <atomic>
#include <cstdint>

#include "evrc/evrc_dec.h"
#include "evrc/evrc_types.h"
#include "omx/map.h"

// Decode-time instrumentation, exported for native callers.
extern "C" {
EVRC_API extern struct timeval evrc_decode_tv1;
EVRC_API extern struct timeval evrc_decode_tv2;
EVRC_API extern struct timezone evrc_decode_tz1;
EVRC_API extern struct timezone evrc_decode_tz2;
EVRC_API extern int64_t evrc_decode_total_time_us;  // sum of decode times
EVRC_API extern int64_t evrc_decode_time_us;        // exported, not updated

// Creates a new, uninitialised component object (an omx_evrc_adec*).
EVRC_API void *get_omx_component_factory_fn(void);
}

// One worker thread: a pthread reading the bytes written into its own pipe
// and calling handler(arg, byte) for each, in order.
struct WorkerThread {
    pthread_t thread;
    int read_fd;
    int write_fd;
    std::atomic<int> stop;
    void (*handler)(void *component, unsigned char id);
    void *arg;
    char name[128];  // only the first three characters are kept
};

WorkerThread *omx_evrc_thread_create(void (*handler)(void *, unsigned char), void *component, const char *name);
void omx_evrc_thread_stop(WorkerThread *thread);
// The two halves of omx_evrc_thread_stop: ask the worker to end (it ends on
// its own, at once or after the pass it is in), then wait for it and free it.
void omx_evrc_thread_request_stop(WorkerThread *thread);
void omx_evrc_thread_join(WorkerThread *thread);
void omx_evrc_post_msg(WorkerThread *thread, unsigned char id);
void *omx_evrc_msg(void *thread);  // thread body; argument is the WorkerThread*

class omx_evrc_adec {
public:
    static constexpr const char *kName = "OMX.vemo.audio.decoder.evrc";
    static constexpr const char *kTunneledName = "OMX.vemo.audio.decoder.tunneled.evrc";
    static constexpr const char *kRole = "audio_decoder.evrc";
    static constexpr OMX_U32 kVersion = 0x00000101;
    static constexpr unsigned kPcmSamples = 9600;
    static constexpr unsigned kInputBufferSize = 720;    // 30 slots of 24 bytes
    static constexpr unsigned kOutputBufferSize = 9600;  // 30 frames of 320 bytes
    static constexpr unsigned kSlotSize = 24;
    static constexpr unsigned kSlots = 30;
    static constexpr unsigned kFrameBytes = 320;
    static constexpr unsigned kQueueSize = 100;

    // Message ids (queue entries and pipe bytes).
    enum : unsigned char {
        MSG_CMD_COMPLETE = 1,
        MSG_EBD = 2,            // deferred input buffer return
        MSG_ETB = 3,            // input buffer
        MSG_COMMAND = 4,        // command (cmd_q) / flush (in_ctrl_q)
        MSG_FBD = 5,            // deferred output buffer return
        MSG_FTB = 6,            // output buffer
        MSG_EOS = 7,            // end-of-stream event
        MSG_PORT_SETTINGS = 8,  // output port settings changed
    };

    // Bits of pending_flags.
    enum : uint32_t {
        PENDING_LOADED_TO_IDLE = 0x02,
        PENDING_IDLE_TO_LOADED = 0x04,
        PENDING_MUTE = 0x08,
        PENDING_INPUT_ENABLE = 0x10,
        PENDING_OUTPUT_ENABLE = 0x20,
        PENDING_INPUT_DISABLE = 0x40,
        PENDING_OUTPUT_DISABLE = 0x80,
    };

    // Fixed-capacity FIFO of messages. The caller holds the queue's lock; the
    // size may also be read without it.
    class omx_cmd_queue {
    public:
        struct entry {
            uintptr_t param1;
            uintptr_t param2;
            unsigned char id;
        };
        omx_cmd_queue();
        bool insert_entry(uintptr_t p1, uintptr_t p2, unsigned char id);
        bool pop_entry(uintptr_t *p1, uintptr_t *p2, unsigned char *id);
        uint32_t size() const { return m_size.load(std::memory_order_acquire); }

        entry m_q[kQueueSize];
        uint32_t m_read;
        uint32_t m_write;
        std::atomic<uint32_t> m_size;
    };

    omx_evrc_adec();

    // Virtual operations, in the order the core's table relies on.
    virtual ~omx_evrc_adec();
    virtual OMX_ERRORTYPE component_init(char *name);
    virtual OMX_ERRORTYPE get_component_version(void *hComp, char *name, OMX_VERSIONTYPE *compVersion,
                                                OMX_VERSIONTYPE *specVersion, unsigned char (*uuid)[128]);
    virtual OMX_ERRORTYPE send_command(void *hComp, OMX_COMMANDTYPE cmd, unsigned int param, void *cmdData);
    virtual OMX_ERRORTYPE get_parameter(void *hComp, OMX_INDEXTYPE index, void *params);
    virtual OMX_ERRORTYPE set_parameter(void *hComp, OMX_INDEXTYPE index, void *params);
    virtual OMX_ERRORTYPE get_config(void *hComp, OMX_INDEXTYPE index, void *config);
    virtual OMX_ERRORTYPE set_config(void *hComp, OMX_INDEXTYPE index, void *config);
    virtual OMX_ERRORTYPE get_extension_index(void *hComp, char *name, OMX_INDEXTYPE *index);
    virtual OMX_ERRORTYPE get_state(void *hComp, OMX_STATETYPE *state);
    virtual OMX_ERRORTYPE component_tunnel_request(void *hComp, unsigned int port, void *peerComp,
                                                   unsigned int peerPort, OMX_TUNNELSETUPTYPE *setup);
    virtual OMX_ERRORTYPE use_buffer(void *hComp, OMX_BUFFERHEADERTYPE **hdr, unsigned int port, void *appData,
                                     unsigned int bytes, unsigned char *buffer);
    virtual OMX_ERRORTYPE allocate_buffer(void *hComp, OMX_BUFFERHEADERTYPE **hdr, unsigned int port, void *appData,
                                          unsigned int bytes);
    virtual OMX_ERRORTYPE free_buffer(void *hComp, unsigned int port, OMX_BUFFERHEADERTYPE *hdr);
    virtual OMX_ERRORTYPE empty_this_buffer(void *hComp, OMX_BUFFERHEADERTYPE *hdr);
    virtual OMX_ERRORTYPE fill_this_buffer(void *hComp, OMX_BUFFERHEADERTYPE *hdr);
    virtual OMX_ERRORTYPE set_callbacks(void *hComp, OMX_CALLBACKTYPE *callbacks, void *appData);
    virtual OMX_ERRORTYPE component_deinit(void *hComp);
    virtual OMX_ERRORTYPE use_EGL_image(void *hComp, OMX_BUFFERHEADERTYPE **hdr, unsigned int port, void *appData,
                                        void *eglImage);
    virtual OMX_ERRORTYPE component_role_enum(void *hComp, unsigned char *role, unsigned int index);

    // Handle passed as the first argument of every callback and used to
    // recognise marks aimed at this component: &handle unless an adapter
    // that gives the client another handle sets that one here (before
    // set_callbacks and any command).
    OMX_HANDLETYPE callback_handle() const { return cb_handle.load(std::memory_order_acquire); }
    void set_callback_handle(OMX_HANDLETYPE h) { cb_handle.store(h, std::memory_order_release); }

    // Worker thread entry points (argument: the component).
    static void process_command_msg(void *component, unsigned char id);
    static void process_in_port_msg(void *component, unsigned char id);

    // Messaging.
    bool post_command(uintptr_t p1, uintptr_t p2, unsigned char id, bool unused = false);
    bool post_data(uintptr_t p1, uintptr_t p2, unsigned char id, bool unused = false);
    void wait_for_event();
    void event_complete();

    // Commands.
    // What one command does at once: its result, and whether its completion
    // is queued now (otherwise check_pending queues it later).
    struct CommandStep {
        OMX_ERRORTYPE result;
        bool complete_now;
    };
    OMX_ERRORTYPE send_command_proxy(void *hComp, OMX_COMMANDTYPE cmd, unsigned int param, void *cmdData);
    CommandStep change_state(unsigned int target, bool *abandoned);
    CommandStep flush_ports(unsigned int port);
    CommandStep disable_ports(unsigned int port);
    CommandStep enable_ports(unsigned int port);
    void complete_command(uintptr_t cmd, uintptr_t param);  // completion on the command thread
    // Queues the completion of each waiting transition in `which` (PENDING_
    // bits) whose condition now holds.
    void check_pending(uint32_t which);
    bool allocate_done();
    bool release_done(unsigned int port);

    // The codec side (decoder_slot.cpp): the decoder state's life and the
    // decoding of a batch of packet slots.
    bool decoder_create();  // creates or zero-fills the state, then initialises it
    void decoder_reset();
    void decoder_destroy();

    // Buffers.
    OMX_ERRORTYPE allocate_input_buffer(void *hComp, OMX_BUFFERHEADERTYPE **hdr, unsigned int port, void *appData,
                                        unsigned int bytes);
    OMX_ERRORTYPE allocate_output_buffer(void *hComp, OMX_BUFFERHEADERTYPE **hdr, unsigned int port, void *appData,
                                         unsigned int bytes);
    OMX_ERRORTYPE use_input_buffer(void *hComp, OMX_BUFFERHEADERTYPE **hdr, unsigned int port, void *appData,
                                   unsigned int bytes, unsigned char *buffer);
    OMX_ERRORTYPE use_output_buffer(void *hComp, OMX_BUFFERHEADERTYPE **hdr, unsigned int port, void *appData,
                                    unsigned int bytes, unsigned char *buffer);
    bool search_input_bufhdr(OMX_BUFFERHEADERTYPE *hdr);
    bool search_output_bufhdr(OMX_BUFFERHEADERTYPE *hdr);
    void populated_check(bool output_buffer);

    // Data path.
    unsigned int transcode_data(unsigned char **src, unsigned int filled_len, unsigned int *consumed,
                                unsigned char *rate);
    OMX_ERRORTYPE process_data(void *hComp, OMX_BUFFERHEADERTYPE *in, OMX_BUFFERHEADERTYPE *out);
    void decode_batch(unsigned int n);
    void buffer_done_cb(OMX_BUFFERHEADERTYPE *in);
    void frame_done_cb(OMX_BUFFERHEADERTYPE *out);
    void process_ftb(void *hComp, OMX_BUFFERHEADERTYPE *out, short *pcm, unsigned int len);
    void stamp_output(OMX_BUFFERHEADERTYPE *out);
    static void byte_swap(unsigned char *buf, unsigned char len);

    // Flush.
    bool execute_omx_flush(unsigned int port, bool send_event);
    bool execute_data_flush();
    void flush_ack();

    // Callbacks, each skipped while the client has not set it.
    void event(OMX_EVENTTYPE ev, OMX_U32 data1, OMX_U32 data2, OMX_PTR data);
    OMX_STATETYPE locked_state();  // get_state under state_lock

    // ---- Fields ----
    OMX_COMPONENTTYPE handle;
    short pcm_out_buf[kPcmSamples];
    std::atomic<uint32_t> frames_in_buffer;
    std::atomic<uint16_t> total_frames;
    std::atomic<uint8_t> flush_ack_count;
    std::atomic<uint32_t> etb_count;
    std::atomic<uint32_t> ftb_count;
    std::atomic<int32_t> eos_pending;
    std::atomic<uint8_t> input_parked;
    std::atomic<uint32_t> frame_duration;
    std::atomic<uint32_t> pending_flags;
    std::atomic<uint32_t> fbd_count;
    std::atomic<uint64_t> out_timestamp;
    std::atomic<int32_t> pcm_feedback;
    std::atomic<uint32_t> eos_timestamp;
    std::atomic<uint32_t> output_buffer_size;
    std::atomic<uint32_t> input_buffer_size;
    std::atomic<EvrcDecoderState *> decoder_state;
    std::atomic<int32_t> in_port_enabled;
    std::atomic<int32_t> out_port_enabled;
    std::atomic<int32_t> in_port_populated;
    std::atomic<int32_t> out_port_populated;
    sem_t cmd_done_sem;
    sem_t resume_sem;
    std::atomic<uint32_t> in_actual_count;
    std::atomic<uint32_t> out_actual_count;
    std::atomic<uint32_t> in_alloc_count;
    std::atomic<uint32_t> out_alloc_count;
    int32_t event_flag;  // guarded by event_lock
    std::atomic<uint8_t> input_blocked;
    Map<OMX_BUFFERHEADERTYPE *, OMX_BUFFERHEADERTYPE *> in_buf_map;
    Map<OMX_BUFFERHEADERTYPE *, OMX_BUFFERHEADERTYPE *> out_buf_map;
    omx_cmd_queue in_data_q;
    omx_cmd_queue out_data_q;
    omx_cmd_queue in_ctrl_q;
    omx_cmd_queue done_q;
    omx_cmd_queue cmd_q;
    pthread_mutexattr_t data_q_attr, cmd_q_attr, out_count_attr, in_count_attr, state_attr, flush_attr, event_attr,
        park_attr;
    pthread_mutex_t data_q_lock;
    pthread_mutex_t cmd_q_lock;
    pthread_mutex_t out_count_lock;
    pthread_mutex_t in_count_lock;
    pthread_mutex_t state_lock;
    pthread_mutex_t flush_lock;
    pthread_mutex_t event_lock;
    pthread_mutex_t park_lock;
    pthread_cond_t event_cond;
    std::atomic<void *> app_data;
    std::atomic<uint32_t> volume;
    std::atomic<OMX_STATETYPE> state;
    struct {
        std::atomic<decltype(OMX_CALLBACKTYPE::EventHandler)> EventHandler;
        std::atomic<decltype(OMX_CALLBACKTYPE::EmptyBufferDone)> EmptyBufferDone;
        std::atomic<decltype(OMX_CALLBACKTYPE::FillBufferDone)> FillBufferDone;
    } callbacks;
    std::atomic<WorkerThread *> input_thread;
    std::atomic<WorkerThread *> cmd_thread;
    OMX_AUDIO_PARAM_EVRCTYPE evrc_params;
    OMX_AUDIO_PARAM_PCMMODETYPE pcm_params;
    OMX_PARAM_COMPONENTROLETYPE role_record;
    std::atomic<OMX_HANDLETYPE> mark_target;
    std::atomic<OMX_PTR> mark_data;
    unsigned char *pkt_write_ptr;
    unsigned char *pkt_array;
    unsigned char *resid_read_ptr;
    unsigned char *resid_buf;
    std::atomic<uint32_t> resid_len;
    std::atomic<uint8_t> resume_pending;
    std::atomic<uint8_t> idle_pending;
    std::atomic<uint8_t> packet_complete;

    // Stored by set_parameter, reported by get_parameter.
    OMX_U32 group_priority;
    OMX_U32 group_id;
    OMX_BUFFERSUPPLIERTYPE buffer_supplier;

    // Set by component_deinit so that neither worker can stay blocked.
    std::atomic<bool> shutting_down;
    std::atomic<OMX_HANDLETYPE> cb_handle;
};

#endif  // EVRC_OMX_EVRC_ADEC_H
