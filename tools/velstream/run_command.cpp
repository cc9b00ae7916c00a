#include "run_command.h"

#include "configuration.h"
#include "elements.h"
#include "findings.h"
#include "library_settings.h"
#include "progress.h"
#include "progress_line.h"
#include "results.h"
#include "signal_watch.h"
#include "stream_errors.h"
#include "stream_kind.h"
#include "stream_session.h"
#include "velstream.h"

#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <set>

namespace velstream::tool {

namespace {

using Clock = std::chrono::steady_clock;

/// A stream that was just starting when a stop was asked for hears the next one.
constexpr std::chrono::seconds kStopInterval{1};

bool all_ended(const Sessions& sessions)
{
    return std::all_of(sessions.begin(), sessions.end(), [](const auto& s) { return s->is_ended(); });
}

bool all_satisfied(const Sessions& sessions)
{
    return std::all_of(sessions.begin(), sessions.end(),
                       [](const auto& s) { return s->is_ended() || s->is_satisfied(); });
}

/// Ctrl+C, the duration and the number of frames: what ends the streams before they end by themselves.
bool is_stop_due(const Sessions& sessions, const RunOptions& options, const SignalWatch& signals,
                 Clock::time_point start)
{
    const std::chrono::duration<double> elapsed = Clock::now() - start;
    return signals.is_asked() || (options.duration > 0 && elapsed.count() >= options.duration) ||
           (options.frames > 0 && all_satisfied(sessions));
}

/// Stops what is still running. A stop of an ended stream is harmless, so it may come again.
void stop_all(const Sessions& sessions)
{
    for (const auto& session : sessions)
        session->mark_stopped();
    Quorvis::VelStream::gstreamer_pipeline_shutdown("all_stream");
}

void wait_for_end(const Sessions& sessions, const RunOptions& options, const SignalWatch& signals, Waker& waker)
{
    const auto start = Clock::now();
    auto next_stop = start;
    ProgressLine progress;
    while (!all_ended(sessions)) {
        if (Clock::now() >= next_stop && is_stop_due(sessions, options, signals, start)) {
            stop_all(sessions);
            next_stop = Clock::now() + kStopInterval;
            continue;
        }
        if (progress.is_due()) progress.show(describe(sessions));
        waker.wait_for(ProgressLine::kInterval);
    }
    progress.finish();
}

/// Some platforms report an end of stream that was asked for as -1.
bool is_stop_reported_as_failure(const StreamSession& session)
{
    return session.result() != 0 && (session.is_stopped() || session.is_satisfied());
}

/// A stream that delivered frames until the tool stopped it, or as many as were asked for, has done its work, whatever
/// its runner returned. A recording has no frames to deliver.
bool ended_well(const StreamSession& session)
{
    if (!session.exception().empty()) return false;
    if (session.is_stopped()) return session.frames() > 0 || !session.has_callback();
    if (session.silent_pipeline() && !stream_error(*session.silent_pipeline()).empty()) return false;
    return session.result() == 0 || session.is_satisfied();
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
    value["stopped"] = session.is_stopped();
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
    const char* end = session.is_stopped() ? "stopped" : "ended";
    std::fprintf(results, "%s, %.1f s, %s, result %d%s\n", describe(session).c_str(), session.seconds(), end,
                 session.result(), is_stop_reported_as_failure(session) ? " (its platform's word for a stop)" : "");
}

/// What an element reported, or where to look when none did: the pipeline may not even have been built.
std::string cause_of_failure(const StreamSession& session, const std::string& log_level)
{
    const std::string error = stream_error(session.silent_pipeline().value_or(session.id()));
    if (!error.empty()) return ": " + error;
    return log_level == "none" ? "; --log-level error shows the cause" : "; the log lines above name the cause";
}

void explain_failure(const StreamSession& session, const std::string& log_level)
{
    const char* id = session.id().c_str();
    if (!session.exception().empty()) {
        std::fprintf(stderr, "velstream: stream %s cannot be read from the configuration: %s\n", id,
                     session.exception().c_str());
        return;
    }
    if (session.is_stopped()) {
        std::fprintf(stderr, "velstream: stream %s was stopped before its first frame.\n", id);
        return;
    }
    const std::string cause = cause_of_failure(session, log_level);
    if (session.frames() == 0)
        std::fprintf(stderr, "velstream: stream %s failed before its first frame%s.\n", id, cause.c_str());
    else
        std::fprintf(stderr, "velstream: stream %s ended with a failure after %llu frames%s.\n", id,
                     static_cast<unsigned long long>(session.frames()), cause.c_str());
}

/// An end that counts as a good one may have a cause that is none: a camera that is switched off, a file that is cut
/// short.
void explain_end(const StreamSession& session)
{
    const std::string report = stream_error(session.id());
    if (session.is_stopped() || session.is_satisfied() || report.empty()) return;
    std::fprintf(stderr, "velstream: stream %s ended by itself after %llu frames, and the last report was: %s.\n",
                 session.id().c_str(), static_cast<unsigned long long>(session.frames()), report.c_str());
}

/// What the run needs to know of each id. @throws UserError for one that cannot be started
std::vector<StreamEntry> startable_streams(const RunOptions& options)
{
    const std::vector<StreamEntry> streams = read_streams(options.config);
    std::set<std::string> seen;
    std::vector<StreamEntry> chosen;
    for (const std::string& id : options.ids) {
        if (!seen.insert(id).second) throw UserError("Stream " + id + " is named twice.");
        const StreamEntry& stream = find_stream(streams, id, options.config);
        refuse_errors(check_stream(stream, build_platform()));
        if (kind_of(stream) == StreamKind::Splice)
            throw UserError("Stream " + id + " decodes what an application pushes: \"velstream splice\" serves it.");
        chosen.push_back(stream);
    }
    return chosen;
}

std::unique_ptr<StreamSession> make_session(const StreamEntry& stream, const RunOptions& options, Waker& waker)
{
    const StreamKind kind = kind_of(stream);
    auto session = std::make_unique<StreamSession>(stream.id, kind != StreamKind::Rolling, options.frames,
                                                   options.snapshot_folder, waker);
    // Both runners end with 0 whatever ended them.
    if (options.is_split) session->set_silent_pipeline(stream.parent);
    if (kind == StreamKind::AudioRelay) session->set_silent_pipeline(stream.id);
    const bool owns_frame = kind == StreamKind::SaveMp4 || kind == StreamKind::NetworkPush;
    if (options.drawing.has_time || !options.drawing.picture.empty())
        session->set_drawing(std::make_unique<Drawing>(options.drawing, owns_frame));
    return session;
}

} // namespace

void refuse_missing_elements(const std::vector<StreamEntry>& streams, bool is_split)
{
    for (const StreamEntry& stream : streams) {
        const std::vector<std::string> needed =
            is_split ? needed_split_elements(stream, build_platform()) : needed_elements(stream, build_platform());
        for (const std::string& name : missing_elements(needed))
            throw UserError("Stream " + stream.id + " needs the element " + name + ", which is missing" +
                            package_hint(name) + ".");
    }
}

int run_streams(const RunOptions& options)
{
    const std::vector<StreamEntry> streams = startable_streams(options);
    if (options.is_split) refuse_unlike_pair(streams.at(0), streams.at(1));
    if (!options.snapshot_folder.empty()) prepare_snapshot_folder(options.snapshot_folder);
    if (!options.drawing.picture.empty()) read_overlay(options.drawing.picture); // before anything is started

    FILE* results = take_standard_output();
    // Lives as long as the process: the thread that waits for signals is never joined.
    static Waker waker;
    static const SignalWatch signals(waker);
    set_configuration(options.config);
    apply_log_level(options.log_level);
    choose_elements(options.elements);
    refuse_missing_elements(streams, options.is_split);
    watch_stream_errors();

    Sessions sessions;
    for (const StreamEntry& stream : streams)
        sessions.push_back(make_session(stream, options, waker));
    if (options.is_split)
        StreamSession::start_split(*sessions.at(0), *sessions.at(1));
    else
        std::for_each(sessions.begin(), sessions.end(), [](const auto& session) { session->start(); });
    wait_for_end(sessions, options, signals, waker);

    int status = 0;
    for (const auto& session : sessions) {
        session->join();
        if (options.is_json)
            print_json(results, *session);
        else
            print_result(results, *session);
        if (ended_well(*session)) {
            explain_end(*session);
        } else {
            explain_failure(*session, options.log_level);
            status = 1;
        }
    }
    std::fflush(results);
    return status;
}

} // namespace velstream::tool
