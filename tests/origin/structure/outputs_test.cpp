// The output builders' bins on this executable's platform.
#include "ConfigFile.h"
#include "Elements.h"
#include "RecordedLog.h"
#include "StreamOutput.h"
#include "test_platform.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Lines = std::vector<std::string>;

const char* const kConfigurationLine = "I Start to get configuration properties for stream id: cam.";
const char* const kNotAll = "E Not all elements could be created.\n";
const char* const kUrl = "rtsp://127.0.0.1:1/out";

ElementPtr build(StreamOutput&& builder, const char* stream_id = "cam")
{
    builder.set_stream_id(stream_id);
    return share(builder.build());
}

void expect_open_caps(GstElement* filter)
{
    EXPECT_TRUE(has_caps(filter, "ANY"));
}

std::string sized_stream(int width, int height)
{
    return one_stream("cam", R"("width": )" + std::to_string(width) + R"(, "height": )" + std::to_string(height) +
                                 R"(, "inputType": "file", "inputAddr": "a", "decodeType": "H264",
                                     "encodeType": "H264", "audio": false, "rollingsave": false, "rollingFps": 30,
                                     "manualRebuild": true)");
}

class Outputs : public WithGStreamer {
protected:
    const ConfigFile config_{complete_stream("cam", "H264")};
};

// ---- MP4

TEST_F(Outputs, Mp4BinIsBuilt)
{
    const ElementPtr bin = build(StreamOutputMp4sink("/tmp/x.mp4", 1280, 720));
    ASSERT_TRUE(bin);
    EXPECT_EQ(name_of(bin.get()), "velstream-output-mp4sink");
    expect_one_active_ghost(bin.get(), "sink");
    EXPECT_EQ(text_of(child_of_factory(bin.get(), "filesink").get(), "location"), "/tmp/x.mp4");
    EXPECT_EQ(number_of(child_of_factory(bin.get(), "h264parse").get(), "config-interval"), 1);
    const std::string encoder = on_platform("v4l2h264enc", "v4l2h264enc", "qtic2venc", "qtic2venc");
    const ElementPtr made = child_of_factory(bin.get(), encoder);
    ASSERT_TRUE(made);
    EXPECT_EQ(number_of(made.get(), "b-frames"), 4);
    EXPECT_EQ(number_of(made.get(), "target-bitrate"), 2000000);

    if (!is_v4l2_kind()) {
        EXPECT_EQ(chain_from_ghost_sink(bin.get()), (Lines{"qtic2venc", "queue", "h264parse", "mp4mux", "filesink"}));
        EXPECT_EQ(log_lines(),
                  (Lines{"I Output url: /tmp/x.mp4.", "I Platform is 8550 (pure ubuntu), will use qtic2venc plugin."}));
        return;
    }
    EXPECT_EQ(chain_from_ghost_sink(bin.get()),
              (Lines{"qtivtransform:qtivtransformNV12", "capsfilter:capsfilter_nv12", "videoconvert:videoconvert_NV12",
                     "capsfilter:capsfilter_I420", "videobox", "videoconvert:videoconvert_I420", "v4l2h264enc", "queue",
                     "h264parse", "mp4mux", "filesink"}));
    EXPECT_TRUE(has_caps(child(bin.get(), "capsfilter_nv12").get(), "video/x-raw,format=NV12"));
    EXPECT_TRUE(has_caps(child(bin.get(), "capsfilter_I420").get(), "video/x-raw,format=I420"));
    EXPECT_EQ(number_of(made.get(), "capture-io-mode"), on_platform(4, 2, -1, -1));
    EXPECT_EQ(number_of(made.get(), "output-io-mode"), on_platform(4, 5, -1, -1));
    EXPECT_EQ(log_lines(), (Lines{kConfigurationLine, kConfigurationLine, "I Configure video bottom: -16",
                                  "I Output url: /tmp/x.mp4.", "I Platform is 6490 ql, will use v4l2h264enc plugin."}));
}

