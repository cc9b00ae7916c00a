// A headless Wayland compositor whose screen shows windows alone, without a panel, and pictures of it.
#pragma once

#include "patience.h"
#include "process.h"
#include "temporary_folder.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace peers {

/// weston with a screen in memory, in a runtime folder of its own. This process's environment points to it.
class Compositor {
public:
    Compositor(int width, int height) : width_(width), height_(height)
    {
        setenv("XDG_RUNTIME_DIR", folder_.path().c_str(), 1);
        setenv("WAYLAND_DISPLAY", "wayland-1", 1);
        // Nothing lies above a window, and a window as large as the screen lies at its top left.
        std::ofstream(folder_.file("weston.ini")) << "[shell]\npanel-position=none\nlocking=false\n"
                                                     "animation=none\nstartup-animation=none\n";
        process_ = std::make_unique<ChildProcess>(std::vector<std::string>{
            "weston", "--backend=headless-backend.so", "--use-gl", "--debug", "--socket=wayland-1",
            "--config=" + folder_.file("weston.ini"), "--log=" + folder_.file("weston.log"),
            "--width=" + std::to_string(width), "--height=" + std::to_string(height)});
        // The socket is there before anyone answers on it; a picture of the screen takes the whole compositor.
        const auto end = std::chrono::steady_clock::now() + velstream::testing::kPatience;
        while (!is_ready_ && process_->is_running() && std::chrono::steady_clock::now() < end) {
            is_ready_ = std::filesystem::exists(folder_.file("wayland-1")) && !take_picture().empty();
            if (!is_ready_) std::this_thread::sleep_for(std::chrono::milliseconds(20)); // between two looks
        }
    }
    Compositor(const Compositor&) = delete;
    Compositor& operator=(const Compositor&) = delete;

    bool is_ready() const { return is_ready_; }
    int width() const { return width_; }
    int height() const { return height_; }

    /// Takes a picture of the screen. @return path of a PNG file, valid until the next one; empty when there is none.
    std::string take_picture()
    {
        const std::filesystem::path shots = folder_.file("shots");
        std::filesystem::remove_all(shots);
        std::filesystem::create_directory(shots);
        ChildProcess screenshooter(
            {"sh", "-c", "cd '" + shots.string() + "' && exec weston-screenshooter >/dev/null 2>&1"});
        screenshooter.wait();
        for (const auto& entry : std::filesystem::directory_iterator(shots)) {
            if (entry.path().extension() == ".png") return entry.path().string();
        }
        return {};
    }

    /// The same as packed RGB, empty when there is none.
    std::vector<std::uint8_t> read_screen()
    {
        const std::string pixels = folder_.file("pixels");
        ChildProcess decoder(
            {"ffmpeg", "-v", "error", "-y", "-i", take_picture(), "-pix_fmt", "rgb24", "-f", "rawvideo", pixels});
        std::vector<std::uint8_t> rgb(3U * static_cast<std::size_t>(width_) * static_cast<std::size_t>(height_));
        if (decoder.wait() != 0) return {};
        std::ifstream file(pixels, std::ios::binary);
        if (!file.read(reinterpret_cast<char*>(rgb.data()), static_cast<std::streamsize>(rgb.size()))) return {};
        return rgb;
    }

private:
    int width_;
    int height_;
    velstream::testing::TemporaryFolder folder_;
    std::unique_ptr<ChildProcess> process_; // ends before its folder goes
    bool is_ready_ = false;
};

} // namespace peers
