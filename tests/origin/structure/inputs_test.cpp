// The input builders' bins on this executable's platform.
#include "ConfigFile.h"
#include "Elements.h"
#include "RecordedLog.h"
#include "StreamBuild.h"
#include "StreamInput.h"
#include "test_platform.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Lines = std::vector<std::string>;

const char* const kConfigurationLine = "I Start to get configuration properties for stream id: cam.";
const char* const kNotAll = "E Not all elements could be created.";

/// What a codec's name in the file leads to: anything but "H265" is H.264.
struct Codec {
    const char* name;
    bool is_h265;
};

void PrintTo(const Codec& codec, std::ostream* out)
{
    *out << codec.name;
}

template <typename Builder>
ElementPtr build(const char* address)
{
    Builder builder(address, "cam");
    return share(builder.build());
}

std::string decoder_factory(bool is_h265)
{
    const std::string v4l2 = is_h265 ? "v4l2h265dec" : "v4l2h264dec";
    return on_platform<std::string>(v4l2, v4l2, "qtivdec", "qtic2vdec");
}

Lines sorted(Lines lines)
{
    std::sort(lines.begin(), lines.end());
    return lines;
}

void expect_io_modes(GstElement* element, long capture, long output)
{
    EXPECT_EQ(number_of(element, "capture-io-mode"), capture);
    EXPECT_EQ(number_of(element, "output-io-mode"), output);
}

class Inputs : public WithGStreamer, public ::testing::WithParamInterface<Codec> {
protected:
    static bool is_h265() { return GetParam().is_h265; }
    static std::string parser() { return is_h265() ? "h265parse" : "h264parse"; }
    static std::string decoder() { return decoder_factory(is_h265()); }

    const ConfigFile config_{complete_stream("cam", GetParam().name)};
};

TEST_P(Inputs, FileBinIsBuilt)
{
    const ElementPtr bin = build<StreamInputFile>("/absent/video.mp4");
    ASSERT_TRUE(bin);
    EXPECT_EQ(name_of(bin.get()), "velstream_input_file_cam");
    EXPECT_EQ(factories_in(bin.get()), sorted({"filesrc", "qtdemux", "queue", parser(), decoder()}));
    EXPECT_EQ(chain_to_ghost_src(bin.get()), (Lines{"queue", parser(), decoder()}));
    const ElementPtr source = child(bin.get(), "queue_input_src");
    EXPECT_EQ(chain_from(source.get()), (Lines{"filesrc:queue_input_src", "qtdemux"}));
    EXPECT_EQ(text_of(source.get(), "location"), "/absent/video.mp4");
    expect_one_active_ghost(bin.get(), "src");

    // The text says h264 for H.265 too.
    const char* const line = on_platform<const char*>(
        "I Platform is 6490 Qualcomm Linux, will use v4l2h264dec / v4l2h265dec plugin.",
        "I Platform is 6490 Qualcomm Linux, will use v4l2h264dec / v4l2h265dec plugin.",
        "I Platform is 6490, will use qtivdec plugin.", "I Platform is 8550, will use qtic2vdec plugin.");
    EXPECT_EQ(log_lines(), (Lines{kConfigurationLine,
                                  is_h265() ? "I Input rtsp is h264. Including h265parse."
                                            : "I Input rtsp is h264. Including h264parse.",
                                  line}));
}

TEST_P(Inputs, FileDecoderHasItsIoModes)
{
    const ElementPtr bin = build<StreamInputFile>("/absent/video.mp4");
    const ElementPtr made = child_of_factory(bin.get(), decoder());
    ASSERT_TRUE(made);
    if (!is_v4l2_kind()) {
        EXPECT_FALSE(has_property(made.get(), "capture-io-mode"));
        return;
    }
    const long mode = on_platform(4, 5, -1, -1);
    expect_io_modes(made.get(), mode, mode);
    EXPECT_EQ(number_of(made.get(), "discard-corrupted-frames"), 0);
}

TEST_P(Inputs, FileDemuxersVideoPadIsLinkedToTheQueue)
{
    const ElementPtr bin = build<StreamInputFile>("/absent/video.mp4");
    const ElementPtr demux = child_of_factory(bin.get(), "qtdemux");
    const ElementPtr queue = child_of_factory(bin.get(), "queue");
    const PadPtr pad = make_source_pad("video_0", "video/x-h264,stream-format=avc,alignment=au");
    gst_element_add_pad(demux.get(), GST_PAD(gst_object_ref(pad.get())));
    EXPECT_EQ(is_linked_to(pad.get(), queue.get()), !is_h265()) << "an H.265 parser refuses H.264";
}

