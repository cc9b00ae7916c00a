// The pictures that the camera sees.
#pragma once

#include "fake_camera.h"
#include "media.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace peers::camera {

/// Most bytes that a frame of this mode takes.
std::size_t frame_capacity(const Mode& mode);

/// Draws the numbered frames of one mode.
class FrameMaker {
public:
    explicit FrameMaker(const Mode& mode);
    /// @return the bytes of frame `number`, valid until the next call.
    const std::vector<std::uint8_t>& make(int number);

private:
    void write_jpeg();
    void write_yuyv();

    Mode mode_;
    media::FramePainter painter_;
    std::vector<std::uint8_t> picture_; ///< planar 4:2:0
    std::vector<std::uint8_t> frame_;
};

} // namespace peers::camera
