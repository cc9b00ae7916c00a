// "qtivtransform": converts colours, scales, crops, turns and flips video in one step.
#include "elements.h"
#include "frame_convert.h"
#include "frame_layout.h"
#include "pad_templates.h"
#include "software_handles.h"
#include "video_properties.h"
#include "vtransform_caps.h"
#include "vtransform_geometry.h"
#include "waylandsink.h"

#include <gst/base/gstbasetransform.h>

#include <optional>

namespace velstream::software {

namespace {

enum Property : guint { kEngine = 1, kCrop, kDestination, kRotate, kFlipHorizontal, kFlipVertical };

struct TransformState {
    int engine = kDefaultEngine; ///< kept for its reader: every value converts alike. Guarded by the object lock
    Geometry wanted; ///< guarded by the object lock; written by property setters, read by the streaming thread

    // The rest belongs to the streaming thread.
    std::optional<Geometry> applied; ///< none: caps are not set
    GstVideoInfo in{};
    GstVideoInfo out{};
    FrameTransformer transformer;
};

struct VelTransform {
    GstBaseTransform parent;
    TransformState* state; ///< owned
};

struct VelTransformClass {
    GstBaseTransformClass parent_class;
};

GType vel_transform_get_type();
G_DEFINE_TYPE(VelTransform, vel_transform, GST_TYPE_BASE_TRANSFORM)

GstBaseTransformClass* base_class()
{
    return GST_BASE_TRANSFORM_CLASS(vel_transform_parent_class);
}

TransformState& state_of(gpointer object)
{
    return *static_cast<VelTransform*>(object)->state;
}

Geometry wanted_geometry(GstBaseTransform* transform)
{
    GST_OBJECT_LOCK(transform);
    const Geometry geometry = state_of(transform).wanted;
    GST_OBJECT_UNLOCK(transform);
    return geometry;
}

/**
 * RGB is never in the base class's pass-through mode: whether its rows are tight shows in each buffer.
 * generate_output() hands on those that are.
 */
void apply_geometry(GstBaseTransform* transform, const Geometry& geometry)
{
    TransformState& state = state_of(transform);
    state.transformer.configure(state.in, state.out, geometry);
    state.applied = geometry;
    const bool has_tight_output = has_tight_layout(GST_VIDEO_INFO_FORMAT(&state.out));
    gst_base_transform_set_passthrough(transform, state.transformer.is_identity() && !has_tight_output);
}

gboolean set_caps(GstBaseTransform* transform, GstCaps* in_caps, GstCaps* out_caps)
{
    TransformState& state = state_of(transform);
    if (!gst_video_info_from_caps(&state.in, in_caps) || !gst_video_info_from_caps(&state.out, out_caps)) return FALSE;
    apply_geometry(transform, wanted_geometry(transform));
    return TRUE;
}

/// Takes over changed properties before the buffer; the negotiation that follows makes or drops the pool.
GstFlowReturn submit_input_buffer(GstBaseTransform* transform, gboolean is_discont, GstBuffer* input)
{
    TransformState& state = state_of(transform);
    const Geometry geometry = wanted_geometry(transform);
    if (state.applied && *state.applied != geometry) {
        apply_geometry(transform, geometry);
        gst_base_transform_reconfigure_src(transform);
    }
    return base_class()->submit_input_buffer(transform, is_discont, input);
}

GstFlowReturn generate_output(GstBaseTransform* transform, GstBuffer** output)
{
    const TransformState& state = state_of(transform);
    const bool may_hand_on = transform->queued_buf && state.applied && state.transformer.is_identity() &&
                             has_tight_layout(GST_VIDEO_INFO_FORMAT(&state.out)) &&
                             has_tight_rows(transform->queued_buf, state.in);
    if (!may_hand_on) return base_class()->generate_output(transform, output);
    *output = transform->queued_buf;
    transform->queued_buf = nullptr;
    return GST_FLOW_OK;
}

GstFlowReturn transform_frame(GstBaseTransform* transform, GstBuffer* input, GstBuffer* output)
{
    TransformState& state = state_of(transform);
    if (!state.applied) return GST_FLOW_NOT_NEGOTIATED;
    if (!convert_frame(state.transformer, state.in, input, state.out, output)) {
        GST_ELEMENT_ERROR(transform, RESOURCE, FAILED, ("A video frame could not be mapped."), (nullptr));
        return GST_FLOW_ERROR;
    }
    return GST_FLOW_OK;
}

GstCaps* transform_caps(GstBaseTransform*, GstPadDirection, GstCaps* caps, GstCaps* filter)
{
    return make_other_caps(caps, filter);
}

GstCaps* fixate_caps(GstBaseTransform* transform, GstPadDirection, GstCaps* caps, GstCaps* other)
{
    return fixate_other_caps(caps, other, is_sideways(wanted_geometry(transform)));
}

gboolean get_unit_size(GstBaseTransform*, GstCaps* caps, gsize* size)
{
    GstVideoInfo info;
    if (!gst_video_info_from_caps(&info, caps)) return FALSE;
    *size = GST_VIDEO_INFO_SIZE(&info);
    return TRUE;
}

/// Frames have one size for each caps: the input's bytes, padded or tight, say nothing about the output's.
gboolean transform_size(GstBaseTransform* transform, GstPadDirection, GstCaps*, gsize, GstCaps* other,
                        gsize* other_size)
{
    return get_unit_size(transform, other, other_size);
}

/// Offers writers of RGB a pool of tight rows.
gboolean propose_allocation(GstBaseTransform* transform, GstQuery* decide_query, GstQuery* query)
{
    if (!base_class()->propose_allocation(transform, decide_query, query)) return FALSE;
    if (gst_base_transform_is_passthrough(transform)) return TRUE;
    GstCaps* caps = nullptr;
    gboolean needs_pool = FALSE;
    gst_query_parse_allocation(query, &caps, &needs_pool);
    GstVideoInfo info;
    if (!caps || !gst_video_info_from_caps(&info, caps)) return FALSE;
    if (needs_pool && has_tight_layout(GST_VIDEO_INFO_FORMAT(&info))) {
        const BufferPoolPtr pool(make_tight_pool(caps, 0, 0));
        gst_query_add_allocation_pool(query, pool.get(), static_cast<guint>(GST_VIDEO_INFO_SIZE(&info)), 0, 0);
    }
    if (!gst_query_find_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr))
        gst_query_add_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr);
    return TRUE;
}

