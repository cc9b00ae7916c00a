// Four cameras of one colour each, an engine that composes them, and what is to be seen of it.
#pragma once

#include "Command.h"
#include "ConfigFile.h"
#include "patience.h"
#include "process.h"
#include "velstream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace velstream::testing {

struct Colour {
    int red;
    int green;
    int blue;
};

/// What the four cameras show: one colour, and a white bar along the top of the left half.
inline constexpr std::array<Colour, 4> kCameraColours{{{200, 30, 30}, {30, 160, 30}, {30, 30, 200}, {180, 160, 20}}};

/// The camera that has a white square of 96 pixels on black too, for a detector: at 400,148 of its picture.
inline constexpr std::size_t kSquareCamera = 3;

/// RTSP servers that play 640x360 at 10 frames a second until the object ends.
class Cameras {
public:
    /// @param codec  "h264" or "h265"
    Cameras(const TemporaryFolder& folder, const std::string& codec);
    std::string url(std::size_t camera) const { return servers_[camera]->url(); }
    peers::RtspPeer& server(std::size_t camera) { return *servers_[camera]; }
    bool are_ready() const;

private:
    std::vector<std::unique_ptr<peers::RtspPeer>> servers_;
};

using Task = std::unordered_map<std::string, std::string>;

/// The task of one camera on a canvas of 1280x720 whose quarters they fill.
Task camera_task(std::size_t camera, const std::string& url, const std::string& codec);

/// An output, with a logo of 64x64 at 40,40 and a text at 700,60 when `logo` is a path.
Task output_task(const std::string& type, const std::string& address, const std::string& logo = "");

/// A start of an engine on a thread of its own; the object's end stops it.
class EngineCall {
public:
    explicit EngineCall(Quorvis::VelStream::VelStreamEngine& engine);
    ~EngineCall();
    EngineCall(const EngineCall&) = delete;
    EngineCall& operator=(const EngineCall&) = delete;
    /// @return false when it still runs after the bound.
    bool wait_for_end(std::chrono::milliseconds bound = kPatience);
    int result() { return result_.get(); }

private:
    Quorvis::VelStream::VelStreamEngine& engine_;
    std::future<int> result_;
};

/// Fragments ("moof" boxes) in a file, the last of which may not be whole.
std::size_t count_fragments(const std::string& path);

/// Frames in the fragments of a file that are whole, as their boxes say.
long frames_in_fragments(const std::string& path);

/// Waits until a file has this many fragments. @return false when what writes it ends before: that waits for its end
/// for so long, and says whether it has come.
bool wait_for_fragments(const std::string& path, std::size_t count,
                        const std::function<bool(std::chrono::milliseconds)>& has_ended);
bool wait_for_fragments(const std::string& path, std::size_t count, EngineCall& call);

/// Waits until a file of scenario 5 consists of whole fragments, at least this many, and the next one has yet to come.
/// @return the size of such a file; 0 when what writes it ends before.
std::size_t wait_for_whole_fragments(const std::string& path, std::size_t count, EngineCall& call);

/// What ffprobe says of a file.
struct FileFacts {
    std::string codec;
    int width = 0;
    int height = 0;
    std::string rate; ///< as "10/1"
    double seconds = 0;
    long frames = 0; ///< as counted by decoding
};
FileFacts probe_file(const std::string& path);

/// A picture in packed RGB.
class Picture {
public:
    Picture() = default;
    Picture(std::string rgb, int width) : rgb_(std::move(rgb)), width_(width) {}
    bool is_there() const { return !rgb_.empty(); }
    /// Mean colour of the 9 x 9 pixels around a place.
    Colour at(int x, int y) const;
    /// Pixels in an area that are near a colour.
    long count_near(int x, int y, int width, int height, Colour colour) const;

private:
    std::string rgb_;
    int width_ = 0;
};

/// The four colours in their quarters of a picture, none of them upside down or mirrored.
::testing::AssertionResult shows_all_cameras(const Picture& picture, int width, int height);

/// The last picture of a file, as ffmpeg decodes it, that shows all cameras: they begin and end one after the other. If
/// none does, the last one.
Picture picture_of(const std::string& path, int width, int height);

/// The picture of a file at a time, in seconds from its beginning.
Picture picture_at(const std::string& path, int width, int height, int second);

/// Near enough for two encodings and two conversions.
::testing::AssertionResult is_near(Colour seen, Colour expected);

/// Writes a PNG of one colour.
void write_logo(const std::string& path, const std::string& colour);

} // namespace velstream::testing
