#include "ElementTools.h"
#include "Log.h"
#include "Platform.h"
#include "StreamBuild.h"
#include "StreamBuildMessages.h"
#include "StreamBuildScope.h"
#include "StreamCommon.h"

#include <chrono>
#include <string>

namespace Quorvis::VelStream {

namespace {

constexpr int kAttempts = 5;
constexpr GstClockTime kUb2404Slice = 200 * GST_MSECOND;
constexpr std::chrono::milliseconds kPauseAfterRebuild{200};

/// What a runner does after a message.
struct Outcome {
    enum class Next { Wait, Attempt, Leave } next;
    int result = 0; ///< With Leave: the runner's.
};

constexpr Outcome kWait{Outcome::Next::Wait};
constexpr Outcome kAttempt{Outcome::Next::Attempt};

constexpr Outcome leave_with(int result)
{
    return {Outcome::Next::Leave, result};
}

bool has_pipeline(const PiplineData* data)
{
    if (data->pipeline) return true;
    VEL_LOG_ERROR("pipeline couldn't be created due to pipeline is nullptr.");
    return false;
}

/// A runner's retry leaves the pipeline as it found it; a failed re-creation leaves none, and gets an empty one.
void prepare_pipeline(RunScope& scope)
{
    PiplineData* data = scope.data();
    if (data->pipeline) {
        clear_pipeline(data->pipeline);
        return;
    }
    data->pipeline = gst_pipeline_new(data->streamId.c_str());
    replace_pipeline(&scope.run(), data->pipeline);
    use_system_clock(data->pipeline);
}

// ---- "6490", "8550" ----

struct Transforms {
    ElementPtr input;
    ElementPtr output;
};

Transforms make_transforms()
{
    Transforms made{make_element("qtivtransform", "qtivtransformInput"),
                    make_element("qtivtransform", "qtivtransformOutput")};
    if (platform() == "8550") {
        VEL_LOG_INFO("Platform is 8550, will skip opengl handling.");
        set_property(made.input.get(), "engine", 2);
        set_property(made.output.get(), "engine", 2);
    }
    return made;
}

bool assemble(PiplineData* data, GstElement* input, GstElement* output)
{
    const auto [to_rgb, from_rgb] = make_transforms();
    const ElementPtr filter = make_capsfilter("qtivtransformInputCap", "video/x-raw,format=RGB");
    add_all(data->pipeline, {input, to_rgb.get(), filter.get(), from_rgb.get(), output});
    if (!link_steps(
            {{input, to_rgb.get(), "Failed to link elements input with qtivtransformInput in the pipeline."},
             {to_rgb.get(), filter.get(),
              "Failed to link elements qtivtransformInput with capsfilter in the pipeline."},
             {filter.get(), from_rgb.get(),
              "Failed to link elements capsfilter with qtivtransformOutput in the pipeline."},
             {from_rgb.get(), output, "Failed to link elements qtivtransformOutput with output in the pipeline."}}))
        return false;
    add_buffer_probe(filter.get(), "src", on_buffer_received, data);
    return true;
}

/// Takes the pipeline down after attempt number `attempt`.
Outcome retry_or_fail(RunScope& scope, int attempt)
{
    if (attempt == kAttempts) {
        scope.release();
        VEL_LOG_ERROR("Pipeline failed after %d attempts.", kAttempts);
        return leave_with(-1);
    }
    scope.set_null();
    VEL_LOG_INFO("Retrying pipeline due to error. Attempt %d", attempt + 1);
    // The next attempt would take the elements out one by one, and wait for a source that does not come down.
    return scope.run().is_stop_asked() ? leave_with(0) : kAttempt;
}

/// Replaces the pipeline and plays it. It counts as no attempt.
Outcome rebuild(RunScope& scope, int attempt)
{
    const bool is_rebuilt = re_create_pipeline(scope.data()) == 0;
    if (is_rebuilt && scope.run().sleep_unless_stopped(kPauseAfterRebuild) && scope.play()) return kWait;
    return scope.run().is_stop_asked() ? leave_with(0) : retry_or_fail(scope, attempt);
}

/// A failure while a stop is under way: the end of stream is in flight, and what is written is to be completed.
Outcome leave_stopped(RunScope& scope)
{
    scope.let_output_finish();
    return leave_with(-1);
}

Outcome handle_error(RunScope& scope, GstMessage* message, int attempt)
{
    const ErrorReport report(message);
    VEL_LOG_ERROR("Error received from element %s: %s", source_name(message), report.text());
    VEL_LOG_ERROR("Debugging information: %s", report.debug());
    if (scope.run().is_stop_asked()) return leave_stopped(scope);
    if (get_manual_rebuild(scope.data()->streamId)) return retry_or_fail(scope, attempt);
    VEL_LOG_WARN("Error information received. Manual rebuild switch disabled, It will rebuild.");
    return rebuild(scope, attempt);
}

/// An end of stream that is left to the application ends the call with the text and the result of a failure, so that
/// the application restarts the stream.
Outcome leave_to_application(RunScope& scope)
{
    scope.release();
    VEL_LOG_ERROR("Pipeline failed after %d attempts.", kAttempts);
    return leave_with(-1);
}

Outcome handle_end_of_stream(RunScope& scope, int attempt)
{
    scope.run().note_end();
    const std::string& stream_id = scope.data()->streamId;
    VEL_LOG_WARN("Receiving EOS signal in message bus *****************");
    if (output_mp4(stream_id)) {
        VEL_LOG_WARN("End-Of-Stream reached. Saving mp4 file exit.");
        return leave_to_application(scope);
    }
    if (get_manual_rebuild(stream_id)) {
        VEL_LOG_ERROR("End-Of-Stream reached. Need manual rebuild. Exit.");
        return leave_to_application(scope);
    }
    if (scope.run().is_stop_asked()) return leave_with(0);
    VEL_LOG_WARN("End-Of-Stream reached. Manual rebuild switch disabled, It will rebuild.");
    return rebuild(scope, attempt);
}

Outcome watch(RunScope& scope, int attempt)
{
    constexpr auto kTypes = GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR | GST_MESSAGE_WARNING);
    while (const MessagePtr message = scope.wait_for_message(kTypes)) {
        Outcome outcome = kWait;
        if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR)
            outcome = handle_error(scope, message.get(), attempt);
        else if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS)
            outcome = handle_end_of_stream(scope, attempt);
        if (outcome.next != Outcome::Next::Wait) return outcome;
    }
    return leave_with(0);
}

