// A call that starts a stream, on a thread of its own, and what came of it.
#pragma once

#include "patience.h"
#include "velstream.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace velstream::testing {

using Quorvis::VelStream::FrameCallback;
using Quorvis::VelStream::Image;

#ifdef __SANITIZE_THREAD__
inline constexpr std::chrono::milliseconds kEndAfterStop{5000};
#else
/// How long after the return of a stop the stopped call may still take.
inline constexpr std::chrono::milliseconds kEndAfterStop{1000};
#endif

class StreamCall {
public:
    /// Blocks until the stream has ended.
    using Start = std::function<int(FrameCallback&)>;
    using OnFrame = std::function<void(const Image&)>;

    /// @param on_frame  called for every frame, on a streaming thread, before the frame is counted.
    explicit StreamCall(Start start, OnFrame on_frame = {});
    /// Ends the process when the call still has not ended: nothing that it uses may go away under it.
    ~StreamCall();
    StreamCall(const StreamCall&) = delete;
    StreamCall& operator=(const StreamCall&) = delete;

    std::int64_t frames() const;
    /// Waits for this many frames. @return false when the call ended before, or after the bound.
    bool wait_for_frames(std::int64_t count, std::chrono::milliseconds bound = kPatience) const;
    bool has_ended() const;
    bool wait_for_end(std::chrono::milliseconds bound = kPatience) const;
    /// Result of the call, once it has ended; none when it ended with an exception.
    std::optional<int> result() const;
    /// What the exception said that ended the call, or empty.
    std::string exception() const;

private:
    struct State;
    std::shared_ptr<State> state_;
};

/// Starts the stream with this id of the configuration file.
StreamCall::Start configured_stream(const std::string& id);

/// Stops a stream through the public interface and waits for its call.
::testing::AssertionResult stop_ends_call(StreamCall& call, const std::string& stop_id);

} // namespace velstream::testing
