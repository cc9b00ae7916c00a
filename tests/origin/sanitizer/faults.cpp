#include "faults.h"

#include "FilePlayback.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace velstream::testing {

namespace {

long frames_of_both = 0; // guarded by nothing, deliberately
std::atomic<long> frames{0};
std::atomic<int> callbacks_inside{0};

/// Waits until the callbacks of both streams are inside, and orders nothing between them.
void wait_for_the_other()
{
    static thread_local bool is_inside = false;
    if (!is_inside) callbacks_inside.fetch_add(1, std::memory_order_relaxed);
    is_inside = true;
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (callbacks_inside.load(std::memory_order_relaxed) < 2 && std::chrono::steady_clock::now() < end)
        std::this_thread::yield();
}

void count_without_lock(const Image& /*image*/)
{
    wait_for_the_other();
    ++frames_of_both;
}

void count_frame(const Image& /*image*/)
{
    wait_for_the_other();
    ++frames;
}

} // namespace

int run_with_fault(const std::string& fault, const std::string& path)
{
    const auto play = [&path](const char* id) {
        return [&path, id](FrameCallback& callback) {
            return Quorvis::VelStream::start_stream_input_file(path, callback, Quorvis::VelStream::STREAM_TYPE_NONE, "",
                                                               0, 0, id);
        };
    };
    gst_init(nullptr, nullptr);
    const StreamCall::OnFrame on_frame = fault == "race" ? count_without_lock : count_frame;
    const StreamCall first(play("first"), on_frame);
    const StreamCall second(play("second"), on_frame);
    return first.wait_for_end() && second.wait_for_end() && first.frames() > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace velstream::testing
