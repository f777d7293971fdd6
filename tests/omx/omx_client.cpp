#include "omx_client.h"

#include <android/log.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <random>

#include "tests/support/random_packets.h"

// The component's log lines are captured here instead of going to the
// platform log, so that tests can check them.
namespace {
std::mutex g_log_mu;
std::vector<std::string> g_log;
}  // namespace

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...)
{
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    std::string line = buf;
    if (prio != ANDROID_LOG_ERROR || std::strcmp(tag, "OMX_EVRC_DEC") != 0)
        line = "<wrong priority or tag> " + line;
    std::lock_guard<std::mutex> lock(g_log_mu);
    g_log.push_back(line);
    return static_cast<int>(line.size());
}

namespace omx_test {

std::vector<std::string> log_lines()
{
    std::lock_guard<std::mutex> lock(g_log_mu);
    return g_log;
}

void clear_log()
{
    std::lock_guard<std::mutex> lock(g_log_mu);
    g_log.clear();
}

bool log_contains(const std::string& line)
{
    std::lock_guard<std::mutex> lock(g_log_mu);
    for (const auto& l : g_log)
        if (l == line)
            return true;
    return false;
}

Client::Client(const char* name)
{
    comp = static_cast<omx_evrc_adec*>(get_omx_component_factory_fn());
    h = comp->callback_handle();
    init_result = comp->component_init(const_cast<char*>(name));
    OMX_CALLBACKTYPE cb{on_event, on_ebd, on_fbd};
    comp->set_callbacks(h, &cb, this);
}

Client::~Client()
{
    if (!plain_teardown) {
        OMX_STATETYPE s = state();
        if (s == OMX_StateExecuting || s == OMX_StatePause) {
            set_state(OMX_StateIdle);
            s = state();
        }
        if (s == OMX_StateIdle) {
            const std::size_t from = event_count();
            command(OMX_CommandStateSet, OMX_StateLoaded);
            free_all();
            wait_cmd_complete(OMX_CommandStateSet, OMX_StateLoaded, from);
        } else if (s == OMX_StateWaitForResources) {
            set_state(OMX_StateLoaded);
        }
        free_all();
    }
    comp->component_deinit(h);
    delete comp;
}

OMX_ERRORTYPE Client::command(OMX_COMMANDTYPE cmd, OMX_U32 param, void* data)
{
    return comp->send_command(h, cmd, static_cast<unsigned int>(param), data);
}

OMX_STATETYPE Client::state()
{
    OMX_STATETYPE s = OMX_StateInvalid;
    comp->get_state(h, &s);
    return s;
}

long Client::wait_event(OMX_EVENTTYPE type, OMX_U32 d1, OMX_U32 d2, std::size_t from)
{
    std::unique_lock<std::mutex> lock(mu_);
    long found = -1;
    cv_.wait_for(lock, kTimeout, [&] {
        for (std::size_t i = from; i < events_.size(); ++i) {
            if (events_[i].type == type && events_[i].data1 == d1 && events_[i].data2 == d2) {
                found = static_cast<long>(i);
                return true;
            }
        }
        return false;
    });
    return found;
}

bool Client::wait_cmd_complete(OMX_COMMANDTYPE cmd, OMX_U32 param, std::size_t from)
{
    return wait_event(OMX_EventCmdComplete, cmd, param, from) >= 0;
}

bool Client::wait_error(OMX_ERRORTYPE err, std::size_t from)
{
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, kTimeout, [&] {
        for (std::size_t i = from; i < events_.size(); ++i)
            if (events_[i].type == OMX_EventError && events_[i].data1 == static_cast<OMX_U32>(err))
                return true;
        return false;
    });
}

bool Client::set_state(OMX_STATETYPE s)
{
    const std::size_t from = event_count();
    if (command(OMX_CommandStateSet, s) != OMX_ErrorNone)
        return false;
    return wait_cmd_complete(OMX_CommandStateSet, s, from);
}

bool Client::barrier()
{
    const std::size_t from = event_count();
    const OMX_STATETYPE s = state();
    if (command(OMX_CommandStateSet, s) != OMX_ErrorNone)
        return false;
    return wait_event(OMX_EventError, static_cast<OMX_U32>(OMX_ErrorSameState), 1, from) >= 0;
}

std::size_t Client::event_count()
{
    std::lock_guard<std::mutex> lock(mu_);
    return events_.size();
}

std::vector<Event> Client::events_since(std::size_t from)
{
    std::lock_guard<std::mutex> lock(mu_);
    return std::vector<Event>(events_.begin() + static_cast<std::ptrdiff_t>(std::min(from, events_.size())),
                              events_.end());
}

bool Client::wait_ebd(std::size_t count)
{
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, kTimeout, [&] { return ebd_.size() >= count; });
}

bool Client::wait_fbd(std::size_t count)
{
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, kTimeout, [&] { return fbd_.size() >= count; });
}

std::vector<Returned> Client::ebd()
{
    std::lock_guard<std::mutex> lock(mu_);
    return ebd_;
}

std::vector<Returned> Client::fbd()
{
    std::lock_guard<std::mutex> lock(mu_);
    return fbd_;
}

