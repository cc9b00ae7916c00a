// "qtivoverlay": draws pictures and lines of text on the frame in place.
#include "blend.h"
#include "elements.h"
#include "frame_convert.h"
#include "overlay_items.h"
#include "pad_templates.h"
#include "software_handles.h"
#include "video_properties.h"
#include "vtransform_caps.h"

#include <gst/base/gstbasetransform.h>

namespace velstream::software {

namespace {

enum Property : guint { kEngine = 1, kImages, kStrings };

struct OverlayState {
    // Guarded by the object lock; written by property setters, read by the streaming thread.
    int engine = kDefaultEngine;
    std::string images, strings;
    bool is_changed = true; ///< the pictures are not those of the texts

    // The rest belongs to the streaming thread.
    std::vector<OverlayPicture> pictures;
    GstVideoInfo info{};
    Blender blender;
};

struct VelOverlay {
    GstBaseTransform parent;
    OverlayState* state; ///< owned
};

struct VelOverlayClass {
    GstBaseTransformClass parent_class;
};

GType vel_overlay_get_type();
G_DEFINE_TYPE(VelOverlay, vel_overlay, GST_TYPE_BASE_TRANSFORM)

OverlayState& state_of(gpointer object)
{
    return *static_cast<VelOverlay*>(object)->state;
}

void add_images(GstBaseTransform* overlay, const std::string& text)
{
    const auto images = read_images(text);
    if (!images) {
        GST_ELEMENT_WARNING(overlay, RESOURCE, SETTINGS, ("The property \"images\" is no list of pictures."),
                            ("%s", text.c_str()));
        return;
    }
    for (const OverlayImage& image : *images) {
        std::string error;
        OverlayPicture picture = make_picture(image, error);
        if (picture.surface)
            state_of(overlay).pictures.push_back(std::move(picture));
        else
            GST_ELEMENT_WARNING(overlay, RESOURCE, READ, ("%s", error.c_str()), (nullptr));
    }
}

void add_texts(GstBaseTransform* overlay, const std::string& text)
{
    const auto lines = read_texts(text);
    if (!lines) {
        GST_ELEMENT_WARNING(overlay, RESOURCE, SETTINGS, ("The property \"strings\" is no list of texts."),
                            ("%s", text.c_str()));
        return;
    }
    for (const OverlayText& line : *lines) {
        OverlayPicture picture = make_picture(line);
        if (picture.surface) state_of(overlay).pictures.push_back(std::move(picture));
    }
}

/// Makes the pictures anew where the properties have changed. Frames with nothing on them pass untouched.
void follow_properties(GstBaseTransform* overlay)
{
    OverlayState& state = state_of(overlay);
    GST_OBJECT_LOCK(overlay);
    const bool is_changed = state.is_changed;
    state.is_changed = false;
    const std::string images = is_changed ? state.images : "";
    const std::string strings = is_changed ? state.strings : "";
    GST_OBJECT_UNLOCK(overlay);
    if (!is_changed) return;
    state.pictures.clear();
    add_images(overlay, images);
    add_texts(overlay, strings);
    gst_base_transform_set_passthrough(overlay, state.pictures.empty());
}

GstFlowReturn submit_input_buffer(GstBaseTransform* overlay, gboolean is_discont, GstBuffer* input)
{
    follow_properties(overlay);
    return GST_BASE_TRANSFORM_CLASS(vel_overlay_parent_class)->submit_input_buffer(overlay, is_discont, input);
}

GstFlowReturn draw(GstBaseTransform* overlay, GstBuffer* buffer)
{
    OverlayState& state = state_of(overlay);
    const MappedFrame frame(input_layout(buffer, state.info), buffer, GST_MAP_READWRITE);
    if (!frame) {
        GST_ELEMENT_ERROR(overlay, RESOURCE, FAILED, ("A video frame could not be mapped."), (nullptr));
        return GST_FLOW_ERROR;
    }
    const Picture canvas = picture_of(frame.get());
    for (const OverlayPicture& picture : state.pictures)
        state.blender.blend(picture.picture(), canvas, picture.x, picture.y);
    return GST_FLOW_OK;
}

gboolean set_caps(GstBaseTransform* overlay, GstCaps* caps, GstCaps*)
{
    OverlayState& state = state_of(overlay);
    if (!gst_video_info_from_caps(&state.info, caps)) return FALSE;
    state.blender.configure(state.info);
    return TRUE;
}

gboolean propose_allocation(GstBaseTransform* overlay, GstQuery* decide_query, GstQuery* query)
{
    if (!GST_BASE_TRANSFORM_CLASS(vel_overlay_parent_class)->propose_allocation(overlay, decide_query, query))
        return FALSE;
    if (decide_query && !gst_query_find_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr))
        gst_query_add_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr);
    return TRUE;
}

