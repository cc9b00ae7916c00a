// A pipeline that is rebuilt in place from its entry.
#include "ConfigFile.h"
#include "Elements.h"
#include "RecordedLog.h"
#include "StreamBuild.h"
#include "StreamCommon.h"
#include "test_platform.h"

#include <gtest/gtest.h>
#include <json/json.h>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Lines = std::vector<std::string>;

const char* const kFailedLink = "E re_create_pipeline - Failed to link elements input - qtivtransformInput - "
                                "capsfilter - qtivtransformOutput - output in the pipeline.";

class Recreate : public WithGStreamer {
protected:
    void SetUp() override
    {
        data_.streamId = "cam";
        data_.pipeline = gst_pipeline_new("cam");
        old_ = data_.pipeline;
        g_object_weak_ref(
            G_OBJECT(old_), [](gpointer released, GObject*) { *static_cast<bool*>(released) = true; },
            &is_old_released_);
    }
    void TearDown() override
    {
        if (data_.pipeline) gst_object_unref(data_.pipeline);
    }

    const ConfigFile config_{complete_stream("cam", "H264")};
    PiplineData data_;
    GstElement* old_ = nullptr;
    bool is_old_released_ = false;
};

TEST_F(Recreate, PipelineIsBuiltAnew)
{
    ASSERT_EQ(re_create_pipeline(&data_), 0);
    EXPECT_TRUE(is_old_released_);
    EXPECT_EQ(name_of(data_.pipeline), "cam");
    EXPECT_EQ(GST_STATE(data_.pipeline), GST_STATE_NULL);
    const ElementPtr input = child(data_.pipeline, "velstream_input_file_cam");
    EXPECT_EQ(chain_from(input.get()),
              (Lines{"bin:velstream_input_file_cam", "qtivtransform:qtivtransformInput",
                     "capsfilter:qtivtransformInputCap", "qtivtransform:qtivtransformOutput", "fakesink:sink"}));
    EXPECT_TRUE(child_of_factory(input.get(), "qtdemux"));
    EXPECT_TRUE(has_caps(child(data_.pipeline, "qtivtransformInputCap").get(), "video/x-raw,format=RGB"));
    EXPECT_EQ(number_of(child(data_.pipeline, "qtivtransformInput").get(), "engine"), 2) << "on every platform";
    EXPECT_EQ(number_of(child(data_.pipeline, "qtivtransformOutput").get(), "engine"), 2) << "on every platform";
    EXPECT_EQ(gst_pipeline_get_latency(GST_PIPELINE(data_.pipeline)), 0U);
    const ClockPtr clock(gst_pipeline_get_pipeline_clock(GST_PIPELINE(data_.pipeline)));
    EXPECT_EQ(clock, ClockPtr(gst_system_clock_obtain()));
    EXPECT_TRUE(GST_OBJECT_FLAG_IS_SET(data_.pipeline, GST_PIPELINE_FLAG_FIXED_CLOCK));
    const PadPtr pad(gst_element_get_static_pad(child(data_.pipeline, "qtivtransformInputCap").get(), "src"));
    EXPECT_EQ(pad->num_probes, 1);
    const char* const decoder_line = on_platform<const char*>(
        "I Platform is 6490 Qualcomm Linux, will use v4l2h264dec / v4l2h265dec plugin.",
        "I Platform is 6490 Qualcomm Linux, will use v4l2h264dec / v4l2h265dec plugin.",
        "I Platform is 6490, will use qtivdec plugin.", "I Platform is 8550, will use qtic2vdec plugin.");
    EXPECT_EQ(log_lines(),
              (Lines{"I Start to get configuration properties for stream id: cam.",
                     "I Start to get configuration properties for stream id: cam.",
                     "I Input rtsp is h264. Including h264parse.", decoder_line, "I re_create_pipeline - 6",
                     "I re_create_pipeline - Platform is 8550, will skip opengl handling."}));
}

