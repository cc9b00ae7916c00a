// From the configuration file, and from a description, to a re-encoder.
#include "RecordedLog.h"
#include "Reencoding.h"
#include "StreamBuild.h"
#include "StreamBuildReencode.h"
#include "velstreamFrames.h"

#include <filesystem>

using namespace Quorvis::VelStream;

namespace velstream::testing {

namespace {

class ReencoderEntry : public Reencoder {};

std::string saved_entry(const std::string& path, const std::string& more = {})
{
    return one_stream("cam", R"("saveMp4": true, "width": 320, "height": 240, "outputFile": ")" + path + "\"" + more);
}

} // namespace

TEST_F(ReencoderEntry, ConfiguredStreamIsSaved)
{
    const std::string path = folder_.file("saved.mp4");
    const ConfigFile file(saved_entry(path, R"(, "fps": 30)"));
    StreamCall call(configured_stream("cam"), painter());
    ASSERT_TRUE(call.wait_for_frames(5));
    EXPECT_TRUE(log_has("I Registration pipeline for mp4 stream id: cam"));
    running = false;
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    EXPECT_TRUE(log_has("I After receiving EOS for pipeline, exit."));
    expect_painted_file(path, 320, 240, call.frames());
}

TEST_F(ReencoderEntry, ImageHoldsTheSharedFrame)
{
    Image first;
    first.width = 0;
    bool is_grey = false;
    StreamCall call(described_stream(saved_stream("cam", folder_.file("a.mp4"), 320, 240, 50)),
                    [&](const Image& image) {
                        if (first.width != 0) return;
                        first = image;
                        is_grey = image.data[0] == 128 && image.data[image.size - 1] == 128;
                    });
    ASSERT_TRUE(call.wait_for_frames(2));
    EXPECT_TRUE(stop_ends_call(call, "cam"));
    EXPECT_EQ(first.data, g_share_memory_mp4.data.data());
    EXPECT_EQ(first.width, 320);
    EXPECT_EQ(first.height, 240);
    EXPECT_EQ(first.size, 320U * 240U * 3U);
    EXPECT_EQ(first.fps, 50.0);
    EXPECT_EQ(first.streamId + first.timestamp + first.extra, "");
    EXPECT_EQ(first.frameIndex, 0);
    EXPECT_TRUE(is_grey) << "until the callback has drawn";
}

TEST_F(ReencoderEntry, RegistersUnderItsOwnKeyAndClearsItAfterwards)
{
    GstElement* registered = nullptr;
    GstElement* source = nullptr;
    StreamCall call(described_stream(saved_stream("cam", folder_.file("a.mp4"), 320, 240)), [&](const Image&) {
        registered = pipeline_map["cam_mp4"];
        source = appsrc_s;
    });
    ASSERT_TRUE(call.wait_for_frames(1));
    EXPECT_TRUE(stop_ends_call(call, "cam_mp4"));
    EXPECT_NE(registered, nullptr);
    EXPECT_NE(source, nullptr);
    EXPECT_EQ(pipeline_map.count("cam"), 0U);
    EXPECT_EQ(pipeline_map["cam_mp4"], nullptr);
    EXPECT_EQ(pipeline_s, nullptr);
    EXPECT_EQ(appsrc_s, nullptr);
}

TEST_F(ReencoderEntry, SlotCounterTurnsRound)
{
    std::vector<uint64_t> slots;
    StreamCall call(described_stream(saved_stream("cam", folder_.file("a.mp4"), 320, 240, 100)),
                    [&](const Image&) { slots.push_back(buffer_index); });
    ASSERT_TRUE(call.wait_for_frames(6));
    EXPECT_TRUE(stop_ends_call(call, "cam"));
    ASSERT_GE(slots.size(), 6U);
    slots.resize(6);
    EXPECT_EQ(slots, (std::vector<uint64_t>{0, 1, 2, 3, 0, 1}));
}

TEST_F(ReencoderEntry, FrameThatIsLargerThanTheSharedOneIsRefused)
{
    StreamIns small;
    small.width = 160;
    small.height = 120;
    init_share_mem_mp4(small);
    bool is_called = false;
    StreamCall call(described_stream(saved_stream("cam", folder_.file("a.mp4"), 320, 240)),
                    [&](const Image&) { is_called = true; });
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), -1);
    EXPECT_FALSE(is_called);
    EXPECT_FALSE(std::filesystem::exists(folder_.file("a.mp4")));
    EXPECT_TRUE(log_has("E The shared frame of 160 x 120 pixels does not hold one of 320 x 240. stream_id: cam"));
    EXPECT_TRUE(pipeline_map.empty());
}

TEST_F(ReencoderEntry, SizeBelowZeroIsRefused)
{
    StreamCall call(described_stream(saved_stream("cam", folder_.file("a.mp4"), -640, -480)));
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), -1);
    EXPECT_EQ(call.frames(), 0);
}

TEST_F(ReencoderEntry, IdThatIsNotInTheFileIsRefused)
{
    const ConfigFile file(saved_entry("/nowhere/a.mp4"));
    std::function<int8_t(const Image&)> callback = [](const Image&) -> int8_t { return 0; };
    EXPECT_EQ(start_save_mp4("other", callback), -1);
    EXPECT_EQ(start_network_push("other", callback), -1);
    EXPECT_EQ(log_count("E For stream id: other missing related configuration."), 2);
}

} // namespace velstream::testing
