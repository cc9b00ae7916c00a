// The commands around the merge script. Its place, /usr/local/bin, is an empty folder of the test's own.
#include "FakeProgram.h"
#include "RecordedLog.h"
#include "patience.h"
#include "velstream.h"
#include "velstreamRolling.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>

#include <chrono>
#include <csignal>
#include <thread>

using namespace Quorvis::VelStream;

namespace velstream::testing {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kAtOnce = -5;

/// Lists this process, and what every merge looks like.
std::string listing(const std::string& line)
{
    return "echo \"$*\" > $FOLDER/arguments; echo '" + line + "'";
}

const char* const kMergeOfCam = "root 42 1 0 10:00 ? 00:00:00 python3 /usr/local/bin/concate_video.py --stream-id cam";

bool wait_for_file(const FakeProgram& program, const std::string& file)
{
    const auto deadline = Clock::now() + kPatience;
    while (!program.has_written(file) && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return program.has_written(file);
}

std::string command_line(const std::string& rest)
{
    return "I get_rolling_save_video - rolling save command: python3 /usr/local/bin/concate_video.py " + rest;
}

} // namespace

TEST(MergeRequest, RunsTheScriptWithTheseWords)
{
    const FakeProgram python("python3", kKeepArguments);
    EXPECT_EQ(merge_rolling_save_video("cam_1.a-B", "--last 30 --output '/tmp/a b.mp4'", kAtOnce), 0);
    EXPECT_EQ(python.written("arguments"),
              "/usr/local/bin/concate_video.py\n--last\n30\n--output\n/tmp/a b.mp4\n--stream-id\ncam_1.a-B\n");
    EXPECT_EQ(log_lines(),
              std::vector<std::string>{command_line("--last 30 --output '/tmp/a b.mp4' --stream-id cam_1.a-B")});
    EXPECT_EQ(log_files(), std::vector<std::string>{"modules/origin/src/velstreamRolling.cpp"});
}

TEST(MergeRequest, OptionsGoToTheShellAsTheyAre)
{
    const FakeProgram python("python3", kKeepArguments);
    EXPECT_EQ(merge_rolling_save_video("cam", "--last $((10 + 20))", kAtOnce), 0);
    EXPECT_EQ(python.written("arguments"), "/usr/local/bin/concate_video.py\n--last\n30\n--stream-id\ncam\n");
}

TEST(MergeRequest, EmptyOptionsLeaveTwoBlanks)
{
    const FakeProgram python("python3", kKeepArguments);
    merge_rolling_save_video("cam", "", kAtOnce);
    EXPECT_TRUE(log_has(command_line(" --stream-id cam")));
}

TEST(MergeRequest, OtherIdsAreOneQuotedWord)
{
    const FakeProgram python("python3", kKeepArguments);
    for (const std::string id : {"a b", "a;touch x", "$HOME", "it's", "`id`", "*", "/x", "a\"b", "../x"}) {
        merge_rolling_save_video(id, "", kAtOnce);
        EXPECT_EQ(python.written("arguments"), "/usr/local/bin/concate_video.py\n--stream-id\n" + id + "\n");
    }
    EXPECT_TRUE(log_has(command_line(" --stream-id 'it'\\''s'")));
}

TEST(MergeRequest, FailureOfTheScriptIsIgnored)
{
    const FakeProgram python("python3", "exit 1");
    EXPECT_EQ(merge_rolling_save_video("cam", "", kAtOnce), 0);
    EXPECT_EQ(log_lines(), std::vector<std::string>{command_line(" --stream-id cam")});
}

TEST(MergeRequest, CommandThatCannotBeWaitedForIsLogged)
{
    const FakeProgram python("python3", kKeepArguments);
    std::signal(SIGCHLD, SIG_IGN); // nobody learns then how a child ended
    EXPECT_EQ(merge_rolling_save_video("cam", "", kAtOnce), 0);
    EXPECT_EQ(log_lines(), (std::vector<std::string>{command_line(" --stream-id cam"),
                                                     "E get_rolling_save_video - Error calling system"}));
}

TEST(MergeRequest, WaitsFiveSecondsLonger)
{
    const FakeProgram python("python3", kKeepArguments);
    const auto start = Clock::now();
    merge_rolling_save_video("cam", "", -4);
    EXPECT_GE(Clock::now() - start, std::chrono::seconds(1));
}

TEST(MergeRequest, VeryNegativeTimesAreNoWait)
{
    const FakeProgram python("python3", kKeepArguments);
    EXPECT_EQ(merge_rolling_save_video("cam", "", std::numeric_limits<int>::min()), 0);
    EXPECT_TRUE(python.has_written("arguments"));
}

TEST(MergeRequest, SignalDoesNotShortenTheWait)
{
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    const FakeProgram python("python3", kKeepArguments);
    const auto start = Clock::now();
    std::thread merge([] { merge_rolling_save_video("cam", "", -3); });
    for (int i = 0; i < 20; ++i) {
        pthread_kill(merge.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    merge.join();
    EXPECT_GE(Clock::now() - start, std::chrono::seconds(2));
}

TEST(MergeRequest, ReturnsAtOnceAndTheMergeGoesOn)
{
    const FakeProgram python("python3", kKeepArguments);
    EXPECT_EQ(get_rolling_save_video("cam", "--last 9", kAtOnce), 0);
    ASSERT_TRUE(wait_for_file(python, "arguments"));
    EXPECT_EQ(python.written("arguments"), "/usr/local/bin/concate_video.py\n--last\n9\n--stream-id\ncam\n");
    EXPECT_TRUE(wait_for_log(command_line("--last 9 --stream-id cam")));
}

TEST(MergeRequest, WhileAnotherRunsIsLoggedAndStartsAllTheSame)
{
    const FakeProgram ps("ps", listing(kMergeOfCam));
    const FakeProgram python("python3", kKeepArguments);
    EXPECT_EQ(get_rolling_save_video("cam", "", kAtOnce), 0);
    EXPECT_TRUE(log_has("W get_rolling_save_video - concate_video.py is already running for stream_id: cam"));
    EXPECT_TRUE(wait_for_log(command_line(" --stream-id cam")));
}

TEST(MergeTest, AsksPsForTheScriptAndTheId)
{
    const FakeProgram ps("ps", listing(kMergeOfCam));
    EXPECT_TRUE(is_concate_video_running("cam"));
    EXPECT_EQ(ps.written("arguments"), "-ef\n");
    EXPECT_FALSE(is_concate_video_running("door"));
    EXPECT_FALSE(is_concate_video_running("cam 1"));
}

TEST(MergeTest, NothingButTheScriptCounts)
{
    const FakeProgram ps("ps", listing("root 42 1 0 10:00 ? 00:00:00 velstream record cam"));
    EXPECT_FALSE(is_concate_video_running("cam"));
}

TEST(MergeTest, GrepForTheScriptDoesNotCount)
{
    const FakeProgram ps("ps", listing("root 42 1 0 10:00 ? 00:00:00 grep concate_video.py cam"));
    EXPECT_FALSE(is_concate_video_running("cam"));
}

TEST(MergeTest, GrepTakesTheIdAsOneWordOnly)
{
    const FakeProgram grep("grep",
                           R"(echo "$#:$*" >> $FOLDER/calls; exec /usr/bin/env -i PATH=/usr/bin:/bin grep "$@")");
    const FakeProgram ps("ps", listing(kMergeOfCam));
    EXPECT_FALSE(is_concate_video_running("a b; exit 0"));
    EXPECT_NE(grep.written("calls").find("1:a b; exit 0\n"), std::string::npos) << grep.written("calls");
}

TEST(MergeTest, CommandThatCannotBeStartedIsPrintedAndCountsAsNone)
{
    const FakeProgram ps("ps", listing(kMergeOfCam));
    ::testing::internal::CaptureStderr();
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none{0, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const bool is_running = is_concate_video_running("cam");
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_FALSE(is_running);
    EXPECT_EQ(::testing::internal::GetCapturedStderr().rfind("popen: ", 0), 0U);
    EXPECT_TRUE(is_concate_video_running("cam"));
}

} // namespace velstream::testing
