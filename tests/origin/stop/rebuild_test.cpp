// Streams that are rebuilt in place, and what ends that.
#include "ConfigFile.h"
#include "RecordedLog.h"
#include "StreamBuild.h"
#include "StreamCall.h"
#include "VideoFiles.h"

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

namespace velstream::testing {

namespace {

const char* const kRebuilt = "I re_create_pipeline - 6";

std::string file_stream(const std::string& path, bool manual_rebuild)
{
    return one_stream("file", R"("inputType": "file", "inputAddr": ")" + path + R"(", "manualRebuild": )" +
                                  (manual_rebuild ? "true" : "false"));
}

class Rebuild : public ::testing::Test {
protected:
    static void SetUpTestSuite() { gst_init(nullptr, nullptr); }
    const TemporaryFolder folder_;
};

} // namespace

TEST_F(Rebuild, OfAFileThatEndsPlaysItAgainAndCountsOn)
{
    const std::string path = folder_.file("short.mp4");
    make_video({.width = 320, .height = 180, .frames = 10}, path);
    const ConfigFile config(file_stream(path, false));
    std::mutex mutex;
    std::vector<std::int64_t> indexes;
    std::vector<int> numbers;
    StreamCall call(configured_stream("file"), [&](const Image& image) {
        const std::lock_guard lock(mutex);
        indexes.push_back(image.frameIndex);
        numbers.push_back(
            media::read_frame_number(image.data, image.width, image.height, 3 * image.width).value_or(-1));
    });
    ASSERT_TRUE(call.wait_for_frames(25)); // in the third round
    EXPECT_TRUE(stop_ends_call(call, "file"));
    EXPECT_EQ(call.result(), 0);
    EXPECT_GE(log_count(kRebuilt), 2);
    for (std::size_t k = 0; k < 25; ++k) {
        EXPECT_EQ(indexes[k], static_cast<std::int64_t>(k + 1));
        EXPECT_EQ(numbers[k], static_cast<int>(k % 10));
    }
    EXPECT_GE(log_count("W End-Of-Stream reached. Manual rebuild switch disabled, It will rebuild."), 2);
}

TEST_F(Rebuild, OfAnAbsentFileGoesOnWithoutCountingAttempts)
{
    const ConfigFile config(file_stream(folder_.file("absent.mp4"), false));
    StreamCall call(configured_stream("file"));
    // More rebuilds than there are attempts.
    for (int tenths = 0; tenths < 600 && log_count(kRebuilt) < 6; ++tenths)
        ASSERT_FALSE(call.wait_for_end(std::chrono::milliseconds(100)));
    EXPECT_GE(log_count(kRebuilt), 6);
    EXPECT_EQ(log_count("I Starting pipeline, attempt 1 of 5"), 1);
    EXPECT_EQ(log_count("I Starting pipeline, attempt 2 of 5"), 0);
    EXPECT_TRUE(stop_ends_call(call, "file"));
}

TEST_F(Rebuild, GoesOnOnceTheFileIsThere)
{
    const std::string late = folder_.file("late.mp4");
    const ConfigFile config(file_stream(late, false));
    StreamCall call(configured_stream("file"));
    ASSERT_TRUE(wait_for_log(kRebuilt));
    EXPECT_EQ(call.frames(), 0);
    const std::string ready = folder_.file("ready.mp4");
    make_video({.width = 320, .height = 180, .frames = 10}, ready);
    std::filesystem::rename(ready, late);
    EXPECT_TRUE(call.wait_for_frames(5));
    EXPECT_TRUE(stop_ends_call(call, "file"));
}

TEST_F(Rebuild, IsEndedByAStopAtAnyMoment)
{
    const ConfigFile config(file_stream(folder_.file("absent.mp4"), false));
    for (int delay_ms = 0; delay_ms < 1300; delay_ms += 170) {
        SCOPED_TRACE(delay_ms);
        clear_log();
        StreamCall call(configured_stream("file"));
        ASSERT_TRUE(wait_for_log("W Error information received. Manual rebuild switch disabled, It will rebuild."));
        std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms)); // what the rounds vary
        ASSERT_TRUE(stop_ends_call(call, "file"));
    }
}

TEST_F(Rebuild, IsEndedByAStopOfAllStreams)
{
    const ConfigFile config(file_stream(folder_.file("absent.mp4"), false));
    StreamCall call(configured_stream("file"));
    ASSERT_TRUE(wait_for_log(kRebuilt));
    EXPECT_TRUE(stop_ends_call(call, "all_stream"));
}

TEST_F(Rebuild, WithTheManualSwitchOnTakesFiveAttempts)
{
    const ConfigFile config(file_stream(folder_.file("absent.mp4"), true));
    StreamCall call(configured_stream("file"));
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), -1);
    for (int attempt = 1; attempt <= 5; ++attempt)
        EXPECT_EQ(log_count("I Starting pipeline, attempt " + std::to_string(attempt) + " of 5"), 1);
    EXPECT_EQ(log_count("E Pipeline failed after 5 attempts."), 1);
    EXPECT_EQ(log_count(kRebuilt), 0);
}

TEST_F(Rebuild, FailsWithTheCallWhenTheEntryIsGone)
{
    const ConfigFile config(file_stream(folder_.file("absent.mp4"), false));
    StreamCall call(configured_stream("file"));
    ASSERT_TRUE(wait_for_log("W Error information received. Manual rebuild switch disabled, It will rebuild."));
    config.remove();
    // Without its entry a stream is one that the application restarts: the attempts run out.
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), -1);
    EXPECT_GE(log_count("E re_create_pipeline - failed to re-create pipeline."), 1);
    EXPECT_EQ(log_count("E Pipeline failed after 5 attempts."), 1);
}

TEST_F(Rebuild, SeesAConfigurationThatIsNoJsonAsTheCallersException)
{
    const std::string path = folder_.file("short.mp4");
    make_video({.width = 320, .height = 180, .frames = 10}, path);
    const ConfigFile config(file_stream(path, false));
    std::once_flag once;
    StreamCall call(configured_stream("file"),
                    [&](const Image&) { std::call_once(once, [&] { config.write("{ no JSON"); }); });
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_NE(call.exception(), "");
    EXPECT_EQ(call.frames(), 10);
    Quorvis::VelStream::send_eos("all_stream");
}

} // namespace velstream::testing
