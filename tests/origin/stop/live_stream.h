// A stream with a live source of its own, run on a thread, for tests that stop it.
#pragma once

#include "StreamBuild.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace stop_tests {

using std::chrono::milliseconds;
using std::chrono::seconds;

/// What a test waits for at most; generous, since machines are shared.
inline constexpr seconds kBound{30};

/// An input that needs no peer: a live test picture, 320x240 NV12 at 30 frames a second.
class LiveInput : public Quorvis::VelStream::StreamInput {
public:
    using StreamInput::StreamInput;
    GstElement* build() override;
};

/// Runs startStream on a thread and keeps what came of it.
class RunningStream {
public:
    using Input = Quorvis::VelStream::StreamInput;
    using Output = Quorvis::VelStream::StreamOutput;
    using Hook = std::function<void(const Quorvis::VelStream::Image&)>;

    /// `input` is owned; `output` too, and may be null. The hook runs inside the callback.
    RunningStream(std::string id, std::unique_ptr<Input> input, std::unique_ptr<Output> output = nullptr,
                  Hook hook = nullptr);
    explicit RunningStream(const std::string& id) : RunningStream(id, std::make_unique<LiveInput>("live", id)) {}
    ~RunningStream();

    bool wait_for_frames(int64_t count, seconds bound = kBound);
    int64_t frames() const { return frames_; }
    int64_t last_index() const { return last_index_; }
    /// @return true when the call was back in time.
    bool is_back_within(milliseconds bound) { return result_.wait_for(bound) == std::future_status::ready; }
    int result() { return result_.get(); }

private:
    int8_t take(const Quorvis::VelStream::Image& image);

    std::unique_ptr<Input> input_;
    std::unique_ptr<Output> output_;
    Hook hook_;
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::atomic<int64_t> frames_{0};
    std::atomic<int64_t> last_index_{0};
    std::shared_future<int> result_;
    std::thread thread_;
};

/// Runs `body` in a child process, which a stop's process-wide effect then dies with. The caller must not have
/// initialised GStreamer. @return what is wrong with how it ended, or an empty text.
std::string run_in_child(const std::function<std::string()>& body, seconds bound = seconds(60));

/// Writes a configuration file and makes both readers use it; the text outlives the process's calls.
void use_configuration(const std::string& json);

/// A folder of its own for this process, removed at its end.
std::string temporary_folder();

} // namespace stop_tests
