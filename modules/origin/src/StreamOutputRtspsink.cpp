#include "StreamOutput.h"

#include "ElementTools.h"
#include "Log.h"
#include "RtspPush.h"
#include "StreamCommon.h"
#include "TimeStamps.h"

#include <utility>

namespace Quorvis::VelStream {

namespace {

constexpr int kProtocolTcp = 4; // value of rtspclientsink's "protocols"
constexpr const char* kH265Caps = "video/x-h265,stream-format=byte-stream,alignment=au";

/// Asks for these caps on the encoder's "sink" pad. A GstPad's "caps" cannot be written, so this stays a wish.
void assign_sink_caps(GstElement* encoder)
{
    if (!encoder) return;
    const PadPtr pad(gst_element_get_static_pad(encoder, "sink"));
    set_property(pad.get(), "caps", make_caps(kH265Caps));
}

ElementPtr make_generic_encoder()
{
    VEL_LOG_INFO("%s", platform_row(kRtspEncoderLogs).log);
    ElementPtr encoder = make_element("qtic2venc");
    set_property(encoder.get(), "target-bitrate", 5000000); // bits a second
    set_property(encoder.get(), "idr-interval", 30);        // frames
    set_property(encoder.get(), "b-frames", 0);
    return encoder;
}

struct V4l2Elements {
    ElementPtr parser;
    ElementPtr encoder;
};

V4l2Elements make_v4l2_h265()
{
    V4l2Elements made{make_element("h265parse", "h265-parser2"), make_element("v4l2h265enc")};
    set_io_modes(made.encoder.get(), platform_row(kEncoderIoModes).rtsp_h265);
    assign_sink_caps(made.encoder.get());
    return made;
}

V4l2Elements make_v4l2_h264()
{
    V4l2Elements made{make_element("h264parse", "h264-parser2"), make_element("v4l2h264enc")};
    set_io_modes(made.encoder.get(), platform_row(kEncoderIoModes).rtsp_h264);
    return made;
}

V4l2Elements make_v4l2_elements(const std::string& stream_id)
{
    if (get_encode_type(stream_id) == "H265") {
        VEL_LOG_INFO("Stream id: %s, Output rtsp sink is h265 parse.", stream_id.c_str());
        return make_v4l2_h265();
    }
    VEL_LOG_INFO("Stream id: %s, Output rtsp sink is h264 parse.", stream_id.c_str());
    return make_v4l2_h264();
}

} // namespace

StreamOutputRtspsink::StreamOutputRtspsink(std::string location) : location_(std::move(location)) {}

StreamOutputRtspsink::StreamOutputRtspsink(std::string location, int width, int height)
    : location_(std::move(location)), width_(width), height_(height)
{
}

GstElement* StreamOutputRtspsink::build()
{
    if (has_v4l2_codecs()) return build_6490_ql();

    ElementPtr bin(gst_bin_new("velstream-output-rtspsink")); // floating on purpose
    const ElementPtr sink = make_rtsp_push(nullptr, location_);
    set_property(sink.get(), "protocols", kProtocolTcp);
    set_property(sink.get(), "do-rtsp-keep-alive", false);
    const ElementPtr filter = make_element("capsfilter");
    VEL_LOG_INFO("Output url: %s.", location_.c_str());
    const ElementPtr encoder = make_generic_encoder();
    const std::string codec = get_encode_type(stream_id_);
    const ElementPtr parser = make_parser(codec);
    if (codec == "H265")
        assign_sink_caps(encoder.get());
    else
        set_property(filter.get(), "caps", make_caps("video/x-h264,profile=baseline"));
    if (!bin || !sink || !filter || !encoder || !parser) {
        VEL_LOG_ERROR("Not all elements could be created.\n");
        return nullptr;
    }
    add_all(bin.get(), {encoder.get(), filter.get(), parser.get(), sink.get()});
    if (!link_steps({{encoder.get(), filter.get(), "Failed to link qtic2venc and capsfilter. Exiting.\n"},
                     {filter.get(), parser.get(), "Failed to link capsfilter and h26xparse. Exiting.\n"},
                     {parser.get(), sink.get(), "Failed to link capsfilter and rtspclientsink. Exiting.\n"}}))
        return nullptr;
    make_times_rise(encoder.get(), "sink");
    createSinkPad(bin.get(), encoder.get());
    return bin.release();
}

GstElement* StreamOutputRtspsink::build_6490_ql()
{
    VEL_LOG_INFO("Build 6490 ql v4l2.");
    ElementPtr bin(gst_bin_new(("velstream-output-rtspsink-" + stream_id_).c_str())); // floating on purpose
    const ElementPtr sink = make_rtsp_push(nullptr, location_);
    VEL_LOG_INFO("Output url: %s.", location_.c_str());
    const auto [parser, encoder] = make_v4l2_elements(stream_id_);
    VEL_LOG_INFO("Platform is 6490 Qualcomm Linux, will use v4l2h264/5enc plugin.");
    if (!bin || !sink || !encoder || !parser) {
        VEL_LOG_ERROR("Not all elements could be created.\n");
        return nullptr;
    }
    add_all(bin.get(), {encoder.get(), parser.get(), sink.get()});
    if (!link_chain({encoder.get(), parser.get(), sink.get()})) {
        VEL_LOG_ERROR("Failed to link v4l2h264enc/h26xparse2/rtspclientsink elements!");
        return nullptr;
    }
    make_times_rise(encoder.get(), "sink");
    createSinkPad(bin.get(), encoder.get());
    return bin.release();
}

} // namespace Quorvis::VelStream
