// A USB camera that exists in this process alone, for the V4L2 element and any other program that uses V4L2 directly.
//
// A library that answers the system calls for one device node, and hands on all others. An executable that is linked
// with it has the calls answered and controls the camera through the functions below; any other program gets them by
// LD_PRELOAD, and the camera from its environment:
//
//   VELSTREAM_CAMERA=/dev/velstream-camera=MJPG:640x480,MJPG:1280x720,YUYV:640x480
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#pragma GCC visibility push(default)
namespace peers::camera {

enum class Format { Jpeg, Yuyv };

struct Mode {
    Format format = Format::Jpeg;
    int width = 640;  ///< pixels, even, 320 at least
    int height = 480; ///< pixels, even, 160 at least
};

struct Spec {
    std::string path = "/dev/velstream-camera"; ///< need not exist, and should not
    std::vector<Mode> modes = {Mode{}};
    int fps = 30;
};

/// Plugs the camera in; one at a time. Plugging it in again is a camera that comes back.
void plug_in(const Spec& spec);

/// Takes the camera away: whoever has it open gets ENODEV, and its node is gone.
void unplug();

/// The camera stays, and gives no more frames.
void fall_silent();

/// Frames that were handed to the program so far, since the camera was plugged in.
std::uint64_t delivered_frames();

/// Frame `number` as the camera gives it in this mode. It shows its number: media::read_frame_number() reads it.
std::vector<std::uint8_t> frame(const Mode& mode, int number);

} // namespace peers::camera
#pragma GCC visibility pop
