#include "Log.h"
#include "StreamBuild.h"
#include "StreamBuildRegistry.h"
#include "StreamBuildScope.h"
#include "StreamBuildTap.h"

#include <chrono>
#include <future>
#include <thread>
#include <utility>
#include <vector>

namespace Quorvis::VelStream {

namespace {

/// How long a stop waits for the pipelines to come down.
constexpr std::chrono::milliseconds kNullBound{1000};

/// Waits until the runners have seen the end of their streams, within the bound, and takes the pipelines down.
void finish_stop(const std::vector<StopTarget>& targets)
{
    const auto end_deadline = std::chrono::steady_clock::now() + kEndOfStreamBound;
    for (const StopTarget& target : targets) {
        if (target.run && !target.run->wait_for_end(end_deadline))
            VEL_LOG_WARN("send_eos: the end of stream %s did not arrive in time; what it writes may be incomplete.",
                         target.stream_id.c_str());
    }
    std::vector<std::future<void>> nulls;
    for (const StopTarget& target : targets) {
        if (target.pipeline) nulls.push_back(set_null_elsewhere(target.pipeline.get()));
    }
    const auto null_deadline = std::chrono::steady_clock::now() + kNullBound;
    for (const std::future<void>& null : nulls)
        null.wait_until(null_deadline);
    for (const StopTarget& target : targets) {
        if (target.run) target.run->note_stopped();
    }
}

} // namespace

void send_eos(const std::string& stream_id)
{
    running.store(false, std::memory_order_release);
    const bool all = stream_id == "all_stream";
    std::vector<StopTarget> targets = ask_to_stop(stream_id, all);
    for (const StopTarget& target : targets) {
        if (!target.pipeline) continue;
        if (all)
            VEL_LOG_INFO("send_eos: stopping pipeline %s", target.stream_id.c_str());
        else
            VEL_LOG_INFO("send_eos: stopping single pipeline %s", target.stream_id.c_str());
        send_end_of_stream(target.pipeline.get());
        g_usleep(5000);
    }
    // A callback holds up the stream that it would wait for: the stop goes on beside it.
    if (is_in_frame_callback())
        std::thread([kept = std::move(targets)] { finish_stop(kept); }).detach();
    else
        finish_stop(targets);
}

} // namespace Quorvis::VelStream
