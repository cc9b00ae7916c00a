// A camera over RTSP, by TCP on "ub2404" and by UDP on the other platforms: what it sends against what its entry says.
#include "ConfigFile.h"
#include "FilePlayback.h"
#include "RecordedLog.h"
#include "process.h"

namespace velstream::testing {

namespace {

std::string camera_entry(const std::string& url, const std::string& codec)
{
    return one_stream("camera", R"("inputType": "rtsp", "inputAddr": ")" + url + R"(", "decodeType": ")" + codec +
                                    R"(", "manualRebuild": true)");
}

const char* const kMismatch = "E Incoming data decode type: H265, doesn't match defined type, Update decode type in "
                              "file velstream-gst.conf accordingly please.";

using CameraStream = Playback;

void expect_delivery(const std::string& entry_codec, const std::string& camera_codec)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live", "--codec", camera_codec});
    ASSERT_NE(camera.port(), 0);
    const ConfigFile config(camera_entry(camera.url(), entry_codec));
    StreamCall call(configured_stream("camera"));
    EXPECT_TRUE(call.wait_for_frames(5));
    EXPECT_TRUE(log_has("I Pad linked successfully.\n"));
    for (const std::string& line : log_lines())
        EXPECT_NE(line.rfind("E Incoming data decode type", 0), 0U) << line;
    EXPECT_TRUE(stop_ends_call(call, "camera"));
}

} // namespace

TEST_F(CameraStream, OfH264IsDelivered)
{
    expect_delivery("H264", "h264");
}

TEST_F(CameraStream, OfH265IsDelivered)
{
    expect_delivery("H265", "h265");
}

TEST_F(CameraStream, OfH265DeclaredH264IsReportedAndKeepsTheH264Chain)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live", "--codec", "h265"});
    ASSERT_NE(camera.port(), 0);
    const ConfigFile config(camera_entry(camera.url(), "H264"));
    StreamCall call(configured_stream("camera"));
    EXPECT_TRUE(wait_for_log(kMismatch));
    EXPECT_TRUE(wait_for_log("E Failed to link pads: no common format."));
    EXPECT_TRUE(log_has("I Input rtsp is h264. Including rtph264depay and h264parse."));
    EXPECT_FALSE(log_has("I Input rtsp is h265. Including rtph265depay and h265parse."));
    EXPECT_TRUE(stop_ends_call(call, "camera"));
    EXPECT_EQ(call.frames(), 0);
}

} // namespace velstream::testing
