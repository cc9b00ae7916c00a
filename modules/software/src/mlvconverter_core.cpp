#include "mlvconverter_core.h"

#include "frame_convert.h"
#include "pad_templates.h"
#include "software_handles.h"
#include "tensor_picture.h"
#include "vtransform_caps.h"

#include <gst/base/gstbasetransform.h>

namespace velstream::software {

namespace {

struct ConverterSettings {
    int placement = static_cast<int>(Placement::top_left);
    bool is_bgr = false;
    Normalisation numbers;
};

struct ConverterState {
    ConverterSettings wanted; ///< guarded by the object lock; taken over when caps are set

    // The rest belongs to the streaming thread.
    GstVideoInfo in{};
    TensorWriter writer;
};

struct VelMlConverterCore {
    GstBaseTransform parent;
    ConverterState* state; ///< owned
};

struct VelMlConverterCoreClass {
    GstBaseTransformClass parent_class;
};

GType vel_ml_converter_core_get_type();
G_DEFINE_TYPE(VelMlConverterCore, vel_ml_converter_core, GST_TYPE_BASE_TRANSFORM)

ConverterState& state_of(gpointer object)
{
    return *static_cast<VelMlConverterCore*>(object)->state;
}

ConverterSettings settings_of(gpointer object)
{
    GST_OBJECT_LOCK(object);
    const ConverterSettings settings = state_of(object).wanted;
    GST_OBJECT_UNLOCK(object);
    return settings;
}

GType placement_type()
{
    static const GEnumValue values[] = {
        {static_cast<int>(Placement::top_left), "Whole, in its proportions, top left", "top-left"},
        {static_cast<int>(Placement::centre), "Whole, in its proportions, in the middle", "centre"},
        {static_cast<int>(Placement::stretch), "Whole, stretched to the tensor", "stretch"},
        {static_cast<int>(Placement::centre_crop), "In its proportions, cut to fill the tensor", "centre-crop"},
        {0, nullptr, nullptr}};
    static const GType type = g_enum_register_static("VelMlPlacement", values);
    return type;
}

GType subpixel_layout_type()
{
    static const GEnumValue values[] = {{0, "Red first", "rgb"}, {1, "Blue first", "bgr"}, {0, nullptr, nullptr}};
    static const GType type = g_enum_register_static("VelMlSubpixelLayout", values);
    return type;
}

// ---- Caps
// -----------------------------------------------------------------------------------------------------------------------

void append_formats(GstStructure* structure)
{
    GValue list = G_VALUE_INIT;
    g_value_init(&list, GST_TYPE_LIST);
    const GValue* formats = gst_structure_get_value(structure, "format");
    for (guint i = 0; i < gst_value_list_get_size(formats); ++i)
        gst_value_list_append_value(&list, gst_value_list_get_value(formats, i));
    for (const char* name : {"UYVY", "GRAY8"}) {
        GValue item = G_VALUE_INIT;
        g_value_init(&item, G_TYPE_STRING);
        g_value_set_static_string(&item, name);
        gst_value_list_append_and_take_value(&list, &item);
    }
    gst_structure_take_value(structure, "format", &list);
}

/// Frame rates pass from one side to the other; nothing else does.
void copy_rate(const GstStructure* from, GstStructure* to)
{
    const GValue* rate = gst_structure_get_value(from, "framerate");
    if (rate) gst_structure_set_value(to, "framerate", rate);
}

/// Types are named so that the caps are not fixed: the base class asks downstream only about those that are open.
CapsPtr tensors_for_video(GstCaps* caps)
{
    CapsPtr result(gst_caps_new_empty());
    for (guint i = 0; i < gst_caps_get_size(caps); ++i) {
        GstStructure* tensors = gst_structure_from_string(
            "neural-network/tensors,type={(string)UINT8,(string)INT32,(string)FLOAT32};", nullptr);
        copy_rate(gst_caps_get_structure(caps, i), tensors);
        result.reset(gst_caps_merge_structure(result.release(), tensors));
    }
    return result;
}

CapsPtr video_for_tensors(GstCaps* caps)
{
    CapsPtr result(gst_caps_new_empty());
    for (guint i = 0; i < gst_caps_get_size(caps); ++i) {
        CapsPtr video(make_converter_sink_caps());
        for (guint k = 0; k < gst_caps_get_size(video.get()); ++k)
            copy_rate(gst_caps_get_structure(caps, i), gst_caps_get_structure(video.get(), k));
        result.reset(gst_caps_merge(result.release(), video.release()));
    }
    return result;
}

GstCaps* transform_caps(GstBaseTransform*, GstPadDirection direction, GstCaps* caps, GstCaps* filter)
{
    CapsPtr other = direction == GST_PAD_SINK ? tensors_for_video(caps) : video_for_tensors(caps);
    if (filter) other.reset(gst_caps_intersect_full(filter, other.get(), GST_CAPS_INTERSECT_FIRST));
    return other.release();
}

/// What downstream leaves open is the video's own size, as bytes.
void settle_tensor(GstStructure* structure, const GstVideoInfo& video)
{
    if (!gst_structure_has_field(structure, "type"))
        gst_structure_set(structure, "type", G_TYPE_STRING, name_of(TensorType::uint8), nullptr);
    gst_structure_fixate_field(structure, "type");
    if (gst_structure_has_field(structure, "dimensions")) return;
    const gchar* type = gst_structure_get_string(structure, "type");
    Tensors tensors;
    for (const TensorType known : {TensorType::int32, TensorType::float32})
        if (g_strcmp0(type, name_of(known)) == 0) tensors.type = known;
    tensors.shapes = {{1, GST_VIDEO_INFO_HEIGHT(&video), GST_VIDEO_INFO_WIDTH(&video), 3}};
    write_tensors(structure, tensors);
}

GstCaps* fixate_caps(GstBaseTransform* converter, GstPadDirection direction, GstCaps* caps, GstCaps* other)
{
    if (direction != GST_PAD_SINK || gst_caps_is_empty(other)) return gst_caps_fixate(other);
    GstVideoInfo video;
    if (!gst_video_info_from_caps(&video, caps)) return gst_caps_fixate(other);
    CapsPtr picked(gst_caps_truncate(gst_caps_make_writable(other)));
    settle_tensor(gst_caps_get_structure(picked.get(), 0), video);
    const auto tensors = read_tensors(picked.get());
    const auto layout = tensors ? layout_of(*tensors) : std::nullopt;
    if (layout) {
        const auto placement = static_cast<Placement>(settings_of(converter).placement);
        write_view(gst_caps_get_structure(picked.get(), 0),
                   place_picture(GST_VIDEO_INFO_WIDTH(&video), GST_VIDEO_INFO_HEIGHT(&video), *layout, placement));
    }
    return gst_caps_fixate(picked.release());
}

gboolean set_caps(GstBaseTransform* converter, GstCaps* in_caps, GstCaps* out_caps)
{
    ConverterState& state = state_of(converter);
    const auto tensors = read_tensors(out_caps);
    if (!gst_video_info_from_caps(&state.in, in_caps)) return FALSE;
    const auto layout = tensors ? layout_of(*tensors) : std::nullopt;
    if (!layout) {
        gchar* text = gst_caps_to_string(out_caps);
        GST_ELEMENT_ERROR(converter, STREAM, FORMAT, ("The model's input is no picture: %s", text),
                          ("Only <1,C,H,W> and <1,H,W,C> with 1 or 3 channels are."));
        g_free(text);
        return FALSE;
    }
    const ConverterSettings settings = settings_of(converter);
    const TensorView view =
        read_view(out_caps).value_or(place_picture(GST_VIDEO_INFO_WIDTH(&state.in), GST_VIDEO_INFO_HEIGHT(&state.in),
                                                   *layout, static_cast<Placement>(settings.placement)));
    state.writer.configure(state.in, *tensors, view, settings.is_bgr, settings.numbers);
    return TRUE;
}

// ---- Frames
// ---------------------------------------------------------------------------------------------------------------------

gboolean get_unit_size(GstBaseTransform*, GstCaps* caps, gsize* size)
{
    GstVideoInfo info;
    if (const auto tensors = read_tensors(caps)) {
        *size = size_of(tensors->type, tensors->shapes.front());
        return TRUE;
    }
    if (!gst_video_info_from_caps(&info, caps)) return FALSE;
    *size = GST_VIDEO_INFO_SIZE(&info);
    return TRUE;
}

/// The input's bytes, padded or not, say nothing about the output's.
gboolean transform_size(GstBaseTransform* converter, GstPadDirection, GstCaps*, gsize, GstCaps* other,
                        gsize* other_size)
{
    return get_unit_size(converter, other, other_size);
}

GstFlowReturn transform_frame(GstBaseTransform* converter, GstBuffer* input, GstBuffer* output)
{
    ConverterState& state = state_of(converter);
    const MappedFrame frame(input_layout(input, state.in), input, GST_MAP_READ);
    GstMapInfo map;
    if (!frame || !gst_buffer_map(output, &map, GST_MAP_WRITE)) {
        GST_ELEMENT_ERROR(converter, RESOURCE, FAILED, ("A video frame could not be mapped."), (nullptr));
        return GST_FLOW_ERROR;
    }
    state.writer.write(frame.get(), map.data);
    gst_buffer_unmap(output, &map);
    return GST_FLOW_OK;
}

gboolean propose_allocation(GstBaseTransform* converter, GstQuery* decide_query, GstQuery* query)
{
    if (!GST_BASE_TRANSFORM_CLASS(vel_ml_converter_core_parent_class)
             ->propose_allocation(converter, decide_query, query))
        return FALSE;
    if (!gst_query_find_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr))
        gst_query_add_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr);
    return TRUE;
}

