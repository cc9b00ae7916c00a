#include "StreamBuildUsb.h"

#include "ElementTools.h"
#include "Log.h"
#include "Platform.h"
#include "ProcessEnvironment.h"
#include "StreamBuild.h"
#include "StreamBuildMessages.h"
#include "StreamBuildRegistry.h"
#include "StreamBuildScope.h"

#include <cstdlib>
#include <mutex>
#include <utility>

namespace Quorvis::VelStream {

namespace {

constexpr const char* kSourceName = "queue_input_src"; // kept: the name of a queue

/// Every start puts the system's folder in front once more; the variable grows with each.
void extend_library_path()
{
    const char* former = std::getenv("LD_LIBRARY_PATH");
    const std::string path = former ? std::string("/usr/lib:") + former : "/usr/lib";
    setenv("LD_LIBRARY_PATH", path.c_str(), 1);
}

void set_usb_environment()
{
    const std::lock_guard lock(environment_mutex());
    if (platform() == "v4l2") set_wayland_environment();
    extend_library_path();
}

ElementPtr make_rgb_filter(const StreamProperty& property)
{
    const TextPtr caps(g_strdup_printf("video/x-raw,format=RGB,width=%d,height=%d", property.width, property.height));
    return make_capsfilter("qtivtransformInputCap", caps.get());
}

ElementPtr make_nv12_filter(const StreamProperty& property)
{
    const TextPtr caps(
        g_strdup_printf("video/x-raw(memory:GBM),format=NV12,width=%d,height=%d", property.width, property.height));
    return make_capsfilter("qtivtransformOutputCap", caps.get());
}

/// From the camera to the output. No caps between source and decoder: the camera's formats settle them, and the size
/// that the RGB filter asks for travels up to the camera, since nothing before it scales.
struct UsbElements {
    explicit UsbElements(const StreamProperty& property)
        : rgb(make_rgb_filter(property)), nv12(make_nv12_filter(property))
    {
        set_property(source.get(), "device", property.inputAddr);
    }

    ElementPtr source = make_element("v4l2src", kSourceName);
    ElementPtr decoder = make_element("jpegdec", "usb_jpegdec");
    ElementPtr to_rgb = make_element("videoconvert", "usb_videoconvert");
    ElementPtr rgb; ///< carries the tap on its "src" pad
    ElementPtr from_rgb = make_element("qtivtransform", "qtivtransformOutput");
    ElementPtr nv12;

    bool is_complete() const { return source && decoder && to_rgb && rgb && from_rgb && nv12; }
};

bool assemble_usb(PiplineData* data, GstElement* output, const StreamProperty& property)
{
    const UsbElements usb(property);
    if (!usb.is_complete()) {
        VEL_LOG_ERROR("Failed to create one or more GStreamer elements in start_usb");
        return false;
    }
    if (platform() == "8550") {
        VEL_LOG_INFO("Platform is 8550, will skip opengl handling.");
        set_property(usb.from_rgb.get(), "engine", 2);
    }
    add_all(data->pipeline, {usb.source.get(), usb.decoder.get(), usb.to_rgb.get(), usb.rgb.get(), usb.from_rgb.get(),
                             usb.nv12.get(), output});
    if (!link_chain({usb.source.get(), usb.decoder.get(), usb.to_rgb.get(), usb.rgb.get(), usb.from_rgb.get(),
                     usb.nv12.get(), output})) {
        // Kept: the text names the elements of another runner.
        VEL_LOG_ERROR("Failed to link elements input/qtivtransformInput/capsfilter1/qtivtransformOutput/capsfilter2/"
                      "output in the pipeline.");
        return false;
    }
    add_buffer_probe(usb.rgb.get(), "src", on_buffer_received, data);
    return true;
}

bool has_streamed(GstMessage* message)
{
    GstObject* source = GST_MESSAGE_SRC(message);
    GstState state = GST_STATE_NULL;
    if (!source || g_strcmp0(GST_OBJECT_NAME(source), kSourceName) != 0) return false;
    gst_element_get_state(GST_ELEMENT(source), &state, nullptr, 0);
    return state == GST_STATE_PLAYING;
}

int fail_usb(RunScope& scope, GstMessage* message)
{
    const ErrorReport report(message);
    VEL_LOG_ERROR("Error received from element %s: %s", source_name(message), report.text());
    VEL_LOG_ERROR("Debugging information: %s", report.debug());
    if (has_streamed(message)) scope.let_output_finish();
    scope.release();
    VEL_LOG_ERROR("Pipeline failed.");
    return -1;
}

int complete_usb(RunScope& scope)
{
    scope.run().note_end();
    VEL_LOG_WARN("Receiving EOS signal in message bus *****************");
    scope.release();
    VEL_LOG_INFO("Pipeline completed (EOS).");
    return 0;
}

int watch_usb(RunScope& scope)
{
    constexpr auto kTypes = GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR | GST_MESSAGE_WARNING);
    while (const MessagePtr message = scope.wait_for_message(kTypes)) {
        if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR) return fail_usb(scope, message.get());
        if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS) return complete_usb(scope);
    }
    return 0; // another thread has stopped the pipeline
}

} // namespace

int startUsbStream(StreamProperty property, StreamOutput* output, std::string stream_id,
                   std::function<int8_t(const Image&)>& callback)
{
    set_usb_environment();
    gst_init(nullptr, nullptr);

    PiplineData data;
    data.pipeline = gst_pipeline_new(stream_id.c_str());
    if (!data.pipeline) {
        VEL_LOG_ERROR("pipeline couldn't be created due to pipeline is nullptr.\n");
        return -1;
    }
    pipeline_data_init(&data, stream_id, callback);
    register_pipeline(stream_id, data.pipeline);
    VEL_LOG_INFO("Registration pipeline for stream id: %s", stream_id.c_str());
    // Holds the pipeline until the runner takes it over, so that a builder's exception releases it too.
    const RunScope scope(&data);

    if (!output) VEL_LOG_INFO("streamOutput is set to fakesink due to streamOutput is nullptr.");
    const ElementPtr output_element = output ? share(output->build()) : make_element("fakesink");
    return start_usb(&data, output_element.get(), std::move(property));
}

int start_usb(PiplineData* data, GstElement* output, StreamProperty property)
{
    RunScope scope(data);
    const ElementPtr output_owner = share(output);
    if (!assemble_usb(data, output, property)) return -1;
    if (!scope.play()) return 0;
    return watch_usb(scope);
}

} // namespace Quorvis::VelStream
