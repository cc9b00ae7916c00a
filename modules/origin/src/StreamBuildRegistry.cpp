#include "StreamBuildRegistry.h"

#include "RtmpConnection.h"
#include "StreamBuild.h"
#include "StreamBuildReencode.h"
#include "velstreamFrames.h"

#include <gst/app/gstappsrc.h>

#include <algorithm>
#include <memory>
#include <thread>

namespace Quorvis::VelStream {

std::map<std::string, GstElement*> pipeline_map;
GstElement* pipeline_s = nullptr;
GstElement* appsrc_s = nullptr;
std::string g_stream_id;

namespace {

struct OpenRun {
    std::string stream_id;
    GstElement* pipeline; // borrowed from the runner; null while it is being rebuilt
    std::shared_ptr<StreamRun> run;
};

// Guards what is above and below; never held across a GStreamer call that can block. Neither is ever destroyed: streams
// may still end while the process leaves main().
std::mutex& registry_mutex()
{
    static auto* mutex = new std::mutex;
    return *mutex;
}

std::vector<OpenRun>& open_runs()
{
    static auto* runs = new std::vector<OpenRun>;
    return *runs;
}

ElementPtr reference(GstElement* pipeline)
{
    return ElementPtr(pipeline ? GST_ELEMENT(gst_object_ref(pipeline)) : nullptr);
}

std::vector<OpenRun>::iterator find_open(GstElement* pipeline)
{
    return std::find_if(open_runs().begin(), open_runs().end(),
                        [pipeline](const OpenRun& open) { return pipeline && open.pipeline == pipeline; });
}

std::vector<OpenRun>::iterator find_open(const StreamRun* run)
{
    return std::find_if(open_runs().begin(), open_runs().end(),
                        [run](const OpenRun& open) { return open.run.get() == run; });
}

std::shared_ptr<StreamRun> open_run(const std::string& stream_id, GstElement* pipeline)
{
    auto run = std::make_shared<StreamRun>();
    open_runs().push_back({stream_id, pipeline, run});
    return run;
}

bool is_among(const std::vector<StopTarget>& targets, const StreamRun* run)
{
    return std::any_of(targets.begin(), targets.end(), [run](const StopTarget& t) { return t.run.get() == run; });
}

std::vector<ElementPtr> children_of(GstBin* bin)
{
    std::vector<ElementPtr> children;
    GST_OBJECT_LOCK(bin);
    for (const GList* child = GST_BIN_CHILDREN(bin); child; child = child->next)
        children.emplace_back(GST_ELEMENT(gst_object_ref(child->data)));
    GST_OBJECT_UNLOCK(bin);
    return children;
}

/// The elements that data comes from. A plain bin is looked into; a source that is a bin of its own kind is one.
void collect_sources(GstBin* bin, std::vector<ElementPtr>& sources)
{
    for (ElementPtr& child : children_of(bin)) {
        if (G_OBJECT_TYPE(child.get()) == GST_TYPE_BIN)
            collect_sources(GST_BIN(child.get()), sources);
        else if (GST_OBJECT_FLAG_IS_SET(child.get(), GST_ELEMENT_FLAG_SOURCE))
            sources.push_back(std::move(child));
    }
}

std::vector<PadPtr> source_pads_of(GstElement* element)
{
    std::vector<PadPtr> pads;
    GST_OBJECT_LOCK(element);
    for (const GList* pad = element->srcpads; pad; pad = pad->next)
        pads.emplace_back(GST_PAD(gst_object_ref(pad->data)));
    GST_OBJECT_UNLOCK(element);
    return pads;
}

/// Waits until a source has started, within the bound of a stop. An end of stream that comes while it starts makes its
/// loop run at once, which waits for PLAYING then (a live source) with the lock that the start still needs, and neither
/// goes on; one that comes before is forgotten by the start.
/// @return false when there is nothing to end: it has not started in time, goes down, or has left its pipeline.
bool wait_until_started(GstElement* source)
{
    constexpr std::chrono::milliseconds kPoll{5};
    const auto deadline = std::chrono::steady_clock::now() + kEndOfStreamBound;
    while (std::chrono::steady_clock::now() < deadline) {
        GST_OBJECT_LOCK(source);
        const bool is_started = GST_STATE(source) >= GST_STATE_PAUSED;
        const bool goes_down = is_started && GST_STATE_NEXT(source) == GST_STATE_READY;
        const bool is_left = !GST_OBJECT_PARENT(source);
        GST_OBJECT_UNLOCK(source);
        if (goes_down || is_left) return false;
        if (is_started) return true;
        if (is_rtmp_source(source)) give_up_connecting(source);
        std::this_thread::sleep_for(kPoll);
    }
    return false;
}

/// Between two frames: a source's thread that always has the next one takes up the lock of the pad behind it again
/// before anybody who waits for that lock, and the event would wait for as long as it goes on.
GstPadProbeReturn end_pad(GstPad* pad, GstPadProbeInfo*, gpointer)
{
    const PadPtr peer(gst_pad_get_peer(pad));
    if (peer) gst_pad_send_event(peer.get(), gst_event_new_eos());
    return GST_PAD_PROBE_REMOVE;
}

/// A source that is one element takes the event itself: its loop sends it behind the last data. A source that is a bin
/// (an RTSP client) would hand it to elements that it releases at the same moment when it goes to NULL; there the event
/// enters the pipeline behind the source's pads. An application's source has a queue of its own, which the plain event
/// would overtake.
void end_source(GstElement* source)
{
    if (GST_IS_APP_SRC(source)) {
        gst_app_src_end_of_stream(GST_APP_SRC(source));
        return;
    }
    if (!GST_IS_BIN(source)) {
        if (!wait_until_started(source)) return;
        if (is_rtmp_source(source) && (end_with_next_data(source) || hang_up(source))) return;
        GST_ELEMENT_GET_CLASS(source)->send_event(source, gst_event_new_eos());
        return;
    }
    for (const PadPtr& pad : source_pads_of(source))
        gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_IDLE, end_pad, nullptr, nullptr);
}

/// @return true for the first caller only. Two ends of stream at once make a source's loop fail an assertion of its
/// own, which ends the process.
bool takes_the_end(GstElement* source)
{
    static const GQuark quark = g_quark_from_static_string("velstream-end-of-stream");
    return g_object_replace_qdata(G_OBJECT(source), quark, nullptr, source, nullptr, nullptr);
}

void clear_pointers(GstElement* pipeline)
{
    for (auto& [id, registered] : pipeline_map) {
        if (registered == pipeline) registered = nullptr;
    }
    if (pipeline_s == pipeline) pipeline_s = nullptr;
}

} // namespace

