// The software decoders and encoders, each alone in a harness; libav's own decoder and ffprobe are the judges.
#include "gst_handles.h"
#include "patience.h"

#include <gst/app/gstappsink.h>
#include <gst/check/gstharness.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <malloc.h>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using namespace velstream::handles;
using HarnessPtr = std::unique_ptr<GstHarness, Releaser<gst_harness_teardown>>;
using Samples = std::vector<SamplePtr>;

constexpr GstClockTime kFrameDuration = GST_SECOND / 25;
constexpr GstClockTime kPatience = velstream::testing::kPatience.count() * GST_SECOND;

class Gstreamer : public testing::Environment {
    void SetUp() override { gst_init(nullptr, nullptr); }
};
const auto* const kGstreamer = testing::AddGlobalTestEnvironment(new Gstreamer);

// ---- Media
// -------------------------------------------------------------------------------------------------------------

/// Runs "<description> ! appsink" to its end.
Samples collect(const std::string& description)
{
    GError* error = nullptr;
    const ElementPtr pipeline(
        gst_parse_launch((description + " ! appsink name=out sync=false max-buffers=500").c_str(), &error));
    Samples samples;
    if (error) {
        ADD_FAILURE() << error->message;
        g_clear_error(&error);
        return samples;
    }
    const ElementPtr out(gst_bin_get_by_name(GST_BIN(pipeline.get()), "out"));
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    while (GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(out.get()), kPatience))
        samples.emplace_back(sample);
    EXPECT_TRUE(gst_app_sink_is_eos(GST_APP_SINK(out.get()))) << description;
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    return samples;
}

