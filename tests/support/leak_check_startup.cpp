// GLib leaves its table of quarks behind each time it outgrows it, because readers take no lock, and the leak checker
// names no frame of that but g_malloc's. So it looks away until every library is loaded and the table has outgrown what
// a test can need.
#include <dlfcn.h>
#include <sanitizer/lsan_interface.h>

#include <cstdint>
#include <string>

namespace {

constexpr int kQuarks = 20000;

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
    for (int quark = 0; quark_from_string && quark < kQuarks; ++quark)
        quark_from_string(("leak-check-" + std::to_string(quark)).c_str());
    __lsan_enable();
}

} // namespace
