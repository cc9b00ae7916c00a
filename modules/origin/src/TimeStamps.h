// Times of the pictures that an encoder gets.
#pragma once

#include <gst/gst.h>

namespace Quorvis::VelStream {

/// Makes the times of a pad's pictures rise. A parser that gets two pictures under one time stamp hands out the second
/// without any, and a camera's client sets the times back after a network that stood still: encoders and muxers end a
/// recording over either. Such a picture is put right behind the one before.
/// @param pad  name of a static pad, behind which the pictures are in the order of their display. Null elements and
///             names that an element lacks are passed over.
void make_times_rise(GstElement* element, const char* pad);

} // namespace Quorvis::VelStream
