// The environment of the process, as far as the platforms' elements read it. Nothing is ever restored.
#pragma once

#include <mutex>

namespace Quorvis::VelStream {

/// Held while the functions below are called: several streams may start at once.
std::mutex& environment_mutex();

/// Writes only what differs: other streams' threads may be reading the environment.
void set_environment(const char* name, const char* value);
void unset_environment(const char* name);

/// Where the compositor of Qualcomm Linux listens.
void set_wayland_environment();

} // namespace Quorvis::VelStream
