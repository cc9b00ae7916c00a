#include "ElementTools.h"
#include "Log.h"
#include "StreamBuild.h"

namespace Quorvis::VelStream {

namespace {

constexpr int kCapsTries = 10;
constexpr gulong kCapsPauseUs = 100000;

CapsPtr wait_for_caps(GstPad* pad)
{
    for (int tries = 0; tries < kCapsTries; ++tries) {
        if (CapsPtr caps{gst_pad_get_current_caps(pad)}) return caps;
        VEL_LOG_INFO("Caps not available yet, retrying...");
        g_usleep(kCapsPauseUs);
    }
    VEL_LOG_ERROR("Failed to get caps from pad.");
    return nullptr;
}

void log_size_and_format(const GstStructure* structure)
{
    int width = 0;
    int height = 0;
    if (gst_structure_get_int(structure, "width", &width) && gst_structure_get_int(structure, "height", &height))
        VEL_LOG_INFO("get_caps_for_qtivtransform width: %d, height: %d", width, height);
    else
        VEL_LOG_ERROR("Failed to retrieve width and height.");
    if (const char* format = gst_structure_get_string(structure, "format"))
        VEL_LOG_INFO("get_caps_for_qtivtransform - Format: %s", format);
    else
        VEL_LOG_ERROR("Failed to retrieve the format.");
}

} // namespace

bool setup_processing_branch(GstElement* pipeline, PiplineData* data, ProcessingBranch& branch)
{
    const ElementPtr to_rgb = make_element("qtivtransform");
    const ElementPtr rgb = make_capsfilter(nullptr, "video/x-raw,format=RGB");
    const ElementPtr to_nv12 = make_element("qtivtransform");
    const ElementPtr nv12 = make_capsfilter(nullptr, "video/x-raw(memory:GBM),format=NV12,colorimetry=bt601");
    if (!to_rgb || !rgb || !to_nv12 || !nv12) {
        g_printerr("Failed to create processing elements.\n");
        return false;
    }
    add_all(pipeline, {to_rgb.get(), rgb.get(), to_nv12.get(), nv12.get()});
    if (!link_chain({to_rgb.get(), rgb.get(), to_nv12.get(), nv12.get()})) {
        g_printerr("Failed to link processing branch.\n");
        return false;
    }
    add_buffer_probe(rgb.get(), "src", on_buffer_received_v4l2, data);
    branch = {to_rgb.get(), rgb.get(), to_nv12.get(), nv12.get()};
    return true;
}

void on_pad_added(GstElement*, GstPad* pad, gpointer depay)
{
    const PadPtr sink(gst_element_get_static_pad(GST_ELEMENT(depay), "sink"));
    if (gst_pad_is_linked(sink.get())) {
        g_print("Pad already linked\n");
        return;
    }
    // The texts name an H.264 camera whatever the elements are.
    if (GST_PAD_LINK_FAILED(gst_pad_link(pad, sink.get())))
        g_printerr("Failed to link rtspsrc to rtph264depay\n");
    else
        g_print("Linked rtspsrc to rtph264depay\n");
}

void get_caps_for_qtivtransform(GstElement* transform)
{
    const PadPtr pad(gst_element_get_static_pad(transform, "src"));
    if (!pad) {
        VEL_LOG_ERROR("Failed to get the pad from qtivtransform.");
        return;
    }
    const CapsPtr caps = wait_for_caps(pad.get());
    if (caps && gst_caps_get_size(caps.get()) > 0) log_size_and_format(gst_caps_get_structure(caps.get(), 0));
}

} // namespace Quorvis::VelStream
