// A headless Wayland compositor whose screen shows windows alone, without a panel, and pictures of it.
#pragma once

#include "process.h"

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

namespace peers {

/// weston with a screen in memory, in a runtime folder of its own, which is removed with it. This process's environment
/// points to it.
class BareScreen {
public:
    BareScreen(int width, int height)
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "velstream-weston-XXXXXX").string();
        if (!mkdtemp(pattern.data())) throw std::runtime_error("no temporary folder for weston");
        folder_ = pattern;
        setenv("XDG_RUNTIME_DIR", pattern.c_str(), 1);
        setenv("WAYLAND_DISPLAY", "wayland-1", 1);
        // Nothing lies above a window, and a window as large as the screen lies at its top left.
        std::ofstream(folder_ / "weston.ini") << "[shell]\npanel-position=none\nlocking=false\n"
                                                 "animation=none\nstartup-animation=none\n";
        process_ = std::make_unique<ChildProcess>(std::vector<std::string>{
            "weston", "--backend=headless-backend.so", "--use-gl", "--debug", "--socket=wayland-1",
            "--config=" + (folder_ / "weston.ini").string(), "--log=" + (folder_ / "weston.log").string(),
            "--width=" + std::to_string(width), "--height=" + std::to_string(height)});
        // The socket is there before anyone answers on it; a picture of the screen takes the whole compositor.
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!is_ready_ && process_->is_running() && std::chrono::steady_clock::now() < end) {
            is_ready_ = std::filesystem::exists(folder_ / "wayland-1") && !take_picture().empty();
            if (!is_ready_) std::this_thread::sleep_for(std::chrono::milliseconds(20)); // between two looks
        }
    }
    ~BareScreen()
    {
        process_.reset();
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }
    BareScreen(const BareScreen&) = delete;
    BareScreen& operator=(const BareScreen&) = delete;

    bool is_ready() const { return is_ready_; }

    /// Takes a picture of the screen. @return path of a PNG file, valid until the next one; empty when there is none.
    std::string take_picture()
    {
        const std::filesystem::path shots = folder_ / "shots";
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

private:
    std::filesystem::path folder_;
    std::unique_ptr<ChildProcess> process_;
    bool is_ready_ = false;
};

} // namespace peers