/// A file is looked for again at the next start.
gboolean stop(GstBaseTransform* overlay)
{
    state_of(overlay).pictures.clear();
    GST_OBJECT_LOCK(overlay);
    state_of(overlay).is_changed = true;
    GST_OBJECT_UNLOCK(overlay);
    return TRUE;
}

bool store_property(OverlayState& state, guint id, const GValue* value)
{
    if (id == kEngine) {
        state.engine = g_value_get_enum(value);
        return true;
    }
    if (id != kImages && id != kStrings) return false;
    const gchar* text = g_value_get_string(value);
    (id == kImages ? state.images : state.strings) = text ? text : "";
    state.is_changed = true;
    return true;
}

void set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    GST_OBJECT_LOCK(object);
    const bool is_known = store_property(state_of(object), id, value);
    GST_OBJECT_UNLOCK(object);
    if (!is_known) G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
}

void get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    OverlayState& state = state_of(object);
    GST_OBJECT_LOCK(object);
    if (id == kEngine) g_value_set_enum(value, state.engine);
    if (id == kImages) g_value_set_string(value, state.images.c_str());
    if (id == kStrings) g_value_set_string(value, state.strings.c_str());
    GST_OBJECT_UNLOCK(object);
    if (id > kStrings) G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
}

void finalize(GObject* object)
{
    delete reinterpret_cast<VelOverlay*>(object)->state;
    G_OBJECT_CLASS(vel_overlay_parent_class)->finalize(object);
}

void vel_overlay_init(VelOverlay* self)
{
    self->state = new OverlayState;
    gst_base_transform_set_in_place(GST_BASE_TRANSFORM(self), TRUE);
}

void install_properties(GObjectClass* klass)
{
    constexpr auto flags =
        static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING);
    g_object_class_install_property(klass, kEngine,
                                    g_param_spec_enum("engine", "Engine",
                                                      "Backend of the platform; all draw alike here", engine_type(),
                                                      kDefaultEngine, flags));
    g_object_class_install_property(
        klass, kImages,
        g_param_spec_string("images", "Images",
                            "Pictures: {(structure)\"NAME,path=FILE,resolution=<W,H>,destination=<X,Y,W,H>;\"}",
                            nullptr, flags));
    g_object_class_install_property(
        klass, kStrings,
        g_param_spec_string(
            "strings", "Strings",
            "Texts: {(structure)\"NAME,contents=\\\"TEXT\\\",fontsize=PIXELS,position=<X,Y>,color=0xRRGGBBAA;\"}",
            nullptr, flags));
}

void vel_overlay_class_init(VelOverlayClass* klass)
{
    GObjectClass* object_class = G_OBJECT_CLASS(klass);
    object_class->set_property = set_property;
    object_class->get_property = get_property;
    object_class->finalize = finalize;
    install_properties(object_class);

    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
    const CapsPtr caps(make_template_caps());
    add_pad_templates(element_class, caps.get(), caps.get());
    gst_element_class_set_static_metadata(element_class, "Video overlay", "Filter/Editor/Video",
                                          "Draws pictures and text on video", "velstream-gst");

    GstBaseTransformClass* transform_class = GST_BASE_TRANSFORM_CLASS(klass);
    transform_class->transform_ip_on_passthrough = FALSE;
    transform_class->set_caps = set_caps;
    transform_class->submit_input_buffer = submit_input_buffer;
    transform_class->transform_ip = draw;
    transform_class->propose_allocation = propose_allocation;
    transform_class->stop = stop;
}

} // namespace

gboolean register_overlay(GstPlugin* plugin)
{
    return gst_element_register(plugin, "qtivoverlay", GST_RANK_NONE, vel_overlay_get_type());
}

} // namespace velstream::software
