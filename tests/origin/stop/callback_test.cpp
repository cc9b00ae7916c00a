// Callbacks that hold their stream up while it is being stopped.
#include "LiveInput.h"
#include "StreamBuild.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

namespace velstream::testing {

namespace {

using Clock = std::chrono::steady_clock;
using Quorvis::VelStream::send_eos;

// A stop waits at most 2 s for the end of the stream; the rest is for a busy machine.
constexpr std::chrono::seconds kStopBound{4};

class StopWithSlowCallback : public ::testing::Test {
protected:
    static void SetUpTestSuite() { gst_init(nullptr, nullptr); }
};

} // namespace

TEST_F(StopWithSlowCallback, EndsTheCallWithinItsBound)
{
    StreamCall call(live_stream("slow"), [](const Image&) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200)); // the callback's work
    });
    ASSERT_TRUE(call.wait_for_frames(3));
    const auto start = Clock::now();
    EXPECT_TRUE(stop_ends_call(call, "slow"));
    EXPECT_LT(Clock::now() - start, kStopBound + kEndAfterStop);
}

TEST_F(StopWithSlowCallback, EndsTheCallWhenTheSourceIsHeldUpToo)
{
    // More frames than the queues of a chain hold, before the stop.
    const LiveSpec spec{.width = 1280, .height = 720, .fps = 60};
    StreamCall call(live_stream("full", spec), [](const Image&) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100)); // the callback's work
    });
    ASSERT_TRUE(call.wait_for_frames(15));
    const auto start = Clock::now();
    EXPECT_TRUE(stop_ends_call(call, "full"));
    EXPECT_LT(Clock::now() - start, kStopBound + kEndAfterStop);
}

TEST_F(StopWithSlowCallback, ThatNeverReturnsDoesNotHoldTheStopUp)
{
    std::promise<void> release;
    const std::shared_future<void> is_released = release.get_future().share();
    std::promise<void> is_blocked;
    StreamCall call(live_stream("blocked"), [&, is_released](const Image& image) {
        if (image.frameIndex == 2) is_blocked.set_value();
        if (image.frameIndex >= 2) is_released.wait();
    });
    ASSERT_EQ(is_blocked.get_future().wait_for(kPatience), std::future_status::ready);

    std::future<void> stop = std::async(std::launch::async, [] { send_eos("blocked"); });
    EXPECT_EQ(stop.wait_for(kStopBound), std::future_status::ready) << "the stop waits for the callback";
    EXPECT_FALSE(call.has_ended()) << "the frame's memory was released under the callback";
    release.set_value();
    EXPECT_EQ(stop.wait_for(kPatience), std::future_status::ready);
    EXPECT_TRUE(call.wait_for_end(kEndAfterStop));
}

} // namespace velstream::testing
