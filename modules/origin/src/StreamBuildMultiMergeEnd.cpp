#include "StreamBuildMultiMergeEnd.h"

#include "ElementTools.h"
#include "Log.h"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <vector>

namespace Quorvis::VelStream {

namespace {

constexpr int kUnbuffered = 2;            // value of a filesink's "buffer-mode"
constexpr int kFirstMoovThenFinalise = 1; // value of an mp4mux's "fragment-mode"
constexpr int kFragmentMs = 1000;

ElementPtr child(GstElement* pipeline, const char* name)
{
    return ElementPtr(gst_bin_get_by_name(GST_BIN(pipeline), name));
}

std::vector<ElementPtr> collect(GstIterator* raw_iterator)
{
    const IteratorPtr iterator(raw_iterator);
    std::vector<ElementPtr> elements;
    GValue value = G_VALUE_INIT;
    GstIteratorResult result = GST_ITERATOR_OK;
    while ((result = gst_iterator_next(iterator.get(), &value)) != GST_ITERATOR_DONE) {
        if (result == GST_ITERATOR_ERROR) break;
        if (result == GST_ITERATOR_RESYNC) {
            elements.clear();
            gst_iterator_resync(iterator.get());
            continue;
        }
        elements.push_back(ElementPtr(GST_ELEMENT(g_value_dup_object(&value))));
        g_value_reset(&value);
    }
    g_value_unset(&value);
    return elements;
}

std::vector<PadPtr> pads_of(GstElement* element, GstPadDirection direction)
{
    std::vector<PadPtr> pads;
    GST_OBJECT_LOCK(element);
    for (const GList* pad = element->pads; pad; pad = pad->next) {
        if (GST_PAD_DIRECTION(pad->data) == direction) pads.emplace_back(GST_PAD(gst_object_ref(pad->data)));
    }
    GST_OBJECT_UNLOCK(element);
    return pads;
}

PadPtr linked_input(GstElement* element)
{
    PadPtr sink(gst_element_get_static_pad(element, "sink"));
    return sink && gst_pad_is_linked(sink.get()) ? std::move(sink) : nullptr;
}

/// What an element's source pad leads to.
ElementPtr element_behind(GstElement* element)
{
    const PadPtr source(gst_element_get_static_pad(element, "src"));
    const PadPtr peer(source ? gst_pad_get_peer(source.get()) : nullptr);
    return ElementPtr(peer ? gst_pad_get_parent_element(peer.get()) : nullptr);
}

ElementPtr recording_sink(GstElement* pipeline)
{
    const ElementPtr muxer = child(pipeline, "mp4mux_0");
    return muxer ? element_behind(muxer.get()) : nullptr;
}

// ---- Probes ----

bool is_end(const GstPadProbeInfo* info)
{
    return GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_EOS;
}

void probe_events(GstPad* pad, GstPadProbeCallback callback)
{
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, callback, nullptr, nullptr);
}

void probe_encoder(GstElement* pipeline)
{
    const ElementPtr encoder = child(pipeline, "qtic2venc");
    const PadPtr source(encoder ? gst_element_get_static_pad(encoder.get(), "src") : nullptr);
    if (!source) return;
    probe_events(source.get(), [](GstPad*, GstPadProbeInfo* info, gpointer) {
        if (is_end(info)) VEL_LOG_INFO("✅ qtic2venc src pad received EOS.\n");
        return GST_PAD_PROBE_OK;
    });
}

void probe_muxer(GstElement* pipeline)
{
    const ElementPtr muxer = child(pipeline, "mp4mux_0");
    if (!muxer) {
        VEL_LOG_WARN("❌ mp4mux element not found in pipeline.");
        return;
    }
    const std::vector<PadPtr> sinks = pads_of(muxer.get(), GST_PAD_SINK);
    if (sinks.empty()) {
        VEL_LOG_ERROR("❌ mp4mux has no sink pad available (sink_0 not created yet?)");
        return;
    }
    VEL_LOG_INFO("🔍 Found mp4mux sink pad: %s", GST_PAD_NAME(sinks.front().get()));
    probe_events(sinks.front().get(), [](GstPad* pad, GstPadProbeInfo* info, gpointer) {
        if (is_end(info)) VEL_LOG_INFO("✅ mp4mux received EOS on pad: %s\n", GST_PAD_NAME(pad));
        return GST_PAD_PROBE_OK;
    });
}

void probe_tee(GstElement* pipeline)
{
    const ElementPtr tee = child(pipeline, "split");
    if (!tee) return;
    for (const PadPtr& source : pads_of(tee.get(), GST_PAD_SRC)) {
        VEL_LOG_INFO("👀 Adding probe to tee src pad: %s", GST_PAD_NAME(source.get()));
        probe_events(source.get(), [](GstPad* pad, GstPadProbeInfo* info, gpointer) {
            if (is_end(info)) VEL_LOG_INFO("✅ tee pad %s received EOS. ", GST_PAD_NAME(pad));
            return GST_PAD_PROBE_OK;
        });
    }
}

void probe_queue(GstElement* pipeline)
{
    const ElementPtr queue = child(pipeline, "save_queue");
    const PadPtr source(queue ? gst_element_get_static_pad(queue.get(), "src") : nullptr);
    if (!source) return;
    probe_events(source.get(), [](GstPad*, GstPadProbeInfo* info, gpointer) {
        if (is_end(info)) VEL_LOG_INFO("✅ save_queue src pad received EOS. ");
        return GST_PAD_PROBE_OK;
    });
}

void probe_canvas(GstElement* pipeline)
{
    const ElementPtr transform = child(pipeline, "qtiv_main_transform");
    if (!transform) {
        VEL_LOG_ERROR("❌ qtiv_main_transform element not found in pipeline.\n");
        return;
    }
    const PadPtr source(gst_element_get_static_pad(transform.get(), "src"));
    if (!source) {
        VEL_LOG_ERROR("❌ qtiv_main_transform src pad not found.\n");
        return;
    }
    probe_events(source.get(), [](GstPad*, GstPadProbeInfo* info, gpointer) {
        if (is_end(info)) VEL_LOG_INFO("✅ qtiv_main_transform src pad received EOS. ");
        return GST_PAD_PROBE_OK;
    });
}

// ---- The recording ----

using StatePtr = std::shared_ptr<RecordingState>;

void probe_with_state(GstPad* pad, GstPadProbeType type, GstPadProbeCallback callback, const StatePtr& state)
{
    gst_pad_add_probe(pad, type, callback, new StatePtr(state),
                      [](gpointer data) { delete static_cast<StatePtr*>(data); });
}

GstPadProbeReturn note_begin(GstPad*, GstPadProbeInfo*, gpointer state)
{
    return (*static_cast<StatePtr*>(state))->begin() ? GST_PAD_PROBE_REMOVE : GST_PAD_PROBE_DROP;
}

/// The muxer sends its end of stream behind the index, to a sink that writes in the same thread.
GstPadProbeReturn note_end(GstPad*, GstPadProbeInfo* info, gpointer state)
{
    if (is_end(info)) (*static_cast<StatePtr*>(state))->is_complete = true;
    return GST_PAD_PROBE_OK;
}

// ---- The end of stream ----

/// On a thread of GStreamer's: the event waits for what the element is doing, which may be to wait itself.
void end_input(GstElement* element)
{
    gst_element_call_async(
        element,
        [](GstElement* ended, gpointer) {
            const PadPtr sink(gst_element_get_static_pad(ended, "sink"));
            if (sink) gst_pad_send_event(sink.get(), gst_event_new_eos());
        },
        nullptr, nullptr);
}

/// True when the element before this input has no linked input itself.
bool is_unfed(GstPad* input)
{
    const PadPtr peer(gst_pad_get_peer(input));
    const ElementPtr before(peer ? gst_pad_get_parent_element(peer.get()) : nullptr);
    if (!before) return true;
    const std::vector<PadPtr> sinks = pads_of(before.get(), GST_PAD_SINK);
    return std::none_of(sinks.begin(), sinks.end(), [](const PadPtr& sink) { return gst_pad_is_linked(sink.get()); });
}

} // namespace

