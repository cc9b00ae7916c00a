// Property types that the converting elements share.
#pragma once

#include <gst/gst.h>

namespace velstream::software {

inline constexpr int kDefaultEngine = 1;

/// The enum of "engine": the platform's backends by number and nick. All convert alike here.
GType engine_type();

/// The enum of "rotate"; its numbers are those of Rotation.
GType rotation_type();

} // namespace velstream::software