TEST_P(Inputs, RtmpBinIsBuilt)
{
    const ElementPtr bin = build<StreamInputRtmp>("rtmp://127.0.0.1:1/live/cam");
    ASSERT_TRUE(bin);
    EXPECT_EQ(name_of(bin.get()), "velstream_input_file_cam");
    EXPECT_EQ(factories_in(bin.get()), sorted({"rtmpsrc", "flvdemux", "queue", parser(), decoder()}));
    EXPECT_EQ(chain_to_ghost_src(bin.get()), (Lines{"queue", parser(), decoder()}));
    const ElementPtr source = child_of_factory(bin.get(), "rtmpsrc");
    EXPECT_EQ(chain_from(source.get()), (Lines{"rtmpsrc", "flvdemux"}));
    EXPECT_EQ(text_of(source.get(), "location"), "rtmp://127.0.0.1:1/live/cam");
    expect_one_active_ghost(bin.get(), "src");

    const ElementPtr made = child_of_factory(bin.get(), decoder());
    if (is_v4l2_kind()) {
        const long mode = on_platform(4, 5, -1, -1);
        expect_io_modes(made.get(), mode, mode);
        EXPECT_EQ(number_of(made.get(), "discard-corrupted-frames"), 0);
    }
    const char* const line = on_platform<const char*>(
        "I Platform is 6490 Qualcomm Linux, will use v4l2h264dec / v4l2h265dec plugin.",
        "I Platform is 6490 Qualcomm Linux, will use v4l2h264dec / v4l2h265dec plugin.",
        "I Platform is 6490, will use qtivdec plugin.", "I Platform is 8550, will use qtic2vdec plugin.");
    EXPECT_EQ(log_lines(), (Lines{kConfigurationLine, line}));
}

TEST_P(Inputs, RtmpDemuxersVideoPadIsLinkedToTheQueue)
{
    const ElementPtr bin = build<StreamInputRtmp>("rtmp://127.0.0.1:1/live/cam");
    const ElementPtr demux = child_of_factory(bin.get(), "flvdemux");
    clear_log();
    const PadPtr pad = make_source_pad("video", is_h265() ? "video/x-h265,stream-format=hvc1,alignment=au"
                                                          : "video/x-h264,stream-format=avc,alignment=au");
    gst_element_add_pad(demux.get(), GST_PAD(gst_object_ref(pad.get())));
    EXPECT_TRUE(is_linked_to(pad.get(), child_of_factory(bin.get(), "queue").get()));
    EXPECT_EQ(log_lines(), (Lines{"I Successfully linked new pad (video) to queue.\n"}));
}

TEST_P(Inputs, RtspBinIsBuilt)
{
    const ElementPtr bin = build<StreamInputRtsp>("rtsp://127.0.0.1:1/cam");
    ASSERT_TRUE(bin);
    const std::string depay = is_h265() ? "rtph265depay" : "rtph264depay";
    EXPECT_EQ(name_of(bin.get()), "velstream_input_file_cam");
    EXPECT_EQ(factories_in(bin.get()), sorted({"rtspsrc", depay, parser(), decoder()}));
    EXPECT_EQ(chain_to_ghost_src(bin.get()), (Lines{depay, parser(), decoder()}));
    const ElementPtr source = child(bin.get(), "queue_input_src");
    EXPECT_EQ(label_of(source.get()), "rtspsrc:queue_input_src");
    EXPECT_EQ(text_of(source.get(), "location"), "rtsp://127.0.0.1:1/cam");
    expect_one_active_ghost(bin.get(), "src");

    const char* const line =
        on_platform<const char*>("I Platform is 6490 Qualcomm Linux, will use related v4l2h264/5dec plugin.",
                                 "I Platform is 6490 Qualcomm Linux, will use related v4l2h264/5dec plugin.",
                                 "I Platform is 6490 (quorvis / pure ubuntu), will use qtivdec plugin.",
                                 "I Platform is 8550 (pure ubuntu), will use qtic2vdec plugin.");
    EXPECT_EQ(log_lines(), (Lines{kConfigurationLine,
                                  is_h265() ? "I Input rtsp is h265. Including rtph265depay and h265parse."
                                            : "I Input rtsp is h264. Including rtph264depay and h264parse.",
                                  line}));
}

