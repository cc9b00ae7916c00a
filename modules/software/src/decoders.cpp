// The platform's video decoders on libav: a bin of the decoder for the stream's codec and a bridge to NV12.
#include "elements.h"

#include "codec_bridge.h"
#include "codec_chain.h"
#include "codec_properties.h"
#include "pad_templates.h"
#include "waylandsink.h"

#include <algorithm>
#include <optional>

namespace velstream::software {

namespace {

struct DecoderRow {
    const char* factory;
    const char* type_name;
    const char* long_name;
    const char* sink_caps;
    bool has_v4l2_properties;
};

#define VEL_H264_CAPS "video/x-h264, stream-format=(string)byte-stream, alignment=(string)au"
#define VEL_H265_CAPS "video/x-h265, stream-format=(string)byte-stream, alignment=(string)au"

constexpr DecoderRow kDecoders[] = {
    {"qtivdec", "VelQtiVDec", "H.264 and H.265 decoder (software)", VEL_H264_CAPS "; " VEL_H265_CAPS, false},
    {"qtic2vdec", "VelQtiC2VDec", "Codec 2 H.264 and H.265 decoder (software)", VEL_H264_CAPS "; " VEL_H265_CAPS,
     false},
    {"v4l2h264dec", "VelV4l2H264Dec", "V4L2 H.264 decoder (software)", VEL_H264_CAPS, true},
    {"v4l2h265dec", "VelV4l2H265Dec", "V4L2 H.265 decoder (software)", VEL_H265_CAPS, true},
};

// The plain structure comes first, so that an unconstrained link gives plain caps.
constexpr const char* kSourceCaps =
    "video/x-raw, format=(string)NV12, width=(int)[ 1, 32768 ], height=(int)[ 1, 32768 ], "
    "framerate=(fraction)[ 0/1, 2147483647/1 ]; "
    "video/x-raw(memory:GBM), format=(string)NV12, width=(int)[ 1, 32768 ], "
    "height=(int)[ 1, 32768 ], framerate=(fraction)[ 0/1, 2147483647/1 ]";

enum DecoderProperty : guint {
    kDiscardCorruptedFrames = 1,
    kAutomaticRequestSyncPoints,
    kMaxErrors,
    kQos,
    kFirstV4l2Property,
};

/// The settings that the inner decoder takes under the same names; guarded by the object lock.
struct DecoderSettings {
    bool discard_corrupted_frames = false;
    bool automatic_request_sync_points = false;
    int max_errors = -1;
    bool qos = true;
};

struct DecoderState {
    explicit DecoderState(GstBin* bin) : chain(bin) {}
    ~DecoderState() { g_clear_pointer(&v4l2.extra_controls, gst_structure_free); }

