// The free element helpers and the builders' root class.
#include "ConfigFile.h"
#include "Elements.h"
#include "PrintedText.h"
#include "RecordedLog.h"
#include "StreamBuild.h"
#include "StreamCommon.h"
#include "StreamInput.h"
#include "StreamOutput.h"

#include <gtest/gtest.h>

#include <climits>
#include <type_traits>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Lines = std::vector<std::string>;

class ElementHelpers : public WithGStreamer {
protected:
    const PrintedText printed_;
};

TEST_F(ElementHelpers, SourceIsAnRtspsrcWithItsLocation)
{
    const ElementPtr source = share(g_setup_source("rtsp://127.0.0.1/cam"));
    EXPECT_EQ(label_of(source.get()), "rtspsrc:source");
    EXPECT_EQ(text_of(source.get(), "location"), "rtsp://127.0.0.1/cam");
    EXPECT_EQ(PrintedText::error(), "");
}

TEST_F(ElementHelpers, InputElementsHaveTheirNames)
{
    EXPECT_EQ(label_of(share(g_setup_depay_i()).get()), "rtph264depay:depay");
    EXPECT_EQ(label_of(share(g_setup_parser_i()).get()), "h264parse:parser");
    EXPECT_EQ(label_of(share(g_setup_decoder_i()).get()), "v4l2h264dec:decoder");
}

TEST_F(ElementHelpers, DecoderImportsOnItsCaptureSide)
{
    const ElementPtr decoder = share(g_setup_decoder_i());
    EXPECT_EQ(number_of(decoder.get(), "capture-io-mode"), 5);
    EXPECT_EQ(number_of(decoder.get(), "output-io-mode"), 2);
}

TEST_F(ElementHelpers, SplitterHasItsName)
{
    const ElementStandIn splitter("qtivsplit", "tee");
    EXPECT_EQ(label_of(share(g_setup_splitter()).get()), "qtivsplit:splitter");
}

TEST_F(ElementHelpers, OutputElementsCarryTheirNumber)
{
    EXPECT_EQ(name_of(share(g_setup_encoder_o(0)).get()), "encoder0");
    EXPECT_EQ(label_of(share(g_setup_encoder_o(12)).get()), "v4l2h264enc:encoder12");
    EXPECT_EQ(factory_of(share(g_setup_parser_o(3)).get()), "h264parse");
    EXPECT_EQ(name_of(share(g_setup_parser_o(3)).get()), "parse3");
    const ElementPtr sink = share(g_setup_sink("rtsp://127.0.0.1/out", 2));
    EXPECT_EQ(factory_of(sink.get()), "rtspclientsink");
    EXPECT_EQ(name_of(sink.get()), "sink2");
    EXPECT_EQ(text_of(sink.get(), "location"), "rtsp://127.0.0.1/out");
}

TEST_F(ElementHelpers, NegativeNumberIsWrittenInDecimal)
{
    EXPECT_EQ(name_of(share(g_setup_parser_o(-1)).get()), "parse-1");
}

TEST_F(ElementHelpers, EncoderImportsOnItsOutputSide)
{
    const ElementPtr encoder = share(g_setup_encoder_o(1));
    EXPECT_EQ(number_of(encoder.get(), "capture-io-mode"), 2);
    EXPECT_EQ(number_of(encoder.get(), "output-io-mode"), 5);
}

TEST_F(ElementHelpers, MissingInputElementsArePrinted)
{
    const struct {
        const char* factory;
        GstElement* (*make)();
        const char* text;
    } cases[] = {
        {"rtspsrc", [] { return g_setup_source("rtsp://x"); }, "Failed to create RTSP source.\n"},
        {"rtph264depay", g_setup_depay_i, "Failed to create RTP depayloader.\n"},
        {"h264parse", g_setup_parser_i, "Failed to create H264 parser.\n"},
        {"v4l2h264dec", g_setup_decoder_i, "Failed to create H264 decoder.\n"},
        {"qtivsplit", g_setup_splitter, "Failed to create splitter.\n"},
    };
    for (const auto& one : cases) {
        const WithoutElement without(one.factory);
        PrintedText::error().clear();
        EXPECT_EQ(one.make(), nullptr);
        EXPECT_EQ(PrintedText::error(), one.text);
    }
}

TEST_F(ElementHelpers, MissingOutputElementsAreSilent)
{
    const WithoutElement encoder("v4l2h264enc");
    const WithoutElement parser("h264parse");
    const WithoutElement sink("rtspclientsink");
    EXPECT_EQ(g_setup_encoder_o(1), nullptr);
    EXPECT_EQ(g_setup_parser_o(1), nullptr);
    EXPECT_EQ(g_setup_sink("rtsp://x", 1), nullptr);
    EXPECT_EQ(PrintedText::error() + PrintedText::out(), "");
}

