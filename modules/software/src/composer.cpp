// "qtivcomposer": several streams on one canvas, each at its place.
//
// Every input shows the newest frame it has; only an input of which a frame of the canvas's time may still come is
// waited for, and with live inputs not beyond the latency.
#include "composer_pad.h"
#include "elements.h"
#include "frame_convert.h"
#include "frame_layout.h"
#include "video_properties.h"
#include "vtransform_caps.h"

#include <algorithm>
#include <vector>

namespace velstream::software {

namespace {

enum Property : guint { kEngine = 1, kBackground };

constexpr guint kOpaqueBlack = 0x000000FF;

/// One input of the canvas under way.
struct Layer {
    GstAggregatorPad* pad; ///< borrowed from ComposerState::pads
    TileLayout layout;
    guint zorder;
    ComposerTile* tile;
};

struct ComposerState {
    int engine = kDefaultEngine;     ///< guarded by the object lock
    guint background = kOpaqueBlack; ///< likewise

    /// Running time before which downstream has no use for a canvas; guarded by the object lock.
    GstClockTime earliest = GST_CLOCK_TIME_NONE;

    // The rest belongs to the aggregator's thread.
    GstVideoInfo canvas{};
    guint canvas_number = 0; ///< counts the formats of the canvas; 0: it has none yet
    GstClockTime base = 0;   ///< position of frame 0
    guint64 frame = 0;
    GstClockTime expected = GST_CLOCK_TIME_NONE; ///< where the segment's position stands if nobody has moved it

