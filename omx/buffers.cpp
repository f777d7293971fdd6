// Buffer headers of both ports: allocation, client-owned buffers, release,
// and the populated check that finishes waiting commands.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "omx/log.h"
#include "omx/omx_evrc_adec.h"

namespace {

// Header followed by `data_bytes` bytes of data in one zero-filled block.
OMX_BUFFERHEADERTYPE *new_header(std::size_t data_bytes) {
    void *block = std::calloc(1, sizeof(OMX_BUFFERHEADERTYPE) + data_bytes);
    return static_cast<OMX_BUFFERHEADERTYPE *>(block);
}

void fill_header(OMX_BUFFERHEADERTYPE *h, OMX_U8 *data, OMX_U32 alloc_len, void *appData, bool input) {
    h->nSize = sizeof(OMX_BUFFERHEADERTYPE);
    h->nVersion.nVersion = omx_evrc_adec::kVersion;
    h->pBuffer = data;
    h->nAllocLen = alloc_len;
    h->pAppPrivate = appData;
    if (input)
        h->nInputPortIndex = 0;
    else
        h->nOutputPortIndex = 1;
}

// Logs and rejects a port index other than 0 (input) and 1 (output).
OMX_ERRORTYPE bad_port_index(unsigned int port) {
    OMX_EVRC_LOG("Error: Invalid Port Index received %d\n", static_cast<int>(port));
    return OMX_ErrorBadPortIndex;
}

using HeaderMap = Map<OMX_BUFFERHEADERTYPE *, OMX_BUFFERHEADERTYPE *>;

// The buffer bookkeeping of one port.
struct PortBuffers {
    std::atomic<uint32_t> &alloc_count;
    const std::atomic<uint32_t> &actual_count;
    std::atomic<uint32_t> &buffer_size;
    HeaderMap &headers;
    bool input;
};

// Enters a filled header in the port's map and hands it to the client. A
// client-owned buffer of `size` bytes becomes the port's buffer size.
OMX_ERRORTYPE keep_header(const PortBuffers &port, OMX_BUFFERHEADERTYPE *h, bool client_buffer, OMX_U32 size,
                          OMX_BUFFERHEADERTYPE **hdr) {
    if (!port.headers.insert(h, nullptr)) {
        std::free(h);
        return OMX_ErrorInsufficientResources;
    }
    if (client_buffer) port.buffer_size = size;
    ++port.alloc_count;
    *hdr = h;
    return OMX_ErrorNone;
}

// A header with `size` bytes of data of its own.
OMX_ERRORTYPE allocate_header(const PortBuffers &port, OMX_U32 size, void *appData, OMX_BUFFERHEADERTYPE **hdr) {
    if (port.alloc_count >= port.actual_count) return OMX_ErrorInsufficientResources;
    OMX_BUFFERHEADERTYPE *h = new_header(size);
    if (!h) return OMX_ErrorInsufficientResources;
    fill_header(h, reinterpret_cast<OMX_U8 *>(h + 1), size, appData, port.input);
    return keep_header(port, h, false, size, hdr);
}

// A header around the client's buffer of `bytes` bytes, counted as at least
// the port's buffer size.
OMX_ERRORTYPE use_header(const PortBuffers &port, unsigned int bytes, unsigned char *buffer, void *appData,
                         OMX_BUFFERHEADERTYPE **hdr) {
    if (port.alloc_count >= port.actual_count) return OMX_ErrorInsufficientResources;
    OMX_BUFFERHEADERTYPE *h = new_header(0);
    if (!h) return OMX_ErrorInsufficientResources;
    const OMX_U32 size = std::max<OMX_U32>(bytes, port.buffer_size);
    fill_header(h, buffer, size, appData, port.input);
    return keep_header(port, h, true, size, hdr);
}

}  // namespace

OMX_ERRORTYPE omx_evrc_adec::allocate_buffer(void *hComp, OMX_BUFFERHEADERTYPE **hdr, unsigned int port, void *appData,
                                             unsigned int bytes) {
    if (state == OMX_StateInvalid) {
        OMX_EVRC_LOG("Allocate Buf in Invalid State\n");
        return OMX_ErrorInvalidState;
    }
    if (!hdr) return OMX_ErrorBadParameter;
    if (port > 1) return bad_port_index(port);
    const OMX_ERRORTYPE err = port == 0 ? allocate_input_buffer(hComp, hdr, port, appData, bytes)
                                        : allocate_output_buffer(hComp, hdr, port, appData, bytes);
    if (err == OMX_ErrorNone) populated_check(port == 1);
    return err;
}

OMX_ERRORTYPE omx_evrc_adec::allocate_input_buffer(void * /*hComp*/, OMX_BUFFERHEADERTYPE **hdr, unsigned int /*port*/,
                                                   void *appData, unsigned int bytes) {
    const PortBuffers port{in_alloc_count, in_actual_count, input_buffer_size, in_buf_map, true};
    return allocate_header(port, std::max<OMX_U32>(bytes, input_buffer_size), appData, hdr);
}

