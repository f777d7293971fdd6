// Placeholder until the component can be driven from the command line.
#include "omx_decode.h"

namespace evrc_tool {

bool decode_with_component(const std::vector<std::vector<std::uint8_t>> & /*packets*/,
                           std::vector<std::int16_t> & /*pcm*/, std::string &error) {
    error = "decoding through the component is not available";
    return false;
}

}  // namespace evrc_tool
