// A stop loses nothing: what was recorded of a live camera is complete up to the last frame.
#include "ConfigFile.h"
#include "Platform.h"
#include "StreamCall.h"
#include "VideoFiles.h"
#include "process.h"
#include "rounds.h"

#include <gtest/gtest.h>

namespace velstream::testing {

namespace {

constexpr int kRounds = 50;

long frames_of(const CommandResult& round)
{
    return std::atol(value_of(round.output, "frames").c_str());
}

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

} // namespace velstream::testing
