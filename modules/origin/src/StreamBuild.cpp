#include "StreamBuild.h"

#include "ElementTools.h"
#include "Log.h"
#include "Platform.h"
#include "ProcessEnvironment.h"
#include "StreamBuildRegistry.h"
#include "StreamBuildScope.h"

#include <mutex>

namespace Quorvis::VelStream {

std::atomic<bool> running{true};
int32_t g_fps = 25;
int32_t g_buffer_count = 4;

namespace {

void set_vendor_plugins()
{
    const char* plugins = "/opt/ubun20/usr/lib/aarch64-linux-gnu/gstreamer-1.0:"
                          "/usr/lib/aarch64-linux-gnu/gstreamer-1.0";
    set_environment("GST_PLUGIN_SYSTEM_PATH", plugins);
    set_environment("GST_PLUGIN_PATH", plugins);
    set_environment("GST_PLUGIN_SCANNER",
                    "/opt/ubun20/usr/lib/aarch64-linux-gnu/gstreamer1.0/gstreamer-1.0/gst-plugin-scanner");
    unset_environment("GST_REGISTRY");
    unset_environment("GST_REGISTRY_1_0");
}

void set_platform_environment()
{
    const std::lock_guard lock(environment_mutex());
    if (platform() == "v4l2") {
        set_wayland_environment();
    } else if (platform() == "6490") {
        set_vendor_plugins();
    }
}

void fill(PiplineData* data, std::string stream_id, std::function<int8_t(const Image&)>& callback)
{
    data->frameCount = 0;
    data->lastTime = system_time();
    data->callback = std::move(callback);
    callback = nullptr;
    data->streamId = std::move(stream_id);
    data->image.frameIndex = 0;
}

int run_on_platform(PiplineData* data, GstElement* input, GstElement* output)
{
    if (platform() == "v4l2") return start_6490_ql(data, input, output);
    if (platform() == "ub2404") return start_ub2404(data, input, output);
    return start(data, input, output);
}

} // namespace

void set_vendor_plugin_environment()
{
    if (platform() != "6490") return;
    const std::lock_guard lock(environment_mutex());
    set_vendor_plugins();
}

int pipeline_data_init(PiplineData* data, std::string stream_id, std::function<int8_t(const Image&)>& callback)
{
    fill(data, std::move(stream_id), callback);
    if (data->pipeline) return 0;
    VEL_LOG_ERROR("pipeline couldn't be created due to pipeline is nullptr.");
    return -1;
}

int startStream(StreamInput* input, StreamOutput* output, std::string stream_id,
                std::function<int8_t(const Image&)>& callback)
{
    set_platform_environment();
    gst_init(nullptr, nullptr);

    PiplineData data;
    fill(&data, stream_id, callback);
    data.pipeline = gst_pipeline_new(stream_id.c_str());
    if (!data.pipeline) {
        VEL_LOG_ERROR("pipeline couldn't be created due to pipeline is nullptr.\n");
        return -1;
    }
    register_pipeline(stream_id, data.pipeline);
    VEL_LOG_INFO("Registration pipeline for stream id: %s", stream_id.c_str());
    // Holds the pipeline until a runner takes it over, so that a builder's exception releases it too.
    RunScope scope(&data);

    if (!input) {
        VEL_LOG_ERROR("streamInput couldn't be created due to streamInput is nullptr.");
        return -1;
    }
    if (!output) VEL_LOG_INFO("streamOutput is set to fakesink due to streamOutput is nullptr.");
    const ElementPtr input_element = share(input->build());
    const ElementPtr output_element = output ? share(output->build()) : make_element("fakesink");
    return run_on_platform(&data, input_element.get(), output_element.get()) == -1 ? -1 : 0;
}

} // namespace Quorvis::VelStream
