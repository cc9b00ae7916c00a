#include "Segments.h"

#include "Command.h"
#include "VideoFiles.h"
#include "frame_numbers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <thread>

namespace velstream::testing {

std::string recorded_entry(const std::string& type, const std::string& address, const std::string& codec)
{
    return one_stream("cam", R"("inputType": ")" + type + R"(", "inputAddr": ")" + address + R"(", "decodeType": ")" +
                                 codec + R"(", "rollingsave": true)");
}

std::vector<std::string> segments_of(const std::string& id)
{
    std::vector<std::string> paths;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/tmp/rolling/" + id, error)) {
        if (entry.path().extension() == ".mp4") paths.push_back(entry.path());
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

::testing::AssertionResult wait_for_segments(const std::string& id, std::size_t count, std::chrono::seconds bound)
{
    const auto deadline = std::chrono::steady_clock::now() + bound;
    while (segments_of(id).size() < count) {
        if (std::chrono::steady_clock::now() > deadline)
            return ::testing::AssertionFailure() << segments_of(id).size() << " segments, not " << count;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return ::testing::AssertionSuccess();
}

void expect_complete(const std::vector<std::string>& segments, const std::string& codec)
{
    std::vector<int> numbers;
    for (const std::string& path : segments) {
        SCOPED_TRACE(path);
        const CommandResult stream = run_command({"ffprobe", "-v", "error", "-select_streams", "v", "-show_entries",
                                                  "stream=codec_name", "-of", "csv=p=0", path});
        EXPECT_EQ(stream.status, 0);
        EXPECT_EQ(stream.output, codec + "\n");
        const std::vector<int> part = numbers_in_file(path);
        EXPECT_FALSE(part.empty());
        numbers.insert(numbers.end(), part.begin(), part.end());
    }
    EXPECT_TRUE(are_consecutive(numbers, 1 << media::marker_bits(320))) << text_of(numbers);
}

} // namespace velstream::testing