    CodecChain chain;
    std::optional<Codec> codec; ///< what `chain` decodes; none: nothing is installed
    DecoderSettings settings;
    V4l2Values v4l2;
    GstPadEventFunction forward_event = nullptr; ///< the ghost pad's own
    GstPadQueryFunction forward_query = nullptr; ///< likewise
};

struct VelDecoder {
    GstBin parent;
    DecoderState* state; ///< owned
};

struct VelDecoderClass {
    GstBinClass parent_class;
};

GstElementClass* parent_class = nullptr;

DecoderState& state_of(gpointer object)
{
    return *static_cast<VelDecoder*>(object)->state;
}

const char* inner_factory(Codec codec)
{
    return codec == Codec::h265 ? "avdec_h265" : "avdec_h264";
}

Codec first_codec(GstElement* element)
{
    const CapsPtr caps(
        gst_pad_template_get_caps(gst_element_class_get_pad_template(GST_ELEMENT_GET_CLASS(element), "sink")));
    return codec_of(caps.get());
}

void apply_settings(GstElement* element, GstElement* decoder)
{
    GST_OBJECT_LOCK(element);
    const DecoderSettings settings = state_of(element).settings;
    GST_OBJECT_UNLOCK(element);
    g_object_set(decoder, "discard-corrupted-frames", settings.discard_corrupted_frames,
                 "automatic-request-sync-points", settings.automatic_request_sync_points, "max-errors",
                 settings.max_errors, "qos", settings.qos, nullptr);
}

bool install_decoder(GstElement* element, Codec codec)
{
    DecoderState& state = state_of(element);
    state.codec.reset();
    ElementPtr decoder = make_element(inner_factory(codec));
    if (!decoder) {
        GST_ELEMENT_ERROR(element, CORE, MISSING_PLUGIN,
                          ("%s is missing: install the package gstreamer1.0-libav.", inner_factory(codec)), (nullptr));
        return false;
    }
    apply_settings(element, decoder.get());
    std::vector<ElementPtr> elements;
    elements.push_back(std::move(decoder));
    elements.push_back(make_bridge(kDecoderBridge));
    if (!state.chain.install(std::move(elements))) return false;
    state.codec = codec;
    return true;
}

/// Whether upstream can be sought: recorded media then, whatever it says about being live.
bool is_recorded(GstPad* sink)
{
    GstQuery* query = gst_query_new_seeking(GST_FORMAT_TIME);
    gboolean is_seekable = FALSE;
    if (gst_pad_peer_query(sink, query)) gst_query_parse_seeking(query, nullptr, &is_seekable, nullptr, nullptr);
    gst_query_unref(query);
    return is_seekable;
}

/// While the decoder settles its buffer pool with what is behind it, a frame thread may get a buffer of another pool.
/// Where pictures are cropped its size is another, and GStreamer 1.26 ends the process over that: one start in some
/// hundred.
bool frame_threads_need_own_buffers()
{
    guint major = 0;
    guint minor = 0;
    guint ignored = 0;
    gst_version(&major, &minor, &ignored, &ignored);
    return major > 1 || minor >= 24;
}

/// Frame threads decode recorded media fastest, but each holds a frame back, which nobody wants of a source that runs
/// in real time: RTMP and an appsrc do not always say that they are live. Two more threads than processors keep all of
/// them busy while the bridge copies.
void choose_threads(GstElement* decoder, GstPad* sink)
{
    if (is_recorded(sink)) {
        gst_util_set_object_arg(G_OBJECT(decoder), "thread-type", "0");
        g_object_set(decoder, "max-threads", static_cast<gint>(std::min(g_get_num_processors() + 2, 16U)), nullptr);
        if (frame_threads_need_own_buffers()) g_object_set(decoder, "direct-rendering", FALSE, nullptr);
    } else {
        gst_util_set_object_arg(G_OBJECT(decoder), "thread-type", "slice");
        g_object_set(decoder, "max-threads", 0, nullptr);
    }
}

/// The stream says what it is: changes the inner decoder where it is the other codec's.
bool follow_caps(GstElement* element, GstEvent* event)
{
    GstCaps* caps = nullptr;
    gst_event_parse_caps(event, &caps);
    DecoderState& state = state_of(element);
    const Codec codec = codec_of(caps);
    if (state.codec != codec) {
        state.chain.drain();
        if (!install_decoder(element, codec)) return false;
    }
    choose_threads(state.chain.at(0), state.chain.sink());
    return true;
}

gboolean sink_event(GstPad* pad, GstObject* parent, GstEvent* event)
{
    if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS && !follow_caps(GST_ELEMENT(parent), event)) {
        gst_event_unref(event);
        return FALSE;
    }
    return state_of(parent).forward_event(pad, parent, event);
}

/// Caps are the element's own, whatever codec is inside at the moment.
gboolean sink_query(GstPad* pad, GstObject* parent, GstQuery* query)
{
    const CapsPtr caps(gst_pad_get_pad_template_caps(pad));
    if (GST_QUERY_TYPE(query) == GST_QUERY_CAPS) {
        GstCaps* filter = nullptr;
        gst_query_parse_caps(query, &filter);
        const CapsPtr result(filter ? gst_caps_intersect_full(filter, caps.get(), GST_CAPS_INTERSECT_FIRST)
                                    : gst_caps_ref(caps.get()));
        gst_query_set_caps_result(query, result.get());
        return TRUE;
    }
    if (GST_QUERY_TYPE(query) == GST_QUERY_ACCEPT_CAPS) {
        GstCaps* asked = nullptr;
        gst_query_parse_accept_caps(query, &asked);
        gst_query_set_accept_caps_result(query, gst_caps_can_intersect(asked, caps.get()));
        return TRUE;
    }
    return state_of(parent).forward_query(pad, parent, query);
}

GstStateChangeReturn change_state(GstElement* element, GstStateChange transition)
{
    if (transition == GST_STATE_CHANGE_NULL_TO_READY && state_of(element).chain.empty() &&
        !install_decoder(element, first_codec(element)))
        return GST_STATE_CHANGE_FAILURE;
    return parent_class->change_state(element, transition);
}

void store_setting(VelDecoder* self, guint id, const GValue* value)
{
    DecoderSettings& settings = self->state->settings;
    GST_OBJECT_LOCK(self);
    switch (id) {
    case kDiscardCorruptedFrames:
        settings.discard_corrupted_frames = g_value_get_boolean(value);
        break;
    case kAutomaticRequestSyncPoints:
        settings.automatic_request_sync_points = g_value_get_boolean(value);
        break;
    case kMaxErrors:
        settings.max_errors = g_value_get_int(value);
        break;
    case kQos:
        settings.qos = g_value_get_boolean(value);
        break;
    default:
        break;
    }
    GST_OBJECT_UNLOCK(self);
}

/// The decoder inside at the moment, with a reference; it may be replaced at any time by the streaming thread.
ElementPtr current_decoder(GstElement* element)
{
    const PadPtr target(gst_ghost_pad_get_target(GST_GHOST_PAD(state_of(element).chain.sink())));
    return ElementPtr(target ? gst_pad_get_parent_element(target.get()) : nullptr);
}

void set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    auto* self = reinterpret_cast<VelDecoder*>(object);
    if (id < kFirstV4l2Property) {
        store_setting(self, id, value);
        const ElementPtr decoder = current_decoder(GST_ELEMENT(object));
        if (decoder) apply_settings(GST_ELEMENT(object), decoder.get());
    } else if (!set_v4l2_property(GST_OBJECT(object), self->state->v4l2, id - kFirstV4l2Property, value)) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
    }
}

