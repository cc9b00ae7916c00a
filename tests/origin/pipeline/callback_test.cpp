// What a callback that throws, or that takes long, does to its stream.
#include "FilePlayback.h"
#include "RecordedLog.h"

#include <chrono>
#include <numeric>
#include <stdexcept>
#include <thread>

namespace velstream::testing {

namespace {

using SlowCallback = Playback;
using ThrowingCallback = Playback;

/// Plays a file of 12 frames. @return the numbers of the frames, in their order.
std::vector<int> numbers_of(const std::string& path, const StreamCall::OnFrame& on_frame)
{
    make_video({.width = 320, .height = 240, .frames = 12}, path);
    const ConfigFile file(file_entry(path));
    std::vector<int> numbers;
    StreamCall call(configured_stream("file"), [&](const Image& image) {
        numbers.push_back(
            media::read_frame_number(image.data, image.width, image.height, static_cast<std::size_t>(image.width) * 3)
                .value_or(-1));
        on_frame(image);
    });
    EXPECT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), result_of_end());
    return numbers;
}

std::vector<int> all_numbers()
{
    std::vector<int> numbers(12);
    std::iota(numbers.begin(), numbers.end(), 0);
    return numbers;
}

} // namespace

TEST_F(ThrowingCallback, IsLoggedAndTheStreamGoesOn)
{
    const auto numbers = numbers_of(folder_.file("a.mp4"), [](const Image& image) {
        if (image.frameIndex == 3) throw std::runtime_error("no room");
        if (image.frameIndex == 4) throw 5;
    });
    EXPECT_EQ(numbers, all_numbers());
    EXPECT_EQ(log_count("E Frame callback of stream file raised an exception: no room"), 1);
    EXPECT_EQ(log_count("E Frame callback of stream file raised an exception."), 1);
}

TEST_F(SlowCallback, OfTwoSecondsLosesNoFrame)
{
    const auto numbers = numbers_of(folder_.file("a.mp4"), [](const Image& image) {
        if (image.frameIndex == 3) std::this_thread::sleep_for(std::chrono::seconds(2)); // the callback's work
    });
    EXPECT_EQ(numbers, all_numbers());
}

} // namespace velstream::testing