void StreamRun::note_playing()
{
    const std::lock_guard lock(mutex_);
    is_ended_ = false;
}

void StreamRun::ask_stop(bool has_pipeline)
{
    const std::lock_guard lock(mutex_);
    is_stop_asked_ = true;
    is_end_in_flight_ = is_end_in_flight_ || has_pipeline;
    changed_.notify_all();
}

void StreamRun::note_end()
{
    const std::lock_guard lock(mutex_);
    is_ended_ = true;
    changed_.notify_all();
}

void StreamRun::note_stopped()
{
    const std::lock_guard lock(mutex_);
    is_stopped_ = true;
    changed_.notify_all();
}

bool StreamRun::is_stop_asked() const
{
    const std::lock_guard lock(mutex_);
    return is_stop_asked_;
}

bool StreamRun::is_stopped() const
{
    const std::lock_guard lock(mutex_);
    return is_stopped_ || (is_stop_asked_ && !is_end_in_flight_);
}

bool StreamRun::wait_for_end(std::chrono::steady_clock::time_point deadline)
{
    std::unique_lock lock(mutex_);
    return changed_.wait_until(lock, deadline, [this] { return is_ended_; });
}

bool StreamRun::sleep_unless_stopped(std::chrono::milliseconds duration)
{
    std::unique_lock lock(mutex_);
    return !changed_.wait_for(lock, duration, [this] { return is_stop_asked_; });
}

void note_stream_id(const std::string& stream_id)
{
    const std::lock_guard lock(registry_mutex());
    g_stream_id = stream_id;
}

std::string noted_stream_id()
{
    const std::lock_guard lock(registry_mutex());
    return g_stream_id;
}

void register_pipeline(const std::string& stream_id, GstElement* pipeline)
{
    register_pipeline(stream_id, pipeline, stream_id);
}