// ---- "v4l2" ----

bool assemble_6490_ql(PiplineData* data, GstElement* input, GstElement* output)
{
    const ElementPtr queue_in = make_element("queue", "queue_input");
    const ElementPtr to_rgb = make_element("qtivtransform", "qtivtransformInput");
    const ElementPtr rgb = make_capsfilter("capsfilter1", "video/x-raw,format=RGB");
    const ElementPtr from_rgb = make_element("qtivtransform", "qtivtransformOutput");
    const ElementPtr queue_out = make_element("queue", "queue_output");
    const ElementPtr nv12 = make_capsfilter("capsfilter2", "video/x-raw(memory:GBM),format=NV12,colorimetry=bt601");
    set_property(output, "sync", true);
    add_all(data->pipeline,
            {input, queue_in.get(), to_rgb.get(), rgb.get(), from_rgb.get(), queue_out.get(), nv12.get(), output});
    if (!link_chain(
            {input, queue_in.get(), to_rgb.get(), rgb.get(), from_rgb.get(), queue_out.get(), nv12.get(), output})) {
        VEL_LOG_ERROR("Failed to link elements input/qtivtransformInput/capsfilter1/qtivtransformOutput/capsfilter2/"
                      "output in the pipeline.");
        return false;
    }
    add_buffer_probe(rgb.get(), "src", on_buffer_received_v4l2, data);
    return true;
}

Outcome handle_error_6490_ql(RunScope& scope, GstMessage* message, int attempt)
{
    const ErrorReport report(message);
    VEL_LOG_ERROR("Error received from element %s: %s\n", source_name(message), report.text());
    VEL_LOG_ERROR("Debugging information: %s\n", report.debug());
    return scope.run().is_stop_asked() ? leave_stopped(scope) : retry_or_fail(scope, attempt);
}

Outcome watch_6490_ql(RunScope& scope, int attempt)
{
    const MessagePtr message = scope.wait_for_message(GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    if (!message) return leave_with(0);
    if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR)
        return handle_error_6490_ql(scope, message.get(), attempt);
    scope.run().note_end();
    VEL_LOG_INFO("End-Of-Stream reached.");
    scope.release();
    VEL_LOG_INFO("Pipeline completed (EOS) after %d attempts.", attempt);
    return leave_with(0);
}

// ---- "ub2404" ----

const char* factory_name(GstElement* element)
{
    GstElementFactory* factory = element ? gst_element_get_factory(element) : nullptr;
    return factory ? GST_OBJECT_NAME(factory) : "unknown";
}

ElementPtr make_ub2404_transform(const char* name)
{
    ElementPtr transform = make_element("qtivtransform", name);
    set_property(transform.get(), "engine", 3);
    return transform;
}