gboolean transform_meta(GstBaseTransform*, GstBuffer*, GstMeta* meta, GstBuffer*)
{
    return is_kept_by_conversion(*meta);
}

// ---- Properties
// -----------------------------------------------------------------------------------------------------------------

/// Of up to four numbers the first three count; one that is missing stays as it was.
void read_channels(const GValue* value, std::array<double, 3>& channels)
{
    const guint count = std::min<guint>(gst_value_array_get_size(value), 3);
    for (guint i = 0; i < count; ++i) {
        GValue number = G_VALUE_INIT;
        g_value_init(&number, G_TYPE_DOUBLE);
        if (g_value_transform(gst_value_array_get_value(value, i), &number)) channels[i] = g_value_get_double(&number);
        g_value_unset(&number);
    }
}

void write_channels(const std::array<double, 3>& channels, GValue* value)
{
    for (const double channel : channels) {
        GValue item = G_VALUE_INIT;
        g_value_init(&item, G_TYPE_DOUBLE);
        g_value_set_double(&item, channel);
        gst_value_array_append_and_take_value(value, &item);
    }
}

void set_property(GObject* object, guint id, const GValue* value, GParamSpec*)
{
    GST_OBJECT_LOCK(object);
    ConverterSettings& wanted = state_of(object).wanted;
    switch (static_cast<ConverterProperty>(id)) {
    case ConverterProperty::placement:
        wanted.placement = g_value_get_enum(value);
        break;
    case ConverterProperty::subpixel_layout:
        wanted.is_bgr = g_value_get_enum(value) == 1;
        break;
    case ConverterProperty::mean:
        read_channels(value, wanted.numbers.mean);
        break;
    case ConverterProperty::sigma:
        read_channels(value, wanted.numbers.sigma);
        break;
    }
    GST_OBJECT_UNLOCK(object);
    gst_base_transform_reconfigure_src(GST_BASE_TRANSFORM(object));
}

