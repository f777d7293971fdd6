// libFuzzer target: arbitrary bytes as a QCP file.
//
// The reader must either reject the bytes with a message or return packets;
// whatever it returns is decoded, and a file it accepts with only storable
// packets must survive a write and a second read unchanged.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "evrc/evrc_dec.h"
#include "evrc/qcp.hpp"

namespace {

constexpr std::size_t kMaxDecoded = 50;

bool storable(const evrc::QcpPacket &p) {
    const int n = evrc::evrc_payload_bytes(p.rate);
    return p.known_rate && n >= 0 && p.data.size() == static_cast<std::size_t>(n);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const evrc::QcpReadResult r = evrc::read_qcp(data, size);
    if (!r.ok) {
        if (r.error.empty()) __builtin_trap();
        return 0;
    }
    static EvrcDecoderState st;
    std::memset(&st, 0, sizeof st);
    evrc_init_dec(&st);
    bool all_storable = true;
    for (std::size_t i = 0; i < r.file.packets.size(); ++i) {
        const evrc::QcpPacket &p = r.file.packets[i];
        all_storable = all_storable && storable(p);
        if (p.data.size() > evrc::kEvrcMaxPayload) __builtin_trap();
        if (i < kMaxDecoded) {
            EvrcPacket packet = evrc::to_evrc_packet(p);
            Word16 out[EVRC_FRAME_SIZE];
            if (evrc_decode(&st, &packet, out, 0) != 0) __builtin_trap();
        }
    }
    if (all_storable) {
        std::vector<std::uint8_t> image;
        std::string error;
        if (!evrc::write_qcp(r.file.packets, image, error)) __builtin_trap();
        const evrc::QcpReadResult again = evrc::read_qcp(image.data(), image.size());
        if (!again.ok || again.file.packets.size() != r.file.packets.size()) __builtin_trap();
        for (std::size_t i = 0; i < again.file.packets.size(); ++i) {
            if (again.file.packets[i].rate != r.file.packets[i].rate ||
                again.file.packets[i].data != r.file.packets[i].data) {
                __builtin_trap();
            }
        }
    }
    return 0;
}
