// The parts of the decoder for pushed H.265 access units, and the record that they share.
#pragma once

#include "Handles.h"
#include "velstream.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace Quorvis::VelStream {

/// The results of the three functions that applications call.
enum SpliceResult : int {
    kSpliceOk = 0,
    kSpliceBadArgument = -1,
    kSpliceAlreadyStarted = -2,
    kSpliceUnknownStream = -3,
    kSpliceNotPlaying = -4,
    kSpliceNotRunning = -5,
    kSpliceGated = -6,
    kSpliceRefused = -7,
    kSpliceInternal = -8,
};

/// Where the gate before the decoder stands. It never goes back.
enum SpliceGate : int32_t {
    kWaitingForParameterSets = 0,
    kWaitingForKeyFrame = 1,
    kPassing = 2,
};

/**
 * One splice stream. Held by the registry while the id is taken, by the worker for its whole life and by every call in
 * progress, so that a stop takes it away from nobody.
 *
 * Locks: `gate_mutex` alone, or `push_mutex` and then `mutex`; none is taken under the registry's. `mutex` guards reads
 * and writes of pointers and the hand-shake, and is never held across a call into GStreamer that can block.
 */
struct StreamContext {
    StreamContext() = default;
    /// A stop from inside the frame callback leaves the worker unjoined: it ends by itself, and may be the one to drop
    /// the last reference.
    ~StreamContext()
    {
        if (worker.joinable()) worker.detach();
    }
    StreamContext(const StreamContext&) = delete;
    StreamContext& operator=(const StreamContext&) = delete;

    std::string stream_id;
    GstElement* pipeline = nullptr; ///< borrowed from the worker; null when not running. Likewise the next three
    GstElement* appsrc = nullptr;   ///< the element named "src"
    GstElement* appsink = nullptr;  ///< the element named "sink"
    GMainLoop* loop = nullptr;
    std::function<int8_t(const Image&)> callback; ///< set before the worker starts, read by streaming threads
    std::thread worker;                           ///< guarded by `worker_mutex`
    std::atomic<bool> running{false};  ///< from the request for PLAYING until the end, an error or the end of stream
    std::atomic<bool> stopping{false}; ///< set by a stop, cleared when the worker ends
    std::mutex mutex;                  ///< guards the four pointers and the hand-shake of the start
    std::mutex push_mutex;             ///< one push at a time; guards `last_pts`
    std::mutex gate_mutex;             ///< guards `gate_state` and the three `seen_` flags
    std::condition_variable startup_cv;
    int32_t gate_state = kWaitingForParameterSets;
    bool seen_vps = false;
    bool seen_sps = false;
    bool seen_pps = false;
    bool startup_done = false;
    int32_t startup_result = kSpliceInternal;
    int64_t last_pts = -1;   ///< ns; of the last unit that the decoder's source accepted, as it was given
    std::mutex worker_mutex; ///< a start that failed and a stop may want to join at the same time
};

/// The stream with this id, or null.
std::shared_ptr<StreamContext> find_splice_stream(const std::string& stream_id);

/// The life of a stream's thread: builds the pipeline, runs its main loop, takes it down.
void run_splice_worker(const std::shared_ptr<StreamContext>& context);

/// Gives the starter its result; only the first one counts.
void complete_startup(const std::shared_ptr<StreamContext>& context, int result);

/// Whether this thread is inside the stream's frame callback.
bool is_in_splice_callback(const StreamContext& context);

/// A reference of the caller's own to the stream's source; null when the stream does not run.
ElementPtr appsrc_of(StreamContext& context);
/// The same for its main loop.
MainLoopPtr loop_of(StreamContext& context);

} // namespace Quorvis::VelStream