    std::vector<PadPtr> pads;
    std::vector<Layer> layers;
    ColourConverter filler;
    PictureMemory filler_in, filler_out;
};

struct VelComposer {
    GstAggregator parent;
    ComposerState* state; ///< owned
};

struct VelComposerClass {
    GstAggregatorClass parent_class;
};

GType vel_composer_get_type();
void init_child_proxy(gpointer interface, gpointer);
G_DEFINE_TYPE_WITH_CODE(VelComposer, vel_composer, GST_TYPE_AGGREGATOR,
                        G_IMPLEMENT_INTERFACE(GST_TYPE_CHILD_PROXY, init_child_proxy))

ComposerState& state_of(gpointer object)
{
    return *static_cast<VelComposer*>(object)->state;
}

GstAggregatorClass* base_class()
{
    return GST_AGGREGATOR_CLASS(vel_composer_parent_class);
}

/// Takes references, so that a pad may be released meanwhile.
void collect_pads(GstAggregator* composer)
{
    ComposerState& state = state_of(composer);
    state.pads.clear();
    GST_OBJECT_LOCK(composer);
    for (GList* item = GST_ELEMENT(composer)->sinkpads; item; item = item->next)
        state.pads.emplace_back(GST_PAD(gst_object_ref(item->data)));
    GST_OBJECT_UNLOCK(composer);
}

// ---- Caps
// -----------------------------------------------------------------------------------------------------------------------

/// The frame rate of the fastest input.
void choose_rate(const ComposerState& state, GstVideoInfo& info)
{
    info.fps_n = 0;
    info.fps_d = 1;
    for (const PadPtr& pad : state.pads) {
        const auto& format = input_of(pad.get()).format();
        if (format && gst_util_fraction_compare(format->fps_n, format->fps_d, info.fps_n, info.fps_d) > 0) {
            info.fps_n = format->fps_n;
            info.fps_d = format->fps_d;
        }
    }
    if (info.fps_n <= 0) info.fps_n = 25;
}

/// What the canvas is like where downstream leaves it open: the first input that has caps.
CapsPtr reference_caps(GstAggregator* composer)
{
    ComposerState& state = state_of(composer);
    collect_pads(composer);
    for (const PadPtr& pad : state.pads) {
        const auto& format = input_of(pad.get()).format();
        if (!format) continue;
        GstVideoInfo info = *format;
        GST_VIDEO_INFO_INTERLACE_MODE(&info) = GST_VIDEO_INTERLACE_MODE_PROGRESSIVE;
        info.par_n = info.par_d = 1;
        choose_rate(state, info);
        state.pads.clear();
        return CapsPtr(gst_video_info_to_caps(&info));
    }
    state.pads.clear();
    return nullptr;
}

GstFlowReturn update_src_caps(GstAggregator* composer, GstCaps* downstream, GstCaps** result)
{
    const CapsPtr reference = reference_caps(composer);
    if (!reference) return GST_AGGREGATOR_FLOW_NEED_DATA;
    GstVideoInfo info;
    gst_video_info_from_caps(&info, reference.get());
    const CapsPtr bare(gst_caps_copy(reference.get()));
    gst_structure_remove_field(gst_caps_get_structure(bare.get(), 0), "framerate");
    const CapsPtr open(make_other_caps(bare.get(), nullptr));
    CapsPtr possible(gst_caps_intersect_full(downstream, open.get(), GST_CAPS_INTERSECT_FIRST));
    if (gst_caps_is_empty(possible.get())) return GST_FLOW_NOT_NEGOTIATED;
    possible.reset(gst_caps_make_writable(possible.release()));
    for (guint i = 0; i < gst_caps_get_size(possible.get()); ++i) {
        GstStructure* structure = gst_caps_get_structure(possible.get(), i);
        if (!gst_structure_has_field(structure, "framerate"))
            gst_structure_set(structure, "framerate", GST_TYPE_FRACTION, info.fps_n, info.fps_d, nullptr);
        gst_structure_fixate_field_nearest_fraction(structure, "framerate", info.fps_n, info.fps_d);
    }
    *result = fixate_other_caps(reference.get(), possible.release(), false);
    return GST_FLOW_OK;
}

GstClockTime frame_duration(const ComposerState& state)
{
    return gst_util_uint64_scale_int(GST_SECOND, GST_VIDEO_INFO_FPS_D(&state.canvas),
                                     GST_VIDEO_INFO_FPS_N(&state.canvas));
}

gboolean negotiated_src_caps(GstAggregator* composer, GstCaps* caps)
{
    ComposerState& state = state_of(composer);
    GstVideoInfo info;
    if (!gst_video_info_from_caps(&info, caps)) return FALSE;
    if (GST_VIDEO_INFO_FPS_N(&info) <= 0) info.fps_n = 25; // a canvas of no rate is drawn at the usual one
    state.canvas = info;
    ++state.canvas_number;
    state.expected = GST_CLOCK_TIME_NONE; // frames are counted anew, from where the last one ended
    state.filler.configure(Colour{GST_VIDEO_COLOR_MATRIX_RGB, true, false}, colour_of(info),
                           GST_VIDEO_INFO_WIDTH(&info));
    const GstClockTime duration = frame_duration(state);
    gst_aggregator_set_latency(composer, duration, duration);
    return base_class()->negotiated_src_caps ? base_class()->negotiated_src_caps(composer, caps) : TRUE;
}

gboolean decide_allocation(GstAggregator*, GstQuery* query)
{
    while (gst_query_get_n_allocation_pools(query) > 0)
        gst_query_remove_nth_allocation_pool(query, 0);
    if (!put_frame_pool(query) || gst_query_get_n_allocation_pools(query) == 0) return FALSE;
    GstBufferPool* pool = nullptr;
    gst_query_parse_nth_allocation_pool(query, 0, &pool, nullptr, nullptr, nullptr);
    const BufferPoolPtr owner(pool);
    return gst_buffer_pool_set_active(pool, TRUE);
}

gboolean propose_allocation(GstAggregator*, GstAggregatorPad*, GstQuery*, GstQuery* query)
{
    gst_query_add_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr);
    return TRUE;
}

gboolean sink_event(GstAggregator* composer, GstAggregatorPad* pad, GstEvent* event)
{
    if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS) {
        GstCaps* caps = nullptr;
        gst_event_parse_caps(event, &caps);
        GstVideoInfo info;
        if (gst_video_info_from_caps(&info, caps)) input_of(pad).set_format(info);
        // A live canvas may have been asked for before any input was known.
        if (state_of(composer).canvas_number == 0) gst_pad_mark_reconfigure(composer->srcpad);
    }
    return base_class()->sink_event(composer, pad, event);
}

