#include "play_factory.h"

#include "clip.h"

#include <gst/app/gstappsrc.h>

#include <memory>

namespace peers {

namespace {

/// Hands the units of one track to an appsrc, one for each request. Lives as long as the appsrc's signal connection.
class TrackFeeder {
public:
    TrackFeeder(std::shared_ptr<const Clip> clip, const Track& track, bool is_looped)
        : clip_(std::move(clip)), track_(track), is_looped_(is_looped)
    {
    }

    void feed(GstAppSrc* source)
    {
        if (next_ == track_.units.size()) {
            if (!is_looped_) {
                gst_app_src_end_of_stream(source);
                return;
            }
            next_ = 0;
            offset_ += clip_->length;
        }
        GstBuffer* unit = gst_buffer_copy(track_.units[next_++].get());
        GST_BUFFER_PTS(unit) += offset_;
        GST_BUFFER_DTS(unit) += offset_;
        gst_app_src_push_buffer(source, unit);
    }

private:
    std::shared_ptr<const Clip> clip_; // keeps the track
    const Track& track_;
    bool is_looped_;
    std::size_t next_ = 0;
    GstClockTime offset_ = 0;
};

struct Camera {
    media::MediaSpec spec;
    media::MediaSpec later;
};

/// Draws one frame for each request.
class CameraFeeder {
public:
    explicit CameraFeeder(const Camera& camera)
        : spec_(camera.spec), later_(camera.later), painter_(spec_.width, spec_.height)
    {
    }

    void feed(GstAppSrc* source)
    {
        if (number_ == later_.frames) change_size(source);
        gst_app_src_push_buffer(source, media::make_frame(painter_, spec_, number_++));
    }

private:
    void change_size(GstAppSrc* source)
    {
        spec_ = later_;
        painter_ = media::FramePainter(spec_.width, spec_.height);
        const CapsPtr caps(media::frame_caps(spec_));
        gst_app_src_set_caps(source, caps.get());
    }

    media::MediaSpec spec_;
    media::MediaSpec later_;
    media::FramePainter painter_;
    int number_ = 0;
};

template <typename Feeder>
void on_need_data(GstAppSrc* source, guint, gpointer feeder)
{
    static_cast<Feeder*>(feeder)->feed(source);
}

template <typename Feeder>
void delete_feeder(gpointer feeder, GClosure*)
{
    delete static_cast<Feeder*>(feeder);
}

/// Gives an appsrc its caps and its feeder, which then belongs to it.
template <typename Feeder>
void connect_feeder(GstElement* source, const GstCaps* caps, std::unique_ptr<Feeder> feeder)
{
    g_object_set(source, "caps", caps, "format", GST_FORMAT_TIME, nullptr);
    g_signal_connect_data(source, "need-data", G_CALLBACK(on_need_data<Feeder>), feeder.release(),
                          delete_feeder<Feeder>, GConnectFlags{});
}

ElementPtr source_of(GstRTSPMedia* media, const char* name)
{
    const ElementPtr bin(gst_rtsp_media_get_element(media));
    return ElementPtr(gst_bin_get_by_name(GST_BIN(bin.get()), name));
}

GstRTSPMediaFactory* make_factory(const std::string& launch)
{
    GstRTSPMediaFactory* factory = gst_rtsp_media_factory_new();
    gst_rtsp_media_factory_set_launch(factory, launch.c_str());
    // A picture of its own for each client: a shared one answers 503 to whoever comes while the last client's is put
    // away.
    gst_rtsp_media_factory_set_shared(factory, FALSE);
    return factory;
}

std::string payload_chain(bool is_h265)
{
    return is_h265 ? "h265parse ! rtph265pay name=pay0 pt=96 config-interval=-1"
                   : "h264parse ! rtph264pay name=pay0 pt=96 config-interval=-1";
}

struct ClipShow {
    std::shared_ptr<const Clip> clip;
    bool is_looped;
    bool has_sound_only;
};

void configure_clip(GstRTSPMediaFactory*, GstRTSPMedia* media, gpointer data)
{
    const auto& show = *static_cast<const ClipShow*>(data);
    const auto connect = [&](const char* name, const Track& track) {
        const ElementPtr source = source_of(media, name);
        connect_feeder(source.get(), track.caps.get(), std::make_unique<TrackFeeder>(show.clip, track, show.is_looped));
    };
    if (!show.has_sound_only) connect("video", show.clip->video);
    if (show.clip->audio.caps) connect("audio", show.clip->audio);
}

void configure_camera(GstRTSPMediaFactory*, GstRTSPMedia* media, gpointer data)
{
    const auto& camera = *static_cast<const Camera*>(data);
    const ElementPtr source = source_of(media, "camera");
    const CapsPtr caps(media::frame_caps(camera.spec));
    connect_feeder(source.get(), caps.get(), std::make_unique<CameraFeeder>(camera));
}

template <typename T>
void delete_data(gpointer data, GClosure*)
{
    delete static_cast<T*>(data);
}

} // namespace

GstRTSPMediaFactory* make_clip_factory(const std::string& path, bool is_looped, bool has_sound_only,
                                       std::string& failure)
{
    auto clip = std::make_shared<Clip>();
    failure = load_clip(path, *clip);
    if (!failure.empty()) return nullptr;
    std::string launch = "( ";
    if (!has_sound_only) launch += "appsrc name=video ! " + payload_chain(clip->is_h265());
    if (clip->audio.caps)
        launch +=
            std::string(" appsrc name=audio ! aacparse ! rtpmp4gpay pt=97 name=") + (has_sound_only ? "pay0" : "pay1");
    GstRTSPMediaFactory* factory = make_factory(launch + " )");
    g_signal_connect_data(factory, "media-configure", G_CALLBACK(configure_clip),
                          new ClipShow{clip, is_looped, has_sound_only}, delete_data<ClipShow>, GConnectFlags{});
    return factory;
}

GstRTSPMediaFactory* make_camera_factory(const media::MediaSpec& spec, const media::MediaSpec& later)
{
    // One thread: one slice a picture, as cameras do.
    const std::string rate =
        " key-int-max=" + std::to_string(spec.fps) + " bitrate=" + std::to_string(spec.bitrate) + " ! ";
    const bool is_h265 = spec.codec == "h265";
    const std::string encoder =
        is_h265 ? "x265enc speed-preset=ultrafast tune=zerolatency option-string=log-level=error" + rate
                : "x264enc speed-preset=ultrafast tune=zerolatency threads=1" + rate;
    GstRTSPMediaFactory* factory = make_factory("( appsrc name=camera is-live=true max-buffers=2 ! videoconvert ! " +
                                                encoder + payload_chain(is_h265) + " )");
    g_signal_connect_data(factory, "media-configure", G_CALLBACK(configure_camera), new Camera{spec, later},
                          delete_data<Camera>, GConnectFlags{});
    return factory;
}

} // namespace peers
