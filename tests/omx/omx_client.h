// A test client that drives the component the way a media framework does:
// through the object's operations, with callbacks that record what they are
// given. Every wait has a time limit.
#ifndef EVRC_TESTS_OMX_CLIENT_H
#define EVRC_TESTS_OMX_CLIENT_H

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "omx/omx_evrc_adec.h"
#include "tools/random_packets.h"

namespace omx_test {

using Bytes = std::vector<uint8_t>;
constexpr std::chrono::milliseconds kTimeout{20000};
// How long a test watches for something that must not happen.
constexpr std::chrono::milliseconds kQuiet{150};

struct Event {
    OMX_EVENTTYPE type;
    OMX_U32 data1, data2;
    OMX_PTR data;
};

// A buffer as it came back through EmptyBufferDone or FillBufferDone.
struct Returned {
    OMX_BUFFERHEADERTYPE *hdr;
    OMX_U32 filled, flags;
    OMX_TICKS timestamp;
    OMX_HANDLETYPE mark_target;
    OMX_PTR mark_data;
    Bytes data;  // output buffers: the filled bytes
};

// Log lines the component wrote, fully formatted.
void clear_log();
bool log_contains(const std::string &line);

class Client {
public:
    explicit Client(const char *name = omx_evrc_adec::kName);
    ~Client();
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    omx_evrc_adec *comp;
    OMX_HANDLETYPE h;  // the handle the client passes and callbacks carry
    std::vector<OMX_BUFFERHEADERTYPE *> in, out;

    OMX_ERRORTYPE command(OMX_COMMANDTYPE cmd, OMX_U32 param, void *data = nullptr) {
        return comp->send_command(h, cmd, static_cast<unsigned int>(param), data);
    }
    OMX_STATETYPE state() {
        OMX_STATETYPE s = OMX_StateInvalid;
        comp->get_state(h, &s);
        return s;
    }
    // Index of the first event at `from` or later with these values (data2
    // ignored when `any2`), or -1 on time-out.
    long wait_event(OMX_EVENTTYPE type, OMX_U32 d1, OMX_U32 d2, std::size_t from = 0, bool any2 = false) {
        long found = -1;
        wait([&] {
            for (std::size_t i = from; i < events_.size() && found < 0; ++i)
                if (events_[i].type == type && events_[i].data1 == d1 && (any2 || events_[i].data2 == d2))
                    found = static_cast<long>(i);
            return found >= 0;
        });
        return found;
    }
    bool wait_cmd_complete(OMX_COMMANDTYPE cmd, OMX_U32 param, std::size_t from = 0) {
        return wait_event(OMX_EventCmdComplete, cmd, param, from) >= 0;
    }
    // Sends a state command and waits for its completion.
    bool set_state(OMX_STATETYPE s) {
        const std::size_t from = event_count();
        return command(OMX_CommandStateSet, s) == OMX_ErrorNone && wait_cmd_complete(OMX_CommandStateSet, s, from);
    }
    // Returns once the command thread has handled everything sent so far:
    // a command to the current state comes back as a SameState error.
    bool barrier() {
        const std::size_t from = event_count();
        return command(OMX_CommandStateSet, state()) == OMX_ErrorNone &&
               wait_event(OMX_EventError, static_cast<OMX_U32>(OMX_ErrorSameState), 1, from) >= 0;
    }
    std::size_t event_count() { return events_since(0).size(); }
    std::vector<Event> events_since(std::size_t from) {
        std::lock_guard<std::mutex> lock(mu_);
        return std::vector<Event>(events_.begin() + static_cast<std::ptrdiff_t>(std::min(from, events_.size())),
                                  events_.end());
    }
    // The i-th returned input (ebd) or output (fbd) buffer; a null header
    // on time-out.
    Returned ebd(std::size_t i) { return returned(ebd_, i); }
    Returned fbd(std::size_t i) { return returned(fbd_, i); }
    std::size_t returned_count() {
        std::lock_guard<std::mutex> lock(mu_);
        return ebd_.size() + fbd_.size();
    }
    // Whether any callback carried a handle other than `h`.
    bool foreign_handle() {
        std::lock_guard<std::mutex> lock(mu_);
        return foreign_handle_;
    }

