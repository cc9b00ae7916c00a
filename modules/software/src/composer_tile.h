// How one input of "qtivcomposer" is drawn on the canvas.
#pragma once

#include "blend.h"
#include "vtransform_geometry.h"

namespace velstream::software {

/// Where and how an input stands on the canvas.
struct TileLayout {
    Rectangle crop; ///< of the input; a width or height of 0: all of it
    Rectangle area; ///< of the canvas, of any place; a width or height of 0: the canvas's size
    Rotation rotation = Rotation::none;
    bool is_flipped_horizontally = false;
    bool is_flipped_vertically = false;
    double alpha = 1.0;
    bool operator==(const TileLayout&) const = default;
};

/// Keeps what it has worked out between frames. For one thread at a time.
class ComposerTile {
public:
    void configure(const GstVideoInfo& in, const GstVideoInfo& canvas, const TileLayout& layout);
    /// Whether every pixel of area() is covered.
    bool is_opaque() const { return is_opaque_; }
    /// What of the canvas is drawn on; width 0: nothing.
    const Rectangle& visible() const { return visible_; }
    /// Pictures of the configuration's sizes and formats.
    void draw(const Picture& in, const Picture& canvas);

private:
    enum class Way { planes, straight, blended };

    Way choose_way(const GstVideoInfo& in, const GstVideoInfo& canvas, const TileLayout& layout) const;
    bool can_scale_planes(const GstVideoInfo& in, const GstVideoInfo& canvas, const TileLayout& layout) const;
    void configure_blending(const GstVideoInfo& in, const GstVideoInfo& canvas, const Geometry& geometry);
    void scale_planes(const Picture& in, const Picture& canvas) const;
    void draw_blended(const Picture& in, const Picture& canvas);
    Picture premultiplied(const Picture& in);

    Way way_ = Way::straight;
    Rectangle crop_, area_, visible_;
    bool is_upside_down_ = false;
    bool is_opaque_ = true;
    bool has_alpha_ = false;
    double alpha_ = 1.0;
    FrameTransformer transformer_;
    ColourConverter unpacker_;
    Blender blender_;
    PictureMemory unpacked_, drawn_;
};

} // namespace velstream::software
