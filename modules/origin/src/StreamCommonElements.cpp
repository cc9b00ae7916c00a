#include "ElementTools.h"
#include "Log.h"
#include "RtspPush.h"
#include "StreamCommon.h"
#include "StreamOutput.h"

namespace Quorvis::VelStream {

namespace {

/// Makes a floating element; a failure is one line on standard error.
GstElement* setup_element(const char* factory, const std::string& name, const char* failure)
{
    GstElement* element = gst_element_factory_make(factory, name.c_str());
    if (!element && failure) g_printerr("%s", failure);
    return element;
}

/// Gives a builder the life of the process and returns what it builds.
GstElement* build_kept(StreamOutput* builder, const std::string& stream_id)
{
    keep_builder(builder);
    builder->set_stream_id(stream_id);
    return builder->build();
}

} // namespace

GstElement* g_setup_source(const char* location)
{
    GstElement* source = setup_element("rtspsrc", "source", "Failed to create RTSP source.\n");
    set_property(source, "location", std::string(location ? location : ""));
    return source;
}

GstElement* g_setup_depay_i()
{
    return setup_element("rtph264depay", "depay", "Failed to create RTP depayloader.\n");
}

GstElement* g_setup_parser_i()
{
    return setup_element("h264parse", "parser", "Failed to create H264 parser.\n");
}

GstElement* g_setup_decoder_i()
{
    GstElement* decoder = setup_element("v4l2h264dec", "decoder", "Failed to create H264 decoder.\n");
    set_io_modes(decoder, {5, 2});
    return decoder;
}

GstElement* g_setup_splitter()
{
    return setup_element("qtivsplit", "splitter", "Failed to create splitter.\n");
}

GstElement* g_setup_encoder_o(int n)
{
    GstElement* encoder = setup_element("v4l2h264enc", "encoder" + std::to_string(n), nullptr);
    set_io_modes(encoder, {2, 5});
    return encoder;
}

GstElement* g_setup_parser_o(int n)
{
    return setup_element("h264parse", "parse" + std::to_string(n), nullptr);
}

GstElement* g_setup_sink(const char* location, int n)
{
    ElementPtr sink = make_rtsp_push(("sink" + std::to_string(n)).c_str(), location ? location : "");
    if (sink) g_object_force_floating(G_OBJECT(sink.get())); // as a new element is
    return sink.release();
}

GstElement* g_get_stream_output(StreamIns ins)
{
    VEL_LOG_INFO("g_get_stream_output - stream id: %s, output type: %s, address: %s", ins.streamsId.c_str(),
                 ins.outputType.c_str(), ins.outputAddr.c_str());
    if (ins.outputType == "rtsp")
        return build_kept(new StreamOutputRtspsink(ins.outputAddr, ins.width, ins.height), ins.streamsId);
    if (ins.outputType == "wayland")
        return build_kept(new StreamOutputWaylandsink(0, 0, ins.width, ins.height), ins.streamsId);
    return gst_element_factory_make("fakesink", "sink");
}

int align_up(int value, int alignment)
{
    // The sum of a value near the largest wraps round, as the machine does it.
    const auto sum = static_cast<int>(static_cast<unsigned>(value) + static_cast<unsigned>(alignment) - 1U);
    return sum / alignment * alignment;
}

} // namespace Quorvis::VelStream
