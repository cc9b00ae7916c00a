#include "StreamBuildMultiMerge.h"

#include "LaunchDescription.h"
#include "Log.h"
#include "Mp4Boxes.h"
#include "ProcessEnvironment.h"
#include "RtspPush.h"
#include "StreamBuildMessages.h"
#include "StreamBuildMultiMergeEnd.h"
#include "StreamBuildRegistry.h"
#include "StreamBuildScope.h"

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

using namespace Quorvis::VelStream;

// The composition that runs; null when none does.
static GstElement* pipeline_g = nullptr;
static GMainLoop* main_loop = nullptr;

namespace {

using Clock = std::chrono::steady_clock;

constexpr guint kSliceMs = 50; // in which a composition looks for a stop
constexpr std::chrono::seconds kGraceBehindEnd{5};
/// An end of stream that has not come through by then is pushed along.
constexpr std::chrono::milliseconds kForceAfter{1000};
constexpr std::chrono::milliseconds kNullBound{500};
/// How long a stop waits: until the composition gives up waiting itself, and has noticed.
constexpr std::chrono::milliseconds kStopBound = kEndOfStreamBound + std::chrono::milliseconds(500);

// ---- The process's composition ----

/// Guards what follows and the two pointers above. Never held across a call of GStreamer's that can block, and never
/// destroyed: a composition may still end while the process leaves main().
std::mutex& composition_mutex()
{
    static auto* mutex = new std::mutex;
    return *mutex;
}

/// What the composition shares with the threads that stop it.
struct Current {
    std::shared_ptr<StreamRun> run; ///< Null when there is no composition.
    std::thread::id runner;
};

Current& current()
{
    static auto* slot = new Current;
    return *slot;
}

/// Makes the caller's run the process's composition for the life of the object, if there is no other.
class Claim {
public:
    Claim()
    {
        const std::lock_guard lock(composition_mutex());
        if (current().run) return;
        run_ = std::make_shared<StreamRun>();
        current() = {run_, std::this_thread::get_id()};
    }
    ~Claim()
    {
        if (!run_) return;
        const std::lock_guard lock(composition_mutex());
        current() = {};
    }
    Claim(const Claim&) = delete;
    Claim& operator=(const Claim&) = delete;

    explicit operator bool() const { return run_ != nullptr; }
    StreamRun& run() const { return *run_; }

private:
    std::shared_ptr<StreamRun> run_;
};

/// Shows a pipeline and its loop to the threads that stop it, for the life of the object.
class PipelineNote {
public:
    PipelineNote(GstElement* pipeline, GMainLoop* loop) { set(pipeline, loop); }
    ~PipelineNote() { set(nullptr, nullptr); }
    PipelineNote(const PipelineNote&) = delete;
    PipelineNote& operator=(const PipelineNote&) = delete;

private:
    static void set(GstElement* pipeline, GMainLoop* loop)
    {
        const std::lock_guard lock(composition_mutex());
        pipeline_g = pipeline;
        main_loop = loop;
    }
};

std::shared_ptr<StreamRun> current_run()
{
    const std::lock_guard lock(composition_mutex());
    return current().run;
}

// ---- Messages ----

/// The pipeline's own element that a message is about: the message may come from a part of it.
ElementPtr origin_of(GstMessage* message, GstElement* pipeline)
{
    GstObject* origin = GST_MESSAGE_SRC(message);
    while (origin && GST_OBJECT_PARENT(origin) && GST_OBJECT_PARENT(origin) != GST_OBJECT(pipeline))
        origin = GST_OBJECT_PARENT(origin);
    return ElementPtr(origin && GST_IS_ELEMENT(origin) ? GST_ELEMENT(gst_object_ref(origin)) : nullptr);
}

/// Its name and, of a camera, a file or a push, its address.
std::string describe(GstElement* element)
{
    if (!element) return "unknown";
    std::string text = GST_ELEMENT_NAME(element);
    const GParamSpec* spec = g_object_class_find_property(G_OBJECT_GET_CLASS(element), "location");
    if (!spec || spec->value_type != G_TYPE_STRING) return text;
    char* raw_location = nullptr;
    g_object_get(element, "location", &raw_location, nullptr);
    const TextPtr location(raw_location);
    return location ? text + " (" + location.get() + ")" : text;
}

void log_warning(GstMessage* message, GstElement* pipeline)
{
    GError* raw_error = nullptr;
    gst_message_parse_warning(message, &raw_error, nullptr);
    const ErrorPtr error(raw_error);
    VEL_LOG_WARN("Composition: %s warns: %s", describe(origin_of(message, pipeline).get()).c_str(),
                 error ? error->message : "none");
}

// ---- One run ----

/// Its loop has a context of its own: the application may run the default one.
class Composition {
public:
    Composition(ElementPtr pipeline, StreamRun& run)
        : pipeline_(std::move(pipeline)), run_(run), context_(g_main_context_new()),
          loop_(g_main_loop_new(context_.get(), FALSE))
    {
    }