TEST_F(Outputs, Mp4VariantForV4l2IsBuiltOnEveryPlatform)
{
    StreamOutputMp4sink builder("/tmp/x.mp4");
    builder.set_stream_id("cam");
    const ElementPtr bin = share(builder.build_6490_ql());
    ASSERT_TRUE(bin);
    EXPECT_EQ(chain_from_ghost_sink(bin.get()),
              (Lines{"qtivtransform:qtivtransformNV12", "capsfilter:capsfilter_nv12", "videoconvert:videoconvert_NV12",
                     "capsfilter:capsfilter_I420", "videobox", "videoconvert:videoconvert_I420", "v4l2h264enc", "queue",
                     "h264parse", "mp4mux", "filesink"}));
    const ElementPtr encoder = child_of_factory(bin.get(), "v4l2h264enc");
    EXPECT_EQ(number_of(encoder.get(), "capture-io-mode"), on_platform(4, 2, 0, 0));
    EXPECT_EQ(number_of(encoder.get(), "output-io-mode"), on_platform(4, 5, 0, 0));
}

TEST_F(Outputs, Mp4HeightIsPaddedToAMultipleOf32)
{
    if (!is_v4l2_kind()) {
        const ElementPtr bin = build(StreamOutputMp4sink("/tmp/x.mp4"));
        EXPECT_FALSE(child_of_factory(bin.get(), "videobox")) << "no padding on this platform";
        return;
    }
    for (const auto& [height, bottom] :
         {std::pair{720, -16}, std::pair{1088, 0}, std::pair{1080, -8}, std::pair{480, 0}, std::pair{1, -31}}) {
        config_.write(sized_stream(1366, height));
        clear_log();
        const ElementPtr bin = build(StreamOutputMp4sink("/tmp/x.mp4"));
        const ElementPtr box = child_of_factory(bin.get(), "videobox");
        EXPECT_EQ(number_of(box.get(), "bottom"), bottom) << height;
        EXPECT_EQ(number_of(box.get(), "right"), 0) << "only the height is padded";
        EXPECT_TRUE(log_has("I Configure video bottom: " + std::to_string(bottom)));
    }
}

TEST_F(Outputs, Mp4WithoutASizeLeavesTheBoxAndWarns)
{
    if (!is_v4l2_kind()) {
        build(StreamOutputMp4sink("/tmp/x.mp4", 0, 0));
        EXPECT_FALSE(log_has("W Output width and height not specified."));
        return;
    }
    for (const auto& [width, height] : {std::pair{0, 720}, std::pair{1280, 0}}) {
        config_.write(sized_stream(width, height));
        clear_log();
        const ElementPtr bin = build(StreamOutputMp4sink("/tmp/x.mp4", 1280, 720));
        ASSERT_TRUE(bin);
        EXPECT_EQ(number_of(child_of_factory(bin.get(), "videobox").get(), "bottom"), 0);
        EXPECT_EQ(log_lines(),
                  (Lines{kConfigurationLine, kConfigurationLine, "W Output width and height not specified.",
                         "I Output url: /tmp/x.mp4.", "I Platform is 6490 ql, will use v4l2h264enc plugin."}));
    }
}

TEST_F(Outputs, Mp4MissingElementIsLogged)
{
    Lines factories{"queue", "filesink", "mp4mux", "h264parse",
                    on_platform("v4l2h264enc", "v4l2h264enc", "qtic2venc", "qtic2venc")};
    if (is_v4l2_kind()) factories.insert(factories.end(), {"qtivtransform", "capsfilter", "videoconvert", "videobox"});
    for (const std::string& factory : factories) {
        const WithoutElement without(factory);
        clear_log();
        EXPECT_FALSE(build(StreamOutputMp4sink("/tmp/x.mp4"))) << factory;
        EXPECT_EQ(log_lines().back(), kNotAll) << factory;
    }
}

TEST_F(Outputs, Mp4ThatDoesNotLinkIsLogged)
{
    const ElementStandIn source_only("h264parse", "fakesrc");
    EXPECT_FALSE(build(StreamOutputMp4sink("/tmp/x.mp4")));
    EXPECT_EQ(log_lines().back(), "E Failed to link elements. Exiting.");
}

// ---- RTSP

