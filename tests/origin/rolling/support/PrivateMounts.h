// Fixed paths that belong to a test alone.
#pragma once

#include <string>
#include <vector>

namespace velstream::testing {

/// Gives this process mounts of its own, and empty folders of its own at these paths. To be called before the process
/// has a second thread. @return an empty text, or what went wrong.
std::string enter_private_mounts(const std::vector<std::string>& folders = {"/tmp/rolling", "/usr/local/bin"});

} // namespace velstream::testing
