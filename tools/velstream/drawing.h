// What the tool draws on frames: the time, a picture.
#pragma once

#include "velstream.h"

#include <cstdint>
#include <string>
#include <vector>

namespace velstream::tool {

/// A picture in packed RGB, rows of 3 x width bytes, ready for draw_picture().
struct OverlayPicture {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgb;
};

/// Reads a PNG file. What is white or transparent in it becomes clear, all else is drawn. @throws UserError
OverlayPicture read_overlay(const std::string& path);

struct DrawingOptions {
    bool has_time = false;
    std::string picture; ///< path of a PNG file, or empty
};

/// Draws on the frames of one stream, which its display, push or recording then shows. One call at a time.
class Drawing {
public:
    /// @param owns_frame  the frame is the application's to fill: it is made anew, in grey, before each drawing.
    /// @throws UserError when the picture cannot be read
    Drawing(const DrawingOptions& options, bool owns_frame);
    /// Draws on a frame that may be written to. The picture's top left corner is the frame's.
    void draw(const Quorvis::VelStream::Image& image);

private:
    void fit_picture(int width, int height);

    bool has_time_;
    bool owns_frame_;
    OverlayPicture picture_;
    OverlayPicture fitted_; ///< the picture in a clear one of the frame's size
};

} // namespace velstream::tool
