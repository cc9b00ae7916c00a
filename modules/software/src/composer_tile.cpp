#include "composer_tile.h"

#include <algorithm>

namespace velstream::software {

namespace {

GstVideoInfo bgra_info(int width, int height)
{
    GstVideoInfo info;
    gst_video_info_set_format(&info, GST_VIDEO_FORMAT_BGRA, static_cast<guint>(width), static_cast<guint>(height));
    return info;
}

Rectangle intersection(const Rectangle& area, int width, int height)
{
    const int left = std::max(area.x, 0);
    const int top = std::max(area.y, 0);
    const int right = std::min(area.x + area.width, width);
    const int bottom = std::min(area.y + area.height, height);
    if (left >= right || top >= bottom) return {};
    return {left, top, right - left, bottom - top};
}

/// Within the canvas's neighbourhood, so that sums of its numbers stay numbers.
Rectangle settled_area(const Rectangle& area, const GstVideoInfo& canvas)
{
    constexpr int kFar = 1 << 20;
    constexpr int kMaxSize = 16384;
    const bool is_open = area.width <= 0 || area.height <= 0;
    return {std::clamp(area.x, -kFar, kFar), std::clamp(area.y, -kFar, kFar),
            is_open ? GST_VIDEO_INFO_WIDTH(&canvas) : std::min(area.width, kMaxSize),
            is_open ? GST_VIDEO_INFO_HEIGHT(&canvas) : std::min(area.height, kMaxSize)};
}

Rectangle settled_crop(const Rectangle& crop, const GstVideoInfo& in)
{
    const int width = GST_VIDEO_INFO_WIDTH(&in);
    const int height = GST_VIDEO_INFO_HEIGHT(&in);
    if (crop.width <= 0 || crop.height <= 0) return {0, 0, width, height};
    const int x = std::clamp(crop.x, 0, width - 1);
    const int y = std::clamp(crop.y, 0, height - 1);
    return {x, y, std::min(crop.width, width - x), std::min(crop.height, height - y)};
}

int half(int pixels)
{
    return (pixels + 1) / 2;
}

/// Two pixels that share chroma are both of the tile, or the second one is not of the canvas.
bool ends_with_pair(int end, int canvas_end)
{
    return end % 2 == 0 || end == canvas_end;
}

} // namespace

void ComposerTile::configure(const GstVideoInfo& in, const GstVideoInfo& canvas, const TileLayout& layout)
{
    crop_ = settled_crop(layout.crop, in);
    area_ = settled_area(layout.area, canvas);
    visible_ = intersection(area_, GST_VIDEO_INFO_WIDTH(&canvas), GST_VIDEO_INFO_HEIGHT(&canvas));
    alpha_ = layout.alpha;
    has_alpha_ = GST_VIDEO_INFO_HAS_ALPHA(&in);
    is_opaque_ = !has_alpha_ && alpha_ >= 1.0;
    is_upside_down_ = layout.is_flipped_vertically;
    way_ = choose_way(in, canvas, layout);
    Geometry geometry;
    geometry.crop = crop_;
    geometry.rotation = layout.rotation;
    geometry.is_flipped_horizontally = layout.is_flipped_horizontally;
    geometry.is_flipped_vertically = layout.is_flipped_vertically;
    if (way_ == Way::straight) {
        GstVideoInfo tile = canvas;
        GST_VIDEO_INFO_WIDTH(&tile) = area_.width;
        GST_VIDEO_INFO_HEIGHT(&tile) = area_.height;
        transformer_.configure(in, tile, geometry);
    } else if (way_ == Way::blended) {
        configure_blending(in, canvas, geometry);
    }
}

ComposerTile::Way ComposerTile::choose_way(const GstVideoInfo& in, const GstVideoInfo& canvas,
                                           const TileLayout& layout) const
{
    if (!is_opaque_ || !(visible_ == area_)) return Way::blended;
    if (can_scale_planes(in, canvas, layout)) return Way::planes;
    if (!is_yuv(GST_VIDEO_INFO_FORMAT(&canvas))) return Way::straight;
    const bool is_on_grid = area_.x % 2 == 0 && area_.y % 2 == 0 &&
                            ends_with_pair(area_.x + area_.width, GST_VIDEO_INFO_WIDTH(&canvas)) &&
                            ends_with_pair(area_.y + area_.height, GST_VIDEO_INFO_HEIGHT(&canvas));
    return is_on_grid ? Way::straight : Way::blended;
}

/// The usual camera tile: the canvas's own format, upright, moderately reduced.
bool ComposerTile::can_scale_planes(const GstVideoInfo& in, const GstVideoInfo& canvas, const TileLayout& layout) const
{
    const GstVideoFormat format = GST_VIDEO_INFO_FORMAT(&in);
    return is_yuv420(format) && format == GST_VIDEO_INFO_FORMAT(&canvas) &&
           is_same_encoding(colour_of(in), colour_of(canvas)) && layout.rotation == Rotation::none &&
           !layout.is_flipped_horizontally && crop_.x % 2 == 0 && crop_.y % 2 == 0 &&
           (!layout.is_flipped_vertically || crop_.height % 2 == 0) && 2 * area_.width >= crop_.width &&
           2 * area_.height >= crop_.height;
}

void ComposerTile::configure_blending(const GstVideoInfo& in, const GstVideoInfo& canvas, const Geometry& geometry)
{
    const GstVideoInfo tile = bgra_info(area_.width, area_.height);
    const int width = GST_VIDEO_INFO_WIDTH(&in);
    if (has_alpha_) {
        const GstVideoInfo whole = bgra_info(width, GST_VIDEO_INFO_HEIGHT(&in));
        unpacker_.configure(colour_of(in), colour_of(whole), width);
        transformer_.configure(whole, tile, geometry);
    } else {
        transformer_.configure(in, tile, geometry);
    }
    blender_.configure(canvas);
}

void ComposerTile::draw(const Picture& in, const Picture& canvas)
{
    if (visible_.width == 0) return;
    switch (way_) {
    case Way::planes:
        scale_planes(in, canvas);
        break;
    case Way::straight:
        transformer_.run(in, part_of(canvas, area_.x, area_.y, area_.width, area_.height));
        break;
    case Way::blended:
        draw_blended(in, canvas);
        break;
    }
}

/// Luma goes to its very place; chroma to every sample that a pixel of the tile has a share in.
void ComposerTile::scale_planes(const Picture& in, const Picture& canvas) const
{
    Picture from = part_of(in, crop_.x, crop_.y, crop_.width, crop_.height);
    if (is_upside_down_) from = upside_down(from);
    const int chroma_x = area_.x / 2;
    const int chroma_y = area_.y / 2;
    const int chroma_width = half(area_.x + area_.width) - chroma_x;
    const int chroma_height = half(area_.y + area_.height) - chroma_y;
    const auto place = [&canvas](std::size_t plane, int byte, int row) {
        return canvas.data[plane] + static_cast<ptrdiff_t>(canvas.stride[plane]) * row + byte;
    };
    libyuv::ScalePlane(from.data[0], from.stride[0], from.width, from.height, place(0, area_.x, area_.y),
                       canvas.stride[0], area_.width, area_.height, libyuv::kFilterBox);
    if (canvas.format != GST_VIDEO_FORMAT_I420) {
        libyuv::UVScale(from.data[1], from.stride[1], half(from.width), half(from.height),
                        place(1, 2 * chroma_x, chroma_y), canvas.stride[1], chroma_width, chroma_height,
                        libyuv::kFilterBilinear);
        return;
    }
    for (std::size_t plane = 1; plane < 3; ++plane)
        libyuv::ScalePlane(from.data[plane], from.stride[plane], half(from.width), half(from.height),
                           place(plane, chroma_x, chroma_y), canvas.stride[plane], chroma_width, chroma_height,
                           libyuv::kFilterBox);
}

/// The input as BGRA, its colours multiplied by its alpha: scaling then takes nothing from what cannot be seen.
Picture ComposerTile::premultiplied(const Picture& in)
{
    const Picture whole = unpacked_.get(GST_VIDEO_FORMAT_BGRA, in.width, in.height);
    if (in.format == GST_VIDEO_FORMAT_BGRA) {
        premultiply(in, whole);
    } else {
        unpacker_.convert(in, whole);
        premultiply(whole, whole);
    }
    return whole;
}

void ComposerTile::draw_blended(const Picture& in, const Picture& canvas)
{
    const Picture tile = drawn_.get(GST_VIDEO_FORMAT_BGRA, area_.width, area_.height);
    transformer_.run(has_alpha_ ? premultiplied(in) : in, tile);
    if (alpha_ < 1.0) fade(tile, alpha_);
    blender_.blend(tile, canvas, area_.x, area_.y);
}

} // namespace velstream::software
