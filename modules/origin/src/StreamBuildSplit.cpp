#include "ElementTools.h"
#include "Log.h"
#include "StreamBuild.h"
#include "StreamBuildMessages.h"
#include "StreamBuildRegistry.h"
#include "StreamBuildScope.h"
#include "StreamCommon.h"

#include <utility>

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

/// What both branches share, from the camera to the splitter.
struct SplitFront {
    explicit SplitFront(const std::string& address) : source(share(g_setup_source(address.c_str()))) {}

    ElementPtr source;
    ElementPtr depay = share(g_setup_depay_i());
    ElementPtr parser = share(g_setup_parser_i());
    ElementPtr decoder = share(g_setup_decoder_i());
    ElementPtr splitter = share(g_setup_splitter());
    ElementPtr queue = make_element("queue", "queue_1");
    bool is_complete() const { return source && depay && parser && decoder && splitter && queue; }
};

/// Adds the second branch's output. Two of a kind have one name, which a pipeline takes once.
void add_second_output(GstElement* pipeline, GstElement* first, GstElement* second)
{
    const TextPtr first_name(gst_element_get_name(first));
    const TextPtr second_name(gst_element_get_name(second));
    if (g_strcmp0(first_name.get(), second_name.get()) == 0)
        gst_object_set_name(GST_OBJECT(second), (std::string(second_name.get()) + "_2").c_str());
    add_all(pipeline, {second});
}

bool link_front(const SplitFront& front)
{
    g_signal_connect(front.source.get(), "pad-added", G_CALLBACK(on_pad_added), front.depay.get());
    return link_chain(
        {front.depay.get(), front.parser.get(), front.decoder.get(), front.queue.get(), front.splitter.get()});
}

/// Links a splitter's requested pad to a branch. The pad stays with the splitter for the pipeline's life.
bool link_split_pad(GstElement* splitter, const char* name, const ProcessingBranch& branch)
{
    const PadPtr source(gst_element_request_pad_simple(splitter, name));
    const PadPtr sink(gst_element_get_static_pad(branch.input, "sink"));
    return source && sink && !GST_PAD_LINK_FAILED(gst_pad_link(source.get(), sink.get()));
}

/// One queue stands in front of the splitter, and one in the first branch alone: the splitter feeds each branch from a
/// thread of its own.
bool assemble_split(PiplineData (&branches)[2], const StreamIns& first, const StreamIns& second)
{
    GstElement* pipeline = branches[0].pipeline;
    const SplitFront front(first.inputAddr);
    const ElementPtr queue = make_element("queue", "queue_2");
    const ElementPtr first_output = share(g_get_stream_output(first));
    const ElementPtr second_output = share(g_get_stream_output(second));
    if (!front.is_complete() || !queue || !first_output || !second_output) {
        VEL_LOG_ERROR("Failed to create elements.");
        return false;
    }
    add_all(pipeline, {front.source.get(), front.depay.get(), front.parser.get(), front.decoder.get(),
                       front.queue.get(), front.splitter.get(), queue.get(), first_output.get()});
    add_second_output(pipeline, first_output.get(), second_output.get());
    ProcessingBranch first_branch;
    ProcessingBranch second_branch;
    if (!setup_processing_branch(pipeline, &branches[0], first_branch) ||
        !setup_processing_branch(pipeline, &branches[1], second_branch)) {
        VEL_LOG_ERROR("Failed to setup processing branches.");
        return false;
    }
    if (!link_front(front)) {
        VEL_LOG_ERROR("Failed to link elements from the depayloader to the splitter in the split stream.");
        return false;
    }
    if (!link_split_pad(front.splitter.get(), "src_0", first_branch) ||
        !link_chain({first_branch.output, queue.get(), first_output.get()})) {
        VEL_LOG_ERROR("Failed to link output_1 branch");
        return false;
    }
    if (!link_split_pad(front.splitter.get(), "src_1", second_branch) ||
        !link_chain({second_branch.output, second_output.get()})) {
        VEL_LOG_ERROR("Failed to link output_2 branch");
        return false;
    }
    use_system_clock(pipeline);
    return true;
}

void watch_split(RunScope& scope)
{
    constexpr auto kTypes = GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR);
    const MessagePtr message = scope.wait_for_message(kTypes);
    if (!message) return; // another thread has stopped the pipeline
    if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR) {
        const ErrorReport report(message.get());
        VEL_LOG_ERROR("Error received from element %s: %s", source_name(message.get()), report.text());
        VEL_LOG_ERROR("Debugging information: %s", report.debug());
    }
    scope.run().note_end();
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

int startStream(StreamIns first, std::function<int8_t(const Image&)>& callback_1, StreamIns second,
                std::function<int8_t(const Image&)>& callback_2)
{
    // The environment stays as it is, on every platform: this runner sets none of the other runners' variables.
    gst_init(nullptr, nullptr);
    PiplineData branches[2];
    branches[0].pipeline = branches[1].pipeline = gst_pipeline_new(first.pStreamId.c_str());
    if (!branches[0].pipeline) {
        VEL_LOG_ERROR("Failed to create elements.");
        return -1;
    }
    pipeline_data_init(&branches[0], first.streamsId, callback_1);
    pipeline_data_init(&branches[1], second.streamsId, callback_2);
    register_pipeline(first.streamsId, branches[0].pipeline);
    register_other_id(second.streamsId, branches[0].pipeline);
    RunScope scope(&branches[0]);
    if (!assemble_split(branches, first, second)) return -1;
    if (scope.play()) watch_split(scope);
    return 0;
}

} // namespace Quorvis::VelStream