bool RecordingState::enter(Phase phase)
{
    Phase before = Phase::kWaiting;
    return phase_.compare_exchange_strong(before, phase) || before == phase;
}

bool RecordingState::begin()
{
    return enter(Phase::kBegun);
}

bool RecordingState::refuse()
{
    return enter(Phase::kRefused);
}

void add_end_probes(GstElement* pipeline)
{
    probe_encoder(pipeline);
    probe_muxer(pipeline);
    probe_tee(pipeline);
    probe_queue(pipeline);
    probe_canvas(pipeline);
}

void follow_recording(GstElement* pipeline, const std::shared_ptr<RecordingState>& state)
{
    const ElementPtr muxer = child(pipeline, "mp4mux_0");
    if (!muxer) return;
    const PadPtr source(gst_element_get_static_pad(muxer.get(), "src"));
    if (source) probe_with_state(source.get(), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, note_end, state);
    for (const PadPtr& sink : pads_of(muxer.get(), GST_PAD_SINK))
        probe_with_state(sink.get(), GST_PAD_PROBE_TYPE_BUFFER, note_begin, state);
}

void secure_recording(GstElement* pipeline)
{
    const ElementPtr muxer = child(pipeline, "mp4mux_0");
    if (!muxer) return;
    const ElementPtr sink = element_behind(muxer.get());
    set_property(sink.get(), "buffer-mode", kUnbuffered);
    guint fragment_ms = 0;
    g_object_get(muxer.get(), "fragment-duration", &fragment_ms, nullptr);
    if (fragment_ms != 0) return;
    set_property(muxer.get(), "fragment-mode", kFirstMoovThenFinalise);
    set_property(muxer.get(), "fragment-duration", kFragmentMs);
}

