// The turn from one segment of a rolling save to the next.
#pragma once

#include <gst/gst.h>

namespace Quorvis::VelStream {

/**
 * Holds the end of each segment back until the next one is being written.
 *
 * A "splitmuxsink" that finishes its segments behind its back marks the finished one from two threads: the one that
 * starts the next segment and the one that sees the end come through. The second to come removes the segment, but
 * neither looks under a lock: both may take themselves for the first, about once in 10,000 segments. The segment's
 * elements then stay for good, and when its number comes round again no element of its name can be added, and the
 * recording stands still. With the end held back the order is settled.
 *
 * @param sink  with its pad "video" requested, not started yet
 */
void order_segments(GstElement* sink);

} // namespace Quorvis::VelStream
