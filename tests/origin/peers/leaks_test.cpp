// Nothing of GStreamer's is left of a stream that has ended, whatever it reads from and writes to.
#include "ConfigFile.h"
#include "VideoFiles.h"
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
        EXPECT_GT(std::atol(value_of(result.output, "frames").c_str()), 0);
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

    std::string make_clip() const
    {
        media::MediaSpec spec;
        spec.width = 320;
        spec.height = 180;
        spec.frames = 60;
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

} // namespace velstream::testing
