// A Wayland compositor of a test's own, without a screen, and pictures of what it shows.
#pragma once

#include "process.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace peers {

/// A headless weston, in a runtime folder of its own. Clients find it through the environment, which it sets.
class Compositor {
public:
    Compositor(int width, int height)
        : width_(width), height_(height), folder_(make_folder()),
          weston_(std::make_unique<ChildProcess>(
              std::vector<std::string>{"sh", "-c",
                                       "XDG_RUNTIME_DIR='" + folder_.string() +
                                           "' exec weston --backend=headless-backend.so --use-gl --debug "
                                           "--socket=wayland-1 --no-config --width=" +
                                           std::to_string(width) + " --height=" + std::to_string(height) + " 2>&1"}))
    {
        setenv("XDG_RUNTIME_DIR", folder_.c_str(), 1);
        setenv("WAYLAND_DISPLAY", "wayland-1", 1);
    }
    ~Compositor()
    {
        weston_->terminate();
        weston_->wait();
        weston_.reset();
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }
    Compositor(const Compositor&) = delete;
    Compositor& operator=(const Compositor&) = delete;

    int width() const { return width_; }
    int height() const { return height_; }

    /// What the whole screen shows, packed RGB; empty where no picture could be taken, as while it starts.
    std::vector<std::uint8_t> picture() const
    {
        const std::filesystem::path shots = folder_ / "shots";
        std::filesystem::remove_all(shots);
        std::filesystem::create_directory(shots);
        ChildProcess shot({"sh", "-c",
                           "cd '" + shots.string() +
                               "' && weston-screenshooter >/dev/null 2>&1 && ffmpeg -v error -i *.png -pix_fmt rgb24 "
                               "-f rawvideo pixels 2>/dev/null"});
        if (shot.wait() != 0) return {};
        std::vector<std::uint8_t> pixels(3U * static_cast<std::size_t>(width_ * height_));
        const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen((shots / "pixels").c_str(), "rb"),
                                                                   std::fclose);
        if (!file || std::fread(pixels.data(), 1, pixels.size(), file.get()) != pixels.size()) return {};
        return pixels;
    }

private:
    static std::filesystem::path make_folder()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "compositor-XXXXXX").string();
        if (!mkdtemp(pattern.data())) throw std::runtime_error("no folder for a compositor");
        return pattern;
    }

    int width_;
    int height_;
    std::filesystem::path folder_;
    std::unique_ptr<ChildProcess> weston_;
};

} // namespace peers
