// Ending the connections of GStreamer's RTMP elements, in which their threads wait for a server and nothing wakes them.
#pragma once

#include <gst/gst.h>

namespace Quorvis::VelStream {

/// True for an "rtmpsrc". Asked to end, or on its way down, it closes its connection from whatever thread that is,
/// though its own may be reading: that read then goes on for two minutes, since nothing wakes it, or uses what has been
/// freed, which may end the process. So its thread is to have left the connection before.
bool is_rtmp_source(const GstElement* element);

/// Has the source's thread send the end in place of the next data, and waits until it has stopped, for 500 ms at most.
/// @return false when no data came in time
bool end_with_next_data(GstElement* source);

/// Has the read of a source whose server is silent return, as when the server hangs up, and waits until its thread has
/// stopped: it ends the stream then. Within 300 ms, in which a thread that is busy elsewhere may not come to read.
/// @return false when the thread is still at work
bool hang_up(GstElement* source);

/// Marks the calling thread as the one that starts a pipeline, for the life of the object. RTMP sources connect on it.
class StartingThread {
public:
    explicit StartingThread(GstElement* pipeline);
    ~StartingThread();
    StartingThread(const StartingThread&) = delete;
    StartingThread& operator=(const StartingThread&) = delete;

private:
    GstElement* pipeline_;
};

/// Has the start of a pipeline fail that waits for the server of its RTMP source: that may take minutes, and nobody who
/// would take the pipeline down gets at it meanwhile. Does nothing while the starting thread is busy elsewhere.
void give_up_connecting(GstElement* source);

/// Has every RTMP source in a pipeline that is about to go down hang up, and every RTMP sink that waits for its server:
/// the pipeline would wait with it.
void hang_up_rtmp(GstElement* pipeline);

} // namespace Quorvis::VelStream
