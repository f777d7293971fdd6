// Decoding through the OpenMAX IL component, driven the way a media
// framework drives it: factory, component_init, callbacks, Loaded -> Idle
// with buffers allocated on both ports, Executing, a stream of input buffers
// each answered by one output buffer, then back to Idle and Loaded.
#include "omx_decode.h"

#include "codec/common/packet_layout.h"

#include <OMX_Component.h>
#include <OMX_Core.h>
#include <bellagio/st_static_component_loader.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>

namespace evrc_tool {
namespace {

using Bytes = std::vector<std::uint8_t>;

// No single step of a healthy component takes anywhere near this long.
constexpr std::chrono::seconds kStepTimeout{30};

constexpr unsigned kSamplesPerPacket = 160;
// Buffers the client allocates on each port.
constexpr OMX_U32 kBuffersPerPort = 32;
// Output buffers left in the component when the client is woken to collect
// the others: their decoding covers the time the client needs to wake up and
// send the next buffers, so the input thread never runs dry.
constexpr std::size_t kKeptInComponent = 8;
// OpenMAX IL 1.1, the version of every structure passed in.
constexpr OMX_U32 kOmxVersion = 0x00000101;
constexpr char kComponentName[] = "OMX.vemo.audio.decoder.evrc";

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

// One input buffer's share of the stream: `count` whole packets from packet
// `first` on, `bytes` bytes in all.
struct Chunk {
    std::size_t first;
    std::size_t count;
    std::size_t bytes;
};

// Checks every packet and divides the stream into input buffers: at most
// `max_packets` packets (one output buffer's worth of PCM) and at most
// `capacity` bytes each. The packets are copied into the component's buffers
// only as these are sent.
bool plan_buffers(const std::vector<Bytes> &packets, std::size_t capacity, std::size_t max_packets,
                  std::vector<Chunk> &chunks, std::string &error) {
    Chunk cur{0, 0, 0};
    for (std::size_t i = 0; i < packets.size(); ++i) {
        const Bytes &p = packets[i];
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
        if (cur.count == max_packets || cur.bytes + len > capacity) {
            chunks.push_back(cur);
            cur = Chunk{i, 0, 0};
        }
        ++cur.count;
        cur.bytes += len;
    }
    if (cur.count > 0) chunks.push_back(cur);
    return true;
}

// What the component hands back through the callbacks. The callbacks run on
// the component's threads; they only record what came back (into storage
// reserved beforehand: no allocation) and wake the client when it has
// something to do.
class Returns {
public:
    // Room for every buffer of both ports, so that a callback never
    // allocates.
    void reserve(std::size_t buffers) {
        std::lock_guard<std::mutex> lock(mutex_);
        inputs_.reserve(buffers);
        outputs_.reserve(buffers);
    }

    static OMX_ERRORTYPE on_event(OMX_HANDLETYPE, OMX_PTR app, OMX_EVENTTYPE type, OMX_U32 d1, OMX_U32 d2, OMX_PTR) {
        Returns *self = static_cast<Returns *>(app);
        {
            std::lock_guard<std::mutex> lock(self->mutex_);
            if (type == OMX_EventCmdComplete && d1 == OMX_CommandStateSet) {
                self->states_.push_back(static_cast<OMX_STATETYPE>(d2));
            } else if (type == OMX_EventError && self->error_ == 0) {
                self->error_ = static_cast<unsigned>(d1);
            }
        }
        // Notified after the lock is released, so that the woken client does
        // not block on it at once. (The client outlives every callback: the
        // component's threads are joined before the session goes.)
        self->cond_.notify_all();
        return OMX_ErrorNone;
    }
    // A returned input buffer is only collected: its output buffer follows
    // it (the component answers every input buffer with one). Returned output
    // buffers wake the client once as many as it waits for are back.
    static OMX_ERRORTYPE on_empty_done(OMX_HANDLETYPE, OMX_PTR app, OMX_BUFFERHEADERTYPE *hdr) {
        return static_cast<Returns *>(app)->push(static_cast<Returns *>(app)->inputs_, hdr, false);
    }
    static OMX_ERRORTYPE on_fill_done(OMX_HANDLETYPE, OMX_PTR app, OMX_BUFFERHEADERTYPE *hdr) {
        return static_cast<Returns *>(app)->push(static_cast<Returns *>(app)->outputs_, hdr, true);
    }

