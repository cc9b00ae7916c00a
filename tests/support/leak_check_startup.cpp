// GLib makes its first table of quarks as it is loaded, and leaves it behind when it outgrows it, because readers take
// no lock. The leak checker names no frame of that but g_malloc's, so it is told to look away until every library is
// loaded.
#include <sanitizer/lsan_interface.h>

namespace {

void look_away()
{
    __lsan_disable();
}

/// Runs before any library's own start-up code.
__attribute__((section(".preinit_array"), used)) void (*const before_libraries)() = look_away;

/// Runs after theirs, before main.
__attribute__((constructor)) void look_again()
{
    __lsan_enable();
}

} // namespace
