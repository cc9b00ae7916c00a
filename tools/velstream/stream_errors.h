// The errors that the elements of a stream report, so that a failure can be told with its cause.
#pragma once

#include <string>

namespace velstream::tool {

/// Listens from now on to every pipeline of the process. Call it once, after gst_init() and before a stream starts.
void watch_stream_errors();

/// What the pipeline that is named after this stream failed of at last, "qtdemux0: This file ...", without its full
/// stop; empty when it did not. Callable from any thread.
std::string stream_error(const std::string& stream_id);

/// The same of whatever stream reported last: a recording's pipeline has a name of GStreamer's.
std::string last_stream_error();

/// What was reported until now does not count any more.
void forget_stream_errors();

} // namespace velstream::tool
