// The client that pushes a stream to an RTSP server, with an end that comes through.
#pragma once

#include "Handles.h"

#include <string>

namespace Quorvis::VelStream {

/**
 * A "rtspclientsink" with its location.
 *
 * Its end of stream comes out each time, and on its way to READY it tells the server of the end (TEARDOWN) and waits
 * for the answer, at most half a second. In all else it is the stock element, down to the factory that it names.
 * @return null when the factory is missing; the log names it.
 */
ElementPtr make_rtsp_push(const char* name, const std::string& location);

/// Puts such a client in the place of each stock one that a launch description has made; what it was linked to and what
/// was set of it stays. For a pipeline that has not been started yet; what is no bin is skipped, null too.
void replace_rtsp_pushes(GstElement* pipeline);

} // namespace Quorvis::VelStream