    bool wait_state(OMX_STATETYPE s, std::string &error) {
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

    // Waits for `wanted` (at least one) returned output buffers, or an error
    // event, and appends every buffer returned so far to `inputs` and
    // `outputs`; false on timeout or error, with `error` set. Only to be
    // called with at least `wanted` output buffers in the component.
    bool wait_buffers(std::size_t wanted, std::vector<OMX_BUFFERHEADERTYPE *> &inputs,
                      std::vector<OMX_BUFFERHEADERTYPE *> &outputs, std::string &error) {
        std::unique_lock<std::mutex> lock(mutex_);
        wanted_ = wanted > 0 ? wanted : 1;
        const bool ok = cond_.wait_for(lock, kStepTimeout, [&] { return outputs_.size() >= wanted_ || error_ != 0; });
        wanted_ = 1;
        inputs.insert(inputs.end(), inputs_.begin(), inputs_.end());
        outputs.insert(outputs.end(), outputs_.begin(), outputs_.end());
        inputs_.clear();
        outputs_.clear();
        if (ok && error_ == 0) return true;
        error = error_ != 0 ? "the component reported error " + hex(error_)
                            : "the component returned no buffer within " + std::to_string(kStepTimeout.count()) + " s";
        return false;
    }

private:
    OMX_ERRORTYPE push(std::vector<OMX_BUFFERHEADERTYPE *> &q, OMX_BUFFERHEADERTYPE *hdr, bool wake) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            q.push_back(hdr);
            if (!wake || q.size() < wanted_) return OMX_ErrorNone;
        }
        cond_.notify_all();
        return OMX_ErrorNone;
    }

    std::mutex mutex_;
    std::condition_variable cond_;
    std::vector<OMX_STATETYPE> states_;
    std::vector<OMX_BUFFERHEADERTYPE *> inputs_;
    std::vector<OMX_BUFFERHEADERTYPE *> outputs_;
    std::size_t wanted_ = 1;  // returned output buffers that wake the client
    unsigned error_ = 0;
};

// The library's component entry as an OpenMAX IL core sees it.
extern "C" int omx_component_library_Setup(stLoaderComponentType **list);

// One component from creation to destruction, reached only through the
// library's loader entry and the OpenMAX function table it fills. The
// destructor always deinitialises the component, whatever state it was left
// in.
class Session {
public:
    ~Session() {
        if (constructed_) handle_.ComponentDeInit(&handle_);
    }

    bool open(std::string &error) {
        stLoaderComponentType record;
        std::memset(&record, 0, sizeof(record));
        stLoaderComponentType *list[] = {&record};
        const bool described = omx_component_library_Setup(list) == 1 && record.constructor != nullptr;
        release(record);
        if (!described) {
            error = "cannot create the decoder component";
            return false;
        }
        std::memset(&handle_, 0, sizeof(handle_));
        handle_.nSize = sizeof(handle_);
        handle_.nVersion.nVersion = kOmxVersion;
        char name[sizeof(kComponentName)];
        std::memcpy(name, kComponentName, sizeof(name));
        constructed_ = true;
        if (!check(record.constructor(&handle_, name), "component_init", error)) return false;
        OMX_CALLBACKTYPE cb{&Returns::on_event, &Returns::on_empty_done, &Returns::on_fill_done};
        return check(handle_.SetCallbacks(&handle_, &cb, &returns_), "set_callbacks", error);
    }

    // Sets the number of buffers of a port (its size stays).
    bool set_buffer_count(unsigned port, OMX_U32 count, std::string &error) {
        OMX_PARAM_PORTDEFINITIONTYPE def;
        if (!port_definition(port, def, error)) return false;
        def.nBufferCountActual = count;
        return check(handle_.SetParameter(&handle_, OMX_IndexParamPortDefinition, &def), "set_parameter", error);
    }

    // Buffer size of a port.
    bool buffer_size(unsigned port, std::size_t &size, std::string &error) {
        OMX_PARAM_PORTDEFINITIONTYPE def;
        if (!port_definition(port, def, error)) return false;
        size = def.nBufferSize;
        return true;
    }

    // Loaded -> Idle with every buffer of both ports allocated, then
    // Executing, with the first `fills` output buffers (at most all of them)
    // handed to the component while it gets there: the command thread's
    // answer takes longer than the calls, and the input thread then finds
    // output buffers waiting when the first input buffer arrives.
    bool start(std::size_t fills, std::string &error) {
        if (!check(handle_.SendCommand(&handle_, OMX_CommandStateSet, OMX_StateIdle, nullptr), "Idle", error))
            return false;
        if (!allocate(0, inputs_, error) || !allocate(1, outputs_, error)) return false;
        returns_.reserve(inputs_.size() + outputs_.size());
        if (!returns_.wait_state(OMX_StateIdle, error)) return false;
        if (!check(handle_.SendCommand(&handle_, OMX_CommandStateSet, OMX_StateExecuting, nullptr), "Executing", error))
            return false;
        filling_ = 0;
        for (OMX_BUFFERHEADERTYPE *hdr : outputs_) {
            if (filling_ == fills) break;
            if (!check(handle_.FillThisBuffer(&handle_, hdr), "fill_this_buffer", error)) return false;
            ++filling_;
        }
        return returns_.wait_state(OMX_StateExecuting, error);
    }

