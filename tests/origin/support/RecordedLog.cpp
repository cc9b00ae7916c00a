#include "RecordedLog.h"

#include "recording_log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

namespace velstream::testing {

namespace {

bool ends_with(const std::string& text, const std::string& end)
{
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

bool is_about_this_machine(const RecordingLog::Line& line)
{
    return ends_with(line.text, " is missing or read-only, skipped.") ||
           ends_with(line.text, " is not installed or cannot be created.");
}

std::string as_text(const RecordingLog::Line& line)
{
    static const char* const kLevels[] = {"I ", "W ", "E "};
    return (line.level >= 0 && line.level < 3 ? kLevels[line.level] : "? ") + line.text;
}

template <typename Function>
std::vector<std::string> kept_lines(Function&& part)
{
    std::vector<std::string> texts;
    for (const RecordingLog::Line& line : RecordingLog::lines()) {
        if (!is_about_this_machine(line)) texts.push_back(part(line));
    }
    return texts;
}

/// Behind a test that failed comes what the library logged in it: a failure that is rare is seen once.
class LogOfFailures : public ::testing::EmptyTestEventListener {
    void OnTestEnd(const ::testing::TestInfo& test) override
    {
        if (!test.result()->Failed()) return;
        for (const std::string& line : all_log_lines())
            std::printf("log: %s\n", line.c_str());
    }
};

[[maybe_unused]] const bool is_listening = [] {
    ::testing::UnitTest::GetInstance()->listeners().Append(new LogOfFailures);
    return true;
}();

} // namespace

std::vector<std::string> log_lines()
{
    return kept_lines(as_text);
}

std::vector<std::string> all_log_lines()
{
    std::vector<std::string> texts;
    for (const RecordingLog::Line& line : RecordingLog::lines())
        texts.push_back(as_text(line));
    return texts;
}

std::vector<std::string> log_files()
{
    return kept_lines([](const RecordingLog::Line& line) { return line.file; });
}

bool log_has(const std::string& line)
{
    return log_count(line) > 0;
}

long log_count(const std::string& line)
{
    const std::vector<std::string> lines = all_log_lines();
    return std::count(lines.begin(), lines.end(), line);
}

bool wait_for_log(const std::string& line, std::chrono::seconds bound)
{
    return RecordingLog::wait_for(line.substr(2), bound);
}

void clear_log()
{
    RecordingLog::clear();
}

std::vector<LevelCall> level_calls()
{
    std::vector<LevelCall> calls;
    for (const RecordingLog::LevelCall& call : RecordingLog::level_calls())
        calls.push_back({call.tag, call.level});
    return calls;
}

std::vector<OutputCall> output_calls()
{
    std::vector<OutputCall> calls;
    for (const RecordingLog::OutputCall& call : RecordingLog::output_calls())
        calls.push_back({call.tag, call.path, call.output});
    return calls;
}

} // namespace velstream::testing
