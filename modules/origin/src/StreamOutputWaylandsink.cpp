#include "StreamOutput.h"

#include "ElementTools.h"
#include "Log.h"

namespace Quorvis::VelStream {

StreamOutputWaylandsink::StreamOutputWaylandsink(int x, int y, int width, int height)
    : x_(x), y_(y), width_(width), height_(height)
{
}

GstElement* StreamOutputWaylandsink::build()
{
    ElementPtr bin(gst_bin_new("velstream-output-waylandsink")); // floating on purpose
    const ElementPtr sink = make_element("waylandsink");
    set_property(sink.get(), "x", x_);
    set_property(sink.get(), "y", y_);
    set_property(sink.get(), "width", width_);
    set_property(sink.get(), "height", height_);
    if (!bin || !sink) {
        VEL_LOG_ERROR("Not all elements could be created.\n");
        return nullptr;
    }
    add_all(bin.get(), {sink.get()});
    createSinkPad(bin.get(), sink.get());
    return bin.release();
}

} // namespace Quorvis::VelStream