void Client::allocate(unsigned in_count, unsigned out_count, unsigned in_bytes)
{
    for (unsigned i = 0; i < in_count; ++i) {
        OMX_BUFFERHEADERTYPE* hdr = nullptr;
        if (comp->allocate_buffer(h, &hdr, 0, this, in_bytes) == OMX_ErrorNone)
            in.push_back(hdr);
    }
    for (unsigned i = 0; i < out_count; ++i) {
        OMX_BUFFERHEADERTYPE* hdr = nullptr;
        if (comp->allocate_buffer(h, &hdr, 1, this, 0) == OMX_ErrorNone)
            out.push_back(hdr);
    }
}

bool Client::start()
{
    const std::size_t from = event_count();
    if (command(OMX_CommandStateSet, OMX_StateIdle) != OMX_ErrorNone)
        return false;
    allocate();
    if (!wait_cmd_complete(OMX_CommandStateSet, OMX_StateIdle, from))
        return false;
    return set_state(OMX_StateExecuting);
}

void Client::free_all()
{
    for (auto* hdr : in)
        comp->free_buffer(h, 0, hdr);
    for (auto* hdr : out)
        comp->free_buffer(h, 1, hdr);
    in.clear();
    out.clear();
}

OMX_ERRORTYPE Client::etb(OMX_BUFFERHEADERTYPE* hdr, const std::vector<uint8_t>& bytes, OMX_U32 flags,
                          OMX_TICKS ts)
{
    if (!bytes.empty())
        std::memcpy(hdr->pBuffer, bytes.data(), bytes.size());
    hdr->nFilledLen = static_cast<OMX_U32>(bytes.size());
    hdr->nOffset = 0;
    hdr->nFlags = flags;
    hdr->nTimeStamp = ts;
    return comp->empty_this_buffer(h, hdr);
}

OMX_ERRORTYPE Client::ftb(OMX_BUFFERHEADERTYPE* hdr)
{
    return comp->fill_this_buffer(h, hdr);
}

OMX_ERRORTYPE Client::on_event(OMX_HANDLETYPE h, OMX_PTR app, OMX_EVENTTYPE ev, OMX_U32 d1, OMX_U32 d2,
                               OMX_PTR data)
{
    Client* self = static_cast<Client*>(app);
    std::lock_guard<std::mutex> lock(self->mu_);
    self->events_.push_back(Event{ev, d1, d2, data, h});
    self->cv_.notify_all();
    return OMX_ErrorNone;
}

OMX_ERRORTYPE Client::on_ebd(OMX_HANDLETYPE h, OMX_PTR app, OMX_BUFFERHEADERTYPE* hdr)
{
    Client* self = static_cast<Client*>(app);
    std::lock_guard<std::mutex> lock(self->mu_);
    self->ebd_.push_back(Returned{hdr, hdr->nFilledLen, hdr->nFlags, hdr->nTimeStamp, hdr->hMarkTargetComponent,
                                  hdr->pMarkData, {}, h});
    self->cv_.notify_all();
    return OMX_ErrorNone;
}

OMX_ERRORTYPE Client::on_fbd(OMX_HANDLETYPE h, OMX_PTR app, OMX_BUFFERHEADERTYPE* hdr)
{
    Client* self = static_cast<Client*>(app);
    std::lock_guard<std::mutex> lock(self->mu_);
    Returned r{hdr, hdr->nFilledLen, hdr->nFlags, hdr->nTimeStamp, hdr->hMarkTargetComponent, hdr->pMarkData,
               {}, h};
    if (hdr->nFilledLen <= hdr->nAllocLen)
        r.data.assign(hdr->pBuffer, hdr->pBuffer + hdr->nFilledLen);
    self->fbd_.push_back(std::move(r));
    self->cv_.notify_all();
    return OMX_ErrorNone;
}

RefDecoder::RefDecoder() { reset(); }

void RefDecoder::reset()
{
    if (!st_)
        st_.reset(new EvrcDecoderState());  // zero-filled
    evrc_init_dec(st_.get());
}

std::vector<int16_t> RefDecoder::decode(const std::vector<uint8_t>& packet_bytes)
{
    EvrcPacket p = evrc_test::bytes_to_packet(packet_bytes);
    std::vector<int16_t> pcm(EVRC_FRAME_SIZE);
    evrc_decode(st_.get(), &p, pcm.data(), 0);
    return pcm;
}

std::vector<std::vector<uint8_t>> random_stream(uint32_t seed, std::size_t count)
{
    std::mt19937 rng(seed);
    std::vector<std::vector<uint8_t>> packets;
    for (std::size_t i = 0; i < count; ++i) {
        const int kind = evrc_test::uniform_int(rng, 0, 9);
        if (kind == 0) {
            packets.push_back({EVRC_RATE_BLANK});
        } else if (kind == 1) {
            std::vector<uint8_t> q{EVRC_RATE_QUARTER};
            for (int j = 0; j < 5; ++j)
                q.push_back(static_cast<uint8_t>(evrc_test::uniform_int(rng, 0, 255)));
            packets.push_back(q);
        } else if (kind <= 3) {
            packets.push_back(evrc_test::random_packet_bytes(rng, EVRC_RATE_EIGHTH));
        } else if (kind <= 5) {
            packets.push_back(evrc_test::random_packet_bytes(rng, EVRC_RATE_HALF));
        } else {
            packets.push_back(evrc_test::random_packet_bytes(rng, EVRC_RATE_FULL));
        }
    }
    return packets;
}

std::vector<uint8_t> pcm_bytes(const std::vector<int16_t>& pcm)
{
    std::vector<uint8_t> out(pcm.size() * 2);
    std::memcpy(out.data(), pcm.data(), out.size());
    return out;
}

}  // namespace omx_test