    // Buffers of both ports, allocated by the component.
    void allocate(unsigned in_count = 2, unsigned out_count = 2) {
        for (unsigned i = 0; i < in_count + out_count; ++i) {
            OMX_BUFFERHEADERTYPE *hdr = nullptr;
            const unsigned port = i < in_count ? 0 : 1;
            if (comp->allocate_buffer(h, &hdr, port, this, 0) == OMX_ErrorNone) (port ? out : in).push_back(hdr);
        }
    }
    // Loaded -> Idle -> Executing with the default buffers.
    bool start() {
        const std::size_t from = event_count();
        if (command(OMX_CommandStateSet, OMX_StateIdle) != OMX_ErrorNone) return false;
        allocate();
        return wait_cmd_complete(OMX_CommandStateSet, OMX_StateIdle, from) && set_state(OMX_StateExecuting);
    }
    void free_all() {
        for (auto *hdr : in) comp->free_buffer(h, 0, hdr);
        for (auto *hdr : out) comp->free_buffer(h, 1, hdr);
        in.clear();
        out.clear();
    }
    OMX_ERRORTYPE etb(OMX_BUFFERHEADERTYPE *hdr, const Bytes &bytes, OMX_U32 flags = 0, OMX_TICKS ts = 0) {
        std::copy(bytes.begin(), bytes.end(), hdr->pBuffer);
        hdr->nFilledLen = static_cast<OMX_U32>(bytes.size());
        hdr->nOffset = 0;
        hdr->nFlags = flags;
        hdr->nTimeStamp = ts;
        return comp->empty_this_buffer(h, hdr);
    }
    OMX_ERRORTYPE ftb(OMX_BUFFERHEADERTYPE *hdr) { return comp->fill_this_buffer(h, hdr); }
    // Input buffer i with these bytes, then output buffer i; true when the
    // component takes both.
    bool exchange(std::size_t i, const Bytes &bytes, OMX_U32 flags = 0, OMX_TICKS ts = 0) {
        return etb(in[i], bytes, flags, ts) == OMX_ErrorNone && ftb(out[i]) == OMX_ErrorNone;
    }

private:
    bool wait(const std::function<bool()> &done) {
        std::unique_lock<std::mutex> lock(mu_);
        return cv_.wait_for(lock, kTimeout, done);
    }
    Returned returned(const std::vector<Returned> &list, std::size_t i) {
        std::unique_lock<std::mutex> lock(mu_);
        return cv_.wait_for(lock, kTimeout, [&] { return list.size() > i; }) ? list[i] : Returned{};
    }
    OMX_ERRORTYPE record(OMX_HANDLETYPE handle, OMX_BUFFERHEADERTYPE *hdr, const Event &e);

    std::mutex mu_;
    std::condition_variable cv_;
    std::vector<Event> events_;
    std::vector<Returned> ebd_, fbd_;
    bool foreign_handle_ = false;
};

// Decoder used as the reference: a fresh, initialised state; reset()
// initialises it again, as a flush does.
struct RefDecoder {
    std::unique_ptr<EvrcDecoderState> st{new EvrcDecoderState()};
    RefDecoder() { reset(); }
    void reset() { evrc_init_dec(st.get()); }
    Bytes decode(const Bytes &packet) {  // PCM bytes
        EvrcPacket p = evrc_random::bytes_to_packet(packet);
        int16_t pcm[EVRC_FRAME_SIZE];
        evrc_decode(st.get(), &p, pcm, 0);
        return Bytes(reinterpret_cast<const uint8_t *>(pcm), reinterpret_cast<const uint8_t *>(pcm + EVRC_FRAME_SIZE));
    }
};

// Random packets of every rate code, blank and quarter rate included.
std::vector<Bytes> random_stream(uint32_t seed, std::size_t count);

}  // namespace omx_test

#endif  // EVRC_TESTS_OMX_CLIENT_H
