// Data path: input buffers of EVRC packets are cut into 24-byte packet
// slots, decoded in batches of up to 30, and the PCM goes out in one output
// buffer per input buffer.
#include <cstring>

#include "codec/common/packet_layout.h"
#include "omx/log.h"
#include "omx/omx_evrc_adec.h"

namespace {

constexpr unsigned char kRateCodes = EVRC_RATE_FULL + 1;

// Packet length, rate byte included, of a rate code below kRateCodes.
unsigned char packet_length(unsigned char rate) { return static_cast<unsigned char>(1 + evrc::payload_bytes(rate)); }

}  // namespace

OMX_ERRORTYPE omx_evrc_adec::empty_this_buffer(void *hComp, OMX_BUFFERHEADERTYPE *hdr) {
    const OMX_STATETYPE cur = state;
    if (cur == OMX_StateInvalid) return OMX_ErrorInvalidState;
    if (!hdr) return OMX_ErrorBadParameter;
    if (!in_port_enabled) return OMX_ErrorIncorrectStateOperation;
    if (hdr->nSize != sizeof(OMX_BUFFERHEADERTYPE)) return OMX_ErrorBadParameter;
    if (hdr->nVersion.nVersion != kVersion) return OMX_ErrorVersionMismatch;
    if (hdr->nInputPortIndex != 0) return OMX_ErrorBadPortIndex;

    auto count_etb = [this] {
        pthread_mutex_lock(&in_count_lock);
        ++etb_count;
        pthread_mutex_unlock(&in_count_lock);
    };
    if (cur != OMX_StateExecuting && cur != OMX_StatePause) {
        OMX_EVRC_LOG("Invalid state\n");
        count_etb();
        return OMX_ErrorInvalidState;
    }
    if (!search_input_bufhdr(hdr)) {
        OMX_EVRC_LOG("Bad header %p \n", static_cast<void *>(hdr));
        count_etb();
        return OMX_ErrorBadParameter;
    }
    // The data must lie inside the buffer the header describes.
    if (hdr->nFilledLen > hdr->nAllocLen || (hdr->nFilledLen && !hdr->pBuffer)) {
        OMX_EVRC_LOG("Bad filled length %lu (buffer of %lu bytes)\n", static_cast<unsigned long>(hdr->nFilledLen),
                     static_cast<unsigned long>(hdr->nAllocLen));
        return OMX_ErrorBadParameter;
    }

    if (hdr->hMarkTargetComponent != hComp) {
        OMX_HANDLETYPE target = mark_target;
        if (target) {
            post_command(OMX_CommandMarkBuffer, 0, MSG_CMD_COMPLETE);
            hdr->hMarkTargetComponent = target;
            hdr->pMarkData = mark_data;
            mark_target = nullptr;
            mark_data = nullptr;
            OMX_EVRC_LOG("Set Mark on i/p buffer tgt comp %p \t\t\t\t\tmark data %p\n", hdr->hMarkTargetComponent,
                         hdr->pMarkData);
        } else if (hdr->hMarkTargetComponent) {
            OMX_EVRC_LOG("i/p buffer already marked \t\t\t\t\t\ttgt comp %p mark data %p\n", hdr->hMarkTargetComponent,
                         hdr->pMarkData);
        }
    }

    post_data(reinterpret_cast<uintptr_t>(hComp), reinterpret_cast<uintptr_t>(hdr), MSG_ETB);
    count_etb();
    return OMX_ErrorNone;
}

OMX_ERRORTYPE omx_evrc_adec::fill_this_buffer(void *hComp, OMX_BUFFERHEADERTYPE *hdr) {
    if (!hdr) return OMX_ErrorBadParameter;
    if (hdr->nSize != sizeof(OMX_BUFFERHEADERTYPE)) return OMX_ErrorBadParameter;
    if (!out_port_enabled) return OMX_ErrorIncorrectStateOperation;
    if (hdr->nVersion.nVersion != kVersion) return OMX_ErrorVersionMismatch;
    if (hdr->nOutputPortIndex != 1) return OMX_ErrorBadPortIndex;

    pthread_mutex_lock(&out_count_lock);
    ++ftb_count;
    pthread_mutex_unlock(&out_count_lock);
    post_data(reinterpret_cast<uintptr_t>(hComp), reinterpret_cast<uintptr_t>(hdr), MSG_FTB);
    return OMX_ErrorNone;
}

