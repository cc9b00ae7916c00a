// Every way in which a re-encoder ends leaves a whole file, on a machine that is busy too.
#include "RecordedLog.h"
#include "Reencoding.h"
#include "StreamBuild.h"
#include "StreamBuildReencode.h"

#include <csignal>
#include <thread>

using namespace Quorvis::VelStream;

namespace velstream::testing {

namespace {

constexpr int kRounds = 20;

class EndOfReencoder : public Reencoder {
protected:
    void SetUp() override { running = true; }

    std::string path(int round) const { return folder_.file("saved" + std::to_string(round) + ".mp4"); }

    /// The file plays, and has the last frames that were pushed.
    static void expect_whole(const std::string& path, long least, long most)
    {
        const long frames = probe_video(path).frames;
        EXPECT_GE(frames, least) << path;
        EXPECT_LE(frames, most) << path;
    }

    const Load load_;
};

} // namespace

TEST_F(EndOfReencoder, ByTheFlagIsWholeTwentyTimes)
{
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        running = true;
        StreamCall call(described_stream(saved_stream("cam", path(round), 320, 240, 50)), painter());
        ASSERT_TRUE(call.wait_for_frames(1 + round % 5));
        running = false;
        ASSERT_TRUE(call.wait_for_end());
        EXPECT_EQ(call.result(), 0);
        expect_whole(path(round), call.frames(), call.frames());
    }
}

TEST_F(EndOfReencoder, ByASignalIsWholeTwentyTimes)
{
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        running = true;
        StreamCall call(described_stream(saved_stream("cam", path(round), 320, 240, 50)), painter());
        ASSERT_TRUE(call.wait_for_frames(2 + round % 5));
        std::raise(SIGINT);
        ASSERT_TRUE(call.wait_for_end());
        EXPECT_EQ(call.result(), 0);
        // What waits in the source is kept; the frame that was being drawn may have come too late.
        expect_whole(path(round), call.frames() - 1, call.frames());
        EXPECT_EQ(log_count("E Failed to push buffer to appsrc."), 0);
    }
}

/// A signal interrupts any thread anywhere. What it holds then must not be waited for: it is not let go meanwhile.
TEST_F(EndOfReencoder, ByASignalToAThreadThatHoldsThePipelineIsWhole)
{
    int number = 0;
    StreamCall call(described_stream(saved_stream("cam", path(0), 320, 240, 50)),
                    [&, draw = painter()](const Image& image) {
                        draw(image);
                        if (++number != 3) return;
                        GstElement* pipeline = pipeline_map["cam_mp4"];
                        GST_OBJECT_LOCK(pipeline);
                        std::raise(SIGINT);
                        GST_OBJECT_UNLOCK(pipeline);
                    });
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    expect_whole(path(0), call.frames() - 1, call.frames());
    EXPECT_EQ(log_count("W Sending EOS to pipeline completed."), 1);
}

TEST_F(EndOfReencoder, ByAFailedPushIsWholeTwentyTimes)
{
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        clear_log();
        int number = 0;
        const int last = 2 + round % 5;
        StreamCall call(described_stream(saved_stream("cam", path(round), 320, 240, 50)),
                        [&, draw = painter()](const Image& image) {
                            draw(image);
                            GstFlowReturn flow = GST_FLOW_ERROR;
                            // From here on the source takes nothing more.
                            if (++number == last) g_signal_emit_by_name(appsrc_s, "end-of-stream", &flow);
                        });
        ASSERT_TRUE(call.wait_for_end());
        EXPECT_EQ(call.result(), 0);
        EXPECT_EQ(call.frames(), last);
        EXPECT_EQ(log_count("E Failed to push buffer to appsrc."), 1);
        expect_whole(path(round), last - 1, last - 1);
    }
}

TEST_F(EndOfReencoder, ByAStopOfItsKeyIsWholeTwentyTimes)
{
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        running = true;
        StreamCall call(described_stream(saved_stream("cam", path(round), 320, 240, 50)), painter());
        ASSERT_TRUE(call.wait_for_frames(2 + round % 5));
        ASSERT_TRUE(stop_ends_call(call, "cam_mp4"));
        EXPECT_EQ(call.result(), 0);
        // The frame that was being drawn may have come too late.
        expect_whole(path(round), call.frames() - 1, call.frames());
        EXPECT_EQ(log_count("E Failed to push buffer to appsrc."), 0);
    }
}

TEST_F(EndOfReencoder, ByAStopOfItsIdIsWhole)
{
    StreamCall call(described_stream(saved_stream("cam", path(0), 320, 240, 50)), painter());
    ASSERT_TRUE(call.wait_for_frames(3));
    ASSERT_TRUE(stop_ends_call(call, "cam"));
    expect_whole(path(0), call.frames() - 1, call.frames());
}

TEST_F(EndOfReencoder, ByAStopOfAllIsWhole)
{
    StreamCall call(described_stream(saved_stream("cam", path(0), 320, 240, 50)), painter());
    ASSERT_TRUE(call.wait_for_frames(3));
    ASSERT_TRUE(stop_ends_call(call, "all_stream"));
    expect_whole(path(0), call.frames() - 1, call.frames());
}

TEST_F(EndOfReencoder, ByAStopFromItsCallbackIsWhole)
{
    int number = 0;
    StreamCall call(described_stream(saved_stream("cam", path(0), 320, 240, 50)), [&](const Image&) {
        if (++number == 3) gstreamer_pipeline_shutdown("cam");
    });
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.frames(), 3);
    expect_whole(path(0), 2, 3);
}

TEST_F(EndOfReencoder, WithASlowRateDoesNotWaitForTheNextFrame)
{
    StreamCall call(described_stream(saved_stream("cam", path(0), 320, 240, 1)), painter());
    ASSERT_TRUE(call.wait_for_frames(1));
    running = false;
    ASSERT_TRUE(call.wait_for_end());
    expect_whole(path(0), 1, 1);
}

TEST_F(EndOfReencoder, DuringASlowCallbackIsWhole)
{
    int number = 0;
    StreamCall call(described_stream(saved_stream("cam", path(0), 320, 240, 50)), [&](const Image&) {
        if (++number == 3) std::this_thread::sleep_for(std::chrono::seconds(2)); // the callback's work
    });
    ASSERT_TRUE(call.wait_for_frames(2));
    ASSERT_TRUE(stop_ends_call(call, "cam"));
    expect_whole(path(0), 1, call.frames()); // a frame that was being drawn is refused
}

TEST_F(EndOfReencoder, BeforeItsStartIsTheEndOfTheCall)
{
    running = false;
    StreamCall call(described_stream(saved_stream("cam", path(0), 320, 240, 50)));
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    EXPECT_EQ(call.frames(), 0);
}

} // namespace velstream::testing
