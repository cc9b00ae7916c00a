// GLib leaves its table of quarks behind each time it outgrows it, because readers take no lock. While libraries are
// loaded the leak checker names no frame of that but g_malloc's: so it looks away until then, and begins with a table
// that has just grown. Where the table grows later, the suppressions name the frame.
#include <dlfcn.h>
#include <sanitizer/lsan_interface.h>

#include <cstdint>
#include <string>

namespace {

constexpr std::uint32_t kQuarksInABlock = 2048;

void look_away()
{
    __lsan_disable();
}

/// Runs before any library's own start-up code.
__attribute__((section(".preinit_array"), used)) void (*const before_libraries)() = look_away;

/// Runs after theirs, before main.
__attribute__((constructor)) void look_again()
{
    // Not every executable is linked with GLib.
    using QuarkFromString = std::uint32_t(const char*);
    auto* const quark_from_string = reinterpret_cast<QuarkFromString*>(dlsym(RTLD_DEFAULT, "g_quark_from_string"));
    if (quark_from_string) {
        for (int number = 0;
             quark_from_string(("leak-check-" + std::to_string(number)).c_str()) % kQuarksInABlock != 0;)
            ++number;
    }
    __lsan_enable();
}

} // namespace
