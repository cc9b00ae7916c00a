#include "record_command.h"

#include "StreamRollingSave.h"
#include "configuration.h"
#include "elements.h"
#include "findings.h"
#include "library_settings.h"
#include "progress_line.h"
#include "results.h"
#include "rolling_folder.h"
#include "run_command.h"
#include "signal_watch.h"
#include "stream_errors.h"
#include "stream_kind.h"
#include "velstream.h"

#include <json/json.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

namespace velstream::tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kLookInterval{1}; // each look reads the whole folder
constexpr std::chrono::seconds kStopInterval{1}; // a recording that was just starting hears the next stop
constexpr double kSilence = 8.0;                 // seconds without a byte that are worth a word
constexpr std::chrono::seconds kFirstPause{1};
constexpr std::chrono::seconds kLongestPause{30};

double seconds_since(Clock::time_point time)
{
    return std::chrono::duration<double>(Clock::now() - time).count();
}

/// The call that records, on a thread of its own.
class RecordingCall {
public:
    RecordingCall(const std::string& id, Waker& waker)
        : thread_([this, id, &waker] {
              result_ = Quorvis::VelStream::start_rolling_save(id);
              is_ended_ = true;
              waker.wake();
          })
    {
    }
    ~RecordingCall() { thread_.join(); }
    RecordingCall(const RecordingCall&) = delete;
    RecordingCall& operator=(const RecordingCall&) = delete;
    bool is_ended() const { return is_ended_; }
    int result() const { return result_; } ///< once it has ended

private:
    std::atomic<bool> is_ended_{false};
    std::atomic<int> result_{-1};
    std::thread thread_;
};

/// What a recording has written so far.
class RecordingStatus {
public:
    void look(const RollingFolder& folder)
    {
        if (Clock::now() < next_look_) return;
        next_look_ = Clock::now() + kLookInterval;
        const SegmentCount segments = folder.segments();
        if (segments.bytes != segments_.bytes) last_change_ = Clock::now();
        segments_ = segments;
    }
    double silence() const { return seconds_since(last_change_); } ///< seconds without a byte
    std::string describe(const std::string& id) const
    {
        char text[96];
        std::snprintf(text, sizeof text, ": %zu segments, %.1f MB, %.0f s", segments_.files,
                      static_cast<double>(segments_.bytes) / 1e6, seconds_since(start_));
        std::string line = id + text;
        if (silence() > kSilence) {
            std::snprintf(text, sizeof text, ", nothing written for %.0f s", silence());
            line += text;
        }
        return line;
    }

private:
    Clock::time_point start_ = Clock::now();
    Clock::time_point last_change_ = start_;
    Clock::time_point next_look_ = start_;
    SegmentCount segments_;
};

/// A recording, or one after the other.
class Recorder {
public:
    Recorder(const RecordOptions& options, Waker& waker, const SignalWatch& signals)
        : options_(options), folder_(options.id), waker_(waker), signals_(signals)
    {
    }

    void run()
    {
        do {
            if (!prepare_folder()) continue;
            forget_stream_errors();
            record();
        } while (options_.is_restarting && result_ == 0 && !is_stopped_ && pause());
    }
    int print(FILE* results) const;

private:
    bool prepare_folder() const;
    void record();
    bool pause();
    bool is_stop_due() const
    {
        return signals_.is_asked() || (options_.duration > 0 && seconds_since(start_) >= options_.duration);
    }

    const RecordOptions& options_;
    RollingFolder folder_;
    Waker& waker_;
    const SignalWatch& signals_;
    Clock::time_point start_ = Clock::now();
    std::chrono::seconds next_pause_ = kFirstPause;
    int recordings_ = 0;
    int result_ = -1;
    bool is_stopped_ = false;
    bool has_recorded_ = false;
};

/// The library deletes what an earlier recording has left. @return false when a later attempt may do better: a disk
/// that is full has no room for a further folder
bool Recorder::prepare_folder() const
{
    if (!options_.is_restarting) {
        if (const std::size_t files = folder_.segments().files; files > 0)
            std::fprintf(stderr,
                         "velstream: the %zu segments of an earlier recording are deleted; --restart keeps them.\n",
                         files);
        return true;
    }
    try {
        folder_.move_aside();
        return true;
    } catch (const UserError& error) {
        if (recordings_ == 0) throw;
        std::fprintf(stderr, "velstream: %s\n", error.what());
        return false;
    }
}

