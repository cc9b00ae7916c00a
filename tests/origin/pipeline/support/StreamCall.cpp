#include "StreamCall.h"

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>

namespace velstream::testing {

struct StreamCall::State {
    std::mutex mutex; // guards all below
    std::condition_variable changed;
    std::int64_t frames = 0;
    bool has_ended = false;
    std::optional<int> result;
    std::string exception;

    void note_frame()
    {
        const std::lock_guard lock(mutex);
        ++frames;
        changed.notify_all();
    }
    void note_end(std::optional<int> value, std::string text)
    {
        const std::lock_guard lock(mutex);
        has_ended = true;
        result = value;
        exception = std::move(text);
        changed.notify_all();
    }
};

StreamCall::StreamCall(Start start, OnFrame on_frame) : state_(std::make_shared<State>())
{
    std::thread([state = state_, start = std::move(start), on_frame = std::move(on_frame)]() mutable {
        FrameCallback callback = [state, on_frame](const Image& image) -> int8_t {
            if (on_frame) on_frame(image);
            state->note_frame();
            return 0;
        };
        try {
            const int result = start(callback);
            start = nullptr;
            state->note_end(result, {});
        } catch (const std::exception& error) {
            start = nullptr;
            state->note_end(std::nullopt, error.what());
        }
    }).detach();
}

StreamCall::~StreamCall()
{
    if (wait_for_end()) return;
    std::fputs("A call that starts a stream has not ended.\n", stderr);
    std::fflush(nullptr);
    std::_Exit(EXIT_FAILURE);
}

std::int64_t StreamCall::frames() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->frames;
}

bool StreamCall::wait_for_frames(std::int64_t count, std::chrono::milliseconds bound) const
{
    std::unique_lock lock(state_->mutex);
    state_->changed.wait_for(lock, bound, [&] { return state_->frames >= count || state_->has_ended; });
    return state_->frames >= count;
}

bool StreamCall::has_ended() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->has_ended;
}

bool StreamCall::wait_for_end(std::chrono::milliseconds bound) const
{
    std::unique_lock lock(state_->mutex);
    return state_->changed.wait_for(lock, bound, [&] { return state_->has_ended; });
}

std::optional<int> StreamCall::result() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->result;
}

std::string StreamCall::exception() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->exception;
}

StreamCall::Start configured_stream(const std::string& id)
{
    return [id](FrameCallback& callback) { return Quorvis::VelStream::start_stream(id, callback); };
}

::testing::AssertionResult stop_ends_call(StreamCall& call, const std::string& stop_id)
{
    Quorvis::VelStream::gstreamer_pipeline_shutdown(stop_id);
    if (call.wait_for_end(kEndAfterStop)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "the call goes on " << kEndAfterStop.count()
                                         << " ms after the stop's return, with " << call.frames() << " frames so far";
}

} // namespace velstream::testing
