#include "StreamBuildReencode.h"

#include "LaunchDescription.h"
#include "Log.h"
#include "Platform.h"
#include "StreamBuild.h"
#include "StreamBuildRegistry.h"
#include "StreamBuildScope.h"
#include "StreamBuildTap.h"
#include "StreamCommon.h"
#include "velstreamFrames.h"

#include <gst/video/video.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

namespace Quorvis::VelStream {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kSlice{50};    // in which a wait looks for a stop
constexpr std::chrono::milliseconds kRoomSlice{5}; // in which it looks for room in the source
constexpr std::chrono::milliseconds kPauseBeforeEnd{100};
constexpr std::chrono::milliseconds kNullBound{500}; // in which the pipeline comes down before the call ends without it

enum class Target { Mp4, Network };

bool is_running()
{
    return running.load(std::memory_order_acquire);
}

// ---- The pipeline ----

std::string v4l2_description(const StreamProperty& property, Target target)
{
    const int width = align_up(property.width, 128);
    const int height = align_up(property.height, 32);
    std::printf("_width: %d, _height: %d\n", width, height);
    // A negative border: the encoder's rows are padded below.
    const std::string bottom = std::to_string(property.height - height);
    const std::string head = "appsrc name=mysrc is-live=true format=time ! videobox bottom=" + bottom;
    if (target == Target::Mp4)
        return head + " ! videoconvert ! v4l2h264enc ! h264parse ! mp4mux ! filesink location=" + property.outputFile;
    return head +
           " ! videoconvert ! v4l2h264enc ! h264parse ! rtspclientsink protocols=tcp location=" + property.outputAddr;
}

std::string c2_description(const StreamProperty& property, Target target, int32_t fps)
{
    const std::string head =
        "appsrc name=mysrc is-live=true format=time ! videoconvert ! video/x-raw,format=NV12,framerate=" +
        std::to_string(fps);
    if (target == Target::Mp4)
        return head + "/1 ! qtic2venc ! h264parse ! mp4mux ! filesink location=" + property.outputFile;
    return head + "/1 ! qtic2venc ! h264parse ! rtspclientsink protocols=tcp location=" + property.outputAddr;
}

ElementPtr make_pipeline(const StreamProperty& property, Target target, int32_t fps)
{
    const std::string description =
        has_v4l2_codecs() ? v4l2_description(property, target) : c2_description(property, target, fps);
    std::printf("pipeline:%s\n", description.c_str());
    std::fflush(stdout);
    std::string failure;
    ElementPtr pipeline = launch_pipeline(description, failure);
    if (pipeline) return pipeline;
    VEL_LOG_ERROR("Failed to create pipeline.");
    VEL_LOG_ERROR("The pipeline's description fails: %s", failure.c_str());
    return nullptr;
}

void register_output(const StreamProperty& property, Target target, GstElement* pipeline)
{
    const std::string& id = property.streamsId;
    register_pipeline(id + (target == Target::Mp4 ? "_mp4" : "_network"), pipeline, id);
    if (target == Target::Mp4)
        VEL_LOG_INFO("Registration pipeline for mp4 stream id: %s", id.c_str());
    else
        VEL_LOG_INFO("Registration pipeline for network stream id: %s", id.c_str());
}

ElementPtr find_source(GstElement* pipeline, const StreamProperty& property, int32_t fps)
{
    ElementPtr source(gst_bin_get_by_name(GST_BIN(pipeline), "mysrc"));
    const CapsPtr caps(gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "RGB", "width", G_TYPE_INT,
                                           property.width, "height", G_TYPE_INT, property.height, "framerate",
                                           GST_TYPE_FRACTION, fps, 1, nullptr));
    g_object_set(source.get(), "caps", caps.get(), nullptr);
    return source;
}

void use_clock_of_system(GstElement* pipeline)
{
    const ClockPtr clock(gst_system_clock_obtain());
    gst_pipeline_use_clock(GST_PIPELINE(pipeline), clock.get());
}

// ---- The shared frame ----

/// Turns at the shared frame, in the order in which they were asked for: what a callback has drawn is what is encoded,
/// also while another re-encoder runs.
class FrameTurn {
public:
    /// Waits for the turn while `is_wanted`.
    template <typename Wanted>
    explicit FrameTurn(Wanted&& is_wanted)
    {
        std::unique_lock lock(line().mutex);
        line().waiting.push_back(this);
        while (!is_first() && is_wanted())
            line().changed.wait_for(lock, kSlice, [this] { return is_first(); });
        has_turn_ = is_first();
    }
    ~FrameTurn()
    {
        const std::lock_guard lock(line().mutex);
        std::erase(line().waiting, this);
        line().changed.notify_all();
    }
    FrameTurn(const FrameTurn&) = delete;
    FrameTurn& operator=(const FrameTurn&) = delete;

    explicit operator bool() const { return has_turn_; }

private:
    struct Line {
        std::mutex mutex;
        std::condition_variable changed;
        std::deque<const FrameTurn*> waiting; ///< The first one has the turn.
    };
    static Line& line()
    {
        static auto* line = new Line; // a re-encoder may still end while the process leaves main()
        return *line;
    }
    bool is_first() const { return line().waiting.front() == this; }

