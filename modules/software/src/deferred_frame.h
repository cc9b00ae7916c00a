// Frames whose conversion to NV12 waits until somebody reads them as NV12.
//
// A decoder puts out NV12, as a board's does, but libav decodes into three planes. The element that comes next usually
// converts once more; it reads the planes where they lie, and a pass over every frame is spared.
#pragma once

#include "software_handles.h"

#include <optional>

namespace velstream::software {

/// Copies the planes of one frame into the other frame's layout. @return 0 on success
using LayoutCopy = int (*)(const GstVideoFrame& in, GstVideoFrame& out);

/**
 * A buffer that reads as a frame in the layout of `info` and holds `planes` until it is written to. What maps it for
 * the first time converts it, on its own thread; any threads may map it at once.
 * @param planes       a frame as `planes_info` says; a reference is taken
 * @param planes_info  of the same size as `info`
 * @param copy         converts one into the other
 * @return owned by the caller; its times, flags and metas are not those of `planes`
 */
BufferPtr make_deferred_frame(GstBuffer* planes, const GstVideoInfo& planes_info, const GstVideoInfo& info,
                              LayoutCopy copy);

bool is_deferred_frame(GstBuffer* buffer);

/// The decoder's planes of a frame.
struct DeferredPlanes {
    BufferPtr buffer; ///< shared: never to be written to
    GstVideoInfo info;
};

/// The planes that hold the same picture as `buffer`; none where it is no deferred frame, or was written to.
std::optional<DeferredPlanes> planes_of(GstBuffer* buffer);

} // namespace velstream::software