void get_property(GObject* object, guint id, GValue* value, GParamSpec*)
{
    const ConverterSettings settings = settings_of(object);
    switch (static_cast<ConverterProperty>(id)) {
    case ConverterProperty::placement:
        g_value_set_enum(value, settings.placement);
        break;
    case ConverterProperty::subpixel_layout:
        g_value_set_enum(value, settings.is_bgr ? 1 : 0);
        break;
    case ConverterProperty::mean:
        write_channels(settings.numbers.mean, value);
        break;
    case ConverterProperty::sigma:
        write_channels(settings.numbers.sigma, value);
        break;
    }
}

void finalize(GObject* object)
{
    delete reinterpret_cast<VelMlConverterCore*>(object)->state;
    G_OBJECT_CLASS(vel_ml_converter_core_parent_class)->finalize(object);
}

void vel_ml_converter_core_init(VelMlConverterCore* self)
{
    self->state = new ConverterState;
}

void vel_ml_converter_core_class_init(VelMlConverterCoreClass* klass)
{
    GObjectClass* object_class = G_OBJECT_CLASS(klass);
    object_class->set_property = set_property;
    object_class->get_property = get_property;
    object_class->finalize = finalize;
    install_converter_properties(object_class);

    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
    const CapsPtr video(make_converter_sink_caps());
    const CapsPtr tensors(gst_caps_new_empty_simple(kTensorMediaType));
    add_pad_templates(element_class, video.get(), tensors.get());
    gst_element_class_set_static_metadata(element_class, "Video to tensor conversion", "Filter/Converter/Video",
                                          "Makes frames into tensors", "velstream-gst");

    GstBaseTransformClass* transform_class = GST_BASE_TRANSFORM_CLASS(klass);
    transform_class->passthrough_on_same_caps = FALSE;
    transform_class->transform_caps = transform_caps;
    transform_class->fixate_caps = fixate_caps;
    transform_class->set_caps = set_caps;
    transform_class->get_unit_size = get_unit_size;
    transform_class->transform_size = transform_size;
    transform_class->propose_allocation = propose_allocation;
    transform_class->transform_meta = transform_meta;
    transform_class->transform = transform_frame;
}

