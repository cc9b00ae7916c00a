// The target platform: one text, fixed when the library is built.
#pragma once

#include <string_view>

namespace Quorvis::VelStream {

/// "ub2404", "v4l2", "6490" or "8550".
std::string_view platform();

/// True on the two platforms whose codecs are the V4L2 elements.
inline bool has_v4l2_codecs()
{
    return platform() == "v4l2" || platform() == "ub2404";
}

} // namespace Quorvis::VelStream
