#include "omx_client.h"

#include <android/log.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <random>

// The component's log lines are captured here instead of going to the
// platform log, so that tests can check them.
namespace {
std::mutex g_log_mu;
std::vector<std::string> g_log;
}  // namespace

extern "C" int __android_log_print(int prio, const char *tag, const char *fmt, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    std::string line = buf;
    if (prio != ANDROID_LOG_ERROR || std::strcmp(tag, "OMX_EVRC_DEC") != 0) line = "<wrong priority or tag> " + line;
    std::lock_guard<std::mutex> lock(g_log_mu);
    if (g_log.size() < 100000)  // load tests log without end
        g_log.push_back(line);
    return static_cast<int>(line.size());
}

namespace omx_test {

void clear_log() {
    std::lock_guard<std::mutex> lock(g_log_mu);
    g_log.clear();
}

bool log_contains(const std::string &line) {
    std::lock_guard<std::mutex> lock(g_log_mu);
    return std::find(g_log.begin(), g_log.end(), line) != g_log.end();
}

Client::Client(const char *name) {
    comp = static_cast<omx_evrc_adec *>(get_omx_component_factory_fn());
    h = comp->callback_handle();
    comp->component_init(const_cast<char *>(name));
    OMX_CALLBACKTYPE cb{[](OMX_HANDLETYPE handle, OMX_PTR app, OMX_EVENTTYPE ev, OMX_U32 d1, OMX_U32 d2, OMX_PTR data) {
                            return static_cast<Client *>(app)->record(handle, nullptr, Event{ev, d1, d2, data});
                        },
                        [](OMX_HANDLETYPE handle, OMX_PTR app, OMX_BUFFERHEADERTYPE *hdr) {
                            return static_cast<Client *>(app)->record(handle, hdr, Event{OMX_EventMax, 0, 0, nullptr});
                        },
                        [](OMX_HANDLETYPE handle, OMX_PTR app, OMX_BUFFERHEADERTYPE *hdr) {
                            return static_cast<Client *>(app)->record(handle, hdr, Event{OMX_EventMax, 1, 0, nullptr});
                        }};
    comp->set_callbacks(h, &cb, this);
}

// Deinit works from any state; the buffers outlive it and are freed once
// the component no longer counts as running.
Client::~Client() {
    comp->component_deinit(h);
    comp->state = OMX_StateLoaded;
    free_all();
    delete comp;
}

// Events, and returned buffers (data1 0 for input, 1 for output).
OMX_ERRORTYPE Client::record(OMX_HANDLETYPE handle, OMX_BUFFERHEADERTYPE *hdr, const Event &e) {
    std::lock_guard<std::mutex> lock(mu_);
    foreign_handle_ |= handle != h;
    if (hdr == nullptr) {
        events_.push_back(e);
    } else {
        Returned r{hdr, hdr->nFilledLen, hdr->nFlags, hdr->nTimeStamp, hdr->hMarkTargetComponent, hdr->pMarkData, {}};
        if (e.data1 == 1 && hdr->nFilledLen <= hdr->nAllocLen)
            r.data.assign(hdr->pBuffer, hdr->pBuffer + hdr->nFilledLen);
        (e.data1 == 1 ? fbd_ : ebd_).push_back(std::move(r));
    }
    cv_.notify_all();
    return OMX_ErrorNone;
}

std::vector<Bytes> random_stream(uint32_t seed, std::size_t count) {
    std::mt19937 rng(seed);
    static const int kRates[] = {EVRC_RATE_BLANK, EVRC_RATE_QUARTER, EVRC_RATE_EIGHTH, EVRC_RATE_EIGHTH,
                                 EVRC_RATE_HALF,  EVRC_RATE_HALF,    EVRC_RATE_FULL,   EVRC_RATE_FULL,
                                 EVRC_RATE_FULL,  EVRC_RATE_FULL};
    std::vector<Bytes> packets;
    for (std::size_t i = 0; i < count; ++i) {
        const int rate = kRates[evrc_random::uniform_int(rng, 0, 9)];
        // Blank: the rate octet alone; quarter (not decodable): five bytes of junk.
        const bool junk = rate == EVRC_RATE_BLANK || rate == EVRC_RATE_QUARTER;
        Bytes p = junk ? Bytes(rate ? 6 : 1, static_cast<uint8_t>(rng())) : evrc_random::random_packet_bytes(rng, rate);
        p[0] = static_cast<uint8_t>(rate);
        packets.push_back(p);
    }
    return packets;
}

}  // namespace omx_test
