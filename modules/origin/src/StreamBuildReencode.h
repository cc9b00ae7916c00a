// Outputs that encode what the application's callback draws into the shared frame.
#pragma once

#include "StreamRecords.h"

namespace Quorvis::VelStream {

/// The source of the re-encoder that was started last; null once it has ended.
extern GstElement* appsrc_s;

/**
 * Encodes the shared frame into an MP4 file, at the property's frame rate, until `running` is cleared or the pipeline
 * is stopped under the id + "_mp4" or the id. Blocks; the callback runs on the calling thread, once a frame, and draws
 * into the frame that it is given. A callback that takes longer than a frame lasts lowers the rate. Re-encoders that
 * run at the same time take turns at the frame.
 * @param property  size, frame rate (0: that of the last re-encoder, 25 at first), `outputFile` and id.
 * @param callback  borrowed for the call.
 * @return 0 stopped, or the pipeline took no further frame; -1 it could not be made, the shared frame is smaller than
 *         the size, or the pipeline failed while it ran. Whatever ended the loop, the file is completed.
 */
int start_save_mp4_intern(StreamProperty& property, std::function<int8_t(const Image&)>& callback);
/// The same as an RTSP push to `outputAddr`, registered under the id + "_network".
int start_network_intern(StreamProperty& property, std::function<int8_t(const Image&)>& callback);

/// The same for the stream with this id of the configuration file.
int start_save_mp4(std::string stream_id, std::function<int8_t(const Image&)>& callback);
int start_network_push(std::string stream_id, std::function<int8_t(const Image&)>& callback);

} // namespace Quorvis::VelStream
