// Fixed paths that belong to a test alone.
#pragma once

#include <string>

namespace velstream::testing {

/// Gives this process its own empty folders at "/tmp/rolling" and "/usr/local/bin". To be called before the process has
/// a second thread. @return an empty text, or what went wrong.
std::string enter_private_mounts();

} // namespace velstream::testing
