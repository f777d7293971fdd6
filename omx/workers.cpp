// Message queues, the two worker threads and their dispatch loops.
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <new>

#include "omx/log.h"
#include "omx/omx_evrc_adec.h"

// ---- omx_cmd_queue ----

omx_evrc_adec::omx_cmd_queue::omx_cmd_queue() : m_q{}, m_read(0), m_write(0), m_size(0) {}

bool omx_evrc_adec::omx_cmd_queue::insert_entry(uintptr_t p1, uintptr_t p2, unsigned char id) {
    if (m_size.load(std::memory_order_relaxed) >= kQueueSize) {
        OMX_EVRC_LOG("ERROR!!! Command Queue Full");
        return false;
    }
    m_q[m_write] = entry{p1, p2, id};
    m_write = (m_write + 1) % kQueueSize;
    m_size.fetch_add(1, std::memory_order_release);
    return true;
}

bool omx_evrc_adec::omx_cmd_queue::pop_entry(uintptr_t *p1, uintptr_t *p2, unsigned char *id) {
    if (m_size.load(std::memory_order_relaxed) == 0) {
        OMX_EVRC_LOG("ERROR Delete!!! Command Queue Empty");
        return false;
    }
    const entry &e = m_q[m_read];
    *p1 = e.param1;
    *p2 = e.param2;
    *id = e.id;
    m_read = (m_read + 1) % kQueueSize;
    m_size.fetch_sub(1, std::memory_order_release);
    return true;
}

// ---- Worker threads ----

WorkerThread *omx_evrc_thread_create(void (*handler)(void *, unsigned char), void *component, const char *name) {
    WorkerThread *t = new (std::nothrow) WorkerThread();
    if (!t) return nullptr;
    t->handler = handler;
    t->arg = component;
    // Only the first three characters of the name are kept ("INP", "CMD").
    for (std::size_t i = 0; i < 3 && name && name[i]; ++i) t->name[i] = name[i];

    int fds[2];
    if (pipe(fds) != 0) {
        delete t;
        return nullptr;
    }
    t->read_fd = fds[0];
    t->write_fd = fds[1];
    if (pthread_create(&t->thread, nullptr, omx_evrc_msg, t) > -1) return t;
    close(t->read_fd);
    close(t->write_fd);
    delete t;
    return nullptr;
}

void *omx_evrc_msg(void *arg) {
    WorkerThread *t = static_cast<WorkerThread *>(arg);
    if (t->stop) return nullptr;
    // Every byte waiting in the pipe is taken in one read (while the worker
    // was busy, one arrived for each message posted meanwhile) and handled
    // in order, one call per byte, as if read one at a time.
    unsigned char ids[64];
    for (;;) {
        const ssize_t n = read(t->read_fd, ids, sizeof(ids));
        if (n == 0) break;
        if (n < 0) {
            if (errno != EINTR) break;
            if (t->stop) break;
            continue;
        }
        for (ssize_t i = 0; i < n; ++i) {
            t->handler(t->arg, ids[i]);
            if (t->stop) return nullptr;
        }
    }
    return nullptr;
}

void omx_evrc_thread_stop(WorkerThread *t) {
    omx_evrc_thread_request_stop(t);
    omx_evrc_thread_join(t);
}

void omx_evrc_thread_request_stop(WorkerThread *t) {
    if (!t) return;
    t->stop = 1;
    // The pipe loses its only writer, so the worker's read ends. The write
    // descriptor is not closed but made a second copy of the read end: a
    // message posted late (by the other worker, still finishing a pass)
    // then fails harmlessly, where a closed descriptor number could by then
    // belong to a file opened elsewhere in the process.
    dup2(t->read_fd, t->write_fd);
}

void omx_evrc_thread_join(WorkerThread *t) {
    if (!t) return;
    pthread_join(t->thread, nullptr);
    close(t->write_fd);
    close(t->read_fd);
    delete t;
}

