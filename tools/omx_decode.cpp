// Decoding through the OpenMAX IL component, driven the way a media
// framework drives it: factory, component_init, callbacks, Loaded -> Idle
// with buffers allocated on both ports, Executing, a stream of input buffers
// each answered by one output buffer, then back to Idle and Loaded.
#include "omx_decode.h"

#include "codec/common/packet_layout.h"

#include <OMX_Component.h>
#include <OMX_Core.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>

#include "omx/omx_evrc_adec.h"

namespace evrc_tool {
namespace {

using Bytes = std::vector<std::uint8_t>;

// No single step of a healthy component takes anywhere near this long.
constexpr std::chrono::seconds kStepTimeout{30};

constexpr unsigned kSamplesPerPacket = 160;
constexpr std::size_t kMaxPacketsPerBuffer = omx_evrc_adec::kSlots;

// Packet length, rate byte included, of each rate code the component
// accepts; 0 for codes it rejects.
std::size_t packet_length(std::uint8_t rate) {
    const int payload = evrc::payload_bytes(rate);
    return payload < 0 ? 0 : 1 + static_cast<std::size_t>(payload);
}

std::string hex(unsigned v) {
    char buf[16];
    std::snprintf(buf, sizeof(buf), "0x%08X", v);
    return buf;
}

// Packs whole packets into input buffers: at most 30 packets (one output
// buffer's worth of PCM) and at most `capacity` bytes each.
bool split_into_buffers(const std::vector<Bytes>& packets, std::size_t capacity, std::vector<Bytes>& buffers,
                        std::vector<std::size_t>& counts, std::string& error) {
    Bytes cur;
    std::size_t n = 0;
    for (std::size_t i = 0; i < packets.size(); ++i) {
        const Bytes& p = packets[i];
        if (p.empty()) {
            error = "packet " + std::to_string(i) + " is empty";
            return false;
        }
        const std::size_t len = packet_length(p[0]);
        if (len == 0) {
            error = "packet " + std::to_string(i) + " has rate code " + std::to_string(p[0]) +
                    ", which the component does not accept";
            return false;
        }
        if (p.size() != len) {
            error = "packet " + std::to_string(i) + " has " + std::to_string(p.size()) + " bytes, rate code " +
                    std::to_string(p[0]) + " needs " + std::to_string(len);
            return false;
        }
        if (n == kMaxPacketsPerBuffer || cur.size() + len > capacity) {
            buffers.push_back(std::move(cur));
            counts.push_back(n);
            cur.clear();
            n = 0;
        }
        cur.insert(cur.end(), p.begin(), p.end());
        ++n;
    }
    if (n > 0) {
        buffers.push_back(std::move(cur));
        counts.push_back(n);
    }
    return true;
}

// What the component hands back through the callbacks.
class Returns {
public:
    static OMX_ERRORTYPE on_event(OMX_HANDLETYPE, OMX_PTR app, OMX_EVENTTYPE type, OMX_U32 d1, OMX_U32 d2,
                                  OMX_PTR) {
        Returns* self = static_cast<Returns*>(app);
        std::lock_guard<std::mutex> lock(self->mutex_);
        if (type == OMX_EventCmdComplete && d1 == OMX_CommandStateSet) {
            self->states_.push_back(static_cast<OMX_STATETYPE>(d2));
        } else if (type == OMX_EventError && self->error_ == 0) {
            self->error_ = static_cast<unsigned>(d1);
        }
        self->cond_.notify_all();
        return OMX_ErrorNone;
    }
    static OMX_ERRORTYPE on_empty_done(OMX_HANDLETYPE, OMX_PTR app, OMX_BUFFERHEADERTYPE* hdr) {
        return static_cast<Returns*>(app)->push(static_cast<Returns*>(app)->inputs_, hdr);
    }
    static OMX_ERRORTYPE on_fill_done(OMX_HANDLETYPE, OMX_PTR app, OMX_BUFFERHEADERTYPE* hdr) {
        return static_cast<Returns*>(app)->push(static_cast<Returns*>(app)->outputs_, hdr);
    }

    bool wait_state(OMX_STATETYPE s, std::string& error) {
        std::unique_lock<std::mutex> lock(mutex_);
        const bool ok = cond_.wait_for(lock, kStepTimeout, [&] {
            for (auto it = states_.begin(); it != states_.end(); ++it) {
                if (*it == s) {
                    states_.erase(it);
                    return true;
                }
            }
            return error_ != 0;
        });
        if (ok && error_ == 0) return true;
        error = error_ != 0 ? "the component reported error " + hex(error_)
                            : "the component did not reach state " + std::to_string(s);
        return false;
    }

