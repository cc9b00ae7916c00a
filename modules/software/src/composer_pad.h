// A sink pad of "qtivcomposer": its properties, and which of its frames is to be seen.
#pragma once

#include "composer_tile.h"
#include "software_handles.h"

#include <gst/base/gstaggregator.h>

#include <optional>

namespace velstream::software {

/// Output time of one canvas, in running time.
struct CanvasTime {
    GstClockTime start;
    GstClockTime end;
};

enum class InputState {
    ready,   ///< it is known what is to be seen at that time; perhaps nothing
    wanting, ///< a frame of that time may still come
    ended    ///< at its end, and its last frame is over
};

/// What a pad keeps. `layout` and `zorder` are guarded by the pad's object lock, the rest belongs to the aggregator's
/// thread.
class ComposerInput {
public:
    TileLayout layout;
    guint zorder = 0;

    /// The caps of the frames that follow.
    void set_format(const GstVideoInfo& info) { next_info_ = info; }
    const std::optional<GstVideoInfo>& format() const { return next_info_; }

    /// Takes the newest frame that has begun by the end of `time`.
    InputState advance(GstAggregatorPad* pad, const CanvasTime& time);
    /// Null: there is nothing to be seen.
    GstBuffer* frame() const { return frame_.get(); }
    const GstVideoInfo& frame_info() const { return info_; }
    /// The tile, set up for the frame, the canvas and the layout; valid until the next call.
    ComposerTile& tile(const GstVideoInfo& canvas, guint canvas_number, const TileLayout& wanted);

    void drop_frame() { frame_.reset(); }
    void reset();

private:
    void take(GstAggregatorPad* pad, GstClockTime start);
    bool is_over(const CanvasTime& time) const;

    std::optional<GstVideoInfo> next_info_;
    BufferPtr frame_;
    GstVideoInfo info_{};                    ///< of frame_
    GstClockTime end_ = GST_CLOCK_TIME_NONE; ///< running time of frame_'s end; none: unknown
    bool is_unseen_ = false;                 ///< frame_ has not been drawn yet

    ComposerTile tile_;
    std::optional<TileLayout> tile_layout_; ///< what tile_ is set up for; none: nothing
    GstVideoInfo tile_info_{};
    guint tile_canvas_ = 0;
};

GType composer_pad_type();
ComposerInput& input_of(gpointer pad);

} // namespace velstream::software
