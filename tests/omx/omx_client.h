// A test client that drives the component the way a media framework does:
// through the object's operations, with callbacks that record what they are
// given. Every wait has a time limit.
#ifndef EVRC_TESTS_OMX_CLIENT_H
#define EVRC_TESTS_OMX_CLIENT_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "omx/omx_evrc_adec.h"

namespace omx_test {

constexpr std::chrono::milliseconds kTimeout{5000};
// How long a test watches for something that must not happen.
constexpr std::chrono::milliseconds kQuiet{150};

struct Event {
    OMX_EVENTTYPE type;
    OMX_U32 data1;
    OMX_U32 data2;
    OMX_PTR data;
    OMX_HANDLETYPE handle;
};

// A buffer as it came back through EmptyBufferDone or FillBufferDone.
struct Returned {
    OMX_BUFFERHEADERTYPE* hdr;
    OMX_U32 filled;
    OMX_U32 flags;
    OMX_TICKS timestamp;
    OMX_HANDLETYPE mark_target;
    OMX_PTR mark_data;
    std::vector<uint8_t> data;  // output buffers: the filled bytes
    OMX_HANDLETYPE handle;
};

// Log lines the component wrote, fully formatted.
std::vector<std::string> log_lines();
void clear_log();
bool log_contains(const std::string& line);

class Client {
public:
    explicit Client(const char* name = omx_evrc_adec::kName);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    omx_evrc_adec* comp;
    OMX_HANDLETYPE h;  // the handle the client passes and callbacks carry
    OMX_ERRORTYPE init_result;

    OMX_ERRORTYPE command(OMX_COMMANDTYPE cmd, OMX_U32 param, void* data = nullptr);
    OMX_STATETYPE state();

    // Waits for an event with these values among those recorded at index
    // `from` or later; returns its index or -1 on time-out.
    long wait_event(OMX_EVENTTYPE type, OMX_U32 d1, OMX_U32 d2, std::size_t from = 0);
    bool wait_cmd_complete(OMX_COMMANDTYPE cmd, OMX_U32 param, std::size_t from = 0);
    bool wait_error(OMX_ERRORTYPE err, std::size_t from = 0);
    // Sends a state command and waits for its completion.
    bool set_state(OMX_STATETYPE s);
    // Returns once the command thread has handled everything sent so far:
    // a command to the current state comes back as a SameState error.
    bool barrier();

    std::size_t event_count();
    std::vector<Event> events_since(std::size_t from);
    bool wait_ebd(std::size_t count);
    bool wait_fbd(std::size_t count);
    std::vector<Returned> ebd();
    std::vector<Returned> fbd();

    // Buffers of both ports, allocated by the component.
    void allocate(unsigned in_count = 2, unsigned out_count = 2, unsigned in_bytes = 0);
    // Loaded -> Idle -> Executing with the default buffers.
    bool start();
    void free_all();

    OMX_ERRORTYPE etb(OMX_BUFFERHEADERTYPE* hdr, const std::vector<uint8_t>& bytes, OMX_U32 flags = 0,
                      OMX_TICKS ts = 0);
    OMX_ERRORTYPE ftb(OMX_BUFFERHEADERTYPE* hdr);

    std::vector<OMX_BUFFERHEADERTYPE*> in;
    std::vector<OMX_BUFFERHEADERTYPE*> out;

    // Skips the orderly shutdown in the destructor (deinit and delete only).
    bool plain_teardown = false;

private:
    static OMX_ERRORTYPE on_event(OMX_HANDLETYPE h, OMX_PTR app, OMX_EVENTTYPE ev, OMX_U32 d1, OMX_U32 d2,
                                  OMX_PTR data);
    static OMX_ERRORTYPE on_ebd(OMX_HANDLETYPE h, OMX_PTR app, OMX_BUFFERHEADERTYPE* hdr);
    static OMX_ERRORTYPE on_fbd(OMX_HANDLETYPE h, OMX_PTR app, OMX_BUFFERHEADERTYPE* hdr);

    std::mutex mu_;
    std::condition_variable cv_;
    std::vector<Event> events_;
    std::vector<Returned> ebd_;
    std::vector<Returned> fbd_;
};

// Decoder used as the reference: a fresh, zero-filled, initialised state.
class RefDecoder {
public:
    RefDecoder();
    std::vector<int16_t> decode(const std::vector<uint8_t>& packet_bytes);
    void reset();  // initialise again, as a flush does

private:
    std::unique_ptr<EvrcDecoderState> st_;
};

// Random packets of every rate code, blank and quarter rate included.
std::vector<std::vector<uint8_t>> random_stream(uint32_t seed, std::size_t count);

std::vector<uint8_t> pcm_bytes(const std::vector<int16_t>& pcm);

}  // namespace omx_test

#endif  // EVRC_TESTS_OMX_CLIENT_H
