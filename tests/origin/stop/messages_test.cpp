// What a runner makes of the messages on its pipeline's bus.
#include "ConfigFile.h"
#include "LiveInput.h"
#include "Platform.h"
#include "RecordedLog.h"
#include "StreamBuild.h"
#include "VideoFiles.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>

namespace velstream::testing {

namespace {

using Quorvis::VelStream::BusPtr;
using Quorvis::VelStream::ElementPtr;
using Quorvis::VelStream::get_stream_status;
using Quorvis::VelStream::pipeline_map;
using Quorvis::VelStream::platform;
using Quorvis::VelStream::running;
using Quorvis::VelStream::StreamOutput;
using Quorvis::VelStream::StreamOutputMp4sink;

const char* const kExternalStop = "I start_ub2404: pipeline entered NULL because of external stop.";
const char* const kToNull = "I start_ub2404: pipeline state changed READY -> NULL";

/// A bin that takes any video and shows it nowhere.
class SinkOutput : public StreamOutput {
public:
    GstElement* build() override
    {
        GstElement* bin = gst_bin_new("display");
        GstElement* sink = gst_element_factory_make("fakesink", nullptr);
        gst_bin_add(GST_BIN(bin), sink);
        createSinkPad(bin, sink);
        return bin;
    }
};

class Messages : public ::testing::Test {
protected:
    static void SetUpTestSuite() { gst_init(nullptr, nullptr); }
};

ElementPtr pipeline_of(const std::string& id)
{
    return ElementPtr(GST_ELEMENT(gst_object_ref(pipeline_map.at(id))));
}

void post_error(GstElement* pipeline)
{
    GST_ELEMENT_ERROR(pipeline, STREAM, FAILED, ("it broke"), (nullptr));
}

/// On the bus itself: a bin draws conclusions from a change of its own state that it is to post.
void post_state(GstElement* pipeline, GstState former, GstState now)
{
    const BusPtr bus(gst_element_get_bus(pipeline));
    gst_bus_post(bus.get(), gst_message_new_state_changed(GST_OBJECT(pipeline), former, now, GST_STATE_VOID_PENDING));
}

/// The line that opens an attempt.
std::string attempt_line(int attempt)
{
    const char* start =
        platform() == "v4l2" ? "I Platform is 6490 ql. Starting pipeline, attempt " : "I Starting pipeline, attempt ";
    return start + std::to_string(attempt) + " of 5";
}

} // namespace

TEST_F(Messages, WarningDoesNotEndTheStream)
{
    StreamCall call(live_stream("live"));
    ASSERT_TRUE(call.wait_for_frames(2));
    clear_log();
    GST_ELEMENT_WARNING(pipeline_of("live").get(), STREAM, FAILED, ("a warning"), (nullptr));
    // More frames than were on their way.
    EXPECT_TRUE(call.wait_for_frames(call.frames() + 20));
    EXPECT_FALSE(log_has(attempt_line(2)));
    EXPECT_TRUE(stop_ends_call(call, "live"));
    EXPECT_NE(call.result(), std::nullopt);
    for (const std::string& line : log_lines())
        EXPECT_EQ(line.find("a warning"), std::string::npos) << "dropped without a line";
}

TEST_F(Messages, EndOfStreamAfterErrorsTellsTheAttempt)
{
    std::atomic<int> errors{0};
    StreamCall call(live_stream("retried", {.frames = 5}), [&errors](const Image&) {
        // One for each of the first two attempts.
        if (errors >= 2 || (errors == 1 && !log_has(attempt_line(2)))) return;
        ++errors;
        post_error(pipeline_of("retried").get());
    });
    ASSERT_TRUE(call.wait_for_end());
    if (platform() == "ub2404") {
        // One attempt only.
        EXPECT_EQ(call.result(), -1);
        EXPECT_EQ(errors, 1);
        EXPECT_EQ(log_lines().back(), "E start_ub2404: Pipeline failed.");
        return;
    }
    EXPECT_EQ(errors, 2);
    EXPECT_EQ(log_count(attempt_line(3)), 1);
    EXPECT_EQ(log_count(attempt_line(4)), 0);
    if (platform() == "v4l2") {
        EXPECT_EQ(call.result(), 0);
        EXPECT_EQ(log_lines().back(), "I Pipeline completed (EOS) after 3 attempts.");
    } else {
        EXPECT_EQ(call.result(), -1);
        EXPECT_EQ(log_lines().back(), "E Pipeline failed after 5 attempts.") << "whatever the attempt";
    }
}

TEST_F(Messages, FailureOfASourceLeavesAWholeRecordingOnUb2404)
{
    if (platform() != "ub2404") return; // the others begin the file anew
    const TemporaryFolder folder;
    const std::string path = folder.file("recorded.mp4");
    StreamCall call(live_stream("recorded", {.frames = 20}, std::make_shared<StreamOutputMp4sink>(path, 320, 240)),
                    [](const Image& image) {
                        if (image.frameIndex == 15) post_error(pipeline_of("recorded").get());
                    });
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), -1);
    EXPECT_EQ(probe_video(path).frames, 20);
}

TEST_F(Messages, PipelineGoneToNullEndsTheCallOnUb2404OnceRunningIsCleared)
{
    std::promise<void> gate;
    const std::shared_future<void> is_open = gate.get_future().share();
    const bool is_held = platform() == "ub2404";
    // Held in its callback there, so that no end of stream comes before the message.
    StreamCall call(live_stream("live", {}, std::make_shared<SinkOutput>()), [is_open, is_held](const Image& image) {
        if (is_held && image.frameIndex == 2) is_open.wait();
    });
    ASSERT_TRUE(call.wait_for_frames(1));
    const ElementPtr pipeline = pipeline_of("live");
    post_state(pipeline.get(), GST_STATE_READY, GST_STATE_NULL);
    post_state(pipeline.get(), GST_STATE_PLAYING, GST_STATE_READY);
    if (is_held) {
        // The line of the second says that the first is done with.
        EXPECT_TRUE(wait_for_log("I start_ub2404: pipeline state changed PLAYING -> READY"));
        EXPECT_EQ(log_count(kToNull), 1);
        EXPECT_FALSE(log_has(kExternalStop)) << "while streams are to run";
    }
    running = false;
    post_state(pipeline.get(), GST_STATE_READY, GST_STATE_NULL);
    if (is_held) {
        EXPECT_TRUE(wait_for_log(kExternalStop));
        EXPECT_EQ(log_count(kToNull), 2);
        gate.set_value();
        EXPECT_TRUE(call.wait_for_end());
        EXPECT_EQ(call.result(), 0);
        EXPECT_EQ(log_lines().back(), "I start_ub2404: Pipeline stopped (EOS or external stop).");
        return;
    }
    EXPECT_TRUE(call.wait_for_frames(call.frames() + 20));
    EXPECT_FALSE(log_has(kExternalStop));
    EXPECT_TRUE(stop_ends_call(call, "live"));
}

TEST_F(Messages, StatusIsMinusOneWhileAStreamRuns)
{
    StreamCall call(live_stream("live"));
    ASSERT_TRUE(call.wait_for_frames(1));
    EXPECT_EQ(get_stream_status(), -1);
    EXPECT_TRUE(stop_ends_call(call, "live"));
    EXPECT_EQ(get_stream_status(), -1);
}

} // namespace velstream::testing