// ---- Time
// -----------------------------------------------------------------------------------------------------------------------

GstClockTime frame_position(const ComposerState& state, guint64 frame)
{
    return state.base + gst_util_uint64_scale(frame, GST_SECOND * static_cast<guint64>(state.canvas.fps_d),
                                              static_cast<guint64>(state.canvas.fps_n));
}

/// The segment of the output. Its position is moved by the base class at the start and by seeks, else by frames.
GstSegment output_segment(GstAggregator* composer)
{
    GST_OBJECT_LOCK(composer);
    const GstSegment segment = GST_AGGREGATOR_PAD(composer->srcpad)->segment;
    GST_OBJECT_UNLOCK(composer);
    return segment;
}

void move_to(GstAggregator* composer, GstClockTime position)
{
    GST_OBJECT_LOCK(composer);
    GST_AGGREGATOR_PAD(composer->srcpad)->segment.position = position;
    GST_OBJECT_UNLOCK(composer);
    state_of(composer).expected = position;
}

void settle_position(GstAggregator* composer, GstSegment& segment)
{
    ComposerState& state = state_of(composer);
    if (!GST_CLOCK_TIME_IS_VALID(segment.position)) segment.position = segment.start;
    if (segment.position == state.expected) return;
    state.base = segment.position;
    state.frame = 0;
}

void finish_frame(GstAggregator* composer)
{
    ComposerState& state = state_of(composer);
    ++state.frame;
    move_to(composer, frame_position(state, state.frame));
}

/// Nothing is known of any input: time goes on all the same, so that the canvas begins with what is live then.
void let_time_pass(GstAggregator* composer)
{
    GstSegment segment = output_segment(composer);
    if (!GST_CLOCK_TIME_IS_VALID(segment.position)) segment.position = segment.start;
    move_to(composer, segment.position + 40 * GST_MSECOND);
    state_of(composer).expected = GST_CLOCK_TIME_NONE;
}

/// Running time of the clock; none where there is no clock.
GstClockTime now(GstAggregator* composer)
{
    GstClock* clock = gst_element_get_clock(GST_ELEMENT(composer));
    if (!clock) return GST_CLOCK_TIME_NONE;
    const GstClockTime time = gst_clock_get_time(clock);
    gst_object_unref(clock);
    const GstClockTime base = gst_element_get_base_time(GST_ELEMENT(composer));
    return time > base ? time - base : 0;
}

/// A machine that is too slow, or was held up, leaves canvases out instead of showing everything later and later.
void catch_up(GstAggregator* composer, GstSegment& segment)
{
    constexpr GstClockTime kTolerance = 500 * GST_MSECOND;
    ComposerState& state = state_of(composer);
    const GstClockTime latency = gst_aggregator_get_latency(composer); // none: not live
    const GstClockTime time = now(composer);
    if (!GST_CLOCK_TIME_IS_VALID(latency) || !GST_CLOCK_TIME_IS_VALID(time)) return;
    const guint64 due = gst_segment_to_running_time(&segment, GST_FORMAT_TIME, segment.position);
    if (!GST_CLOCK_TIME_IS_VALID(due) || time <= due + latency + kTolerance) return;
    const guint64 left_out = (time - due - latency) / frame_duration(state);
    GST_INFO_OBJECT(composer, "behind by %" GST_TIME_FORMAT ", leaving out %" G_GUINT64_FORMAT " frames",
                    GST_TIME_ARGS(time - due - latency), left_out);
    state.frame += left_out;
    segment.position = frame_position(state, state.frame);
}

bool is_of_no_use(GstAggregator* composer, const CanvasTime& time)
{
    GST_OBJECT_LOCK(composer);
    const GstClockTime earliest = state_of(composer).earliest;
    GST_OBJECT_UNLOCK(composer);
    return GST_CLOCK_TIME_IS_VALID(earliest) && time.end <= earliest;
}

