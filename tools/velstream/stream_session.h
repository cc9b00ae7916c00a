// One stream that the tool runs: its thread, its counters and how it ended.
#pragma once

#include "drawing.h"
#include "snapshots.h"
#include "velstream.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

namespace velstream::tool {

/// Wakes the main thread: a stream has ended, a stream has its frames, a signal came.
class Waker {
public:
    void wake();
    /// Waits for a wake or the time.
    void wait_for(std::chrono::milliseconds time);

private:
    std::mutex mutex_;
    std::condition_variable woken_;
    bool is_woken_ = false;
};

class StreamSession {
public:
    /// @param has_callback  false for a recording, which delivers no frames.
    /// @param frame_limit   frames after which is_satisfied(); 0 for none. Later frames are not counted.
    StreamSession(std::string id, bool has_callback, uint64_t frame_limit, const std::string& snapshot_folder,
                  Waker& waker);
    ~StreamSession();
    StreamSession(const StreamSession&) = delete;
    StreamSession& operator=(const StreamSession&) = delete;

    /// Before the start: what is drawn on each frame.
    void set_drawing(std::unique_ptr<Drawing> drawing) { drawing_ = std::move(drawing); }
    void start();
    /// Starts both as one split stream: one call, on the first one's thread, serves them.
    static void start_split(StreamSession& first, StreamSession& second);
    /// Before the start: this pipeline's errors are not told by the call's result, but by what its elements report.
    void set_silent_pipeline(std::string name) { silent_pipeline_ = std::move(name); }
    /// The tool is about to stop it: unless it has ended already, its end is then not its own.
    void mark_stopped();
    /// Waits for its end and its snapshots.
    void join();

    const std::string& id() const { return id_; }
    bool has_callback() const { return has_callback_; }
    bool is_ended() const { return is_ended_; }
    bool is_satisfied() const { return frame_limit_ > 0 && frames_ >= frame_limit_; }
    uint64_t frames() const { return frames_; }
    int width() const { return width_; }
    int height() const { return height_; }
    /// Seconds from the start to the end, or to now.
    double seconds() const;
    /// Seconds since the last frame, or since the start.
    double silent_seconds() const;
    /// Frames a second between the first and the last frame.
    double rate() const;

    // After join():
    /// The tool stopped it before it ended by itself.
    bool is_stopped() const { return is_stopped_; }
    int result() const { return result_; }
    /// The pipeline whose errors the result does not tell; nothing where it does.
    const std::optional<std::string>& silent_pipeline() const { return silent_pipeline_; }
    /// What start_stream raised, or nothing.
    const std::string& exception() const { return exception_; }

private:
    using Clock = std::chrono::steady_clock;
    using Callback = std::function<int8_t(const Quorvis::VelStream::Image&)>;
    void run();
    void run_split(StreamSession& second);
    Callback callback();
    void note_end(int result, const std::string& exception);
    int8_t take(const Quorvis::VelStream::Image& image);

    std::string id_;
    std::optional<std::string> silent_pipeline_;
    bool has_callback_;
    uint64_t frame_limit_;
    Waker& waker_;
    std::unique_ptr<Drawing> drawing_;   // frames come from the streaming thread alone
    std::optional<Snapshots> snapshots_; // likewise
    std::thread thread_;
    Clock::time_point start_;
    // Written by the stream's threads, read by the main thread.
    std::atomic<uint64_t> frames_{0};
    std::atomic<int> width_{0};
    std::atomic<int> height_{0};
    std::atomic<Clock::duration::rep> first_frame_{0}; // since start_
    std::atomic<Clock::duration::rep> last_frame_{0};
    std::atomic<Clock::duration::rep> end_{0};
    std::atomic<bool> is_ended_{false};
    bool is_stopped_ = false; // of the main thread alone
    int result_ = -1;
    std::string exception_;
};

} // namespace velstream::tool
