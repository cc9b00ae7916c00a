// An input that is live and needs no peer.
#pragma once

#include "StreamCall.h"
#include "StreamInput.h"
#include "StreamOutput.h"

#include <functional>
#include <memory>
#include <string>

namespace velstream::testing {

struct LiveSpec {
    int width = 320;
    int height = 240;
    int fps = 30;
    int frames = -1; ///< -1: until it is stopped
    /// Called at the start of build(), on the thread of the start call.
    std::function<void()> before_build = {};
};

/// Decoded video at its frame rate, as a camera's bin gives it.
class LiveInput : public Quorvis::VelStream::StreamInput {
public:
    LiveInput(std::string id, LiveSpec spec);
    GstElement* build() override;

private:
    LiveSpec spec_;
};

/// Runs a live stream with this output, or with none.
StreamCall::Start live_stream(const std::string& id, const LiveSpec& spec = {},
                              std::shared_ptr<Quorvis::VelStream::StreamOutput> output = nullptr);

} // namespace velstream::testing