gboolean decide_allocation(GstBaseTransform* transform, GstQuery* query)
{
    if (!put_frame_pool(query)) return FALSE;
    return base_class()->decide_allocation(transform, query);
}

gboolean transform_meta(GstBaseTransform* transform, GstBuffer* output, GstMeta* meta, GstBuffer* input)
{
    return is_kept_by_conversion(*meta) || base_class()->transform_meta(transform, output, meta, input);
}

gboolean stop(GstBaseTransform* transform)
{
    state_of(transform).applied.reset();
    return TRUE;
}

/// Four numbers of a GstValueArray; anything shorter leaves the rectangle as it is.
void read_rectangle(const GValue* value, Rectangle& rectangle)
{
    if (gst_value_array_get_size(value) != 4) return;
    const auto number = [value](guint index) { return g_value_get_int(gst_value_array_get_value(value, index)); };
    rectangle = {number(0), number(1), number(2), number(3)};
}

void write_rectangle(const Rectangle& rectangle, GValue* value)
{
    for (const int number : {rectangle.x, rectangle.y, rectangle.width, rectangle.height}) {
        GValue item = G_VALUE_INIT;
        g_value_init(&item, G_TYPE_INT);
        g_value_set_int(&item, number);
        gst_value_array_append_and_take_value(value, &item);
    }
}

bool store_property(TransformState& state, guint id, const GValue* value)
{
    switch (id) {
    case kEngine:
        state.engine = g_value_get_enum(value);
        return true;
    case kCrop:
        read_rectangle(value, state.wanted.crop);
        return true;
    case kDestination:
        read_rectangle(value, state.wanted.destination);
        return true;
    case kRotate:
        state.wanted.rotation = static_cast<Rotation>(g_value_get_enum(value));
        return true;
    case kFlipHorizontal:
        state.wanted.is_flipped_horizontally = g_value_get_boolean(value);
        return true;
    case kFlipVertical:
        state.wanted.is_flipped_vertically = g_value_get_boolean(value);
        return true;
    default:
        return false;
    }
}

void set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    GST_OBJECT_LOCK(object);
    const bool is_known = store_property(state_of(object), id, value);
    GST_OBJECT_UNLOCK(object);
    if (!is_known)
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
    else if (id != kEngine)
        gst_base_transform_reconfigure_src(GST_BASE_TRANSFORM(object));
}

