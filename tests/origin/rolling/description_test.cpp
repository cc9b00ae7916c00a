// The launch descriptions of the recorder, for every platform.
#include "RecordedLog.h"
#include "StreamRecords.h"
#include "StreamRollingSave.h"
#include "test_platform.h"

#include <gtest/gtest.h>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

std::string description(const std::string& codec, const std::string& type, int fps = 30)
{
    StreamProperty property;
    property.decodeType = codec;
    property.inputType = type;
    property.inputAddr = type == "rtsp" ? "rtsp://u:p@10.0.0.1/s?a=1&b=2" : "/media/a b.mp4";
    property.rollingFps = fps;
    return rolling_description(property, "cam-1");
}

const char* const kRing =
    " ! splitmuxsink name=rec muxer=mp4mux location=/tmp/rolling/cam-1/%05d.mp4 max-size-time=2000000000 "
    "async-finalize=true max-files=100";

} // namespace

TEST(RollingDescription, CameraOfH264IsRemuxed)
{
    EXPECT_EQ(description("H264", "rtsp"),
              std::string("rtspsrc location=\"rtsp://u:p@10.0.0.1/s?a=1&b=2\" latency=200 protocols=tcp ! rtph264depay "
                          "! h264parse config-interval=-1 disable-passthrough=true ! "
                          "video/x-h264,stream-format=avc,alignment=au") +
                  kRing);
}

TEST(RollingDescription, CameraOfH265IsRemuxed)
{
    EXPECT_EQ(description("H265", "rtsp"),
              std::string("rtspsrc location=\"rtsp://u:p@10.0.0.1/s?a=1&b=2\" latency=200 protocols=tcp ! rtph265depay "
                          "! h265parse config-interval=-1 disable-passthrough=true ! "
                          "video/x-h265,stream-format=hvc1,alignment=au") +
                  kRing);
}

TEST(RollingDescription, PercentSignsOfAnIdAreNoConversions)
{
    StreamProperty property;
    property.inputType = "rtsp";
    EXPECT_NE(rolling_description(property, "100%s").find(" location=/tmp/rolling/100%%s/%05d.mp4 "),
              std::string::npos);
}

TEST(RollingDescription, FileIsDecodedAndEncodedByThePlatform)
{
    const std::string decoder = on_platform("", "v4l2h264dec", "qtivdec", "qtic2vdec");
    const std::string encoder = on_platform("", "v4l2h264enc", "qtic2venc", "qtic2venc");
    EXPECT_EQ(description("H264", "file", 12),
              "filesrc location=\"/media/a b.mp4\" ! qtdemux name=d d.video_0 ! queue ! h264parse ! " + decoder +
                  " ! videorate ! video/x-raw,framerate=12/1 ! identity sync=true ! " + encoder +
                  " ! h264parse ! video/x-h264,stream-format=avc,alignment=au" + kRing);
    EXPECT_EQ(description("H265", "file"),
              "filesrc location=\"/media/a b.mp4\" ! qtdemux name=d d.video_0 ! queue ! h265parse ! " + decoder +
                  " ! videorate ! video/x-raw,framerate=30/1 ! identity sync=true ! " + encoder +
                  " ! h265parse ! video/x-h265,stream-format=avc,alignment=au" + kRing);
}

TEST(RollingDescription, OtherCodecIsLoggedAndHasNone)
{
    EXPECT_EQ(description("h264", "rtsp"), "");
    EXPECT_EQ(log_lines(), std::vector<std::string>{"E The input decord type : h264 is not supported."});
}

TEST(RollingDescription, OtherInputHasNone)
{
    EXPECT_EQ(description("H264", "rtmp"), "");
    EXPECT_EQ(description("H264", "RTSP"), "");
    EXPECT_EQ(description("H264", ""), "");
}
