#include "record_factory.h"

#include "peer_handles.h"

#include <gst/app/gstappsrc.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

namespace peers {

namespace {

constexpr char kStateKey[] = "velstream-recording";
constexpr std::chrono::seconds kPacketsBound{2};
constexpr std::chrono::seconds kFileBound{10};
constexpr std::chrono::milliseconds kLook{1};

/// State of one recording. `is_ended` is written by the client's thread, the rest by streaming threads.
struct Recording {
    GstClockTime last_time = 0; ///< of streaming threads, which follow one another
    std::atomic<int> frames{0};
    std::atomic<bool> is_ended{false};
    std::atomic<bool> is_written{false}; ///< The file has its end, a muxer's index included.
};

void say(const std::string& line)
{
    std::puts(line.c_str());
    std::fflush(stdout);
}

Recording* recording_of(GstRTSPMedia* media)
{
    return static_cast<Recording*>(g_object_get_data(G_OBJECT(media), kStateKey));
}

/// Encodings of an announced session, one for each of its media: "H264", "H265", "MP2T", "MPEG4-GENERIC", ...
std::vector<std::string> announced_encodings(const GstSDPMessage* sdp)
{
    std::vector<std::string> encodings;
    for (guint i = 0; i < gst_sdp_message_medias_len(sdp); ++i) {
        const GstSDPMedia* media = gst_sdp_message_get_media(sdp, i);
        const gchar* format = gst_sdp_media_get_format(media, 0);
        const CapsPtr caps(gst_sdp_media_get_caps_from_media(media, format ? std::atoi(format) : 0));
        const gchar* name =
            caps ? gst_structure_get_string(gst_caps_get_structure(caps.get(), 0), "encoding-name") : nullptr;
        encodings.emplace_back(name ? name : "");
    }
    return encodings;
}

/// Chain of one announced media. The server links the element named depay0, depay1, ... to what it receives.
std::string receive_chain(const std::string& encoding, std::size_t index)
{
    const std::string name = " name=depay" + std::to_string(index);
    if (encoding == "H264")
        return " rtph264depay" + name + " ! video/x-h264,alignment=au ! h264parse name=counted ! queue ! mux. ";
    if (encoding == "H265")
        return " rtph265depay" + name + " ! video/x-h265,alignment=au ! h265parse name=counted ! queue ! mux. ";
    if (encoding == "MPEG4-GENERIC") return " rtpmp4gdepay" + name + " ! aacparse ! queue ! mux. ";
    if (encoding == "MP4A-LATM") return " rtpmp4adepay" + name + " ! aacparse ! queue ! mux. ";
    return " identity" + name + " ! fakesink async=false ";
}

bool ends_with(const std::string& text, const std::string& end)
{
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::string record_launch(const std::vector<std::string>& encodings, const std::string& path)
{
    // A transport stream is written as it comes; its second branch only counts.
    if (encodings.size() == 1 && encodings[0] == "MP2T")
        return "( rtpmp2tdepay name=depay0 ! tee name=split ! queue ! filesink name=file async=false "
               "split. ! queue ! tsdemux name=counted-demux )";
    const std::string muxer = ends_with(path, ".ts") ? "mpegtsmux" : "mp4mux";
    std::string launch = "( " + muxer + " name=mux ! filesink name=file async=false";
    for (std::size_t i = 0; i < encodings.size(); ++i)
        launch += receive_chain(encodings[i], i);
    return launch + ")";
}

/// The announcement that is being answered on this thread; null when it is another request, or unreadable.
SdpPtr current_announcement()
{
    const GstRTSPContext* context = gst_rtsp_context_get_current();
    guint8* body = nullptr;
    guint size = 0;
    if (context && context->request) gst_rtsp_message_get_body(context->request, &body, &size);
    if (!body) return nullptr;
    GstSDPMessage* parsed = nullptr;
    gst_sdp_message_new(&parsed);
    SdpPtr sdp(parsed);
    return gst_sdp_message_parse_buffer(body, size, parsed) == GST_SDP_OK ? std::move(sdp) : nullptr;
}

/// A media factory that makes its pipeline for what the client announces.
struct RecordFactory {
    GstRTSPMediaFactory parent;
    std::string* path;
};
struct RecordFactoryClass {
    GstRTSPMediaFactoryClass parent;
};
G_DEFINE_TYPE(RecordFactory, record_factory, GST_TYPE_RTSP_MEDIA_FACTORY)

GstElement* create_element(GstRTSPMediaFactory* factory, const GstRTSPUrl*)
{
    const SdpPtr sdp = current_announcement();
    if (!sdp) return nullptr;
    const std::string& path = *reinterpret_cast<RecordFactory*>(factory)->path;
    GError* error = nullptr;
    GstElement* bin = gst_parse_launch_full(record_launch(announced_encodings(sdp.get()), path).c_str(), nullptr,
                                            GST_PARSE_FLAG_PLACE_IN_BIN, &error);
    if (error) std::fprintf(stderr, "velstream-rtsp-peer: %s\n", ErrorPtr(error)->message);
    return bin;
}

void finalize_factory(GObject* object)
{
    delete reinterpret_cast<RecordFactory*>(object)->path;
    G_OBJECT_CLASS(record_factory_parent_class)->finalize(object);
}

void record_factory_class_init(RecordFactoryClass* record_class)
{
    G_OBJECT_CLASS(record_class)->finalize = finalize_factory;
    GST_RTSP_MEDIA_FACTORY_CLASS(record_class)->create_element = create_element;
}

void record_factory_init(RecordFactory*) {}

/// Nothing waits in a source's queue or socket.
bool is_read_out(GstElement* source)
{
    if (GST_IS_APP_SRC(source)) return gst_app_src_get_current_level_bytes(GST_APP_SRC(source)) == 0;
    GSocket* used = nullptr;
    g_object_get(source, "used-socket", &used, nullptr);
    const ObjectPtr<GSocket> socket(used);
    return !socket || g_socket_get_available_bytes(socket.get()) <= 0;
}

/// @return the elements of this factory in the media's pipeline.
std::vector<ElementPtr> elements_of(GstRTSPMedia* media, const char* factory)
{
    const ElementPtr bin(gst_rtsp_media_get_element(media));
    const ElementPtr pipeline(GST_ELEMENT(gst_object_get_parent(GST_OBJECT(bin.get()))));
    std::vector<ElementPtr> elements;
    if (!pipeline) return elements;
    const IteratorPtr found(gst_bin_iterate_all_by_element_factory_name(GST_BIN(pipeline.get()), factory));
    GValue value = G_VALUE_INIT;
    while (gst_iterator_next(found.get(), &value) == GST_ITERATOR_OK) {
        elements.emplace_back(GST_ELEMENT(g_value_dup_object(&value)));
        g_value_reset(&value);
    }
    g_value_unset(&value);
    return elements;
}

/// @return what a media's packets come from.
std::vector<ElementPtr> sources_of(GstRTSPMedia* media)
{
    std::vector<ElementPtr> sources = elements_of(media, "appsrc");
    for (ElementPtr& source : elements_of(media, "udpsrc"))
        sources.push_back(std::move(source));
    return sources;
}

/// Waits until the media has taken up what the client has sent. Its last request overtakes the last packets, over TCP
/// in the queue that the media reads and over UDP in the socket; and the end that the server makes of a media skips
/// what is still there.
void wait_for_packets(GstRTSPMedia* media)
{
    const auto deadline = std::chrono::steady_clock::now() + kPacketsBound;
    for (const ElementPtr& source : sources_of(media)) {
        while (!is_read_out(source.get()) && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(kLook);
    }
}

bool has_sent(GstPad* pad, GstEventType event)
{
    return EventPtr(gst_pad_get_sticky_event(pad, event, 0)) != nullptr;
}

/// Sends the end of stream in place of a source that cannot any more. To end a media the server sets it to PLAYING;
/// when the client has only just paused it, a source's thread that is slow to look sees itself woken and running, and
/// pauses for good. Nobody takes the end that the source is given then.
void deliver_lost_end(GstPad* source)
{
    if (!GST_PAD_STREAM_TRYLOCK(source)) return; // its thread works, or waits for data
    if (gst_pad_get_task_state(source) == GST_TASK_PAUSED && !has_sent(source, GST_EVENT_EOS))
        gst_pad_push_event(source, gst_event_new_eos());
    GST_PAD_STREAM_UNLOCK(source);
}

/// Waits until the sources of a media that is being ended, packets and reports alike, have sent their ends. One that
/// has never had a packet keeps its end to itself, and the media ends without it.
void wait_for_ends(const std::vector<ElementPtr>& sources)
{
    const auto deadline = std::chrono::steady_clock::now() + kPacketsBound;
    for (const ElementPtr& source : sources) {
        const PadPtr pad(gst_element_get_static_pad(source.get(), "src"));
        while (has_sent(pad.get(), GST_EVENT_SEGMENT) && !has_sent(pad.get(), GST_EVENT_EOS) &&
               std::chrono::steady_clock::now() < deadline) {
            deliver_lost_end(pad.get());
            std::this_thread::sleep_for(kLook);
        }
    }
}

/// What a client's announcement becomes. The server ends a recording twice, when the client says that it ends and when
/// its connection closes, and the second time waits for nothing: the file's index may be on its way then.
struct RecordMedia {
    GstRTSPMedia parent;
};
struct RecordMediaClass {
    GstRTSPMediaClass parent;
};
G_DEFINE_TYPE(RecordMedia, record_media, GST_TYPE_RTSP_MEDIA)

gboolean end_file(GstRTSPMedia* media)
{
    const std::vector<ElementPtr> sources = sources_of(media); // the end takes them out of the media
    const gboolean result = GST_RTSP_MEDIA_CLASS(record_media_parent_class)->unprepare(media);
    wait_for_ends(sources);
    const Recording* recording = recording_of(media);
    const auto deadline = std::chrono::steady_clock::now() + kFileBound;
    while (recording->frames > 0 && !recording->is_written && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(kLook);
    return result;
}

void record_media_class_init(RecordMediaClass* media_class)
{
    GST_RTSP_MEDIA_CLASS(media_class)->unprepare = end_file;
}

void record_media_init(RecordMedia*) {}

GstPadProbeReturn note_file_end(GstPad*, GstPadProbeInfo* info, gpointer recording)
{
    if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_EOS)
        static_cast<Recording*>(recording)->is_written = true;
    return GST_PAD_PROBE_OK;
}

/// The client has ended its stream itself: what it sent before is complete. Some only pause before they go.
GstRTSPStatusCode on_end(GstRTSPClient*, GstRTSPContext* context, gpointer)
{
    GstRTSPMedia* media = context->sessmedia ? gst_rtsp_session_media_get_media(context->sessmedia) : nullptr;
    if (!media || !recording_of(media)) return GST_RTSP_STS_OK;
    if (!recording_of(media)->is_ended) wait_for_packets(media);
    recording_of(media)->is_ended = true;
    return GST_RTSP_STS_OK;
}

GstRTSPStatusCode on_teardown(GstRTSPClient* client, GstRTSPContext* context, gpointer data)
{
    say("teardown");
    return on_end(client, context, data);
}

void on_client(GstRTSPServer*, GstRTSPClient* client, gpointer)
{
    g_signal_connect(client, "pre-pause-request", G_CALLBACK(on_end), nullptr);
    g_signal_connect(client, "pre-teardown-request", G_CALLBACK(on_teardown), nullptr);
}

/// Packets that come while the server's pipeline is still on its way to PLAYING have no time of arrival, and a muxer of
/// MP4 refuses what has no time. They come first.
void give_time(GstPadProbeInfo* info, Recording& recording)
{
    auto* frame = static_cast<GstBuffer*>(GST_PAD_PROBE_INFO_DATA(info));
    if (!GST_BUFFER_PTS_IS_VALID(frame)) {
        frame = gst_buffer_make_writable(frame);
        GST_BUFFER_PTS(frame) = recording.last_time + GST_MSECOND;
        GST_PAD_PROBE_INFO_DATA(info) = frame;
    }
    recording.last_time = GST_BUFFER_PTS(frame);
}

GstPadProbeReturn count_frame(GstPad*, GstPadProbeInfo* info, gpointer data)
{
    auto& recording = *static_cast<Recording*>(data);
    give_time(info, recording);
    if (recording.frames++ == 0) say("record");
    return GST_PAD_PROBE_OK;
}

void count_frames_of(GstPad* pad, Recording* recording)
{
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, count_frame, recording, nullptr);
}

void on_transport_pad(GstElement* demux, GstPad* pad, gpointer recording)
{
    const CapsPtr caps(gst_pad_get_current_caps(pad));
    if (caps && g_str_has_prefix(gst_structure_get_name(gst_caps_get_structure(caps.get(), 0)), "video/"))
        count_frames_of(pad, static_cast<Recording*>(recording));
    GstElement* sink = gst_element_factory_make("fakesink", nullptr);
    g_object_set(sink, "sync", FALSE, "async", FALSE, nullptr);
    gst_bin_add(GST_BIN(GST_OBJECT_PARENT(demux)), sink);
    const PadPtr sink_pad(gst_element_get_static_pad(sink, "sink"));
    gst_pad_link(pad, sink_pad.get());
    gst_element_sync_state_with_parent(sink);
}

void on_unprepared(GstRTSPMedia* media, gpointer)
{
    const Recording& recording = *recording_of(media);
    say((recording.is_ended ? "eos frames=" : "lost frames=") + std::to_string(recording.frames));
}

std::string numbered(const std::string& path, int number)
{
    if (number == 1) return path;
    const std::filesystem::path whole(path);
    const std::string name = whole.stem().string() + "-" + std::to_string(number) + whole.extension().string();
    return (whole.parent_path() / name).string();
}

void configure_recording(GstRTSPMediaFactory*, GstRTSPMedia* media, gpointer path)
{
    static std::atomic<int> number{0};
    auto recording = std::make_unique<Recording>();
    const ElementPtr bin(gst_rtsp_media_get_element(media));
    const ElementPtr file(gst_bin_get_by_name(GST_BIN(bin.get()), "file"));
    g_object_set(file.get(), "location", numbered(*static_cast<const std::string*>(path), ++number).c_str(), nullptr);
    gst_pad_add_probe(PadPtr(gst_element_get_static_pad(file.get(), "sink")).get(), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM,
                      note_file_end, recording.get(), nullptr);
    if (const ElementPtr parser{gst_bin_get_by_name(GST_BIN(bin.get()), "counted")})
        count_frames_of(PadPtr(gst_element_get_static_pad(parser.get(), "src")).get(), recording.get());
    if (const ElementPtr demux{gst_bin_get_by_name(GST_BIN(bin.get()), "counted-demux")})
        g_signal_connect(demux.get(), "pad-added", G_CALLBACK(on_transport_pad), recording.get());
    g_signal_connect(media, "unprepared", G_CALLBACK(on_unprepared), nullptr);
    g_object_set_data_full(G_OBJECT(media), kStateKey, recording.release(),
                           [](gpointer data) { delete static_cast<Recording*>(data); });
}

} // namespace

GstRTSPMediaFactory* make_record_factory(const std::string& path)
{
    auto* record = static_cast<RecordFactory*>(g_object_new(record_factory_get_type(), nullptr));
    record->path = new std::string(path);
    GstRTSPMediaFactory* factory = GST_RTSP_MEDIA_FACTORY(record);
    gst_rtsp_media_factory_set_transport_mode(factory, GST_RTSP_TRANSPORT_MODE_RECORD);
    gst_rtsp_media_factory_set_media_gtype(factory, record_media_get_type());
    gst_rtsp_media_factory_set_eos_shutdown(factory, TRUE); // the muxer writes its index at the end
    g_signal_connect(factory, "media-configure", G_CALLBACK(configure_recording), record->path);
    return factory;
}

void watch_recorders(GstRTSPServer* server)
{
    g_signal_connect(server, "client-connected", G_CALLBACK(on_client), nullptr);
}

} // namespace peers