    /// Until the end of stream, an error, or a stop whose end of stream has come through or takes too long.
    void run();
    void handle(GstBus* bus, GstMessage* message);
    void look_around();

private:
    void play();
    bool is_stopped_at_its_start();
    void wait_for_end();
    void clear_away();
    SourcePtr watch_bus();
    SourcePtr watch_stops();
    void handle_error(GstMessage* message);
    bool can_finish_recording() const;
    void begin_end();

    ElementPtr pipeline_;
    StreamRun& run_;
    MainContextPtr context_;
    MainLoopPtr loop_;
    std::shared_ptr<RecordingState> recording_ = std::make_shared<RecordingState>();
    bool has_failed_ = false;
    bool has_sink_failed_ = false;
    bool is_finishing_ = false; ///< It has failed, and the recording gets its index.
    bool is_forced_ = false;
    std::optional<Clock::time_point> end_begin_;
};

gboolean bus_cb(GstBus* bus, GstMessage* message, gpointer user_data)
{
    static_cast<Composition*>(user_data)->handle(bus, message);
    return G_SOURCE_CONTINUE;
}

gboolean slice_cb(gpointer user_data)
{
    static_cast<Composition*>(user_data)->look_around();
    return G_SOURCE_CONTINUE;
}

void Composition::run()
{
    add_end_probes(pipeline_.get());
    follow_recording(pipeline_.get(), recording_);
    {
        const PipelineNote note(pipeline_.get(), loop_.get());
        if (!run_.is_stop_asked()) play();
    }
    run_.note_end();
    clear_away();
}

void Composition::play()
{
    gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);
    if (!is_stopped_at_its_start()) wait_for_end();
}

/// A start can take long, with a large model above all, and a stop that came meanwhile has waited for its time. No
/// camera has sent anything before the start is through, so there is nothing to wait for, and what comes later is not
/// recorded.
bool Composition::is_stopped_at_its_start()
{
    return run_.is_stop_asked() && recording_->refuse();
}

void Composition::wait_for_end()
{
    const SourcePtr messages = watch_bus();
    const SourcePtr slices = watch_stops();
    g_main_loop_run(loop_.get());
    if (can_finish_recording()) {
        is_finishing_ = true;
        if (!end_begin_) begin_end();
        g_main_loop_run(loop_.get());
    }
    g_source_destroy(messages.get());
    g_source_destroy(slices.get());
}

/// Names what keeps a pipeline from coming down, and says when it has come down after all.
void note_left_behind(GstElement* pipeline)
{
    const ElementPtr stuck = find_stuck_element(pipeline);
    VEL_LOG_WARN("Composition: %s does not come down; it is left behind.", describe(stuck.get()).c_str());
    g_object_weak_ref(
        G_OBJECT(pipeline),
        [](gpointer, GObject*) { VEL_LOG_INFO("Composition: what was left behind has come down."); }, nullptr);
}

void Composition::clear_away()
{
    const std::string file = open_recording(pipeline_.get());
    const bool is_empty = recording_->refuse(); // cameras go on until the outputs are down, and an output may take long
    if (!take_down(share(pipeline_.get()), kNullBound)) note_left_behind(pipeline_.get());
    if (is_empty)
        remove_recording(file);
    else if (has_sink_failed_ && is_recording_closed(pipeline_.get()))
        cut_broken_mp4_end(file);
    pipeline_.reset();
}

SourcePtr Composition::watch_bus()
{
    const BusPtr bus(gst_element_get_bus(pipeline_.get()));
    SourcePtr source(gst_bus_create_watch(bus.get()));
    g_source_set_callback(source.get(), G_SOURCE_FUNC(bus_cb), this, nullptr);
    g_source_attach(source.get(), context_.get());
    return source;
}

SourcePtr Composition::watch_stops()
{
    SourcePtr source(g_timeout_source_new(kSliceMs));
    g_source_set_callback(source.get(), slice_cb, this, nullptr);
    g_source_attach(source.get(), context_.get());
    return source;
}

void Composition::handle(GstBus* bus, GstMessage* message)
{
    switch (GST_MESSAGE_TYPE(message)) {
    case GST_MESSAGE_WARNING:
        log_warning(message, pipeline_.get());
        return;
    case GST_MESSAGE_ERROR:
        handle_error(message);
        break;
    case GST_MESSAGE_EOS:
        break;
    default:
        return;
    }
    const bool is_error = GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR;
    if (is_finishing_ && is_error) return; // one failure brings others along
    bus_call(bus, message, loop_.get());
}

void Composition::handle_error(GstMessage* message)
{
    has_failed_ = true;
    const ElementPtr origin = origin_of(message, pipeline_.get());
    const GstElementFactory* factory = origin ? gst_element_get_factory(origin.get()) : nullptr;
    if (factory && std::string(GST_OBJECT_NAME(factory)) == "filesink") has_sink_failed_ = true;
    VEL_LOG_ERROR("Composition: %s failed: %s", describe(origin.get()).c_str(), ErrorReport(message).debug());
}

