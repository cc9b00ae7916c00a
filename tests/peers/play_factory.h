// What the RTSP peer plays.
#pragma once

#include "media.h"

#include <gst/rtsp-server/rtsp-server.h>

#include <string>

namespace peers {

/// Plays an MP4 file, the video as stream 0 and its sound, if any, as stream 1; paced, all clients see the same.
/// @param is_looped  goes on from the start at the end, with time stamps that go on; otherwise the stream ends.
/// @param has_sound_only  leaves the video out.
/// @param failure    why there is nothing to play; the result is null then.
GstRTSPMediaFactory* make_clip_factory(const std::string& path, bool is_looped, bool has_sound_only,
                                       std::string& failure);

/// Plays a camera without end: drawn frames (their numbers wrap where the marker does), encoded without delay, a key
/// frame every second. Of `spec` the codec, size, rate and bitrate count.
/// @param later  the spec from its frame number `frames` on; of it the size counts too.
GstRTSPMediaFactory* make_camera_factory(const media::MediaSpec& spec, const media::MediaSpec& later);

} // namespace peers