struct Ub2404Front {
    ElementPtr queue_in = make_element("queue", "queue_input_ub2024");
    ElementPtr nv12 = make_capsfilter("capsfilter1_ub2024", "video/x-raw,format=NV12");
    ElementPtr to_rgb = make_ub2404_transform("qtivtransformInput_ub2024");
    ElementPtr queue_mid = make_element("queue", "queue_mid_ub2024");
    ElementPtr rgb = make_capsfilter("capsfilter2_ub2024", "video/x-raw,format=RGB");
    bool is_complete() const { return queue_in && nv12 && to_rgb && queue_mid && rgb; }
};

struct Ub2404Back {
    ElementPtr from_rgb = make_ub2404_transform("qtivtransformOutput_ub2024");
    ElementPtr queue_out = make_element("queue", "queue_output_ub2024");
    ElementPtr nv12 = make_capsfilter("capsfilter3_ub2024", "video/x-raw,format=NV12,colorimetry=bt709");
    bool is_complete() const { return from_rgb && queue_out && nv12; }
};

bool add_and_link(PiplineData* data, std::initializer_list<GstElement*> chain)
{
    add_all(data->pipeline, chain);
    if (link_chain(chain)) return true;
    VEL_LOG_ERROR("start_ub2404: Failed to link elements.");
    return false;
}

bool assemble_ub2404(PiplineData* data, GstElement* input, GstElement* output, bool skips_conversion)
{
    const Ub2404Front front;
    if (!front.is_complete()) {
        VEL_LOG_ERROR("start_ub2404: Failed to create one or more elements.");
        return false;
    }
    bool is_linked = false;
    if (skips_conversion) {
        is_linked = add_and_link(data, {input, front.queue_in.get(), front.nv12.get(), front.to_rgb.get(),
                                        front.queue_mid.get(), front.rgb.get(), output});
    } else {
        const Ub2404Back back;
        if (!back.is_complete()) {
            VEL_LOG_ERROR("start_ub2404: Failed to create output conversion elements.");
            return false;
        }
        is_linked = add_and_link(data, {input, front.queue_in.get(), front.nv12.get(), front.to_rgb.get(),
                                        front.queue_mid.get(), front.rgb.get(), back.from_rgb.get(),
                                        back.queue_out.get(), back.nv12.get(), output});
    }
    if (is_linked) add_buffer_probe(front.rgb.get(), "src", on_buffer_received_v4l2, data);
    return is_linked;
}

/// True when an output that works has been given frames, which a failure before it leaves to be completed.
bool is_writing(GstElement* output, GstMessage* message)
{
    GstState state = GST_STATE_NULL;
    return !gst_object_has_as_ancestor(GST_MESSAGE_SRC(message), GST_OBJECT(output)) &&
           gst_element_get_state(output, &state, nullptr, 0) == GST_STATE_CHANGE_SUCCESS && state == GST_STATE_PLAYING;
}

/// @param output  null when the stream writes nothing.
int fail_ub2404(RunScope& scope, GstMessage* message, GstElement* output)
{
    const ErrorReport report(message);
    VEL_LOG_ERROR("start_ub2404: ERROR from %s: %s", source_name(message), report.text());
    VEL_LOG_ERROR("start_ub2404: debug info: %s", report.debug());
    if (output && is_writing(output, message)) scope.let_output_finish();
    scope.release();
    VEL_LOG_ERROR("start_ub2404: Pipeline failed.");
    return -1;
}

/// @return true when the pipeline was set to NULL by another thread.
bool is_external_null(RunScope& scope, GstMessage* message)
{
    VEL_LOG_INFO("start_ub2404: STATE_CHANGED from %s", source_name(message));
    if (GST_MESSAGE_SRC(message) != GST_OBJECT(scope.pipeline())) return false;
    GstState old_state = GST_STATE_NULL;
    GstState new_state = GST_STATE_NULL;
    gst_message_parse_state_changed(message, &old_state, &new_state, nullptr);
    VEL_LOG_INFO("start_ub2404: pipeline state changed %s -> %s", gst_element_state_get_name(old_state),
                 gst_element_state_get_name(new_state));
    if (new_state != GST_STATE_NULL || running.load(std::memory_order_acquire)) return false;
    VEL_LOG_INFO("start_ub2404: pipeline entered NULL because of external stop.");
    return true;
}

/// Notices that `running` was cleared, and how long the end of stream may still take to arrive.
class StopWatch {
public:
    /// @param has_output  the stream writes somewhere, and a stop of another stream must not cut it off.
    StopWatch(RunScope& scope, bool has_output) : scope_(scope), has_output_(has_output) {}

