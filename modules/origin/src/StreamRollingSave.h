// Rolling save: the newest stretch of a stream as a ring of short MP4 files under "/tmp/rolling".
#pragma once

#include <glib.h>

#include <string>

namespace Quorvis::VelStream {

struct StreamProperty;

/// Main loop of the last recording that was started; null once that has ended. Recordings write it, each on its
/// caller's thread, by std::atomic_ref, and so must be read what may change meanwhile.
extern GMainLoop* g_loop;

/**
 * Records the stream with this id of the configuration file into "/tmp/rolling/<id>/", and blocks until the recording
 * ends: at the end of the stream, an error, a stop of the id, or SIGINT, for which it installs a handler that stays.
 * Segments of an earlier recording are deleted first.
 * @return 0 it has ended, with an error too; -1 the pipeline could not be built, which is so for every input type but
 *         "rtsp" on a build without a decoder for files.
 */
int start_rolling_save(std::string stream_id);

/// Launch description for a stream. Empty for an input or a codec that is not recorded, after a line in the log for the
/// codec.
std::string rolling_description(const StreamProperty& property, const std::string& stream_id);

} // namespace Quorvis::VelStream
