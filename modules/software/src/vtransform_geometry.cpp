#include "vtransform_geometry.h"

#include <algorithm>

namespace velstream::software {

namespace {

/// Pixels around a crop that its chroma interpolation looks at.
constexpr int kCropMargin = 2;

int half(int pixels)
{
    return (pixels + 1) / 2;
}
int even_below(int pixels)
{
    return pixels - pixels % 2;
}

Rectangle inside(const Rectangle& wanted, int width, int height)
{
    if (wanted.width <= 0 || wanted.height <= 0) return {0, 0, width, height};
    Rectangle rectangle;
    rectangle.x = std::clamp(wanted.x, 0, width - 1);
    rectangle.y = std::clamp(wanted.y, 0, height - 1);
    rectangle.width = std::min(wanted.width, width - rectangle.x);
    rectangle.height = std::min(wanted.height, height - rectangle.y);
    return rectangle;
}

bool is_upright(const Geometry& geometry)
{
    return geometry.rotation == Rotation::none && !geometry.is_flipped_horizontally && !geometry.is_flipped_vertically;
}

libyuv::RotationMode rotation_mode(Rotation rotation)
{
    switch (rotation) {
    case Rotation::clockwise:
        return libyuv::kRotate90;
    case Rotation::counter_clockwise:
        return libyuv::kRotate270;
    case Rotation::half_turn:
        return libyuv::kRotate180;
    default:
        return libyuv::kRotate0;
    }
}

/// Whole chroma samples can be moved about: nothing has to be cut or mirrored between two of them.
bool keeps_chroma_grid(const Geometry& geometry)
{
    const Rectangle& crop = geometry.crop;
    if (crop.x % 2 || crop.y % 2) return false;
    return is_upright(geometry) || (crop.width % 2 == 0 && crop.height % 2 == 0);
}

void fill_plane(const Picture& picture, int plane, int bytes, int rows, uint32_t value)
{
    libyuv::SetPlane(picture.data[plane], picture.stride[plane], bytes, rows, value);
}

/// Opaque black. The byte of alpha is set in every 4-byte format, where it is the first or the last one.
void fill_black(const Picture& picture, bool is_full_range)
{
    const uint32_t black = is_full_range ? 0 : 16;
    if (is_yuv420(picture.format)) {
        const bool is_planar = picture.format == GST_VIDEO_FORMAT_I420;
        fill_plane(picture, 0, picture.width, picture.height, black);
        fill_plane(picture, 1, is_planar ? half(picture.width) : 2 * half(picture.width), half(picture.height), 128);
        if (is_planar) fill_plane(picture, 2, half(picture.width), half(picture.height), 128);
    } else if (picture.format == GST_VIDEO_FORMAT_YUY2) {
        libyuv::ARGBRect(picture.data[0], picture.stride[0], 0, 0, half(picture.width), picture.height,
                         black | (128U << 8) | (black << 16) | (128U << 24));
    } else if (bytes_per_pixel(picture.format) == 3) {
        fill_plane(picture, 0, 3 * picture.width, picture.height, 0);
    } else {
        libyuv::ARGBRect(picture.data[0], picture.stride[0], 0, 0, picture.width, picture.height,
                         255U << (8 * alpha_offset(picture.format)));
    }
}

int plane_count(const Picture& picture)
{
    return picture.format == GST_VIDEO_FORMAT_I420 ? 3 : 1;
}

int plane_width(const Picture& picture, int plane)
{
    return plane == 0 ? picture.width : half(picture.width);
}
int plane_height(const Picture& picture, int plane)
{
    return plane == 0 ? picture.height : half(picture.height);
}

void scale_picture(const Picture& in, const Picture& out)
{
    if (in.format == GST_VIDEO_FORMAT_BGRA) {
        libyuv::ARGBScale(in.data[0], in.stride[0], in.width, in.height, out.data[0], out.stride[0], out.width,
                          out.height, libyuv::kFilterBox);
        return;
    }
    for (int plane = 0; plane < plane_count(in); ++plane)
        libyuv::ScalePlane(in.data[plane], in.stride[plane], plane_width(in, plane), plane_height(in, plane),
                           out.data[plane], out.stride[plane], plane_width(out, plane), plane_height(out, plane),
                           libyuv::kFilterBox);
}

void rotate_picture(const Picture& in, const Picture& out, libyuv::RotationMode mode)
{
    if (in.format == GST_VIDEO_FORMAT_BGRA) {
        libyuv::ARGBRotate(in.data[0], in.stride[0], out.data[0], out.stride[0], in.width, in.height, mode);
        return;
    }
    for (int plane = 0; plane < plane_count(in); ++plane)
        libyuv::RotatePlane(in.data[plane], in.stride[plane], out.data[plane], out.stride[plane],
                            plane_width(in, plane), plane_height(in, plane), mode);
}

void mirror_picture(const Picture& in, const Picture& out)
{
    if (in.format == GST_VIDEO_FORMAT_BGRA) {
        libyuv::ARGBMirror(in.data[0], in.stride[0], out.data[0], out.stride[0], in.width, in.height);
        return;
    }
    for (int plane = 0; plane < plane_count(in); ++plane)
        libyuv::MirrorPlane(in.data[plane], in.stride[plane], out.data[plane], out.stride[plane],
                            plane_width(in, plane), plane_height(in, plane));
}

} // namespace

bool is_sideways(const Geometry& geometry)
{
    return geometry.rotation == Rotation::clockwise || geometry.rotation == Rotation::counter_clockwise;
}

Picture FrameTransformer::Scratch::get(GstVideoFormat format, int width, int height)
{
    constexpr std::size_t kAlignment = 64;
    const auto align = [](std::size_t bytes) { return (bytes + kAlignment - 1) / kAlignment * kAlignment; };
    Picture picture{format, width, height, {}, {}};
    std::array<std::size_t, 3> offset{};
    std::size_t size = kAlignment;
    for (int plane = 0; plane < plane_count(picture); ++plane) {
        const int bytes = format == GST_VIDEO_FORMAT_BGRA ? 4 * width : plane_width(picture, plane);
        const std::size_t stride = align(static_cast<std::size_t>(bytes));
        picture.stride[plane] = static_cast<int>(stride);
        offset[plane] = size;
        size += stride * static_cast<std::size_t>(plane_height(picture, plane));
    }
    if (memory_.size() < size) memory_.resize(size);
    for (int plane = 0; plane < plane_count(picture); ++plane)
        picture.data[plane] = memory_.data() + offset[plane];
    return picture;
}

void FrameTransformer::configure(const GstVideoInfo& in, const GstVideoInfo& out, const Geometry& geometry)
{
    const int in_width = GST_VIDEO_INFO_WIDTH(&in);
    const int in_height = GST_VIDEO_INFO_HEIGHT(&in);
    const int out_width = GST_VIDEO_INFO_WIDTH(&out);
    const int out_height = GST_VIDEO_INFO_HEIGHT(&out);
    const GstVideoFormat in_format = GST_VIDEO_INFO_FORMAT(&in);
    const GstVideoFormat out_format = GST_VIDEO_INFO_FORMAT(&out);
    const Colour in_colour = colour_of(in);
    const Colour out_colour = colour_of(out);

    geometry_ = geometry;
    geometry_.crop = inside(geometry.crop, in_width, in_height);
    geometry_.destination = inside(geometry.destination, out_width, out_height);
    if (is_yuv(out_format)) {
        geometry_.destination.x = even_below(geometry_.destination.x);
        geometry_.destination.y = even_below(geometry_.destination.y);
    }
    covers_output_ = geometry_.destination == Rectangle{0, 0, out_width, out_height};
    is_output_full_range_ = out_colour.is_full_range;
    is_colour_only_ = is_upright(geometry_) && covers_output_ && in_width == out_width && in_height == out_height &&
                      geometry_.crop == Rectangle{0, 0, in_width, in_height};
    const bool is_yuv_only = is_yuv(in_format) && is_yuv(out_format);
    const bool has_same_colours =
        is_yuv_only ? is_same_encoding(in_colour, out_colour) : !is_yuv(in_format) && !is_yuv(out_format);
    is_identity_ = is_colour_only_ && in_format == out_format && has_same_colours;
    const bool stays_yuv = is_yuv_only && has_same_colours && keeps_chroma_grid(geometry_);
    working_format_ = stays_yuv ? GST_VIDEO_FORMAT_I420 : GST_VIDEO_FORMAT_BGRA;
    direct_.configure(in_colour, out_colour, in_width);
    unpacker_.configure(in_colour, in_colour, in_width);
    packer_.configure(stays_yuv ? in_colour : out_colour, out_colour, out_width);
}

FrameTransformer::Scratch& FrameTransformer::next_scratch()
{
    scratch_index_ = 1 - scratch_index_;
    return scratch_[scratch_index_];
}

/// The crop in the working format. Chroma next to its edges comes from the pixels around it.
Picture FrameTransformer::unpack_crop(const Picture& in)
{
    const Rectangle& crop = geometry_.crop;
    if (in.format == working_format_) return part_of(in, crop.x, crop.y, crop.width, crop.height);
    const bool needs_margin = is_yuv(in.format) && working_format_ == GST_VIDEO_FORMAT_BGRA;
    const int margin = needs_margin ? kCropMargin : 0;
    const int left = even_below(std::max(0, crop.x - margin));
    const int top = even_below(std::max(0, crop.y - margin));
    const int right = std::min(in.width, crop.x + crop.width + margin);
    const int bottom = std::min(in.height, crop.y + crop.height + margin);
    const Picture unpacked = next_scratch().get(working_format_, right - left, bottom - top);
    unpacker_.convert(part_of(in, left, top, right - left, bottom - top), unpacked);
    return part_of(unpacked, crop.x - left, crop.y - top, crop.width, crop.height);
}

/// Big reductions go by halves, so that every pixel of the input counts.
Picture FrameTransformer::scale(const Picture& in, int width, int height)
{
    Picture picture = in;
    while (picture.format == GST_VIDEO_FORMAT_BGRA && picture.width > 2 * width && picture.height > 2 * height) {
        const Picture halved = next_scratch().get(picture.format, picture.width / 2, picture.height / 2);
        scale_picture(picture, halved);
        picture = halved;
    }
    if (picture.width == width && picture.height == height) return picture;
    const Picture scaled = next_scratch().get(picture.format, width, height);
    scale_picture(picture, scaled);
    return scaled;
}

Picture FrameTransformer::rotate(const Picture& in)
{
    if (geometry_.rotation == Rotation::none) return in;
    const bool is_swapped = is_sideways(geometry_);
    const Picture rotated =
        next_scratch().get(in.format, is_swapped ? in.height : in.width, is_swapped ? in.width : in.height);
    rotate_picture(in, rotated, rotation_mode(geometry_.rotation));
    return rotated;
}

Picture FrameTransformer::flip(const Picture& in)
{
    Picture picture = in;
    if (geometry_.is_flipped_horizontally) {
        const Picture mirrored = next_scratch().get(in.format, in.width, in.height);
        mirror_picture(in, mirrored);
        picture = mirrored;
    }
    return geometry_.is_flipped_vertically ? upside_down(picture) : picture;
}

void FrameTransformer::run(const Picture& in, const Picture& out)
{
    if (is_colour_only_) {
        direct_.convert(in, out);
        return;
    }
    if (!covers_output_) fill_black(out, is_output_full_range_);
    const Rectangle& area = geometry_.destination;
    const Picture target = part_of(out, area.x, area.y, area.width, area.height);
    const bool is_swapped = is_sideways(geometry_);
    const Picture cropped = unpack_crop(in);
    const Picture scaled = scale(cropped, is_swapped ? area.height : area.width, is_swapped ? area.width : area.height);
    packer_.convert(flip(rotate(scaled)), target);
}

} // namespace velstream::software
