// The one implementation behind the frame taps.
#pragma once

#include "StreamRecords.h"

#include <string>

namespace Quorvis::VelStream {

/// The taps differ in their messages, in how they map the frame and in what they record of it.
enum class TapKind {
    Plain,     ///< runners of "6490" and "8550", USB: read/write
    Camera,    ///< "v4l2" and "ub2404": read/write, with time stamp and row length
    Recreated, ///< rebuilt pipelines: read only
};

/// Handles one buffer on the pad; always lets it pass. Never lets an exception of the application's callback through.
template <TapKind kind>
GstPadProbeReturn tap_frame(GstPad* pad, GstPadProbeInfo* info, PiplineData* data);

extern template GstPadProbeReturn tap_frame<TapKind::Plain>(GstPad*, GstPadProbeInfo*, PiplineData*);
extern template GstPadProbeReturn tap_frame<TapKind::Camera>(GstPad*, GstPadProbeInfo*, PiplineData*);
extern template GstPadProbeReturn tap_frame<TapKind::Recreated>(GstPad*, GstPadProbeInfo*, PiplineData*);

/// Calls the application. An exception must not travel through GStreamer: it is logged and ends the callback, not the
/// stream.
void invoke_callback(const FrameCallback& callback, const Image& image, const std::string& stream_id);

/// True on a thread that is inside an application's frame callback.
bool is_in_frame_callback();

} // namespace Quorvis::VelStream