void Recorder::record()
{
    RecordingStatus status;
    ProgressLine progress(kLookInterval);
    auto next_stop = Clock::now();
    bool is_stalled = false;
    RecordingCall call(options_.id, waker_);
    ++recordings_;
    while (!call.is_ended()) {
        status.look(folder_);
        if (!is_stalled && options_.is_restarting && status.silence() > options_.stall_timeout) {
            progress.finish();
            std::fprintf(stderr, "velstream: nothing of %s was written for %g s.\n", options_.id.c_str(),
                         options_.stall_timeout);
            is_stalled = true;
        }
        if (Clock::now() >= next_stop && (is_stalled || is_stop_due())) {
            is_stopped_ = is_stop_due();
            Quorvis::VelStream::gstreamer_pipeline_shutdown("all_stream");
            next_stop = Clock::now() + kStopInterval;
            continue;
        }
        if (progress.is_due()) progress.show(status.describe(options_.id));
        waker_.wait_for(ProgressLine::kInterval);
    }
    progress.finish();
    result_ = call.result();
    if (folder_.segments().files > 0) {
        has_recorded_ = true;
        next_pause_ = kFirstPause;
    }
}

/// @return false when it was stopped meanwhile.
bool Recorder::pause()
{
    const std::string error = last_stream_error();
    std::fprintf(stderr, "velstream: the recording of %s has ended%s%s; again in %lld s.\n", options_.id.c_str(),
                 error.empty() ? "" : ": ", error.c_str(), static_cast<long long>(next_pause_.count()));
    const auto end = Clock::now() + next_pause_;
    next_pause_ = std::min(2 * next_pause_, kLongestPause);
    while (Clock::now() < end && !is_stop_due())
        waker_.wait_for(ProgressLine::kInterval);
    is_stopped_ = is_stop_due();
    return !is_stopped_;
}

/// @return the exit status
int Recorder::print(FILE* results) const
{
    const SegmentCount segments = folder_.segments();
    const SegmentCount aside = folder_.set_aside();
    if (options_.is_json) {
        Json::Value value;
        value["stream"] = options_.id;
        value["folder"] = folder_.path().string();
        value["segments"] = static_cast<Json::UInt64>(segments.files);
        value["bytes"] = static_cast<Json::UInt64>(segments.bytes);
        value["set_aside"] = static_cast<Json::UInt64>(aside.files);
        value["recordings"] = recordings_;
        value["seconds"] = seconds_since(start_);
        value["stopped"] = is_stopped_;
        value["result"] = result_;
        Json::StreamWriterBuilder writer;
        writer["indentation"] = "";
        writer["precision"] = 6;
        std::fprintf(results, "%s\n", Json::writeString(writer, value).c_str());
    } else {
        std::fprintf(results, "%s: %zu segments, %.1f MB in %s, %zu set aside, %.1f s, %s\n", options_.id.c_str(),
                     segments.files, static_cast<double>(segments.bytes) / 1e6, folder_.path().c_str(), aside.files,
                     seconds_since(start_), is_stopped_ ? "stopped" : "ended");
    }
    std::fflush(results);
    const std::string error = last_stream_error();
    const char* cause = error.empty() ? "" : error.c_str();
    if (!has_recorded_) {
        std::fprintf(stderr, "velstream: nothing of stream %s was recorded%s%s.\n", options_.id.c_str(),
                     *cause ? ": " : "", cause);
        return 1;
    }
    if (!is_stopped_ && *cause) {
        std::fprintf(stderr, "velstream: the recording of %s has ended: %s.\n", options_.id.c_str(), cause);
        return 1;
    }
    return 0;
}

/// The entry as a recording's, whatever else it asks for. @throws UserError when it cannot be recorded
StreamEntry recorded_stream(const RecordOptions& options)
{
    StreamEntry stream = find_stream(read_streams(options.config), options.id, options.config);
    if (stream.text("inputType") != "rtsp" && stream.text("inputType") != "file")
        throw UserError("Stream " + options.id + " is no RTSP camera; \"velstream list\" shows what it is.");
    for (const char* key : {"audio", "saveMp4", "networkPush"})
        stream.properties.removeMember(key);
    stream.properties["rollingsave"] = true;
    refuse_errors(check_stream(stream, build_platform()));
    return stream;
}

} // namespace

int record_stream(const RecordOptions& options)
{
    const StreamEntry stream = recorded_stream(options);
    FILE* results = take_standard_output();
    // Lives as long as the process: the thread that waits for signals is never joined.
    static Waker waker;
    static const SignalWatch signals(waker);
    set_configuration(options.config);
    apply_log_level(options.log_level);
    choose_elements(options.elements);
    refuse_missing_elements({stream});
    watch_stream_errors();
    Recorder recorder(options, waker, signals);
    recorder.run();
    return recorder.print(results);
}

} // namespace velstream::tool
