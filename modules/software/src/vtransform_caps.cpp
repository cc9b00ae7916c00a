#include "vtransform_caps.h"

#include "software_handles.h"
#include "vtransform_colour.h"

#include <algorithm>
#include <string>
#include <utility>

namespace velstream::software {

namespace {

constexpr int kMaxSize = 32767;

/// In order of preference, where the input's own format is out of reach.
constexpr GstVideoFormat kFormats[] = {
    GST_VIDEO_FORMAT_NV12, GST_VIDEO_FORMAT_NV21, GST_VIDEO_FORMAT_I420, GST_VIDEO_FORMAT_YUY2, GST_VIDEO_FORMAT_RGB,
    GST_VIDEO_FORMAT_BGR,  GST_VIDEO_FORMAT_RGBA, GST_VIDEO_FORMAT_BGRA, GST_VIDEO_FORMAT_RGBx, GST_VIDEO_FORMAT_BGRx,
    GST_VIDEO_FORMAT_ARGB, GST_VIDEO_FORMAT_ABGR, GST_VIDEO_FORMAT_xRGB, GST_VIDEO_FORMAT_xBGR,
};

/// Null: any feature at all.
constexpr const char* kFeatures[] = {GST_CAPS_FEATURE_MEMORY_SYSTEM_MEMORY, "memory:GBM", nullptr};

GstCapsFeatures* make_features(const char* feature)
{
    return feature ? gst_caps_features_new(feature, nullptr) : gst_caps_features_new_any();
}

void set_open_format(GstStructure* structure)
{
    GValue list = G_VALUE_INIT;
    g_value_init(&list, GST_TYPE_LIST);
    for (GstVideoFormat format : kFormats) {
        GValue item = G_VALUE_INIT;
        g_value_init(&item, G_TYPE_STRING);
        g_value_set_static_string(&item, gst_video_format_to_string(format));
        gst_value_list_append_and_take_value(&list, &item);
    }
    gst_structure_take_value(structure, "format", &list);
}

void set_open_size(GstStructure* structure)
{
    gst_structure_set(structure, "width", GST_TYPE_INT_RANGE, 1, kMaxSize, "height", GST_TYPE_INT_RANGE, 1, kMaxSize,
                      nullptr);
}

bool may_have_format(const GstStructure* structure, const char* format)
{
    const GValue* formats = gst_structure_get_value(structure, "format");
    if (!formats || !format) return false;
    GValue wanted = G_VALUE_INIT;
    g_value_init(&wanted, G_TYPE_STRING);
    g_value_set_string(&wanted, format);
    const bool found = gst_value_can_intersect(formats, &wanted);
    g_value_unset(&wanted);
    return found;
}

/// The first structure that takes the input's format, or else the first one; a feature that is still open becomes
/// plain.
CapsPtr pick_structure(CapsPtr caps, const char* format)
{
    guint picked = 0;
    for (guint i = 0; i < gst_caps_get_size(caps.get()); ++i) {
        if (!may_have_format(gst_caps_get_structure(caps.get(), i), format)) continue;
        picked = i;
        break;
    }
    CapsPtr result(gst_caps_copy_nth(caps.get(), picked));
    if (gst_caps_features_is_any(gst_caps_get_features(result.get(), 0)))
        gst_caps_set_features(result.get(), 0, make_features(GST_CAPS_FEATURE_MEMORY_SYSTEM_MEMORY));
    return result;
}

void fixate_format(GstStructure* structure, const GstVideoInfo& from)
{
    const GstVideoFormat own = GST_VIDEO_INFO_FORMAT(&from);
    if (!gst_structure_has_field(structure, "format")) set_open_format(structure);
    if (may_have_format(structure, gst_video_format_to_string(own))) {
        gst_structure_fixate_field_string(structure, "format", gst_video_format_to_string(own));
        return;
    }
    for (const bool same_family : {true, false}) {
        for (GstVideoFormat format : kFormats) {
            if ((is_yuv(format) == is_yuv(own)) != same_family ||
                !may_have_format(structure, gst_video_format_to_string(format)))
                continue;
            gst_structure_fixate_field_string(structure, "format", gst_video_format_to_string(format));
            return;
        }
    }
}

void fixate_size(GstStructure* structure, int width, int height)
{
    if (!gst_structure_has_field(structure, "width")) gst_structure_set(structure, "width", G_TYPE_INT, width, nullptr);
    if (!gst_structure_has_field(structure, "height"))
        gst_structure_set(structure, "height", G_TYPE_INT, height, nullptr);
    gst_structure_fixate_field_nearest_int(structure, "width", width);
    gst_structure_fixate_field_nearest_int(structure, "height", height);
}

/// The picture fills the output: pixels keep their shape only where the size is kept.
void fixate_pixel_shape(GstStructure* structure, int width, int height, int par_n, int par_d)
{
    int out_width = 0;
    int out_height = 0;
    gst_structure_get_int(structure, "width", &out_width);
    gst_structure_get_int(structure, "height", &out_height);
    if (out_width != width || out_height != height) par_n = par_d = 1;
    if (gst_structure_has_field(structure, "pixel-aspect-ratio"))
        gst_structure_fixate_field_nearest_fraction(structure, "pixel-aspect-ratio", par_n, par_d);
    else
        gst_structure_set(structure, "pixel-aspect-ratio", GST_TYPE_FRACTION, par_n, par_d, nullptr);
}

/// The colorimetry that `structure` stands for with no such field.
GstVideoColorimetry default_colorimetry(const GstStructure* structure)
{
    GstVideoInfo info;
    gst_video_info_init(&info);
    GstStructure* bare = gst_structure_copy(structure);
    gst_structure_remove_fields(bare, "colorimetry", "chroma-site", nullptr);
    const CapsPtr caps(gst_caps_new_full(bare, nullptr));
    gst_video_info_from_caps(&info, caps.get());
    return info.colorimetry;
}

/// A string that the structure leaves open takes the other side's value, if it may.
void fixate_string(GstStructure* structure, const char* field, const std::string& value)
{
    if (value.empty()) return;
    if (gst_structure_has_field(structure, field))
        gst_structure_fixate_field_string(structure, field, value.c_str());
    else
        gst_structure_set(structure, field, G_TYPE_STRING, value.c_str(), nullptr);
}

std::string colorimetry_name(const GstVideoColorimetry& colorimetry)
{
    gchar* text = gst_video_colorimetry_to_string(&colorimetry);
    std::string name = text ? text : "";
    g_free(text);
    return name;
}

/// Between two YUV formats the colours stay, also where the new size would mean others; RGB is sRGB.
void fixate_colours(GstStructure* structure, const GstStructure* from_structure, const GstVideoInfo& from)
{
    const gchar* name = gst_structure_get_string(structure, "format");
    const bool is_out_yuv = is_yuv(name ? gst_video_format_from_string(name) : GST_VIDEO_FORMAT_UNKNOWN);
    const bool is_in_yuv = is_yuv(GST_VIDEO_INFO_FORMAT(&from));
    if (!is_out_yuv) {
        fixate_string(structure, "colorimetry", is_in_yuv ? "sRGB" : colorimetry_name(from.colorimetry));
        gst_structure_remove_field(structure, "chroma-site");
        return;
    }
    if (!is_in_yuv) return;
    const GstVideoColorimetry usual = default_colorimetry(structure);
    const bool has_field = gst_structure_has_field(structure, "colorimetry");
    if (has_field || gst_structure_has_field(from_structure, "colorimetry") ||
        !gst_video_colorimetry_is_equal(&usual, &from.colorimetry))
        fixate_string(structure, "colorimetry", colorimetry_name(from.colorimetry));
    const gchar* site = gst_structure_get_string(from_structure, "chroma-site");
    if (site) fixate_string(structure, "chroma-site", site);
}

} // namespace

GstCaps* make_template_caps()
{
    GstCaps* caps = gst_caps_new_empty();
    for (const char* feature : kFeatures) {
        GstStructure* structure = gst_structure_new_empty("video/x-raw");
        set_open_format(structure);
        set_open_size(structure);
        gst_structure_set(structure, "framerate", GST_TYPE_FRACTION_RANGE, 0, 1, G_MAXINT, 1, nullptr);
        gst_caps_append_structure_full(caps, structure, make_features(feature));
    }
    return caps;
}

GstCaps* make_other_caps(GstCaps* caps, GstCaps* filter)
{
    CapsPtr other(gst_caps_new_empty());
    for (const char* feature : kFeatures) {
        for (guint i = 0; i < gst_caps_get_size(caps); ++i) {
            GstStructure* structure = gst_structure_copy(gst_caps_get_structure(caps, i));
            gst_structure_remove_fields(structure, "colorimetry", "chroma-site", "pixel-aspect-ratio", nullptr);
            set_open_format(structure);
            set_open_size(structure);
            other.reset(gst_caps_merge_structure_full(other.release(), structure, make_features(feature)));
        }
    }
    if (filter) other.reset(gst_caps_intersect_full(filter, other.get(), GST_CAPS_INTERSECT_FIRST));
    return other.release();
}

GstCaps* fixate_other_caps(GstCaps* caps, GstCaps* other, bool is_sideways)
{
    CapsPtr open(other);
    GstVideoInfo from;
    if (gst_caps_is_empty(open.get()) || !gst_video_info_from_caps(&from, caps)) return open.release();
    int width = GST_VIDEO_INFO_WIDTH(&from);
    int height = GST_VIDEO_INFO_HEIGHT(&from);
    int par_n = GST_VIDEO_INFO_PAR_N(&from);
    int par_d = GST_VIDEO_INFO_PAR_D(&from);
    if (is_sideways) {
        std::swap(width, height);
        std::swap(par_n, par_d);
    }
    CapsPtr picked = pick_structure(std::move(open), gst_video_format_to_string(GST_VIDEO_INFO_FORMAT(&from)));
    GstStructure* structure = gst_caps_get_structure(picked.get(), 0);
    fixate_format(structure, from);
    fixate_size(structure, width, height);
    fixate_pixel_shape(structure, width, height, par_n, par_d);
    fixate_colours(structure, gst_caps_get_structure(caps, 0), from);
    return gst_caps_fixate(picked.release());
}

} // namespace velstream::software
