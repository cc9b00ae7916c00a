// H.265 for the splice decoder: access units of generated media, and units put together by hand.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace velstream::testing {

using Bytes = std::vector<std::uint8_t>;

struct AccessUnit {
    Bytes bytes;   ///< start codes included
    long pts = -1; ///< ns
};

/// The video of an MP4 file in decoding order, parameter sets before every key frame, as stock GStreamer cuts it.
std::vector<AccessUnit> read_access_units(const std::string& path);

struct ClipSpec {
    int width = 322;
    int height = 182;
    int frames = 8;
    int b_frames = 0;
    bool has_noise = false;
};

/// Makes a clip at `path` and reads it. The first unit is a key frame with its parameter sets.
std::vector<AccessUnit> make_access_units(const ClipSpec& spec, const std::string& path);

/// A NAL unit of a type behind a three-byte start code, with a few bytes of payload that start nothing.
Bytes nal_unit(unsigned type);

/// The same for several, one after the other.
Bytes nal_units(std::initializer_list<unsigned> types);

} // namespace velstream::testing
