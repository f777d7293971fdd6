// Decoding a packet stream through the OpenMAX IL decoder component, the way
// a media framework would drive it.
#ifndef EVRC_TOOLS_OMX_DECODE_H
#define EVRC_TOOLS_OMX_DECODE_H

#include <cstdint>
#include <string>
#include <vector>

namespace evrc_tool {

// Where the time of one decode_with_component call went, in seconds.
struct ComponentTimes {
    double setup = 0;     // creating the component up to Executing, buffers allocated
    double stream = 0;    // from the first input buffer sent to the last output buffer back
    double teardown = 0;  // back to Loaded, the buffers freed, the component deinitialised
};

// Feeds `packets` (each a rate byte followed by its payload, as the
// component's input port takes them) to the component and collects the PCM
// it returns, 160 samples per packet. On failure returns false and describes
// the problem in `error`; `pcm` then holds whatever was decoded before it.
// `times`, if given, receives the durations of a successful call.
bool decode_with_component(const std::vector<std::vector<std::uint8_t>> &packets, std::vector<std::int16_t> &pcm,
                           std::string &error, ComponentTimes *times = nullptr);

}  // namespace evrc_tool

#endif  // EVRC_TOOLS_OMX_DECODE_H
