// The client that pushes a stream to an RTSP server, with an end that comes through.
#pragma once

#include "Handles.h"

#include <string>

namespace Quorvis::VelStream {

/// Makes the RTSP sessions that come to be in this bin, at whatever depth, send the end of their RTCP when their RTP
/// has ended. A bin that pushes posts its end of stream only when both have. What is no bin is skipped, null too.
void let_rtcp_end(GstElement* bin);

/**
 * A "rtspclientsink" with its location.
 *
 * Its end of stream comes out each time, and on its way to READY it tells the server of the end (TEARDOWN) and waits
 * for the answer, at most half a second. In all else it is the stock element, down to the factory that it names.
 * @return null when the factory is missing; the log names it.
 */
ElementPtr make_rtsp_push(const char* name, const std::string& location);

} // namespace Quorvis::VelStream
