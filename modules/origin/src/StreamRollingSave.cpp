#include "StreamRollingSave.h"

#include "LaunchDescription.h"
#include "Log.h"
#include "PlatformTables.h"
#include "StreamBuildMessages.h"
#include "StreamBuildRegistry.h"
#include "StreamBuildScope.h"
#include "StreamCommon.h"
#include "StreamRollingSegments.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <optional>

namespace Quorvis::VelStream {

GMainLoop* g_loop = nullptr;

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kRollingFolder = "/tmp/rolling/";
constexpr int kFolderMode = 0755;
constexpr guint kSliceMs = 50; // in which a recording looks for a stop and for SIGINT
constexpr std::chrono::milliseconds kNullBound{500};

// ---- The segments' folder ----

/// An id that leaves the folder or its quotes would have other files deleted.
bool is_contained(const std::string& stream_id)
{
    return stream_id.find_first_of("/'\"") == std::string::npos && stream_id.find("..") == std::string::npos;
}

void clear_folder(const std::string& folder, const std::string& stream_id)
{
    const std::string command = "find '" + folder + "' -maxdepth 1 -type f -name '*.mp4' -delete";
    const int status = is_contained(stream_id) ? std::system(command.c_str()) : -1;
    if (status != 0) VEL_LOG_WARN("clear rolling dir failed, cmd=%s, ret=%d", command.c_str(), status);
}

// ---- The pipeline ----

struct CodecRow {
    std::string_view platform;
    const char* decoder;
    const char* encoder;
};

// The last row leaves the names out: a file is not recorded there, and its description does not parse.
constexpr CodecRow kCodecs[] = {
    {"8550", "qtic2vdec", "qtic2venc"},
    {"6490", "qtivdec", "qtic2venc"},
    {"v4l2", "v4l2h264dec", "v4l2h264enc"}, // for H.265 streams too
    {"", "", ""},
};

/// @param parser   "h264parse" or "h265parse"
/// @param depay    its depayloader
/// @param caps     what the segments hold
std::string camera_description(const StreamProperty& property, const std::string& depay, const std::string& parser,
                               const std::string& caps)
{
    return "rtspsrc location=\"" + property.inputAddr + "\" latency=200 protocols=tcp ! " + depay + " ! " + parser +
           " config-interval=-1 disable-passthrough=true ! " + caps;
}

std::string file_description(const StreamProperty& property, const std::string& parser, const std::string& caps)
{
    const CodecRow& codec = platform_row(kCodecs);
    return "filesrc location=\"" + property.inputAddr + "\" ! qtdemux name=d d.video_0 ! queue ! " + parser + " ! " +
           codec.decoder + " ! videorate ! video/x-raw,framerate=" + std::to_string(property.rollingFps) +
           "/1 ! identity sync=true ! " + codec.encoder + " ! " + parser + " ! " + caps;
}

/// The location is a format that the segment's number is put into.
std::string without_conversions(const std::string& text)
{
    std::string escaped;
    for (const char c : text)
        escaped += c == '%' ? "%%" : std::string(1, c);
    return escaped;
}

std::string recorded_part(const StreamProperty& property)
{
    const bool is_camera = property.inputType == "rtsp";
    if (property.decodeType == "H264") {
        const std::string caps = "video/x-h264,stream-format=avc,alignment=au";
        return is_camera ? camera_description(property, "rtph264depay", "h264parse", caps)
                         : file_description(property, "h264parse", caps);
    }
    // A file's segments ask for a format that H.265 does not have, on purpose.
    return is_camera ? camera_description(property, "rtph265depay", "h265parse",
                                          "video/x-h265,stream-format=hvc1,alignment=au")
                     : file_description(property, "h265parse", "video/x-h265,stream-format=avc,alignment=au");
}

/// A description with a hole in it is not even tried: GStreamer complains loudly while it drops the half that it made.
ElementPtr launch(const StreamProperty& property, const std::string& description, std::string& failure)
{
    if (property.inputType != "file" || *platform_row(kCodecs).decoder) return launch_pipeline(description, failure);
    failure = "syntax error: this platform has no decoder to record a file with";
    return nullptr;
}

ElementPtr make_pipeline(const StreamProperty& property, const std::string& stream_id)
{
    const std::string description = rolling_description(property, stream_id);
    VEL_LOG_INFO("Rolling save pipe desc: %s", description.c_str());
    std::string failure;
    ElementPtr pipeline = launch(property, description, failure);
    if (!pipeline)
        VEL_LOG_ERROR("Pipeline build error: %s\n", failure.empty() ? "unknown" : failure.c_str());
    else if (!failure.empty())
        VEL_LOG_ERROR("Parse warning: %s\n", failure.c_str());
    return pipeline;
}

// ---- Time stamps ----

/// Mends the time stamps that the muxer would end the recording over. A parser that gets two pictures under one time
/// stamp hands out the second without any: such a picture is put right behind the one before. And after a network that
/// stood still for seconds the camera's pictures come in a heap, for which the source sets its clock back: what follows
/// is put behind what is recorded, from the step on where it is a large one. In decoding order a key frame comes later
/// than all before it.
class RecordedTimes {
public:
    void mend(GstPadProbeInfo* info)
    {
        auto* buffer = static_cast<GstBuffer*>(info->data);
        const GstClockTime time = time_of(buffer);
        const GstClockTime decoding_time = GST_BUFFER_DTS_IS_VALID(buffer) ? GST_BUFFER_DTS(buffer) : time;
        const bool is_key = !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
        if (is_key || time + shift_ + kLongestReordering < newest_) {
            // Each by its own: pictures that are reordered are decoded before others are shown.
            put_behind(newest_, time);
            put_behind(newest_decoding_, decoding_time);
        }
        if (time != GST_BUFFER_PTS(buffer) || shift_ > 0) info->data = moved(buffer, time);
        last_ = time;
        newest_ = std::max(newest_, time + shift_);
        newest_decoding_ = std::max(newest_decoding_, decoding_time + shift_);
    }

private:
    void put_behind(GstClockTime newest, GstClockTime time)
    {
        if (newest > 0 && time + shift_ <= newest) shift_ = newest + GST_MSECOND - time;
    }
    GstClockTime time_of(GstBuffer* buffer) const
    {
        if (GST_BUFFER_PTS_IS_VALID(buffer)) return GST_BUFFER_PTS(buffer);
        return GST_BUFFER_DTS_IS_VALID(buffer) ? GST_BUFFER_DTS(buffer) : last_ + GST_MSECOND;
    }
    GstBuffer* moved(GstBuffer* buffer, GstClockTime time) const
    {
        buffer = gst_buffer_make_writable(buffer);
        GST_BUFFER_PTS(buffer) = time + shift_;
        if (GST_BUFFER_DTS_IS_VALID(buffer)) GST_BUFFER_DTS(buffer) += shift_;
        return buffer;
    }

