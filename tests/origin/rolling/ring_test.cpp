// The ring of segments, filled faster than a camera fills it.
#include "Elements.h"
#include "Segments.h"
#include "StreamRecords.h"
#include "StreamRollingSave.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

using namespace Quorvis::VelStream;

namespace velstream::testing {

namespace {

using Ring = WithGStreamer;

/// The recorder's own last element behind a camera of one picture a second, which nothing holds back.
std::string description(int pictures)
{
    StreamProperty property;
    property.inputType = "rtsp";
    const std::string camera = rolling_description(property, "cam");
    return "videotestsrc num-buffers=" + std::to_string(pictures) +
           " ! video/x-raw,width=64,height=64,framerate=1/1 ! x264enc key-int-max=2 bframes=0 ! h264parse ! "
           "video/x-h264,stream-format=avc,alignment=au" +
           camera.substr(camera.find(" ! splitmuxsink"));
}

} // namespace

TEST_F(Ring, NeverHoldsMoreThan100SegmentsAndUsesTheirNumbersAgain)
{
    constexpr int kSegments = 230;
    std::filesystem::create_directories("/tmp/rolling/cam");
    const ElementPtr pipeline(gst_parse_launch(description(2 * kSegments).c_str(), nullptr));
    ASSERT_TRUE(pipeline);
    const BusPtr bus(gst_element_get_bus(pipeline.get()));
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    std::size_t most = 0;
    MessagePtr end;
    for (int i = 0; i < 2000 && !end; ++i) {
        end.reset(gst_bus_timed_pop_filtered(bus.get(), 20 * GST_MSECOND,
                                             GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
        most = std::max(most, segments_of("cam").size());
    }
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    ASSERT_TRUE(end);
    EXPECT_EQ(GST_MESSAGE_TYPE(end.get()), GST_MESSAGE_EOS);
    EXPECT_EQ(most, 100U);
    const std::vector<std::string> segments = segments_of("cam");
    ASSERT_EQ(segments.size(), 100U);
    EXPECT_EQ(segments.front(), "/tmp/rolling/cam/00000.mp4");
    EXPECT_EQ(segments.back(), "/tmp/rolling/cam/00099.mp4");
    // The second turn ended at 00029, so this one is newer than the one after it.
    const auto time_of = [&](std::size_t i) { return std::filesystem::last_write_time(segments[i]); };
    EXPECT_GT(time_of(29), time_of(30));
    EXPECT_GT(time_of(0), time_of(50));
}

} // namespace velstream::testing
