// The platform's video encoders on x264 and x265, tuned for live use: every frame comes out at once, so no B-frames, no
// look-ahead and no frame threads. Single-slice pictures up to 1080p, as the hardware's.
#include "elements.h"

#include "codec_bridge.h"
#include "codec_chain.h"
#include "codec_properties.h"
#include "pad_templates.h"
#include "waylandsink.h"

#include <algorithm>
#include <cstdint>
#include <string>

namespace velstream::software {

namespace {

struct EncoderRow {
    const char* factory;
    const char* type_name;
    const char* long_name;
    const char* sink_formats; ///< the "format" part of the sink caps
    const char* src_caps;
    bool is_v4l2;
};

#define VEL_H264_CAPS                                                                                                  \
    "video/x-h264, stream-format=(string){ byte-stream, avc }, alignment=(string)au, profile=(string){ high, main, "   \
    "baseline, constrained-baseline }"
#define VEL_H265_CAPS                                                                                                  \
    "video/x-h265, stream-format=(string){ byte-stream, hvc1, hev1 }, alignment=(string)au, profile=(string)main"

constexpr EncoderRow kEncoders[] = {
    {"qtic2venc", "VelQtiC2VEnc", "Codec 2 H.264 and H.265 encoder (software)", "NV12",
     VEL_H264_CAPS "; " VEL_H265_CAPS, false},
    {"v4l2h264enc", "VelV4l2H264Enc", "V4L2 H.264 encoder (software)", "{ NV12, NV21, I420 }", VEL_H264_CAPS, true},
    {"v4l2h265enc", "VelV4l2H265Enc", "V4L2 H.265 encoder (software)", "{ NV12, NV21, I420 }", VEL_H265_CAPS, true},
};

enum EncoderProperty : guint {
    kTargetBitrate = 1,
    kBFrames,
    kIdrInterval,
    kControlRate,
    kFirstV4l2Property = kControlRate, // the V4L2 elements have neither "idr-interval" ...
};
// ... nor "control-rate": the ids of the two kinds overlap on purpose, each class has only its own.

enum ControlRate : int { kDisable, kVariable, kConstant, kVariableSkipFrames, kConstantSkipFrames };

/// What the application asked for; guarded by the object lock.
struct EncoderSettings {
    guint target_bitrate = 0; ///< bit/s; 0: by picture size and rate
    guint b_frames = 0;       ///< kept and reported only: a B-frame would hold its frame back
    guint idr_interval = 0;   ///< frames; 0: two seconds
    int control_rate = kConstant;
};

/// Everything that a running encoder cannot change: another plan needs fresh elements.
struct EncoderPlan {
    Codec codec = Codec::h264;
    guint key_interval = 0; ///< frames
    int control_rate = kConstant;
    bool is_large = false; ///< more than 1080p: slices are encoded side by side

    bool operator==(const EncoderPlan&) const = default;
};

struct EncoderState {
    explicit EncoderState(GstBin* bin) : chain(bin) {}
    ~EncoderState() { g_clear_pointer(&v4l2.extra_controls, gst_structure_free); }

