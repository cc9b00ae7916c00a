#include "ProcessEnvironment.h"

#include <cstdlib>
#include <cstring>

namespace Quorvis::VelStream {

std::mutex& environment_mutex()
{
    static auto* mutex = new std::mutex;
    return *mutex;
}

void set_environment(const char* name, const char* value)
{
    const char* current = std::getenv(name);
    if (!current || std::strcmp(current, value) != 0) setenv(name, value, 1);
}

void unset_environment(const char* name)
{
    if (std::getenv(name)) unsetenv(name);
}

void set_wayland_environment()
{
    set_environment("WAYLAND_DISPLAY", "wayland-1");
    set_environment("XDG_RUNTIME_DIR", "/dev/socket/weston");
}

} // namespace Quorvis::VelStream
