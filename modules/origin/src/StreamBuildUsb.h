// Running a USB camera's stream: MJPEG from a V4L2 device, tapped as RGB, handed on as NV12.
#pragma once

#include "StreamOutput.h"
#include "StreamRecords.h"

#include <functional>
#include <string>

namespace Quorvis::VelStream {

/**
 * Runs one camera's stream and blocks until it ends.
 * @param property   of it the device node (`inputAddr`) and the size in pixels, which the camera must offer as JPEG.
 * @param output     builder of the sink half; borrowed for the call. Null: the stream ends in a "fakesink".
 * @param stream_id  names the pipeline and registers it for send_eos().
 * @param callback   moved from; runs on a streaming thread, one call at a time.
 * @return 0 ended by an end of stream or a stop; -1 not built, not linked or a pipeline error. Nothing is retried.
 */
int startUsbStream(StreamProperty property, StreamOutput* output, std::string stream_id,
                   std::function<int8_t(const Image&)>& callback);

/**
 * Builds and runs the pipeline in `data`, and releases it and its bus on every way out.
 * @param output  borrowed, floating or not; null is a failed link.
 */
int start_usb(PiplineData* data, GstElement* output, StreamProperty property);

} // namespace Quorvis::VelStream
