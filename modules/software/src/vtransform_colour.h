// Colour conversion between two pictures of one size.
#pragma once

#include "vtransform_rows.h"

#include <gst/video/video.h>
#include <libyuv.h>

#include <array>
#include <vector>

namespace velstream::software {

/// The planes of a raw picture, or of a part of one; borrows the memory. A negative stride turns it upside down.
struct Picture {
    GstVideoFormat format = GST_VIDEO_FORMAT_UNKNOWN;
    int width = 0;
    int height = 0;
    std::array<uint8_t*, 3> data{};
    std::array<int, 3> stride{};
};

Picture picture_of(const GstVideoFrame& frame);

/// The rectangle of `picture`; x and y are even where the format shares chroma between pixels.
Picture part_of(const Picture& picture, int x, int y, int width, int height);

/// The same picture, bottom row first.
Picture upside_down(const Picture& picture);

bool is_yuv(GstVideoFormat format);
/// NV12, NV21 and I420: one chroma sample for two by two pixels.
bool is_yuv420(GstVideoFormat format);

/// Of an RGB format: 3 or 4 bytes, and which of the four is alpha or unused (-1: none).
int bytes_per_pixel(GstVideoFormat format);
int alpha_offset(GstVideoFormat format);

/// What the caps say about a picture's colours; matrix and range mean nothing for RGB, which is full range.
struct Colour {
    GstVideoColorMatrix matrix = GST_VIDEO_COLOR_MATRIX_BT601;
    bool is_full_range = false;
    bool is_chroma_cosited = false; ///< horizontally; vertically the samples lie between two rows
};

Colour colour_of(const GstVideoInfo& info);
bool is_same_encoding(const Colour& a, const Colour& b);

/**
 * Converts pictures row by row. Chroma is interpolated at its place on the way to RGB; between two YUV formats its
 * samples stay where they are. Its rows are allocated by configure(), converting allocates nothing. For one thread at a
 * time.
 */
class ColourConverter {
public:
    /// @param max_width  pixels of the widest picture to come
    void configure(const Colour& in, const Colour& out, int max_width);
    /// Both pictures have one size; they do not overlap.
    void convert(const Picture& in, const Picture& out);

private:
    struct ChromaRow {
        int index = -1; ///< which row of the picture `samples` holds
        std::vector<uint8_t> samples;
    };
    struct Planes {
        std::vector<uint8_t> r, g, b;
    };

    struct Yuv {
        std::vector<uint8_t> u, v;
    };

    void yuv_to_yuv(const Picture& in, const Picture& out);
    void yuv_to_rgb(const Picture& in, const Picture& out);
    void recode_yuv(const Picture& in, const Picture& out);
    void rgb_to_yuv(const Picture& in, const Picture& out);
    void rgb_to_rgb(const Picture& in, const Picture& out);

    const uint8_t* luma_row(const Picture& in, int y);
    const uint8_t* chroma_row(const Picture& in, int index);
    const uint8_t* chroma_of_row(const Picture& in, int y);
    const uint8_t* chroma_of_row_pair(const Picture& in, int index);
    void read_yuv444(const Picture& in, int y, const uint8_t*& luma);
    void read_rgb(const Picture& in, int y, Planes& planes);
    void recode_row(const Picture& in, int y, uint8_t* luma, Yuv& yuv);
    void write_rgb(const Picture& out, int y, const uint8_t* luma);
    void write_chroma(const Picture& out, int index, const uint8_t* uv);
    void write_yuy2(const Picture& out, int y, const uint8_t* luma, const uint8_t* uv);
    const uint8_t* make_chroma(const Planes& first, const Planes& second, int width);
    void convert_row_pair(const Picture& in, const Picture& out, int y);
    const uint8_t* merge_recoded(int width);

    Colour in_{};
    Colour out_{};
    rows::YuvToRgb to_rgb_{};
    rows::YuvToYuv recode_{};
    rows::RgbToYuv to_yuv_{};
    std::array<ChromaRow, 2> chroma_;
    std::array<Planes, 2> planes_;
    std::array<Yuv, 2> recoded_;
    std::vector<uint8_t> luma_, uv_, u_, v_, pixels_, opaque_;
};

} // namespace velstream::software