unsigned int omx_evrc_adec::transcode_data(unsigned char **src, unsigned int filled_len, unsigned int *consumed,
                                           unsigned char *rate) {
    const uint32_t held = resid_len;
    *rate = held ? resid_buf[0] : **src;
    if (*rate >= kRateCodes) {
        OMX_EVRC_LOG("Error: Wrong rate");
        return 0;
    }
    const unsigned int len = packet_length(*rate);

    if (held == 0) {
        const unsigned int left = filled_len - *consumed;
        if (left >= len) {
            pkt_write_ptr[0] = 0;
            std::memcpy(pkt_write_ptr + 1, *src, len);
            *src += len;
            *consumed += len;
            pkt_write_ptr += kSlotSize;
            return 1;
        }
        // The buffer ends inside this packet: keep its head for the next one.
        std::memcpy(resid_buf, *src, left);
        resid_len = held + left;
        *consumed = filled_len;
        packet_complete = 0;
        return 1;
    }

    // Complete the held packet from the start of this buffer. (Held bytes
    // can outnumber the packet when the held rate byte was overwritten; the
    // packet then takes nothing from this buffer.)
    pkt_write_ptr[0] = 0;
    std::memcpy(pkt_write_ptr + 1, resid_buf, held);
    const unsigned int missing = len > held ? len - held : 0;
    if (missing <= filled_len) {
        std::memcpy(pkt_write_ptr + 1 + held, *src, missing);
        *src += missing;
        *consumed += missing;
        pkt_write_ptr += kSlotSize;
        resid_len = 0;
        resid_read_ptr = resid_buf;
        std::memset(resid_buf, 0, kSlotSize);
        return 1;
    }
    // Still short: this buffer's bytes go to the start of the residual
    // buffer (over the bytes held before) and the count grows.
    std::memcpy(resid_read_ptr, *src, filled_len);
    resid_len = held + filled_len;
    *consumed = filled_len;
    packet_complete = 0;
    OMX_EVRC_LOG("Insufficient data\n");
    return 0;
}

OMX_ERRORTYPE omx_evrc_adec::process_data(void *hComp, OMX_BUFFERHEADERTYPE *in, OMX_BUFFERHEADERTYPE *out) {
    packet_complete = 1;
    if (in->nFilledLen == 0) {
        frames_in_buffer = 0;
    } else {
        unsigned char *src = in->pBuffer;
        const unsigned int filled = static_cast<unsigned int>(in->nFilledLen);
        unsigned int consumed = 0;
        unsigned int slots = 0;
        unsigned char rate = 0;
        frames_in_buffer = 0;
        while (consumed < filled) {
            if (transcode_data(&src, filled, &consumed, &rate) == 0) {
                // Abandon the buffer: both buffers go back, the packets cut
                // from it are dropped and the slots start over.
                pkt_write_ptr = pkt_array;
                buffer_done_cb(in);
                process_ftb(hComp, out, pcm_out_buf, 0);
                if (rate < kRateCodes) return OMX_ErrorUnderflow;
                event(OMX_EventError, static_cast<OMX_U32>(OMX_ErrorStreamCorrupt), 1, nullptr);
                return OMX_ErrorStreamCorrupt;
            }
            if (!packet_complete) break;
            ++slots;
            if (slots == kSlots) {
                decode_batch(kSlots);
                frames_in_buffer = kSlots;
                total_frames = static_cast<uint16_t>(total_frames + kSlots);
                pkt_write_ptr = pkt_array;
                slots = 0;
            }
        }
        if (slots >= 1) {
            decode_batch(slots);
            frames_in_buffer = slots;
            total_frames = static_cast<uint16_t>(total_frames + slots);
            pkt_write_ptr = pkt_array;
        }
    }

    if (in->nFlags & OMX_BUFFERFLAG_EOS) {
        eos_pending = 1;
        eos_timestamp = static_cast<uint32_t>(static_cast<uint64_t>(in->nTimeStamp));
    } else {
        out_timestamp = static_cast<uint64_t>(in->nTimeStamp);
    }

    const OMX_STATETYPE cur = locked_state();

    if (in->hMarkTargetComponent && in->hMarkTargetComponent != hComp) {
        out->hMarkTargetComponent = in->hMarkTargetComponent;
        out->pMarkData = in->pMarkData;
        OMX_EVRC_LOG("Propagate Mark from i/p to o/p buffer tgt comp %p \t\t\tmark data %p\n", in->hMarkTargetComponent,
                     in->pMarkData);
    }

    if (cur == OMX_StateExecuting)
        buffer_done_cb(in);
    else
        post_data(0, reinterpret_cast<uintptr_t>(in), MSG_EBD);

    process_ftb(hComp, out, pcm_out_buf, frames_in_buffer * kFrameBytes);
    return OMX_ErrorNone;
}

