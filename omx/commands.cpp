// Commands and the state machine: send_command on the client's thread,
// send_command_proxy and the completions on the command thread.
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "omx/log.h"
#include "omx/omx_evrc_adec.h"

OMX_ERRORTYPE omx_evrc_adec::send_command(void *hComp, OMX_COMMANDTYPE cmd, unsigned int param, void *cmdData) {
    if (state == OMX_StateInvalid) return OMX_ErrorInvalidState;
    if ((cmd == OMX_CommandMarkBuffer || cmd == OMX_CommandFlush) && static_cast<int>(param) > 1)
        return OMX_ErrorBadPortIndex;

    if (cmd != OMX_CommandMarkBuffer) {
        pthread_mutex_lock(&cmd_q_lock);
        cmd_q.insert_entry(static_cast<uintptr_t>(cmd), param, MSG_COMMAND);
        pthread_mutex_unlock(&cmd_q_lock);
        omx_evrc_post_msg(cmd_thread, MSG_COMMAND);
        OMX_EVRC_LOG("send_command:before semwait= %u cmd=%d\n", param, cmd);
        while (sem_wait(&cmd_done_sem) != 0 && errno == EINTR) {
        }
        return OMX_ErrorNone;
    }

    if (param != 0) return OMX_ErrorNotImplemented;
    if (!cmdData) return OMX_ErrorBadParameter;
    const OMX_MARKTYPE *mark = static_cast<const OMX_MARKTYPE *>(cmdData);
    mark_target = mark->hMarkTargetComponent;
    mark_data = mark->pMarkData;
    OMX_EVRC_LOG("Propogate Mark: tgt comp %p mark data %p\t\t\t\tcur comp %p", mark->hMarkTargetComponent,
                 mark->pMarkData, hComp);
    return OMX_ErrorNone;
}

namespace {

enum class Step { Now, Wait, Invalid, SameState, Incorrect, BadParameter };

}  // namespace

// The command thread's side of send_command: one function per command, then
// the client is released and, for a command that completes at once, its
// completion queued.
OMX_ERRORTYPE omx_evrc_adec::send_command_proxy(void * /*hComp*/, OMX_COMMANDTYPE cmd, unsigned int param,
                                                void * /*cmdData*/) {
    CommandStep step{OMX_ErrorNone, true};
    if (static_cast<unsigned>(cmd) >= 4) {
        OMX_EVRC_LOG("SCP-->ERROR: Invali Command [%d]\n", cmd);
        step.result = OMX_ErrorNotImplemented;
    } else if (cmd == OMX_CommandStateSet) {
        bool abandoned = false;
        step = change_state(param, &abandoned);
        if (abandoned) return step.result;  // no decoder state: the client stays in send_command
    } else if (cmd == OMX_CommandFlush) {
        step = flush_ports(param);
    } else if (cmd == OMX_CommandPortDisable) {
        step = disable_ports(param);
    } else {
        step = enable_ports(param);
    }

    sem_post(&cmd_done_sem);
    if (step.result == OMX_ErrorNone && step.complete_now)
        post_command(static_cast<uintptr_t>(cmd), param, MSG_CMD_COMPLETE);
    return step.result;
}