/// An error ends the run, and the file has no index yet. Nothing can be done for one that cannot be written.
bool Composition::can_finish_recording() const
{
    return has_failed_ && !has_sink_failed_ && recording_->has_begun() && !recording_->is_complete;
}

void Composition::begin_end()
{
    end_begin_ = Clock::now();
    send_end_of_stream(pipeline_.get());
    end_unfed_inputs(pipeline_.get());
}

void Composition::look_around()
{
    if (!end_begin_ && run_.is_stop_asked()) begin_end();
    if (!end_begin_) return;
    const auto elapsed = Clock::now() - *end_begin_;
    if (is_finishing_ && (recording_->is_complete || has_sink_failed_)) {
        g_main_loop_quit(loop_.get());
    } else if (elapsed >= kEndOfStreamBound) {
        if (recording_->has_begun() && !recording_->is_complete)
            VEL_LOG_WARN("Composition: the end of stream did not arrive in time; the recording may be incomplete.");
        else
            VEL_LOG_WARN("Composition: the end of stream did not arrive everywhere in time.");
        g_main_loop_quit(loop_.get());
    } else if (elapsed >= kForceAfter && !is_forced_) {
        is_forced_ = true;
        force_end_everywhere(pipeline_.get());
    }
}

// ---- The pipeline ----

void set_display_environment()
{
    const std::lock_guard lock(environment_mutex());
    set_environment("WAYLAND_DISPLAY", "wayland-1");
    set_environment("XDG_RUNTIME_DIR", "/run/user/root");
}

bool has_file_address(const StreamProperty& prop)
{
    bool has_address = false;
    for (const OutputStreamProperty& output : prop.outputs) {
        if (output.outputType == "File") has_address = !output.outputAddr.empty();
    }
    return has_address;
}

ElementPtr make_pipeline(const StreamProperty& prop, bool use_tee, int mode)
{
    const std::string description = get_4_cameras_launch_command(prop, use_tee, mode);
    VEL_LOG_INFO("The final pipeline string is: %s", description.c_str());
    gst_init(nullptr, nullptr);
    std::string failure;
    ElementPtr pipeline = launch_pipeline(description, failure);
    if (!pipeline) {
        VEL_LOG_ERROR("Failed to create pipeline.");
        VEL_LOG_ERROR("The launch description is not complete: %s", failure.c_str());
        return nullptr;
    }
    replace_rtsp_pushes(pipeline.get());
    secure_recording(pipeline.get());
    if (!has_file_address(prop)) discard_recording(pipeline.get());
    return pipeline;
}

bool has_inputs(const StreamProperty& prop)
{
    if (prop.inputs.empty()) {
        VEL_LOG_ERROR("A composition needs at least one input, and none was added.");
        return false;
    }
    if (prop.inputs.size() != 4) VEL_LOG_WARN("A composition shows four inputs; %zu were added.", prop.inputs.size());
    return true;
}

} // namespace

gboolean bus_call(GstBus*, GstMessage* message, gpointer loop)
{
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) {
        VEL_LOG_INFO("EOS received, exiting main loop.\n");
        const std::shared_ptr<StreamRun> run = current_run();
        if (run)
            run->sleep_unless_stopped(kGraceBehindEnd);
        else
            std::this_thread::sleep_for(kGraceBehindEnd);
        g_main_loop_quit(static_cast<GMainLoop*>(loop));
    } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
        VEL_LOG_ERROR("ERROR: %s", ErrorReport(message).text());
        g_main_loop_quit(static_cast<GMainLoop*>(loop));
    }
    return TRUE;
}

int start_stream_multi_merge(StreamProperty prop, bool use_tee, int mode)
{
    set_display_environment();
    if (!has_inputs(prop)) return -1;
    const Claim claim;
    if (!claim) {
        VEL_LOG_ERROR("A composition is running already: a process has one.");
        return -1;
    }
    ElementPtr pipeline = make_pipeline(prop, use_tee, mode);
    if (!pipeline) return -1;
    Composition(std::move(pipeline), claim.run()).run();
    return 0;
}

void stop_multi_merge()
{
    VEL_LOG_INFO("Received SIGINT signal, will send EOS to pipeline.");
    std::shared_ptr<StreamRun> run;
    ElementPtr pipeline;
    bool is_own_thread = false;
    {
        const std::lock_guard lock(composition_mutex());
        run = current().run;
        is_own_thread = current().runner == std::this_thread::get_id();
        if (pipeline_g) pipeline.reset(GST_ELEMENT(gst_object_ref(pipeline_g)));
    }
    if (run) run->ask_stop(pipeline != nullptr);
    if (pipeline)
        send_end_of_stream(pipeline.get());
    else
        VEL_LOG_WARN("pipeline_g is NULL, cannot send EOS.");
    force_end(pipeline.get());
    VEL_LOG_WARN("Sending EOS to pipeline completed.");
    pipeline.reset();
    if (run && !is_own_thread) run->wait_for_end(Clock::now() + kStopBound);
}
