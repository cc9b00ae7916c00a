#include "StreamInput.h"

#include "BuilderList.h"
#include "StreamBuild.h"

#include <utility>

namespace Quorvis::VelStream {

StreamInput::StreamInput(std::string input_addr, std::string stream_id) : input_addr_(std::move(input_addr))
{
    stream_id_ = std::move(stream_id);
    bin_name_ = "velstream_input_file_" + stream_id_;
    note_stream_id(stream_id_);
}

StreamInput::~StreamInput() = default;

CapsPtr structured_caps(GstPad* pad)
{
    CapsPtr caps(gst_pad_get_current_caps(pad));
    return caps && gst_caps_get_size(caps.get()) > 0 ? std::move(caps) : nullptr;
}

bool carries_h264_or_h265(GstPad* pad)
{
    const CapsPtr caps = structured_caps(pad);
    if (!caps) return false;
    const char* name = gst_structure_get_name(gst_caps_get_structure(caps.get(), 0));
    return g_str_has_prefix(name, "video/x-h264") || g_str_has_prefix(name, "video/x-h265");
}

void keep_builder(StreamInput* builder)
{
    BuilderList<StreamInput>::keep(builder);
}

} // namespace Quorvis::VelStream
