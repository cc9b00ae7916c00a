#include "StreamBuildTap.h"

#include "ElementTools.h"
#include "Log.h"
#include "StreamBuild.h"

#include <cstdio>
#include <exception>

namespace Quorvis::VelStream {

namespace {

constexpr GstClockTime kRateInterval = 999999999; // ns
constexpr int kBytesPerPixel = 3;                 // packed RGB

/// What a pad's caps say, read once for each caps. Kept on the pad, so that a frame costs no text.
struct CapsReading {
    CapsPtr caps; // held, so that no other caps can have this address
    TextPtr text;
    bool has_structure = false;
    bool has_size = false;
    int width = 0;
    int height = 0;
};

GQuark reading_quark()
{
    static const GQuark quark = g_quark_from_static_string("velstream-caps-reading");
    return quark;
}

void read_caps(CapsReading& reading, GstCaps* caps)
{
    reading.text.reset(gst_caps_to_string(caps));
    reading.has_structure = gst_caps_get_size(caps) > 0;
    reading.has_size = false;
    if (!reading.has_structure) return;
    const GstStructure* structure = gst_caps_get_structure(caps, 0);
    reading.has_size = gst_structure_get_int(structure, "width", &reading.width) &&
                       gst_structure_get_int(structure, "height", &reading.height);
}

/// What the pad's caps say, read anew when they change; null while it has none. It lives with the pad.
const CapsReading* current_reading(GstPad* pad)
{
    CapsPtr caps(gst_pad_get_current_caps(pad));
    if (!caps) return nullptr;
    auto* reading = static_cast<CapsReading*>(g_object_get_qdata(G_OBJECT(pad), reading_quark()));
    if (!reading) {
        reading = new CapsReading;
        g_object_set_qdata_full(G_OBJECT(pad), reading_quark(), reading,
                                [](gpointer kept) { delete static_cast<CapsReading*>(kept); });
    }
    if (reading->caps != caps) {
        read_caps(*reading, caps.get());
        reading->caps = std::move(caps);
    }
    return reading;
}

void update_size(GstPad* pad, Image& image)
{
    const CapsReading* reading = current_reading(pad);
    if (!reading) {
        VEL_LOG_INFO("No caps available on this pad.");
        return;
    }
    if (reading->has_size) {
        image.width = reading->width;
        image.height = reading->height;
        VEL_LOG_INFO("Get width: %d, height: %d", image.width, image.height);
    } else if (reading->has_structure) {
        VEL_LOG_WARN("Width or Height not found.");
    } else {
        VEL_LOG_WARN("No structure found in caps.");
    }
    VEL_LOG_INFO("Caps: %s", reading->text.get());
    VEL_LOG_INFO("caps_str get and completed.");
}

/// Measures over intervals of at least a second; the frame that closes an interval is counted in it.
void update_rate(PiplineData* data)
{
    ++data->frameCount;
    const GstClockTime now = system_time();
    const GstClockTime elapsed = now - data->lastTime;
    if (now <= data->lastTime || elapsed <= kRateInterval) return;
    VEL_LOG_INFO("To calculate frame rate.");
    const double fps = static_cast<double>(data->frameCount) * 1000000000.0 / static_cast<double>(elapsed);
    VEL_LOG_INFO("FPS: %f", fps);
    data->frameCount = 0;
    data->lastTime = now;
    data->image.fps = fps;
    VEL_LOG_INFO("Complete to calculate frame rate.");
}

void update_timestamp(GstBuffer* buffer, Image& image)
{
    const GstClockTime pts = GST_BUFFER_PTS(buffer);
    if (!GST_CLOCK_TIME_IS_VALID(pts)) {
        VEL_LOG_INFO("Frame %ld has no timestamp.", image.frameIndex);
        return;
    }
    char text[64];
    std::snprintf(text, sizeof text, "%u:%02u:%02u.%09u", GST_TIME_ARGS(pts));
    image.timestamp = text;
}

thread_local bool t_is_in_callback = false;

/// Marks this thread for the time of a callback.
class CallbackMark {
public:
    CallbackMark() { t_is_in_callback = true; }
    ~CallbackMark() { t_is_in_callback = false; }
    CallbackMark(const CallbackMark&) = delete;
    CallbackMark& operator=(const CallbackMark&) = delete;
};

template <TapKind kind>
void fill_image(Image& image, const MappedBuffer& map)
{
    image.format = 0;
    image.data = map.data();
    image.size = map.size();
    if constexpr (kind == TapKind::Camera) {
        if (image.height > 0) image.alignedWidth = static_cast<int32_t>(map.size() / (3U * image.height));
        image.alignedHeight = image.height;
        VEL_LOG_INFO("Callback: w: %d, h: %d, id: %s, fps: %f", image.width, image.height, image.streamId.c_str(),
                     image.fps);
    } else {
        VEL_LOG_INFO("Callback: w: %d, h: %d, id: %s", image.width, image.height, image.streamId.c_str());
    }
}

template <TapKind kind>
void deliver(PiplineData* data, GstBuffer* buffer)
{
    if (!data->callback) {
        VEL_LOG_WARN("Callback not initialized.");
        return;
    }
    Image& image = data->image;
    if constexpr (kind == TapKind::Camera)
        VEL_LOG_INFO("Callback function invoking. idx: %ld", image.frameIndex);
    else
        VEL_LOG_INFO("Callback function invoking.");
    {
        constexpr auto kFlags = kind == TapKind::Recreated ? GST_MAP_READ : GstMapFlags(GST_MAP_READ | GST_MAP_WRITE);
        const MappedBuffer map(buffer, kFlags);
        if (map) {
            fill_image<kind>(image, map);
            invoke_callback(data->callback, image, data->streamId);
        }
    }
    image.data = nullptr;
    if constexpr (kind == TapKind::Camera)
        VEL_LOG_INFO("Callback function invoking completed. idx: %ld", image.frameIndex);
    else
        VEL_LOG_INFO("Callback function invoking completed.");
}

} // namespace

template <TapKind kind>
GstPadProbeReturn tap_frame(GstPad* pad, GstPadProbeInfo* info, PiplineData* data)
{
    GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
    Image& image = data->image;
    ++image.frameIndex;
    if constexpr (kind == TapKind::Camera) {
        VEL_LOG_INFO("START: on_buffer_received_v4l2 - ############################################ idx: %ld",
                     image.frameIndex);
        if (!buffer) {
            VEL_LOG_INFO("Frame %ld no buffer received.", image.frameIndex);
            return GST_PAD_PROBE_OK;
        }
        update_timestamp(buffer, image);
    }
    image.streamId = data->streamId;
    VEL_LOG_INFO("callback on_buffer_received start. frame: %ld", image.frameIndex);
    update_size(pad, image);
    update_rate(data);
    deliver<kind>(data, buffer);
    if constexpr (kind == TapKind::Camera)
        VEL_LOG_INFO("END: on_buffer_received_v4l2 - ############################################ idx: %ld",
                     image.frameIndex);
    else
        VEL_LOG_INFO("callback on_buffer_received end.");
    return GST_PAD_PROBE_OK;
}

template GstPadProbeReturn tap_frame<TapKind::Plain>(GstPad*, GstPadProbeInfo*, PiplineData*);
template GstPadProbeReturn tap_frame<TapKind::Camera>(GstPad*, GstPadProbeInfo*, PiplineData*);
template GstPadProbeReturn tap_frame<TapKind::Recreated>(GstPad*, GstPadProbeInfo*, PiplineData*);

void invoke_callback(const FrameCallback& callback, const Image& image, const std::string& stream_id)
{
    const CallbackMark mark;
    try {
        callback(image);
    } catch (const std::exception& error) {
        VEL_LOG_ERROR("Frame callback of stream %s raised an exception: %s", stream_id.c_str(), error.what());
    } catch (...) {
        VEL_LOG_ERROR("Frame callback of stream %s raised an exception.", stream_id.c_str());
    }
}

bool is_in_frame_callback()
{
    return t_is_in_callback;
}

GstPadProbeReturn on_buffer_received(GstPad* pad, GstPadProbeInfo* info, void* user_data)
{
    return tap_frame<TapKind::Plain>(pad, info, static_cast<PiplineData*>(user_data));
}

GstPadProbeReturn on_buffer_received_v4l2(GstPad* pad, GstPadProbeInfo* info, void* user_data)
{
    return tap_frame<TapKind::Camera>(pad, info, static_cast<PiplineData*>(user_data));
}

} // namespace Quorvis::VelStream
