#include "StreamOutput.h"

#include "ElementTools.h"
#include "Log.h"
#include "StreamCommon.h"
#include "TimeStamps.h"

#include <utility>

namespace Quorvis::VelStream {

StreamOutputRtmpsink::StreamOutputRtmpsink(std::string location) : location_(std::move(location)) {}

GstElement* StreamOutputRtmpsink::build()
{
    ElementPtr bin(gst_bin_new("velstream-output-rtmpsink")); // floating on purpose
    const ElementPtr sink = make_located("rtmpsink", nullptr, location_);
    const ElementPtr mux = make_element("flvmux");
    const ElementPtr filter = make_element("capsfilter");
    const ElementPtr encoder = make_element("qtic2venc");
    const bool is_h265 = get_encode_type(stream_id_) == "H265";
    set_property(filter.get(), "caps",
                 make_caps(is_h265 ? "video/x-h265,profile=baseline" : "video/x-h264,profile=baseline"));
    if (!bin || !sink || !mux || !filter || !encoder) {
        VEL_LOG_ERROR("Not all elements could be created.\n");
        return nullptr;
    }
    add_all(bin.get(), {encoder.get(), filter.get(), mux.get(), sink.get()});
    if (!link_steps({{encoder.get(), filter.get(), "Failed to link qtic2venc and capsfilter. Exiting.\n"},
                     {filter.get(), mux.get(), "Failed to link capsfilter and flvmux. Exiting.\n"},
                     {mux.get(), sink.get(), "Failed to link flvmux and rtmpsink. Exiting.\n"}}))
        return nullptr;
    make_times_rise(encoder.get(), "sink");
    createSinkPad(bin.get(), encoder.get());
    return bin.release();
}

} // namespace Quorvis::VelStream
