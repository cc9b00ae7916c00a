#include "codec_bridge.h"

#include "deferred_frame.h"
#include "pad_templates.h"

#include <gst/video/gstvideofilter.h>
#include <libyuv.h>

namespace velstream::software {

namespace {

struct VelCodecBridge {
    GstVideoFilter parent;
    GstCaps* sink_formats; ///< owned; set once, before the element is used
    GstCaps* src_formats;  ///< owned; likewise
    LayoutCopy copy;       ///< null: `converter` does the work. Written in set_info, read by the streaming thread
    GstVideoConverter* converter; ///< owned; for the layouts that have no copy of their own
    gboolean may_defer;           ///< downstream brings no memory of its own. Written and read by the streaming thread
};

struct VelCodecBridgeClass {
    GstVideoFilterClass parent_class;
};

// The type has no element factory, so there is no cast macro that other sources could use.
GType vel_codec_bridge_get_type();
G_DEFINE_TYPE(VelCodecBridge, vel_codec_bridge, GST_TYPE_VIDEO_FILTER)

VelCodecBridge* bridge_of(gpointer object)
{
    return static_cast<VelCodecBridge*>(object);
}

const uint8_t* plane(const GstVideoFrame& frame, guint index)
{
    return static_cast<const uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, index));
}

uint8_t* plane(GstVideoFrame& frame, guint index)
{
    return static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, index));
}

int stride(const GstVideoFrame& frame, guint index)
{
    return GST_VIDEO_FRAME_PLANE_STRIDE(&frame, index);
}

int i420_to_nv12(const GstVideoFrame& in, GstVideoFrame& out)
{
    return libyuv::I420ToNV12(plane(in, 0), stride(in, 0), plane(in, 1), stride(in, 1), plane(in, 2), stride(in, 2),
                              plane(out, 0), stride(out, 0), plane(out, 1), stride(out, 1), GST_VIDEO_FRAME_WIDTH(&in),
                              GST_VIDEO_FRAME_HEIGHT(&in));
}

int nv12_to_i420(const GstVideoFrame& in, GstVideoFrame& out)
{
    return libyuv::NV12ToI420(plane(in, 0), stride(in, 0), plane(in, 1), stride(in, 1), plane(out, 0), stride(out, 0),
                              plane(out, 1), stride(out, 1), plane(out, 2), stride(out, 2), GST_VIDEO_FRAME_WIDTH(&in),
                              GST_VIDEO_FRAME_HEIGHT(&in));
}

int nv21_to_i420(const GstVideoFrame& in, GstVideoFrame& out)
{
    return libyuv::NV21ToI420(plane(in, 0), stride(in, 0), plane(in, 1), stride(in, 1), plane(out, 0), stride(out, 0),
                              plane(out, 1), stride(out, 1), plane(out, 2), stride(out, 2), GST_VIDEO_FRAME_WIDTH(&in),
                              GST_VIDEO_FRAME_HEIGHT(&in));
}

int nv21_to_nv12(const GstVideoFrame& in, GstVideoFrame& out)
{
    return libyuv::NV21ToNV12(plane(in, 0), stride(in, 0), plane(in, 1), stride(in, 1), plane(out, 0), stride(out, 0),
                              plane(out, 1), stride(out, 1), GST_VIDEO_FRAME_WIDTH(&in), GST_VIDEO_FRAME_HEIGHT(&in));
}

struct LayoutRow {
    GstVideoFormat in;
    GstVideoFormat out;
    LayoutCopy copy;
};

constexpr LayoutRow kLayouts[] = {
    {GST_VIDEO_FORMAT_I420, GST_VIDEO_FORMAT_NV12, i420_to_nv12},
    {GST_VIDEO_FORMAT_NV12, GST_VIDEO_FORMAT_I420, nv12_to_i420},
    {GST_VIDEO_FORMAT_NV21, GST_VIDEO_FORMAT_I420, nv21_to_i420},
    {GST_VIDEO_FORMAT_NV21, GST_VIDEO_FORMAT_NV12, nv21_to_nv12},
};

