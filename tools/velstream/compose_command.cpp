#include "compose_command.h"

#include "elements.h"
#include "layout.h"
#include "library_settings.h"
#include "progress_line.h"
#include "results.h"
#include "signal_watch.h"
#include "stream_errors.h"
#include "velstream.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>

namespace velstream::tool {

namespace {

using namespace Quorvis::VelStream;
using Clock = std::chrono::steady_clock;

/// A composition that ends by itself has seen the end of its cameras, and waits so long before it ends. One that ends
/// sooner was not launched.
constexpr double kShortestRun = 4.5;           // seconds
constexpr const char* kPipeline = "pipeline0"; // as GStreamer names a process's first one

long long size_of(const std::string& path)
{
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    return error ? 0 : static_cast<long long>(size);
}

/// An engine's start on a thread of its own.
class ComposeSession {
public:
    ComposeSession(const Layout& layout, Waker& waker)
        : layout_(layout), engine_(static_cast<ScenarioType>(layout.scenario)), waker_(waker)
    {
        for (Task task : layout_.inputs)
            engine_.add_task(TASK_ADD_INPUT, task);
        for (Task task : layout_.outputs)
            engine_.add_task(TASK_ADD_OUTPUT, task);
        Task model = layout_.model;
        if (!model.empty()) engine_.add_task(TASK_SET_MODEL, model);
    }
    void start()
    {
        start_ = Clock::now();
        thread_ = std::thread([this] {
            engine_.start();
            seconds_ = elapsed();
            is_ended_ = true;
            waker_.wake();
        });
    }
    void stop()
    {
        is_stopped_ = true;
        engine_.stop();
    }
    void join() { thread_.join(); }

    bool is_ended() const { return is_ended_; }
    bool is_stopped() const { return is_stopped_; }
    double elapsed() const { return std::chrono::duration<double>(Clock::now() - start_).count(); }
    double seconds() const { return seconds_; }
    std::string file() const { return layout_.writes_file() ? layout_.file() : ""; }
    std::string push() const { return layout_.pushes() ? layout_.push() : ""; }
    long long bytes() const { return file().empty() ? 0 : size_of(file()); }

private:
    const Layout& layout_;
    VelStreamEngine engine_;
    Waker& waker_;
    std::thread thread_;
    Clock::time_point start_;
    std::atomic<double> seconds_{0};
    std::atomic<bool> is_ended_{false};
    bool is_stopped_ = false;
};

std::string describe(const ComposeSession& session, double seconds)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.1f s", seconds);
    std::string line = text;
    if (!session.file().empty()) {
        std::snprintf(text, sizeof text, ", %.1f MB in ", static_cast<double>(session.bytes()) / 1e6);
        line += session.bytes() > 0 ? text + session.file() : ", nothing recorded yet";
    }
    if (!session.push().empty()) line += ", pushed to " + session.push();
    return line;
}

void print_findings(const Findings& findings, const Configuration& file)
{
    for (const Finding& finding : findings)
        std::fprintf(stderr, "%s:%d: %s: %s %s\n", file.path.c_str(), line_of(file, finding.path),
                     finding.is_error ? "error" : "warning", finding.path.c_str(), finding.text.c_str());
}

bool has_errors(const Findings& findings)
{
    return std::any_of(findings.begin(), findings.end(), [](const Finding& finding) { return finding.is_error; });
}

void run(ComposeSession& session, const ComposeOptions& options, const SignalWatch& signals, Waker& waker)
{
    ProgressLine progress;
    session.start();
    while (!session.is_ended()) {
        // One that was just starting when it was stopped hears the next stop.
        if (signals.is_asked() || (options.duration > 0 && session.elapsed() >= options.duration)) session.stop();
        if (progress.is_due()) progress.show(describe(session, session.elapsed()));
        waker.wait_for(ProgressLine::kInterval);
    }
    progress.finish();
    session.join();
}

/// Why a run failed; empty when it did not.
std::string failure_of(const ComposeSession& session)
{
    if (session.is_stopped())
        return session.file().empty() || session.bytes() > 0 ? "" : "it was stopped before its first picture";
    const std::string error = stream_error(kPipeline);
    if (!error.empty()) return error;
    return session.seconds() < kShortestRun ? "it was not launched; the log lines above name the cause" : "";
}

void print_json(FILE* results, const Layout& layout, const ComposeSession& session, const std::string& failure)
{
    Json::Value value;
    value["scenario"] = layout.scenario;
    value["file"] = session.file();
    value["bytes"] = static_cast<Json::Int64>(session.bytes());
    value["push"] = session.push();
    value["seconds"] = session.seconds();
    value["stopped"] = session.is_stopped();
    value["failure"] = failure;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["precision"] = 6;
    std::fprintf(results, "%s\n", Json::writeString(writer, value).c_str());
}

void refuse_missing(const Layout& layout)
{
    for (const std::string& name : missing_elements(layout_elements(layout)))
        throw UserError("The composition needs the element " + name + ", which is missing" + package_hint(name) + ".");
}

} // namespace

int compose(const ComposeOptions& options)
{
    const Configuration file = read_configuration(options.layout);
    const Findings findings = check_layout(file.root);
    print_findings(findings, file);
    if (has_errors(findings)) return 2;
    const Layout layout = read_layout(file.root);

    FILE* results = take_standard_output();
    static Waker waker;
    static const SignalWatch signals(waker);
    apply_log_level(options.log_level);
    choose_elements(options.elements);
    refuse_missing(layout);
    if (options.is_check) {
        std::fprintf(results, "%s: scenario %d, %zu cameras\n", options.layout.c_str(), layout.scenario,
                     layout.inputs.size());
        std::fflush(results);
        return 0;
    }
    watch_stream_errors();

    ComposeSession session(layout, waker);
    if (layout.writes_file() && !layout.file().empty()) std::filesystem::remove(layout.file());
    run(session, options, signals, waker);
    const std::string failure = failure_of(session);
    if (options.is_json)
        print_json(results, layout, session, failure);
    else
        std::fprintf(results, "%s, %s\n", describe(session, session.seconds()).c_str(),
                     session.is_stopped() ? "stopped" : "ended");
    std::fflush(results);
    if (!failure.empty()) std::fprintf(stderr, "velstream: the composition failed: %s.\n", failure.c_str());
    return failure.empty() ? 0 : 1;
}

} // namespace velstream::tool