    bool has_turn_ = false;
};

/// Bytes of one frame; 0 for a size that is none.
std::size_t frame_size(const StreamProperty& property)
{
    if (property.width <= 0 || property.height <= 0) return 0;
    return static_cast<std::size_t>(property.width) * static_cast<std::size_t>(property.height) * 3;
}

/// The first size that was asked for stays for the life of the library.
bool fits_shared_frame(const StreamProperty& property)
{
    const std::size_t size = frame_size(property);
    if (size > 0 && size <= g_share_memory_mp4.data.size()) return true;
    VEL_LOG_ERROR("The shared frame of %d x %d pixels does not hold one of %d x %d. stream_id: %s",
                  g_share_memory_mp4.width, g_share_memory_mp4.height, property.width, property.height,
                  property.streamsId.c_str());
    return false;
}

// ---- The push loop ----

/// One re-encoder at work.
class Encoder {
public:
    Encoder(RunScope& scope, GstElement* source, const StreamProperty& property, int32_t fps)
        : scope_(scope), source_(source), property_(property), size_(frame_size(property)), fps_(fps),
          duration_(gst_util_uint64_scale_int(1, GST_SECOND, fps))
    {
    }

    /// Pushes frames until it is stopped, a push fails or the pipeline does.
    void push_frames(const FrameCallback& callback);
    /// Ends the stream and waits until its end has come through.
    void finish();
    int result() const { return result_; }

private:
    bool is_wanted() const { return is_running() && !scope_.run().is_stop_asked(); }
    bool wait_for_room();
    BufferPtr draw(const FrameCallback& callback);
    bool push(BufferPtr buffer);
    bool is_going_on();
    void log_error(GstMessage* message);
    void wait_for_end();
    void pace(Clock::time_point start) const;

    RunScope& scope_;
    GstElement* source_;
    const StreamProperty& property_;
    std::size_t size_;
    int32_t fps_;
    GstClockTime duration_;
    GstClockTime pts_ = 0;
    bool has_ended_ = false; ///< The end of the stream, or its error, has come.
    int result_ = 0;
};

void Encoder::push_frames(const FrameCallback& callback)
{
    if (!callback) VEL_LOG_WARN("Callback not initialized.");
    while (is_wanted()) {
        const Clock::time_point start = Clock::now();
        if (!wait_for_room()) return;
        BufferPtr buffer = draw(callback);
        if (!buffer || !push(std::move(buffer)) || !is_going_on()) return;
        advance_buffer_index();
        pace(start);
    }
}

/// Frames that an encoder does not keep up with wait in the source. They are not to fill the memory: like a slow
/// callback, a slow encoder lowers the rate. @return false when the loop is to be left.
bool Encoder::wait_for_room()
{
    const guint64 limit = size_ * static_cast<guint64>(std::max(g_buffer_count, 1));
    for (;;) {
        guint64 level = 0;
        g_object_get(source_, "current-level-bytes", &level, nullptr);
        if (level < limit) return true;
        if (!is_wanted() || !is_going_on()) return false;
        std::this_thread::sleep_for(kRoomSlice);
    }
}

/// @return the frame as the callback left it; null when the stop came before the turn.
BufferPtr Encoder::draw(const FrameCallback& callback)
{
    const FrameTurn turn([this] { return is_wanted(); });
    if (!turn) return nullptr;
    Image image;
    image.data = g_share_memory_mp4.data.data();
    image.width = property_.width;
    image.height = property_.height;
    image.size = size_;
    image.fps = fps_;
    if (callback) invoke_callback(callback, image, property_.streamsId);

    BufferPtr buffer(gst_buffer_new_allocate(nullptr, size_, nullptr));
    const MappedBuffer map(buffer.get(), GST_MAP_WRITE);
    if (!map) return nullptr;
    std::memcpy(map.data(), g_share_memory_mp4.data.data(), size_);
    return buffer;
}

bool Encoder::push(BufferPtr buffer)
{
    // The rows are tight; without a word about it they would be taken to be rounded up to 4 bytes.
    gsize offset[GST_VIDEO_MAX_PLANES] = {0};
    gint stride[GST_VIDEO_MAX_PLANES] = {property_.width * 3};
    gst_buffer_add_video_meta_full(buffer.get(), GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_FORMAT_RGB,
                                   static_cast<guint>(property_.width), static_cast<guint>(property_.height), 1, offset,
                                   stride);
    GST_BUFFER_PTS(buffer.get()) = pts_;
    GST_BUFFER_DURATION(buffer.get()) = duration_;
    pts_ += duration_;
    GstFlowReturn flow = GST_FLOW_ERROR;
    g_signal_emit_by_name(source_, "push-buffer", buffer.get(), &flow);
    if (flow == GST_FLOW_OK) return true;
    // A stop or a signal has ended the stream while the callback drew.
    if (flow == GST_FLOW_EOS && !is_wanted()) return false;
    VEL_LOG_ERROR("Failed to push buffer to appsrc.");
    is_going_on(); // logs the cause, if the pipeline has one
    result_ = 0;
    return false;
}

