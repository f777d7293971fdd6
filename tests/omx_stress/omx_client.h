// A minimal OpenMAX IL client for the component tests: records events and
// returned buffers from the callbacks and lets the test wait for them, each
// wait bounded by a timeout so that a misbehaving component fails the test
// instead of hanging it. Also the packet streams and the direct-decoder
// reference the tests compare the component against.
#ifndef EVRC_TESTS_OMX_CLIENT_H
#define EVRC_TESTS_OMX_CLIENT_H

#include <OMX_Component.h>
#include <OMX_Core.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <random>
#include <vector>

#include "evrc/evrc_dec.h"
#include "tests/support/random_packets.h"

namespace omx_test {

using Bytes = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kWait{20};

struct Event {
    OMX_HANDLETYPE handle;
    OMX_PTR app_data;
    OMX_EVENTTYPE type;
    OMX_U32 data1;
    OMX_U32 data2;
    OMX_PTR data;
};

// Everything the component reports back, in arrival order.
class ClientLog {
public:
    OMX_CALLBACKTYPE callbacks() { return OMX_CALLBACKTYPE{&on_event, &on_empty_done, &on_fill_done}; }

    // Waits until an event of `type` with `data1` (and `data2` unless
    // `any_data2`) is recorded and removes it; false on timeout.
    bool wait_event(OMX_EVENTTYPE type, OMX_U32 data1, OMX_U32 data2, bool any_data2 = false,
                    std::chrono::milliseconds timeout = kWait) {
        std::unique_lock<std::mutex> lock(mutex_);
        return cond_.wait_for(lock, timeout, [&] {
            for (auto it = pending_.begin(); it != pending_.end(); ++it) {
                if (it->type == type && it->data1 == data1 && (any_data2 || it->data2 == data2)) {
                    pending_.erase(it);
                    return true;
                }
            }
            return false;
        });
    }
    bool wait_state(OMX_STATETYPE s) { return wait_event(OMX_EventCmdComplete, OMX_CommandStateSet, s); }

    // Next returned input (EmptyBufferDone) or output (FillBufferDone)
    // header, or null on timeout.
    OMX_BUFFERHEADERTYPE* wait_empty_done(std::chrono::milliseconds timeout = kWait) {
        return wait_buffer(empty_done_, timeout);
    }
    OMX_BUFFERHEADERTYPE* wait_fill_done(std::chrono::milliseconds timeout = kWait) {
        return wait_buffer(fill_done_, timeout);
    }

    // Waits until either kind of buffer has come back; false on timeout.
    bool wait_any_buffer(std::chrono::milliseconds timeout = kWait) {
        std::unique_lock<std::mutex> lock(mutex_);
        return cond_.wait_for(lock, timeout, [&] { return !empty_done_.empty() || !fill_done_.empty(); });
    }
    OMX_BUFFERHEADERTYPE* take_empty_done() { return take(empty_done_); }
    OMX_BUFFERHEADERTYPE* take_fill_done() { return take(fill_done_); }

    std::vector<Event> all_events() {
        std::lock_guard<std::mutex> lock(mutex_);
        return all_;
    }
    // Handles and application data seen in any callback that differ from
    // the expected ones.
    int foreign_callbacks(OMX_HANDLETYPE handle) {
        std::lock_guard<std::mutex> lock(mutex_);
        int n = wrong_app_data_;
        for (OMX_HANDLETYPE h : handles_) n += (h != handle);
        return n;
    }

private:
    static ClientLog* self(OMX_PTR app) { return static_cast<ClientLog*>(app); }

    static OMX_ERRORTYPE on_event(OMX_HANDLETYPE h, OMX_PTR app, OMX_EVENTTYPE type, OMX_U32 d1, OMX_U32 d2,
                                  OMX_PTR data) {
        ClientLog* log = self(app);
        std::lock_guard<std::mutex> lock(log->mutex_);
        const Event e{h, app, type, d1, d2, data};
        log->pending_.push_back(e);
        log->all_.push_back(e);
        log->handles_.push_back(h);
        log->cond_.notify_all();
        return OMX_ErrorNone;
    }
    static OMX_ERRORTYPE on_empty_done(OMX_HANDLETYPE h, OMX_PTR app, OMX_BUFFERHEADERTYPE* hdr) {
        return self(app)->push(h, app, hdr, self(app)->empty_done_);
    }
    static OMX_ERRORTYPE on_fill_done(OMX_HANDLETYPE h, OMX_PTR app, OMX_BUFFERHEADERTYPE* hdr) {
        return self(app)->push(h, app, hdr, self(app)->fill_done_);
    }

