// Which caps "qtivtransform" offers on one side for what stands on the other.
#pragma once

#include <gst/gst.h>

namespace velstream::software {

/// Of both pads, owned by the caller: system memory first, then memory:GBM, then whatever else there is.
GstCaps* make_template_caps();

/// `caps` with format, size and colours set free; owned by the caller. Frame rate, interlacing and the like stay.
GstCaps* make_other_caps(GstCaps* caps, GstCaps* filter);

/**
 * Picks one of `other`: what it leaves open takes the values of `caps`.
 * @param caps            fixed caps of the other pad
 * @param other           taken over
 * @param is_sideways     width and height of `caps` are exchanged first
 * @return owned by the caller
 */
GstCaps* fixate_other_caps(GstCaps* caps, GstCaps* other, bool is_sideways);

} // namespace velstream::software
