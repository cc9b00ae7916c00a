// The platform whose library an executable is linked with: it chooses the expected values.
#pragma once

#include <stdexcept>
#include <string>

namespace velstream::testing {

/// "ub2404", "v4l2", "6490" or "8550"; each executable has its own.
std::string test_platform();

/// The value of this executable's platform.
template <typename Value>
Value on_platform(Value ub2404, Value v4l2, Value p6490, Value p8550)
{
    const std::string platform = test_platform();
    if (platform == "ub2404") return ub2404;
    if (platform == "v4l2") return v4l2;
    if (platform == "6490") return p6490;
    if (platform == "8550") return p8550;
    throw std::logic_error("no such platform: " + platform);
}

inline bool is_v4l2_kind()
{
    return test_platform() == "v4l2" || test_platform() == "ub2404";
}

} // namespace velstream::testing
