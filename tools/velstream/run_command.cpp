#include "run_command.h"

#include "configuration.h"
#include "elements.h"
#include "stream_session.h"
#include "velstream.h"

#include <json/json.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <map>
#include <memory>

#include <pthread.h>
#include <unistd.h>

namespace velstream::tool {

namespace {

using Sessions = std::vector<std::unique_ptr<StreamSession>>;

constexpr double kSilence = 3.0; // seconds without a frame that are worth a word
constexpr std::chrono::milliseconds kLiveInterval{200};
constexpr std::chrono::milliseconds kPlainInterval{5000};

/// The text outlives every call: the library keeps the pointer.
void set_configuration(const std::string& path)
{
    static std::string kept;
    kept = path;
    Quorvis::VelStream::g_stream_conf_file = kept.c_str();
    Quorvis::VelStream::stream_conf_file = kept.c_str();
}

void apply_log_level(const std::string& name)
{
    using namespace Quorvis::VelStream;
    static const std::map<std::string, GSTLogLevel> levels{{"info", GST_LOG_LEVEL_ALL},
                                                           {"warning", GST_LOG_LEVEL_WARNING},
                                                           {"error", GST_LOG_LEVEL_ERROR},
                                                           {"none", GST_LOG_LEVEL_NONE}};
    set_log_level(levels.at(name));
}

/// Standard output is for the results: whatever a library prints goes to standard error.
FILE* take_standard_output()
{
    std::fflush(stdout);
    const int results = dup(STDOUT_FILENO);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    FILE* file = results >= 0 ? fdopen(results, "w") : nullptr;
    return file ? file : stdout;
}

/// Waits for SIGINT and SIGTERM on a thread of its own; the second one ends the process.
class SignalWatch {
public:
    explicit SignalWatch(Waker& waker) : waker_(waker)
    {
        sigemptyset(&signals_);
        sigaddset(&signals_, SIGINT);
        sigaddset(&signals_, SIGTERM);
        // Before any other thread starts, so that all of them inherit it.
        pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
        std::signal(SIGPIPE, SIG_IGN); // a server that goes away must not end the process
        std::thread([this] { watch(); }).detach();
    }
    bool is_asked() const { return is_asked_; }

private:
    void watch()
    {
        int signal = 0;
        sigwait(&signals_, &signal);
        is_asked_ = true;
        waker_.wake();
        sigwait(&signals_, &signal);
        _exit(128 + signal);
    }

    Waker& waker_;
    sigset_t signals_{};
    std::atomic<bool> is_asked_{false};
};

std::string describe(const StreamSession& session)
{
    char text[256];
    std::snprintf(text, sizeof text, "%s: %llu frames, %dx%d, %.1f frames/s", session.id().c_str(),
                  static_cast<unsigned long long>(session.frames()), session.width(), session.height(), session.rate());
    std::string line = text;
    if (!session.is_ended() && session.silent_seconds() > kSilence) {
        std::snprintf(text, sizeof text, ", no frame for %.0f s", session.silent_seconds());
        line += text;
    }
    return line;
}

/// One line that is written over on a terminal, plain lines now and then elsewhere.
class Progress {
public:
    std::chrono::milliseconds interval() const { return kLiveInterval; }

    void show(const Sessions& sessions)
    {
        const auto now = std::chrono::steady_clock::now();
        if (!is_terminal_ && now < next_) return;
        next_ = now + kPlainInterval;
        std::string line;
        for (const auto& session : sessions)
            line += (line.empty() ? "" : "  |  ") + describe(*session);
        std::fprintf(stderr, is_terminal_ ? "\r\033[K%s" : "%s\n", line.c_str());
        std::fflush(stderr);
    }