    // Waits for any returned buffer (or an error event); false on timeout or
    // error, with `error` set.
    bool wait_buffers(std::deque<OMX_BUFFERHEADERTYPE*>& inputs, std::deque<OMX_BUFFERHEADERTYPE*>& outputs,
                      std::string& error) {
        std::unique_lock<std::mutex> lock(mutex_);
        const bool ok = cond_.wait_for(
            lock, kStepTimeout, [&] { return !inputs_.empty() || !outputs_.empty() || error_ != 0; });
        inputs.insert(inputs.end(), inputs_.begin(), inputs_.end());
        outputs.insert(outputs.end(), outputs_.begin(), outputs_.end());
        inputs_.clear();
        outputs_.clear();
        if (ok && error_ == 0) return true;
        error = error_ != 0 ? "the component reported error " + hex(error_)
                            : "the component returned no buffer within " +
                                  std::to_string(kStepTimeout.count()) + " s";
        return false;
    }

private:
    OMX_ERRORTYPE push(std::deque<OMX_BUFFERHEADERTYPE*>& q, OMX_BUFFERHEADERTYPE* hdr) {
        std::lock_guard<std::mutex> lock(mutex_);
        q.push_back(hdr);
        cond_.notify_all();
        return OMX_ErrorNone;
    }

    std::mutex mutex_;
    std::condition_variable cond_;
    std::deque<OMX_STATETYPE> states_;
    std::deque<OMX_BUFFERHEADERTYPE*> inputs_;
    std::deque<OMX_BUFFERHEADERTYPE*> outputs_;
    unsigned error_ = 0;
};

// One component from creation to destruction. The destructor always stops
// the worker threads and deletes the object, whatever state it was left in.
class Session {
public:
    ~Session() {
        if (comp_ == nullptr) return;
        comp_->component_deinit(&comp_->handle);
        delete comp_;
    }

    bool open(std::string& error) {
        comp_ = static_cast<omx_evrc_adec*>(get_omx_component_factory_fn());
        if (comp_ == nullptr) {
            error = "cannot create the decoder component";
            return false;
        }
        h_ = &comp_->handle;
        char name[] = "OMX.vemo.audio.decoder.evrc";
        if (!check(comp_->component_init(name), "component_init", error)) return false;
        OMX_CALLBACKTYPE cb{&Returns::on_event, &Returns::on_empty_done, &Returns::on_fill_done};
        return check(comp_->set_callbacks(h_, &cb, &returns_), "set_callbacks", error);
    }

    // Loaded -> Idle with every buffer of both ports allocated, then
    // Executing.
    bool start(std::string& error) {
        if (!check(comp_->send_command(h_, OMX_CommandStateSet, OMX_StateIdle, nullptr), "Idle", error))
            return false;
        if (!allocate(0, inputs_, error) || !allocate(1, outputs_, error)) return false;
        if (!returns_.wait_state(OMX_StateIdle, error)) return false;
        if (!check(comp_->send_command(h_, OMX_CommandStateSet, OMX_StateExecuting, nullptr), "Executing", error))
            return false;
        return returns_.wait_state(OMX_StateExecuting, error);
    }

    // Executing -> Idle -> Loaded, freeing every buffer on the way.
    bool stop(std::string& error) {
        if (!check(comp_->send_command(h_, OMX_CommandStateSet, OMX_StateIdle, nullptr), "Idle", error))
            return false;
        if (!returns_.wait_state(OMX_StateIdle, error)) return false;
        if (!check(comp_->send_command(h_, OMX_CommandStateSet, OMX_StateLoaded, nullptr), "Loaded", error))
            return false;
        for (OMX_BUFFERHEADERTYPE* hdr : inputs_)
            if (!check(comp_->free_buffer(h_, 0, hdr), "free_buffer", error)) return false;
        for (OMX_BUFFERHEADERTYPE* hdr : outputs_)
            if (!check(comp_->free_buffer(h_, 1, hdr), "free_buffer", error)) return false;
        inputs_.clear();
        outputs_.clear();
        return returns_.wait_state(OMX_StateLoaded, error);
    }

