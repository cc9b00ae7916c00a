// Running one pipeline for one stream, tapping its frames, and stopping it.
#pragma once

#include "StreamInput.h"
#include "StreamOutput.h"
#include "StreamRecords.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

namespace Quorvis::VelStream {

// Process-wide state. One internal mutex guards `pipeline_map`, `pipeline_s`, `g_fps` and `g_stream_id` inside the
// library.

/// Cleared by every stop and by SIGINT and never set again: ends the ub2404 bus loops and the re-encoders' push loops.
extern std::atomic<bool> running;
/// Stream id to pipeline. An entry stays after its runner returned, with a null pointer.
extern std::map<std::string, GstElement*> pipeline_map;
/// The last pipeline that was set PLAYING; null once it is released.
extern GstElement* pipeline_s;
/// Id of the last constructed input builder: pad callbacks, which receive no builder, look the codec up by it.
extern std::string g_stream_id;
extern int32_t g_fps;          ///< Of the last re-encoder, frames a second; 25 at first.
extern int32_t g_buffer_count; ///< Frames that wait for a re-encoder at most: 4.

void note_stream_id(const std::string& stream_id);
std::string noted_stream_id();

/// On "6490", points GStreamer to the vendor's plug-ins; before gst_init().
void set_vendor_plugin_environment();

/**
 * Starts a record over: clock time, callback, stream id and frame index.
 * @param callback  moved from.
 * @return 0 when the record holds a pipeline; else -1 after a line in the log.
 */
int pipeline_data_init(PiplineData* data, std::string stream_id, std::function<int8_t(const Image&)>& callback);

/**
 * Runs one stream and blocks until it ends.
 * @param input      builder of the source half; borrowed for the call. Null: logged, result -1.
 * @param output     builder of the sink half; borrowed for the call. Null: the stream ends in a "fakesink".
 * @param stream_id  names the pipeline and registers it for send_eos().
 * @param callback   moved from; runs on a streaming thread, one call at a time.
 * @return 0 ended normally; -1 not built, not linked, pipeline error, or an end of stream that asks for a restart.
 */
int startStream(StreamInput* input, StreamOutput* output, std::string stream_id,
                std::function<int8_t(const Image&)>& callback);

/**
 * Runs two streams of one camera, which is decoded once, and blocks until the pipeline ends. A stop of either id ends
 * it.
 * @param first, second        their input is the first one's; each has an output of its own.
 * @param callback_1, callback_2  moved from; each runs on a streaming thread of its own.
 * @return 0 ended, also by an error, which is logged; -1 not built or not linked.
 */
int startStream(StreamIns first, std::function<int8_t(const Image&)>& callback_1, StreamIns second,
                std::function<int8_t(const Image&)>& callback_2);

// The platforms' runners. Each blocks until the pipeline in `data` ends, and releases it and its bus on every way out.
// `input` and `output` are borrowed, floating or not; null is a failed link.
// 0 ended normally, -1 failed.
int start(PiplineData* data, GstElement* input, GstElement* output);         ///< "6490", "8550"; rebuilds and retries.
int start_6490_ql(PiplineData* data, GstElement* input, GstElement* output); ///< "v4l2"; retries.
int start_ub2404(PiplineData* data, GstElement* input, GstElement* output);  ///< "ub2404"; one attempt.

/**
 * Stops one stream, or every stream for "all_stream": sends the end of stream, gives its runner up to 2 s to see it
 * (the muxers write their indexes), and then sets the pipeline to NULL. An unknown id only clears `running`. Not to be
 * called from a frame callback, which holds up the stream it would wait for.
 */
void send_eos(const std::string& stream_id);

/**
 * SIGINT handler: clears `running` and sends the end of stream to the last started pipeline. Where
 * install_sigint_handler() was called, a thread of the library's does the sending and the handler waits 0.2 s for it at
 * most; elsewhere it is done on the calling thread, and is not for signal context.
 */
void handle_sigint(int signal);

/// Makes handle_sigint() the process's SIGINT handler, and starts the thread that works for it (once).
void install_sigint_handler();

// Frame taps; the user data is the stream's PiplineData. They run on a streaming thread and always let the buffer pass.
GstPadProbeReturn on_buffer_received(GstPad* pad, GstPadProbeInfo* info, void* user_data);
GstPadProbeReturn on_buffer_received_v4l2(GstPad* pad, GstPadProbeInfo* info, void* user_data);

/// One branch of a split stream: from `input` to `output`, tapped between them. The pipeline owns the elements.
struct ProcessingBranch {
    GstElement* input = nullptr;      ///< "qtivtransform" to RGB
    GstElement* rgb_filter = nullptr; ///< carries the tap on its "src" pad
    GstElement* transform = nullptr;  ///< "qtivtransform" to NV12
    GstElement* output = nullptr;     ///< NV12 caps filter
};

/// Adds and links a branch's elements. @return false after a line on standard error.
bool setup_processing_branch(GstElement* pipeline, PiplineData* data, ProcessingBranch& branch);

/// Links a source's new pad to the depayloader given as user data.
void on_pad_added(GstElement* source, GstPad* pad, gpointer depay);

/// Logs size and format of a transform's output; waits up to a second for its caps.
void get_caps_for_qtivtransform(GstElement* transform);

} // namespace Quorvis::VelStream