    CodecChain chain;
    EncoderPlan plan;            ///< of what is in `chain`
    guint default_bitrate = 0;   ///< bit/s for the current size; written by the streaming thread under the object lock
    GstClockTime time_shift = 0; ///< what the inner encoder adds to every time stamp; streaming thread only
    EncoderSettings settings;
    V4l2Values v4l2;
    GstPadEventFunction forward_event = nullptr;
    GstPadQueryFunction forward_query = nullptr;
};

struct VelEncoder {
    GstBin parent;
    EncoderState* state; ///< owned
};

struct VelEncoderClass {
    GstBinClass parent_class;
    const EncoderRow* row;
};

GstElementClass* parent_class = nullptr;

EncoderState& state_of(gpointer object)
{
    return *static_cast<VelEncoder*>(object)->state;
}

const EncoderRow& row_of(gpointer object)
{
    return *reinterpret_cast<VelEncoderClass*>(G_OBJECT_GET_CLASS(object))->row;
}

const char* inner_factory(Codec codec)
{
    return codec == Codec::h265 ? "x265enc" : "x264enc";
}

// ---- Settings
// ----------------------------------------------------------------------------------------------------------

guint control_value(const V4l2Values& values, const char* name)
{
    int value = 0;
    if (!values.extra_controls || !gst_structure_get(values.extra_controls, name, G_TYPE_INT, &value, nullptr))
        return 0;
    return value > 0 ? static_cast<guint>(value) : 0;
}

/// The settings as they count: the V4L2 controls are the documented way, so they win. Called with the object lock held.
EncoderSettings effective_settings(const EncoderState& state)
{
    EncoderSettings settings = state.settings;
    if (const guint bitrate = control_value(state.v4l2, "video_bitrate")) settings.target_bitrate = bitrate;
    if (const guint interval = control_value(state.v4l2, "video_gop_size")) settings.idr_interval = interval;
    if (settings.target_bitrate == 0) settings.target_bitrate = state.default_bitrate;
    return settings;
}

EncoderSettings current_settings(GstElement* element)
{
    GST_OBJECT_LOCK(element);
    const EncoderSettings settings = effective_settings(state_of(element));
    GST_OBJECT_UNLOCK(element);
    return settings;
}

double frame_rate(const GstVideoInfo& info)
{
    const int numerator = GST_VIDEO_INFO_FPS_N(&info);
    const int denominator = GST_VIDEO_INFO_FPS_D(&info);
    return numerator > 0 && denominator > 0 ? static_cast<double>(numerator) / denominator : 30.0;
}

/// A tenth of a bit for each pixel, H.265 two thirds of that: 2.3 Mbit/s for H.264 at 1280 x 720 and 25 frames a
/// second.
guint default_bitrate(const GstVideoInfo& info, Codec codec)
{
    const double pixels = static_cast<double>(GST_VIDEO_INFO_WIDTH(&info)) * GST_VIDEO_INFO_HEIGHT(&info);
    const double bits = pixels * std::min(frame_rate(info), 120.0) * (codec == Codec::h265 ? 0.066 : 0.1);
    return static_cast<guint>(std::clamp(bits, 200'000.0, 30'000'000.0));
}

/// The encoders count in kbit/s.
guint to_kilobits(guint bits, guint most)
{
    return std::clamp((bits + 500) / 1000, 1U, most);
}

void apply_bitrate(GstElement* element, GstElement* encoder, Codec codec)
{
    const guint most = codec == Codec::h265 ? 102'400 : 2'048'000;
    g_object_set(encoder, "bitrate", to_kilobits(current_settings(element).target_bitrate, most), nullptr);
}

// ---- The inner elements
// ------------------------------------------------------------------------------------------------

bool is_constant_rate(int control_rate)
{
    return control_rate == kConstant || control_rate == kConstantSkipFrames;
}

ElementPtr make_h264_encoder(const EncoderPlan& plan)
{
    ElementPtr encoder = make_element("x264enc");
    if (!encoder) return encoder;
    gst_util_set_object_arg(G_OBJECT(encoder.get()), "tune", "zerolatency");
    gst_util_set_object_arg(G_OBJECT(encoder.get()), "speed-preset", "superfast");
    // Sliced threads cut a picture into as many slices; some receivers count each as a picture.
    g_object_set(encoder.get(), "threads", plan.is_large ? 0U : 1U, "key-int-max", plan.key_interval, "bframes", 0U,
                 "rc-lookahead", 0, "sync-lookahead", 0, "mb-tree", FALSE, nullptr);
    if (plan.control_rate == kDisable)
        gst_util_set_object_arg(G_OBJECT(encoder.get()), "pass", "quant");
    else
        g_object_set(encoder.get(), "vbv-buf-capacity", is_constant_rate(plan.control_rate) ? 1000U : 0U, nullptr);
    return encoder;
}

ElementPtr make_h265_encoder(const EncoderPlan& plan)
{
    ElementPtr encoder = make_element("x265enc");
    if (!encoder) return encoder;
    gst_util_set_object_arg(G_OBJECT(encoder.get()), "tune", "zerolatency");
    gst_util_set_object_arg(G_OBJECT(encoder.get()), "speed-preset", "ultrafast");
    if (plan.control_rate == kDisable) g_object_set(encoder.get(), "qp", 28, nullptr);
    g_object_set(encoder.get(), "key-int-max", static_cast<gint>(plan.key_interval), "option-string",
                 "bframes=0:rc-lookahead=0:frame-threads=1:open-gop=0:info=0", nullptr);
    return encoder;
}

ElementPtr make_encoder(const EncoderPlan& plan)
{
    return plan.codec == Codec::h265 ? make_h265_encoder(plan) : make_h264_encoder(plan);
}

/// Takes the inner encoder's shift (room for negative decoding times, which nothing here needs) out of a segment.
GstPadProbeReturn unshift_segment(GstElement* element, GstPadProbeInfo* info)
{
    EncoderState& state = state_of(element);
    const GstSegment* shifted = nullptr;
    gst_event_parse_segment(GST_PAD_PROBE_INFO_EVENT(info), &shifted);
    const EventPtr sticky(gst_pad_get_sticky_event(state.chain.sink(), GST_EVENT_SEGMENT, 0));
    const GstSegment* original = nullptr;
    if (sticky) gst_event_parse_segment(sticky.get(), &original);
    state.time_shift = 0;
    if (!original || original->format != GST_FORMAT_TIME || shifted->format != GST_FORMAT_TIME ||
        shifted->start <= original->start)
        return GST_PAD_PROBE_OK;
    state.time_shift = shifted->start - original->start;
    GstEvent* plain = gst_event_new_segment(original);
    gst_event_set_seqnum(plain, gst_event_get_seqnum(GST_PAD_PROBE_INFO_EVENT(info)));
    gst_event_unref(GST_PAD_PROBE_INFO_EVENT(info));
    GST_PAD_PROBE_INFO_DATA(info) = plain;
    return GST_PAD_PROBE_OK;
}

void unshift_buffer(GstPadProbeInfo* info, GstClockTime shift)
{
    GstBuffer* buffer = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(info));
    if (GST_BUFFER_PTS_IS_VALID(buffer)) GST_BUFFER_PTS(buffer) -= std::min(shift, GST_BUFFER_PTS(buffer));
    if (GST_BUFFER_DTS_IS_VALID(buffer)) GST_BUFFER_DTS(buffer) -= std::min(shift, GST_BUFFER_DTS(buffer));
    GST_PAD_PROBE_INFO_DATA(info) = buffer;
}

/// On the inner encoder's source pad: times leave as they came.
GstPadProbeReturn unshift_times(GstPad*, GstPadProbeInfo* info, gpointer element)
{
    if (info->type & GST_PAD_PROBE_TYPE_BUFFER) {
        if (state_of(element).time_shift != 0) unshift_buffer(info, state_of(element).time_shift);
    } else if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_SEGMENT) {
        return unshift_segment(GST_ELEMENT(element), info);
    }
    return GST_PAD_PROBE_OK;
}

bool install_encoder(GstElement* element, const EncoderPlan& plan)
{
    ElementPtr encoder = make_encoder(plan);
    ElementPtr parser = plan.codec == Codec::h265 ? make_element("h265parse") : nullptr;
    if (!encoder || (plan.codec == Codec::h265 && !parser)) {
        GST_ELEMENT_ERROR(
            element, CORE, MISSING_PLUGIN,
            ("%s is missing: install the packages gstreamer1.0-plugins-ugly and gstreamer1.0-plugins-bad.",
             encoder ? "h265parse" : inner_factory(plan.codec)),
            (nullptr));
        return false;
    }
    // x265enc gives byte-stream only; the parser makes hvc1 or hev1 of it, and puts the parameter sets before each key
    // frame. x265's own "repeat-headers" is no way to them: x265enc then sends stray bytes in the first access unit.
    if (parser) g_object_set(parser.get(), "config-interval", -1, nullptr);
    apply_bitrate(element, encoder.get(), plan.codec);
    const PadPtr src(gst_element_get_static_pad(encoder.get(), "src"));
    constexpr auto probed =
        static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM);
    gst_pad_add_probe(src.get(), probed, unshift_times, element, nullptr);
    std::vector<ElementPtr> elements;
    elements.push_back(make_bridge(plan.codec == Codec::h265 ? kH265EncoderBridge : kH264EncoderBridge));
    elements.push_back(std::move(encoder));
    if (parser) elements.push_back(std::move(parser));
    state_of(element).time_shift = 0;
    state_of(element).plan = plan;
    return state_of(element).chain.install(std::move(elements));
}

// ---- Negotiation
// -------------------------------------------------------------------------------------------------------

bool has_codec(const GstCaps* caps, const char* media_type)
{
    for (guint i = 0; i < gst_caps_get_size(caps); ++i) {
        if (gst_structure_has_name(gst_caps_get_structure(caps, i), media_type)) return true;
    }
    return false;
}

/// What downstream takes of this element's own source caps.
CapsPtr allowed_source_caps(GstElement* element)
{
    GstPad* src = state_of(element).chain.src();
    CapsPtr own(gst_pad_get_pad_template_caps(src));
    CapsPtr peer(gst_pad_peer_query_caps(src, own.get()));
    return peer && !gst_caps_is_empty(peer.get()) ? std::move(peer) : std::move(own);
}

EncoderPlan make_plan(GstElement* element, const GstVideoInfo& info)
{
    const CapsPtr allowed = allowed_source_caps(element);
    const EncoderSettings settings = current_settings(element);
    EncoderPlan plan;
    plan.codec = has_codec(allowed.get(), "video/x-h264") ? Codec::h264 : Codec::h265;
    plan.key_interval = settings.idr_interval ? settings.idr_interval : static_cast<guint>(frame_rate(info) * 2 + 0.5);
    plan.control_rate = settings.control_rate;
    plan.is_large = GST_VIDEO_INFO_WIDTH(&info) * GST_VIDEO_INFO_HEIGHT(&info) > 1920 * 1088;
    return plan;
}

bool check_size(GstElement* element, const GstVideoInfo& info)
{
    const int width = GST_VIDEO_INFO_WIDTH(&info);
    const int height = GST_VIDEO_INFO_HEIGHT(&info);
    if (width % 2 == 0 && height % 2 == 0 && width >= 16 && height >= 16) return true;
    GST_ELEMENT_ERROR(element, STREAM, FORMAT,
                      ("%d x %d cannot be encoded: width and height must be even and at least 16.", width, height),
                      ("4:2:0 pictures have one colour sample for 2 x 2 pixels"));
    return false;
}

/// New input: decides codec and rate anew, and puts fresh elements in where the running ones cannot follow.
bool follow_caps(GstElement* element, GstEvent* event)
{
    GstCaps* caps = nullptr;
    GstVideoInfo info;
    gst_event_parse_caps(event, &caps);
    if (!gst_video_info_from_caps(&info, caps)) return false;
    if (!check_size(element, info)) return false;
    EncoderState& state = state_of(element);
    const EncoderPlan plan = make_plan(element, info);
    GST_OBJECT_LOCK(element);
    state.default_bitrate = default_bitrate(info, plan.codec);
    GST_OBJECT_UNLOCK(element);
    if (plan == state.plan && !state.chain.empty()) {
        apply_bitrate(element, state.chain.at(1), plan.codec);
        return true;
    }
    state.chain.drain();
    return install_encoder(element, plan);
}

gboolean sink_event(GstPad* pad, GstObject* parent, GstEvent* event)
{
    if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS && !follow_caps(GST_ELEMENT(parent), event)) {
        gst_event_unref(event);
        return FALSE;
    }
    return state_of(parent).forward_event(pad, parent, event);
}