void register_pipeline(const std::string& registered_id, GstElement* pipeline, const std::string& stream_id)
{
    const std::lock_guard lock(registry_mutex());
    pipeline_map[registered_id] = pipeline;
    open_run(stream_id, pipeline);
}

void register_other_id(const std::string& stream_id, GstElement* pipeline)
{
    const std::lock_guard lock(registry_mutex());
    pipeline_map[stream_id] = pipeline;
}

std::shared_ptr<StreamRun> run_of(const std::string& stream_id, GstElement* pipeline)
{
    const std::lock_guard lock(registry_mutex());
    const auto open = find_open(pipeline);
    return open != open_runs().end() ? open->run : open_run(stream_id, pipeline);
}

std::shared_ptr<StreamRun> find_run(GstElement* pipeline)
{
    const std::lock_guard lock(registry_mutex());
    const auto open = find_open(pipeline);
    return open != open_runs().end() ? open->run : nullptr;
}

void replace_pipeline(const StreamRun* run, GstElement* pipeline)
{
    const std::lock_guard lock(registry_mutex());
    const auto open = find_open(run);
    if (open == open_runs().end()) return;
    open->pipeline = pipeline;
    const auto registered = pipeline_map.find(open->stream_id);
    if (registered != pipeline_map.end() && !registered->second) registered->second = pipeline;
}

void note_playing(GstElement* pipeline)
{
    const std::lock_guard lock(registry_mutex());
    pipeline_s = pipeline;
}

int32_t choose_frame_rate(int32_t fps)
{
    const std::lock_guard lock(registry_mutex());
    if (fps > 0) g_fps = fps;
    return fps < 0 ? fps : g_fps;
}

void advance_buffer_index()
{
    const std::lock_guard lock(registry_mutex());
    if (g_buffer_count > 0) buffer_index = (buffer_index + 1) % static_cast<uint64_t>(g_buffer_count);
}

SourceNote::SourceNote(GstElement* source) : source_(source)
{
    const std::lock_guard lock(registry_mutex());
    appsrc_s = source_;
}

SourceNote::~SourceNote()
{
    const std::lock_guard lock(registry_mutex());
    if (appsrc_s == source_) appsrc_s = nullptr;
}

void send_end_of_stream(GstElement* pipeline)
{
    std::vector<ElementPtr> sources;
    collect_sources(GST_BIN(pipeline), sources);
    for (const ElementPtr& source : sources) {
        if (!takes_the_end(source.get())) continue;
        gst_element_call_async(
            source.get(), [](GstElement* element, gpointer) { end_source(element); }, nullptr, nullptr);
    }
}

void forget_pipeline(GstElement* pipeline)
{
    const std::lock_guard lock(registry_mutex());
    clear_pointers(pipeline);
    const auto open = find_open(pipeline);
    if (open != open_runs().end()) open->pipeline = nullptr;
}

void close_run(const StreamRun* run)
{
    const std::lock_guard lock(registry_mutex());
    const auto open = find_open(run);
    if (open != open_runs().end()) open_runs().erase(open);
}

std::vector<StopTarget> ask_to_stop(const std::string& stream_id, bool all)
{
    const std::lock_guard lock(registry_mutex());
    std::vector<StopTarget> targets;
    for (const auto& [id, pipeline] : pipeline_map) {
        if ((!all && id != stream_id) || !pipeline) continue;
        const auto open = find_open(pipeline);
        const std::shared_ptr<StreamRun> run = open != open_runs().end() ? open->run : nullptr;
        if (run && is_among(targets, run.get())) continue; // a pipeline of two ids
        targets.push_back({id, reference(pipeline), run});
    }
    // Beside the registered pipelines: one that is being rebuilt, and an earlier one whose id was started again.
    for (const OpenRun& open : open_runs()) {
        if ((!all && open.stream_id != stream_id) || is_among(targets, open.run.get())) continue;
        targets.push_back({open.stream_id, reference(open.pipeline), open.run});
    }
    for (const StopTarget& target : targets) {
        if (target.run) target.run->ask_stop(target.pipeline != nullptr);
    }
    return targets;
}

ElementPtr last_started_pipeline()
{
    const std::unique_lock lock(registry_mutex(), std::try_to_lock);
    return lock.owns_lock() ? reference(pipeline_s) : nullptr;
}

} // namespace Quorvis::VelStream
