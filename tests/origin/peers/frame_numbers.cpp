#include "frame_numbers.h"

#include "VideoFiles.h"
#include "media.h"

namespace velstream::testing {

void FrameNumbers::take(const Image& image)
{
    const std::size_t stride = 3U * static_cast<std::size_t>(image.width);
    const int number = media::read_frame_number(image.data, image.width, image.height, stride).value_or(-1);
    const std::lock_guard lock(mutex_);
    numbers_.push_back(number);
}

std::vector<int> FrameNumbers::all() const
{
    const std::lock_guard lock(mutex_);
    return numbers_;
}

std::vector<int> numbers_below(int end)
{
    std::vector<int> numbers;
    for (int number = 0; number < end; ++number)
        numbers.push_back(number);
    return numbers;
}

std::vector<int> numbers_in_file(const std::string& path)
{
    const VideoFacts facts = probe_video(path);
    std::vector<int> numbers;
    if (facts.frames <= 0) return numbers;
    const std::string frames = decode_with_ffmpeg(path, facts.height);
    const std::size_t stride = 3U * static_cast<std::size_t>(facts.width);
    const std::size_t size = stride * static_cast<std::size_t>(facts.height);
    for (std::size_t at = 0; at + size <= frames.size(); at += size) {
        const auto* rgb = reinterpret_cast<const std::uint8_t*>(frames.data() + at);
        numbers.push_back(media::read_frame_number(rgb, facts.width, facts.height, stride).value_or(-1));
    }
    return numbers;
}

std::string text_of(const std::vector<int>& numbers)
{
    std::string text;
    for (const int number : numbers)
        text += std::to_string(number) + " ";
    return text;
}

::testing::AssertionResult are_consecutive(const std::vector<int>& numbers, int period)
{
    for (std::size_t k = 1; k < numbers.size(); ++k) {
        if (numbers[k] != (numbers[k - 1] + 1) % period) return ::testing::AssertionFailure() << text_of(numbers);
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult are_rising(const std::vector<int>& numbers)
{
    for (std::size_t k = 1; k < numbers.size(); ++k) {
        if (numbers[k] <= numbers[k - 1]) return ::testing::AssertionFailure() << text_of(numbers);
    }
    return ::testing::AssertionSuccess();
}

} // namespace velstream::testing