    /// @return true when the loop is to be left now.
    bool is_over()
    {
        if (scope_.run().is_stopped()) return true;
        if (running.load(std::memory_order_acquire)) return false;
        if (!is_noticed_) notice();
        return std::chrono::steady_clock::now() >= deadline_;
    }

private:
    void notice()
    {
        VEL_LOG_INFO("start_ub2404: running cleared, will break loop. stream_id=%s", scope_.data()->streamId.c_str());
        const bool is_end_in_flight = scope_.run().is_stop_asked();
        // The stop of another stream, or a signal, ends this one too: what it writes is to be completed all the same.
        if (!is_end_in_flight && has_output_) send_end_of_stream(scope_.pipeline());
        is_noticed_ = true;
        deadline_ = std::chrono::steady_clock::now();
        if (is_end_in_flight || has_output_) deadline_ += kEndOfStreamBound;
    }

    RunScope& scope_;
    bool has_output_;
    bool is_noticed_ = false;
    std::chrono::steady_clock::time_point deadline_;
};

/// @param output  null when the stream writes nothing.
int watch_ub2404(RunScope& scope, GstElement* output)
{
    StopWatch stop_watch(scope, output != nullptr);
    GstClockTime checked = system_time();
    for (;;) {
        const MessagePtr message = scope.wait_for_any_message(kUb2404Slice);
        // A bus that never falls silent must not keep a stop from being noticed.
        if (!message || system_time() - checked >= kUb2404Slice) {
            checked = system_time();
            if (stop_watch.is_over()) break;
        }
        if (!message) continue;
        if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR) return fail_ub2404(scope, message.get(), output);
        if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS) {
            VEL_LOG_INFO("start_ub2404: End-Of-Stream reached. stream_id=%s", scope.data()->streamId.c_str());
            scope.run().note_end();
            break;
        }
        if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_STATE_CHANGED && is_external_null(scope, message.get()))
            break;
    }
    scope.release();
    VEL_LOG_INFO("start_ub2404: Pipeline stopped (EOS or external stop).");
    return 0;
}

} // namespace

int start(PiplineData* data, GstElement* input, GstElement* output)
{
    const ElementPtr input_owner = share(input);
    const ElementPtr output_owner = share(output);
    if (!has_pipeline(data)) return -1;
    RunScope scope(data);
    use_system_clock(data->pipeline);
    for (int attempt = 1;; ++attempt) {
        VEL_LOG_INFO("Starting pipeline, attempt %d of %d", attempt, kAttempts);
        if (attempt > 1) prepare_pipeline(scope);
        if (!assemble(data, input, output)) return -1;
        if (!scope.play()) return 0;
        const Outcome outcome = watch(scope, attempt);
        if (outcome.next == Outcome::Next::Leave) return outcome.result;
    }
}

int start_6490_ql(PiplineData* data, GstElement* input, GstElement* output)
{
    const ElementPtr input_owner = share(input);
    const ElementPtr output_owner = share(output);
    if (!has_pipeline(data)) return -1;
    RunScope scope(data);
    use_system_clock(data->pipeline);
    for (int attempt = 1;; ++attempt) {
        VEL_LOG_INFO("Platform is 6490 ql. Starting pipeline, attempt %d of %d", attempt, kAttempts);
        if (attempt > 1) prepare_pipeline(scope);
        if (!assemble_6490_ql(data, input, output)) return -1;
        if (!scope.play()) return 0;
        const Outcome outcome = watch_6490_ql(scope, attempt);
        if (outcome.next == Outcome::Next::Leave) return outcome.result;
    }
}

int start_ub2404(PiplineData* data, GstElement* input, GstElement* output)
{
    const ElementPtr input_owner = share(input);
    const ElementPtr output_owner = share(output);
    if (!has_pipeline(data)) return -1;
    RunScope scope(data);
    use_system_clock(data->pipeline);
    const std::string output_factory = factory_name(output);
    const bool skips_conversion = output_factory == "fakesink";
    VEL_LOG_INFO("Platform is ubuntu 2404. Starting pipeline once. stream_id=%s", data->streamId.c_str());
    VEL_LOG_INFO("start_ub2404: output factory=%s, skip_output_nv12_convert=%d", output_factory.c_str(),
                 skips_conversion ? 1 : 0);
    if (!assemble_ub2404(data, input, output, skips_conversion)) return -1;
    if (!scope.play()) return 0;
    return watch_ub2404(scope, skips_conversion ? nullptr : output);
}

} // namespace Quorvis::VelStream
