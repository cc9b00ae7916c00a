#include "Log.h"
#include "StreamBuild.h"
#include "StreamBuildRegistry.h"

namespace Quorvis::VelStream {

namespace {

/// Sends the end of stream from a thread of GStreamer's: an event that travels with the data waits behind a branch that
/// does not move (a peer that went silent, a callback that is slow), and a stop must not wait with it.
void send_end_of_stream(GstElement* pipeline)
{
    gst_element_call_async(
        pipeline, [](GstElement* element, gpointer) { gst_element_send_event(element, gst_event_new_eos()); }, nullptr,
        nullptr);
}

} // namespace

void send_eos(const std::string& stream_id)
{
    running.store(false, std::memory_order_release);
    const bool all = stream_id == "all_stream";
    const std::vector<StopTarget> targets = ask_to_stop(stream_id, all);
    for (const StopTarget& target : targets) {
        if (!target.pipeline) continue;
        if (all)
            VEL_LOG_INFO("send_eos: stopping pipeline %s", target.stream_id.c_str());
        else
            VEL_LOG_INFO("send_eos: stopping single pipeline %s", target.stream_id.c_str());
        send_end_of_stream(target.pipeline.get());
        g_usleep(5000);
    }
    const auto deadline = std::chrono::steady_clock::now() + kEndOfStreamBound;
    for (const StopTarget& target : targets) {
        if (target.run) target.run->wait_for_end(deadline);
    }
    for (const StopTarget& target : targets) {
        if (target.pipeline) gst_element_set_state(target.pipeline.get(), GST_STATE_NULL);
        if (target.run) target.run->note_stopped();
    }
}

void handle_sigint(int)
{
    running.store(false, std::memory_order_release);
    const ElementPtr pipeline = last_started_pipeline();
    if (!pipeline) return;
    VEL_LOG_INFO("Received SIGINT signal, will send EOS to pipeline.");
    gst_element_send_event(pipeline.get(), gst_event_new_eos());
    VEL_LOG_WARN("Sending EOS to pipeline completed.");
}

} // namespace Quorvis::VelStream