/// Remembers by when downstream wants its next frame.
void note_quality(GstAggregator* composer, GstEvent* event)
{
    GstClockTimeDiff difference = 0;
    GstClockTime timestamp = GST_CLOCK_TIME_NONE;
    gst_event_parse_qos(event, nullptr, nullptr, &difference, &timestamp);
    if (!GST_CLOCK_TIME_IS_VALID(timestamp)) return;
    const GstClockTimeDiff wanted = static_cast<GstClockTimeDiff>(timestamp) + (difference > 0 ? 2 : 1) * difference;
    GST_OBJECT_LOCK(composer);
    state_of(composer).earliest = wanted > 0 ? static_cast<GstClockTime>(wanted) : 0;
    GST_OBJECT_UNLOCK(composer);
}

gboolean src_event(GstAggregator* composer, GstEvent* event)
{
    if (GST_EVENT_TYPE(event) != GST_EVENT_QOS) return base_class()->src_event(composer, event);
    // Not for the inputs: a canvas that is left out says nothing about any one of them.
    note_quality(composer, event);
    gst_event_unref(event);
    return TRUE;
}

// ---- Drawing
// --------------------------------------------------------------------------------------------------------------------

/// Fills every row with the background; the first two are converted, the others are copies.
void fill_background(ComposerState& state, const Picture& canvas, guint colour)
{
    const Picture in = state.filler_in.get(GST_VIDEO_FORMAT_BGRA, canvas.width, 2);
    const guint argb = (colour >> 8) | (colour << 24);
    libyuv::ARGBRect(in.data[0], in.stride[0], 0, 0, in.width, in.height, argb);
    const Picture out = state.filler_out.get(canvas.format, canvas.width, 2);
    state.filler.convert(in, out);
    const bool is_planar = is_yuv420(canvas.format);
    for (std::size_t plane = 0; plane < canvas.data.size() && canvas.data[plane]; ++plane) {
        const int rows = plane > 0 ? (canvas.height + 1) / 2 : canvas.height;
        const int pairs = (canvas.width + 1) / 2;
        int bytes = canvas.width;
        if (!is_planar)
            bytes = is_yuv(canvas.format) ? 4 * pairs : canvas.width * bytes_per_pixel(canvas.format);
        else if (plane > 0)
            bytes = canvas.format == GST_VIDEO_FORMAT_I420 ? pairs : 2 * pairs;
        libyuv::CopyPlane(out.data[plane], 0, canvas.data[plane], canvas.stride[plane], bytes, rows);
    }
}

bool overlaps(const Rectangle& a, const Rectangle& b)
{
    return a.x < b.x + b.width && b.x < a.x + a.width && a.y < b.y + b.height && b.y < a.y + a.height;
}

/// Whether opaque tiles that do not overlap make up the whole canvas.
bool is_covered(const std::vector<Layer>& layers, const GstVideoInfo& canvas)
{
    gint64 pixels = 0;
    for (std::size_t i = 0; i < layers.size(); ++i) {
        if (!layers[i].tile->is_opaque()) continue;
        const Rectangle& area = layers[i].tile->visible();
        pixels += gint64{area.width} * area.height;
        for (std::size_t other = 0; other < i; ++other)
            if (layers[other].tile->is_opaque() && overlaps(area, layers[other].tile->visible())) return false;
    }
    return pixels == gint64{GST_VIDEO_INFO_WIDTH(&canvas)} * GST_VIDEO_INFO_HEIGHT(&canvas);
}

/// The inputs that have a picture, lowest first.
void collect_layers(ComposerState& state)
{
    state.layers.clear();
    for (const PadPtr& pad : state.pads) {
        ComposerInput& input = input_of(pad.get());
        if (!input.frame()) continue;
        GST_OBJECT_LOCK(pad.get());
        const TileLayout layout = input.layout;
        const guint zorder = input.zorder;
        GST_OBJECT_UNLOCK(pad.get());
        state.layers.push_back({GST_AGGREGATOR_PAD(pad.get()), layout, zorder, nullptr});
    }
    std::stable_sort(state.layers.begin(), state.layers.end(),
                     [](const Layer& a, const Layer& b) { return a.zorder < b.zorder; });
    for (Layer& layer : state.layers)
        layer.tile = &input_of(layer.pad).tile(state.canvas, state.canvas_number, layer.layout);
}

