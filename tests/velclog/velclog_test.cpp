#include "temporary_folder.h"
#include "velclog.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Quorvis::VelClog::clog_printf;
using Quorvis::VelClog::clog_set_log_level;
using Quorvis::VelClog::clogger;
using velstream::testing::TemporaryFolder;

constexpr int kConsole = 1;
constexpr int kFile = 2;

std::vector<std::string> split_lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

std::vector<std::string> lines_of(const std::string& path)
{
    std::ifstream stream(path);
    return split_lines({std::istreambuf_iterator<char>(stream), {}});
}

/// What `function` writes to standard error.
template <typename Function>
std::vector<std::string> console_lines(Function&& function)
{
    ::testing::internal::CaptureStderr();
    function();
    return split_lines(::testing::internal::GetCapturedStderr());
}

std::size_t count_containing(const std::vector<std::string>& lines, const std::string& part)
{
    return static_cast<std::size_t>(std::count_if(
        lines.begin(), lines.end(), [&](const std::string& line) { return line.find(part) != std::string::npos; }));
}

bool ends_with(const std::string& text, const std::string& end)
{
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// What a process starts with, so that the tests also run in one process.
class VelClog : public ::testing::Test {
protected:
    VelClog()
    {
        clog_set_log_level(nullptr, 1);
        clogger(nullptr, nullptr, kConsole);
    }
};

} // namespace

TEST(VelClogAtStart, DefaultLevelWritesWarningsAndErrorsToStandardError)
{
    const auto lines = console_lines([] {
        clog_printf(0, "a.cpp", 1, "information");
        clog_printf(1, "a.cpp", 2, "warning");
        clog_printf(2, "a.cpp", 3, "error");
    });
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_TRUE(ends_with(lines[0], "warning"));
    EXPECT_TRUE(ends_with(lines[1], "error"));
}

TEST_F(VelClog, LineShowsTimeLevelPlaceAndMessage)
{
    const auto lines = console_lines([] {
        clog_set_log_level(nullptr, 0);
        clog_printf(0, "modules/origin/src/StreamBuild.cpp", 10, "%s %d", "one", 1);
        clog_printf(1, "modules/origin/src/StreamBuild.cpp", 20, "two");
        clog_printf(2, "modules/origin/src/StreamBuild.cpp", 30, "three");
    });
    ASSERT_EQ(lines.size(), 3U);
    const std::string time = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )";
    const std::string place = R"( \d+ modules/origin/src/StreamBuild\.cpp:)";
    EXPECT_TRUE(std::regex_match(lines[0], std::regex(time + "I" + place + "10 one 1"))) << lines[0];
    EXPECT_TRUE(std::regex_match(lines[1], std::regex(time + "W" + place + "20 two"))) << lines[1];
    EXPECT_TRUE(std::regex_match(lines[2], std::regex(time + "E" + place + "30 three"))) << lines[2];
}

TEST_F(VelClog, OneTrailingNewlineIsDropped)
{
    const auto lines = console_lines([] {
        clog_printf(2, "a.cpp", 1, "first\n");
        clog_printf(2, "a.cpp", 2, "second");
    });
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_TRUE(ends_with(lines[0], "a.cpp:1 first")) << lines[0];
    EXPECT_TRUE(ends_with(lines[1], "a.cpp:2 second")) << lines[1];
}

TEST_F(VelClog, LineBelowTheLevelIsNotFormatted)
{
    clog_set_log_level("test", 1);
    const char* const unreadable = reinterpret_cast<const char*>(std::uintptr_t{1}); // formatting it would crash
    EXPECT_TRUE(console_lines([&] { clog_printf(0, "a.cpp", 1, "%s", unreadable); }).empty());
}

TEST_F(VelClog, LevelAboveErrorWritesNothing)
{
    for (const int level : {3, 4, 5, 100}) {
        clog_set_log_level("test", level);
        EXPECT_TRUE(console_lines([] { clog_printf(2, "a.cpp", 1, "error"); }).empty()) << level;
        EXPECT_TRUE(console_lines([] { clog_printf(1000, "a.cpp", 1, "beyond"); }).empty()) << level;
    }
}