    // Executing -> Idle -> Loaded, freeing every buffer on the way.
    bool stop(std::string &error) {
        if (!check(handle_.SendCommand(&handle_, OMX_CommandStateSet, OMX_StateIdle, nullptr), "Idle", error))
            return false;
        if (!returns_.wait_state(OMX_StateIdle, error)) return false;
        if (!check(handle_.SendCommand(&handle_, OMX_CommandStateSet, OMX_StateLoaded, nullptr), "Loaded", error))
            return false;
        for (OMX_BUFFERHEADERTYPE *hdr : inputs_)
            if (!check(handle_.FreeBuffer(&handle_, 0, hdr), "free_buffer", error)) return false;
        for (OMX_BUFFERHEADERTYPE *hdr : outputs_)
            if (!check(handle_.FreeBuffer(&handle_, 1, hdr), "free_buffer", error)) return false;
        inputs_.clear();
        outputs_.clear();
        return returns_.wait_state(OMX_StateLoaded, error);
    }

    // Sends the stream in the planned input buffers and appends the PCM of
    // each returned output buffer; the component answers input buffers in
    // the order received.
    bool run(const std::vector<Bytes> &packets, const std::vector<Chunk> &chunks, std::vector<std::int16_t> &pcm,
             std::string &error) {
        std::vector<OMX_BUFFERHEADERTYPE *> free_in(inputs_), done_out;
        free_in.reserve(inputs_.size());
        done_out.reserve(outputs_.size());
        std::size_t sent = 0;             // input buffers sent
        std::size_t received = 0;         // output buffers collected
        std::size_t &filling = filling_;  // output buffers in the component
        // The output buffers went in with the start; each one goes back in as
        // soon as its PCM is collected, while output is still missing. While
        // output is missing at least one output buffer is in the component,
        // so a wait for one ends.
        while (received < chunks.size()) {
            std::size_t used = 0;
            for (; used < free_in.size() && sent < chunks.size(); ++used, ++sent) {
                if (!empty_buffer(free_in[used], packets, chunks[sent], error)) return false;
            }
            free_in.erase(free_in.begin(), free_in.begin() + static_cast<std::ptrdiff_t>(used));
            // All but a few output buffers back before this thread runs again
            // (fewer if fewer can come back: each returns with one input
            // buffer sent and not yet answered): the component keeps a few to
            // work on meanwhile, and each wake-up of this thread, which costs
            // the component's thread a system call, collects many buffers.
            const std::size_t unanswered = sent - received;
            std::size_t wanted = outputs_.size() > kKeptInComponent ? outputs_.size() - kKeptInComponent : 1;
            if (wanted > filling) wanted = filling;
            if (wanted > unanswered) wanted = unanswered;
            done_out.clear();
            if (!returns_.wait_buffers(wanted, free_in, done_out, error)) return false;
            for (OMX_BUFFERHEADERTYPE *hdr : done_out) {
                const std::size_t expected = chunks[received].count * kSamplesPerPacket * sizeof(std::int16_t);
                if (hdr->nFilledLen != expected) {
                    error = "output buffer " + std::to_string(received) + " holds " + std::to_string(hdr->nFilledLen) +
                            " bytes instead of " + std::to_string(expected);
                    return false;
                }
                const auto *s = reinterpret_cast<const std::int16_t *>(hdr->pBuffer + hdr->nOffset);
                pcm.insert(pcm.end(), s, s + hdr->nFilledLen / sizeof(std::int16_t));
                ++received;
                --filling;
                if (received + filling < chunks.size()) {
                    if (!check(handle_.FillThisBuffer(&handle_, hdr), "fill_this_buffer", error)) return false;
                    ++filling;
                }
            }
        }
        return true;
    }

private:
    static bool check(OMX_ERRORTYPE err, const char *what, std::string &error) {
        if (err == OMX_ErrorNone) return true;
        error = std::string(what) + " failed with " + hex(static_cast<unsigned>(err));
        return false;
    }

