#include "velclog.h"

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Quorvis::VelClog {

namespace {

constexpr int kConsole = 1;
constexpr int kFile = 2;
constexpr int kDefaultLevel = 1;

std::atomic<int> g_level{kDefaultLevel};

/// Where lines go. Built once, never destroyed: a streaming thread may still log while the process leaves main().
class Outputs {
public:
    static Outputs& instance()
    {
        static auto* outputs = new Outputs;
        return *outputs;
    }

    void write(int level, const char* file, int line, const std::string& message)
    {
        const std::lock_guard lock(mutex_);
        const spdlog::source_loc source{file ? file : "", line, ""};
        logger_->log(source, spdlog_level(level), "{}{}", prefix_, message);
    }

    void set_tag(const char* tag)
    {
        const std::lock_guard lock(mutex_);
        keep_tag(tag);
    }

    void configure(const char* tag, const char* path, int output)
    {
        const std::lock_guard lock(mutex_);
        keep_tag(tag);
        std::vector<spdlog::sink_ptr> sinks;
        if (output & kConsole) sinks.push_back(console_);
        std::string failure;
        if (output & kFile) {
            if (spdlog::sink_ptr file_sink = open_file(path ? path : "", failure))
                sinks.push_back(file_sink);
            else if (sinks.empty())
                sinks.push_back(console_); // lines must go somewhere
        }
        set_sinks(std::move(sinks));
        report(failure);
    }

private:
    Outputs() : console_(std::make_shared<spdlog::sinks::stderr_sink_st>()) { set_sinks({console_}); }

    static spdlog::level::level_enum spdlog_level(int level)
    {
        if (level <= 0) return spdlog::level::info;
        return level == 1 ? spdlog::level::warn : spdlog::level::err;
    }

    static spdlog::sink_ptr open_file(const std::string& path, std::string& failure)
    {
        try {
            return std::make_shared<spdlog::sinks::basic_file_sink_st>(path);
        } catch (const spdlog::spdlog_ex& error) {
            failure = error.what();
            return nullptr;
        }
    }

    void set_sinks(std::vector<spdlog::sink_ptr> sinks)
    {
        logger_ = std::make_unique<spdlog::logger>("velclog", sinks.begin(), sinks.end());
        logger_->set_level(spdlog::level::trace); // the threshold is this library's own
        logger_->set_pattern("%Y-%m-%d %H:%M:%S.%e %L %t %g:%# %v");
        logger_->flush_on(spdlog::level::trace);
    }

    void keep_tag(const char* tag) { prefix_ = tag && *tag ? "[" + std::string(tag) + "] " : ""; }

    /// Says what is wrong with a log file, once for the same trouble.
    void report(const std::string& failure)
    {
        if (!failure.empty() && failure != reported_)
            logger_->log(spdlog::source_loc{__FILE__, __LINE__, ""}, spdlog::level::err,
                         "{}Log file cannot be opened, lines go to the console: {}", prefix_, failure);
        reported_ = failure;
    }

    std::mutex mutex_; // guards all below
    std::string prefix_;
    std::string reported_;
    spdlog::sink_ptr console_;
    std::unique_ptr<spdlog::logger> logger_;
};

/// Text of a printf format without its trailing newline; the output ends lines itself.
std::string format_message(const char* format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    char buffer[512];
    const int length = std::vsnprintf(buffer, sizeof buffer, format, arguments);
    std::string message;
    if (length < 0) {
        message = format; // an argument that cannot be written: the bare format says at least which line it was
    } else if (static_cast<std::size_t>(length) < sizeof buffer) {
        message.assign(buffer, static_cast<std::size_t>(length));
    } else {
        message.resize(static_cast<std::size_t>(length) + 1);
        std::vsnprintf(message.data(), message.size(), format, again);
        message.pop_back();
    }
    va_end(again);
    if (!message.empty() && message.back() == '\n') message.pop_back();
    return message;
}

} // namespace

void clog_printf(int level, const char* file, int line, const char* format, ...)
{
    if (std::clamp(level, 0, 2) < g_level.load(std::memory_order_relaxed) || !format) return;
    va_list arguments;
    va_start(arguments, format);
    const std::string message = format_message(format, arguments);
    va_end(arguments);
    Outputs::instance().write(level, file, line, message);
}

void clog_set_log_level(const char* tag, int level)
{
    g_level.store(level, std::memory_order_relaxed);
    Outputs::instance().set_tag(tag);
}

void clogger(const char* tag, const char* path, int output)
{
    Outputs::instance().configure(tag, path, output);
}

} // namespace Quorvis::VelClog