omx_evrc_adec::CommandStep omx_evrc_adec::change_state(unsigned int target, bool *abandoned) {
    const OMX_STATETYPE cur = state;
    Step step = Step::BadParameter;

    if (cur == OMX_StatePause) {
        // Leaving Pause, whatever the target: the input thread is let go.
        if (target == OMX_StateIdle) idle_pending = 1;
        pthread_mutex_lock(&park_lock);
        if (input_parked) {
            input_parked = 0;
            sem_post(&resume_sem);
        }
        pthread_mutex_unlock(&park_lock);
    }

    if (cur == OMX_StateInvalid) {
        step = target > 5 ? Step::Now : Step::Invalid;
    } else if (static_cast<unsigned>(cur) > 5) {
        OMX_EVRC_LOG("OMXCORE-SM: %d --> %d(Not Handled)\n", cur, target);
    } else if (target == OMX_StateInvalid) {
        step = Step::Invalid;
    } else if (target == static_cast<unsigned>(cur)) {
        step = Step::SameState;
    } else {
        switch (cur) {
        case OMX_StateLoaded:
            if (target == OMX_StateIdle) {
                if (!decoder_create()) {
                    *abandoned = true;
                    return {OMX_ErrorInsufficientResources, false};
                }
                if (allocate_done() || (!in_port_enabled && !out_port_enabled)) {
                    step = Step::Now;
                } else {
                    pending_flags |= PENDING_LOADED_TO_IDLE;
                    step = Step::Wait;
                }
            } else if (target == OMX_StateWaitForResources) {
                step = Step::Now;
            } else if (target == OMX_StateExecuting || target == OMX_StatePause) {
                step = Step::Incorrect;
            } else {
                OMX_EVRC_LOG("SCP-->Loaded to Invalid(%d))\n", target);
            }
            break;
        case OMX_StateIdle:
            if (target == OMX_StateLoaded) {
                eos_pending = 0;
                if (in_alloc_count == 0 && out_alloc_count == 0) {
                    step = Step::Now;
                } else {
                    pending_flags |= PENDING_IDLE_TO_LOADED;
                    step = Step::Wait;
                }
            } else if (target == OMX_StateExecuting || target == OMX_StatePause) {
                step = Step::Now;
            } else if (target == OMX_StateWaitForResources) {
                step = Step::Incorrect;
            } else {
                OMX_EVRC_LOG("SCP--> Idle to %d Not Handled\n", target);
            }
            break;
        case OMX_StateExecuting:
            if (target == OMX_StateIdle) {
                idle_pending = 1;
                execute_omx_flush(OMX_ALL, false);
                step = Step::Now;
            } else if (target == OMX_StatePause) {
                step = Step::Now;
            } else if (target == OMX_StateLoaded || target == OMX_StateWaitForResources) {
                step = Step::Incorrect;
            } else {
                OMX_EVRC_LOG("SCP--> Executing to %d Not Handled\n", target);
            }
            break;
        case OMX_StatePause:
            if (target == OMX_StateExecuting) {
                resume_pending = 1;
                step = Step::Now;
            } else if (target == OMX_StateIdle) {
                idle_pending = 1;
                pthread_mutex_lock(&flush_lock);
                flush_ack_count = 1;
                pthread_mutex_unlock(&flush_lock);
                execute_omx_flush(OMX_ALL, false);
                step = Step::Now;
            } else if (target == OMX_StateLoaded || target == OMX_StateWaitForResources) {
                step = Step::Incorrect;
            }
            break;
        case OMX_StateWaitForResources:
            if (target == OMX_StateLoaded) {
                step = Step::Now;
            } else if (target == OMX_StateExecuting || target == OMX_StatePause) {
                step = Step::Incorrect;
            } else {
                OMX_EVRC_LOG("SCP--> %d to %d(Not Handled)\n", cur, target);
            }
            break;
        default: break;
        }
    }

    // A refusal is reported at once by an error event; no completion follows.
    switch (step) {
    case Step::Now: return {OMX_ErrorNone, true};
    case Step::Wait: return {OMX_ErrorNone, false};
    case Step::Invalid:
        pthread_mutex_lock(&state_lock);
        state = OMX_StateInvalid;
        pthread_mutex_unlock(&state_lock);
        event(OMX_EventError, static_cast<OMX_U32>(OMX_ErrorInvalidState), 1, nullptr);
        return {OMX_ErrorInvalidState, true};
    case Step::SameState:
        event(OMX_EventError, static_cast<OMX_U32>(OMX_ErrorSameState), 1, nullptr);
        return {OMX_ErrorSameState, true};
    case Step::Incorrect:
        event(OMX_EventError, static_cast<OMX_U32>(OMX_ErrorIncorrectStateTransition), 1, nullptr);
        return {OMX_ErrorIncorrectStateTransition, true};
    case Step::BadParameter: break;
    }
    return {OMX_ErrorBadParameter, true};
}

