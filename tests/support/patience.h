// How long the tests wait.
#pragma once

#include <chrono>

namespace velstream::testing {

/// For what must happen at all, on a machine that is busy, under a sanitizer or emulated.
inline constexpr std::chrono::seconds kPatience{60 * VELSTREAM_SLOWNESS};

} // namespace velstream::testing
