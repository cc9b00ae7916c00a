#include "blend.h"

#include <algorithm>
#include <cstring>

namespace velstream::software {

namespace {

constexpr int kChromaZero = 128;
constexpr uint8_t kClearPixel[4] = {};

int half(int pixels)
{
    return (pixels + 1) / 2;
}

uint8_t* row_of(const Picture& picture, int plane, int y)
{
    return picture.data[static_cast<std::size_t>(plane)] +
           static_cast<ptrdiff_t>(picture.stride[static_cast<std::size_t>(plane)]) * y;
}

/// x / 255 to the nearest, for -255 * 255 to 255 * 255.
inline int divide_by_255(int x)
{
    return (x * 257 + 32768) >> 16;
}

/// Most of an overlay is clear or opaque.
inline void premultiply_pixel(const uint8_t* from, uint8_t* to)
{
    const int alpha = from[3];
    if (alpha == 0 || alpha == 255) {
        std::memmove(to, alpha == 0 ? kClearPixel : from, 4); // both may be one place
        return;
    }
    for (int i = 0; i < 3; ++i)
        to[i] = static_cast<uint8_t>(divide_by_255(from[i] * alpha));
    to[3] = static_cast<uint8_t>(alpha);
}

/// dst = over + (dst - zero) * clear / 255. Neighbouring samples may have zeros of their own (YUY2).
void blend_row(const uint8_t* over, const uint8_t* clear, uint8_t* dst, int bytes, int even_zero, int odd_zero)
{
    const int pairs = bytes / 2;
    for (int i = 0; i < pairs; ++i) {
        dst[2 * i] = static_cast<uint8_t>(over[2 * i] + divide_by_255((dst[2 * i] - even_zero) * clear[2 * i]));
        dst[2 * i + 1] =
            static_cast<uint8_t>(over[2 * i + 1] + divide_by_255((dst[2 * i + 1] - odd_zero) * clear[2 * i + 1]));
    }
    if (bytes % 2)
        dst[bytes - 1] =
            static_cast<uint8_t>(over[bytes - 1] + divide_by_255((dst[bytes - 1] - even_zero) * clear[bytes - 1]));
}

void read_alpha(const uint8_t* bgra, uint8_t* alpha, int width)
{
    for (int x = 0; x < width; ++x)
        alpha[x] = bgra[4 * x + 3];
}

void invert(const uint8_t* alpha, uint8_t* clear, int width)
{
    for (int x = 0; x < width; ++x)
        clear[x] = static_cast<uint8_t>(255 - alpha[x]);
}

/// Whether nothing of the row is drawn.
bool is_empty(const uint8_t* alpha, int width)
{
    return width == 0 || (alpha[0] == 0 && std::memcmp(alpha, alpha + 1, static_cast<std::size_t>(width) - 1) == 0);
}

} // namespace

Picture PictureMemory::get(GstVideoFormat format, int width, int height)
{
    GstVideoInfo info;
    gst_video_info_set_format(&info, format, static_cast<guint>(width), static_cast<guint>(height));
    if (memory_.size() < GST_VIDEO_INFO_SIZE(&info)) memory_.resize(GST_VIDEO_INFO_SIZE(&info));
    Picture picture{format, width, height, {}, {}};
    for (guint plane = 0; plane < GST_VIDEO_INFO_N_PLANES(&info); ++plane) {
        picture.data[plane] = memory_.data() + GST_VIDEO_INFO_PLANE_OFFSET(&info, plane);
        picture.stride[plane] = GST_VIDEO_INFO_PLANE_STRIDE(&info, plane);
    }
    return picture;
}

void premultiply(const Picture& in, const Picture& out)
{
    // libyuv's takes one from an opaque colour on AArch64.
    for (int y = 0; y < in.height; ++y) {
        const uint8_t* from = row_of(in, 0, y);
        uint8_t* to = row_of(out, 0, y);
        for (int x = 0; x < in.width; ++x)
            premultiply_pixel(from + 4 * x, to + 4 * x);
    }
}

void fade(const Picture& picture, double alpha)
{
    const int factor = static_cast<int>(std::clamp(alpha, 0.0, 1.0) * 256.0 + 0.5);
    for (int y = 0; y < picture.height; ++y) {
        uint8_t* row = row_of(picture, 0, y);
        for (int i = 0; i < 4 * picture.width; ++i)
            row[i] = static_cast<uint8_t>((row[i] * factor + 128) >> 8);
    }
}

void Blender::configure(const GstVideoInfo& canvas)
{
    format_ = GST_VIDEO_INFO_FORMAT(&canvas);
    colour_ = colour_of(canvas);
    black_ = is_yuv(format_) && !colour_.is_full_range ? 16 : 0;
    const int width = GST_VIDEO_INFO_WIDTH(&canvas);
    converter_.configure(Colour{GST_VIDEO_COLOR_MATRIX_RGB, true, false}, colour_, width);
    for (std::vector<uint8_t>* row : {&first_, &second_, &clear_, &clear_u_, &clear_v_})
        row->resize(4 * static_cast<std::size_t>(width) + 64);
}

/// The visible part; on a canvas whose pixels share chroma with a clear margin, so that it begins and ends with a pair.
Picture Blender::align(const Picture& picture, const Picture& canvas, int& x, int& y)
{
    const int unit_x = is_yuv(format_) ? 2 : 1;
    const int unit_y = is_yuv420(format_) ? 2 : 1;
    const int left = std::max(x, 0);
    const int top = std::max(y, 0);
    const int right = std::min(x + picture.width, canvas.width);
    const int bottom = std::min(y + picture.height, canvas.height);
    if (left >= right || top >= bottom) return Picture{};
    const Picture visible = part_of(picture, left - x, top - y, right - left, bottom - top);
    const int outer_left = left - left % unit_x;
    const int outer_top = top - top % unit_y;
    const int outer_right = std::min(right + right % unit_x, canvas.width);
    const int outer_bottom = std::min(bottom + bottom % unit_y, canvas.height);
    x = outer_left;
    y = outer_top;
    if (outer_left == left && outer_top == top && outer_right == right && outer_bottom == bottom) return visible;
    const Picture outer = aligned_.get(GST_VIDEO_FORMAT_BGRA, outer_right - outer_left, outer_bottom - outer_top);
    libyuv::SetPlane(outer.data[0], outer.stride[0], 4 * outer.width, outer.height, 0);
    const Picture inner = part_of(outer, left - outer_left, top - outer_top, visible.width, visible.height);
    libyuv::ARGBCopy(visible.data[0], visible.stride[0], inner.data[0], inner.stride[0], visible.width, visible.height);
    return outer;
}

void Blender::blend(const Picture& picture, const Picture& canvas, int x, int y)
{
    const Picture bgra = align(picture, canvas, x, y);
    if (!bgra.data[0]) return;
    const Picture target = part_of(canvas, x, y, bgra.width, bgra.height);
    Picture over = bgra;
    if (format_ != GST_VIDEO_FORMAT_BGRA) {
        over = converted_.get(format_, bgra.width, bgra.height);
        converter_.convert(bgra, over);
    }
    if (is_yuv420(format_))
        blend_yuv420(bgra, over, target);
    else if (format_ == GST_VIDEO_FORMAT_YUY2)
        blend_yuy2(bgra, over, target);
    else
        blend_rgb(bgra, over, target);
}

void Blender::blend_yuv420(const Picture& bgra, const Picture& over, const Picture& canvas)
{
    for (int y = 0; y < bgra.height; ++y) {
        std::vector<uint8_t>& alpha = y % 2 ? second_ : first_;
        read_alpha(row_of(bgra, 0, y), alpha.data(), bgra.width);
        if (!is_empty(alpha.data(), bgra.width)) {
            invert(alpha.data(), clear_.data(), bgra.width);
            blend_row(row_of(over, 0, y), clear_.data(), row_of(canvas, 0, y), bgra.width, black_, black_);
        }
        const bool is_last = y + 1 == bgra.height;
        if (y % 2 == 0 && is_last) second_ = first_;
        if (y % 2 || is_last) blend_chroma(bgra, over, canvas, y / 2);
    }
}

/// Of the two rows whose alpha stands in first_ and second_, by the filter that made the chroma of `over`.
void Blender::blend_chroma(const Picture& bgra, const Picture& over, const Picture& canvas, int y)
{
    const int pairs = half(bgra.width);
    if (is_empty(first_.data(), bgra.width) && is_empty(second_.data(), bgra.width)) return;
    rows::average(first_.data(), second_.data(), first_.data(), bgra.width);
    first_[static_cast<std::size_t>(bgra.width)] = first_[static_cast<std::size_t>(bgra.width) - 1];
    rows::downsample(first_.data(), first_.data(), pairs, colour_.is_chroma_cosited, second_.data());
    invert(second_.data(), clear_.data(), 2 * pairs);
    if (format_ != GST_VIDEO_FORMAT_I420) {
        blend_row(row_of(over, 1, y), clear_.data(), row_of(canvas, 1, y), 2 * pairs, kChromaZero, kChromaZero);
        return;
    }
    libyuv::SplitUVPlane(clear_.data(), 0, clear_u_.data(), 0, clear_v_.data(), 0, pairs, 1);
    blend_row(row_of(over, 1, y), clear_u_.data(), row_of(canvas, 1, y), pairs, kChromaZero, kChromaZero);
    blend_row(row_of(over, 2, y), clear_v_.data(), row_of(canvas, 2, y), pairs, kChromaZero, kChromaZero);
}

void Blender::blend_yuy2(const Picture& bgra, const Picture& over, const Picture& canvas)
{
    const int pairs = half(bgra.width);
    for (int y = 0; y < bgra.height; ++y) {
        read_alpha(row_of(bgra, 0, y), first_.data(), bgra.width);
        first_[static_cast<std::size_t>(bgra.width)] = first_[static_cast<std::size_t>(bgra.width) - 1];
        rows::downsample(first_.data(), first_.data(), pairs, colour_.is_chroma_cosited, second_.data());
        rows::merge_yuy2(first_.data(), second_.data(), clear_u_.data(), pairs);
        invert(clear_u_.data(), clear_.data(), 4 * pairs);
        blend_row(row_of(over, 0, y), clear_.data(), row_of(canvas, 0, y), 4 * pairs, black_, kChromaZero);
    }
}

void Blender::blend_rgb(const Picture& bgra, const Picture& over, const Picture& canvas)
{
    const int bytes = bytes_per_pixel(format_);
    for (int y = 0; y < bgra.height; ++y) {
        read_alpha(row_of(bgra, 0, y), first_.data(), bgra.width);
        if (is_empty(first_.data(), bgra.width)) continue;
        for (int x = 0; x < bgra.width; ++x)
            for (int byte = 0; byte < bytes; ++byte)
                clear_[static_cast<std::size_t>(bytes * x + byte)] =
                    static_cast<uint8_t>(255 - first_[static_cast<std::size_t>(x)]);
        blend_row(row_of(over, 0, y), clear_.data(), row_of(canvas, 0, y), bytes * bgra.width, 0, 0);
    }
}

} // namespace velstream::software