/// What lies below an opaque tile of the canvas's size need not be drawn.
std::vector<Layer>::const_iterator lowest_seen(const ComposerState& state)
{
    const Rectangle whole{0, 0, GST_VIDEO_INFO_WIDTH(&state.canvas), GST_VIDEO_INFO_HEIGHT(&state.canvas)};
    const auto top = std::find_if(state.layers.rbegin(), state.layers.rend(), [&whole](const Layer& layer) {
        return layer.tile->is_opaque() && layer.tile->visible() == whole;
    });
    return top == state.layers.rend() ? state.layers.begin() : std::prev(top.base());
}

void draw_layer(const Layer& layer, const Picture& canvas)
{
    const ComposerInput& input = input_of(layer.pad);
    const MappedFrame frame(input_layout(input.frame(), input.frame_info()), input.frame(), GST_MAP_READ);
    if (frame)
        layer.tile->draw(picture_of(frame.get()), canvas);
    else
        GST_WARNING_OBJECT(layer.pad, "a frame could not be mapped and is left out");
}

bool draw(GstAggregator* composer, GstBuffer* output)
{
    ComposerState& state = state_of(composer);
    settle_output_layout(output, state.canvas);
    const MappedFrame mapped(state.canvas, output, GST_MAP_WRITE);
    if (!mapped) return false;
    GST_OBJECT_LOCK(composer);
    const guint background = state.background;
    GST_OBJECT_UNLOCK(composer);
    const Picture canvas = picture_of(mapped.get());
    collect_layers(state);
    const auto first = lowest_seen(state);
    const bool hides_all = first != state.layers.end() && first->tile->is_opaque() &&
                           first->tile->visible() == Rectangle{0, 0, canvas.width, canvas.height};
    if (!hides_all && !is_covered(state.layers, state.canvas)) fill_background(state, canvas, background);
    for (auto layer = first; layer != state.layers.end(); ++layer)
        draw_layer(*layer, canvas);
    return true;
}

GstFlowReturn push_canvas(GstAggregator* composer, GstClockTime start, GstClockTime end)
{
    const BufferPoolPtr pool(gst_aggregator_get_buffer_pool(composer));
    if (!pool) return GST_FLOW_NOT_NEGOTIATED;
    GstBuffer* acquired = nullptr;
    const GstFlowReturn flow = gst_buffer_pool_acquire_buffer(pool.get(), &acquired, nullptr);
    if (flow != GST_FLOW_OK) return flow;
    BufferPtr output(acquired);
    if (!draw(composer, output.get())) {
        GST_ELEMENT_ERROR(composer, RESOURCE, FAILED, ("A video frame could not be mapped."), (nullptr));
        return GST_FLOW_ERROR;
    }
    GST_BUFFER_PTS(output.get()) = start;
    GST_BUFFER_DURATION(output.get()) = end - start;
    return gst_aggregator_finish_buffer(composer, output.release());
}

struct InputSummary {
    bool are_all_ended = true;
    bool is_any_wanting = false;
};

InputSummary advance_inputs(const ComposerState& state, const CanvasTime& time)
{
    InputSummary summary;
    summary.are_all_ended = !state.pads.empty();
    for (const PadPtr& pad : state.pads) {
        const InputState input = input_of(pad.get()).advance(GST_AGGREGATOR_PAD(pad.get()), time);
        summary.are_all_ended &= input == InputState::ended;
        summary.is_any_wanting |= input == InputState::wanting;
    }
    return summary;
}

GstFlowReturn aggregate_without_format(GstAggregator* composer, bool is_timeout)
{
    const auto& pads = state_of(composer).pads;
    const bool are_all_ended = !pads.empty() && std::all_of(pads.begin(), pads.end(), [](const PadPtr& pad) {
        return gst_aggregator_pad_is_eos(GST_AGGREGATOR_PAD(pad.get()));
    });
    if (are_all_ended) return GST_FLOW_EOS;
    if (is_timeout) let_time_pass(composer);
    return GST_AGGREGATOR_FLOW_NEED_DATA;
}

