// What a callback that throws, or that takes long, does to a camera's stream.
#include "StreamBuild.h"
#include "usb_stream.h"

#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>

using namespace Quorvis::VelStream;

namespace velstream::testing {

namespace {

using UsbCallback = UsbStream;

constexpr std::chrono::seconds kLong{2};

} // namespace

TEST_F(UsbCallback, ThatThrowsIsLoggedAndTheStreamGoesOn)
{
    StreamCall call(usb_stream(), [](const Image& image) {
        if (image.frameIndex == 2) throw std::runtime_error("no room");
        if (image.frameIndex == 3) throw 5;
    });
    ASSERT_TRUE(call.wait_for_frames(10));
    EXPECT_TRUE(stop_ends_call(call, "usb"));
    EXPECT_EQ(call.result(), 0);
    EXPECT_EQ(log_count("E Frame callback of stream usb raised an exception: no room"), 1);
    EXPECT_EQ(log_count("E Frame callback of stream usb raised an exception."), 1);
}

TEST_F(UsbCallback, OfTwoSecondsLosesWhatTheCameraCannotKeepAndTheStreamGoesOn)
{
    std::vector<int> numbers;
    {
        StreamCall call(usb_stream(), [&](const Image& image) {
            numbers.push_back(number_in(image).value_or(-1));
            if (image.frameIndex == 3) std::this_thread::sleep_for(kLong); // the callback's work
        });
        ASSERT_TRUE(call.wait_for_frames(60));
        EXPECT_TRUE(stop_ends_call(call, "usb"));
        EXPECT_EQ(call.result(), 0);
    }
    for (std::size_t k = 1; k < numbers.size(); ++k)
        EXPECT_GT(numbers[k], numbers[k - 1]);
    const int lost = numbers.back() - numbers.front() + 1 - static_cast<int>(numbers.size());
    EXPECT_GE(lost, 20) << "60 frames come in two seconds, and nothing behind the camera's own buffers holds them";
}

TEST_F(UsbCallback, OfTwoSecondsEndsWithAStop)
{
    std::promise<void> is_inside;
    StreamCall call(usb_stream(), [&](const Image& image) {
        if (image.frameIndex != 3) return;
        is_inside.set_value();
        std::this_thread::sleep_for(kLong); // the callback's work
    });
    ASSERT_EQ(is_inside.get_future().wait_for(kPatience), std::future_status::ready);
    EXPECT_TRUE(stop_ends_call(call, "usb"));
    EXPECT_EQ(call.result(), 0);
}

} // namespace velstream::testing