constexpr auto kPropertyFlags =
    static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);

} // namespace

GType mlvconverter_core_type()
{
    return vel_ml_converter_core_get_type();
}

void install_converter_properties(GObjectClass* klass)
{
    const auto install = [klass](ConverterProperty id, GParamSpec* spec) {
        g_object_class_install_property(klass, static_cast<guint>(id), spec);
    };
    install(ConverterProperty::placement,
            g_param_spec_enum("placement", "Placement", "Where a picture of another shape goes in the tensor",
                              placement_type(), static_cast<int>(Placement::top_left), kPropertyFlags));
    install(ConverterProperty::subpixel_layout,
            g_param_spec_enum("subpixel-layout", "Subpixel layout", "Order of the tensor's channels",
                              subpixel_layout_type(), 0, kPropertyFlags));
    install(ConverterProperty::mean,
            gst_param_spec_array("mean", "Mean",
                                 "For tensors of type FLOAT32: taken from each channel first ('<R, G, B>')", nullptr,
                                 kPropertyFlags));
    install(ConverterProperty::sigma,
            gst_param_spec_array("sigma", "Sigma",
                                 "For tensors of type FLOAT32: (channel - mean) x sigma ('<R, G, B>')", nullptr,
                                 kPropertyFlags));
}

GstCaps* make_converter_sink_caps()
{
    GstCaps* caps = make_template_caps();
    for (guint i = 0; i < gst_caps_get_size(caps); ++i)
        append_formats(gst_caps_get_structure(caps, i));
    return caps;
}

} // namespace velstream::software