void copy_field(const GstStructure* from, GstStructure* to, const char* field)
{
    const GValue* value = gst_structure_get_value(from, field);
    if (value) gst_structure_set_value(to, field, value);
}

/// The sink template, narrowed to the sizes and rates that downstream asks for.
CapsPtr wanted_sink_caps(GstElement* element)
{
    const CapsPtr own(gst_pad_get_pad_template_caps(state_of(element).chain.sink()));
    const CapsPtr allowed = allowed_source_caps(element);
    CapsPtr wanted(gst_caps_new_empty());
    for (guint a = 0; a < gst_caps_get_size(allowed.get()); ++a) {
        CapsPtr narrowed(gst_caps_copy(own.get()));
        for (guint i = 0; i < gst_caps_get_size(narrowed.get()); ++i) {
            for (const char* field : {"width", "height", "framerate", "pixel-aspect-ratio"})
                copy_field(gst_caps_get_structure(allowed.get(), a), gst_caps_get_structure(narrowed.get(), i), field);
        }
        wanted.reset(gst_caps_merge(wanted.release(), gst_caps_intersect(narrowed.get(), own.get())));
    }
    return wanted;
}

/// Caps are the element's own, whatever encoder is inside at the moment.
gboolean sink_query(GstPad* pad, GstObject* parent, GstQuery* query)
{
    if (GST_QUERY_TYPE(query) == GST_QUERY_CAPS) {
        GstCaps* filter = nullptr;
        gst_query_parse_caps(query, &filter);
        CapsPtr result = wanted_sink_caps(GST_ELEMENT(parent));
        if (filter) result.reset(gst_caps_intersect_full(filter, result.get(), GST_CAPS_INTERSECT_FIRST));
        gst_query_set_caps_result(query, result.get());
        return TRUE;
    }
    if (GST_QUERY_TYPE(query) == GST_QUERY_ACCEPT_CAPS) {
        const CapsPtr caps(gst_pad_get_pad_template_caps(pad));
        GstCaps* asked = nullptr;
        gst_query_parse_accept_caps(query, &asked);
        gst_query_set_accept_caps_result(query, gst_caps_is_subset(asked, caps.get()));
        return TRUE;
    }
    return state_of(parent).forward_query(pad, parent, query);
}