TEST_F(Outputs, RtspBinForH264IsBuilt)
{
    const ElementPtr bin = build(StreamOutputRtspsink(kUrl, 640, 360));
    ASSERT_TRUE(bin);
    expect_one_active_ghost(bin.get(), "sink");
    const ElementPtr sink = child_of_factory(bin.get(), "rtspclientsink");
    EXPECT_EQ(text_of(sink.get(), "location"), kUrl);
    if (is_v4l2_kind()) {
        EXPECT_EQ(name_of(bin.get()), "velstream-output-rtspsink-cam");
        EXPECT_EQ(chain_from_ghost_sink(bin.get()), (Lines{"v4l2h264enc", "h264parse:h264-parser2", "rtspclientsink"}));
        const ElementPtr encoder = child_of_factory(bin.get(), "v4l2h264enc");
        EXPECT_EQ(number_of(encoder.get(), "capture-io-mode"), on_platform(4, 2, -1, -1));
        EXPECT_EQ(number_of(encoder.get(), "output-io-mode"), on_platform(4, 5, -1, -1));
        EXPECT_EQ(number_of(encoder.get(), "target-bitrate"), 0) << "no rate on this path";
        EXPECT_EQ(log_lines(), (Lines{"I Build 6490 ql v4l2.", "I Output url: rtsp://127.0.0.1:1/out.",
                                      kConfigurationLine, "I Stream id: cam, Output rtsp sink is h264 parse.",
                                      "I Platform is 6490 Qualcomm Linux, will use v4l2h264/5enc plugin."}));
        return;
    }
    EXPECT_EQ(name_of(bin.get()), "velstream-output-rtspsink");
    EXPECT_EQ(chain_from_ghost_sink(bin.get()), (Lines{"qtic2venc", "capsfilter", "h264parse", "rtspclientsink"}));
    EXPECT_TRUE(has_caps(child_of_factory(bin.get(), "capsfilter").get(), "video/x-h264,profile=baseline"));
    EXPECT_EQ(number_of(sink.get(), "protocols"), 4);
    EXPECT_EQ(number_of(sink.get(), "do-rtsp-keep-alive"), 0);
    const ElementPtr encoder = child_of_factory(bin.get(), "qtic2venc");
    EXPECT_EQ(number_of(encoder.get(), "target-bitrate"), 5000000);
    EXPECT_EQ(number_of(encoder.get(), "idr-interval"), 30);
    EXPECT_EQ(number_of(encoder.get(), "b-frames"), 0);
    EXPECT_EQ(log_lines(),
              (Lines{"I Output url: rtsp://127.0.0.1:1/out.",
                     on_platform("", "", "I Platform is 6490 (quorvis / pure ubuntu), will use qticvenc plugin.",
                                 "I Platform is 8550 (pure ubuntu), will use qtic2venc plugin."),
                     kConfigurationLine}));
}

TEST_F(Outputs, RtspBinForH265IsBuilt)
{
    config_.write(complete_stream("cam", "H265"));
    const ElementPtr bin = build(StreamOutputRtspsink(kUrl));
    ASSERT_TRUE(bin);
    if (is_v4l2_kind()) {
        EXPECT_EQ(chain_from_ghost_sink(bin.get()), (Lines{"v4l2h265enc", "h265parse:h265-parser2", "rtspclientsink"}));
        const ElementPtr encoder = child_of_factory(bin.get(), "v4l2h265enc");
        EXPECT_EQ(number_of(encoder.get(), "capture-io-mode"), on_platform(4, 5, -1, -1));
        EXPECT_EQ(number_of(encoder.get(), "output-io-mode"), on_platform(4, 5, -1, -1));
        EXPECT_TRUE(log_has("I Stream id: cam, Output rtsp sink is h265 parse."));
        return;
    }
    EXPECT_EQ(chain_from_ghost_sink(bin.get()), (Lines{"qtic2venc", "capsfilter", "h265parse", "rtspclientsink"}));
    expect_open_caps(child_of_factory(bin.get(), "capsfilter").get());
}

