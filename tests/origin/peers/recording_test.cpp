// A stop loses nothing: what was recorded of a live camera is complete up to the last frame.
#include "ConfigFile.h"
#include "Platform.h"
#include "StreamBuild.h"
#include "StreamCall.h"
#include "VideoFiles.h"
#include "process.h"
#include "rounds.h"

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <optional>

namespace velstream::testing {

namespace {

constexpr int kRounds = 50;

long frames_of(const CommandResult& round)
{
    return std::atol(value_of(round.output, "frames").c_str());
}

/// A camera's stream that is pushed to a server.
class StopOfPush : public ::testing::Test {
protected:
    static void SetUpTestSuite() { gst_init(nullptr, nullptr); }
    // GStreamer's sink may go on sending on a connection that it has closed, which GIO criticises.
    void SetUp() override { g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK)); }

    /// Starts the push and waits until the server takes frames and some more have been seen.
    std::unique_ptr<StreamCall> start_push(bool has_tcp)
    {
        const std::string url = has_tcp ? server_.tcp_url() : server_.url();
        auto call = std::make_unique<StreamCall>([this, url](FrameCallback& callback) {
            return Quorvis::VelStream::start_stream_input_rtsp(camera_.url(), callback,
                                                               Quorvis::VelStream::STREAM_TYPE_RTSP, url, 0, 0, "push");
        });
        EXPECT_TRUE(server_.read_until("record"));
        EXPECT_TRUE(call->wait_for_frames(call->frames() + 5));
        return call;
    }

    const TemporaryFolder folder_;
    const peers::RtspPeer camera_{RTSP_PEER, {"play", "--live"}};
    peers::RtspPeer server_{RTSP_PEER, {"record", "--out", folder_.file("pushed.mp4")}};
};

} // namespace

TEST(StopOfCameraRecording, LeavesAFileThatPlaysToTheLastFrameFiftyTimes)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    const TemporaryFolder folder;
    const auto path_of = [&](int round) { return folder.file(std::to_string(round) + ".mp4"); };
    std::vector<std::vector<std::string>> rounds;
    for (int round = 0; round < kRounds; ++round)
        rounds.push_back({"rtsp", camera.url(), "mp4", path_of(round), std::to_string(1 + round % 20)});
    const std::vector<CommandResult> results = run_rounds(rounds);
    for (int round = 0; round < kRounds; ++round) {
        const long frames = frames_of(results[static_cast<std::size_t>(round)]);
        EXPECT_GE(frames, 1 + round % 20);
        EXPECT_EQ(probe_video(path_of(round)).frames, frames) << "round " << round;
    }
}

TEST(CameraThatDies, LeavesARecordingThatPlaysToTheLastFrame)
{
    if (!Quorvis::VelStream::has_v4l2_codecs()) return; // rebuilt, it writes its file anew
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
        ASSERT_NE(camera.port(), 0);
        const TemporaryFolder folder;
        const std::string path = folder.file("recorded.mp4");
        StreamCall call([&](FrameCallback& callback) {
            return Quorvis::VelStream::start_stream_input_rtsp(
                camera.url(), callback, Quorvis::VelStream::STREAM_TYPE_MP4, path, 0, 0, "recorded");
        });
        ASSERT_TRUE(call.wait_for_frames(20));
        camera.kill_now();
        ASSERT_TRUE(call.wait_for_end());
        EXPECT_EQ(probe_video(path).frames, call.frames());
    }
}

TEST(StopOfCameraPush, EndsTheRecordersStreamWithItsLastFrameFiftyTimes)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    const TemporaryFolder folder;
    peers::RtspPeer recorder(RTSP_PEER, {"record", "--out", folder.file("pushed.mp4")});
    ASSERT_NE(recorder.port(), 0);
    std::vector<std::vector<std::string>> rounds;
    for (int round = 0; round < kRounds; ++round)
        rounds.push_back({"rtsp", camera.url(), "rtsp", recorder.tcp_url(), std::to_string(5 + round % 20)});
    std::vector<long> pushed;
    for (const CommandResult& result : run_rounds(rounds))
        pushed.push_back(frames_of(result));
    // The recorder tells of them in the order in which they ended.
    std::vector<long> recorded;
    std::size_t teardowns = 0;
    while (recorded.size() < pushed.size()) {
        const std::optional<std::string> line = recorder.read_line();
        ASSERT_TRUE(line) << recorded.size() << " streams have ended, of " << teardowns << " that were torn down";
        ASSERT_NE(line->rfind("lost", 0), 0U) << *line;
        if (*line == "teardown") ++teardowns;
        if (line->rfind("eos frames=", 0) == 0) recorded.push_back(std::atol(line->c_str() + 11));
    }
    std::sort(pushed.begin(), pushed.end());
    std::sort(recorded.begin(), recorded.end());
    EXPECT_EQ(recorded, pushed);
    EXPECT_EQ(teardowns, pushed.size());
}

TEST_F(StopOfPush, ToAServerThatIsSilentEndsTheCall)
{
    for (const bool has_tcp : {true, false}) {
        SCOPED_TRACE(has_tcp);
        const std::unique_ptr<StreamCall> call = start_push(has_tcp);
        server_.pause();
        EXPECT_TRUE(stop_ends_call(*call, "push"));
        server_.resume();
        Quorvis::VelStream::running = true; // for the next push
    }
}

TEST_F(StopOfPush, ToAServerThatHasBeenSilentForLongEndsTheCall)
{
    const std::unique_ptr<StreamCall> call = start_push(true);
    server_.pause();
    call->wait_for_frames(call->frames() + 100, std::chrono::seconds(6)); // what the connection takes
    EXPECT_TRUE(stop_ends_call(*call, "push"));
    server_.resume();
}

TEST_F(StopOfPush, ToAServerThatIsGoneEndsTheCall)
{
    const std::unique_ptr<StreamCall> call = start_push(true);
    server_.kill_now();
    EXPECT_TRUE(stop_ends_call(*call, "push"));
}

} // namespace velstream::testing
