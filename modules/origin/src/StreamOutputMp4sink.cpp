#include "StreamOutput.h"

#include "ElementTools.h"
#include "Log.h"
#include "StreamCommon.h"
#include "TimeStamps.h"

#include <utility>

namespace Quorvis::VelStream {

namespace {

ElementPtr make_encoder(const char* factory)
{
    ElementPtr encoder = make_element(factory);
    set_property(encoder.get(), "b-frames", 4);
    set_property(encoder.get(), "target-bitrate", 2000000); // bits a second
    return encoder;
}

ElementPtr make_output_parser()
{
    ElementPtr parser = make_element("h264parse");
    set_property(parser.get(), "config-interval", 1); // seconds
    return parser;
}

/// Adds rows below the picture until the height is a multiple of 32, which the V4L2 encoder asks for.
void pad_height(GstElement* videobox, const std::string& stream_id)
{
    const int width = get_stream_width(stream_id);
    const int height = get_stream_height(stream_id);
    if (width == 0 || height == 0) {
        VEL_LOG_WARN("Output width and height not specified.");
        return;
    }
    const auto bottom = static_cast<int>(int64_t{height} - align_up(height, 32));
    set_property(videobox, "bottom", bottom);
    VEL_LOG_INFO("Configure video bottom: %d", bottom);
}

} // namespace

StreamOutputMp4sink::StreamOutputMp4sink(std::string location) : location_(std::move(location)) {}

StreamOutputMp4sink::StreamOutputMp4sink(std::string location, int width, int height)
    : location_(std::move(location)), width_(width), height_(height)
{
}

GstElement* StreamOutputMp4sink::build()
{
    if (has_v4l2_codecs()) return build_6490_ql();

    ElementPtr bin(gst_bin_new("velstream-output-mp4sink")); // floating on purpose
    const ElementPtr queue = make_element("queue");
    const ElementPtr sink = make_located("filesink", nullptr, location_);
    const ElementPtr mux = make_element("mp4mux");
    VEL_LOG_INFO("Output url: %s.", location_.c_str());
    VEL_LOG_INFO("Platform is 8550 (pure ubuntu), will use qtic2venc plugin.");
    const ElementPtr encoder = make_encoder("qtic2venc");
    const ElementPtr parser = make_output_parser();
    if (!bin || !queue || !sink || !mux || !encoder || !parser) {
        VEL_LOG_ERROR("Not all elements could be created.\n");
        return nullptr;
    }
    add_all(bin.get(), {encoder.get(), queue.get(), parser.get(), mux.get(), sink.get()});
    if (!link_chain({encoder.get(), queue.get(), parser.get(), mux.get(), sink.get()})) {
        VEL_LOG_ERROR("Failed to link elements. Exiting.");
        return nullptr;
    }
    make_times_rise(encoder.get(), "sink");
    createSinkPad(bin.get(), encoder.get());
    return bin.release();
}

GstElement* StreamOutputMp4sink::build_6490_ql()
{
    ElementPtr bin(gst_bin_new("velstream-output-mp4sink")); // floating on purpose
    const ElementPtr queue = make_element("queue");
    const ElementPtr sink = make_located("filesink", nullptr, location_);
    const ElementPtr transform = make_element("qtivtransform", "qtivtransformNV12");
    const ElementPtr nv12 = make_capsfilter("capsfilter_nv12", "video/x-raw,format=NV12");
    const ElementPtr to_i420 = make_element("videoconvert", "videoconvert_NV12");
    const ElementPtr i420 = make_capsfilter("capsfilter_I420", "video/x-raw,format=I420");
    const ElementPtr box = make_element("videobox");
    pad_height(box.get(), stream_id_);
    const ElementPtr from_i420 = make_element("videoconvert", "videoconvert_I420");
    const ElementPtr mux = make_element("mp4mux");
    VEL_LOG_INFO("Output url: %s.", location_.c_str());
    VEL_LOG_INFO("Platform is 6490 ql, will use v4l2h264enc plugin.");
    const ElementPtr encoder = make_encoder("v4l2h264enc");
    set_io_modes(encoder.get(), platform_row(kEncoderIoModes).mp4);
    const ElementPtr parser = make_output_parser();
    if (!bin || !queue || !sink || !transform || !nv12 || !to_i420 || !i420 || !box || !from_i420 || !mux || !encoder ||
        !parser) {
        VEL_LOG_ERROR("Not all elements could be created.\n");
        return nullptr;
    }
    add_all(bin.get(), {transform.get(), nv12.get(), to_i420.get(), i420.get(), box.get(), from_i420.get(),
                        encoder.get(), queue.get(), parser.get(), mux.get(), sink.get()});
    if (!link_chain({transform.get(), nv12.get(), to_i420.get(), i420.get(), box.get(), from_i420.get(), encoder.get(),
                     queue.get(), parser.get(), mux.get(), sink.get()})) {
        VEL_LOG_ERROR("Failed to link elements. Exiting.");
        return nullptr;
    }
    make_times_rise(encoder.get(), "sink");
    createSinkPad(bin.get(), transform.get());
    return bin.release();
}

} // namespace Quorvis::VelStream