    void finish()
    {
        if (is_terminal_) std::fprintf(stderr, "\r\033[K");
    }

private:
    bool is_terminal_ = isatty(STDERR_FILENO) != 0;
    std::chrono::steady_clock::time_point next_ = std::chrono::steady_clock::now() + kPlainInterval;
};

bool all_ended(const Sessions& sessions)
{
    return std::all_of(sessions.begin(), sessions.end(), [](const auto& s) { return s->is_ended(); });
}

bool all_satisfied(const Sessions& sessions)
{
    return std::all_of(sessions.begin(), sessions.end(),
                       [](const auto& s) { return s->is_ended() || s->is_satisfied(); });
}

/// @return true when the streams were stopped, false when they ended by themselves.
bool wait_for_end(const Sessions& sessions, const RunOptions& options, const SignalWatch& signals, Waker& waker)
{
    const auto start = std::chrono::steady_clock::now();
    Progress progress;
    bool is_stopped = false;
    while (!all_ended(sessions)) {
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        const bool is_time_up = options.duration > 0 && elapsed.count() >= options.duration;
        if (!is_stopped && (signals.is_asked() || is_time_up || (options.frames > 0 && all_satisfied(sessions)))) {
            is_stopped = true;
            Quorvis::VelStream::gstreamer_pipeline_shutdown("all_stream");
            continue;
        }
        progress.show(sessions);
        waker.wait_for(progress.interval());
    }
    progress.finish();
    return is_stopped;
}

/// A stream that delivered frames until the tool stopped it has done what was asked of it, whatever its runner
/// returned.
bool ended_well(const StreamSession& session, bool is_stopped)
{
    if (!session.exception().empty()) return false;
    return session.result() == 0 || (is_stopped && session.frames() > 0);
}

Json::Value to_json(const StreamSession& session)
{
    Json::Value value;
    value["stream"] = session.id();
    value["result"] = session.result();
    value["frames"] = static_cast<Json::UInt64>(session.frames());
    value["width"] = session.width();
    value["height"] = session.height();
    value["fps"] = session.rate();
    value["seconds"] = session.seconds();
    return value;
}

void print_json(FILE* results, const StreamSession& session)
{
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["precision"] = 6;
    std::fprintf(results, "%s\n", Json::writeString(writer, to_json(session)).c_str());
}

void print_result(FILE* results, const StreamSession& session)
{
    std::fprintf(results, "%s, %.1f s, result %d\n", describe(session).c_str(), session.seconds(), session.result());
}

void explain_failure(const StreamSession& session)
{
    if (!session.exception().empty())
        std::fprintf(stderr, "velstream: stream %s cannot be read from the configuration: %s\n", session.id().c_str(),
                     session.exception().c_str());
    else if (session.frames() == 0)
        std::fprintf(stderr,
                     "velstream: stream %s failed before its first frame; the log lines above name the cause.\n",
                     session.id().c_str());
    else
        std::fprintf(stderr,
                     "velstream: stream %s ended with a failure after %llu frames; the log lines above name the "
                     "cause.\n",
                     session.id().c_str(), static_cast<unsigned long long>(session.frames()));
}

} // namespace

int run_streams(const RunOptions& options)
{
    const std::vector<StreamEntry> streams = read_streams(options.config);
    for (const std::string& id : options.ids)
        find_startable(streams, id, options.config);
    if (!options.snapshot_folder.empty()) prepare_snapshot_folder(options.snapshot_folder);

    FILE* results = take_standard_output();
    // Lives as long as the process: the thread that waits for signals is never joined.
    static Waker waker;
    static const SignalWatch signals(waker);
    set_configuration(options.config);
    apply_log_level(options.log_level);
    choose_elements(options.elements);

    Sessions sessions;
    for (const std::string& id : options.ids)
        sessions.push_back(std::make_unique<StreamSession>(id, options.frames, options.snapshot_folder, waker));
    for (const auto& session : sessions)
        session->start();
    const bool is_stopped = wait_for_end(sessions, options, signals, waker);

    int status = 0;
    for (const auto& session : sessions) {
        session->join();
        if (options.is_json)
            print_json(results, *session);
        else
            print_result(results, *session);
        if (!ended_well(*session, is_stopped)) {
            explain_failure(*session);
            status = 1;
        }
    }
    std::fflush(results);
    return status;
}

} // namespace velstream::tool