/// What may come out is the element's own choice too: the codec is settled only when the input's caps arrive.
gboolean src_query(GstPad* pad, GstObject* parent, GstQuery* query)
{
    if (GST_QUERY_TYPE(query) != GST_QUERY_CAPS) return gst_pad_query_default(pad, parent, query);
    const CapsPtr caps(gst_pad_get_pad_template_caps(pad));
    GstCaps* filter = nullptr;
    gst_query_parse_caps(query, &filter);
    const CapsPtr result(filter ? gst_caps_intersect_full(filter, caps.get(), GST_CAPS_INTERSECT_FIRST)
                                : gst_caps_ref(caps.get()));
    gst_query_set_caps_result(query, result.get());
    return TRUE;
}

GstStateChangeReturn change_state(GstElement* element, GstStateChange transition)
{
    if (transition == GST_STATE_CHANGE_NULL_TO_READY && state_of(element).chain.empty()) {
        EncoderPlan plan;
        plan.codec = has_codec(CapsPtr(gst_caps_from_string(row_of(element).src_caps)).get(), "video/x-h264")
                         ? Codec::h264
                         : Codec::h265;
        if (!install_encoder(element, plan)) return GST_STATE_CHANGE_FAILURE;
    }
    return parent_class->change_state(element, transition);
}

