// "qtimlvconverter": frames to tensors, on a thread of its own.
//
// A live video does not wait for what comes behind: while the last frame is still under way there, the newest one waits
// here and replaces the one that waited before. Of a video that is not live every frame is converted.
#include "elements.h"
#include "mlvconverter_core.h"
#include "pad_templates.h"
#include "software_handles.h"
#include "tensor_caps.h"

namespace velstream::software {

namespace {

struct VelMlConverter {
    GstBin parent;
    GstElement* queue; ///< borrowed from the bin
    GstElement* core;  ///< likewise
};

struct VelMlConverterClass {
    GstBinClass parent_class;
};

GType vel_ml_converter_get_type();
G_DEFINE_TYPE(VelMlConverter, vel_ml_converter, GST_TYPE_BIN)

bool is_live(GstPad* pad)
{
    const QueryPtr query(gst_query_new_latency());
    gboolean live = FALSE;
    if (gst_pad_peer_query(pad, query.get())) gst_query_parse_latency(query.get(), &live, nullptr, nullptr);
    return live;
}

/// Each segment tells anew whether its frames may be left out.
GstPadProbeReturn follow_source(GstPad* pad, GstPadProbeInfo* info, gpointer queue)
{
    constexpr int kKeepAll = 0;
    constexpr int kDropOldest = 2;
    if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_SEGMENT)
        g_object_set(queue, "leaky", is_live(pad) ? kDropOldest : kKeepAll, nullptr);
    return GST_PAD_PROBE_OK;
}

void set_property(GObject* object, guint, const GValue* value, GParamSpec* pspec)
{
    g_object_set_property(G_OBJECT(reinterpret_cast<VelMlConverter*>(object)->core), pspec->name, value);
}

void get_property(GObject* object, guint, GValue* value, GParamSpec* pspec)
{
    g_object_get_property(G_OBJECT(reinterpret_cast<VelMlConverter*>(object)->core), pspec->name, value);
}

void add_ghost_pad(VelMlConverter* self, GstElement* inside, const char* name)
{
    const PadPtr target(gst_element_get_static_pad(inside, name));
    GstPadTemplate* pad_template = gst_element_class_get_pad_template(GST_ELEMENT_GET_CLASS(self), name);
    gst_element_add_pad(GST_ELEMENT(self), gst_ghost_pad_new_from_template(name, target.get(), pad_template));
}

void vel_ml_converter_init(VelMlConverter* self)
{
    self->queue = gst_element_factory_make("queue", "queue");
    self->core = GST_ELEMENT(g_object_new(mlvconverter_core_type(), "name", "core", nullptr));
    if (!self->queue) return; // without GStreamer's core elements; the state change says so
    g_object_set(self->queue, "max-size-buffers", 1, "max-size-bytes", 0, "max-size-time", guint64{0}, "silent", TRUE,
                 nullptr);
    gst_bin_add_many(GST_BIN(self), self->queue, self->core, nullptr);
    gst_element_link(self->queue, self->core);
    add_ghost_pad(self, self->queue, "sink");
    add_ghost_pad(self, self->core, "src");
    const PadPtr sink(gst_element_get_static_pad(GST_ELEMENT(self), "sink"));
    gst_pad_add_probe(sink.get(), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, follow_source, self->queue, nullptr);
}

void vel_ml_converter_class_init(VelMlConverterClass* klass)
{
    GObjectClass* object_class = G_OBJECT_CLASS(klass);
    object_class->set_property = set_property;
    object_class->get_property = get_property;
    install_converter_properties(object_class);

    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
    const CapsPtr video(make_converter_sink_caps());
    const CapsPtr tensors(gst_caps_new_empty_simple(kTensorMediaType));
    add_pad_templates(element_class, video.get(), tensors.get());
    gst_element_class_set_static_metadata(element_class, "Video to tensor", "Filter/Converter/Video",
                                          "Makes frames into tensors of the size and type that the model takes",
                                          "velstream-gst");
}

} // namespace

gboolean register_mlvconverter(GstPlugin* plugin)
{
    return gst_element_register(plugin, "qtimlvconverter", GST_RANK_NONE, vel_ml_converter_get_type());
}

} // namespace velstream::software