void omx_evrc_adec::buffer_done_cb(OMX_BUFFERHEADERTYPE *in) {
    auto done = callbacks.EmptyBufferDone.load();
    if (!done) return;
    in->nFilledLen = 0;
    const OMX_HANDLETYPE self = callback_handle();
    if (in->hMarkTargetComponent == self) {
        event(OMX_EventMark, 0, 0, in->pMarkData);
        OMX_EVRC_LOG("OMX_EventMark: Buffer processed by tgt component \t\t\t\tmark data %p\n", in->pMarkData);
    } else if (in->hMarkTargetComponent) {
        in->hMarkTargetComponent = nullptr;
        in->pMarkData = nullptr;
        OMX_EVRC_LOG("Reset i/p Buffer Mark\n");
    }
    done(self, app_data.load(), in);
    pthread_mutex_lock(&in_count_lock);
    --etb_count;
    pthread_mutex_unlock(&in_count_lock);
}

void omx_evrc_adec::stamp_output(OMX_BUFFERHEADERTYPE *out) {
    if (fbd_count != 0) {
        const uint32_t duration = static_cast<uint32_t>((1000u * static_cast<uint32_t>(out->nFilledLen)) / 16000u);
        frame_duration = duration;
        out_timestamp += duration;
    }
    out->nTimeStamp = static_cast<OMX_TICKS>(out_timestamp.load());
}

void omx_evrc_adec::frame_done_cb(OMX_BUFFERHEADERTYPE *out) {
    auto done = callbacks.FillBufferDone.load();
    if (!done) return;
    stamp_output(out);
    pthread_mutex_lock(&out_count_lock);
    ++fbd_count;
    --ftb_count;
    pthread_mutex_unlock(&out_count_lock);
    done(callback_handle(), app_data.load(), out);
}

void omx_evrc_adec::process_ftb(void * /*hComp*/, OMX_BUFFERHEADERTYPE *out, short *pcm, unsigned int len) {
    if (eos_pending) {
        // End of stream: the event follows through the input thread and the
        // output buffer goes back empty, flagged EOS.
        post_data(0, reinterpret_cast<uintptr_t>(out), MSG_EOS);
        out->nFlags = OMX_BUFFERFLAG_EOS;
        out->nFilledLen = 0;
        eos_pending = 0;
        frame_done_cb(out);
        return;
    }

    if (len > out->nAllocLen) {
        OMX_EVRC_LOG("Output buffer of %lu bytes too small for %u bytes of PCM\n",
                     static_cast<unsigned long>(out->nAllocLen), len);
        len = static_cast<unsigned int>(out->nAllocLen);
    }
    if (out->pBuffer) {
        // The PCM, then zeros over the rest of the buffer.
        std::memcpy(out->pBuffer, pcm, len);
        std::memset(out->pBuffer + len, 0, out->nAllocLen - len);
        out->nFilledLen = len;
    } else {
        out->nFilledLen = 0;
    }

    if (locked_state() == OMX_StatePause) {
        post_data(0, reinterpret_cast<uintptr_t>(out), MSG_FBD);
        return;
    }
    frame_done_cb(out);
}