TEST_F(VelClog, NegativeLevelWritesEverything)
{
    clog_set_log_level("test", -3);
    EXPECT_EQ(console_lines([] { clog_printf(0, "a.cpp", 1, "information"); }).size(), 1U);
}

TEST_F(VelClog, LineLevelOutsideTheRangeCountsAsTheNearest)
{
    const auto lines = console_lines([] {
        clog_printf(-1, "a.cpp", 1, "below"); // information: dropped at the default level
        clog_set_log_level(nullptr, 0);
        clog_printf(-1, "a.cpp", 2, "below");
        clog_printf(7, "a.cpp", 3, "above");
    });
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(count_containing(lines, " I "), 1U) << lines[0];
    EXPECT_EQ(count_containing(lines, " E "), 1U) << lines[1];
}

TEST_F(VelClog, TagStandsInTheLineOnceItIsSet)
{
    const auto lines = console_lines([] {
        clog_printf(2, "a.cpp", 1, "before");
        clog_set_log_level("velstream", 1);
        clog_printf(2, "a.cpp", 2, "after");
        clogger("other", nullptr, kConsole);
        clog_printf(2, "a.cpp", 3, "later");
        clog_set_log_level(nullptr, 1);
        clog_printf(2, "a.cpp", 4, "none");
    });
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_TRUE(ends_with(lines[0], "a.cpp:1 before")) << lines[0];
    EXPECT_TRUE(ends_with(lines[1], "a.cpp:2 [velstream] after")) << lines[1];
    EXPECT_TRUE(ends_with(lines[2], "a.cpp:3 [other] later")) << lines[2];
    EXPECT_TRUE(ends_with(lines[3], "a.cpp:4 none")) << lines[3];
}

TEST_F(VelClog, LongMessageComesOutWhole)
{
    for (const std::size_t length : {511U, 512U, 513U, 100000U}) {
        const std::string message = std::string(length - 1, 'x') + "!";
        const auto lines = console_lines([&] { clog_printf(2, "a.cpp", 1, "%s\n", message.c_str()); });
        ASSERT_EQ(lines.size(), 1U) << length;
        EXPECT_TRUE(ends_with(lines[0], " " + message)) << length;
    }
}

TEST_F(VelClog, MessageIsNoFormatForTheOutput)
{
    const auto lines = console_lines([] { clog_printf(2, "a.cpp", 1, "%s", "{} {0} %v %% {"); });
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_TRUE(ends_with(lines[0], "a.cpp:1 {} {0} %v %% {")) << lines[0];
}

TEST_F(VelClog, NullFileAndNullFormatAreHarmless)
{
    const char* const null_format = nullptr;
    const auto lines = console_lines([&] {
        clog_printf(2, nullptr, 5, "text");
        clog_printf(2, "a.cpp", 6, null_format);
    });
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_TRUE(ends_with(lines[0], " text")) << lines[0];
}

TEST_F(VelClog, FileOnlyLeavesTheConsoleEmpty)
{
    const TemporaryFolder folder;
    const std::string path = folder.file("a.log");
    const auto lines = console_lines([&] {
        clogger("velstream", path.c_str(), kFile);
        clog_printf(2, "a.cpp", 1, "to the file");
    });
    EXPECT_TRUE(lines.empty());
    // Read without closing it: each line was flushed.
    const auto written = lines_of(path);
    ASSERT_EQ(written.size(), 1U);
    EXPECT_TRUE(ends_with(written[0], "a.cpp:1 [velstream] to the file")) << written[0];
}

TEST_F(VelClog, BothOutputsGetEachLine)
{
    const TemporaryFolder folder;
    const std::string path = folder.file("new-folder/a.log");
    const auto lines = console_lines([&] {
        clogger("velstream", path.c_str(), kConsole | kFile);
        clog_printf(2, "a.cpp", 1, "twice");
    });
    EXPECT_EQ(count_containing(lines, "twice"), 1U);
    EXPECT_EQ(lines_of(path), lines);
}