// ---- GObject
// -----------------------------------------------------------------------------------------------------------

GType control_rate_type()
{
    static const GEnumValue rates[] = {
        {kDisable, "Constant quality", "disable"},
        {kVariable, "Variable rate", "variable"},
        {kConstant, "Constant rate", "constant"},
        {kVariableSkipFrames, "Variable rate (no frame is skipped here)", "variable-skip-frames"},
        {kConstantSkipFrames, "Constant rate (no frame is skipped here)", "constant-skip-frames"},
        {0, nullptr, nullptr},
    };
    static const GType type = g_enum_register_static("VelSoftwareControlRate", rates);
    return type;
}

/// The encoder inside at the moment, with a reference; it may be replaced at any time by the streaming thread.
ElementPtr current_encoder(GstElement* element)
{
    const PadPtr target(gst_ghost_pad_get_target(GST_GHOST_PAD(state_of(element).chain.sink())));
    const ElementPtr bridge(target ? gst_pad_get_parent_element(target.get()) : nullptr);
    if (!bridge) return nullptr;
    const PadPtr out(gst_element_get_static_pad(bridge.get(), "src"));
    const PadPtr in(gst_pad_get_peer(out.get()));
    return ElementPtr(in ? gst_pad_get_parent_element(in.get()) : nullptr);
}