LayoutCopy find_layout_copy(GstVideoFormat in, GstVideoFormat out)
{
    for (const LayoutRow& row : kLayouts) {
        if (row.in == in && row.out == out) return row.copy;
    }
    return nullptr;
}

/// `caps` without its format and memory feature, joined with each of `formats`.
CapsPtr with_formats(const GstCaps* caps, const GstCaps* formats)
{
    CapsPtr result(gst_caps_new_empty());
    for (guint f = 0; f < gst_caps_get_size(formats); ++f) {
        const GValue* format = gst_structure_get_value(gst_caps_get_structure(formats, f), "format");
        for (guint i = 0; i < gst_caps_get_size(caps); ++i) {
            GstStructure* structure = gst_structure_copy(gst_caps_get_structure(caps, i));
            gst_structure_set_value(structure, "format", format);
            GstCapsFeatures* features = gst_caps_features_copy(gst_caps_get_features(formats, f));
            result.reset(gst_caps_merge_structure_full(result.release(), structure, features));
        }
    }
    return result;
}

GstCaps* transform_caps(GstBaseTransform* transform, GstPadDirection direction, GstCaps* caps, GstCaps* filter)
{
    const VelCodecBridge* bridge = bridge_of(transform);
    CapsPtr other = with_formats(caps, direction == GST_PAD_SINK ? bridge->src_formats : bridge->sink_formats);
    if (filter) other.reset(gst_caps_intersect_full(filter, other.get(), GST_CAPS_INTERSECT_FIRST));
    return other.release();
}

/// The input's own format where the other side takes it (nothing to copy then), else its first one; plain caps first.
GstCaps* fixate_caps(GstBaseTransform* transform, GstPadDirection direction, GstCaps* caps, GstCaps* othercaps)
{
    const VelCodecBridge* bridge = bridge_of(transform);
    CapsPtr other(othercaps);
    CapsPtr wanted(direction == GST_PAD_SINK ? gst_caps_copy(bridge->src_formats)
                                             : gst_caps_copy(bridge->sink_formats));
    const gchar* format = gst_structure_get_string(gst_caps_get_structure(caps, 0), "format");
    if (format) {
        CapsPtr same(gst_caps_copy(wanted.get()));
        gst_caps_set_simple(same.get(), "format", G_TYPE_STRING, format, nullptr);
        same.reset(gst_caps_intersect_full(wanted.get(), same.get(), GST_CAPS_INTERSECT_FIRST));
        gst_caps_append(same.get(), wanted.release());
        wanted = std::move(same);
    }
    CapsPtr ordered(gst_caps_intersect_full(wanted.get(), other.get(), GST_CAPS_INTERSECT_FIRST));
    if (gst_caps_is_empty(ordered.get())) return other.release();
    return gst_caps_fixate(ordered.release());
}

gboolean set_info(GstVideoFilter* filter, GstCaps*, GstVideoInfo* in, GstCaps*, GstVideoInfo* out)
{
    VelCodecBridge* bridge = bridge_of(filter);
    g_clear_pointer(&bridge->converter, gst_video_converter_free);
    bridge->copy = nullptr;
    const bool is_same = GST_VIDEO_INFO_FORMAT(in) == GST_VIDEO_INFO_FORMAT(out);
    gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(filter), is_same);
    if (is_same) return TRUE;
    bridge->copy = find_layout_copy(GST_VIDEO_INFO_FORMAT(in), GST_VIDEO_INFO_FORMAT(out));
    if (bridge->copy) return TRUE;
    bridge->converter = gst_video_converter_new(in, out, nullptr);
    return bridge->converter != nullptr;
}

gboolean decide_allocation(GstBaseTransform* transform, GstQuery* query)
{
    bridge_of(transform)->may_defer = gst_query_get_n_allocation_pools(query) == 0;
    return GST_BASE_TRANSFORM_CLASS(vel_codec_bridge_parent_class)->decide_allocation(transform, query);
}