TEST_F(VelClog, FileIsAppendedTo)
{
    const TemporaryFolder folder;
    const std::string path = folder.file("a.log");
    std::ofstream(path) << "kept\n";
    clogger("velstream", path.c_str(), kFile);
    clog_printf(2, "a.cpp", 1, "added");
    clogger("velstream", path.c_str(), kFile);
    clog_printf(2, "a.cpp", 2, "added again");
    const auto written = lines_of(path);
    ASSERT_EQ(written.size(), 3U);
    EXPECT_EQ(written[0], "kept");
    EXPECT_TRUE(ends_with(written[2], "added again"));
}

TEST_F(VelClog, NoOutputWritesNothing)
{
    EXPECT_TRUE(console_lines([] {
                    clogger("velstream", nullptr, 0);
                    clog_printf(2, "a.cpp", 1, "nowhere");
                }).empty());
}

TEST_F(VelClog, FileThatCannotBeOpenedIsReportedOnceAndTheConsoleStays)
{
    const TemporaryFolder folder;
    std::ofstream(folder.file("plain")) << "a file, no folder";
    const std::string path = folder.file("plain/a.log");
    const auto lines = console_lines([&] {
        for (int i = 0; i < 3; ++i) {
            clogger("velstream", path.c_str(), kFile);
            clog_printf(2, "a.cpp", i, "still here");
        }
    });
    EXPECT_EQ(count_containing(lines, "Log file cannot be opened"), 1U);
    EXPECT_EQ(count_containing(lines, path), 1U);
    EXPECT_EQ(count_containing(lines, "still here"), 3U);
    EXPECT_EQ(lines.size(), 4U);
}

TEST_F(VelClog, AnotherFileThatCannotBeOpenedIsReportedToo)
{
    const TemporaryFolder folder;
    std::ofstream(folder.file("plain")) << "a file, no folder";
    const auto lines = console_lines([&] {
        clogger("velstream", folder.file("plain/a.log").c_str(), kConsole | kFile);
        clogger("velstream", folder.file("plain/b.log").c_str(), kConsole | kFile);
        clogger("velstream", nullptr, kFile);
    });
    EXPECT_EQ(count_containing(lines, "Log file cannot be opened"), 3U);
}

TEST_F(VelClog, OutputsChangeWhileOthersLogAndNoLineIsLostOrTorn)
{
    const TemporaryFolder folder;
    const std::array<std::string, 2> paths{folder.file("a.log"), folder.file("b.log")};
    clogger("velstream", paths[0].c_str(), kFile);
    constexpr int kThreads = 4;
    constexpr int kLines = 500;
    std::atomic<int> at_work{kThreads};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([thread, &at_work] {
            for (int i = 0; i < kLines; ++i)
                clog_printf(1, "a.cpp", i, "thread %d line %d.", thread, i);
            --at_work;
        });
    }
    for (std::size_t turn = 0; at_work > 0; ++turn) {
        clogger("velstream", paths[turn % 2].c_str(), kFile);
        clog_set_log_level("velstream", static_cast<int>(turn % 2));
    }
    for (std::thread& thread : threads)
        thread.join();

    std::vector<std::string> messages;
    for (const std::string& path : paths) {
        for (const std::string& line : lines_of(path))
            messages.push_back(line.substr(line.find("thread ")));
    }
    std::vector<std::string> expected;
    for (int thread = 0; thread < kThreads; ++thread) {
        for (int i = 0; i < kLines; ++i)
            expected.push_back("thread " + std::to_string(thread) + " line " + std::to_string(i) + ".");
    }
    std::sort(messages.begin(), messages.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(messages, expected);
}

TEST_F(VelClog, ExportsTheInterfaceAndNothingElse)
{
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(
        popen(NM_TOOL " --dynamic --defined-only --demangle " VELCLOG_LIBRARY, "r"), &pclose);
    ASSERT_TRUE(pipe);
    std::vector<std::string> names;
    std::array<char, 1024> line{};
    while (std::fgets(line.data(), line.size(), pipe.get())) {
        const std::string text(line.data());
        const std::string symbol = text.substr(text.find(' ') + 3);
        names.push_back(symbol.substr(0, symbol.find('(')));
    }
    EXPECT_EQ(names, (std::vector<std::string>{"Quorvis::VelClog::clog_printf", "Quorvis::VelClog::clog_set_log_level",
                                               "Quorvis::VelClog::clogger"}));
}