TEST_P(Inputs, RtspDecoderHasItsProperties)
{
    const ElementPtr bin = build<StreamInputRtsp>("rtsp://127.0.0.1:1/cam");
    const ElementPtr made = child_of_factory(bin.get(), decoder());
    ASSERT_TRUE(made);
    if (!is_v4l2_kind()) {
        EXPECT_FALSE(has_property(made.get(), "capture-io-mode"));
        return;
    }
    expect_io_modes(made.get(), on_platform(4, 5, -1, -1), on_platform(4, 2, -1, -1));
    EXPECT_EQ(number_of(made.get(), "discard-corrupted-frames"), 1);
}

TEST_P(Inputs, RtspSourceHasItsSettings)
{
    const ElementPtr bin = build<StreamInputRtsp>("rtsp://127.0.0.1:1/cam");
    const ElementPtr source = child(bin.get(), "queue_input_src");
    ASSERT_TRUE(source);
    EXPECT_EQ(number_of(source.get(), "latency"), on_platform(200, 1000, 1000, 1000));
    EXPECT_EQ(number_of(source.get(), "protocols"), on_platform(4, 1, 1, 1)) << "4 TCP, 1 UDP";
    EXPECT_EQ(number_of(source.get(), "drop-on-latency"), on_platform(0, 1, 1, 1));
    EXPECT_EQ(number_of(source.get(), "do-rtsp-keep-alive"), 1);
    EXPECT_EQ(number_of(source.get(), "udp-reconnect"), 1);
    // The element's own values on ub2404.
    EXPECT_EQ(number_of(source.get(), "udp-buffer-size"), on_platform(524288, 2097152, 2097152, 2097152));
    EXPECT_EQ(number_of(source.get(), "timeout"), on_platform(5000000, 30000000, 30000000, 30000000));
}

TEST_P(Inputs, RtspDepayloaderHasABufferProbeThatLetsPass)
{
    const ElementPtr bin = build<StreamInputRtsp>("rtsp://127.0.0.1:1/cam");
    const ElementPtr depay = child_of_factory(bin.get(), is_h265() ? "rtph265depay" : "rtph264depay");
    const PadPtr pad(gst_element_get_static_pad(depay.get(), "src"));
    EXPECT_EQ(pad->num_probes, 1);
}

TEST_P(Inputs, RtspVideoPadIsLinkedToTheDepayloader)
{
    const ElementPtr bin = build<StreamInputRtsp>("rtsp://127.0.0.1:1/cam");
    const ElementPtr source = child(bin.get(), "queue_input_src");
    const ElementPtr depay = child_of_factory(bin.get(), is_h265() ? "rtph265depay" : "rtph264depay");
    const PadPtr pad = make_source_pad(
        "recv_rtp_src_0", std::string("application/x-rtp,media=video,clock-rate=90000,payload=96,encoding-name=") +
                              (is_h265() ? "H265" : "H264"));
    // Emitted, not added: rtspsrc looks after the pads that it has.
    g_signal_emit_by_name(source.get(), "pad-added", pad.get());
    EXPECT_TRUE(is_linked_to(pad.get(), depay.get()));
    EXPECT_EQ(log_lines().back(), "I Pad linked successfully.\n");
}

INSTANTIATE_TEST_SUITE_P(Codecs, Inputs,
                         ::testing::Values(Codec{"H264", false}, Codec{"H265", true}, Codec{"h265", false},
                                           Codec{"VP8", false}),
                         [](const auto& test) { return std::string(test.param.name); });

// ---- What is missing or does not link

class InputFailures : public WithGStreamer {
protected:
    const ConfigFile config_{complete_stream("cam", "H264")};
};

TEST_F(InputFailures, MissingElementOfAFileBinIsLogged)
{
    for (const std::string& factory : {std::string("filesrc"), std::string("qtdemux"), std::string("queue"),
                                       std::string("h264parse"), decoder_factory(false)}) {
        const WithoutElement without(factory);
        clear_log();
        EXPECT_FALSE(build<StreamInputFile>("a.mp4")) << factory;
        EXPECT_EQ(log_lines().back(), kNotAll) << factory;
    }
}