omx_evrc_adec::CommandStep omx_evrc_adec::flush_ports(unsigned int port) {
    execute_omx_flush(port, true);
    return {OMX_ErrorNone, false};
}

omx_evrc_adec::CommandStep omx_evrc_adec::disable_ports(unsigned int port) {
    const bool loaded_or_idle = state == OMX_StateLoaded || state == OMX_StateIdle;
    const bool running = state == OMX_StateExecuting || state == OMX_StatePause;
    bool complete_now = true;
    // One port: flushed while running, done at once when it holds no buffer
    // in Loaded or Idle, otherwise done when its last buffer is freed.
    auto disable = [&](unsigned int index, uint32_t pending, uint32_t alloc_count) {
        if (running) {
            execute_omx_flush(port, false);
            pending_flags |= pending;
            complete_now = false;
        } else if (loaded_or_idle) {
            eos_pending = 0;
            if (alloc_count == 0) {
                post_command(OMX_CommandPortDisable, index, MSG_CMD_COMPLETE);
            } else {
                pending_flags |= pending;
                complete_now = false;
            }
        } else {
            pending_flags |= pending;
            complete_now = false;
        }
    };
    if (port == 0 || port == OMX_ALL) {
        in_port_enabled = 0;
        disable(0, PENDING_INPUT_DISABLE, in_alloc_count);
    }
    if (port != 1 && port != OMX_ALL) {
        OMX_EVRC_LOG("OMX_CommandPortDisable: disable wrong port ID");
    } else {
        out_port_enabled = 0;
        pcm_feedback = 0;
        disable(1, PENDING_OUTPUT_DISABLE, out_alloc_count);
    }
    return {OMX_ErrorNone, complete_now};
}

omx_evrc_adec::CommandStep omx_evrc_adec::enable_ports(unsigned int port) {
    const bool loaded_not_waiting = state == OMX_StateLoaded && !(pending_flags & PENDING_LOADED_TO_IDLE);
    bool complete_now = true;
    // One port: done at once in WaitForResources, in Loaded (unless the
    // move to Idle waits for buffers) or when populated; otherwise done when
    // it becomes populated.
    auto enable = [&](unsigned int index, uint32_t pending, bool populated) {
        if (state == OMX_StateWaitForResources || loaded_not_waiting || populated) {
            post_command(OMX_CommandPortEnable, index, MSG_CMD_COMPLETE);
        } else {
            pending_flags |= pending;
            complete_now = false;
        }
    };
    if (port == 0 || port == OMX_ALL) {
        resid_len = 0;
        in_port_enabled = 1;
        enable(0, PENDING_INPUT_ENABLE, in_port_populated != 0);
    }
    if (port != 1 && port != OMX_ALL) {
        OMX_EVRC_LOG("OMX_CommandPortEnable: disable wrong port ID");
    } else {
        out_port_enabled = 1;
        pcm_feedback = 1;
        enable(1, PENDING_OUTPUT_ENABLE, out_port_populated != 0);
    }
    return {OMX_ErrorNone, complete_now};
}

void omx_evrc_adec::complete_command(uintptr_t cmd, uintptr_t param) {
    if (!callbacks.EventHandler.load()) {
        OMX_EVRC_LOG("ERROR:CMD-->EventHandler NULL \n");
        return;
    }
    bool check_invalid = true;
    if (cmd == OMX_CommandStateSet) {
        pthread_mutex_lock(&state_lock);
        state = static_cast<OMX_STATETYPE>(param);
        pthread_mutex_unlock(&state_lock);
        OMX_EVRC_LOG("%s: state changed to %d %d\n", "process_command_msg", static_cast<int>(param),
                     static_cast<int>(input_blocked.load()));
        if (param == OMX_StateExecuting) {
            // Release the input thread, however many times it takes for it
            // to notice.
            pthread_mutex_lock(&park_lock);
            while ((input_parked || input_blocked) && !shutting_down) {
                sem_post(&resume_sem);
                input_parked = 0;
                pthread_mutex_unlock(&park_lock);
                usleep(5000);
                pthread_mutex_lock(&park_lock);
            }
            pthread_mutex_unlock(&park_lock);
            resume_pending = 0;
        } else if (param == OMX_StateIdle) {
            idle_pending = 0;
            check_invalid = false;
        }
    }
    if (check_invalid && state == OMX_StateInvalid) {
        event(OMX_EventError, OMX_ErrorInvalidState, 0, nullptr);
        return;
    }
    if (param == static_cast<uintptr_t>(static_cast<OMX_U32>(OMX_ErrorPortUnpopulated)))
        event(OMX_EventError, OMX_ErrorPortUnpopulated, 0, nullptr);
    else
        event(OMX_EventCmdComplete, static_cast<OMX_U32>(cmd), static_cast<OMX_U32>(param), nullptr);
}

