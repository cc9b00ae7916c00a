// How the rows of a raw frame lie in memory. RGB and BGR rows are tight here: exactly 3 bytes a pixel, where
// GStreamer's own layout rounds every row up to 4 bytes.
#pragma once

#include <gst/gst.h>
#include <gst/video/video.h>

namespace velstream::software {

/// RGB and BGR: the formats whose rows are tight.
bool has_tight_layout(GstVideoFormat format);

/// Changes stride and size of `info` to those of tight rows; other formats than RGB and BGR stay as they are.
void make_layout_tight(GstVideoInfo& info);

/// Whether the rows of `buffer` are exactly 3 bytes a pixel, by its GstVideoMeta or, without one, by the layout of
/// `info`.
bool has_tight_rows(GstBuffer* buffer, const GstVideoInfo& info);

/**
 * Makes sure that an RGB or BGR buffer says that its rows are tight: sizes it and adds the GstVideoMeta.
 * @param buffer  writable, no smaller than the tight frame, its pixels not yet written
 */
void announce_tight_rows(GstBuffer* buffer, const GstVideoInfo& info);

/**
 * A pool of tight RGB or BGR frames, each with its GstVideoMeta. It keeps tight rows whatever size and options its user
 * configures: stock converters take the size of GStreamer's layout and never ask for the meta, but write by it.
 * @return owned by the caller; configured for `caps`, not active. Null where `caps` are no RGB or BGR video.
 */
GstBufferPool* make_tight_pool(GstCaps* caps, guint min_buffers, guint max_buffers);

/// Whether `pool` is one of make_tight_pool().
bool is_tight_pool(GstBufferPool* pool);

/// The bytes of one frame of `pool` after it was configured for `info`.
gsize tight_frame_size(const GstVideoInfo& info);

} // namespace velstream::software