TEST_F(Outputs, RtspAssignmentToThePadsCapsIsRefusedWithALineAndNoCritical)
{
    // Criticals end the test's process.
    config_.write(complete_stream("cam", "H265"));
    const ElementPtr bin = build(StreamOutputRtspsink(kUrl));
    ASSERT_TRUE(bin);
    const std::string encoder = on_platform("v4l2h265enc", "v4l2h265enc", "qtic2venc", "qtic2venc");
    const PadPtr pad(gst_element_get_static_pad(child_of_factory(bin.get(), encoder).get(), "sink"));
    EXPECT_EQ(CapsPtr(gst_pad_get_current_caps(pad.get())), nullptr);
    const Lines lines = all_log_lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& line) {
                                return line.rfind("I Property caps of ", 0) == 0 &&
                                       line.find(" is missing or read-only, skipped.") != line.npos;
                            }),
              1);
}

TEST_F(Outputs, RtspVariantForV4l2IsBuiltOnEveryPlatform)
{
    for (const char* codec : {"H264", "H265"}) {
        const bool is_h265 = std::string(codec) == "H265";
        config_.write(complete_stream("cam", codec));
        clear_log();
        StreamOutputRtspsink builder(kUrl, 1920, 1080);
        builder.set_stream_id("cam");
        const ElementPtr bin = share(builder.build_6490_ql());
        ASSERT_TRUE(bin);
        EXPECT_EQ(name_of(bin.get()), "velstream-output-rtspsink-cam");
        EXPECT_EQ(chain_from_ghost_sink(bin.get()),
                  (is_h265 ? Lines{"v4l2h265enc", "h265parse:h265-parser2", "rtspclientsink"}
                           : Lines{"v4l2h264enc", "h264parse:h264-parser2", "rtspclientsink"}));
        const ElementPtr encoder = child_of_factory(bin.get(), is_h265 ? "v4l2h265enc" : "v4l2h264enc");
        EXPECT_EQ(number_of(encoder.get(), "capture-io-mode"),
                  is_h265 ? on_platform(4, 5, 0, 0) : on_platform(4, 2, 0, 0));
        EXPECT_EQ(number_of(encoder.get(), "output-io-mode"), on_platform(4, 5, 0, 0));
        const ElementPtr sink = child_of_factory(bin.get(), "rtspclientsink");
        EXPECT_EQ(number_of(sink.get(), "protocols"), 7) << "the element's own: multicast, UDP, TCP";
        EXPECT_EQ(number_of(sink.get(), "do-rtsp-keep-alive"), 1) << "the element's own";
        EXPECT_EQ(log_lines(),
                  (Lines{"I Build 6490 ql v4l2.", "I Output url: rtsp://127.0.0.1:1/out.", kConfigurationLine,
                         is_h265 ? "I Stream id: cam, Output rtsp sink is h265 parse."
                                 : "I Stream id: cam, Output rtsp sink is h264 parse.",
                         "I Platform is 6490 Qualcomm Linux, will use v4l2h264/5enc plugin."}));
        expect_one_active_ghost(bin.get(), "sink");
    }
}

TEST_F(Outputs, RtspEncodeTypeIsComparedExactly)
{
    config_.write(complete_stream("cam", "h265"));
    const ElementPtr bin = build(StreamOutputRtspsink(kUrl));
    EXPECT_TRUE(child_of_factory(bin.get(), "h264parse"));
}

TEST_F(Outputs, TwoRtspBinsFitIntoOnePipelineOnTheV4l2PathOnly)
{
    const ElementPtr pipeline = share(gst_pipeline_new("p"));
    const ElementPtr first = build(StreamOutputRtspsink(kUrl), "a");
    const ElementPtr second = build(StreamOutputRtspsink(kUrl), "b");
    EXPECT_TRUE(gst_bin_add(GST_BIN(pipeline.get()), first.get()));
    // The refusal of a name that is taken is a warning of GStreamer's, not a critical.
    EXPECT_EQ(gst_bin_add(GST_BIN(pipeline.get()), second.get()), is_v4l2_kind());
}