    // Copies the chunk's packets into an input buffer and sends it.
    bool empty_buffer(OMX_BUFFERHEADERTYPE *hdr, const std::vector<Bytes> &packets, const Chunk &chunk,
                      std::string &error) {
        OMX_U8 *dst = hdr->pBuffer;
        for (std::size_t i = chunk.first; i < chunk.first + chunk.count; ++i) {
            std::memcpy(dst, packets[i].data(), packets[i].size());
            dst += packets[i].size();
        }
        hdr->nOffset = 0;
        hdr->nFilledLen = static_cast<OMX_U32>(chunk.bytes);
        hdr->nFlags = 0;
        return check(handle_.EmptyThisBuffer(&handle_, hdr), "empty_this_buffer", error);
    }

    // The loader entry hands over malloc()ed strings, as a core expects.
    static void release(stLoaderComponentType &record) {
        for (OMX_U32 i = 0; i < record.name_specific_length; ++i) {
            if (record.name_specific != nullptr) std::free(record.name_specific[i]);
            if (record.role_specific != nullptr) std::free(record.role_specific[i]);
        }
        std::free(record.name_specific);
        std::free(record.role_specific);
        std::free(record.name);
    }

    bool port_definition(unsigned port, OMX_PARAM_PORTDEFINITIONTYPE &def, std::string &error) {
        std::memset(&def, 0, sizeof(def));
        def.nSize = sizeof(def);
        def.nVersion.nVersion = kOmxVersion;
        def.nPortIndex = port;
        return check(handle_.GetParameter(&handle_, OMX_IndexParamPortDefinition, &def), "get_parameter", error);
    }

    bool allocate(unsigned port, std::vector<OMX_BUFFERHEADERTYPE *> &hdrs, std::string &error) {
        OMX_PARAM_PORTDEFINITIONTYPE def;
        if (!port_definition(port, def, error)) return false;
        for (OMX_U32 i = 0; i < def.nBufferCountActual; ++i) {
            OMX_BUFFERHEADERTYPE *hdr = nullptr;
            if (!check(handle_.AllocateBuffer(&handle_, &hdr, port, nullptr, def.nBufferSize), "allocate_buffer",
                       error))
                return false;
            hdrs.push_back(hdr);
        }
        return true;
    }

    OMX_COMPONENTTYPE handle_{};
    bool constructed_ = false;
    Returns returns_;
    std::vector<OMX_BUFFERHEADERTYPE *> inputs_;
    std::vector<OMX_BUFFERHEADERTYPE *> outputs_;
    std::size_t filling_ = 0;  // output buffers handed to the component and not yet back
};

}  // namespace

bool decode_with_component(const std::vector<std::vector<std::uint8_t>> &packets, std::vector<std::int16_t> &pcm,
                           std::string &error, ComponentTimes *times) {
    using Clock = std::chrono::steady_clock;
    const auto seconds = [](Clock::duration d) { return std::chrono::duration<double>(d).count(); };
    const Clock::time_point opened = Clock::now();
    auto session = std::make_unique<Session>();
    if (!session->open(error)) return false;
    // An output buffer holds the PCM of at most this many packets.
    std::size_t in_size = 0, out_size = 0;
    if (!session->buffer_size(0, in_size, error) || !session->buffer_size(1, out_size, error)) return false;
    const std::size_t max_packets = out_size / (kSamplesPerPacket * sizeof(std::int16_t));
    std::vector<Chunk> chunks;
    if (!plan_buffers(packets, in_size, max_packets, chunks, error)) return false;
    // More buffers in flight than the component's default two keep its input
    // thread supplied while this thread waits to be scheduled, so fewer
    // hand-overs have to wake a sleeping thread; but no more than the stream
    // fills (every buffer is allocated, zero-filled and freed again).
    const OMX_U32 count =
        static_cast<OMX_U32>(std::max<std::size_t>(2, std::min<std::size_t>(kBuffersPerPort, chunks.size())));
    if (!session->set_buffer_count(0, count, error) || !session->set_buffer_count(1, count, error)) return false;
    pcm.reserve(pcm.size() + packets.size() * kSamplesPerPacket);
    if (!session->start(chunks.size(), error)) return false;
    const Clock::time_point started = Clock::now();
    if (!session->run(packets, chunks, pcm, error)) return false;
    const Clock::time_point streamed = Clock::now();
    if (!session->stop(error)) return false;
    session.reset();
    if (times != nullptr)
        *times = {seconds(started - opened), seconds(streamed - started), seconds(Clock::now() - streamed)};
    return true;
}

}  // namespace evrc_tool
