#include "StreamBuildSplice.h"

#include "LaunchDescription.h"

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/video/video.h>

#include <exception>
#include <iostream>

namespace Quorvis::VelStream {

namespace {

constexpr const char* kDescription =
    "appsrc name=src is-live=false format=time block=true ! h265parse disable-passthrough=true ! qtic2vdec ! "
    "video/x-raw,format=NV12 ! appsink name=sink emit-signals=true sync=false max-buffers=4 drop=true";
constexpr const char* kSourceCaps = "video/x-h265,stream-format=byte-stream,alignment=au";
constexpr guint64 kMaxQueuedBytes = 4194304;

thread_local const StreamContext* t_delivering = nullptr;

/// Marks this thread for the time of a callback.
class DeliveryMark {
public:
    explicit DeliveryMark(const StreamContext& context) { t_delivering = &context; }
    ~DeliveryMark() { t_delivering = nullptr; }
    DeliveryMark(const DeliveryMark&) = delete;
    DeliveryMark& operator=(const DeliveryMark&) = delete;
};

/// Sources that this thread makes belong to a main context of its own: with the process's default one, the handlers of
/// one stream would run on another stream's thread, or on the application's.
class ThreadMainContext {
public:
    ThreadMainContext() : context_(g_main_context_new()) { g_main_context_push_thread_default(context_.get()); }
    ~ThreadMainContext() { g_main_context_pop_thread_default(context_.get()); }
    ThreadMainContext(const ThreadMainContext&) = delete;
    ThreadMainContext& operator=(const ThreadMainContext&) = delete;
    GMainContext* get() const { return context_.get(); }

private:
    MainContextPtr context_;
};

struct WorkerPipeline {
    ElementPtr pipeline;
    ElementPtr appsrc;
    ElementPtr appsink;
    MainLoopPtr loop;
};

// A line goes out in one piece: several streams may write at the same time.
void print_error(const StreamContext& context, const std::string& text)
{
    std::cerr << "[ERROR][" + context.stream_id + text + "\n" << std::flush;
}

/// Only a property that was not set leaves every element in place. gst_parse_launch returns what it could build for a
/// missing element, a failed link and a syntax error too.
bool leaves_pipeline_whole(const GError& error, GstElement* pipeline)
{
    return error.domain == GST_PARSE_ERROR &&
           (error.code == GST_PARSE_ERROR_NO_SUCH_PROPERTY || error.code == GST_PARSE_ERROR_COULD_NOT_SET_PROPERTY) &&
           is_linked_throughout(pipeline);
}

/// @return null when the pipeline cannot be made as described; the cause is printed.
ElementPtr launch(const StreamContext& context)
{
    GError* raw_error = nullptr;
    ElementPtr pipeline = share(gst_parse_launch(kDescription, &raw_error));
    const ErrorPtr error(raw_error);
    if (!pipeline || (error && !leaves_pipeline_whole(*error, pipeline.get()))) {
        print_error(context, "] create pipeline failed");
        if (error) print_error(context, std::string("] ") + error->message);
        return nullptr;
    }
    if (error) std::cerr << "[WARN][" + context.stream_id + "] parse warning: " + error->message + "\n" << std::flush;
    return pipeline;
}

void quit_loop(StreamContext& context)
{
    if (const MainLoopPtr loop = loop_of(context)) g_main_loop_quit(loop.get());
}

Image make_image(const StreamContext& context, GstBuffer* buffer, const GstVideoInfo& info, const MappedBuffer& map)
{
    Image image;
    image.streamId = context.stream_id;
    image.data = map.data();
    image.size = map.size();
    image.width = GST_VIDEO_INFO_WIDTH(&info);
    image.height = GST_VIDEO_INFO_HEIGHT(&info);
    image.alignedWidth = image.width;
    image.alignedHeight = image.height;
    // A decoder that pads its rows says so on the buffer.
    const GstVideoMeta* meta = gst_buffer_get_video_meta(buffer);
    image.planeStride = meta ? meta->stride[0] : GST_VIDEO_INFO_PLANE_STRIDE(&info, 0);
    image.planeHeight = image.height;
    image.pts = GST_BUFFER_PTS_IS_VALID(buffer) ? static_cast<int64_t>(GST_BUFFER_PTS(buffer)) : -1;
    image.extra = "NV12";
    return image;
}

/// An exception must not travel through GStreamer: it ends the callback, not the stream.
void invoke(const StreamContext& context, const Image& image)
{
    const DeliveryMark mark(context);
    try {
        context.callback(image);
    } catch (const std::exception& error) {
        print_error(context, std::string("] frame callback raised an exception: ") + error.what());
    } catch (...) {
        print_error(context, "] frame callback raised an exception");
    }
}

void deliver(const StreamContext& context, GstSample* sample)
{
    GstBuffer* buffer = gst_sample_get_buffer(sample);
    const GstCaps* caps = gst_sample_get_caps(sample);
    GstVideoInfo info;
    if (!buffer || !caps || !gst_video_info_from_caps(&info, caps)) return;
    const MappedBuffer map(buffer, GST_MAP_READ);
    if (map) invoke(context, make_image(context, buffer, info, map));
}

GstFlowReturn on_new_sample(GstAppSink* appsink, void* user_data)
{
    const auto* context = static_cast<const StreamContext*>(user_data);
    if (!context || !context->callback) return GST_FLOW_OK;
    const SamplePtr sample(gst_app_sink_pull_sample(appsink));
    if (sample) deliver(*context, sample.get());
    return GST_FLOW_OK;
}

void report_error(StreamContext& context, GstMessage* message)
{
    GError* raw_error = nullptr;
    gchar* raw_debug = nullptr;
    gst_message_parse_error(message, &raw_error, &raw_debug);
    const ErrorPtr error(raw_error);
    const TextPtr debug(raw_debug);
    print_error(context, std::string("] ") + (error ? error->message : "unknown error"));
    if (debug) std::cerr << "[DEBUG][" + context.stream_id + "] " + debug.get() + "\n" << std::flush;
}

void report_state(StreamContext& context, GstMessage* message)
{
    {
        const std::lock_guard lock(context.mutex);
        if (GST_MESSAGE_SRC(message) != GST_OBJECT_CAST(context.pipeline)) return;
    }
    GstState former = GST_STATE_NULL;
    GstState current = GST_STATE_NULL;
    gst_message_parse_state_changed(message, &former, &current, nullptr);
    std::cout << "[STATE][" + context.stream_id + "] " + gst_element_state_get_name(former) + " -> " +
                     gst_element_state_get_name(current) + "\n"
              << std::flush;
}

void end(StreamContext& context)
{
    context.running.store(false, std::memory_order_release);
    quit_loop(context);
}

gboolean on_bus_message(GstBus*, GstMessage* message, void* user_data)
{
    auto* context = static_cast<StreamContext*>(user_data);
    if (!context) return TRUE;
    switch (GST_MESSAGE_TYPE(message)) {
    case GST_MESSAGE_ERROR:
        report_error(*context, message);
        end(*context);
        break;
    case GST_MESSAGE_STATE_CHANGED:
        report_state(*context, message);
        break;
    case GST_MESSAGE_EOS:
        std::cout << "[EOS][" + context->stream_id + "]\n" << std::flush;
        end(*context);
        break;
    default:
        break;
    }
    return TRUE;
}

/// The first thing that the loop does. A quit that came before the loop ran is lost to GLib, so the starter hears of
/// success only here, and a stop that came earlier is noticed here.
gboolean on_loop_running(gpointer user_data)
{
    const auto& context = *static_cast<const std::shared_ptr<StreamContext>*>(user_data);
    if (context->stopping.load(std::memory_order_acquire))
        quit_loop(*context);
    else
        complete_startup(context, kSpliceOk);
    return G_SOURCE_REMOVE;
}

void attach_first_step(const std::shared_ptr<StreamContext>& context, GMainContext* main_context)
{
    const SourcePtr source(g_idle_source_new());
    g_source_set_priority(source.get(), G_PRIORITY_HIGH);
    g_source_set_callback(source.get(), on_loop_running, const_cast<std::shared_ptr<StreamContext>*>(&context),
                          nullptr);
    g_source_attach(source.get(), main_context);
}

void configure_source(GstElement* element)
{
    GstAppSrc* appsrc = GST_APP_SRC(element);
    const CapsPtr caps(gst_caps_from_string(kSourceCaps));
    gst_app_src_set_caps(appsrc, caps.get());
    gst_app_src_set_stream_type(appsrc, GST_APP_STREAM_TYPE_STREAM);
    gst_app_src_set_max_bytes(appsrc, kMaxQueuedBytes);
}

/// The raw pointer that the handlers get is good for as long as they can run: the worker takes the pipeline down before
/// it drops its reference to the context.
void publish(StreamContext& context, const WorkerPipeline& parts)
{
    {
        const std::lock_guard lock(context.mutex);
        context.pipeline = parts.pipeline.get();
        context.appsrc = parts.appsrc.get();
        context.appsink = parts.appsink.get();
        context.loop = parts.loop.get();
    }
    configure_source(parts.appsrc.get());
    g_signal_connect(parts.appsink.get(), "new-sample", G_CALLBACK(on_new_sample), &context);
    const BusPtr bus(gst_element_get_bus(parts.pipeline.get()));
    gst_bus_add_watch(bus.get(), on_bus_message, &context);
}

int fail(const StreamContext& context, const std::string& text, int result)
{
    print_error(context, text);
    return result;
}

/// @return 0 when all parts are there.
int complete_parts(const StreamContext& context, GMainContext* main_context, WorkerPipeline& parts)
{
    parts.appsrc.reset(gst_bin_get_by_name(GST_BIN(parts.pipeline.get()), "src"));
    parts.appsink.reset(gst_bin_get_by_name(GST_BIN(parts.pipeline.get()), "sink"));
    if (!parts.appsrc || !parts.appsink) return fail(context, "] get appsrc/appsink failed", kSpliceNotPlaying);
    parts.loop.reset(g_main_loop_new(main_context, FALSE));
    if (!parts.loop) return fail(context, "] create main loop failed", kSpliceInternal);
    return kSpliceOk;
}

/// @return 0 when the stream ran, up to its end.
int play(const std::shared_ptr<StreamContext>& context, GMainContext* main_context, WorkerPipeline& parts)
{
    if (const int result = complete_parts(*context, main_context, parts); result != kSpliceOk) return result;
    publish(*context, parts);
    context->running.store(true, std::memory_order_release);
    if (gst_element_set_state(parts.pipeline.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE)
        return fail(*context, "] set PLAYING failed", kSpliceNotPlaying);
    attach_first_step(context, main_context);
    g_main_loop_run(parts.loop.get());
    return kSpliceOk;
}

void withdraw(StreamContext& context)
{
    const std::lock_guard lock(context.mutex);
    context.pipeline = nullptr;
    context.appsrc = nullptr;
    context.appsink = nullptr;
    context.loop = nullptr;
}

/// Wakes pushes that wait for room and refuses further ones. One may be the frame callback's own, for which the sink
/// waits on its way to NULL. The source itself cannot go to NULL first: its thread may be held in the sink's preroll.
void release_pushers(GstAppSrc* appsrc)
{
    gst_app_src_end_of_stream(appsrc);
    gst_app_src_set_max_bytes(appsrc, 0);
}

void tear_down(const std::shared_ptr<StreamContext>& context, WorkerPipeline& parts)
{
    if (parts.appsrc) release_pushers(GST_APP_SRC(parts.appsrc.get()));
    gst_element_set_state(parts.pipeline.get(), GST_STATE_NULL);
    if (parts.loop) {
        const BusPtr bus(gst_element_get_bus(parts.pipeline.get()));
        gst_bus_remove_watch(bus.get()); // before the main context goes
    }
    withdraw(*context);
    parts = WorkerPipeline();
    context->running.store(false, std::memory_order_release);
    context->stopping.store(false, std::memory_order_release);
    complete_startup(context, kSpliceInternal);
}

} // namespace

bool is_in_splice_callback(const StreamContext& context)
{
    return t_delivering == &context;
}

void complete_startup(const std::shared_ptr<StreamContext>& context, int result)
{
    if (!context) return;
    {
        const std::lock_guard lock(context->mutex);
        if (context->startup_done) return;
        context->startup_result = result;
        context->startup_done = true;
    }
    context->startup_cv.notify_all();
}

void run_splice_worker(const std::shared_ptr<StreamContext>& context)
{
    const ThreadMainContext main_context;
    WorkerPipeline parts;
    parts.pipeline = launch(*context);
    if (!parts.pipeline) {
        context->running.store(false, std::memory_order_release);
        complete_startup(context, kSpliceNotPlaying);
        return;
    }
    if (const int result = play(context, main_context.get(), parts); result != kSpliceOk) {
        context->running.store(false, std::memory_order_release);
        complete_startup(context, result);
    }
    tear_down(context, parts);
}

} // namespace Quorvis::VelStream