// ---- Output selector

TEST_F(ElementHelpers, StreamOutputOfTypeRtspIsThatBin)
{
    const ConfigFile file(complete_stream("cam", "H264"));
    StreamIns ins;
    ins.streamsId = "cam";
    ins.outputType = "rtsp";
    ins.outputAddr = "rtsp://127.0.0.1:1/out";
    const ElementPtr output = share(g_get_stream_output(ins));
    ASSERT_TRUE(output);
    EXPECT_EQ(name_of(output.get()), "velstream-output-rtspsink-cam");
    EXPECT_EQ(text_of(child_of_factory(output.get(), "rtspclientsink").get(), "location"), "rtsp://127.0.0.1:1/out");
    EXPECT_EQ(log_lines().front(),
              "I g_get_stream_output - stream id: cam, output type: rtsp, address: rtsp://127.0.0.1:1/out");
}

TEST_F(ElementHelpers, StreamOutputOfTypeWaylandHasTheConfiguredSize)
{
    const ElementStandIn window("waylandsink", window_sink_type());
    StreamIns ins;
    ins.streamsId = "cam";
    ins.outputType = "wayland";
    ins.width = 640;
    ins.height = 360;
    const ElementPtr output = share(g_get_stream_output(ins));
    ASSERT_TRUE(output);
    EXPECT_EQ(name_of(output.get()), "velstream-output-waylandsink");
    const ElementPtr sink = child_of_factory(output.get(), "waylandsink");
    EXPECT_EQ(number_of(sink.get(), "x"), 0);
    EXPECT_EQ(number_of(sink.get(), "y"), 0);
    EXPECT_EQ(number_of(sink.get(), "width"), 640);
    EXPECT_EQ(number_of(sink.get(), "height"), 360);
    EXPECT_EQ(log_lines(), (Lines{"I g_get_stream_output - stream id: cam, output type: wayland, address: "}));
}

TEST_F(ElementHelpers, StreamOutputOfAnyOtherTypeIsAFakesink)
{
    for (const char* type : {"RTSP", "Wayland", "mp4", "rtmp", "", "rtsp "}) {
        StreamIns ins;
        ins.streamsId = "cam";
        ins.outputType = type;
        ins.outputAddr = "a";
        clear_log();
        const ElementPtr output = share(g_get_stream_output(ins));
        EXPECT_EQ(label_of(output.get()), "fakesink:sink") << type;
        EXPECT_EQ(log_lines(), (Lines{std::string("I g_get_stream_output - stream id: cam, output type: ") + type +
                                      ", address: a"}));
    }
}

TEST(AlignUp, RoundsUpToAMultiple)
{
    EXPECT_EQ(align_up(1080, 16), 1088);
    EXPECT_EQ(align_up(1920, 32), 1920);
    EXPECT_EQ(align_up(0, 16), 0);
    EXPECT_EQ(align_up(720, 32), 736);
    EXPECT_EQ(align_up(1, 128), 128);
    EXPECT_EQ(align_up(129, 128), 256);
    EXPECT_EQ(align_up(5, 1), 5);
    EXPECT_EQ(align_up(-5, 4), 0) << "truncating division: (-5 + 3) / 4 is 0";
    EXPECT_EQ(align_up(-9, 4), -4);
    EXPECT_EQ(align_up(INT_MAX - 15, 16), INT_MAX - 15);
    EXPECT_EQ(align_up(INT_MAX, 32), INT_MIN + 32) << "32-bit arithmetic wraps round";
}

// ---- The builders' root

class BareBuilder : public StreamBase {
public:
    GstElement* build() override { return nullptr; }
    std::string id() const { return stream_id_; }
};

template <typename Base, typename... Builders>
constexpr bool are_builders = ((std::is_base_of_v<Base, Builders> && !std::is_abstract_v<Builders>)&&...);

TEST(Builders, AreOneTree)
{
    static_assert(std::is_abstract_v<StreamBase> && std::is_abstract_v<StreamInput> &&
                  std::is_abstract_v<StreamOutput>);
    static_assert(std::is_convertible_v<StreamInput*, StreamBase*> &&
                  std::is_convertible_v<StreamOutput*, StreamBase*>);
    static_assert(are_builders<StreamInput, StreamInputFile, StreamInputRtmp, StreamInputRtsp>);
    static_assert(are_builders<StreamOutput, StreamOutputMp4sink, StreamOutputRtmpsink, StreamOutputRtspsink,
                               StreamOutputWaylandsink>);
    static_assert(std::has_virtual_destructor_v<StreamInput> && std::has_virtual_destructor_v<StreamOutput>);
    static_assert(!std::has_virtual_destructor_v<StreamBase>, "deleted through an input or an output only");
}

