// What the re-encoders launch, on this executable's platform, and what counts as launched.
#include "../structure/test_platform.h"
#include "Elements.h"
#include "LaunchDescription.h"
#include "RecordedLog.h"
#include "StreamBuild.h"
#include "StreamBuildReencode.h"

#include <gtest/gtest.h>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Lines = std::vector<std::string>;

StreamProperty property_of(int width, int height, int fps)
{
    StreamProperty property;
    property.streamsId = "cam";
    property.width = width;
    property.height = height;
    property.fps = fps;
    property.outputFile = "/nowhere/out.mp4";
    property.outputAddr = "rtsp://127.0.0.1:8554/live";
    return property;
}

/// What is printed when the pipeline cannot be made, which keeps it from running.
std::string printed(int (*start)(StreamProperty&, std::function<int8_t(const Image&)>&), StreamProperty property)
{
    const WithoutElement without("appsrc");
    std::function<int8_t(const Image&)> callback;
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(start(property, callback), -1);
    return ::testing::internal::GetCapturedStdout();
}

class ReencoderDescription : public WithGStreamer {};

TEST_F(ReencoderDescription, OfAFile)
{
    const char* v4l2 =
        "_width: 1920, _height: 1088\n"
        "pipeline:appsrc name=mysrc is-live=true format=time ! videobox bottom=-8 ! videoconvert ! v4l2h264enc ! "
        "h264parse ! mp4mux ! filesink location=/nowhere/out.mp4\n";
    const char* c2 = "pipeline:appsrc name=mysrc is-live=true format=time ! videoconvert ! "
                     "video/x-raw,format=NV12,framerate=30/1 ! qtic2venc ! h264parse ! mp4mux ! filesink "
                     "location=/nowhere/out.mp4\n";
    EXPECT_EQ(printed(start_save_mp4_intern, property_of(1920, 1080, 30)), on_platform(v4l2, v4l2, c2, c2));
}

TEST_F(ReencoderDescription, OfAPush)
{
    const char* v4l2 =
        "_width: 896, _height: 480\n"
        "pipeline:appsrc name=mysrc is-live=true format=time ! videobox bottom=0 ! videoconvert ! v4l2h264enc ! "
        "h264parse ! rtspclientsink protocols=tcp location=rtsp://127.0.0.1:8554/live\n";
    const char* c2 = "pipeline:appsrc name=mysrc is-live=true format=time ! videoconvert ! "
                     "video/x-raw,format=NV12,framerate=25/1 ! qtic2venc ! h264parse ! rtspclientsink protocols=tcp "
                     "location=rtsp://127.0.0.1:8554/live\n";
    EXPECT_EQ(printed(start_network_intern, property_of(854, 480, 0)), on_platform(v4l2, v4l2, c2, c2));
}

TEST_F(ReencoderDescription, FailureIsLogged)
{
    printed(start_save_mp4_intern, property_of(640, 480, 0));
    EXPECT_EQ(log_lines(),
              (Lines{"I Start to save mp4, input width: 640, height: 480, fps: 0", "E Failed to create pipeline.",
                     "E The pipeline's description fails: no element \"appsrc\""}));
    EXPECT_EQ(log_files(), Lines(3, "modules/origin/src/StreamBuildReencode.cpp"));
    clear_log();
    printed(start_network_intern, property_of(640, 480, 0));
    EXPECT_EQ(log_lines().front(), "I Start to save mp4, input width: 640, height: 480, fps: 0") << "the same text";
    EXPECT_EQ(pipeline_map.size(), 0U);
}

TEST_F(ReencoderDescription, WithAnElementMissingIsNotLaunched)
{
    const WithoutElement without("h264parse");
    StreamProperty property = property_of(640, 480, 0);
    std::function<int8_t(const Image&)> callback;
    EXPECT_EQ(start_save_mp4_intern(property, callback), -1);
    EXPECT_TRUE(log_has("E Failed to create pipeline."));
}

TEST_F(ReencoderDescription, RateOfZeroKeepsTheLastOne)
{
    EXPECT_EQ(g_fps, 25);
    printed(start_save_mp4_intern, property_of(640, 480, 0));
    EXPECT_EQ(g_fps, 25);
    printed(start_save_mp4_intern, property_of(640, 480, 12));
    EXPECT_EQ(g_fps, 12);
    printed(start_network_intern, property_of(640, 480, 0));
    EXPECT_EQ(g_fps, 12);
}

TEST_F(ReencoderDescription, RateBelowZeroIsRefused)
{
    StreamProperty property = property_of(640, 480, -5);
    std::function<int8_t(const Image&)> callback;
    EXPECT_EQ(start_save_mp4_intern(property, callback), -1);
    EXPECT_EQ(g_fps, 25);
    EXPECT_TRUE(log_has("E A frame rate of -5 is not possible. stream_id: cam"));
}

// ---- Launching

class Launch : public WithGStreamer {
protected:
    std::string failure_;
};

TEST_F(Launch, CompleteDescriptionIsAPipeline)
{
    EXPECT_TRUE(launch_pipeline("fakesrc name=one ! identity ! fakesink", failure_));
    EXPECT_EQ(failure_, "");
}

TEST_F(Launch, UnknownPropertyIsAWarningWhereTheElementStays)
{
    // GStreamer up to 1.22 at least leaves the element out: then there is no pipeline.
    const ElementPtr pipeline = launch_pipeline("fakesrc ! identity nothing=1 ! fakesink", failure_);
    EXPECT_NE(failure_.find("nothing"), std::string::npos) << failure_;
    if (pipeline) {
        EXPECT_EQ(factories_in(pipeline.get()), (Lines{"fakesink", "fakesrc", "identity"}));
        EXPECT_EQ(log_lines(), (Lines{"W Pipeline runs without a property: " + failure_}));
    } else {
        EXPECT_EQ(log_lines(), Lines{});
    }
}

TEST_F(Launch, IncompleteDescriptionIsNoPipeline)
{
    for (const char* text :
         {"fakesrc !  ! fakesink", "fakesrc ! nothing ! fakesink", "fakesrc ! fakesink ! identity",
          "videotestsrc ! avidemux ! fakesink", "fakesrc ! fakesink sync=perhaps", "", "!", "fakesrc ! identity"}) {
        failure_.clear();
        // The last one is whole: only the check of a warning looks at the links.
        const bool is_whole = std::string(text) == "fakesrc ! identity";
        EXPECT_EQ(launch_pipeline(text, failure_) != nullptr, is_whole) << text;
        EXPECT_EQ(failure_.empty(), is_whole) << text;
    }
}

TEST_F(Launch, UnknownPropertyDoesNotHideWhatIsMissing)
{
    EXPECT_FALSE(launch_pipeline("fakesrc nothing=1 ! absent ! fakesink", failure_));
    EXPECT_FALSE(launch_pipeline("videotestsrc nothing=1 ! avidemux ! fakesink", failure_));
    EXPECT_FALSE(launch_pipeline("fakesrc nothing=1 ! absent", failure_));
}

} // namespace
