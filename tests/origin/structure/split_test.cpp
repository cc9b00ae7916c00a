// The pipeline of two streams of one camera: what is linked to what on every platform, what is said of one that cannot
// be made, and how its call ends.
#include "Elements.h"
#include "RecordedLog.h"
#include "StreamBuild.h"
#include "test_platform.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Lines = std::vector<std::string>;
using Look = std::function<void(GstElement*)>;

constexpr const char* kAddress = "rtsp://127.0.0.1:1/camera";

// ---- A camera that has no pads: what starts it, looks at its pipeline

Look on_start;

struct Camera {
    GstElement parent;
    char* location;
};

GstStateChangeReturn change_camera_state(GstElement* camera, GstStateChange change)
{
    if (change == GST_STATE_CHANGE_READY_TO_PAUSED) on_start(GST_ELEMENT_PARENT(camera));
    return GST_STATE_CHANGE_SUCCESS;
}

void init_camera_class(gpointer klass, gpointer)
{
    gst_element_class_set_static_metadata(GST_ELEMENT_CLASS(klass), "Camera", "Source", "Is silent", "velstream-gst");
    GST_ELEMENT_CLASS(klass)->change_state = change_camera_state;
    G_OBJECT_CLASS(klass)->set_property = [](GObject* object, guint, const GValue* value, GParamSpec*) {
        g_free(reinterpret_cast<Camera*>(object)->location);
        reinterpret_cast<Camera*>(object)->location = g_value_dup_string(value);
    };
    G_OBJECT_CLASS(klass)->get_property = [](GObject* object, guint, GValue* value, GParamSpec*) {
        g_value_set_string(value, reinterpret_cast<Camera*>(object)->location);
    };
    G_OBJECT_CLASS(klass)->finalize = [](GObject* object) {
        g_free(reinterpret_cast<Camera*>(object)->location);
        G_OBJECT_CLASS(g_type_class_peek(GST_TYPE_ELEMENT))->finalize(object);
    };
    g_object_class_install_property(G_OBJECT_CLASS(klass), 1,
                                    g_param_spec_string("location", "", "", nullptr, G_PARAM_READWRITE));
}

GType camera_type()
{
    static const GType type = g_type_register_static_simple(GST_TYPE_ELEMENT, "VelTestCamera", sizeof(GstElementClass),
                                                            init_camera_class, sizeof(Camera), nullptr, GTypeFlags{});
    return type;
}

/// A splitter that gives as many pads as `splitter_pads` says.
int splitter_pads = 0;

GType splitter_type()
{
    static const GType type = g_type_register_static_simple(
        GST_TYPE_ELEMENT, "VelTestSplitter", sizeof(GstElementClass),
        [](gpointer klass, gpointer) {
            static GstStaticPadTemplate source =
                GST_STATIC_PAD_TEMPLATE("src_%u", GST_PAD_SRC, GST_PAD_REQUEST, GST_STATIC_CAPS_ANY);
            gst_element_class_add_static_pad_template(GST_ELEMENT_CLASS(klass), &source);
            gst_element_class_set_static_metadata(GST_ELEMENT_CLASS(klass), "Splitter", "Filter", "Gives few pads",
                                                  "velstream-gst");
            GST_ELEMENT_CLASS(klass)->request_new_pad = [](GstElement* element, GstPadTemplate*, const char* name,
                                                           const GstCaps*) -> GstPad* {
                if (splitter_pads-- <= 0) return nullptr;
                GstPad* pad = gst_pad_new(name, GST_PAD_SRC);
                gst_element_add_pad(element, pad);
                return pad;
            };
        },
        sizeof(GstElement),
        [](GTypeInstance* instance, gpointer) {
            gst_element_add_pad(GST_ELEMENT(instance), gst_pad_new("sink", GST_PAD_SINK));
        },
        GTypeFlags{});
    return type;
}

void post(GstElement* pipeline, GstMessage* message)
{
    const BusPtr bus(gst_element_get_bus(pipeline));
    gst_bus_post(bus.get(), message);
}

void end(GstElement* pipeline)
{
    post(pipeline, gst_message_new_eos(GST_OBJECT(pipeline)));
}

Lines second_chain(GstElement* pipeline)
{
    const ElementPtr splitter = child(pipeline, "splitter");
    const PadPtr pad(gst_element_get_static_pad(splitter.get(), "src_1"));
    const PadPtr peer(pad ? gst_pad_get_peer(pad.get()) : nullptr);
    const ElementPtr first(peer ? gst_pad_get_parent_element(peer.get()) : nullptr);
    return chain_from(first.get());
}

class SplitStream : public WithGStreamer {
protected:
    SplitStream()
    {
        first_.streamsId = "one";
        second_.streamsId = "two";
        first_.pStreamId = second_.pStreamId = "front";
        first_.inputAddr = kAddress;
        second_.inputAddr = "rtsp://127.0.0.1:1/never-read";
    }

    /// Runs until `look` has seen the pipeline with everything but its source PLAYING.
    int run(const Look& look)
    {
        const ElementStandIn camera("rtspsrc", camera_type());
        on_start = look;
        return startStream(first_, callback_, second_, callback_);
    }