TEST_F(InputFailures, MissingElementOfAnRtmpBinIsLogged)
{
    for (const std::string& factory : {std::string("rtmpsrc"), std::string("flvdemux"), std::string("queue"),
                                       std::string("h264parse"), decoder_factory(false)}) {
        const WithoutElement without(factory);
        clear_log();
        EXPECT_FALSE(build<StreamInputRtmp>("rtmp://127.0.0.1:1/live/cam")) << factory;
        EXPECT_EQ(log_lines().back(), std::string(kNotAll) + "\n") << factory;
    }
}

TEST_F(InputFailures, MissingElementOfAnRtspBinIsLogged)
{
    for (const std::string& factory :
         {std::string("rtspsrc"), std::string("rtph264depay"), std::string("h264parse"), decoder_factory(false)}) {
        const WithoutElement without(factory);
        clear_log();
        EXPECT_FALSE(build<StreamInputRtsp>("rtsp://127.0.0.1:1/cam")) << factory;
        EXPECT_EQ(log_lines().back(), kNotAll) << factory;
    }
}

TEST_F(InputFailures, FileBinThatDoesNotLinkIsLogged)
{
    const struct {
        std::string factory;
        const char* line;
    } cases[] = {{"qtdemux", "E Failed to link filesrc and qtdemux. Exiting."},
                 {"h264parse", "E Failed to link queue and h26xparse. Exiting."},
                 {decoder_factory(false), "E Failed to link h26xparse and videoconvert. Exiting."}};
    for (const auto& one : cases) {
        const ElementStandIn source_only(one.factory, "fakesrc");
        clear_log();
        EXPECT_FALSE(build<StreamInputFile>("a.mp4")) << one.factory;
        EXPECT_EQ(log_lines().back(), one.line);
    }
}

TEST_F(InputFailures, RtmpBinThatDoesNotLinkIsLogged)
{
    const struct {
        std::string factory;
        const char* line;
    } cases[] = {{"rtmpsrc", "E Failed to link rtmpsrc and flvdemux. Exiting.\n"},
                 {"h264parse", "E Failed to link queue and h26xparse. Exiting.\n"},
                 {decoder_factory(false), "E Failed to link h26xparse and qtivdec. Exiting.\n"}};
    for (const auto& one : cases) {
        const ElementStandIn stand_in(one.factory, one.factory == "rtmpsrc" ? "fakesink" : "fakesrc");
        clear_log();
        EXPECT_FALSE(build<StreamInputRtmp>("rtmp://127.0.0.1:1/live/cam")) << one.factory;
        EXPECT_EQ(log_lines().back(), one.line);
    }
}

TEST_F(InputFailures, RtspBinThatDoesNotLinkIsLogged)
{
    const struct {
        std::string factory;
        const char* line;
    } cases[] = {{"h264parse", "E Failed to link rtph26xdepay and qtdemux. Exiting."},
                 {decoder_factory(false), "E Failed to link h26xparse and videoconvert. Exiting.\n"}};
    for (const auto& one : cases) {
        const ElementStandIn source_only(one.factory, "fakesrc");
        clear_log();
        EXPECT_FALSE(build<StreamInputRtsp>("rtsp://127.0.0.1:1/cam")) << one.factory;
        EXPECT_EQ(log_lines().back(), one.line);
    }
}

TEST_F(InputFailures, ConfigurationThatIsNotJsonRaisesTheParsersException)
{
    config_.write("{");
    EXPECT_THROW(build<StreamInputFile>("a.mp4"), Json::RuntimeError);
    EXPECT_THROW(build<StreamInputRtmp>("rtmp://127.0.0.1:1/live/cam"), Json::RuntimeError);
    EXPECT_THROW(build<StreamInputRtsp>("rtsp://127.0.0.1:1/cam"), Json::RuntimeError);
}

TEST_F(InputFailures, AnotherIdForTheBuilderChangesTheCodecButNotTheName)
{
    config_.write(complete_stream("other", "H265"));
    StreamInputFile builder("a.mp4", "cam");
    builder.set_stream_id("other");
    const ElementPtr bin = share(builder.build());
    EXPECT_EQ(name_of(bin.get()), "velstream_input_file_cam");
    EXPECT_TRUE(child_of_factory(bin.get(), "h265parse"));
}

} // namespace