GstFlowReturn aggregate_time(GstAggregator* composer, bool is_timeout)
{
    ComposerState& state = state_of(composer);
    if (state.canvas_number == 0) return aggregate_without_format(composer, is_timeout);
    GstSegment segment = output_segment(composer);
    settle_position(composer, segment);
    catch_up(composer, segment);
    const GstClockTime start = segment.position;
    const GstClockTime end = frame_position(state, state.frame + 1);
    if (GST_CLOCK_TIME_IS_VALID(segment.stop) && start >= segment.stop) return GST_FLOW_EOS;
    const GstClockTime running = gst_segment_to_running_time(&segment, GST_FORMAT_TIME, start);
    const CanvasTime time{running, running + (end - start)};
    const InputSummary inputs = advance_inputs(state, time);
    if (inputs.are_all_ended) return GST_FLOW_EOS;
    if (inputs.is_any_wanting && !is_timeout) return GST_AGGREGATOR_FLOW_NEED_DATA;
    const GstFlowReturn flow = is_of_no_use(composer, time) ? GST_FLOW_OK : push_canvas(composer, start, end);
    finish_frame(composer);
    return flow;
}

GstFlowReturn aggregate(GstAggregator* composer, gboolean is_timeout)
{
    collect_pads(composer);
    const GstFlowReturn flow = aggregate_time(composer, is_timeout);
    state_of(composer).layers.clear();
    state_of(composer).pads.clear();
    return flow;
}

void forget_time(GstAggregator* composer)
{
    ComposerState& state = state_of(composer);
    state.expected = GST_CLOCK_TIME_NONE;
    GST_OBJECT_LOCK(composer);
    state.earliest = GST_CLOCK_TIME_NONE;
    GST_OBJECT_UNLOCK(composer);
}

/// The time of the inputs begins anew, and so does the canvas's.
GstFlowReturn flush(GstAggregator* composer)
{
    GST_OBJECT_LOCK(composer);
    GST_AGGREGATOR_PAD(composer->srcpad)->segment.position = GST_CLOCK_TIME_NONE;
    GST_OBJECT_UNLOCK(composer);
    forget_time(composer);
    return GST_FLOW_OK;
}

gboolean stop(GstAggregator* composer)
{
    forget_time(composer);
    collect_pads(composer);
    for (const PadPtr& pad : state_of(composer).pads)
        input_of(pad.get()).reset();
    state_of(composer).pads.clear();
    state_of(composer).canvas_number = 0;
    return TRUE;
}

// ---- The element
// ----------------------------------------------------------------------------------------------------------------

GstPad* request_new_pad(GstElement* element, GstPadTemplate* pad_template, const gchar* name, const GstCaps* caps)
{
    GstPad* pad = GST_ELEMENT_CLASS(vel_composer_parent_class)->request_new_pad(element, pad_template, name, caps);
    if (!pad) return nullptr;
    GST_OBJECT_LOCK(element);
    const guint count = element->numsinkpads;
    GST_OBJECT_UNLOCK(element);
    GST_OBJECT_LOCK(pad);
    input_of(pad).zorder = count > 0 ? count - 1 : 0;
    GST_OBJECT_UNLOCK(pad);
    // Sets what a launch string says about the pad.
    gst_child_proxy_child_added(GST_CHILD_PROXY(element), G_OBJECT(pad), GST_OBJECT_NAME(pad));
    return pad;
}

void release_pad(GstElement* element, GstPad* pad)
{
    gst_child_proxy_child_removed(GST_CHILD_PROXY(element), G_OBJECT(pad), GST_OBJECT_NAME(pad));
    GST_ELEMENT_CLASS(vel_composer_parent_class)->release_pad(element, pad);
}

GObject* get_child_by_index(GstChildProxy* proxy, guint index)
{
    GST_OBJECT_LOCK(proxy);
    gpointer pad = g_list_nth_data(GST_ELEMENT(proxy)->sinkpads, index);
    if (pad) g_object_ref(pad);
    GST_OBJECT_UNLOCK(proxy);
    return static_cast<GObject*>(pad);
}

