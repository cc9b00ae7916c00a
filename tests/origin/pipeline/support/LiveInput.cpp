#include "LiveInput.h"

#include "StreamBuild.h"

#include <utility>

namespace velstream::testing {

LiveInput::LiveInput(std::string id, LiveSpec spec) : StreamInput("live", std::move(id)), spec_(std::move(spec)) {}

GstElement* LiveInput::build()
{
    if (spec_.before_build) spec_.before_build();
    const std::string text = "videotestsrc is-live=true pattern=ball num-buffers=" + std::to_string(spec_.frames) +
                             " ! video/x-raw,format=NV12,width=" + std::to_string(spec_.width) +
                             ",height=" + std::to_string(spec_.height) + ",framerate=" + std::to_string(spec_.fps) +
                             "/1";
    return gst_parse_bin_from_description(text.c_str(), TRUE, nullptr);
}

StreamCall::Start live_stream(const std::string& id, const LiveSpec& spec,
                              std::shared_ptr<Quorvis::VelStream::StreamOutput> output)
{
    const auto input = std::make_shared<LiveInput>(id, spec);
    if (output) output->set_stream_id(id);
    return [id, input, output](FrameCallback& callback) {
        return Quorvis::VelStream::startStream(input.get(), output.get(), id, callback);
    };
}

} // namespace velstream::testing
