// Nothing of GStreamer's is left of a stream that has ended, whatever it reads from and writes to.
#include "ConfigFile.h"
#include "Segments.h"
#include "VideoFiles.h"
#include "compositor.h"
#include "process.h"
#include "rounds.h"
#include "rtmp_server.h"

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace velstream::testing {

namespace {

constexpr int kLong = 900; ///< frames of a clip that does not end before its stream is stopped

class Leaks : public ::testing::Test {
protected:
    static void SetUpTestSuite() { gst_init(nullptr, nullptr); }

    /// Runs a round under GStreamer's leak tracer. @return a line for each object that was still alive when GStreamer
    /// was shut down.
    std::vector<std::string> left_by(const std::vector<std::string>& round)
    {
        const std::string log = folder_.file("log.txt");
        setenv("GST_TRACERS", "leaks(filters=\"GstElement,GstPad,GstBus,GstBuffer,GstEvent,GstMessage\")", 1);
        setenv("GST_DEBUG", "GST_TRACER:7", 1);
        setenv("GST_DEBUG_NO_COLOR", "1", 1);
        setenv("GST_DEBUG_FILE", log.c_str(), 1);
        const CommandResult result = run_round(round);
        EXPECT_EQ(result.status, 0) << result.output;
        std::ifstream lines(log);
        EXPECT_TRUE(lines.is_open());
        std::vector<std::string> left;
        for (std::string line; std::getline(lines, line);) {
            if (line.find("object-alive, type-name=(string)Gst") != std::string::npos) left.push_back(line);
        }
        return left;
    }

    void expect_none(std::vector<std::string> round)
    {
        round.push_back("deinit");
        for (const std::string& object : left_by(round))
            ADD_FAILURE() << object;
    }

    /// Runs streams of a configuration file and stops them after some frames.
    void expect_none_of_configured(const std::string& text, const std::string& kind = "configured")
    {
        const ConfigFile config(text);
        expect_none({kind, config.path(), "none", "", "10"});
    }

    std::string make_clip(int frames = 60, const std::string& codec = "h264", bool has_noise = false) const
    {
        media::MediaSpec spec;
        spec.codec = codec;
        spec.width = 320;
        spec.height = 180;
        spec.frames = frames;
        spec.has_audio = codec == "h264";
        spec.has_noise = has_noise;
        const std::string path = folder_.file("clip.mp4");
        make_video(spec, path);
        return path;
    }

    const TemporaryFolder folder_;
};

} // namespace

TEST_F(Leaks, AreSeenWhereThereAreSome)
{
    const std::vector<std::string> left = left_by({"file", make_clip(), "none", "", "0", "keep"});
    ASSERT_FALSE(left.empty());
    EXPECT_NE(left.front().find("fakesink"), std::string::npos) << left.front();
}

TEST_F(Leaks, OfAFileThatEndsAreNone)
{
    expect_none({"file", make_clip(), "none", "", "0"});
}

TEST_F(Leaks, OfAFileThatIsStoppedAreNone)
{
    expect_none({"file", make_clip(), "none", "", "10"});
}

TEST_F(Leaks, OfARecordedFileAreNone)
{
    expect_none({"file", make_clip(), "mp4", folder_.file("out.mp4"), "0"});
}

TEST_F(Leaks, OfACameraAreNone)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    expect_none({"rtsp", camera.url(), "none", "", "10"});
}

TEST_F(Leaks, OfACameraThatIsPushedAreNone)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    const peers::RtspPeer recorder(RTSP_PEER, {"record", "--out", folder_.file("out.mp4")});
    expect_none({"rtsp", camera.url(), "rtsp", recorder.tcp_url(), "10"});
}

TEST_F(Leaks, OfAStreamToAnRtmpServerAreNone)
{
    const peers::RtmpServer server;
    expect_none({"file", make_clip(), "rtmp", server.url(), "0"});
}

TEST_F(Leaks, OfAStreamFromAnRtmpServerAreNone)
{
    peers::RtmpServer server;
    // As much data as a camera sends: a stop waits for the next 4 KiB, and not for long.
    const peers::RtmpPublisher publisher(make_clip(60, "h264", true), server.url());
    ASSERT_TRUE(server.wait_for("publish:"));
    expect_none({"rtmp", server.url() + " live=1", "none", "", "10"});
}

TEST_F(Leaks, OfAShownFileAreNone)
{
    const peers::Compositor screen(320, 180);
    ASSERT_TRUE(screen.is_ready());
    expect_none({"file", make_clip(kLong), "wayland", "", "10"});
}

TEST_F(Leaks, OfAUsbCameraAreNone)
{
    setenv("VELSTREAM_CAMERA", "/dev/velstream-camera=MJPG:640x480", 1);
    setenv("LD_PRELOAD", FAKE_CAMERA, 1);
    expect_none_of_configured(one_stream(
        "round", R"("inputType": "usbcam", "inputAddr": "/dev/velstream-camera", "width": 640, "height": 480)"));
}

TEST_F(Leaks, OfAReencodedFileAreNone)
{
    expect_none_of_configured(one_stream("round", R"("saveMp4": true, "width": 320, "height": 240, "outputFile": ")" +
                                                      folder_.file("drawn.mp4") + R"(")"));
}

TEST_F(Leaks, OfAReencodedPushAreNone)
{
    const peers::RtspPeer recorder(RTSP_PEER, {"record", "--out", folder_.file("drawn.mp4")});
    expect_none_of_configured(
        one_stream("round", R"("networkPush": true, "width": 320, "height": 240, "fps": 25, "outputAddr": ")" +
                                recorder.tcp_url() + R"(")"));
}

TEST_F(Leaks, OfPushedAccessUnitsAreNone)
{
    expect_none({"splice", make_clip(30, "h265")});
}

TEST_F(Leaks, OfTwoStreamsOfACameraAreNone)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    const auto half = [&](const std::string& id) {
        return R"({"streamsId": ")" + id +
               R"(", "pStreamId": "front", "properties": {"inputType": "rtsp", "decodeType": "H264", "inputAddr": ")" +
               camera.url() + R"("}})";
    };
    expect_none_of_configured(R"({"streams": [)" + half("round") + "," + half("second") + "]}", "split");
}

TEST_F(Leaks, OfARelayOfSoundAreNone)
{
    const peers::RtspPeer recorder(RTSP_PEER, {"record", "--out", folder_.file("relayed.ts")});
    expect_none_of_configured(one_stream(
        "round", R"("inputType": "file", "decodeType": "H264", "audio": true, "outputType": "rtsp", "inputAddr": ")" +
                     make_clip(kLong) + R"(", "outputAddr": ")" + recorder.tcp_url() + R"(")"));
}

TEST_F(Leaks, OfARollingRecorderAreNone)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    const ConfigFile config(recorded_entry("rtsp", camera.url()));
    // GStreamer 1.26's splitmuxsink loses the muxer that it is given and, finishing segments behind its back, never
    // uses.
    constexpr bool kSinkLosesMuxer = GST_CHECK_VERSION(1, 24, 0);
    for (const std::string& object : left_by({"rolling", config.path(), "deinit"})) {
        if (!kSinkLosesMuxer || object.find("<mp4mux0") == std::string::npos) ADD_FAILURE() << object;
    }
}

TEST_F(Leaks, OfACompositionAreNone)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    expect_none({"compose", camera.url(), folder_.file("composed.mp4")});
}

} // namespace velstream::testing