TEST_F(Outputs, RtspMissingElementIsLogged)
{
    Lines factories{"rtspclientsink", "h264parse", on_platform("v4l2h264enc", "v4l2h264enc", "qtic2venc", "qtic2venc")};
    if (!is_v4l2_kind()) factories.push_back("capsfilter");
    for (const std::string& factory : factories) {
        const WithoutElement without(factory);
        clear_log();
        EXPECT_FALSE(build(StreamOutputRtspsink(kUrl))) << factory;
        EXPECT_EQ(log_lines().back(), kNotAll) << factory;
    }
}

TEST_F(Outputs, RtspThatDoesNotLinkIsLogged)
{
    if (is_v4l2_kind()) {
        const ElementStandIn source_only("h264parse", "fakesrc");
        EXPECT_FALSE(build(StreamOutputRtspsink(kUrl)));
        EXPECT_EQ(log_lines().back(), "E Failed to link v4l2h264enc/h26xparse2/rtspclientsink elements!");
        return;
    }
    const struct {
        const char* factory;
        const char* stand_in;
        const char* line;
    } cases[] = {{"qtic2venc", "fakesink", "E Failed to link qtic2venc and capsfilter. Exiting.\n"},
                 {"h264parse", "fakesrc", "E Failed to link capsfilter and h26xparse. Exiting.\n"},
                 {"rtspclientsink", "fakesrc", "E Failed to link capsfilter and rtspclientsink. Exiting.\n"}};
    for (const auto& one : cases) {
        const ElementStandIn stand_in(one.factory, one.stand_in);
        EXPECT_FALSE(build(StreamOutputRtspsink(kUrl)));
        EXPECT_EQ(log_lines().back(), one.line);
    }
}

TEST_F(Outputs, ConfigurationThatIsNotJsonRaisesTheParsersException)
{
    config_.write("{");
    EXPECT_THROW(build(StreamOutputRtspsink(kUrl)), Json::RuntimeError);
    EXPECT_THROW(build(StreamOutputRtmpsink("rtmp://127.0.0.1:1/live/out")), Json::RuntimeError);
    if (is_v4l2_kind())
        EXPECT_THROW(build(StreamOutputMp4sink("/tmp/x.mp4")), Json::RuntimeError);
    else
        EXPECT_TRUE(build(StreamOutputMp4sink("/tmp/x.mp4"))) << "it asks for nothing there";
}

// ---- RTMP, the same on every platform

TEST_F(Outputs, RtmpBinIsBuilt)
{
    for (const auto& [codec, caps] :
         {std::pair{"H264", "video/x-h264,profile=baseline"}, std::pair{"h265", "video/x-h264,profile=baseline"}}) {
        config_.write(complete_stream("cam", codec));
        clear_log();
        const ElementPtr bin = build(StreamOutputRtmpsink("rtmp://127.0.0.1:1/live/out"));
        ASSERT_TRUE(bin);
        EXPECT_EQ(name_of(bin.get()), "velstream-output-rtmpsink");
        EXPECT_EQ(chain_from_ghost_sink(bin.get()), (Lines{"qtic2venc", "capsfilter", "flvmux", "rtmpsink"}));
        EXPECT_TRUE(has_caps(child_of_factory(bin.get(), "capsfilter").get(), caps));
        EXPECT_EQ(text_of(child_of_factory(bin.get(), "rtmpsink").get(), "location"), "rtmp://127.0.0.1:1/live/out");
        EXPECT_EQ(log_lines(), (Lines{kConfigurationLine}));
        expect_one_active_ghost(bin.get(), "sink");
    }
}

TEST_F(Outputs, RtmpWithH265StillMuxesThroughFlvmux)
{
    // An encoder and a muxer that take it: the stock muxer has no H.265.
    const ElementStandIn encoder("qtic2venc", "identity");
    const ElementStandIn mux("flvmux", "queue");
    const ElementStandIn sink("rtmpsink", "fakesink");
    config_.write(complete_stream("cam", "H265"));
    const ElementPtr bin = build(StreamOutputRtmpsink("rtmp://127.0.0.1:1/live/out"));
    ASSERT_TRUE(bin);
    EXPECT_EQ(chain_from_ghost_sink(bin.get()), (Lines{"qtic2venc", "capsfilter", "flvmux", "rtmpsink"}));
    EXPECT_TRUE(has_caps(child_of_factory(bin.get(), "capsfilter").get(), "video/x-h265,profile=baseline"));
}