bool is_recording_closed(GstElement* pipeline)
{
    const ElementPtr sink = recording_sink(pipeline);
    return !sink || GST_STATE(sink.get()) <= GST_STATE_READY;
}

std::string open_recording(GstElement* pipeline)
{
    const ElementPtr sink = recording_sink(pipeline);
    if (!sink || GST_STATE(sink.get()) < GST_STATE_READY) return "";
    char* raw_location = nullptr;
    g_object_get(sink.get(), "location", &raw_location, nullptr);
    const TextPtr location(raw_location);
    return location ? location.get() : "";
}

void remove_recording(const std::string& path)
{
    std::error_code failure;
    if (!std::filesystem::is_regular_file(std::filesystem::symlink_status(path, failure))) return;
    if (std::filesystem::remove(path, failure))
        VEL_LOG_INFO("Composition: no picture was recorded; %s is removed.", path.c_str());
}

void discard_recording(GstElement* pipeline)
{
    const ElementPtr sink = recording_sink(pipeline);
    if (!sink) return;
    VEL_LOG_WARN("The composition is not recorded: no output of the type File has an address.");
    set_property(sink.get(), "location", std::string("/dev/null"));
    set_property(sink.get(), "sync", false);
}

void force_end(GstElement* pipeline)
{
    if (!pipeline) return;
    for (const ElementPtr& element : collect(gst_bin_iterate_elements(GST_BIN(pipeline)))) {
        const PadPtr input = linked_input(element.get());
        if (!input) continue;
        VEL_LOG_INFO("🎯 Forcing EOS via sink pad of: %s", GST_ELEMENT_NAME(element.get()));
        if (is_unfed(input.get())) end_input(element.get());
    }
}

void end_unfed_inputs(GstElement* pipeline)
{
    for (const ElementPtr& element : collect(gst_bin_iterate_elements(GST_BIN(pipeline)))) {
        const PadPtr input = linked_input(element.get());
        if (input && is_unfed(input.get())) end_input(element.get());
    }
}

void force_end_everywhere(GstElement* pipeline)
{
    std::vector<ElementPtr> elements = collect(gst_bin_iterate_sorted(GST_BIN(pipeline)));
    std::reverse(elements.begin(), elements.end()); // sources first
    for (const ElementPtr& element : elements) {
        if (!GST_OBJECT_FLAG_IS_SET(element.get(), GST_ELEMENT_FLAG_SINK)) end_input(element.get());
    }
}

/// A pipeline goes down state by state, from the sinks to the sources each time: the first one in the highest state.
ElementPtr find_stuck_element(GstElement* pipeline)
{
    std::vector<ElementPtr> elements = collect(gst_bin_iterate_sorted(GST_BIN(pipeline)));
    const auto highest = std::max_element(elements.begin(), elements.end(), [](const auto& one, const auto& other) {
        return GST_STATE(one.get()) < GST_STATE(other.get());
    });
    if (highest == elements.end() || GST_STATE(highest->get()) == GST_STATE_NULL) return nullptr;
    return std::move(*highest);
}

} // namespace Quorvis::VelStream