/// Runs a description that has a sink of its own to its end.
void run_to_end(const std::string& description)
{
    GError* error = nullptr;
    const ElementPtr pipeline(gst_parse_launch(description.c_str(), &error));
    ASSERT_FALSE(error) << error->message;
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    const BusPtr bus(gst_element_get_bus(pipeline.get()));
    const MessagePtr message(gst_bus_timed_pop_filtered(
        bus.get(), kPatience, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    ASSERT_TRUE(message) << description;
    ASSERT_EQ(GST_MESSAGE_TYPE(message.get()), GST_MESSAGE_EOS) << description;
}

std::string raw_caps(int width, int height, const std::string& more = ",format=I420")
{
    return "video/x-raw,width=" + std::to_string(width) + ",height=" + std::to_string(height) + ",framerate=25/1" +
           more;
}

std::string picture_source(int count, const std::string& caps)
{
    return "videotestsrc pattern=smpte75 horizontal-speed=4 num-buffers=" + std::to_string(count) + " ! " + caps;
}

std::string encoder_for(const std::string& codec, int b_frames)
{
    if (codec == "h264") return "x264enc speed-preset=superfast key-int-max=15 bframes=" + std::to_string(b_frames);
    return "x265enc speed-preset=ultrafast key-int-max=15 option-string=log-level=none:bframes=" +
           std::to_string(b_frames);
}

std::string byte_stream(const std::string& codec)
{
    return codec + "parse config-interval=-1 ! video/x-" + codec + ",stream-format=byte-stream,alignment=au";
}

/// A stream as a parser in front of a decoder gives it.
Samples encoded(const std::string& codec, int count, const std::string& caps, int b_frames)
{
    return collect(picture_source(count, caps) + " ! " + encoder_for(codec, b_frames) + " ! " + byte_stream(codec));
}

Samples encoded(const std::string& codec, int count, int width, int height, int b_frames = 0)
{
    return encoded(codec, count, raw_caps(width, height), b_frames);
}

/// The same stream through libav's decoder and GStreamer's own converter.
Samples reference_frames(const std::string& codec, int count, const std::string& caps, int b_frames)
{
    return collect(picture_source(count, caps) + " ! " + encoder_for(codec, b_frames) + " ! " + byte_stream(codec) +
                   " ! avdec_" + codec + " ! videoconvert dither=none ! video/x-raw,format=NV12");
}

Samples pictures(int count, const std::string& caps, const std::string& pattern = "ball")
{
    return collect("videotestsrc pattern=" + pattern + " num-buffers=" + std::to_string(count) + " ! " + caps);
}

// ---- Harness
// -----------------------------------------------------------------------------------------------------------

HarnessPtr make_harness(const char* factory)
{
    return HarnessPtr(gst_harness_new(factory));
}

void set_caps(GstHarness* harness, const Samples& samples)
{
    gst_harness_set_src_caps(harness, gst_caps_copy(gst_sample_get_caps(samples.at(0).get())));
}

/// The caps of `samples` with a memory feature.
CapsPtr caps_with_feature(const Samples& samples, const char* feature)
{
    CapsPtr caps(gst_caps_copy(gst_sample_get_caps(samples.at(0).get())));
    gst_caps_set_features(caps.get(), 0, gst_caps_features_new(feature, nullptr));
    return caps;
}

GstFlowReturn push(GstHarness* harness, const SamplePtr& sample, GstClockTime offset = 0)
{
    GstBuffer* buffer = gst_buffer_copy(gst_sample_get_buffer(sample.get()));
    GST_BUFFER_PTS(buffer) += offset;
    if (GST_BUFFER_DTS_IS_VALID(buffer)) GST_BUFFER_DTS(buffer) += offset;
    return gst_harness_push(harness, buffer);
}

void push_all(GstHarness* harness, const Samples& samples, GstClockTime offset = 0)
{
    for (const SamplePtr& sample : samples)
        EXPECT_EQ(push(harness, sample, offset), GST_FLOW_OK);
}

std::vector<BufferPtr> pull_all(GstHarness* harness)
{
    std::vector<BufferPtr> buffers;
    while (GstBuffer* buffer = gst_harness_try_pull(harness))
        buffers.emplace_back(buffer);
    return buffers;
}

CapsPtr current_caps(GstHarness* harness)
{
    return CapsPtr(gst_pad_get_current_caps(harness->sinkpad));
}

std::string text_field(const GstCaps* caps, const char* field)
{
    const gchar* text = caps ? gst_structure_get_string(gst_caps_get_structure(caps, 0), field) : nullptr;
    return text ? text : "";
}

bool is_key_frame(const BufferPtr& buffer)
{
    return !GST_BUFFER_FLAG_IS_SET(buffer.get(), GST_BUFFER_FLAG_DELTA_UNIT);
}

std::vector<guint8> bytes_of(GstBuffer* buffer)
{
    std::vector<guint8> bytes(gst_buffer_get_size(buffer));
    gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
    return bytes;
}

// ---- Pictures
// ----------------------------------------------------------------------------------------------------------

/// Mean squared error over all planes of two frames of the same caps.
double squared_error(GstBuffer* a, GstBuffer* b, const GstVideoInfo& info)
{
    GstVideoFrame first;
    GstVideoFrame second;
    if (!gst_video_frame_map(&first, &info, a, GST_MAP_READ)) return 1e9;
    if (!gst_video_frame_map(&second, &info, b, GST_MAP_READ)) {
        gst_video_frame_unmap(&first);
        return 1e9;
    }
    double sum = 0;
    double count = 0;
    for (guint plane = 0; plane < GST_VIDEO_FRAME_N_PLANES(&first); ++plane) {
        const int rows = GST_VIDEO_FRAME_COMP_HEIGHT(&first, plane);
        const int bytes = GST_VIDEO_FRAME_COMP_WIDTH(&first, plane) * GST_VIDEO_FRAME_COMP_PSTRIDE(&first, plane);
        for (int y = 0; y < rows; ++y) {
            const auto* p = static_cast<const guint8*>(GST_VIDEO_FRAME_PLANE_DATA(&first, plane)) +
                            y * GST_VIDEO_FRAME_PLANE_STRIDE(&first, plane);
            const auto* q = static_cast<const guint8*>(GST_VIDEO_FRAME_PLANE_DATA(&second, plane)) +
                            y * GST_VIDEO_FRAME_PLANE_STRIDE(&second, plane);
            for (int x = 0; x < bytes; ++x)
                sum += (p[x] - q[x]) * (p[x] - q[x]);
            count += bytes;
        }
    }
    gst_video_frame_unmap(&first);
    gst_video_frame_unmap(&second);
    return sum / count;
}

double psnr(double error)
{
    return error == 0 ? 99.0 : 10 * std::log10(255.0 * 255.0 / error);
}

GstVideoInfo info_of(const GstCaps* caps)
{
    GstVideoInfo info;
    EXPECT_TRUE(caps && gst_video_info_from_caps(&info, caps));
    return info;
}

// ---- Decoders
// ----------------------------------------------------------------------------------------------------------

struct DecoderCase {
    const char* factory;
    const char* codec;
    int width;
    int height;
    int b_frames;
};

std::ostream& operator<<(std::ostream& out, const DecoderCase& row)
{
    return out << row.factory << " " << row.codec << " " << row.width << "x" << row.height << " b" << row.b_frames;
}

class Decoder : public testing::TestWithParam<DecoderCase> {};

TEST_P(Decoder, GivesTheReferenceDecodersFramesAllOfThem)
{
    const DecoderCase& row = GetParam();
    const std::string caps = raw_caps(row.width, row.height);
    const Samples stream = encoded(row.codec, 20, caps, row.b_frames);
    const Samples expected = reference_frames(row.codec, 20, caps, row.b_frames);
    ASSERT_EQ(stream.size(), 20U);
    ASSERT_EQ(expected.size(), 20U);
    const HarnessPtr harness = make_harness(row.factory);
    set_caps(harness.get(), stream);
    push_all(harness.get(), stream);
    gst_harness_push_event(harness.get(), gst_event_new_eos());
    const std::vector<BufferPtr> frames = pull_all(harness.get());
    ASSERT_EQ(frames.size(), expected.size());
    const GstVideoInfo info = info_of(current_caps(harness.get()).get());
    EXPECT_EQ(GST_VIDEO_INFO_FORMAT(&info), GST_VIDEO_FORMAT_NV12);
    EXPECT_EQ(GST_VIDEO_INFO_WIDTH(&info), row.width);
    EXPECT_EQ(GST_VIDEO_INFO_HEIGHT(&info), row.height);
    for (std::size_t i = 0; i < frames.size(); ++i) {
        GstBuffer* reference = gst_sample_get_buffer(expected[i].get());
        EXPECT_EQ(squared_error(frames[i].get(), reference, info), 0.0) << "frame " << i;
        EXPECT_EQ(GST_BUFFER_PTS(frames[i].get()), GST_BUFFER_PTS(reference)) << "frame " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Streams, Decoder,
    testing::Values(DecoderCase{"qtivdec", "h264", 642, 362, 0}, DecoderCase{"qtivdec", "h265", 854, 480, 3},
                    DecoderCase{"qtic2vdec", "h264", 1366, 768, 3}, DecoderCase{"qtic2vdec", "h265", 642, 362, 0},
                    DecoderCase{"v4l2h264dec", "h264", 1280, 720, 3}, DecoderCase{"v4l2h264dec", "h264", 854, 480, 0},
                    DecoderCase{"v4l2h265dec", "h265", 1280, 720, 0},
                    DecoderCase{"v4l2h265dec", "h265", 1366, 768, 3}));

TEST(Decoders, UnconstrainedLinkGivesPlainNv12)
{
    const Samples stream = encoded("h264", 2, 64, 64);
    const HarnessPtr harness = make_harness("qtivdec");
    set_caps(harness.get(), stream);
    push_all(harness.get(), stream);
    gst_harness_push_event(harness.get(), gst_event_new_eos());
    const CapsPtr caps = current_caps(harness.get());
    ASSERT_TRUE(caps);
    EXPECT_TRUE(
        gst_caps_features_is_equal(gst_caps_get_features(caps.get(), 0), GST_CAPS_FEATURES_MEMORY_SYSTEM_MEMORY));
    EXPECT_EQ(text_field(caps.get(), "format"), "NV12");
}

TEST(Decoders, GbmFilterBehindIsMet)
{
    for (const char* factory : {"qtivdec", "qtic2vdec", "v4l2h264dec"}) {
        const Samples stream = encoded("h264", 3, 64, 64);
        const HarnessPtr harness = make_harness(factory);
        gst_harness_set_sink_caps_str(harness.get(), "video/x-raw(memory:GBM)");
        set_caps(harness.get(), stream);
        push_all(harness.get(), stream);
        gst_harness_push_event(harness.get(), gst_event_new_eos());
        EXPECT_EQ(pull_all(harness.get()).size(), 3U) << factory;
        const CapsPtr caps = current_caps(harness.get());
        ASSERT_TRUE(caps) << factory;
        EXPECT_TRUE(gst_caps_features_contains(gst_caps_get_features(caps.get(), 0), "memory:GBM")) << factory;
    }
}

TEST(Decoders, StreamsColorimetryStandsInTheCaps)
{
    for (const char* colorimetry : {"bt601", "bt709"}) {
        const Samples stream =
            encoded("h264", 2, raw_caps(320, 240, std::string(",format=I420,colorimetry=") + colorimetry), 0);
        const HarnessPtr harness = make_harness("v4l2h264dec");
        set_caps(harness.get(), stream);
        push_all(harness.get(), stream);
        gst_harness_push_event(harness.get(), gst_event_new_eos());
        GstVideoColorimetry found;
        GstVideoColorimetry wanted;
        ASSERT_TRUE(gst_video_colorimetry_from_string(&wanted, colorimetry));
        ASSERT_TRUE(gst_video_colorimetry_from_string(
            &found, text_field(current_caps(harness.get()).get(), "colorimetry").c_str()));
        EXPECT_EQ(found.matrix, wanted.matrix) << colorimetry;
        EXPECT_EQ(found.range, wanted.range) << colorimetry;
    }
}

TEST(Decoders, TenBitStreamIsConvertedToNv12)
{
    const std::string caps = raw_caps(320, 240, ",format=I420_10LE");
    const Samples stream = encoded("h265", 5, caps, 0);
    const Samples expected = reference_frames("h265", 5, caps, 0);
    const HarnessPtr harness = make_harness("qtic2vdec");
    set_caps(harness.get(), stream);
    push_all(harness.get(), stream);
    gst_harness_push_event(harness.get(), gst_event_new_eos());
    const std::vector<BufferPtr> frames = pull_all(harness.get());
    ASSERT_EQ(frames.size(), 5U);
    const GstVideoInfo info = info_of(current_caps(harness.get()).get());
    EXPECT_EQ(GST_VIDEO_INFO_FORMAT(&info), GST_VIDEO_FORMAT_NV12);
    for (std::size_t i = 0; i < frames.size(); ++i)
        EXPECT_GE(psnr(squared_error(frames[i].get(), gst_sample_get_buffer(expected[i].get()), info)), 45.0);
}

TEST(Decoders, NewSizeInMidStreamIsFollowed)
{
    const Samples first = encoded("h264", 8, 642, 362, 3);
    const Samples second = encoded("h264", 7, 320, 240);
    const HarnessPtr harness = make_harness("v4l2h264dec");
    set_caps(harness.get(), first);
    push_all(harness.get(), first);
    set_caps(harness.get(), second);
    push_all(harness.get(), second, GST_SECOND);
    gst_harness_push_event(harness.get(), gst_event_new_eos());
    EXPECT_EQ(pull_all(harness.get()).size(), 15U);
    EXPECT_EQ(info_of(current_caps(harness.get()).get()).width, 320);
}

TEST(Decoders, NewCodecInMidStreamIsFollowed)
{
    const Samples first = encoded("h264", 8, 642, 362, 3);
    const Samples second = encoded("h265", 7, 320, 240, 3);
    for (const char* factory : {"qtivdec", "qtic2vdec"}) {
        const HarnessPtr harness = make_harness(factory);
        set_caps(harness.get(), first);
        push_all(harness.get(), first);
        set_caps(harness.get(), second);
        push_all(harness.get(), second, GST_SECOND);
        set_caps(harness.get(), first);
        push_all(harness.get(), first, 2 * GST_SECOND);
        gst_harness_push_event(harness.get(), gst_event_new_eos());
        EXPECT_EQ(pull_all(harness.get()).size(), 23U) << factory;
        EXPECT_EQ(info_of(current_caps(harness.get()).get()).width, 642) << factory;
    }
}

TEST(Decoders, FlushDropsWhatIsHeldAndDecodingGoesOn)
{
    const Samples stream = encoded("h264", 12, 320, 240, 3);
    const HarnessPtr harness = make_harness("qtivdec");
    set_caps(harness.get(), stream);
    push_all(harness.get(), stream);
    gst_harness_push_event(harness.get(), gst_event_new_flush_start());
    gst_harness_push_event(harness.get(), gst_event_new_flush_stop(TRUE));
    pull_all(harness.get());
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    gst_harness_push_event(harness.get(), gst_event_new_segment(&segment));
    push_all(harness.get(), stream);
    gst_harness_push_event(harness.get(), gst_event_new_eos());
    EXPECT_EQ(pull_all(harness.get()).size(), 12U);
}

TEST(Decoders, GarbageBetweenFramesDoesNotEndTheStream)
{
    for (const char* codec : {"h264", "h265"}) {
        const Samples stream = encoded(codec, 12, 320, 240);
        const HarnessPtr harness = make_harness("qtic2vdec");
        set_caps(harness.get(), stream);
        push_all(harness.get(), stream);
        guint32 random = 1;
        for (int i = 0; i < 40; ++i) {
            GstBuffer* garbage = gst_buffer_new_allocate(nullptr, 1500, nullptr);
            GstMapInfo map;
            ASSERT_TRUE(gst_buffer_map(garbage, &map, GST_MAP_WRITE));
            for (gsize k = 0; k < map.size; ++k)
                map.data[k] = static_cast<guint8>((random = random * 1664525U + 1013904223U) >> 24U);
            // Every other one looks like a slice.
            if (i % 2 == 0) std::copy_n("\0\0\0\1\x65", 5, map.data);
            gst_buffer_unmap(garbage, &map);
            GST_BUFFER_PTS(garbage) = GST_SECOND + static_cast<GstClockTime>(i) * kFrameDuration;
            EXPECT_EQ(gst_harness_push(harness.get(), garbage), GST_FLOW_OK);
        }
        push_all(harness.get(), stream, 10 * GST_SECOND);
        gst_harness_push_event(harness.get(), gst_event_new_eos());
        const std::vector<BufferPtr> frames = pull_all(harness.get());
        const auto after = std::count_if(frames.begin(), frames.end(), [](const BufferPtr& frame) {
            return GST_BUFFER_PTS(frame.get()) >= 10 * GST_SECOND;
        });
        EXPECT_GE(after, 11) << codec; // the first one may be taken for a late part of the garbage
    }
}

TEST(Decoders, EndOfStreamWithoutFramesPasses)
{
    const HarnessPtr harness = make_harness("qtivdec");
    gst_harness_play(harness.get());
    gst_harness_push_event(harness.get(), gst_event_new_stream_start("test"));
    gst_harness_push_event(harness.get(), gst_event_new_eos());
    bool has_ended = false;
    while (const EventPtr event{gst_harness_try_pull_event(harness.get())})
        has_ended = has_ended || GST_EVENT_TYPE(event.get()) == GST_EVENT_EOS;
    EXPECT_TRUE(has_ended);
}

TEST(Decoders, LiveStreamWithoutBFramesIsNotHeldBack)
{
    const Samples stream =
        collect(picture_source(20, raw_caps(320, 240)) +
                " ! x264enc tune=zerolatency ! video/x-h264,profile=baseline ! " + byte_stream("h264"));
    const HarnessPtr harness = make_harness("v4l2h264dec");
    gst_harness_set_live(harness.get(), TRUE);
    gst_harness_set_upstream_latency(harness.get(), 0);
    set_caps(harness.get(), stream);
    for (std::size_t i = 0; i < stream.size(); ++i) {
        push(harness.get(), stream[i]);
        EXPECT_EQ(gst_harness_buffers_received(harness.get()), i + 1);
    }
    EXPECT_LE(gst_harness_query_latency(harness.get()), kFrameDuration);
}

TEST(Decoders, SourceThatCannotBeSoughtIsNotHeldBackEither)
{
    const Samples stream = encoded("h265", 20, 320, 240);
    const HarnessPtr harness = make_harness("qtic2vdec");
    set_caps(harness.get(), stream);
    for (std::size_t i = 0; i < stream.size(); ++i) {
        push(harness.get(), stream[i]);
        EXPECT_GE(gst_harness_buffers_received(harness.get()), i);
    }
}

TEST(Decoders, FileGivesTheReferenceDecodersFrames)
{
    const std::string path = testing::TempDir() + "decoders_" + std::to_string(getpid()) + ".mp4";
    for (const std::string codec : {"h264", "h265"}) {
        run_to_end(picture_source(60, raw_caps(642, 362)) + " ! " + encoder_for(codec, 3) + " ! " + codec +
                   "parse ! mp4mux ! filesink location=" + path);
        const std::string start = "filesrc location=" + path + " ! qtdemux ! " + codec + "parse ! ";
        const Samples expected = collect(start + "avdec_" + codec + " ! videoconvert ! video/x-raw,format=NV12");
        const Samples frames = collect(start + "qtivdec");
        ASSERT_EQ(expected.size(), 60U) << codec;
        ASSERT_EQ(frames.size(), 60U) << codec;
        const GstVideoInfo info = info_of(gst_sample_get_caps(frames[0].get()));
        for (std::size_t i = 0; i < frames.size(); ++i) {
            GstBuffer* reference = gst_sample_get_buffer(expected[i].get());
            EXPECT_EQ(squared_error(gst_sample_get_buffer(frames[i].get()), reference, info), 0.0)
                << codec << " frame " << i;
            EXPECT_EQ(GST_BUFFER_PTS(gst_sample_get_buffer(frames[i].get())), GST_BUFFER_PTS(reference)) << codec;
        }
    }
    std::remove(path.c_str());
}

TEST(Decoders, LatencyOfReorderedFramesIsReported)
{
    const Samples stream = encoded("h264", 20, 320, 240, 3);
    const HarnessPtr harness = make_harness("v4l2h264dec");
    gst_harness_set_live(harness.get(), TRUE);
    gst_harness_set_upstream_latency(harness.get(), 0);
    set_caps(harness.get(), stream);
    push_all(harness.get(), stream);
    EXPECT_GE(gst_harness_query_latency(harness.get()), kFrameDuration);
}

TEST(Decoders, V4l2PropertiesTakeTheDevicesNumbers)
{
    for (const char* factory : {"v4l2h264dec", "v4l2h265dec", "v4l2h264enc", "v4l2h265enc"}) {
        const std::string text = std::string(factory) +
                                 " capture-io-mode=4 output-io-mode=dmabuf-import "
                                 "extra-controls=controls,video_bitrate=1000000,video_gop_size=29";
        GError* error = nullptr;
        const ElementPtr element(gst_parse_launch(text.c_str(), &error));
        ASSERT_FALSE(error) << error->message;
        gint capture = 0;
        gint output = 0;
        GstStructure* controls = nullptr;
        g_object_get(element.get(), "capture-io-mode", &capture, "output-io-mode", &output, "extra-controls", &controls,
                     nullptr);
        EXPECT_EQ(capture, 4);
        EXPECT_EQ(output, 5);
        ASSERT_TRUE(controls);
        gint bitrate = 0;
        EXPECT_TRUE(gst_structure_get_int(controls, "video_bitrate", &bitrate));
        EXPECT_EQ(bitrate, 1000000);
        gst_structure_free(controls);
    }
}

TEST(Decoders, DiscardCorruptedFramesReachesTheInnerDecoder)
{
    for (const char* factory : {"qtivdec", "v4l2h264dec", "v4l2h265dec"}) {
        const ElementPtr element(GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make(factory, nullptr))));
        g_object_set(element.get(), "discard-corrupted-frames", TRUE, nullptr);
        ASSERT_NE(gst_element_set_state(element.get(), GST_STATE_READY), GST_STATE_CHANGE_FAILURE);
        const ElementPtr inner(GST_ELEMENT(gst_object_ref(GST_BIN_CHILDREN(element.get())->next->data)));
        gboolean is_discarding = FALSE;
        g_object_get(inner.get(), "discard-corrupted-frames", &is_discarding, nullptr);
        EXPECT_TRUE(is_discarding) << factory;
        gst_element_set_state(element.get(), GST_STATE_NULL);
    }
}

TEST(Codecs, AllHaveRankNone)
{
    for (const char* factory :
         {"qtivdec", "qtic2vdec", "v4l2h264dec", "v4l2h265dec", "qtic2venc", "v4l2h264enc", "v4l2h265enc"}) {
        GstElementFactory* found = gst_element_factory_find(factory);
        ASSERT_TRUE(found) << factory;
        EXPECT_EQ(gst_plugin_feature_get_rank(GST_PLUGIN_FEATURE(found)), static_cast<guint>(GST_RANK_NONE)) << factory;
        gst_object_unref(found);
    }
}

// ---- Encoders
// ----------------------------------------------------------------------------------------------------------

struct EncoderCase {
    const char* factory;
    const char* codec;
    const char* format;
    bool is_gbm;
};

std::ostream& operator<<(std::ostream& out, const EncoderCase& row)
{
    return out << row.factory << " " << row.codec << " " << row.format << (row.is_gbm ? " GBM" : "");
}

class Encoder : public testing::TestWithParam<EncoderCase> {
protected:
    /// A playing encoder with the case's formats on both ends.
    HarnessPtr make(const Samples& input)
    {
        HarnessPtr harness = make_harness(GetParam().factory);
        const std::string downstream = std::string("video/x-") + GetParam().codec + ",stream-format=byte-stream";
        gst_harness_set_sink_caps_str(harness.get(), downstream.c_str());
        if (GetParam().is_gbm)
            gst_harness_set_src_caps(harness.get(), caps_with_feature(input, "memory:GBM").release());
        else
            set_caps(harness.get(), input);
        return harness;
    }
};

TEST_P(Encoder, EachFrameComesOutAtOnceWithItsTime)
{
    const Samples input = pictures(12, raw_caps(320, 240, std::string(",format=") + GetParam().format));
    const HarnessPtr harness = make(input);
    g_object_set(harness->element, "b-frames", 4, nullptr);
    for (std::size_t i = 0; i < input.size(); ++i) {
        ASSERT_EQ(push(harness.get(), input[i]), GST_FLOW_OK);
        ASSERT_EQ(gst_harness_buffers_received(harness.get()), i + 1);
        const BufferPtr buffer(gst_harness_pull(harness.get()));
        EXPECT_EQ(GST_BUFFER_PTS(buffer.get()), GST_BUFFER_PTS(gst_sample_get_buffer(input[i].get())));
        EXPECT_EQ(GST_BUFFER_DTS(buffer.get()), GST_BUFFER_PTS(buffer.get()));
    }
    EXPECT_EQ(gst_harness_query_latency(harness.get()), 0U);
    gst_harness_push_event(harness.get(), gst_event_new_eos());
    EXPECT_TRUE(pull_all(harness.get()).empty());
}

TEST_P(Encoder, PictureSurvivesEncodingAndDecoding)
{
    const Samples input = pictures(5, raw_caps(642, 362, std::string(",format=") + GetParam().format), "smpte75");
    const Samples expected = pictures(5, raw_caps(642, 362, ",format=NV12"), "smpte75");
    const HarnessPtr harness = make(input);
    const std::string decoder = GetParam().codec == std::string("h264") ? "v4l2h264dec" : "v4l2h265dec";
    gst_harness_add_sink(harness.get(), decoder.c_str());
    push_all(harness.get(), input);
    gst_harness_push_event(harness.get(), gst_event_new_eos());
    GstHarness* decoded = harness->sink_harness;
    gst_harness_sink_push_many(harness.get(), static_cast<gint>(gst_harness_buffers_in_queue(harness.get())));
    gst_harness_push_event(decoded, gst_event_new_eos());
    const std::vector<BufferPtr> frames = pull_all(decoded);
    ASSERT_EQ(frames.size(), input.size());
    const GstVideoInfo info = info_of(current_caps(decoded).get());
    EXPECT_EQ(info.width, 642);
    for (const BufferPtr& frame : frames)
        EXPECT_GE(psnr(squared_error(frame.get(), gst_sample_get_buffer(expected[0].get()), info)), 28.0);
}

INSTANTIATE_TEST_SUITE_P(
    Inputs, Encoder,
    testing::Values(EncoderCase{"qtic2venc", "h264", "NV12", false}, EncoderCase{"qtic2venc", "h264", "NV12", true},
                    EncoderCase{"qtic2venc", "h265", "NV12", true}, EncoderCase{"v4l2h264enc", "h264", "NV12", true},
                    EncoderCase{"v4l2h264enc", "h264", "NV21", false},
                    EncoderCase{"v4l2h264enc", "h264", "I420", false},
                    EncoderCase{"v4l2h265enc", "h265", "NV12", false}, EncoderCase{"v4l2h265enc", "h265", "NV21", true},
                    EncoderCase{"v4l2h265enc", "h265", "I420", false}));

/// Encodes pictures with these properties in front of this caps filter; the caps come out through `caps`.
std::vector<BufferPtr> encode(const std::string& launch, const Samples& input, const char* downstream, CapsPtr& caps)
{
    const HarnessPtr harness(gst_harness_new_parse(launch.c_str()));
    gst_harness_set_sink_caps_str(harness.get(), downstream);
    set_caps(harness.get(), input);
    push_all(harness.get(), input);
    gst_harness_push_event(harness.get(), gst_event_new_eos());
    std::vector<BufferPtr> buffers = pull_all(harness.get());
    caps = current_caps(harness.get());
    return buffers;
}

Samples small_pictures(int count)
{
    return pictures(count, raw_caps(320, 240, ",format=NV12"));
}

/// Types of the NAL units of a byte-stream H.264 access unit.
std::vector<int> h264_nal_types(GstBuffer* buffer)
{
    const std::vector<guint8> bytes = bytes_of(buffer);
    std::vector<int> types;
    for (std::size_t i = 0; i + 3 < bytes.size(); ++i) {
        if (bytes[i] == 0 && bytes[i + 1] == 0 && bytes[i + 2] == 1) types.push_back(bytes[i + 3] & 0x1f);
    }
    return types;
}

/// The byte that follows the header of the first parameter set of this type: of a sequence parameter set the profile.
int h264_profile(GstBuffer* buffer)
{
    const std::vector<guint8> bytes = bytes_of(buffer);
    for (std::size_t i = 0; i + 4 < bytes.size(); ++i) {
        if (bytes[i] == 0 && bytes[i + 1] == 0 && bytes[i + 2] == 1 && (bytes[i + 3] & 0x1f) == 7) return bytes[i + 4];
    }
    return -1;
}

TEST(Encoders, BaselineFilterBehindGivesBaseline)
{
    for (const char* factory : {"qtic2venc b-frames=4", "v4l2h264enc b-frames=4"}) {
        CapsPtr caps;
        const auto buffers =
            encode(factory, small_pictures(5), "video/x-h264,profile=baseline,stream-format=byte-stream", caps);
        ASSERT_EQ(buffers.size(), 5U) << factory;
        EXPECT_EQ(text_field(caps.get(), "profile"), "baseline") << factory;
        EXPECT_EQ(h264_profile(buffers[0].get()), 66) << factory;
    }
}

TEST(Encoders, StreamFormatFollowsDownstream)
{
    struct Row {
        const char* factory;
        const char* downstream;
        bool has_codec_data;
    };
    for (const Row& row : {Row{"qtic2venc", "video/x-h264,stream-format=avc", true},
                           Row{"qtic2venc", "video/x-h264,stream-format=byte-stream", false},
                           Row{"v4l2h264enc", "video/x-h264,stream-format=avc", true},
                           Row{"qtic2venc", "video/x-h265,stream-format=hvc1", true},
                           Row{"v4l2h265enc", "video/x-h265,stream-format=hev1", true},
                           Row{"v4l2h265enc", "video/x-h265,stream-format=byte-stream", false}}) {
        CapsPtr caps;
        const auto buffers = encode(row.factory, small_pictures(4), row.downstream, caps);
        ASSERT_EQ(buffers.size(), 4U) << row.downstream;
        const std::vector<guint8> bytes = bytes_of(buffers[0].get());
        const bool has_start_code =
            bytes[0] == 0 && bytes[1] == 0 && (bytes[2] == 1 || (bytes[2] == 0 && bytes[3] == 1));
        EXPECT_EQ(has_start_code, !row.has_codec_data) << row.downstream;
        EXPECT_EQ(gst_structure_has_field(gst_caps_get_structure(caps.get(), 0), "codec_data") != FALSE,
                  row.has_codec_data)
            << row.downstream;
        EXPECT_EQ(text_field(caps.get(), "alignment"), "au") << row.downstream;
    }
}

TEST(Encoders, CodecIsH264WhenDownstreamTakesBoth)
{
    CapsPtr caps;
    encode("qtic2venc", small_pictures(2), "video/x-h265; video/x-h264", caps);
    EXPECT_STREQ(gst_structure_get_name(gst_caps_get_structure(caps.get(), 0)), "video/x-h264");
}

TEST(Encoders, PictureIsOneSlice)
{
    CapsPtr caps;
    const auto buffers = encode("v4l2h264enc", pictures(4, raw_caps(1280, 720, ",format=NV12")),
                                "video/x-h264,stream-format=byte-stream", caps);
    ASSERT_EQ(buffers.size(), 4U);
    for (const BufferPtr& buffer : buffers) {
        const std::vector<int> types = h264_nal_types(buffer.get());
        EXPECT_EQ(std::count_if(types.begin(), types.end(), [](int type) { return type == 1 || type == 5; }), 1);
    }
}

/// Types of the NAL units of a byte-stream H.265 access unit.
std::vector<int> h265_nal_types(GstBuffer* buffer)
{
    const std::vector<guint8> bytes = bytes_of(buffer);
    std::vector<int> types;
    for (std::size_t i = 0; i + 3 < bytes.size(); ++i) {
        if (bytes[i] == 0 && bytes[i + 1] == 0 && bytes[i + 2] == 1) types.push_back((bytes[i + 3] >> 1) & 0x3f);
    }
    return types;
}

TEST(Encoders, EveryH265KeyFrameHasItsParameterSetsOnceAndOnePicture)
{
    for (const char* factory : {"qtic2venc idr-interval=4", "v4l2h265enc extra-controls=controls,video_gop_size=4"}) {
        CapsPtr caps;
        const auto buffers = encode(factory, small_pictures(12), "video/x-h265,stream-format=byte-stream", caps);
        ASSERT_EQ(buffers.size(), 12U) << factory;
        for (std::size_t i = 0; i < buffers.size(); ++i) {
            const std::vector<int> types = h265_nal_types(buffers[i].get());
            const bool is_key = i % 4 == 0;
            EXPECT_EQ(is_key_frame(buffers[i]), is_key) << factory << " frame " << i;
            for (const int parameter_set : {32, 33, 34})
                EXPECT_EQ(std::count(types.begin(), types.end(), parameter_set), is_key ? 1 : 0)
                    << factory << " frame " << i;
            const auto pictures_of_unit = std::count_if(types.begin(), types.end(), [](int type) { return type < 32; });
            EXPECT_EQ(pictures_of_unit, 1) << factory << " frame " << i;
            const bool is_idr =
                std::count_if(types.begin(), types.end(), [](int type) { return type == 19 || type == 20; });
            EXPECT_EQ(is_idr, is_key) << factory << " frame " << i;
        }
    }
}

TEST(Encoders, TargetBitrateIsKept)
{
    const Samples input = pictures(75, raw_caps(320, 240, ",format=NV12"), "snow");
    for (const char* launch : {"qtic2venc target-bitrate=", "v4l2h264enc target-bitrate=",
                               "v4l2h265enc target-bitrate=", "v4l2h264enc extra-controls=controls,video_bitrate="}) {
        for (const double rate : {600'000.0, 2'400'000.0}) {
            CapsPtr caps;
            const std::string text = launch + std::to_string(static_cast<int>(rate));
            const auto buffers = encode(text, input, "video/x-h264,stream-format=byte-stream; video/x-h265", caps);
            ASSERT_EQ(buffers.size(), input.size()) << text;
            double bits = 0;
            for (const BufferPtr& buffer : buffers)
                bits += 8.0 * static_cast<double>(gst_buffer_get_size(buffer.get()));
            EXPECT_GT(bits / 3, rate * 0.5) << text;
            EXPECT_LT(bits / 3, rate * 1.6) << text;
        }
    }
}

TEST(Encoders, IdrIntervalAndGopSizeSetTheKeyFrames)
{
    for (const char* launch : {"qtic2venc idr-interval=10", "v4l2h264enc extra-controls=controls,video_gop_size=10",
                               "v4l2h265enc extra-controls=controls,video_gop_size=10"}) {
        CapsPtr caps;
        const auto buffers = encode(launch, small_pictures(25), "video/x-h264; video/x-h265", caps);
        ASSERT_EQ(buffers.size(), 25U) << launch;
        for (std::size_t i = 0; i < buffers.size(); ++i)
            EXPECT_EQ(is_key_frame(buffers[i]), i % 10 == 0) << launch << " frame " << i;
    }
}

TEST(Encoders, ForcedKeyUnitComesWithTheNextFrame)
{
    const Samples input = small_pictures(10);
    for (const char* factory : {"qtic2venc", "v4l2h264enc", "v4l2h265enc"}) {
        const HarnessPtr harness = make_harness(factory);
        set_caps(harness.get(), input);
        for (std::size_t i = 0; i < input.size(); ++i) {
            if (i == 5)
                gst_harness_push_upstream_event(
                    harness.get(), gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 1));
            push(harness.get(), input[i]);
            const BufferPtr buffer(gst_harness_pull(harness.get()));
            EXPECT_EQ(is_key_frame(buffer), i == 0 || i == 5) << factory << " frame " << i;
        }
    }
}

TEST(Encoders, NewSizeInMidStreamIsFollowed)
{
    const Samples first = pictures(4, raw_caps(320, 240, ",format=NV12"));
    const Samples second = pictures(5, raw_caps(642, 362, ",format=NV12"));
    for (const char* factory : {"qtic2venc", "v4l2h264enc", "v4l2h265enc"}) {
        const HarnessPtr harness = make_harness(factory);
        set_caps(harness.get(), first);
        push_all(harness.get(), first);
        set_caps(harness.get(), second);
        push_all(harness.get(), second, GST_SECOND);
        gst_harness_push_event(harness.get(), gst_event_new_eos());
        const std::vector<BufferPtr> buffers = pull_all(harness.get());
        ASSERT_EQ(buffers.size(), 9U) << factory;
        EXPECT_TRUE(is_key_frame(buffers[4])) << factory;
        EXPECT_EQ(GST_BUFFER_PTS(buffers[4].get()), GST_SECOND) << factory;
        gint width = 0;
        gst_structure_get_int(gst_caps_get_structure(current_caps(harness.get()).get(), 0), "width", &width);
        EXPECT_EQ(width, 642) << factory;
    }
}

TEST(Encoders, OddSizeIsRefusedWithItsReason)
{
    const HarnessPtr harness = make_harness("v4l2h264enc");
    const BusPtr bus(gst_bus_new());
    gst_element_set_bus(harness->element, bus.get());
    const Samples input = pictures(1, raw_caps(321, 240, ",format=NV12"));
    set_caps(harness.get(), input);
    EXPECT_NE(push(harness.get(), input[0]), GST_FLOW_OK);
    const MessagePtr message(gst_bus_pop_filtered(bus.get(), GST_MESSAGE_ERROR));
    ASSERT_TRUE(message);
    GError* error = nullptr;
    gst_message_parse_error(message.get(), &error, nullptr);
    EXPECT_NE(std::string(error->message).find("321 x 240"), std::string::npos) << error->message;
    g_clear_error(&error);
    gst_element_set_bus(harness->element, nullptr);
}

TEST(Encoders, DownstreamSizeReachesUpstream)
{
    const HarnessPtr harness = make_harness("qtic2venc");
    gst_harness_set_sink_caps_str(harness.get(), "video/x-h264,width=640,height=480");
    gst_harness_play(harness.get());
    const CapsPtr caps(gst_pad_peer_query_caps(harness->srcpad, nullptr));
    gint width = 0;
    ASSERT_FALSE(gst_caps_is_empty(caps.get()));
    EXPECT_TRUE(gst_structure_get_int(gst_caps_get_structure(caps.get(), 0), "width", &width));
    EXPECT_EQ(width, 640);
}

/// One line of ffprobe's answer about a file's first video stream.
std::string probe(const std::string& path, const std::string& entries)
{
    const std::string command = "ffprobe -v error -select_streams v:0 -count_frames -show_entries stream=" + entries +
                                " -of csv=p=0 '" + path + "'";
    const std::unique_ptr<FILE, Releaser<pclose>> pipe(popen(command.c_str(), "r"));
    char line[256] = "";
    if (!pipe || !fgets(line, sizeof line, pipe.get())) return "";
    std::string text(line);
    while (!text.empty() && (text.back() == '\n' || text.back() == ','))
        text.pop_back();
    return text;
}

TEST(Encoders, Mp4BeginsAtZeroAndHasEveryFrame)
{
    const std::string path = testing::TempDir() + "codecs_" + std::to_string(getpid()) + ".mp4";
    for (const char* chain :
         {"v4l2h264enc ! h264parse config-interval=1", "qtic2venc b-frames=4 target-bitrate=2000000 ! h264parse",
          "qtic2venc ! h265parse", "v4l2h265enc", "qtic2venc"}) {
        run_to_end(picture_source(30, raw_caps(320, 240, ",format=NV12")) + " ! " + chain +
                   " ! mp4mux ! filesink location=" + path);
        EXPECT_EQ(probe(path, "start_time,nb_read_frames"), "0.000000,30") << chain;
    }
    std::remove(path.c_str());
}

// ---- Start and stop
// ----------------------------------------------------------------------------------------------------

struct Usage {
    long bytes = 0;
    long threads = 0;
};

/// An emulator keeps something of its own for every thread that ever was: there the heap alone is the program's.
long bytes_in_use()
{
    if (std::getenv("QEMU_LD_PREFIX")) {
        const struct mallinfo2 heap = mallinfo2();
        return static_cast<long>(heap.uordblks + heap.hblkhd);
    }
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;
    return pages * sysconf(_SC_PAGESIZE);
}

Usage process_usage()
{
    Usage usage;
    usage.bytes = bytes_in_use();
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        if (word == "Threads:") status >> usage.threads;
    }
    return usage;
}

void start_and_stop(const char* factory, const Samples& input)
{
    const HarnessPtr harness = make_harness(factory);
    set_caps(harness.get(), input);
    push_all(harness.get(), input);
}

TEST(Codecs, ThousandStartsAndStopsDoNotGrow)
{
    const Samples stream = encoded("h264", 2, 64, 64);
    const Samples input = pictures(2, raw_caps(64, 64, ",format=NV12"));
    for (const auto& [factory, samples] : {std::pair{"v4l2h264dec", &stream}, std::pair{"v4l2h264enc", &input}}) {
        for (int i = 0; i < 200; ++i)
            start_and_stop(factory, *samples);
        const Usage before = process_usage();
        for (int i = 0; i < 1000; ++i)
            start_and_stop(factory, *samples);
        const Usage after = process_usage();
        EXPECT_LE(after.threads, before.threads) << factory;
        EXPECT_LT(after.bytes - before.bytes, 8 << 20) << factory;
    }
}

} // namespace