/// Looks at the bus. @return false when the pipeline has failed or the end of the stream has come.
bool Encoder::is_going_on()
{
    constexpr auto kTypes = GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR);
    const MessagePtr message(gst_bus_pop_filtered(scope_.data()->bus, kTypes));
    if (!message) return true;
    has_ended_ = true;
    if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR) {
        log_error(message.get());
        result_ = -1;
    }
    return false;
}

void Encoder::log_error(GstMessage* message)
{
    GError* raw_error = nullptr;
    char* raw_debug = nullptr;
    gst_message_parse_error(message, &raw_error, &raw_debug);
    const ErrorPtr error(raw_error);
    const TextPtr debug(raw_debug);
    VEL_LOG_ERROR("Re-encoding of stream %s failed: %s (%s)", property_.streamsId.c_str(),
                  error ? error->message : "none", debug ? debug.get() : "none");
}

/// Sleeps for what is left of the frame's slot. No catch-up: the time stamps do not follow the clock.
void Encoder::pace(Clock::time_point start) const
{
    const std::chrono::duration<double, std::milli> elapsed = Clock::now() - start;
    const int wait_ms = static_cast<int>(1000 / fps_ - elapsed.count());
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(wait_ms);
    while (is_running()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0 || !scope_.run().sleep_unless_stopped(std::min(left, kSlice))) return;
    }
}

void Encoder::finish()
{
    VEL_LOG_INFO("After receiving EOS for pipeline, exit.");
    std::this_thread::sleep_for(kPauseBeforeEnd);
    GstFlowReturn flow = GST_FLOW_ERROR;
    g_signal_emit_by_name(source_, "end-of-stream", &flow);
    // A source that never started has no end to wait for.
    if (flow == GST_FLOW_OK || flow == GST_FLOW_EOS) wait_for_end();
    scope_.run().note_end();
}

/// The muxer writes its index when the end of the stream comes through.
void Encoder::wait_for_end()
{
    constexpr auto kTypes = GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR);
    const Clock::time_point deadline = Clock::now() + kEndOfStreamBound;
    while (!has_ended_ && !scope_.run().is_stopped() && Clock::now() < deadline) {
        const MessagePtr message(
            gst_bus_timed_pop_filtered(scope_.data()->bus, kSlice / std::chrono::nanoseconds(1), kTypes));
        if (!message) continue;
        has_ended_ = true;
        if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR) log_error(message.get());
    }
}

/// Runs the pipeline of `data` until it is stopped, and releases it.
int run(PiplineData& data, const StreamProperty& property, Target target, int32_t fps, const FrameCallback& callback)
{
    use_clock_of_system(data.pipeline);
    register_output(property, target, data.pipeline);
    RunScope scope(&data);
    const ElementPtr source = find_source(data.pipeline, property, fps);
    const SourceNote note(source.get());
    if (!scope.play()) return 0;
    Encoder encoder(scope, source.get(), property, fps);
    encoder.push_frames(callback);
    encoder.finish();
    scope.release_within(kNullBound);
    return encoder.result();
}

int start_output(StreamProperty& property, Target target, const FrameCallback& callback)
{
    // The same text for both, on purpose.
    VEL_LOG_INFO("Start to save mp4, input width: %d, height: %d, fps: %d", property.width, property.height,
                 property.fps);
    set_vendor_plugin_environment();
    gst_init(nullptr, nullptr);
    install_sigint_handler();
    const int32_t fps = choose_frame_rate(property.fps);
    if (fps <= 0) {
        VEL_LOG_ERROR("A frame rate of %d is not possible. stream_id: %s", fps, property.streamsId.c_str());
        return -1;
    }
    ElementPtr pipeline = make_pipeline(property, target, fps);
    if (!pipeline || !fits_shared_frame(property)) return -1;
    PiplineData data;
    data.streamId = property.streamsId;
    data.pipeline = pipeline.release();
    return run(data, property, target, fps, callback);
}

int start_configured(const std::string& stream_id, Target target, const FrameCallback& callback)
{
    StreamProperty property;
    get_config_properties_mp4(stream_id, property); // what it misses is logged, and shows as a size of 0
    return start_output(property, target, callback);
}

} // namespace

int start_save_mp4_intern(StreamProperty& property, std::function<int8_t(const Image&)>& callback)
{
    return start_output(property, Target::Mp4, callback);
}

int start_network_intern(StreamProperty& property, std::function<int8_t(const Image&)>& callback)
{
    return start_output(property, Target::Network, callback);
}

int start_save_mp4(std::string stream_id, std::function<int8_t(const Image&)>& callback)
{
    return start_configured(stream_id, Target::Mp4, callback);
}

int start_network_push(std::string stream_id, std::function<int8_t(const Image&)>& callback)
{
    return start_configured(stream_id, Target::Network, callback);
}

} // namespace Quorvis::VelStream
