// Lays pictures with transparency over others of any format.
#pragma once

#include "vtransform_colour.h"

namespace velstream::software {

/// A picture with memory of its own, which only ever grows.
class PictureMemory {
public:
    Picture get(GstVideoFormat format, int width, int height);

private:
    std::vector<uint8_t> memory_;
};

/// Multiplies the colours of BGRA pixels by their alpha. `in` and `out` may be the same.
void premultiply(const Picture& in, const Picture& out);

/// Multiplies all four bytes of BGRA pixels by `alpha`, 0 to 1.
void fade(const Picture& picture, double alpha);

/**
 * Blends a BGRA picture whose colours are multiplied by their alpha over a part of a canvas. In YUV that is done after
 * the conversion, which is linear: chroma that pixels share takes from each by its alpha. For one thread at a time.
 */
class Blender {
public:
    void configure(const GstVideoInfo& canvas);
    /// Draws `picture` with its top left corner at x, y; what lies outside of the canvas is cut off.
    void blend(const Picture& picture, const Picture& canvas, int x, int y);

private:
    Picture align(const Picture& picture, const Picture& canvas, int& x, int& y);
    void blend_yuv420(const Picture& bgra, const Picture& over, const Picture& canvas);
    void blend_chroma(const Picture& bgra, const Picture& over, const Picture& canvas, int y);
    void blend_yuy2(const Picture& bgra, const Picture& over, const Picture& canvas);
    void blend_rgb(const Picture& bgra, const Picture& over, const Picture& canvas);

    GstVideoFormat format_ = GST_VIDEO_FORMAT_UNKNOWN;
    Colour colour_;
    uint8_t black_ = 0; ///< luma of black; 0 for RGB
    ColourConverter converter_;
    PictureMemory aligned_, converted_;
    std::vector<uint8_t> first_, second_, clear_, clear_u_, clear_v_; ///< rows: alpha, and 255 less alpha
};

} // namespace velstream::software