TEST(Builders, HoldTheirFieldsAndNoMore)
{
    constexpr std::size_t kText = sizeof(std::string);
    constexpr std::size_t kPointer = sizeof(void*);
    static_assert(sizeof(StreamBase) == kPointer + 3 * kPointer + kText);
    static_assert(sizeof(StreamInput) == sizeof(StreamBase) + 2 * kText);
    static_assert(sizeof(StreamInputFile) == sizeof(StreamInput));
    static_assert(sizeof(StreamInputRtmp) == sizeof(StreamInput));
    static_assert(sizeof(StreamInputRtsp) == sizeof(StreamInput));
    static_assert(sizeof(StreamOutput) == sizeof(StreamBase));
    static_assert(sizeof(StreamOutputRtmpsink) == sizeof(StreamBase) + kText);
    static_assert(sizeof(StreamOutputMp4sink) == sizeof(StreamBase) + kText + kPointer + 2 * sizeof(int32_t));
    static_assert(sizeof(StreamOutputRtspsink) == sizeof(StreamOutputMp4sink));
    static_assert(sizeof(StreamOutputWaylandsink) == sizeof(StreamBase) + 4 * sizeof(int32_t));
}

TEST(StreamBase, StreamIdIsEmptyUntilItIsSet)
{
    BareBuilder builder;
    EXPECT_EQ(builder.id(), "empty");
    builder.set_stream_id("cam");
    EXPECT_EQ(builder.id(), "cam");
}

TEST_F(ElementHelpers, SinkPadIsAnActiveGhostOfTheElements)
{
    const ElementPtr bin = share(gst_bin_new("bin"));
    GstElement* element = gst_element_factory_make("identity", nullptr);
    gst_bin_add(GST_BIN(bin.get()), element);
    BareBuilder builder;
    builder.createSinkPad(bin.get(), element);
    builder.createSrcPad(bin.get(), element);
    for (const char* name : {"sink", "src"}) {
        const PadPtr ghost(gst_element_get_static_pad(bin.get(), name));
        ASSERT_TRUE(ghost && GST_IS_GHOST_PAD(ghost.get()));
        EXPECT_TRUE(gst_pad_is_active(ghost.get()));
        const PadPtr target(gst_ghost_pad_get_target(GST_GHOST_PAD(ghost.get())));
        const PadPtr own(gst_element_get_static_pad(element, name));
        EXPECT_EQ(target.get(), own.get());
    }
}

TEST_F(ElementHelpers, ElementWithoutThePadGetsNoGhost)
{
    // Criticals end the test's process.
    const ElementPtr bin = share(gst_bin_new("bin"));
    GstElement* sink = gst_element_factory_make("fakesink", nullptr);
    gst_bin_add(GST_BIN(bin.get()), sink);
    BareBuilder builder;
    builder.createSrcPad(bin.get(), sink);
    EXPECT_EQ(bin->numpads, 0);
}

TEST_F(ElementHelpers, StreamOutputThatCannotBeBuiltIsNull)
{
    const WithoutElement without("waylandsink");
    StreamIns ins;
    ins.outputType = "wayland";
    EXPECT_EQ(g_get_stream_output(ins), nullptr);
    EXPECT_EQ(log_lines().back(), "E Not all elements could be created.\n");
}

TEST(StreamInput, TheLastConstructedInputIsNoted)
{
    const StreamInputRtsp first("rtsp://127.0.0.1:1/a", "a");
    EXPECT_EQ(g_stream_id, "a");
    const StreamInputRtsp second("rtsp://127.0.0.1:1/b", "b");
    EXPECT_EQ(g_stream_id, "b");
    const StreamInputFile file("c.mp4", "c");
    EXPECT_EQ(g_stream_id, "c");
    const StreamInputRtmp rtmp("rtmp://127.0.0.1:1/d", "d");
    EXPECT_EQ(g_stream_id, "d");
}

TEST(StreamInput, AnotherIdForABuilderIsNotNoted)
{
    StreamInputRtsp input("rtsp://127.0.0.1:1/a", "a");
    input.set_stream_id("z");
    EXPECT_EQ(g_stream_id, "a");
}

} // namespace