TEST_F(Outputs, RtmpWithH265AndTheStockMuxerIsRefusedWithALine)
{
    config_.write(complete_stream("cam", "H265"));
    EXPECT_FALSE(build(StreamOutputRtmpsink("rtmp://127.0.0.1:1/live/out")));
    const std::string last = log_lines().back();
    // Which link is refused first is the encoder's affair: it may have no such profile.
    EXPECT_TRUE(last == "E Failed to link capsfilter and flvmux. Exiting.\n" ||
                last == "E Failed to link qtic2venc and capsfilter. Exiting.\n")
        << last;
}

TEST_F(Outputs, RtmpMissingElementIsLogged)
{
    for (const char* factory : {"rtmpsink", "flvmux", "capsfilter", "qtic2venc"}) {
        const WithoutElement without(factory);
        clear_log();
        EXPECT_FALSE(build(StreamOutputRtmpsink("rtmp://127.0.0.1:1/live/out"))) << factory;
        // The entry is read once the elements are made.
        EXPECT_EQ(all_log_lines(),
                  (Lines{std::string("W Element ") + factory + " is not installed or cannot be created.",
                         kConfigurationLine, kNotAll}));
    }
}

TEST_F(Outputs, RtmpThatDoesNotLinkIsLogged)
{
    const struct {
        const char* factory;
        const char* stand_in;
        const char* line;
    } cases[] = {{"qtic2venc", "fakesink", "E Failed to link qtic2venc and capsfilter. Exiting.\n"},
                 {"flvmux", "fakesrc", "E Failed to link capsfilter and flvmux. Exiting.\n"},
                 {"rtmpsink", "fakesrc", "E Failed to link flvmux and rtmpsink. Exiting.\n"}};
    for (const auto& one : cases) {
        const ElementStandIn stand_in(one.factory, one.stand_in);
        EXPECT_FALSE(build(StreamOutputRtmpsink("rtmp://127.0.0.1:1/live/out")));
        EXPECT_EQ(log_lines().back(), one.line);
    }
}

// ---- Wayland, the same on every platform

TEST_F(Outputs, WaylandBinHasTheWindowsPlaceAndSize)
{
    const ElementStandIn window("waylandsink", window_sink_type());
    const ElementPtr bin = build(StreamOutputWaylandsink(1, 2, 640, 360));
    ASSERT_TRUE(bin);
    EXPECT_EQ(name_of(bin.get()), "velstream-output-waylandsink");
    EXPECT_EQ(factories_in(bin.get()), (Lines{"waylandsink"}));
    const ElementPtr sink = child_of_factory(bin.get(), "waylandsink");
    EXPECT_EQ(number_of(sink.get(), "x"), 1);
    EXPECT_EQ(number_of(sink.get(), "y"), 2);
    EXPECT_EQ(number_of(sink.get(), "width"), 640);
    EXPECT_EQ(number_of(sink.get(), "height"), 360);
    EXPECT_EQ(log_lines(), Lines{});
    expect_one_active_ghost(bin.get(), "sink");
}

TEST_F(Outputs, WaylandSinkWithoutPlaceAndSizeIsUsedAllTheSame)
{
    const ElementStandIn stock("waylandsink", "fakesink");
    const ElementPtr bin = build(StreamOutputWaylandsink(1, 2, 640, 360));
    ASSERT_TRUE(bin);
    EXPECT_EQ(all_log_lines(), (Lines{"I Property x of GstFakeSink is missing or read-only, skipped.",
                                      "I Property y of GstFakeSink is missing or read-only, skipped.",
                                      "I Property width of GstFakeSink is missing or read-only, skipped.",
                                      "I Property height of GstFakeSink is missing or read-only, skipped."}));
}

TEST_F(Outputs, WaylandMissingElementIsLogged)
{
    const WithoutElement without("waylandsink");
    EXPECT_FALSE(build(StreamOutputWaylandsink(0, 0, 640, 360)));
    EXPECT_EQ(log_lines(), (Lines{kNotAll}));
}

} // namespace
