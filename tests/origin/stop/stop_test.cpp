#include "ConfigFile.h"
#include "LiveInput.h"
#include "Platform.h"
#include "RecordedLog.h"
#include "StreamBuild.h"
#include "VideoFiles.h"
#include "rounds.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

namespace velstream::testing {

namespace {

using Quorvis::VelStream::gstreamer_pipeline_shutdown;
using Quorvis::VelStream::pipeline_map;
using Quorvis::VelStream::platform;
using Quorvis::VelStream::running;
using Quorvis::VelStream::send_eos;

class Stop : public ::testing::Test {
protected:
    static void SetUpTestSuite() { gst_init(nullptr, nullptr); }
};

} // namespace

TEST_F(Stop, FiftyStopsOfALiveStreamEndItsCallWithinASecond)
{
    for (int round = 0; round < 50; ++round) {
        SCOPED_TRACE(round);
        if (platform() == "ub2404") {
            // A stop clears `running` for good: a process for each.
            ASSERT_EQ(run_round({"stop-live", std::to_string(1 + round % 3)}).status, 0);
            continue;
        }
        StreamCall call(live_stream("live"));
        ASSERT_TRUE(call.wait_for_frames(1 + round % 3));
        ASSERT_TRUE(stop_ends_call(call, "live"));
    }
}

TEST_F(Stop, AtAnyMomentAfterTheRegistrationEndsTheCall)
{
    for (int delay_ms = 0; delay_ms <= 300; delay_ms += 15) {
        SCOPED_TRACE(delay_ms);
        ASSERT_EQ(run_round({"stop-early", std::to_string(delay_ms)}).status, 0);
    }
}

TEST_F(Stop, WhileTheInputIsBeingBuiltEndsTheCallWithoutAFrame)
{
    std::promise<void> is_building;
    StreamCall call(live_stream("slow", {.before_build = [&] {
                                    is_building.set_value();
                                    wait_for_log("I send_eos: stopping single pipeline slow");
                                }}));
    is_building.get_future().wait();
    EXPECT_TRUE(stop_ends_call(call, "slow"));
    EXPECT_EQ(call.result(), 0);
    EXPECT_EQ(call.frames(), 0);
}

TEST_F(Stop, OfOneStreamTwiceIsHarmless)
{
    StreamCall call(live_stream("twice"));
    ASSERT_TRUE(call.wait_for_frames(2));
    ASSERT_TRUE(stop_ends_call(call, "twice"));
    const std::int64_t frames = call.frames();
    gstreamer_pipeline_shutdown("twice");
    gstreamer_pipeline_shutdown("twice");
    EXPECT_EQ(call.frames(), frames);
}

TEST_F(Stop, OfAStreamThatHasEndedIsHarmless)
{
    StreamCall call(live_stream("ended", {.frames = 3}));
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.frames(), 3);
    gstreamer_pipeline_shutdown("ended");
    EXPECT_EQ(pipeline_map.at("ended"), nullptr);
}

TEST_F(Stop, OfAnUnknownIdOnlyClearsRunning)
{
    StreamCall call(live_stream("known"));
    ASSERT_TRUE(call.wait_for_frames(2));
    gstreamer_pipeline_shutdown("unknown");
    EXPECT_FALSE(running);
    if (platform() == "ub2404") {
        // There it ends every stream.
        EXPECT_TRUE(call.wait_for_end());
        EXPECT_EQ(call.result(), 0);
    } else {
        const std::int64_t frames = call.frames();
        EXPECT_TRUE(call.wait_for_frames(frames + 5));
        EXPECT_TRUE(stop_ends_call(call, "known"));
    }
}