void omx_evrc_post_msg(WorkerThread *t, unsigned char id) {
    if (!t) return;
    ssize_t n;
    do {
        n = write(t->write_fd, &id, 1);
    } while (n < 0 && errno == EINTR);
}

// ---- Posting ----

// The byte that wakes a worker is written after the queue's lock is
// released: the worker takes that lock as soon as it wakes, and would
// otherwise find it still held and have to sleep again. The bytes carry no
// information of their own (a worker takes the next entry of its queues
// whatever the byte), so their order among several posters does not matter.

bool omx_evrc_adec::post_command(uintptr_t p1, uintptr_t p2, unsigned char id, bool) {
    pthread_mutex_lock(&cmd_q_lock);
    cmd_q.insert_entry(p1, p2, id);
    pthread_mutex_unlock(&cmd_q_lock);
    WorkerThread *t = cmd_thread;
    if (t) omx_evrc_post_msg(t, id);
    return t != nullptr;
}

bool omx_evrc_adec::post_data(uintptr_t p1, uintptr_t p2, unsigned char id, bool) {
    pthread_mutex_lock(&data_q_lock);
    bool wake = true;
    // The input thread handles one input buffer with one output buffer per
    // byte. A new buffer needs a byte of its own only when it completes a
    // pair, that is when its queue is now no longer than the other one;
    // otherwise it waits for a buffer of the other kind, whose byte will
    // serve it. (A byte left over, after a flush for instance, finds nothing
    // to do.)
    switch (id) {
    case MSG_EBD:
    case MSG_FBD: done_q.insert_entry(p1, p2, id); break;
    case MSG_ETB: wake = !in_data_q.insert_entry(p1, p2, id) || in_data_q.size() <= out_data_q.size(); break;
    case MSG_COMMAND:
    case MSG_EOS: in_ctrl_q.insert_entry(p1, p2, id); break;
    case MSG_FTB: wake = !out_data_q.insert_entry(p1, p2, id) || out_data_q.size() <= in_data_q.size(); break;
    default: break;
    }
    pthread_mutex_unlock(&data_q_lock);
    if (wake) omx_evrc_post_msg(input_thread, id);
    return true;
}

void omx_evrc_adec::wait_for_event() {
    pthread_mutex_lock(&event_lock);
    while (!event_flag && !shutting_down) pthread_cond_wait(&event_cond, &event_lock);
    event_flag = 0;
    pthread_mutex_unlock(&event_lock);
}

void omx_evrc_adec::event_complete() {
    pthread_mutex_lock(&event_lock);
    if (!event_flag) {
        event_flag = 1;
        pthread_cond_signal(&event_cond);
    }
    pthread_mutex_unlock(&event_lock);
}

// ---- Command thread ----

void omx_evrc_adec::process_command_msg(void *component, unsigned char /*byte*/) {
    omx_evrc_adec *self = static_cast<omx_evrc_adec *>(component);
    uintptr_t p1 = 0, p2 = 0;
    unsigned char id = 0;

    pthread_mutex_lock(&self->cmd_q_lock);
    if (self->cmd_q.size() == 0) {
        pthread_mutex_unlock(&self->cmd_q_lock);
        return;
    }
    self->cmd_q.pop_entry(&p1, &p2, &id);
    pthread_mutex_unlock(&self->cmd_q_lock);

    switch (id) {
    case MSG_PORT_SETTINGS: self->event(OMX_EventPortSettingsChanged, 1, 1, nullptr); break;
    case MSG_COMMAND:
        self->send_command_proxy(self->callback_handle(), static_cast<OMX_COMMANDTYPE>(p1),
                                 static_cast<unsigned int>(p2), nullptr);
        break;
    case MSG_CMD_COMPLETE: self->complete_command(p1, p2); break;
    default:
        if (self->state == OMX_StateExecuting) OMX_EVRC_LOG("ERROR:CMD-->incorrect event[%d]\n", id);
        break;
    }
}

// ---- Input thread ----