/// A new rate counts at once, also while frames flow.
void update_bitrate(GstElement* element)
{
    const ElementPtr encoder = current_encoder(element);
    if (!encoder || current_settings(element).target_bitrate == 0) return;
    const bool is_h265 =
        g_strcmp0(GST_OBJECT_NAME(gst_element_get_factory(encoder.get())), inner_factory(Codec::h265)) == 0;
    apply_bitrate(element, encoder.get(), is_h265 ? Codec::h265 : Codec::h264);
}

bool store_setting(VelEncoder* self, guint id, const GValue* value)
{
    EncoderSettings& settings = self->state->settings;
    const bool is_v4l2 = row_of(self).is_v4l2;
    GST_OBJECT_LOCK(self);
    bool is_known = true;
    if (id == kTargetBitrate)
        settings.target_bitrate = g_value_get_uint(value);
    else if (id == kBFrames)
        settings.b_frames = g_value_get_uint(value);
    else if (!is_v4l2 && id == kIdrInterval)
        settings.idr_interval = g_value_get_uint(value);
    else if (!is_v4l2 && id == kControlRate)
        settings.control_rate = g_value_get_enum(value);
    else
        is_known = false;
    GST_OBJECT_UNLOCK(self);
    return is_known;
}

void set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    auto* self = reinterpret_cast<VelEncoder*>(object);
    if (!store_setting(self, id, value) &&
        !set_v4l2_property(GST_OBJECT(object), self->state->v4l2, id - kFirstV4l2Property, value)) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        return;
    }
    update_bitrate(GST_ELEMENT(object));
}

void get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    const auto* self = reinterpret_cast<VelEncoder*>(object);
    GST_OBJECT_LOCK(object);
    const EncoderSettings settings = self->state->settings;
    GST_OBJECT_UNLOCK(object);
    const bool is_v4l2 = row_of(object).is_v4l2;
    if (id == kTargetBitrate)
        g_value_set_uint(value, settings.target_bitrate);
    else if (id == kBFrames)
        g_value_set_uint(value, settings.b_frames);
    else if (!is_v4l2 && id == kIdrInterval)
        g_value_set_uint(value, settings.idr_interval);
    else if (!is_v4l2 && id == kControlRate)
        g_value_set_enum(value, settings.control_rate);
    else if (!get_v4l2_property(GST_OBJECT(object), self->state->v4l2, id - kFirstV4l2Property, value))
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
}

void finalize(GObject* object)
{
    delete reinterpret_cast<VelEncoder*>(object)->state;
    G_OBJECT_CLASS(parent_class)->finalize(object);
}