    // Sends the buffers in order and appends the PCM of each returned output
    // buffer; the component answers input buffers in the order received.
    bool run(const std::vector<Bytes>& buffers, const std::vector<std::size_t>& counts,
             std::vector<std::int16_t>& pcm, std::string& error) {
        std::deque<OMX_BUFFERHEADERTYPE*> free_in(inputs_.begin(), inputs_.end());
        std::deque<OMX_BUFFERHEADERTYPE*> free_out(outputs_.begin(), outputs_.end());
        std::size_t sent = 0;
        std::size_t received = 0;
        while (received < buffers.size()) {
            while (!free_out.empty() && received + (outputs_.size() - free_out.size()) < buffers.size()) {
                if (!check(comp_->fill_this_buffer(h_, free_out.front()), "fill_this_buffer", error)) return false;
                free_out.pop_front();
            }
            while (!free_in.empty() && sent < buffers.size()) {
                OMX_BUFFERHEADERTYPE* hdr = free_in.front();
                std::memcpy(hdr->pBuffer, buffers[sent].data(), buffers[sent].size());
                hdr->nOffset = 0;
                hdr->nFilledLen = static_cast<OMX_U32>(buffers[sent].size());
                hdr->nFlags = 0;
                if (!check(comp_->empty_this_buffer(h_, hdr), "empty_this_buffer", error)) return false;
                free_in.pop_front();
                ++sent;
            }
            std::deque<OMX_BUFFERHEADERTYPE*> done_out;
            if (!returns_.wait_buffers(free_in, done_out, error)) return false;
            for (OMX_BUFFERHEADERTYPE* hdr : done_out) {
                const std::size_t expected = counts[received] * kSamplesPerPacket * sizeof(std::int16_t);
                if (hdr->nFilledLen != expected) {
                    error = "output buffer " + std::to_string(received) + " holds " +
                            std::to_string(hdr->nFilledLen) + " bytes instead of " + std::to_string(expected);
                    return false;
                }
                const auto* s = reinterpret_cast<const std::int16_t*>(hdr->pBuffer + hdr->nOffset);
                pcm.insert(pcm.end(), s, s + hdr->nFilledLen / sizeof(std::int16_t));
                ++received;
                free_out.push_back(hdr);
            }
        }
        return true;
    }

private:
    static bool check(OMX_ERRORTYPE err, const char* what, std::string& error) {
        if (err == OMX_ErrorNone) return true;
        error = std::string(what) + " failed with " + hex(static_cast<unsigned>(err));
        return false;
    }

    bool allocate(unsigned port, std::vector<OMX_BUFFERHEADERTYPE*>& hdrs, std::string& error) {
        OMX_PARAM_PORTDEFINITIONTYPE def;
        std::memset(&def, 0, sizeof(def));
        def.nSize = sizeof(def);
        def.nVersion.nVersion = omx_evrc_adec::kVersion;
        def.nPortIndex = port;
        if (!check(comp_->get_parameter(h_, OMX_IndexParamPortDefinition, &def), "get_parameter", error))
            return false;
        for (OMX_U32 i = 0; i < def.nBufferCountActual; ++i) {
            OMX_BUFFERHEADERTYPE* hdr = nullptr;
            if (!check(comp_->allocate_buffer(h_, &hdr, port, nullptr, static_cast<unsigned>(def.nBufferSize)),
                       "allocate_buffer", error))
                return false;
            hdrs.push_back(hdr);
        }
        return true;
    }

    omx_evrc_adec* comp_ = nullptr;
    OMX_HANDLETYPE h_ = nullptr;
    Returns returns_;
    std::vector<OMX_BUFFERHEADERTYPE*> inputs_;
    std::vector<OMX_BUFFERHEADERTYPE*> outputs_;
};

}  // namespace

bool decode_with_component(const std::vector<std::vector<std::uint8_t>>& packets, std::vector<std::int16_t>& pcm,
                           std::string& error) {
    std::vector<Bytes> buffers;
    std::vector<std::size_t> counts;
    if (!split_into_buffers(packets, omx_evrc_adec::kInputBufferSize, buffers, counts, error)) return false;
    auto session = std::make_unique<Session>();
    if (!session->open(error) || !session->start(error)) return false;
    if (!session->run(buffers, counts, pcm, error)) return false;
    return session->stop(error);
}

}  // namespace evrc_tool