    void expect_not_made(const char* line)
    {
        clear_log();
        bool is_started = false;
        EXPECT_EQ(run([&](GstElement* pipeline) {
                      is_started = true;
                      end(pipeline);
                  }),
                  -1);
        EXPECT_FALSE(is_started);
        ASSERT_FALSE(log_lines().empty());
        EXPECT_EQ(log_lines().back(), line);
        EXPECT_EQ(pipeline_map.at("one"), nullptr);
        EXPECT_EQ(pipeline_map.at("two"), nullptr);
    }

    StreamIns first_;
    StreamIns second_;
    std::function<int8_t(const Image&)> callback_ = [](const Image&) { return int8_t{0}; };
};

} // namespace

TEST_F(SplitStream, OneDecoderFeedsTwoBranches)
{
    int looks = 0;
    const int result = run([&](GstElement* pipeline) {
        ++looks;
        EXPECT_EQ(name_of(pipeline), "front");
        const ElementPtr depay = child(pipeline, "depay");
        const ElementPtr source = child(pipeline, "source");
        EXPECT_EQ(text_of(source.get(), "location"), kAddress);
        EXPECT_EQ(chain_from(depay.get()), (Lines{"rtph264depay:depay", "h264parse:parser", "v4l2h264dec:decoder",
                                                  "queue:queue_1", "qtivsplit:splitter", "qtivtransform", "capsfilter",
                                                  "qtivtransform", "capsfilter", "queue:queue_2", "fakesink:sink"}));
        EXPECT_EQ(second_chain(pipeline),
                  (Lines{"qtivtransform", "capsfilter", "qtivtransform", "capsfilter", "fakesink:sink_2"}));
        const Lines factories = factories_in(pipeline);
        EXPECT_EQ(std::count(factories.begin(), factories.end(), "v4l2h264dec"), 1);
        EXPECT_EQ(factories.size(), 17U);
        end(pipeline);
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(looks, 1);
}

TEST_F(SplitStream, DecoderImportsAndCopiesOut)
{
    run([](GstElement* pipeline) {
        const ElementPtr decoder = child(pipeline, "decoder");
        EXPECT_EQ(number_of(decoder.get(), "capture-io-mode"), 5);
        EXPECT_EQ(number_of(decoder.get(), "output-io-mode"), 2);
        end(pipeline);
    });
}

TEST_F(SplitStream, RunsOnTheSystemClockWithoutLatency)
{
    run([](GstElement* pipeline) {
        const ClockPtr clock(gst_pipeline_get_pipeline_clock(GST_PIPELINE(pipeline)));
        const ClockPtr system(gst_system_clock_obtain());
        EXPECT_EQ(clock, system);
        EXPECT_EQ(gst_pipeline_get_latency(GST_PIPELINE(pipeline)), 0U);
        EXPECT_EQ(pipeline_map.at("one"), pipeline);
        EXPECT_EQ(pipeline_map.at("two"), pipeline);
        EXPECT_EQ(pipeline_s, pipeline);
        end(pipeline);
    });
    EXPECT_EQ(pipeline_map.at("one"), nullptr);
    EXPECT_EQ(pipeline_map.at("two"), nullptr);
    EXPECT_EQ(pipeline_s, nullptr);
}

TEST_F(SplitStream, CameraPadIsLinkedToTheDepayloader)
{
    run([](GstElement* pipeline) {
        const ElementPtr source = child(pipeline, "source");
        const ElementPtr depay = child(pipeline, "depay");
        const PadPtr pad = make_source_pad(
            "recv_rtp_src_0", "application/x-rtp,media=video,clock-rate=90000,encoding-name=H264,payload=96");
        gst_element_add_pad(source.get(), GST_PAD(gst_object_ref(pad.get())));
        EXPECT_TRUE(is_linked_to(pad.get(), depay.get()));
        end(pipeline);
    });
}

TEST_F(SplitStream, EachBranchEndsInItsOwnOutput)
{
    const ElementStandIn push("rtspclientsink", "appsink");
    first_.outputType = "mp4"; // none that a split stream knows
    second_.outputType = "rtsp";
    const std::string bin = on_platform("velstream-output-rtspsink-two", "velstream-output-rtspsink-two",
                                        "velstream-output-rtspsink", "velstream-output-rtspsink");
    EXPECT_EQ(run([&](GstElement* pipeline) {
                  const ElementPtr depay = child(pipeline, "depay");
                  EXPECT_EQ(chain_from(depay.get()).back(), "fakesink:sink");
                  EXPECT_EQ(second_chain(pipeline).back(), "bin:" + bin);
                  end(pipeline);
              }),
              0);
    EXPECT_TRUE(log_has("I g_get_stream_output - stream id: one, output type: mp4, address: "));
    EXPECT_TRUE(log_has("I g_get_stream_output - stream id: two, output type: rtsp, address: "));
}

TEST_F(SplitStream, TwoOutputsOfAKindHaveTwoNames)
{
    const ElementStandIn push("rtspclientsink", "fakesink");
    first_.outputType = second_.outputType = "rtsp";
    EXPECT_EQ(
        run([&](GstElement* pipeline) {
            const ElementPtr depay = child(pipeline, "depay");
            const std::string first = chain_from(depay.get()).back();
            const std::string second = second_chain(pipeline).back();
            EXPECT_EQ(first, is_v4l2_kind() ? "bin:velstream-output-rtspsink-one" : "bin:velstream-output-rtspsink");
            EXPECT_EQ(second, is_v4l2_kind() ? "bin:velstream-output-rtspsink-two" : "bin:velstream-output-rtspsink_2");
            end(pipeline);
        }),
        0);
}

TEST_F(SplitStream, EnvironmentStaysAsItIs)
{
    const char* const names[] = {"WAYLAND_DISPLAY",    "XDG_RUNTIME_DIR", "GST_PLUGIN_SYSTEM_PATH", "GST_PLUGIN_PATH",
                                 "GST_PLUGIN_SCANNER", "GST_REGISTRY",    "GST_REGISTRY_1_0"};
    for (const char* name : names)
        setenv(name, "as it was", 1);
    EXPECT_EQ(run(end), 0);
    for (const char* name : names)
        EXPECT_STREQ(std::getenv(name), "as it was") << name;
}

// ---- What cannot be made

TEST_F(SplitStream, MissingElementIsLogged)
{
    for (const char* factory : {"rtph264depay", "h264parse", "v4l2h264dec", "qtivsplit", "queue", "fakesink"}) {
        SCOPED_TRACE(factory);
        const WithoutElement without(factory);
        expect_not_made("E Failed to create elements.");
    }
}

TEST_F(SplitStream, MissingSourceIsLogged)
{
    const WithoutElement without("rtspsrc");
    EXPECT_EQ(startStream(first_, callback_, second_, callback_), -1);
    EXPECT_EQ(log_lines().back(), "E Failed to create elements.");
}

TEST_F(SplitStream, OutputThatCannotBeMadeIsLogged)
{
    const WithoutElement without("rtspclientsink");
    second_.outputType = "rtsp";
    expect_not_made("E Failed to create elements.");
}

TEST_F(SplitStream, MissingTransformIsLogged)
{
    const WithoutElement without("qtivtransform");
    expect_not_made("E Failed to setup processing branches.");
}

TEST_F(SplitStream, FrontThatDoesNotLinkIsLogged)
{
    const ElementStandIn parser("h264parse", "fakesink");
    expect_not_made("E Failed to link elements from the depayloader to the splitter in the split stream.");
}

TEST_F(SplitStream, SplitterWithoutPadsFailsTheFirstBranch)
{
    const ElementStandIn splitter("qtivsplit", splitter_type());
    splitter_pads = 0;
    expect_not_made("E Failed to link output_1 branch");
}

TEST_F(SplitStream, SplitterWithOnePadFailsTheSecondBranch)
{
    const ElementStandIn splitter("qtivsplit", splitter_type());
    splitter_pads = 1;
    expect_not_made("E Failed to link output_2 branch");
}

TEST_F(SplitStream, OutputThatTakesNothingFailsItsBranch)
{
    const ElementStandIn sink("fakesink", "fakesrc");
    expect_not_made("E Failed to link output_1 branch");
}

// ---- The end

TEST_F(SplitStream, EndOfStreamEndsTheCallWithoutALine)
{
    EXPECT_EQ(run(end), 0);
    for (const std::string& line : log_lines())
        EXPECT_EQ(line[0], 'I') << line;
}

TEST_F(SplitStream, ErrorEndsTheCallWellAndIsLogged)
{
    EXPECT_EQ(run([](GstElement* pipeline) {
                  const ElementPtr source = child(pipeline, "source");
                  GError* error = g_error_new_literal(GST_STREAM_ERROR, GST_STREAM_ERROR_FAILED, "it broke");
                  post(pipeline, gst_message_new_error(GST_OBJECT(source.get()), error, "in two"));
                  g_error_free(error);
              }),
              0);
    EXPECT_TRUE(log_has("E Error received from element source: it broke"));
    EXPECT_TRUE(log_has("E Debugging information: in two"));
}

TEST_F(SplitStream, OtherMessagesDoNotEndTheCall)
{
    EXPECT_EQ(run([](GstElement* pipeline) {
                  GError* error = g_error_new_literal(GST_STREAM_ERROR, GST_STREAM_ERROR_FAILED, "careful");
                  post(pipeline, gst_message_new_warning(GST_OBJECT(pipeline), error, nullptr));
                  g_error_free(error);
                  post(pipeline, gst_message_new_element(GST_OBJECT(pipeline), gst_structure_new_empty("news")));
                  end(pipeline);
              }),
              0);
    EXPECT_EQ(log_count("E Error received from element source: careful"), 0);
}

TEST_F(SplitStream, PipelineThatCannotBeMadeIsLogged)
{
    const WithoutElement without("pipeline");
    EXPECT_EQ(startStream(first_, callback_, second_, callback_), -1);
    EXPECT_EQ(log_lines(), (Lines{"E Failed to create elements."}));
    EXPECT_TRUE(pipeline_map.empty());
}