void instance_init(GTypeInstance* instance, gpointer)
{
    prepare_waylandsink();
    auto* self = reinterpret_cast<VelEncoder*>(instance);
    self->state = new EncoderState(GST_BIN(self));
    GstPad* sink = self->state->chain.sink();
    self->state->forward_event = GST_PAD_EVENTFUNC(sink);
    self->state->forward_query = GST_PAD_QUERYFUNC(sink);
    gst_pad_set_event_function(sink, sink_event);
    gst_pad_set_query_function(sink, sink_query);
    gst_pad_set_query_function(self->state->chain.src(), src_query);
}

void install_properties(GObjectClass* klass, const EncoderRow& row)
{
    constexpr auto flags =
        static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING);
    g_object_class_install_property(klass, kTargetBitrate,
                                    g_param_spec_uint("target-bitrate", "Target bit rate",
                                                      "Bits a second, 0: by picture size and frame rate", 0, G_MAXUINT,
                                                      0, flags));
    g_object_class_install_property(
        klass, kBFrames,
        g_param_spec_uint("b-frames", "B-frames",
                          "Accepted and without effect: this encoder holds no frame back, so "
                          "it makes no B-frames",
                          0, G_MAXUINT, 0, flags));
    if (row.is_v4l2) {
        install_v4l2_properties(klass, kFirstV4l2Property);
        return;
    }
    g_object_class_install_property(
        klass, kIdrInterval,
        g_param_spec_uint("idr-interval", "IDR interval",
                          "Frames from one IDR frame to the next, 0: two seconds; counts from "
                          "the next caps on",
                          0, G_MAXINT, 0, flags));
    g_object_class_install_property(klass, kControlRate,
                                    g_param_spec_enum("control-rate", "Rate control",
                                                      "How the bit rate is kept; counts from the next caps on",
                                                      control_rate_type(), kConstant, flags));
}

CapsPtr sink_caps(const EncoderRow& row)
{
    const std::string fields =
        std::string(", format=(string)") + row.sink_formats +
        ", width=(int)[ 1, 32767 ], height=(int)[ 1, 32767 ], framerate=(fraction)[ 0/1, 255/1 ]";
    return CapsPtr(gst_caps_from_string(("video/x-raw" + fields + "; video/x-raw(memory:GBM)" + fields).c_str()));
}

void class_init(gpointer klass, gpointer data)
{
    const auto& row = *static_cast<const EncoderRow*>(data);
    parent_class = GST_ELEMENT_CLASS(g_type_class_peek_parent(klass));
    static_cast<VelEncoderClass*>(klass)->row = &row;
    GObjectClass* object_class = G_OBJECT_CLASS(klass);
    object_class->set_property = set_property;
    object_class->get_property = get_property;
    object_class->finalize = finalize;
    install_properties(object_class, row);
    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
    element_class->change_state = change_state;
    const CapsPtr src_caps(gst_caps_from_string(row.src_caps));
    add_pad_templates(element_class, sink_caps(row).get(), src_caps.get());
    gst_element_class_set_static_metadata(element_class, row.long_name, "Codec/Encoder/Video",
                                          "Encodes through x264 or x265, tuned for live use", "velstream-gst");
}

GType encoder_type(const EncoderRow& row)
{
    const GTypeInfo info = {sizeof(VelEncoderClass), nullptr, nullptr,       class_init, nullptr, &row,
                            sizeof(VelEncoder),      0,       instance_init, nullptr};
    return g_type_register_static(GST_TYPE_BIN, row.type_name, &info, GTypeFlags{});
}

} // namespace

gboolean register_encoders(GstPlugin* plugin)
{
    for (const EncoderRow& row : kEncoders) {
        if (!gst_element_register(plugin, row.factory, GST_RANK_NONE, encoder_type(row))) return FALSE;
    }
    return TRUE;
}

} // namespace velstream::software