TEST_F(Recreate, InputFollowsTheEntrysTypeAndOutputIsAnRtspBin)
{
    config_.write(one_stream("cam", R"("inputType": "rtsp", "inputAddr": "rtsp://127.0.0.1:1/x",
                                       "outputType": "rtsp", "outputAddr": "rtsp://127.0.0.1:1/out")"));
    ASSERT_EQ(re_create_pipeline(&data_), 0);
    const ElementPtr input = child(data_.pipeline, "velstream_input_file_cam");
    EXPECT_TRUE(child_of_factory(input.get(), "rtspsrc"));
    EXPECT_EQ(text_of(child_of_factory(input.get(), "rtspsrc").get(), "location"), "rtsp://127.0.0.1:1/x");
    const Lines chain = chain_from(input.get());
    ASSERT_EQ(chain.size(), 5U);
    const ElementPtr sink = child(data_.pipeline, chain.back().substr(4));
    EXPECT_EQ(text_of(child_of_factory(sink.get(), "rtspclientsink").get(), "location"), "rtsp://127.0.0.1:1/out");
    EXPECT_EQ(name_of(sink.get()), is_v4l2_kind() ? "velstream-output-rtspsink-cam" : "velstream-output-rtspsink");
    EXPECT_TRUE(child_of_factory(sink.get(), "h264parse"));
}

TEST_F(Recreate, RtspOutputKeepsTheEntrysEncodeType)
{
    config_.write(one_stream("cam", R"("inputType": "file", "inputAddr": "a", "encodeType": "H265",
                                       "outputType": "rtsp", "outputAddr": "rtsp://127.0.0.1:1/out")"));
    ASSERT_EQ(re_create_pipeline(&data_), 0);
    const ElementPtr sink =
        child(data_.pipeline, chain_from(child(data_.pipeline, "velstream_input_file_cam").get()).back().substr(4));
    EXPECT_TRUE(child_of_factory(sink.get(), "h265parse"));
}

TEST_F(Recreate, WaylandWindowIsAlways1920x1080)
{
    load_software_elements(); // with the platform's own display sink among them
    config_.write(one_stream("cam", R"("width": 640, "height": 360, "inputType": "rtmp", "inputAddr": "rtmp://x/y",
                                       "outputType": "wayland", "outputAddr": "")"));
    ASSERT_EQ(re_create_pipeline(&data_), 0);
    EXPECT_TRUE(child_of_factory(child(data_.pipeline, "velstream_input_file_cam").get(), "rtmpsrc"));
    const ElementPtr bin = child(data_.pipeline, "velstream-output-waylandsink");
    ASSERT_TRUE(bin);
    const ElementPtr sink = only_child(bin.get());
    ASSERT_TRUE(sink);
    EXPECT_EQ(number_of(sink.get(), "x"), 0);
    EXPECT_EQ(number_of(sink.get(), "y"), 0);
    EXPECT_EQ(number_of(sink.get(), "width"), 1920);
    EXPECT_EQ(number_of(sink.get(), "height"), 1080);
}

TEST_F(Recreate, AnyOtherOutputTypeIsAFakesink)
{
    config_.write(one_stream("cam", R"("inputType": "file", "inputAddr": "a", "outputType": "mp4",
                                       "outputAddr": "o.mp4")"));
    ASSERT_EQ(re_create_pipeline(&data_), 0);
    EXPECT_EQ(factory_of(child(data_.pipeline, "sink").get()), "fakesink");
}

TEST_F(Recreate, StreamWithoutAnEntryFailsAndLeavesNoPipeline)
{
    config_.write("{}");
    EXPECT_EQ(re_create_pipeline(&data_), -1);
    EXPECT_EQ(log_lines(), (Lines{"I Start to get configuration properties for stream id: cam.",
                                  "E re_create_pipeline - failed to re-create pipeline."}));
    EXPECT_TRUE(is_old_released_);
    EXPECT_EQ(data_.pipeline, nullptr);
}

TEST_F(Recreate, FormerBusIsReleased)
{
    data_.bus = gst_element_get_bus(data_.pipeline);
    bool is_bus_released = false;
    g_object_weak_ref(
        G_OBJECT(data_.bus), [](gpointer released, GObject*) { *static_cast<bool*>(released) = true; },
        &is_bus_released);
    ASSERT_EQ(re_create_pipeline(&data_), 0);
    EXPECT_TRUE(is_bus_released);
    EXPECT_EQ(data_.bus, nullptr) << "the runner takes the new pipeline's";
}

TEST_F(Recreate, FileThatIsNotJsonRaisesTheParsersExceptionAndLeavesNoPipeline)
{
    config_.write("{");
    EXPECT_THROW(re_create_pipeline(&data_), Json::RuntimeError);
    EXPECT_TRUE(is_old_released_);
    EXPECT_EQ(data_.pipeline, nullptr);
}

TEST_F(Recreate, MissingElementIsAFailedLinkAndLeavesNoPipeline)
{
    for (const char* factory : {"qtivtransform", "qtdemux", "capsfilter"}) {
        const WithoutElement without(factory);
        clear_log();
        EXPECT_EQ(re_create_pipeline(&data_), -1) << factory;
        EXPECT_EQ(log_lines().back(), kFailedLink) << factory;
        EXPECT_EQ(data_.pipeline, nullptr);
    }
}

TEST_F(Recreate, OutputThatWasNotBuiltIsAFailedLink)
{
    const WithoutElement without("waylandsink");
    config_.write(one_stream("cam", R"("inputType": "file", "inputAddr": "a", "outputType": "wayland",
                                       "outputAddr": "")"));
    EXPECT_EQ(re_create_pipeline(&data_), -1);
    EXPECT_TRUE(log_has("E Not all elements could be created.\n"));
    EXPECT_EQ(log_lines().back(), kFailedLink);
    EXPECT_EQ(data_.pipeline, nullptr);
}

TEST_F(Recreate, InputTypeThatNoBuilderMatchesIsAFailedLink)
{
    config_.write(one_stream("cam", R"("inputType": "usbcam", "inputAddr": "/dev/null")"));
    EXPECT_EQ(re_create_pipeline(&data_), -1);
    EXPECT_TRUE(log_has("E re_create_pipeline - input type usbcam cannot be rebuilt.")) << "the cause";
    EXPECT_EQ(log_lines().back(), kFailedLink);
    EXPECT_EQ(data_.pipeline, nullptr);
}

} // namespace
