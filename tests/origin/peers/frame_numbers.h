// Which frames arrived: at the callback, and in what a peer has recorded.
#pragma once

#include "StreamCall.h"

#include <mutex>
#include <string>
#include <vector>

namespace velstream::testing {

/// Numbers read in the pictures of a stream, -1 where there is none. Thread-safe.
class FrameNumbers {
public:
    void take(const Image& image);
    StreamCall::OnFrame taker()
    {
        return [this](const Image& image) { take(image); };
    }
    std::vector<int> all() const;

private:
    mutable std::mutex mutex_;
    std::vector<int> numbers_;
};

/// 0, 1, ... below `end`.
std::vector<int> numbers_below(int end);

/// Numbers in a file's pictures, as ffmpeg decodes them.
std::vector<int> numbers_in_file(const std::string& path);

/// Each number is the one before plus one, modulo `period`.
::testing::AssertionResult are_consecutive(const std::vector<int>& numbers, int period);

/// Each number is greater than the one before: some may be missing.
::testing::AssertionResult are_rising(const std::vector<int>& numbers);

/// "3 4 5", for a failure's text.
std::string text_of(const std::vector<int>& numbers);

} // namespace velstream::testing
