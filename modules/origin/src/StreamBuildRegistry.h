// The pipelines that run, and what a runner shares with the threads that stop it.
#pragma once

#include "Handles.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Quorvis::VelStream {

/// How long a stop waits for a runner to see its end of stream, before it takes the pipeline down.
inline constexpr std::chrono::milliseconds kEndOfStreamBound{2000};

/// One call of a runner, from the registration of its pipeline to the release. Thread-safe.
class StreamRun {
public:
    /// The runner sets its pipeline PLAYING, for the first time or again.
    void note_playing();
    /// Asked for by a stop; `has_pipeline` says whether an end of stream is on its way to a pipeline.
    void ask_stop(bool has_pipeline);
    /// The runner has seen the end of its stream, or is gone.
    void note_end();
    /// The stop has set the pipeline to NULL.
    void note_stopped();

    bool is_stop_asked() const;
    /// True when nothing is left to wait for: the stop took the pipeline down, or there was none to send the end to.
    bool is_stopped() const;

    /// Waits until note_end() or the deadline. @return false at the deadline.
    bool wait_for_end(std::chrono::steady_clock::time_point deadline);
    /// Sleeps; a stop ends the sleep. @return false when a stop was asked for.
    bool sleep_unless_stopped(std::chrono::milliseconds duration);

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool is_stop_asked_ = false;
    bool is_end_in_flight_ = false;
    bool is_ended_ = false;
    bool is_stopped_ = false;
};

/// Makes `pipeline` the one of this id and opens a run for it.
void register_pipeline(const std::string& stream_id, GstElement* pipeline);

/// The same under an id of its own, for a run that a stop of `stream_id` ends too.
void register_pipeline(const std::string& registered_id, GstElement* pipeline, const std::string& stream_id);

/// Makes a registered pipeline the one of a further id, so that a stop of that id finds it too.
void register_other_id(const std::string& stream_id, GstElement* pipeline);

/// The run of a pipeline. One that nobody registered gets a run of its own under this id, so that a stop finds it.
std::shared_ptr<StreamRun> run_of(const std::string& stream_id, GstElement* pipeline);

/// The run of a registered pipeline, or null.
std::shared_ptr<StreamRun> find_run(GstElement* pipeline);

/// A run goes on with another pipeline, null while there is none.
void replace_pipeline(const StreamRun* run, GstElement* pipeline);

/// Notes the last pipeline that was set PLAYING.
void note_playing(GstElement* pipeline);

/// The frame rate of a re-encoder: that of its stream, which later ones without a rate take over, or the last one's.
int32_t choose_frame_rate(int32_t fps);

/// A re-encoder has pushed a frame.
void advance_buffer_index();

/// Makes an element the re-encoders' last source for the life of the object.
class SourceNote {
public:
    explicit SourceNote(GstElement* source);
    ~SourceNote();
    SourceNote(const SourceNote&) = delete;
    SourceNote& operator=(const SourceNote&) = delete;

private:
    GstElement* source_;
};

/// Sends the end of stream to the pipeline's sources, from threads of GStreamer's: the event travels with the data and
/// waits behind a branch that does not move (a peer that went silent, a callback that is slow), and a stop must not
/// wait with it. The sources' own method is called, because gst_element_send_event() holds the element's state lock for
/// as long: that would keep the pipeline from being set to NULL, which is what frees a branch that does not move.
/// Each source gets one end, however many stops ask for it.
void send_end_of_stream(GstElement* pipeline);

/// Clears every pointer to a pipeline that is about to be released.
void forget_pipeline(GstElement* pipeline);

/// Closes a run: a stop no longer finds it.
void close_run(const StreamRun* run);

/// What a stop works on: references of its own, taken under the lock.
struct StopTarget {
    std::string stream_id;
    ElementPtr pipeline;            ///< Null while the stream is being rebuilt.
    std::shared_ptr<StreamRun> run; ///< Null when no runner is at work.
};

/// Marks the runs of one id, or all, as asked to stop, in the order of the ids.
std::vector<StopTarget> ask_to_stop(const std::string& stream_id, bool all);

/// The last pipeline that was set PLAYING, or null. Does not wait for the lock: a signal handler may have interrupted
/// its holder.
ElementPtr last_started_pipeline();

} // namespace Quorvis::VelStream
