// The builders' root: a stream id and the ghost pads of what is built.
#pragma once

#include <gst/gst.h>

#include <string>

namespace Quorvis::VelStream {

class StreamBase {
public:
    StreamBase();

    /// Builds once. @return a floating bin with a ghost "src" (inputs) or "sink" (outputs) pad; null after a line in
    /// the log. The builder keeps no reference to it.
    virtual GstElement* build() = 0;

    /// Puts a ghost pad "sink" (or "src") on a bin, of the element's static pad of that name, and activates it.
    void createSinkPad(GstElement* bin, GstElement* elem);
    void createSrcPad(GstElement* bin, GstElement* elem);

    void set_stream_id(std::string id);

protected:
    void* reserved0_ = nullptr; // the three are not used
    void* reserved1_ = nullptr;
    void* reserved2_ = nullptr;
    std::string stream_id_;
};

} // namespace Quorvis::VelStream
