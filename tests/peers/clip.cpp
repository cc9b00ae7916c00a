#include "clip.h"

#include "patience.h"

#include <gst/app/gstappsink.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <limits>

namespace peers {

namespace {

constexpr GstClockTime kBound = velstream::testing::kPatience.count() * GST_SECOND;

struct TrackKind {
    const char* media_type;
    const char* name; ///< of the bin; the file's first track of a name is the one that is played
    const char* chain;
};

constexpr TrackKind kTrackKinds[] = {
    {"video/x-h264", "video-track",
     "h264parse config-interval=-1 ! video/x-h264,stream-format=byte-stream,alignment=au ! "
     "appsink name=video sync=false async=false wait-on-eos=false"},
    {"video/x-h265", "video-track",
     "h265parse config-interval=-1 ! video/x-h265,stream-format=byte-stream,alignment=au ! "
     "appsink name=video sync=false async=false wait-on-eos=false"},
    {"audio/mpeg", "audio-track",
     "aacparse ! audio/mpeg,stream-format=raw ! appsink name=audio sync=false async=false wait-on-eos=false"},
};

std::string media_type_of(GstPad* pad)
{
    const CapsPtr caps(gst_pad_get_current_caps(pad));
    return caps ? gst_structure_get_name(gst_caps_get_structure(caps.get(), 0)) : "";
}

void add_track(GstBin* pipeline, GstPad* pad)
{
    const std::string media_type = media_type_of(pad);
    const auto* const kind = std::find_if(std::begin(kTrackKinds), std::end(kTrackKinds),
                                          [&](const TrackKind& row) { return media_type == row.media_type; });
    if (kind == std::end(kTrackKinds) || ElementPtr(gst_bin_get_by_name(pipeline, kind->name))) return;
    GstElement* bin = gst_parse_bin_from_description(kind->chain, TRUE, nullptr);
    gst_object_set_name(GST_OBJECT(bin), kind->name);
    gst_bin_add(pipeline, bin);
    const PadPtr sink(gst_element_get_static_pad(bin, "sink"));
    gst_pad_link(pad, sink.get());
    gst_element_sync_state_with_parent(bin);
}

void on_pad_added(GstElement*, GstPad* pad, gpointer pipeline)
{
    add_track(GST_BIN(pipeline), pad);
}

std::string wait_for_end(GstElement* pipeline)
{
    const BusPtr bus(gst_element_get_bus(pipeline));
    const MessagePtr message(
        gst_bus_timed_pop_filtered(bus.get(), kBound, GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
    if (!message) return "reading it takes too long";
    if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS) return "";
    GError* error = nullptr;
    gst_message_parse_error(message.get(), &error, nullptr);
    return ErrorPtr(error)->message;
}

/// Running time of a time stamp, which is below 0 for a decoding time that lies before the first picture.
std::int64_t running_time(const GstSegment* segment, GstClockTime time)
{
    guint64 result = 0;
    const int sign = gst_segment_to_running_time_full(segment, GST_FORMAT_TIME, time, &result);
    return sign < 0 ? -static_cast<std::int64_t>(result) : static_cast<std::int64_t>(result);
}

struct TimedUnit {
    BufferPtr buffer;
    std::int64_t pts;
    std::int64_t dts;
};

struct TimedTrack {
    CapsPtr caps;
    std::vector<TimedUnit> units;
};

TimedTrack take_track(GstElement* pipeline, const char* sink_name)
{
    TimedTrack track;
    const ElementPtr sink(gst_bin_get_by_name(GST_BIN(pipeline), sink_name));
    if (!sink) return track;
    while (const SamplePtr sample{gst_app_sink_try_pull_sample(GST_APP_SINK(sink.get()), 0)}) {
        GstBuffer* buffer = gst_sample_get_buffer(sample.get());
        if (!buffer || !GST_BUFFER_PTS_IS_VALID(buffer)) continue;
        if (!track.caps) track.caps.reset(gst_caps_copy(gst_sample_get_caps(sample.get())));
        const GstSegment* segment = gst_sample_get_segment(sample.get());
        const std::int64_t pts = running_time(segment, GST_BUFFER_PTS(buffer));
        const std::int64_t dts = GST_BUFFER_DTS_IS_VALID(buffer) ? running_time(segment, GST_BUFFER_DTS(buffer)) : pts;
        track.units.push_back({BufferPtr(gst_buffer_copy(buffer)), pts, dts});
    }
    return track;
}

std::int64_t first_time(const TimedTrack& track)
{
    std::int64_t first = std::numeric_limits<std::int64_t>::max();
    for (const TimedUnit& unit : track.units)
        first = std::min({first, unit.pts, unit.dts});
    return first;
}

GstClockTime length_of(const TimedTrack& track)
{
    std::int64_t first = std::numeric_limits<std::int64_t>::max();
    std::int64_t end = 0;
    for (const TimedUnit& unit : track.units) {
        first = std::min(first, unit.pts);
        end = std::max(end, unit.pts + static_cast<std::int64_t>(GST_BUFFER_DURATION(unit.buffer.get())));
    }
    return static_cast<GstClockTime>(end - first);
}

Track rebased(TimedTrack timed, std::int64_t origin)
{
    Track track;
    track.caps = std::move(timed.caps);
    for (TimedUnit& unit : timed.units) {
        GST_BUFFER_PTS(unit.buffer.get()) = static_cast<GstClockTime>(unit.pts - origin);
        GST_BUFFER_DTS(unit.buffer.get()) = static_cast<GstClockTime>(unit.dts - origin);
        track.units.push_back(std::move(unit.buffer));
    }
    return track;
}

} // namespace

bool Clip::is_h265() const
{
    return video.caps && gst_structure_has_name(gst_caps_get_structure(video.caps.get(), 0), "video/x-h265");
}

std::string load_clip(const std::string& path, Clip& clip)
{
    GError* error = nullptr;
    const ElementPtr pipeline(
        GST_ELEMENT(gst_object_ref_sink(gst_parse_launch("filesrc name=file ! qtdemux name=demux", &error))));
    if (error) return ErrorPtr(error)->message;
    const ElementPtr file(gst_bin_get_by_name(GST_BIN(pipeline.get()), "file"));
    g_object_set(file.get(), "location", path.c_str(), nullptr);
    const ElementPtr demux(gst_bin_get_by_name(GST_BIN(pipeline.get()), "demux"));
    g_signal_connect(demux.get(), "pad-added", G_CALLBACK(on_pad_added), pipeline.get());

    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    std::string failure = wait_for_end(pipeline.get());
    TimedTrack video = take_track(pipeline.get(), "video");
    TimedTrack audio = take_track(pipeline.get(), "audio");
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    if (failure.empty() && video.units.empty()) failure = "no H.264 or H.265 in it";
    if (!failure.empty()) return failure;

    const std::int64_t origin = std::min(first_time(video), first_time(audio));
    clip.length = length_of(video);
    clip.video = rebased(std::move(video), origin);
    clip.audio = rebased(std::move(audio), origin);
    return "";
}

} // namespace peers