    static constexpr GstClockTime kLongestReordering = GST_SECOND;

    GstClockTime last_ = 0; // as it came
    GstClockTime newest_ = 0;
    GstClockTime newest_decoding_ = 0; // these two as they were handed on
    GstClockTime shift_ = 0;
};

GstPadProbeReturn mend_times(GstPad*, GstPadProbeInfo* info, gpointer times)
{
    static_cast<RecordedTimes*>(times)->mend(info);
    return GST_PAD_PROBE_OK;
}

void watch_times(GstElement* sink)
{
    const PadPtr pad(gst_element_get_static_pad(sink, "video"));
    if (!pad) return;
    gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, mend_times, new RecordedTimes,
                      [](gpointer times) { delete static_cast<RecordedTimes*>(times); });
}

void prepare_recorder(GstElement* pipeline)
{
    const ElementPtr sink(gst_bin_get_by_name(GST_BIN(pipeline), "rec"));
    if (!sink) return;
    watch_times(sink.get());
    order_segments(sink.get());
}

// ---- SIGINT ----

/// How often SIGINT has come. All that the handler does is count: what it interrupts may hold any lock, GStreamer's and
/// the log's included. The recordings see it in their loops.
std::atomic<unsigned> interrupts{0};
static_assert(std::atomic<unsigned>::is_always_lock_free);

void handle_sigint(int)
{
    interrupts.fetch_add(1, std::memory_order_relaxed);
}

// ---- The main loop ----

/// Makes a loop the process's last recording for the life of the object.
class LoopNote {
public:
    explicit LoopNote(GMainLoop* loop) : loop_(loop) { std::atomic_ref(g_loop).store(loop_); }
    ~LoopNote()
    {
        GMainLoop* noted = loop_;
        std::atomic_ref(g_loop).compare_exchange_strong(noted, nullptr); // a later recording's stays
    }
    LoopNote(const LoopNote&) = delete;
    LoopNote& operator=(const LoopNote&) = delete;

private:
    GMainLoop* loop_;
};

/// One recording. Its loop has a context of its own: the application may run the default one.
class Recording {
public:
    /// @param seen_interrupts  the count when the recording was asked for: one that came since ends it.
    Recording(RunScope& scope, unsigned seen_interrupts)
        : scope_(scope), context_(g_main_context_new()), loop_(g_main_loop_new(context_.get(), FALSE)),
          note_(loop_.get()), seen_interrupts_(seen_interrupts)
    {
    }

    void run();
    void handle(GstMessage* message);
    void look_around();

private:
    void watch_bus();
    void watch_stops();
    void send_end();
    bool is_writing(GstMessage* message) const;

    RunScope& scope_;
    MainContextPtr context_;
    MainLoopPtr loop_;
    LoopNote note_;
    unsigned seen_interrupts_;
    std::optional<Clock::time_point> end_deadline_;
};