OMX_ERRORTYPE omx_evrc_adec::allocate_output_buffer(void * /*hComp*/, OMX_BUFFERHEADERTYPE **hdr, unsigned int /*port*/,
                                                    void *appData, unsigned int bytes) {
    const PortBuffers port{out_alloc_count, out_actual_count, output_buffer_size, out_buf_map, false};
    return allocate_header(port, bytes <= kOutputBufferSize ? kOutputBufferSize : bytes, appData, hdr);
}

OMX_ERRORTYPE omx_evrc_adec::use_buffer(void *hComp, OMX_BUFFERHEADERTYPE **hdr, unsigned int port, void *appData,
                                        unsigned int bytes, unsigned char *buffer) {
    if (!hdr) return OMX_ErrorBadParameter;
    if (port > 1) return bad_port_index(port);
    const OMX_ERRORTYPE err = port == 0 ? use_input_buffer(hComp, hdr, port, appData, bytes, buffer)
                                        : use_output_buffer(hComp, hdr, port, appData, bytes, buffer);
    if (err == OMX_ErrorNone) populated_check(port == 1);
    return err;
}

OMX_ERRORTYPE omx_evrc_adec::use_input_buffer(void * /*hComp*/, OMX_BUFFERHEADERTYPE **hdr, unsigned int /*port*/,
                                              void *appData, unsigned int bytes, unsigned char *buffer) {
    const PortBuffers port{in_alloc_count, in_actual_count, input_buffer_size, in_buf_map, true};
    return use_header(port, bytes, buffer, appData, hdr);
}

OMX_ERRORTYPE omx_evrc_adec::use_output_buffer(void * /*hComp*/, OMX_BUFFERHEADERTYPE **hdr, unsigned int /*port*/,
                                               void *appData, unsigned int bytes, unsigned char *buffer) {
    const PortBuffers port{out_alloc_count, out_actual_count, output_buffer_size, out_buf_map, false};
    return use_header(port, bytes, buffer, appData, hdr);
}

void omx_evrc_adec::populated_check(bool output_buffer) {
    check_pending(PENDING_LOADED_TO_IDLE | (output_buffer ? PENDING_OUTPUT_ENABLE : PENDING_INPUT_ENABLE));
}

bool omx_evrc_adec::search_input_bufhdr(OMX_BUFFERHEADERTYPE *hdr) { return hdr && in_buf_map.find(hdr); }

bool omx_evrc_adec::search_output_bufhdr(OMX_BUFFERHEADERTYPE *hdr) { return hdr && out_buf_map.find(hdr); }

OMX_ERRORTYPE omx_evrc_adec::free_buffer(void * /*hComp*/, unsigned int port, OMX_BUFFERHEADERTYPE *hdr) {
    if (!hdr) return OMX_ErrorBadParameter;

    const OMX_STATETYPE cur = state;
    const bool unloading = cur == OMX_StateIdle && (pending_flags & PENDING_IDLE_TO_LOADED);
    const bool port_enabled = port == 0 ? in_port_enabled != 0 : port == 1 ? out_port_enabled != 0 : true;
    if (!unloading && port_enabled) {
        // Freeing a buffer of an enabled port leaves it unpopulated; while
        // running the buffer is kept.
        post_command(OMX_CommandFlush, static_cast<uintptr_t>(static_cast<OMX_U32>(OMX_ErrorPortUnpopulated)),
                     MSG_CMD_COMPLETE);
        if (cur == OMX_StateExecuting || cur == OMX_StatePause) return OMX_ErrorNone;
    }

    OMX_ERRORTYPE result = OMX_ErrorNone;
    bool found = false;
    if (port == 0) {
        if (in_alloc_count == 0) {
            OMX_EVRC_LOG(
                "Error: free_buffer,Port Index calculation                               came out "
                "Invalid\n");
            result = OMX_ErrorBadPortIndex;
        } else {
            in_port_populated = 0;
            if (search_input_bufhdr(hdr)) {
                in_buf_map.erase(hdr);
                --in_alloc_count;
                found = true;
            } else {
                OMX_EVRC_LOG("Free_Buf:Error-->free_buffer,                     Invalid Input buffer header\n");
                result = OMX_ErrorBadParameter;
            }
        }
        check_pending(PENDING_INPUT_DISABLE);
    } else if (port == 1) {
        if (out_alloc_count == 0) {
            result = OMX_ErrorBadPortIndex;
        } else {
            out_port_populated = 0;
            if (search_output_bufhdr(hdr)) {
                out_buf_map.erase(hdr);
                --out_alloc_count;
                found = true;
            } else {
                result = OMX_ErrorBadParameter;
            }
        }
        check_pending(PENDING_OUTPUT_DISABLE);
    } else {
        return OMX_ErrorBadPortIndex;
    }

    // Only a header this port handed out is released; anything else is not
    // ours to free.
    if (found) std::free(hdr);
    if (result != OMX_ErrorNone) return result;

    check_pending(PENDING_IDLE_TO_LOADED);
    return OMX_ErrorNone;
}