// Every waiting transition completes here, checked after each allocation
// (Loaded -> Idle, port enable) and each freed buffer (port disable,
// Idle -> Loaded).
void omx_evrc_adec::check_pending(uint32_t which) {
    if (which & PENDING_LOADED_TO_IDLE) {
        const bool complete = allocate_done();  // also marks the ports populated
        if (complete && (pending_flags.fetch_and(~PENDING_LOADED_TO_IDLE) & PENDING_LOADED_TO_IDLE)) {
            resid_len = 0;
            post_command(OMX_CommandStateSet, OMX_StateIdle, MSG_CMD_COMPLETE);
        }
    }
    if ((which & PENDING_INPUT_ENABLE) && in_port_populated && (pending_flags & PENDING_INPUT_ENABLE)) {
        pending_flags &= ~PENDING_INPUT_ENABLE;
        post_command(OMX_CommandPortEnable, 0, MSG_CMD_COMPLETE);
    }
    if ((which & PENDING_OUTPUT_ENABLE) && out_port_populated && (pending_flags & PENDING_OUTPUT_ENABLE)) {
        pending_flags &= ~PENDING_OUTPUT_ENABLE;
        post_command(OMX_CommandPortEnable, 1, MSG_CMD_COMPLETE);
    }
    if ((which & PENDING_INPUT_DISABLE) && (pending_flags & PENDING_INPUT_DISABLE)) {
        eos_pending = 0;
        if (in_alloc_count == 0) {
            pending_flags &= ~PENDING_INPUT_DISABLE;
            post_command(OMX_CommandPortDisable, 0, MSG_CMD_COMPLETE);
        }
    }
    if ((which & PENDING_OUTPUT_DISABLE) && (pending_flags & PENDING_OUTPUT_DISABLE)) {
        eos_pending = 0;
        if (out_alloc_count == 0) {
            pending_flags &= ~PENDING_OUTPUT_DISABLE;
            post_command(OMX_CommandPortDisable, 1, MSG_CMD_COMPLETE);
        }
    }
    if ((which & PENDING_IDLE_TO_LOADED) && (pending_flags & PENDING_IDLE_TO_LOADED)) {
        eos_pending = 0;
        if (in_alloc_count == 0 && out_alloc_count == 0) {
            resid_len = 0;
            pending_flags &= ~PENDING_IDLE_TO_LOADED;
            post_command(OMX_CommandStateSet, OMX_StateLoaded, MSG_CMD_COMPLETE);
        }
    }
}

bool omx_evrc_adec::allocate_done() {
    const int32_t feedback = pcm_feedback;
    const bool in_full = in_alloc_count == in_actual_count;
    if (feedback == 0) {
        if (in_full && in_port_enabled) in_port_populated = 1;
        return in_full;
    }
    if (feedback == 1) {
        const bool out_full = out_alloc_count == out_actual_count;
        if (in_full && in_port_enabled) in_port_populated = 1;
        if (out_full && out_port_enabled) out_port_populated = 1;
        return in_full && out_full;
    }
    return false;
}

bool omx_evrc_adec::release_done(unsigned int port) {
    eos_pending = 0;
    if (port == 0) return in_alloc_count == 0;
    if (port == 1) return out_alloc_count == 0;
    if (port == OMX_ALL) return in_alloc_count == 0 && out_alloc_count == 0;
    return false;
}
