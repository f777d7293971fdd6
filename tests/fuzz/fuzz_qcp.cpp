// libFuzzer target: arbitrary bytes as a QCP file.
//
// The reader must either reject the bytes with a message or return packets;
// whatever it returns is decoded (the first 50), and a file it accepts with
// only storable packets must survive a write and a second read unchanged.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "evrc/evrc_dec.h"
#include "evrc/qcp.hpp"

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
        const int n = evrc::evrc_payload_bytes(p.rate);
        all_storable = all_storable && p.known_rate && n >= 0 && p.data.size() == static_cast<std::size_t>(n);
        if (p.data.size() > evrc::kEvrcMaxPayload) __builtin_trap();
        EvrcPacket packet = evrc::to_evrc_packet(p);
        Word16 out[EVRC_FRAME_SIZE];
        if (i < 50 && evrc_decode(&st, &packet, out, 0) != 0) __builtin_trap();
    }
    if (!all_storable) return 0;
    std::vector<std::uint8_t> image;
    std::string error;
    if (!evrc::write_qcp(r.file.packets, image, error)) __builtin_trap();
    const evrc::QcpReadResult again = evrc::read_qcp(image.data(), image.size());
    if (!again.ok || again.file.packets.size() != r.file.packets.size()) __builtin_trap();
    for (std::size_t i = 0; i < again.file.packets.size(); ++i) {
        const evrc::QcpPacket &x = again.file.packets[i], &y = r.file.packets[i];
        if (x.rate != y.rate || x.data != y.data) __builtin_trap();
    }
    return 0;
}