void get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    const auto* self = reinterpret_cast<VelDecoder*>(object);
    GST_OBJECT_LOCK(object);
    const DecoderSettings settings = self->state->settings;
    GST_OBJECT_UNLOCK(object);
    switch (id) {
    case kDiscardCorruptedFrames:
        g_value_set_boolean(value, settings.discard_corrupted_frames);
        break;
    case kAutomaticRequestSyncPoints:
        g_value_set_boolean(value, settings.automatic_request_sync_points);
        break;
    case kMaxErrors:
        g_value_set_int(value, settings.max_errors);
        break;
    case kQos:
        g_value_set_boolean(value, settings.qos);
        break;
    default:
        if (!get_v4l2_property(GST_OBJECT(object), self->state->v4l2, id - kFirstV4l2Property, value))
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
    }
}

void finalize(GObject* object)
{
    delete reinterpret_cast<VelDecoder*>(object)->state;
    G_OBJECT_CLASS(parent_class)->finalize(object);
}

void instance_init(GTypeInstance* instance, gpointer)
{
    prepare_waylandsink();
    auto* self = reinterpret_cast<VelDecoder*>(instance);
    self->state = new DecoderState(GST_BIN(self));
    GstPad* sink = self->state->chain.sink();
    self->state->forward_event = GST_PAD_EVENTFUNC(sink);
    self->state->forward_query = GST_PAD_QUERYFUNC(sink);
    gst_pad_set_event_function(sink, sink_event);
    gst_pad_set_query_function(sink, sink_query);
}

void install_properties(GObjectClass* klass, const DecoderRow& row)
{
    constexpr auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
    g_object_class_install_property(klass, kDiscardCorruptedFrames,
                                    g_param_spec_boolean("discard-corrupted-frames", "Discard corrupted frames",
                                                         "Drop frames marked as corrupted", FALSE, flags));
    g_object_class_install_property(klass, kAutomaticRequestSyncPoints,
                                    g_param_spec_boolean("automatic-request-sync-points", "Request sync points",
                                                         "Ask upstream for a key frame when one is useful", FALSE,
                                                         flags));
    g_object_class_install_property(
        klass, kMaxErrors,
        g_param_spec_int("max-errors", "Max errors",
                         "Consecutive decoder errors before the stream fails, -1: unlimited", -1, G_MAXINT, -1, flags));
    g_object_class_install_property(
        klass, kQos, g_param_spec_boolean("qos", "QoS", "Skip frames that downstream finds late", TRUE, flags));
    if (row.has_v4l2_properties) install_v4l2_properties(klass, kFirstV4l2Property);
}

void class_init(gpointer klass, gpointer data)
{
    const auto& row = *static_cast<const DecoderRow*>(data);
    parent_class = GST_ELEMENT_CLASS(g_type_class_peek_parent(klass));
    GObjectClass* object_class = G_OBJECT_CLASS(klass);
    object_class->set_property = set_property;
    object_class->get_property = get_property;
    object_class->finalize = finalize;
    install_properties(object_class, row);
    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
    element_class->change_state = change_state;
    const CapsPtr sink_caps(gst_caps_from_string(row.sink_caps));
    const CapsPtr src_caps(gst_caps_from_string(kSourceCaps));
    add_pad_templates(element_class, sink_caps.get(), src_caps.get());
    gst_element_class_set_static_metadata(element_class, row.long_name, "Codec/Decoder/Video",
                                          "Decodes to NV12 through libav", "velstream-gst");
}

GType decoder_type(const DecoderRow& row)
{
    const GTypeInfo info = {sizeof(VelDecoderClass), nullptr, nullptr,       class_init, nullptr, &row,
                            sizeof(VelDecoder),      0,       instance_init, nullptr};
    return g_type_register_static(GST_TYPE_BIN, row.type_name, &info, GTypeFlags{});
}

} // namespace

gboolean register_decoders(GstPlugin* plugin)
{
    for (const DecoderRow& row : kDecoders) {
        if (!gst_element_register(plugin, row.factory, GST_RANK_NONE, decoder_type(row))) return FALSE;
    }
    return TRUE;
}

} // namespace velstream::software
