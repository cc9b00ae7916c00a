#include "recording_log.h"

#include "velclog.h"

#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace RecordingLog {

namespace {

struct Record {
    std::mutex mutex; // guards all below
    std::condition_variable grown;
    std::vector<Line> lines;
    std::vector<LevelCall> levels;
    std::vector<OutputCall> outputs;
};

// Never destroyed: streaming threads may log while the process leaves main().
Record& record()
{
    static auto* kept = new Record;
    return *kept;
}

/// A null text counts as an empty one.
std::string text_of(const char* text)
{
    return text ? text : "";
}

void keep(Line line)
{
    static const bool is_echoed = !text_of(std::getenv("VELSTREAM_TEST_LOG")).empty();
    if (is_echoed) std::fprintf(stderr, "%d %s:%d %s\n", line.level, line.file.c_str(), line.line, line.text.c_str());
    const std::lock_guard lock(record().mutex);
    record().lines.push_back(std::move(line));
    record().grown.notify_all();
}

} // namespace

std::vector<Line> lines()
{
    const std::lock_guard lock(record().mutex);
    return record().lines;
}

std::vector<std::string> texts(int min_level)
{
    std::vector<std::string> found;
    for (Line& line : lines()) {
        if (line.level >= min_level) found.push_back(std::move(line.text));
    }
    return found;
}

std::size_t count(const std::string& text)
{
    std::size_t found = 0;
    for (const Line& line : lines())
        found += line.text == text ? 1 : 0;
    return found;
}

bool wait_for(const std::string& text, std::chrono::milliseconds bound)
{
    std::unique_lock lock(record().mutex);
    return record().grown.wait_for(lock, bound, [&text] {
        for (const Line& line : record().lines) {
            if (line.text.find(text) != std::string::npos) return true;
        }
        return false;
    });
}

void clear()
{
    const std::lock_guard lock(record().mutex);
    record().lines.clear();
}

std::vector<LevelCall> level_calls()
{
    const std::lock_guard lock(record().mutex);
    return record().levels;
}

std::vector<OutputCall> output_calls()
{
    const std::lock_guard lock(record().mutex);
    return record().outputs;
}

} // namespace RecordingLog

namespace Quorvis::VelClog {

void clog_printf(int level, const char* file, int line, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    std::string text(static_cast<std::size_t>(length > 0 ? length : 0) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), format, again);
    va_end(again);
    text.pop_back();
    RecordingLog::keep({level, RecordingLog::text_of(file), line, std::move(text)});
}

void clog_set_log_level(const char* tag, int level)
{
    const std::lock_guard lock(RecordingLog::record().mutex);
    RecordingLog::record().levels.push_back({RecordingLog::text_of(tag), level});
}

void clogger(const char* tag, const char* path, int output)
{
    const std::lock_guard lock(RecordingLog::record().mutex);
    RecordingLog::record().outputs.push_back({RecordingLog::text_of(tag), RecordingLog::text_of(path), output});
}

} // namespace Quorvis::VelClog
