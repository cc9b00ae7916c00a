#include "StreamBuildScope.h"

#include "ElementTools.h"
#include "Log.h"
#include "RtmpConnection.h"
#include "StreamBuildMessages.h"

#include <system_error>
#include <thread>
#include <utility>

namespace Quorvis::VelStream {

namespace {

constexpr GstClockTime kSlice = 100 * GST_MSECOND;
constexpr std::chrono::milliseconds kPoll{50};         ///< in which a pipeline's coming down is looked at
constexpr std::chrono::milliseconds kSourceBound{400}; ///< that its sources have for themselves

BusPtr take_bus(PiplineData* data)
{
    return BusPtr(std::exchange(data->bus, nullptr));
}

/// True when nothing but sources is still up. A pipeline comes down from its sinks to its sources, and each element's
/// streaming threads have left it by then: no frame is delivered any more. False also when that cannot be told, as
/// while a source takes its own parts down.
bool are_only_sources_up(GstElement* pipeline)
{
    const IteratorPtr elements(gst_bin_iterate_recurse(GST_BIN(pipeline)));
    GValue value = G_VALUE_INIT;
    bool is_other_up = false;
    GstIteratorResult next = GST_ITERATOR_OK;
    while (!is_other_up && (next = gst_iterator_next(elements.get(), &value)) == GST_ITERATOR_OK) {
        auto* element = GST_ELEMENT(g_value_get_object(&value));
        is_other_up = !GST_IS_BIN(element) && !GST_OBJECT_FLAG_IS_SET(element, GST_ELEMENT_FLAG_SOURCE) &&
                      GST_STATE(element) > GST_STATE_READY;
        g_value_reset(&value);
    }
    g_value_unset(&value);
    return !is_other_up && next == GST_ITERATOR_DONE;
}

ElementPtr first_child(GstBin* bin)
{
    GST_OBJECT_LOCK(bin);
    const GList* children = GST_BIN_CHILDREN(bin);
    ElementPtr child(children ? GST_ELEMENT(gst_object_ref(children->data)) : nullptr);
    GST_OBJECT_UNLOCK(bin);
    return child;
}

} // namespace

RunScope::RunScope(PiplineData* data) : data_(data), run_(run_of(data->streamId, data->pipeline)) {}

RunScope::~RunScope()
{
    release();
    close_run(run_.get());
    run_->note_end();
}

bool RunScope::play()
{
    if (run_->is_stop_asked()) return false;
    take_bus(data_);
    data_->bus = gst_element_get_bus(data_->pipeline);
    note_playing(data_->pipeline);
    run_->note_playing();
    const StartingThread here(data_->pipeline);
    if (gst_element_set_state(data_->pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        // The element's own error comes first on the bus; this one is for an element that fails without a word.
        GST_ELEMENT_ERROR(data_->pipeline, CORE, STATE_CHANGE, ("The pipeline cannot be set to PLAYING."), (nullptr));
    }
    return true;
}

MessagePtr RunScope::wait_for_message(GstMessageType types)
{
    const auto seen = GstMessageType(types | GST_MESSAGE_WARNING);
    while (!run_->is_stopped()) {
        MessagePtr message(gst_bus_timed_pop_filtered(data_->bus, kSlice, seen));
        if (!message) continue;
        note(message.get());
        if (GST_MESSAGE_TYPE(message.get()) & types) return message;
    }
    return nullptr;
}

MessagePtr RunScope::wait_for_any_message(GstClockTime timeout)
{
    MessagePtr message(gst_bus_timed_pop(data_->bus, timeout));
    if (message) note(message.get());
    return message;
}

void RunScope::note(GstMessage* message)
{
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_WARNING) {
        const ErrorReport report(message);
        last_warning_ = std::string(source_name(message)) + ": " + report.text() + " (" + report.debug() + ")";
    }
    if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_EOS || last_warning_.empty() || run_->is_stop_asked()) return;
    VEL_LOG_WARN("Stream %s ends by itself. The last warning came from %s", data_->streamId.c_str(),
                 last_warning_.c_str());
    last_warning_.clear();
}

void RunScope::let_output_finish()
{
    const auto deadline = std::chrono::steady_clock::now() + kEndOfStreamBound;
    while (!run_->is_stopped() && std::chrono::steady_clock::now() < deadline) {
        if (MessagePtr(gst_bus_timed_pop_filtered(data_->bus, kSlice, GST_MESSAGE_EOS))) return;
    }
}

void RunScope::set_null()
{
    if (!data_->pipeline) return;
    const std::future<void> done = set_null_elsewhere(data_->pipeline);
    while (!run_->is_stopped() && done.wait_for(kPoll) == std::future_status::timeout) {
    }
}

void RunScope::release()
{
    release_pipeline(data_);
}

void RunScope::release_within(std::chrono::milliseconds bound)
{
    const BusPtr bus = take_bus(data_);
    ElementPtr pipeline(std::exchange(data_->pipeline, nullptr));
    if (!pipeline) return;
    forget_pipeline(pipeline.get());
    take_down(std::move(pipeline), bound);
}

bool take_down(ElementPtr pipeline, std::chrono::milliseconds bound)
{
    return !pipeline || set_null_elsewhere(pipeline.get()).wait_for(bound) == std::future_status::ready;
}

std::future<void> set_null_elsewhere(GstElement* pipeline)
{
    std::promise<void> done;
    std::future<void> result = done.get_future();
    // A record's reference to its pipeline may be a floating one, which is not to be taken over here. The thread's own
    // is released before it says so: who waited for it has the last one.
    try {
        std::thread([kept = ElementPtr(GST_ELEMENT(gst_object_ref(pipeline))), told = std::move(done)]() mutable {
            hang_up_rtmp(kept.get());
            gst_element_set_state(kept.get(), GST_STATE_NULL);
            kept.reset();
            told.set_value();
        }).detach();
    } catch (const std::system_error&) {
        // No thread is to be had: the caller waits here, and the lost promise ends its wait.
        hang_up_rtmp(pipeline);
        gst_element_set_state(pipeline, GST_STATE_NULL);
    }
    return result;
}

void clear_pipeline(GstElement* pipeline)
{
    while (const ElementPtr child = first_child(GST_BIN(pipeline))) {
        gst_element_set_state(child.get(), GST_STATE_NULL);
        gst_bin_remove(GST_BIN(pipeline), child.get());
    }
}

/// A source that waits for a server in a read of its own, and could not be made to hang up, may keep the pipeline from
/// coming down for as long as the server is silent, whether a stop or an error of another element ended the stream.
/// Nothing of it reaches the caller any more once all behind it is down: the caller need not wait.
void release_pipeline(PiplineData* data)
{
    const BusPtr bus = take_bus(data);
    const ElementPtr pipeline(std::exchange(data->pipeline, nullptr));
    if (!pipeline) return;
    forget_pipeline(pipeline.get());
    const std::future<void> done = set_null_elsewhere(pipeline.get());
    while (done.wait_for(kPoll) == std::future_status::timeout) {
        if (!are_only_sources_up(pipeline.get())) continue;
        if (done.wait_for(kSourceBound) == std::future_status::ready) return;
        VEL_LOG_WARN("The source of stream %s does not come down; it is left behind.", data->streamId.c_str());
        return;
    }
}

} // namespace Quorvis::VelStream
