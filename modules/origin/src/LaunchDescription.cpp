#include "LaunchDescription.h"

#include "Log.h"
#include "RtspPush.h"

namespace Quorvis::VelStream {

bool is_linked_throughout(GstElement* pipeline)
{
    if (!GST_IS_BIN(pipeline)) return false;
    const PadPtr source(gst_bin_find_unlinked_pad(GST_BIN(pipeline), GST_PAD_SRC));
    const PadPtr sink(gst_bin_find_unlinked_pad(GST_BIN(pipeline), GST_PAD_SINK));
    return !source && !sink;
}

ElementPtr launch_pipeline(const std::string& description, std::string& failure)
{
    GError* raw_error = nullptr;
    ElementPtr pipeline = share(gst_parse_launch(description.c_str(), &raw_error));
    const ErrorPtr error(raw_error);
    replace_rtsp_pushes(pipeline.get());
    if (pipeline && !error) return pipeline;
    failure = error ? error->message : "no pipeline";
    const bool is_property = error && g_error_matches(error.get(), GST_PARSE_ERROR, GST_PARSE_ERROR_NO_SUCH_PROPERTY);
    if (!pipeline || !is_property || !is_linked_throughout(pipeline.get())) return nullptr;
    VEL_LOG_WARN("Pipeline runs without a property: %s", failure.c_str());
    return pipeline;
}

} // namespace Quorvis::VelStream