guint get_children_count(GstChildProxy* proxy)
{
    GST_OBJECT_LOCK(proxy);
    const guint count = GST_ELEMENT(proxy)->numsinkpads;
    GST_OBJECT_UNLOCK(proxy);
    return count;
}

void init_child_proxy(gpointer interface, gpointer)
{
    auto* proxy = static_cast<GstChildProxyInterface*>(interface);
    proxy->get_child_by_index = get_child_by_index;
    proxy->get_children_count = get_children_count;
}

void set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    GST_OBJECT_LOCK(object);
    if (id == kEngine) state_of(object).engine = g_value_get_enum(value);
    if (id == kBackground) state_of(object).background = g_value_get_uint(value);
    GST_OBJECT_UNLOCK(object);
    if (id != kEngine && id != kBackground) G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
}

void get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    GST_OBJECT_LOCK(object);
    if (id == kEngine) g_value_set_enum(value, state_of(object).engine);
    if (id == kBackground) g_value_set_uint(value, state_of(object).background);
    GST_OBJECT_UNLOCK(object);
    if (id != kEngine && id != kBackground) G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
}

void finalize(GObject* object)
{
    delete reinterpret_cast<VelComposer*>(object)->state;
    G_OBJECT_CLASS(vel_composer_parent_class)->finalize(object);
}

void vel_composer_init(VelComposer* self)
{
    self->state = new ComposerState;
}

void install_properties(GObjectClass* klass)
{
    constexpr auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
    g_object_class_install_property(klass, kEngine,
                                    g_param_spec_enum("engine", "Engine",
                                                      "Backend of the platform; all draw alike here", engine_type(),
                                                      kDefaultEngine, flags));
    g_object_class_install_property(
        klass, kBackground,
        g_param_spec_uint("background", "Background", "Colour where no input is (0xRRGGBBAA)", 0, G_MAXUINT,
                          kOpaqueBlack, static_cast<GParamFlags>(flags | GST_PARAM_MUTABLE_PLAYING)));
}

void add_pad_templates(GstElementClass* klass)
{
    const CapsPtr caps(make_template_caps());
    gst_element_class_add_pad_template(klass, gst_pad_template_new_with_gtype("src", GST_PAD_SRC, GST_PAD_ALWAYS,
                                                                              caps.get(), GST_TYPE_AGGREGATOR_PAD));
    gst_element_class_add_pad_template(klass, gst_pad_template_new_with_gtype("sink_%u", GST_PAD_SINK, GST_PAD_REQUEST,
                                                                              caps.get(), composer_pad_type()));
}

void vel_composer_class_init(VelComposerClass* klass)
{
    GObjectClass* object_class = G_OBJECT_CLASS(klass);
    object_class->set_property = set_property;
    object_class->get_property = get_property;
    object_class->finalize = finalize;
    install_properties(object_class);

    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
    element_class->request_new_pad = request_new_pad;
    element_class->release_pad = release_pad;
    add_pad_templates(element_class);
    gst_element_class_set_static_metadata(element_class, "Video composer", "Filter/Editor/Video/Compositor",
                                          "Draws several streams on one canvas", "velstream-gst");

    GstAggregatorClass* aggregator_class = GST_AGGREGATOR_CLASS(klass);
    aggregator_class->update_src_caps = update_src_caps;
    aggregator_class->negotiated_src_caps = negotiated_src_caps;
    aggregator_class->decide_allocation = decide_allocation;
    aggregator_class->propose_allocation = propose_allocation;
    aggregator_class->sink_event = sink_event;
    aggregator_class->src_event = src_event;
    aggregator_class->aggregate = aggregate;
    aggregator_class->get_next_time = gst_aggregator_simple_get_next_time;
    aggregator_class->flush = flush;
    aggregator_class->stop = stop;
}

} // namespace

gboolean register_composer(GstPlugin* plugin)
{
    return gst_element_register(plugin, "qtivcomposer", GST_RANK_NONE, vel_composer_get_type());
}

} // namespace velstream::software