/// What a decoder has made stays where it is until somebody reads it as NV12.
GstFlowReturn prepare_output_buffer(GstBaseTransform* transform, GstBuffer* input, GstBuffer** output)
{
    const VelCodecBridge* bridge = bridge_of(transform);
    GstBaseTransformClass* parent = GST_BASE_TRANSFORM_CLASS(vel_codec_bridge_parent_class);
    if (!bridge->may_defer || bridge->copy != i420_to_nv12 || gst_base_transform_is_passthrough(transform))
        return parent->prepare_output_buffer(transform, input, output);
    const GstVideoFilter* filter = &bridge->parent;
    BufferPtr frame = make_deferred_frame(input, filter->in_info, filter->out_info, bridge->copy);
    parent->copy_metadata(transform, input, frame.get());
    *output = frame.release();
    return GST_FLOW_OK;
}

GstFlowReturn convert(GstBaseTransform* transform, GstBuffer* input, GstBuffer* output)
{
    if (is_deferred_frame(output)) return GST_FLOW_OK;
    return GST_BASE_TRANSFORM_CLASS(vel_codec_bridge_parent_class)->transform(transform, input, output);
}

GstFlowReturn transform_frame(GstVideoFilter* filter, GstVideoFrame* in, GstVideoFrame* out)
{
    const VelCodecBridge* bridge = bridge_of(filter);
    if (!bridge->copy) {
        gst_video_converter_frame(bridge->converter, in, out);
        return GST_FLOW_OK;
    }
    if (bridge->copy(*in, *out) == 0) return GST_FLOW_OK;
    GST_ELEMENT_ERROR(filter, STREAM, FORMAT, ("A frame's planes could not be copied."), (nullptr));
    return GST_FLOW_ERROR;
}

void finalize(GObject* object)
{
    VelCodecBridge* bridge = bridge_of(object);
    gst_clear_caps(&bridge->sink_formats);
    gst_clear_caps(&bridge->src_formats);
    g_clear_pointer(&bridge->converter, gst_video_converter_free);
    G_OBJECT_CLASS(vel_codec_bridge_parent_class)->finalize(object);
}

void vel_codec_bridge_init(VelCodecBridge*) {}

void vel_codec_bridge_class_init(VelCodecBridgeClass* klass)
{
    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
    const CapsPtr any(gst_caps_from_string("video/x-raw(ANY)"));
    add_pad_templates(element_class, any.get(), any.get());
    gst_element_class_set_static_metadata(element_class, "Plane layout bridge", "Filter/Converter/Video",
                                          "Changes the layout of 4:2:0 planes next to a codec", "velstream-gst");
    G_OBJECT_CLASS(klass)->finalize = finalize;
    GST_BASE_TRANSFORM_CLASS(klass)->transform_caps = transform_caps;
    GST_BASE_TRANSFORM_CLASS(klass)->fixate_caps = fixate_caps;
    GST_BASE_TRANSFORM_CLASS(klass)->decide_allocation = decide_allocation;
    GST_BASE_TRANSFORM_CLASS(klass)->prepare_output_buffer = prepare_output_buffer;
    GST_BASE_TRANSFORM_CLASS(klass)->transform = convert;
    GST_VIDEO_FILTER_CLASS(klass)->set_info = set_info;
    GST_VIDEO_FILTER_CLASS(klass)->transform_frame = transform_frame;
}

} // namespace

ElementPtr make_bridge(const BridgeFormats& formats)
{
    ElementPtr element = share(GST_ELEMENT(g_object_new(vel_codec_bridge_get_type(), nullptr)));
    VelCodecBridge* bridge = bridge_of(element.get());
    bridge->sink_formats = gst_caps_from_string(formats.sink);
    bridge->src_formats = gst_caps_from_string(formats.src);
    return element;
}

} // namespace velstream::software
