#include "ElementTools.h"

#include "Log.h"

namespace Quorvis::VelStream {

namespace {

/// False for a value that GLib would refuse with a warning on the console.
bool takes(GParamSpec* spec, const GValue& value)
{
    if (!g_value_type_transformable(G_VALUE_TYPE(&value), spec->value_type)) return false;
    GValue own = G_VALUE_INIT;
    g_value_init(&own, spec->value_type);
    const bool is_taken = g_value_transform(&value, &own) &&
                          (!g_param_value_validate(spec, &own) || (spec->flags & G_PARAM_LAX_VALIDATION));
    g_value_unset(&own);
    return is_taken;
}

void set_value(gpointer object, const char* name, const GValue& value)
{
    if (!object) return;
    GParamSpec* spec = g_object_class_find_property(G_OBJECT_GET_CLASS(object), name);
    if (!spec || !(spec->flags & G_PARAM_WRITABLE)) {
        VEL_LOG_INFO("Property %s of %s is missing or read-only, skipped.", name, G_OBJECT_TYPE_NAME(object));
        return;
    }
    if (!takes(spec, value)) {
        VEL_LOG_INFO("Property %s of %s does not take its value, skipped.", name, G_OBJECT_TYPE_NAME(object));
        return;
    }
    g_object_set_property(G_OBJECT(object), name, &value);
}

} // namespace

ElementPtr make_element(const char* factory, const char* name)
{
    ElementPtr element = share(gst_element_factory_make(factory, name));
    if (!element) VEL_LOG_WARN("Element %s is not installed or cannot be created.", factory);
    return element;
}

void set_property(gpointer object, const char* name, int number)
{
    GValue value = G_VALUE_INIT;
    g_value_init(&value, G_TYPE_INT);
    g_value_set_int(&value, number);
    set_value(object, name, value);
}

void set_property(gpointer object, const char* name, bool flag)
{
    GValue value = G_VALUE_INIT;
    g_value_init(&value, G_TYPE_BOOLEAN);
    g_value_set_boolean(&value, flag);
    set_value(object, name, value);
}

void set_property(gpointer object, const char* name, const std::string& text)
{
    GValue value = G_VALUE_INIT;
    g_value_init(&value, G_TYPE_STRING);
    g_value_set_string(&value, text.c_str());
    set_value(object, name, value);
    g_value_unset(&value);
}

void set_property(gpointer object, const char* name, const CapsPtr& caps)
{
    GValue value = G_VALUE_INIT;
    g_value_init(&value, GST_TYPE_CAPS);
    gst_value_set_caps(&value, caps.get());
    set_value(object, name, value);
    g_value_unset(&value);
}

ElementPtr make_capsfilter(const char* name, const char* caps)
{
    ElementPtr filter = make_element("capsfilter", name);
    set_property(filter.get(), "caps", make_caps(caps));
    return filter;
}

ElementPtr make_located(const char* factory, const char* name, const std::string& location)
{
    ElementPtr element = make_element(factory, name);
    set_property(element.get(), "location", location);
    return element;
}

ElementPtr make_parser(const std::string& codec)
{
    return make_element(codec == "H265" ? "h265parse" : "h264parse");
}

ElementPtr make_decoder(const DecoderRow& row, const std::string& codec)
{
    VEL_LOG_INFO("%s", row.log);
    ElementPtr decoder = make_element(codec == "H265" ? row.h265 : row.h264);
    set_io_modes(decoder.get(), row.io);
    if (row.discards_corrupted_frames) set_property(decoder.get(), "discard-corrupted-frames", true);
    return decoder;
}

void set_io_modes(GstElement* element, IoModes io)
{
    if (io.capture) set_property(element, "capture-io-mode", io.capture);
    if (io.output) set_property(element, "output-io-mode", io.output);
}

bool add_all(GstElement* bin, std::initializer_list<GstElement*> elements)
{
    bool is_added = true;
    for (GstElement* element : elements) {
        if (element && !gst_bin_add(GST_BIN(bin), element)) is_added = false;
    }
    return is_added;
}

bool link_steps(std::initializer_list<LinkStep> steps)
{
    for (const LinkStep& step : steps) {
        if (!link_chain({step.from, step.to})) {
            VEL_LOG_ERROR("%s", step.failure);
            return false;
        }
    }
    return true;
}

bool link_chain(std::initializer_list<GstElement*> elements)
{
    GstElement* from = nullptr;
    bool is_first = true;
    for (GstElement* to : elements) {
        if (!to) return false;
        if (!is_first && !gst_element_link(from, to)) return false;
        from = to;
        is_first = false;
    }
    return true;
}

void use_system_clock(GstElement* pipeline)
{
    const ClockPtr clock(gst_system_clock_obtain());
    gst_pipeline_use_clock(GST_PIPELINE(pipeline), clock.get());
    gst_pipeline_set_latency(GST_PIPELINE(pipeline), 0);
}

GstClockTime system_time()
{
    const ClockPtr clock(gst_system_clock_obtain());
    return gst_clock_get_time(clock.get());
}

void add_buffer_probe(GstElement* element, const char* name, GstPadProbeCallback callback, gpointer user_data)
{
    const PadPtr pad(gst_element_get_static_pad(element, name));
    if (pad) gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, callback, user_data, nullptr);
}

} // namespace Quorvis::VelStream