void get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    GST_OBJECT_LOCK(object);
    const int engine = state_of(object).engine;
    const Geometry geometry = state_of(object).wanted;
    GST_OBJECT_UNLOCK(object);
    switch (id) {
    case kEngine:
        g_value_set_enum(value, engine);
        break;
    case kCrop:
        write_rectangle(geometry.crop, value);
        break;
    case kDestination:
        write_rectangle(geometry.destination, value);
        break;
    case kRotate:
        g_value_set_enum(value, static_cast<int>(geometry.rotation));
        break;
    case kFlipHorizontal:
        g_value_set_boolean(value, geometry.is_flipped_horizontally);
        break;
    case kFlipVertical:
        g_value_set_boolean(value, geometry.is_flipped_vertically);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
    }
}

void finalize(GObject* object)
{
    delete reinterpret_cast<VelTransform*>(object)->state;
    G_OBJECT_CLASS(vel_transform_parent_class)->finalize(object);
}

constexpr auto kPropertyFlags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS |
                                                         GST_PARAM_MUTABLE_PLAYING | GST_PARAM_CONTROLLABLE);

GParamSpec* rectangle_spec(const char* name, const char* nick, const char* blurb)
{
    GParamSpec* number =
        g_param_spec_int("value", "Value", "One of X, Y, WIDTH and HEIGHT", 0, G_MAXINT, 0, kPropertyFlags);
    return gst_param_spec_array(
        name, nick, blurb, number,
        static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING));
}

void install_properties(GObjectClass* klass)
{
    g_object_class_install_property(klass, kEngine,
                                    g_param_spec_enum("engine", "Engine",
                                                      "Backend of the platform; all convert alike here", engine_type(),
                                                      kDefaultEngine, kPropertyFlags));
    g_object_class_install_property(
        klass, kCrop,
        rectangle_spec("crop", "Crop", "Part of the input to take ('<X, Y, WIDTH, HEIGHT>', zeros: all)"));
    g_object_class_install_property(klass, kDestination,
                                    rectangle_spec("destination", "Destination",
                                                   "Part of the output to fill ('<X, Y, WIDTH, HEIGHT>', zeros: all)"));
    g_object_class_install_property(klass, kRotate,
                                    g_param_spec_enum("rotate", "Rotate", "Turn of the picture", rotation_type(),
                                                      static_cast<int>(Rotation::none), kPropertyFlags));
    g_object_class_install_property(
        klass, kFlipHorizontal,
        g_param_spec_boolean("flip-horizontal", "Flip horizontally", "Exchange left and right", FALSE, kPropertyFlags));
    g_object_class_install_property(
        klass, kFlipVertical,
        g_param_spec_boolean("flip-vertical", "Flip vertically", "Exchange top and bottom", FALSE, kPropertyFlags));
}

void vel_transform_init(VelTransform* self)
{
    prepare_waylandsink();
    self->state = new TransformState;
}

void vel_transform_class_init(VelTransformClass* klass)
{
    GObjectClass* object_class = G_OBJECT_CLASS(klass);
    object_class->set_property = set_property;
    object_class->get_property = get_property;
    object_class->finalize = finalize;
    install_properties(object_class);

    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
    const CapsPtr caps(make_template_caps());
    add_pad_templates(element_class, caps.get(), caps.get());
    gst_element_class_set_static_metadata(element_class, "Video transform", "Filter/Effect/Converter/Video/Scaler",
                                          "Converts colours, scales, crops, turns and flips video", "velstream-gst");

    GstBaseTransformClass* transform_class = GST_BASE_TRANSFORM_CLASS(klass);
    transform_class->passthrough_on_same_caps = FALSE;
    transform_class->transform_ip_on_passthrough = FALSE;
    transform_class->transform_caps = transform_caps;
    transform_class->fixate_caps = fixate_caps;
    transform_class->set_caps = set_caps;
    transform_class->stop = stop;
    transform_class->get_unit_size = get_unit_size;
    transform_class->transform_size = transform_size;
    transform_class->propose_allocation = propose_allocation;
    transform_class->decide_allocation = decide_allocation;
    transform_class->submit_input_buffer = submit_input_buffer;
    transform_class->generate_output = generate_output;
    transform_class->transform = transform_frame;
    transform_class->transform_meta = transform_meta;
}

} // namespace

gboolean register_vtransform(GstPlugin* plugin)
{
    return gst_element_register(plugin, "qtivtransform", GST_RANK_NONE, vel_transform_get_type());
}

} // namespace velstream::software
