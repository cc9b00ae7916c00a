#include "ElementTools.h"
#include "Log.h"
#include "StreamBuildScope.h"
#include "StreamBuildTap.h"
#include "StreamCommon.h"
#include "StreamInput.h"
#include "StreamOutput.h"

#include <chrono>
#include <thread>

namespace Quorvis::VelStream {

namespace {

constexpr std::chrono::milliseconds kPause{500};

/// @return false when a stop was asked for.
bool pause(StreamRun* run)
{
    if (run) return run->sleep_unless_stopped(kPause);
    std::this_thread::sleep_for(kPause);
    return true;
}

StreamInput* new_input(const StreamProperty& prop, const std::string& stream_id)
{
    if (prop.inputType == "file") return new StreamInputFile(prop.inputAddr, stream_id);
    if (prop.inputType == "rtsp") return new StreamInputRtsp(prop.inputAddr, stream_id);
    if (prop.inputType == "rtmp") return new StreamInputRtmp(prop.inputAddr, stream_id);
    VEL_LOG_ERROR("re_create_pipeline - input type %s cannot be rebuilt.", prop.inputType.c_str());
    return nullptr;
}

ElementPtr build_input(const StreamProperty& prop, const std::string& stream_id)
{
    StreamInput* builder = new_input(prop, stream_id);
    if (!builder) return nullptr;
    keep_builder(builder);
    return share(builder->build());
}

StreamOutput* new_output(const StreamProperty& prop)
{
    if (prop.outputType == "rtsp") return new StreamOutputRtspsink(prop.outputAddr);
    // A fixed window: the size of a camera that comes back is not known yet.
    if (prop.outputType == "wayland") return new StreamOutputWaylandsink(0, 0, 1920, 1080);
    return nullptr;
}

ElementPtr build_output(const StreamProperty& prop, const std::string& stream_id)
{
    StreamOutput* builder = new_output(prop);
    if (!builder) return make_element("fakesink", "sink");
    keep_builder(builder);
    builder->set_stream_id(stream_id); // its encoder follows the entry's "encodeType", as before the rebuild
    return share(builder->build());
}

bool assemble(PiplineData* data, GstElement* input, GstElement* output)
{
    const ElementPtr to_rgb = make_element("qtivtransform", "qtivtransformInput");
    const ElementPtr from_rgb = make_element("qtivtransform", "qtivtransformOutput");
    VEL_LOG_INFO("re_create_pipeline - 6");
    VEL_LOG_INFO("re_create_pipeline - Platform is 8550, will skip opengl handling.");
    set_property(to_rgb.get(), "engine", 2);
    set_property(from_rgb.get(), "engine", 2);
    const ElementPtr filter = make_capsfilter("qtivtransformInputCap", "video/x-raw,format=RGB");
    add_all(data->pipeline, {input, to_rgb.get(), filter.get(), from_rgb.get(), output});
    if (!link_chain({input, to_rgb.get(), filter.get(), from_rgb.get(), output})) {
        VEL_LOG_ERROR("re_create_pipeline - Failed to link elements input - qtivtransformInput - capsfilter - "
                      "qtivtransformOutput - output in the pipeline.");
        return false;
    }
    add_buffer_probe(filter.get(), "src", on_buffer_received_re, data);
    return true;
}

void make_pipeline(PiplineData* data, StreamRun* run)
{
    data->pipeline = gst_pipeline_new(data->streamId.c_str());
    if (run) replace_pipeline(run, data->pipeline);
    use_system_clock(data->pipeline);
}

} // namespace

int re_create_pipeline(PiplineData* data)
{
    const std::shared_ptr<StreamRun> run = find_run(data->pipeline);
    release_pipeline(data);
    if (!pause(run.get())) return -1;

    StreamProperty prop;
    if (get_configuration_properties(data->streamId, prop) == -1) {
        VEL_LOG_ERROR("re_create_pipeline - failed to re-create pipeline.");
        return -1;
    }
    const ElementPtr input = build_input(prop, data->streamId);
    const ElementPtr output = build_output(prop, data->streamId);
    make_pipeline(data, run.get());
    if (!pause(run.get()) || !assemble(data, input.get(), output.get())) {
        release_pipeline(data);
        return -1;
    }
    return 0;
}

GstPadProbeReturn on_buffer_received_re(GstPad* pad, GstPadProbeInfo* info, void* data)
{
    return tap_frame<TapKind::Recreated>(pad, info, static_cast<PiplineData*>(data));
}

} // namespace Quorvis::VelStream
