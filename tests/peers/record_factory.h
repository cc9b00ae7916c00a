// What the RTSP peer records.
#pragma once

#include <gst/rtsp-server/rtsp-server.h>

#include <string>

namespace peers {

/// Takes what clients send (H.264 or H.265 with or without AAC, or an MPEG transport stream) and writes it to `path`:
/// MP4, or a transport stream for a path that ends in ".ts" and for whatever comes as one. A second recording gets
/// "-2" before the ending, and so on.
///
/// Lines on standard output: `record` with a client's first frame; `teardown` when it asks for that; `eos frames=N`
/// when it has ended its stream and the file is finished, N video frames as received; `lost frames=N` when it went away
/// without ending it.
GstRTSPMediaFactory* make_record_factory(const std::string& path);

/// Watches the clients of a server that records, for the lines above.
void watch_recorders(GstRTSPServer* server);

} // namespace peers
