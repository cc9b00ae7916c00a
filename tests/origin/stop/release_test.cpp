// What a stream used is released when its call returns.
#include "ConfigFile.h"
#include "rounds.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace velstream::testing {

namespace {

/// Runs a round under GStreamer's leak tracer. @return a line for each object that was still alive at its end.
std::vector<std::string> objects_left_by(const std::string& round)
{
    const TemporaryFolder folder;
    const std::string log = folder.file("log.txt");
    // Element types and what they are held by; the plug-ins' own objects live as long as the process.
    setenv("GST_TRACERS", "leaks(filters=\"GstElement,GstBus,GstBuffer,GstEvent,GstMessage\",check-refs=false)", 1);
    setenv("GST_DEBUG", "GST_TRACER:7", 1);
    setenv("GST_DEBUG_NO_COLOR", "1", 1);
    setenv("GST_DEBUG_FILE", log.c_str(), 1);
    EXPECT_EQ(run_round({round}).status, 0);
    std::vector<std::string> found;
    std::ifstream lines(log);
    EXPECT_TRUE(lines.is_open());
    for (std::string line; std::getline(lines, line);) {
        if (line.find("object-alive, type-name=(string)Gst") != std::string::npos) found.push_back(line);
    }
    return found;
}

} // namespace

TEST(Release, OfAPipelineThatIsKeptIsMissed)
{
    int pipelines = 0;
    for (const std::string& object : objects_left_by("keep-a-pipeline"))
        pipelines += object.find("type-name=(string)GstPipeline") != std::string::npos ? 1 : 0;
    EXPECT_EQ(pipelines, 1);
}

TEST(Release, OfTwentyStreamsLeavesNothing)
{
    const std::vector<std::string> left = objects_left_by("release");
    EXPECT_TRUE(left.empty()) << left.size() << " objects, the first: " << left.front();
}

} // namespace velstream::testing
