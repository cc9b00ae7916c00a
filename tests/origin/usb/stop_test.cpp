// Stops of a camera's stream.
#include "StreamBuild.h"
#include "usb_stream.h"

#include <future>

using namespace Quorvis::VelStream;

namespace velstream::testing {

namespace {

using UsbStop = UsbStream;

} // namespace

TEST_F(UsbStop, FiftyTimesEndsTheCallWithinASecond)
{
    for (int round = 0; round < 50; ++round) {
        SCOPED_TRACE(round);
        clear_log();
        StreamCall call(usb_stream());
        ASSERT_TRUE(wait_for_log("I Registration pipeline for stream id: usb"));
        ASSERT_TRUE(call.wait_for_frames(round % 4));
        ASSERT_TRUE(stop_ends_call(call, "usb"));
        ASSERT_EQ(call.result(), 0);
    }
}

TEST_F(UsbStop, WithoutAnEntryInTheConfigurationEndsTheCall)
{
    config_.remove();
    StreamCall call(usb_stream());
    ASSERT_TRUE(call.wait_for_frames(2));
    EXPECT_TRUE(stop_ends_call(call, "usb"));
}

TEST_F(UsbStop, OfAllStreamsEndsTheCall)
{
    StreamCall call(usb_stream());
    ASSERT_TRUE(call.wait_for_frames(2));
    EXPECT_TRUE(stop_ends_call(call, "all_stream"));
    EXPECT_EQ(call.result(), 0);
}

TEST_F(UsbStop, OfAnotherStreamLetsItGoOn)
{
    StreamCall call(usb_stream());
    ASSERT_TRUE(call.wait_for_frames(2));
    gstreamer_pipeline_shutdown("other");
    EXPECT_FALSE(running);
    const std::int64_t frames = call.frames();
    EXPECT_TRUE(call.wait_for_frames(frames + 10));
    EXPECT_TRUE(stop_ends_call(call, "usb"));
}

TEST_F(UsbStop, FromTheFrameCallbackEndsTheCall)
{
    StreamCall call(usb_stream(), [](const Image& image) {
        if (image.frameIndex == 3) gstreamer_pipeline_shutdown("usb");
    });
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
}

TEST_F(UsbStop, OfACameraThatFellSilentEndsTheCall)
{
    StreamCall call(usb_stream());
    ASSERT_TRUE(call.wait_for_frames(2));
    peers::camera::fall_silent();
    EXPECT_TRUE(stop_ends_call(call, "usb"));
    EXPECT_EQ(call.result(), 0);
}

TEST_F(UsbStop, AfterTheCameraWentAwayIsHarmless)
{
    StreamCall call(usb_stream());
    ASSERT_TRUE(call.wait_for_frames(2));
    peers::camera::unplug();
    ASSERT_TRUE(call.wait_for_end());
    gstreamer_pipeline_shutdown("usb");
    gstreamer_pipeline_shutdown("usb");
    EXPECT_EQ(call.result(), -1);
}

TEST_F(UsbStop, WhileTheCameraGoesAwayEndsTheCall)
{
    for (int round = 0; round < 10; ++round) {
        SCOPED_TRACE(round);
        peers::camera::plug_in(usual_camera());
        StreamCall call(usb_stream());
        ASSERT_TRUE(call.wait_for_frames(1 + round % 3));
        const auto unplugging = std::async(std::launch::async, [] { peers::camera::unplug(); });
        ASSERT_TRUE(stop_ends_call(call, "usb"));
    }
}

} // namespace velstream::testing
