// One runner call's hold on its pipeline and bus.
#pragma once

#include "Handles.h"
#include "StreamBuildRegistry.h"
#include "StreamRecords.h"

#include <chrono>
#include <future>
#include <memory>
#include <string>

namespace Quorvis::VelStream {

/// Releases the pipeline and the bus of a record on every way out of a runner, exceptions included, and joins the
/// runner with the threads that stop it. Scopes of one record may nest; the first release does the work.
class RunScope {
public:
    explicit RunScope(PiplineData* data);
    ~RunScope();
    RunScope(const RunScope&) = delete;
    RunScope& operator=(const RunScope&) = delete;

    PiplineData* data() const { return data_; }
    GstElement* pipeline() const { return data_->pipeline; }
    StreamRun& run() { return *run_; }

    /// Sets the pipeline PLAYING, unless a stop was asked for, and takes its bus. @return false on a stop.
    bool play();

    /// The next message of these types; null once another thread has stopped the pipeline. Waits in slices, since a
    /// pipeline put to NULL flushes its bus and wakes nobody. Warnings end no stream, but one may be all that is known
    /// of the cause when a stream ends by itself: the log names the last one then.
    MessagePtr wait_for_message(GstMessageType types);

    /// The next message of any type within the time; null on time-out.
    MessagePtr wait_for_any_message(GstClockTime timeout);

    /// A source that fails ends its stream: the end travels behind the last frame, and what records them needs it for
    /// its index. Waits until it has arrived, within the bound that a stop has.
    void let_output_finish();

    /// Sets the pipeline to NULL for its next attempt; a stop does not wait for that.
    void set_null();

    /// See release_pipeline().
    void release();

    /// The same, and leaves a pipeline that does not come down in this time to a thread of its own: a sink whose
    /// server has gone silent waits for its answer. Only for pipelines that nothing of the caller's is attached to.
    void release_within(std::chrono::milliseconds bound);

private:
    void note(GstMessage* message);

    PiplineData* data_;
    std::shared_ptr<StreamRun> run_;
    std::string last_warning_;
};

/// Sets a pipeline to NULL on a thread of its own, which keeps it for so long: that joins the streaming threads,
/// and one of them may be in a callback that does not return. The caller waits on the result for as long as it likes.
std::future<void> set_null_elsewhere(GstElement* pipeline);

/// Sets a pipeline to NULL and releases it; one that does not come down within the bound is left to a thread
/// of its own. Null is passed over. @return false when it was left.
bool take_down(ElementPtr pipeline, std::chrono::milliseconds bound);

/// Unlinks and removes every element of a pipeline, so that a further attempt can use the same names.
void clear_pipeline(GstElement* pipeline);

/// Sets the pipeline of a record to NULL and releases it and its bus; the record's pointers become null, and the
/// registry forgets the pipeline first. Returns when no frame can come any more; a source that does not come down then
/// is left to a thread of its own.
void release_pipeline(PiplineData* data);

} // namespace Quorvis::VelStream