    OMX_ERRORTYPE push(OMX_HANDLETYPE h, OMX_PTR app, OMX_BUFFERHEADERTYPE* hdr,
                       std::deque<OMX_BUFFERHEADERTYPE*>& q) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (app != this) ++wrong_app_data_;
        handles_.push_back(h);
        q.push_back(hdr);
        cond_.notify_all();
        return OMX_ErrorNone;
    }
    OMX_BUFFERHEADERTYPE* wait_buffer(std::deque<OMX_BUFFERHEADERTYPE*>& q, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!cond_.wait_for(lock, timeout, [&] { return !q.empty(); })) return nullptr;
        OMX_BUFFERHEADERTYPE* hdr = q.front();
        q.pop_front();
        return hdr;
    }
    OMX_BUFFERHEADERTYPE* take(std::deque<OMX_BUFFERHEADERTYPE*>& q) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (q.empty()) return nullptr;
        OMX_BUFFERHEADERTYPE* hdr = q.front();
        q.pop_front();
        return hdr;
    }

    std::mutex mutex_;
    std::condition_variable cond_;
    std::deque<Event> pending_;
    std::vector<Event> all_;
    std::vector<OMX_HANDLETYPE> handles_;
    int wrong_app_data_ = 0;
    std::deque<OMX_BUFFERHEADERTYPE*> empty_done_;
    std::deque<OMX_BUFFERHEADERTYPE*> fill_done_;
};

// A random packet of any rate the component accepts: blank, 1/8, 1/4 (not
// decodable, concealed), 1/2 and 1, each as rate byte plus payload.
inline Bytes random_stream_packet(std::mt19937& rng) {
    switch (evrc_test::uniform_int(rng, 0, 9)) {
    case 0: return Bytes{EVRC_RATE_BLANK};
    case 1: {
        Bytes p{EVRC_RATE_QUARTER};
        for (int i = 0; i < 5; ++i) p.push_back(static_cast<std::uint8_t>(evrc_test::uniform_int(rng, 0, 255)));
        return p;
    }
    case 2:
    case 3: return evrc_test::random_packet_bytes(rng, EVRC_RATE_EIGHTH);
    case 4:
    case 5: return evrc_test::random_packet_bytes(rng, EVRC_RATE_HALF);
    default: return evrc_test::random_packet_bytes(rng, EVRC_RATE_FULL);
    }
}

// Input buffers of whole packets, between 1 and `max_packets` each (at most
// 30 so that every buffer fits the 720-byte input buffer and one output
// buffer holds all its frames).
struct Stream {
    std::vector<Bytes> packets;
    std::vector<Bytes> buffers;
    std::vector<std::size_t> packets_in_buffer;
};

inline Stream random_stream(std::mt19937& rng, std::size_t nbuffers, int max_packets = 30) {
    Stream s;
    for (std::size_t b = 0; b < nbuffers; ++b) {
        const int n = evrc_test::uniform_int(rng, 1, max_packets);
        Bytes buf;
        for (int k = 0; k < n; ++k) {
            Bytes p = random_stream_packet(rng);
            buf.insert(buf.end(), p.begin(), p.end());
            s.packets.push_back(std::move(p));
        }
        s.buffers.push_back(std::move(buf));
        s.packets_in_buffer.push_back(static_cast<std::size_t>(n));
    }
    return s;
}

// The PCM the decoder gives for `packets` from a freshly initialised state.
inline std::vector<std::int16_t> reference_pcm(const std::vector<Bytes>& packets) {
    std::vector<unsigned char> mem(static_cast<std::size_t>(get_sizeof_evrc_dec_struct()), 0);
    auto* st = reinterpret_cast<EvrcDecoderState*>(mem.data());
    evrc_init_dec(st);
    std::vector<std::int16_t> pcm(packets.size() * EVRC_FRAME_SIZE);
    for (std::size_t i = 0; i < packets.size(); ++i) {
        EvrcPacket p = evrc_test::bytes_to_packet(packets[i]);
        evrc_decode(st, &p, pcm.data() + i * EVRC_FRAME_SIZE, 0);
    }
    return pcm;
}

inline void append_pcm(std::vector<std::int16_t>& pcm, const OMX_BUFFERHEADERTYPE* out) {
    const auto* s = reinterpret_cast<const std::int16_t*>(out->pBuffer + out->nOffset);
    pcm.insert(pcm.end(), s, s + out->nFilledLen / 2);
}

// Work multiplier from EVRC_STRESS_SCALE (default 1, e.g. 0.05 under a
// sanitizer or an emulator); every count is scaled and kept at least 1.
inline double stress_scale() {
    const char* v = std::getenv("EVRC_STRESS_SCALE");
    if (v == nullptr || *v == '\0') return 1.0;
    const double s = std::strtod(v, nullptr);
    return s > 0 ? s : 1.0;
}
inline std::size_t scaled(std::size_t n) {
    const auto v = static_cast<std::size_t>(static_cast<double>(n) * stress_scale());
    return v > 0 ? v : 1;
}

}  // namespace omx_test

#endif  // EVRC_TESTS_OMX_CLIENT_H
