#include "StreamInput.h"

#include "BuilderList.h"
#include "Log.h"
#include "StreamBuild.h"

#include <algorithm>
#include <utility>
#include <vector>

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

bool has_source_pad(GstElement* element, bool (*accepts)(GstPad*))
{
    std::vector<PadPtr> pads;
    GST_OBJECT_LOCK(element);
    for (const GList* pad = element->srcpads; pad; pad = pad->next)
        pads.emplace_back(GST_PAD(gst_object_ref(pad->data)));
    GST_OBJECT_UNLOCK(element);
    return std::any_of(pads.begin(), pads.end(), [accepts](const PadPtr& pad) { return accepts(pad.get()); });
}

void tell_unplayable(GstElement* element, const char* cause)
{
    if (!element) return;
    VEL_LOG_ERROR("Input cannot be played: %s", cause);
    GST_ELEMENT_WARNING(element, STREAM, WRONG_TYPE, ("%s", cause), (nullptr));
}

void keep_builder(StreamInput* builder)
{
    BuilderList<StreamInput>::keep(builder);
}

} // namespace Quorvis::VelStream
