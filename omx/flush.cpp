// Port flush: the command thread queues a flush for the input thread and
// waits for its acknowledgement; the input thread returns every queued
// buffer and restarts the decoder.
#include <cerrno>

#include "omx/log.h"
#include "omx/omx_evrc_adec.h"

bool omx_evrc_adec::execute_omx_flush(unsigned int port, bool send_event) {
    if (port == 0 || port == 1 || port == OMX_ALL) {
        pthread_mutex_lock(&flush_lock);
        flush_ack_count = 1;
        pthread_mutex_unlock(&flush_lock);

        post_data(1, 0, MSG_COMMAND);

        // The entry is queued before park_lock is taken, so a parked input
        // thread is either released here or sees the entry and does not park.
        pthread_mutex_lock(&park_lock);
        const bool release = port == 0 ? input_parked != 0 : (input_parked || input_blocked);
        if (release) {
            sem_post(&resume_sem);
            input_parked = 0;
        }
        pthread_mutex_unlock(&park_lock);

        pthread_mutex_lock(&event_lock);
        while (!event_flag && !shutting_down) pthread_cond_wait(&event_cond, &event_lock);
        const bool acknowledged = event_flag != 0;
        event_flag = 0;
        pthread_mutex_unlock(&event_lock);

        if (send_event && acknowledged) {
            if (port == 0 || port == OMX_ALL) event(OMX_EventCmdComplete, OMX_CommandFlush, 0, nullptr);
            if (port == 1 || port == OMX_ALL) event(OMX_EventCmdComplete, OMX_CommandFlush, 1, nullptr);
        }
    }
    resid_len = 0;
    return true;
}

bool omx_evrc_adec::execute_data_flush() {
    decoder_reset();

    pthread_mutex_lock(&data_q_lock);
    while (in_data_q.size() || out_data_q.size() || done_q.size()) {
        uintptr_t p1 = 0, p2 = 0;
        unsigned char id = 0;
        if (in_data_q.size()) {
            in_data_q.pop_entry(&p1, &p2, &id);
            if (id == MSG_ETB && p2) buffer_done_cb(reinterpret_cast<OMX_BUFFERHEADERTYPE *>(p2));
        } else if (out_data_q.size()) {
            out_data_q.pop_entry(&p1, &p2, &id);
            if (id == MSG_FTB && p2) frame_done_cb(reinterpret_cast<OMX_BUFFERHEADERTYPE *>(p2));
        } else {
            done_q.pop_entry(&p1, &p2, &id);
            if (id == MSG_FBD && p2)
                frame_done_cb(reinterpret_cast<OMX_BUFFERHEADERTYPE *>(p2));
            else if (id == MSG_EBD && p2)
                buffer_done_cb(reinterpret_cast<OMX_BUFFERHEADERTYPE *>(p2));
        }
    }

    flush_ack();
    pthread_mutex_unlock(&data_q_lock);
    return true;
}

void omx_evrc_adec::flush_ack() {
    pthread_mutex_lock(&flush_lock);
    flush_ack_count = static_cast<uint8_t>(flush_ack_count - 1);
    if (flush_ack_count == 0) {
        pthread_mutex_lock(&event_lock);
        if (!event_flag) {
            event_flag = 1;
            pthread_cond_signal(&event_cond);
        }
        pthread_mutex_unlock(&event_lock);
    }
    pthread_mutex_unlock(&flush_lock);
}
