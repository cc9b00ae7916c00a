// The calls that are answered for the camera, and handed on for everything else.
#include "fake_camera.h"

#include "camera_device.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <sstream>

namespace {

using peers::camera::Device;
using peers::camera::Format;
using peers::camera::Mode;
using peers::camera::Spec;

constexpr int kVideoMajor = 81;
constexpr std::size_t kMostDescriptors = 4096;

struct Camera {
    std::mutex mutex; // guards all below
    std::shared_ptr<Device> plugged;
    std::array<std::shared_ptr<Device>, kMostDescriptors> open;
    /// Lets a call that is not for the camera pass without a lock.
    std::array<std::atomic<bool>, kMostDescriptors> is_open{};
    std::atomic<bool> has_camera{false};
};

Spec read_spec(const std::string& text)
{
    Spec spec;
    const std::size_t equals = text.find('=');
    spec.path = text.substr(0, equals);
    std::istringstream modes(equals == std::string::npos ? "" : text.substr(equals + 1));
    std::string mode;
    spec.modes.clear();
    while (std::getline(modes, mode, ',')) {
        char format[5] = {};
        Mode parsed;
        if (std::sscanf(mode.c_str(), "%4[A-Z]:%dx%d", format, &parsed.width, &parsed.height) != 3) continue;
        parsed.format = std::string(format) == "YUYV" ? Format::Yuyv : Format::Jpeg;
        spec.modes.push_back(parsed);
    }
    if (spec.modes.empty()) spec.modes.push_back(Mode{});
    return spec;
}

/// Never destroyed: other threads may still have the camera open while the process ends.
Camera& camera()
{
    static auto* one = [] {
        auto* made = new Camera;
        if (const char* text = std::getenv("VELSTREAM_CAMERA")) {
            made->plugged = std::make_shared<Device>(read_spec(text));
            made->has_camera = true;
        }
        return made;
    }();
    return *one;
}

template <typename Function>
Function next(const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

std::shared_ptr<Device> camera_at(const char* path)
{
    if (!path || !camera().has_camera) return nullptr;
    const std::lock_guard lock(camera().mutex);
    const auto& plugged = camera().plugged;
    return plugged && plugged->spec().path == path ? plugged : nullptr;
}

bool is_known(int descriptor)
{
    return descriptor >= 0 && static_cast<std::size_t>(descriptor) < kMostDescriptors &&
           camera().is_open[static_cast<std::size_t>(descriptor)];
}

std::shared_ptr<Device> camera_of(int descriptor)
{
    if (!is_known(descriptor)) return nullptr;
    const std::lock_guard lock(camera().mutex);
    return camera().open[static_cast<std::size_t>(descriptor)];
}

int remember(int descriptor, const std::shared_ptr<Device>& device)
{
    if (descriptor < 0 || static_cast<std::size_t>(descriptor) >= kMostDescriptors) return descriptor;
    const std::lock_guard lock(camera().mutex);
    camera().open[static_cast<std::size_t>(descriptor)] = device;
    camera().is_open[static_cast<std::size_t>(descriptor)] = true;
    return descriptor;
}

/// Before the close, since the number may be given to another file right after it.
void forget(int descriptor)
{
    if (!is_known(descriptor)) return;
    std::shared_ptr<Device> device;
    bool is_last = true;
    {
        const std::lock_guard lock(camera().mutex);
        device.swap(camera().open[static_cast<std::size_t>(descriptor)]);
        camera().is_open[static_cast<std::size_t>(descriptor)] = false;
        for (const auto& other : camera().open)
            is_last = is_last && other != device;
    }
    if (is_last && device) device->release();
}

template <typename Stat>
int stat_camera(const Device& device, Stat* out)
{
    if (device.is_unplugged()) {
        errno = ENOENT;
        return -1;
    }
    *out = {};
    out->st_mode = S_IFCHR | 0660;
    out->st_rdev = makedev(kVideoMajor, 0);
    out->st_nlink = 1;
    return 0;
}

int open_camera(const std::shared_ptr<Device>& device, int flags)
{
    if (device->is_unplugged()) {
        errno = ENOENT;
        return -1;
    }
    return remember(device->open(flags), device);
}

mode_t mode_argument(int flags, va_list arguments)
{
    return flags & (O_CREAT | O_TMPFILE) ? va_arg(arguments, mode_t) : 0;
}

} // namespace

namespace peers::camera {

void plug_in(const Spec& spec)
{
    const std::lock_guard lock(::camera().mutex);
    ::camera().plugged = std::make_shared<Device>(spec);
    ::camera().has_camera = true;
}

void unplug()
{
    const std::lock_guard lock(::camera().mutex);
    if (::camera().plugged) ::camera().plugged->unplug();
}

void fall_silent()
{
    const std::lock_guard lock(::camera().mutex);
    if (::camera().plugged) ::camera().plugged->fall_silent();
}

std::uint64_t delivered_frames()
{
    const std::lock_guard lock(::camera().mutex);
    return ::camera().plugged ? ::camera().plugged->delivered_frames() : 0;
}

} // namespace peers::camera

#pragma GCC visibility push(default)
extern "C" {

int open(const char* path, int flags, ...)
{
    if (const auto device = camera_at(path)) return open_camera(device, flags);
    static const auto real = next<int (*)(const char*, int, ...)>("open");
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_argument(flags, arguments);
    va_end(arguments);
    return real(path, flags, mode);
}

int open64(const char* path, int flags, ...)
{
    if (const auto device = camera_at(path)) return open_camera(device, flags);
    static const auto real = next<int (*)(const char*, int, ...)>("open64");
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_argument(flags, arguments);
    va_end(arguments);
    return real(path, flags, mode);
}

int stat(const char* path, struct stat* out) noexcept
{
    if (const auto device = camera_at(path)) return stat_camera(*device, out);
    static const auto real = next<int (*)(const char*, struct stat*)>("stat");
    return real(path, out);
}

int stat64(const char* path, struct stat64* out) noexcept
{
    if (const auto device = camera_at(path)) return stat_camera(*device, out);
    static const auto real = next<int (*)(const char*, struct stat64*)>("stat64");
    return real(path, out);
}

int ioctl(int descriptor, unsigned long request, ...) noexcept
{
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (const auto device = camera_of(descriptor)) {
        const int error = device->control(request, argument);
        if (error == 0) return 0;
        errno = error;
        return -1;
    }
    static const auto real = next<int (*)(int, unsigned long, ...)>("ioctl");
    return real(descriptor, request, argument);
}

void* mmap(void* address, size_t length, int protection, int flags, int descriptor, off_t offset) noexcept
{
    static const auto real = next<void* (*)(void*, size_t, int, int, int, off_t)>("mmap");
    if (const auto device = camera_of(descriptor)) descriptor = device->memory();
    return real(address, length, protection, flags, descriptor, offset);
}

void* mmap64(void* address, size_t length, int protection, int flags, int descriptor, off64_t offset) noexcept
{
    static const auto real = next<void* (*)(void*, size_t, int, int, int, off64_t)>("mmap64");
    if (const auto device = camera_of(descriptor)) descriptor = device->memory();
    return real(address, length, protection, flags, descriptor, offset);
}

int dup(int descriptor) noexcept
{
    static const auto real = next<int (*)(int)>("dup");
    const int copy = real(descriptor);
    if (const auto device = camera_of(descriptor)) return remember(copy, device);
    return copy;
}

int close(int descriptor)
{
    static const auto real = next<int (*)(int)>("close");
    forget(descriptor);
    return real(descriptor);
}

} // extern "C"
#pragma GCC visibility pop