TEST_F(Stop, OfAllStreamsWithoutOneOnlyClearsRunning)
{
    send_eos("all_stream");
    EXPECT_FALSE(running);
    EXPECT_TRUE(pipeline_map.empty());
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(Stop, OfAllStreamsEndsEveryCall)
{
    StreamCall first(live_stream("first"));
    StreamCall second(live_stream("second"));
    StreamCall third(live_stream("third"));
    ASSERT_TRUE(first.wait_for_frames(1));
    ASSERT_TRUE(second.wait_for_frames(1));
    ASSERT_TRUE(third.wait_for_frames(1));
    EXPECT_TRUE(stop_ends_call(first, "all_stream"));
    EXPECT_TRUE(second.wait_for_end(kEndAfterStop));
    EXPECT_TRUE(third.wait_for_end(kEndAfterStop));
    for (const char* id : {"first", "second", "third"})
        EXPECT_EQ(log_count(std::string("I send_eos: stopping pipeline ") + id), 1) << id;
}

TEST_F(Stop, FromTwoThreadsAtOnceEndsTheCall)
{
    StreamCall call(live_stream("contested"));
    ASSERT_TRUE(call.wait_for_frames(2));
    std::thread other([] { send_eos("contested"); });
    EXPECT_TRUE(stop_ends_call(call, "contested"));
    other.join();
}

TEST_F(Stop, OfOneStreamEndsTheOthersOnlyOnUb2404)
{
    StreamCall stopped(live_stream("stopped"));
    StreamCall other(live_stream("other"));
    ASSERT_TRUE(stopped.wait_for_frames(1));
    ASSERT_TRUE(other.wait_for_frames(1));
    ASSERT_TRUE(stop_ends_call(stopped, "stopped"));
    if (platform() == "ub2404") {
        EXPECT_TRUE(other.wait_for_end());
        return;
    }
    const std::int64_t frames = other.frames();
    EXPECT_TRUE(other.wait_for_frames(frames + 5));
    EXPECT_TRUE(stop_ends_call(other, "other"));
}

TEST_F(Stop, WhileTheStreamEndsByItselfEndsTheCall)
{
    for (int round = 0; round < 15; ++round) {
        SCOPED_TRACE(round);
        StreamCall call(live_stream("ending", {.fps = 100, .frames = 5}));
        // On "ub2404" the first stop ends the later streams early.
        const bool is_there = call.wait_for_frames(round % 5);
        ASSERT_TRUE(is_there || (round > 0 && platform() == "ub2404"));
        ASSERT_TRUE(stop_ends_call(call, "ending"));
    }
}

TEST_F(Stop, OfAShortFileAtItsEndEndsTheCall)
{
    const TemporaryFolder folder;
    const std::string path = folder.file("short.mp4");
    make_video({.width = 320, .height = 180, .frames = 10}, path);
    const ConfigFile config(
        one_stream("file", R"("inputType": "file", "manualRebuild": true, "inputAddr": ")" + path + "\""));
    StreamCall call(configured_stream("file"));
    call.wait_for_frames(9);
    EXPECT_TRUE(stop_ends_call(call, "file"));
    EXPECT_LE(call.frames(), 10);
}

TEST_F(Stop, FromTheFrameCallbackEndsTheCall)
{
    StreamCall call(live_stream("own"), [](const Image& image) {
        if (image.frameIndex == 3) gstreamer_pipeline_shutdown("own");
    });
    EXPECT_TRUE(call.wait_for_end());
    EXPECT_GE(call.frames(), 3);
}

TEST_F(Stop, OfAStreamWhoseIdWasStartedAgainEndsBoth)
{
    StreamCall first(live_stream("same"));
    ASSERT_TRUE(first.wait_for_frames(1));
    StreamCall second(live_stream("same"));
    ASSERT_TRUE(second.wait_for_frames(1));
    EXPECT_TRUE(stop_ends_call(first, "same"));
    EXPECT_TRUE(second.wait_for_end(kEndAfterStop));
}

TEST_F(Stop, StreamsCanStartAgainAfterAStop)
{
    if (platform() == "ub2404") {
        // There later streams end as soon as they notice that `running` is cleared.
        send_eos("nobody");
        StreamCall late(live_stream("late"));
        EXPECT_TRUE(late.wait_for_end());
        EXPECT_EQ(late.result(), 0);
        EXPECT_TRUE(log_has("I start_ub2404: running cleared, will break loop. stream_id=late"));
        return;
    }
    for (int round = 0; round < 2; ++round) {
        StreamCall call(live_stream("again"));
        EXPECT_TRUE(call.wait_for_frames(3));
        EXPECT_TRUE(stop_ends_call(call, "again"));
    }
}

} // namespace velstream::testing