gboolean bus_cb(GstBus*, GstMessage* message, gpointer user_data)
{
    static_cast<Recording*>(user_data)->handle(message);
    return G_SOURCE_CONTINUE;
}

gboolean slice_cb(gpointer user_data)
{
    static_cast<Recording*>(user_data)->look_around();
    return G_SOURCE_CONTINUE;
}

void Recording::run()
{
    if (!scope_.play()) return;
    watch_bus();
    watch_stops();
    VEL_LOG_INFO("Pipeline PLAYING. Press Ctrl+C to quit.\n");
    g_main_loop_run(loop_.get());
}

void Recording::watch_bus()
{
    const SourcePtr source(gst_bus_create_watch(scope_.data()->bus));
    g_source_set_callback(source.get(), G_SOURCE_FUNC(bus_cb), this, nullptr);
    g_source_attach(source.get(), context_.get());
}

void Recording::watch_stops()
{
    const SourcePtr source(g_timeout_source_new(kSliceMs));
    g_source_set_callback(source.get(), slice_cb, this, nullptr);
    g_source_attach(source.get(), context_.get());
}

void Recording::handle(GstMessage* message)
{
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) {
        VEL_LOG_INFO("EOS received.\n");
        g_main_loop_quit(loop_.get());
    } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_WARNING) {
        // A server that goes away gives no more than this, and then the end of the stream.
        VEL_LOG_WARN("WARNING from %s: %s\n", source_name(message), ErrorReport(message).text());
    } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
        const ErrorReport report(message);
        VEL_LOG_ERROR("ERROR from %s: %s\n", source_name(message), report.text());
        if (report.has_debug()) VEL_LOG_ERROR("debug: %s\n", report.debug());
        if (is_writing(message)) scope_.let_output_finish();
        g_main_loop_quit(loop_.get());
    }
}

/// True when a failure before the recorder leaves it a segment to complete.
bool Recording::is_writing(GstMessage* message) const
{
    const ElementPtr sink(gst_bin_get_by_name(GST_BIN(scope_.pipeline()), "rec"));
    GstState state = GST_STATE_NULL;
    return sink && !gst_object_has_as_ancestor(GST_MESSAGE_SRC(message), GST_OBJECT(sink.get())) &&
           gst_element_get_state(sink.get(), &state, nullptr, 0) == GST_STATE_CHANGE_SUCCESS &&
           state == GST_STATE_PLAYING;
}

/// A stop takes a pipeline down whose end does not come through, and that flushes its bus: nothing else wakes the loop.
void Recording::look_around()
{
    const unsigned count = interrupts.load(std::memory_order_relaxed);
    if (count != seen_interrupts_) {
        seen_interrupts_ = count;
        send_end();
    }
    const bool is_overdue = end_deadline_ && Clock::now() >= *end_deadline_;
    if (is_overdue || scope_.run().is_stopped()) g_main_loop_quit(loop_.get());
}

/// The end of stream completes the current segment, and ends the loop when it has come through.
void Recording::send_end()
{
    VEL_LOG_INFO("Received SIGINT signal, will send EOS to pipeline.");
    send_end_of_stream(scope_.pipeline());
    if (!end_deadline_) end_deadline_ = Clock::now() + kEndOfStreamBound;
    VEL_LOG_WARN("Sending EOS to pipeline completed.");
}

} // namespace

std::string rolling_description(const StreamProperty& property, const std::string& stream_id)
{
    if (property.decodeType != "H264" && property.decodeType != "H265") {
        VEL_LOG_ERROR("The input decord type : %s is not supported.", property.decodeType.c_str());
        return {};
    }
    if (property.inputType != "rtsp" && property.inputType != "file") return {};
    return recorded_part(property) + " ! splitmuxsink name=rec muxer=mp4mux location=" + kRollingFolder +
           without_conversions(stream_id) + "/%05d.mp4 max-size-time=2000000000 async-finalize=true max-files=100";
}

int start_rolling_save(std::string stream_id)
{
    gst_init(nullptr, nullptr);
    const unsigned seen_interrupts = interrupts.load(std::memory_order_relaxed);
    std::signal(SIGINT, handle_sigint);
    const std::string folder = kRollingFolder + stream_id;
    g_mkdir_with_parents(folder.c_str(), kFolderMode);
    clear_folder(folder, stream_id);

    StreamProperty property;
    get_configuration_properties(stream_id, property); // without an entry the defaults stand
    ElementPtr pipeline = make_pipeline(property, stream_id);
    if (!pipeline) return -1;
    prepare_recorder(pipeline.get());
    register_pipeline(stream_id, pipeline.get());
    PiplineData data;
    data.streamId = stream_id;
    data.pipeline = pipeline.release();
    RunScope scope(&data);
    Recording(scope, seen_interrupts).run();
    scope.release_within(kNullBound);
    return 0;
}

} // namespace Quorvis::VelStream
