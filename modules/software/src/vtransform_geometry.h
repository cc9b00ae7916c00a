// What "qtivtransform" does to one frame: crop, scale, rotate, flip, place, and the colours with it.
#pragma once

#include "vtransform_colour.h"

namespace velstream::software {

/// In pixels; a width or height of 0 stands for the whole picture.
struct Rectangle {
    int x = 0, y = 0, width = 0, height = 0;
    bool operator==(const Rectangle&) const = default;
};

enum class Rotation { none, clockwise, counter_clockwise, half_turn };

/// The input's `crop` is turned by `rotation`, then flipped as the output shows it, and fills the output's
/// `destination`.
struct Geometry {
    Rectangle crop;
    Rectangle destination;
    Rotation rotation = Rotation::none;
    bool is_flipped_horizontally = false;
    bool is_flipped_vertically = false;
    bool operator==(const Geometry&) const = default;
};

/// Whether `geometry` exchanges width and height.
bool is_sideways(const Geometry& geometry);

/// Keeps its scratch pictures between frames. For one thread at a time.
class FrameTransformer {
public:
    void configure(const GstVideoInfo& in, const GstVideoInfo& out, const Geometry& geometry);
    /// Whether the output is the input, pixel by pixel.
    bool is_identity() const { return is_identity_; }
    /// The pictures have the sizes and formats of the configuration.
    void run(const Picture& in, const Picture& out);

private:
    /// A picture with memory of its own, which only ever grows.
    class Scratch {
    public:
        Picture get(GstVideoFormat format, int width, int height);

    private:
        std::vector<uint8_t> memory_;
    };

    Scratch& next_scratch();
    Picture unpack_crop(const Picture& in);
    Picture scale(const Picture& in, int width, int height);
    Picture rotate(const Picture& in);
    Picture flip(const Picture& in);

    GstVideoFormat working_format_ = GST_VIDEO_FORMAT_BGRA;
    Geometry geometry_; ///< crop and destination are whole and inside the pictures
    bool is_identity_ = false;
    bool is_colour_only_ = false;
    bool covers_output_ = true;
    bool is_output_full_range_ = false;
    ColourConverter direct_, unpacker_, packer_;
    std::array<Scratch, 2> scratch_;
    std::size_t scratch_index_ = 0;
};

} // namespace velstream::software