void omx_evrc_adec::process_in_port_msg(void *component, unsigned char /*byte*/) {
    omx_evrc_adec *self = static_cast<omx_evrc_adec *>(component);
    if (!self) {
        OMX_EVRC_LOG("ERROR:IN--> Invalid Obj \n");
        return;
    }

    OMX_STATETYPE st = self->locked_state();
    if (st == OMX_StateLoaded) return;

    uintptr_t p1 = 0, p2 = 0, q1 = 0, q2 = 0;
    unsigned char id = 0, qid = 0;
    bool have_pair = false;

    for (;;) {
        pthread_mutex_lock(&self->data_q_lock);

        if (st != OMX_StateExecuting && self->in_ctrl_q.size() == 0 && !self->resume_pending) {
            pthread_mutex_unlock(&self->data_q_lock);
            pthread_mutex_lock(&self->state_lock);
            if (self->state == OMX_StatePause && !self->resume_pending && !self->idle_pending && !self->shutting_down) {
                // Park until a resume, a flush or deinit posts resume_sem. A
                // flush queues its entry before it takes park_lock, so one
                // found here means there is no need to wait.
                pthread_mutex_lock(&self->park_lock);
                const bool flush_waiting = self->in_ctrl_q.size() != 0;
                if (!flush_waiting) {
                    self->input_parked = 1;
                    self->input_blocked = 1;
                }
                pthread_mutex_unlock(&self->park_lock);
                pthread_mutex_unlock(&self->state_lock);
                if (!flush_waiting) {
                    while (sem_wait(&self->resume_sem) != 0 && errno == EINTR) {
                    }
                    self->input_blocked = 0;
                }
            } else {
                pthread_mutex_unlock(&self->state_lock);
            }
            st = self->locked_state();
            pthread_mutex_lock(&self->data_q_lock);
        }

        if (self->in_ctrl_q.size() == 0 && self->done_q.size() == 0 && self->in_data_q.size() == 0) {
            pthread_mutex_unlock(&self->data_q_lock);
            return;
        }
        if (self->in_ctrl_q.size() != 0) {
            self->in_ctrl_q.pop_entry(&p1, &p2, &id);
            break;
        }
        if (self->done_q.size() != 0 && st == OMX_StateExecuting) {
            self->done_q.pop_entry(&p1, &p2, &id);
            break;
        }
        if (st == OMX_StateExecuting) {
            if (self->in_data_q.size() == 0 || self->out_data_q.size() == 0) {
                pthread_mutex_unlock(&self->data_q_lock);
                return;
            }
            self->in_data_q.pop_entry(&p1, &p2, &id);
            self->out_data_q.pop_entry(&q1, &q2, &qid);
            have_pair = true;
            break;
        }
        pthread_mutex_unlock(&self->data_q_lock);
        // Outside Executing with entries waiting: look again until the state
        // changes or a flush takes them away.
        st = self->locked_state();
        if (st == OMX_StateLoaded || self->shutting_down) return;
    }
    pthread_mutex_unlock(&self->data_q_lock);

    switch (id) {
    case MSG_EBD:
        if (p2) self->buffer_done_cb(reinterpret_cast<OMX_BUFFERHEADERTYPE *>(p2));
        break;
    case MSG_FBD:
        if (p2) self->frame_done_cb(reinterpret_cast<OMX_BUFFERHEADERTYPE *>(p2));
        break;
    case MSG_ETB:
        if (have_pair && p2 && q2)
            self->process_data(reinterpret_cast<void *>(p1), reinterpret_cast<OMX_BUFFERHEADERTYPE *>(p2),
                               reinterpret_cast<OMX_BUFFERHEADERTYPE *>(q2));
        break;
    case MSG_COMMAND:
        if (p1 == 1) self->execute_data_flush();
        break;
    case MSG_EOS: self->event(OMX_EventBufferFlag, 1, OMX_BUFFERFLAG_EOS, nullptr); break;
    default: OMX_EVRC_LOG("ERROR:IN-->Invalid Id[%d]\n", id); break;
    }
}
