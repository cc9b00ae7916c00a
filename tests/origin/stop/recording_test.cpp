// A stop loses nothing: what was recorded of a live stream can be played to its last frame.
#include "ConfigFile.h"
#include "VideoFiles.h"
#include "rounds.h"

#include <gtest/gtest.h>

namespace velstream::testing {

TEST(StopOfRecording, LeavesAFileThatPlaysToTheLastFrameTwentyTimes)
{
    const TemporaryFolder folder;
    for (int round = 0; round < 20; ++round) {
        SCOPED_TRACE(round);
        const std::string path = folder.file("recorded" + std::to_string(round) + ".mp4");
        const CommandResult recording = run_round({"record", path, std::to_string(3 + round)});
        ASSERT_EQ(recording.status, 0);
        const long frames = std::atol(value_of(recording.output, "frames").c_str());
        ASSERT_GE(frames, 3 + round);
        ASSERT_EQ(probe_video(path).frames, frames);
    }
}

} // namespace velstream::testing
