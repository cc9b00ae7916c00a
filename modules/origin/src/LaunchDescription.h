// Pipelines that are written as a launch description.
#pragma once

#include "Handles.h"

#include <string>

namespace Quorvis::VelStream {

/**
 * Makes the pipeline that a description says, whole or not at all: gst_parse_launch() hands out what it could build of
 * a description with a syntax error, a missing element or a failed link too. Only a property that an element lacks is
 * passed over, with a warning. A push by RTSP in it ends as it should.
 * @param failure  takes the cause.
 * @return null when the description is not complete.
 */
ElementPtr launch_pipeline(const std::string& description, std::string& failure);

/// True when no pad of the bin's elements is without a peer. The first error of a description hides those behind it, so
/// one that is passed over does not mean that everything is there.
bool is_linked_throughout(GstElement* pipeline);

} // namespace Quorvis::VelStream
