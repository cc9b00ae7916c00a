#include "RecordedLog.h"
#include "StreamBuild.h"
#include "StreamRecords.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <tuple>
#include <type_traits>
#include <utility>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

template <typename Record, typename Member>
std::ptrdiff_t place(const Record& record, const Member& member)
{
    return reinterpret_cast<const char*>(&member) - reinterpret_cast<const char*>(&record);
}

template <typename Record, typename... Members>
void expect_in_order(const Record& record, const Members&... members)
{
    const std::ptrdiff_t places[] = {place(record, members)...};
    for (std::size_t i = 1; i < std::size(places); ++i)
        EXPECT_LT(places[i - 1], places[i]) << "member " << i + 1;
}

template <typename... Records>
constexpr bool are_plain_values = ((std::is_default_constructible_v<Records> && std::is_copy_constructible_v<Records> &&
                                    std::is_copy_assignable_v<Records> &&
                                    std::is_nothrow_move_constructible_v<Records> &&
                                    std::is_move_assignable_v<Records> && !std::is_polymorphic_v<Records>)&&...);

TEST(Records, ArePlainValues)
{
    static_assert(are_plain_values<StreamIns, StreamProperty, InputStreamProperty, OutputStreamProperty, ShareMem>);
    static_assert(are_plain_values<Image>);
    // The callback's move is not declared to throw nothing by every standard library.
    static_assert(std::is_copy_constructible_v<PiplineData> && std::is_move_constructible_v<PiplineData>);

    StreamIns original;
    original.streamsId = "cam";
    original.reserved = 3;
    StreamIns moved(std::move(original));
    EXPECT_EQ(moved.streamsId, "cam");
    EXPECT_EQ(moved.reserved, 3) << "member by member, the spare one included";
    Image frame;
    frame.extra = "NV12";
    frame.reserved1 = 5;
    const Image copy = frame;
    EXPECT_EQ(copy.extra, "NV12");
    EXPECT_EQ(copy.reserved1, 5);
}

TEST(StreamIns, DefaultsAreSet)
{
    const StreamIns ins;
    EXPECT_EQ(ins.streamsId, "empty");
    EXPECT_EQ(ins.pStreamId, "empty_p");
    EXPECT_EQ(ins.width, 0);
    EXPECT_EQ(ins.height, 0);
    EXPECT_EQ(ins.inputType, "");
    EXPECT_EQ(ins.inputAddr, "");
    EXPECT_EQ(ins.outputType, "");
    EXPECT_EQ(ins.outputAddr, "");
    EXPECT_EQ(ins.decodeType, "H264");
    EXPECT_EQ(ins.encodeType, "H264");
    EXPECT_FALSE(ins.audio);
    EXPECT_FALSE(ins.saveMp4);
    EXPECT_FALSE(ins.networkPush);
    EXPECT_EQ(ins.outputFile, "/tmp/saved_output.mp4");
    EXPECT_EQ(ins.fps, 0);
    EXPECT_TRUE(ins.manualRebuild);
    EXPECT_FALSE(ins.rollingsave);
    EXPECT_EQ(ins.reserved, -1);
}

TEST(StreamIns, MembersKeepTheirOrder)
{
    const StreamIns i;
    expect_in_order(i, i.streamsId, i.pStreamId, i.width, i.height, i.inputType, i.inputAddr, i.outputType,
                    i.outputAddr, i.decodeType, i.encodeType, i.audio, i.saveMp4, i.networkPush, i.outputFile, i.fps,
                    i.manualRebuild, i.rollingsave, i.reserved);
}

TEST(Image, MembersKeepTheirOrderAndWidths)
{
    const Image i;
    expect_in_order(i, i.streamId, i.data, i.reserved0, i.reserved1, i.reserved2, i.width, i.height, i.alignedWidth,
                    i.alignedHeight, i.size, i.fps, i.format, i.frameIndex, i.timestamp, i.planeStride, i.planeHeight,
                    i.pts, i.extra);
    static_assert(std::is_same_v<decltype(Image::data), uint8_t*>);
    static_assert(sizeof i.reserved0 == 4 && sizeof i.reserved1 == 4 && sizeof i.reserved2 == 4);
    for (const int32_t* number :
         {&i.width, &i.height, &i.alignedWidth, &i.alignedHeight, &i.format, &i.planeStride, &i.planeHeight})
        EXPECT_EQ(*number, 0);
    static_assert(std::is_same_v<decltype(Image::size), uint64_t>);
    static_assert(std::is_same_v<decltype(Image::fps), double>);
    static_assert(std::is_same_v<decltype(Image::frameIndex), int64_t>);
    static_assert(std::is_same_v<decltype(Image::pts), int64_t>);
    EXPECT_EQ(i.extra, "") << "frames are packed RGB unless this names another format";
}

TEST(StreamProperty, DefaultsAreSet)
{
    const StreamProperty prop;
    EXPECT_EQ(prop.reserved, -1);
    EXPECT_TRUE(prop.inputs.empty());
    EXPECT_TRUE(prop.outputs.empty());
    EXPECT_EQ(prop.streamsId, "empty");
    EXPECT_EQ(prop.pStreamId, "empty_p");
    EXPECT_EQ(prop.width, 0);
    EXPECT_EQ(prop.height, 0);
    EXPECT_EQ(prop.inputType, "");
    EXPECT_EQ(prop.inputAddr, "");
    EXPECT_EQ(prop.outputType, "");
    EXPECT_EQ(prop.outputAddr, "");
    EXPECT_EQ(prop.decodeType, "H264");
    EXPECT_EQ(prop.encodeType, "H264");
    EXPECT_EQ(prop.model, "");
    EXPECT_EQ(prop.mlModule, "");
    EXPECT_EQ(prop.labels, "");
    EXPECT_FALSE(prop.audio);
    EXPECT_FALSE(prop.saveMp4);
    EXPECT_FALSE(prop.networkPush);
    EXPECT_EQ(prop.outputFile, "/tmp/saved_output.mp4");
    EXPECT_EQ(prop.fps, 0);
    EXPECT_TRUE(prop.manualRebuild);
    EXPECT_FALSE(prop.rollingsave);
    EXPECT_EQ(prop.rollingFps, 30);
}

TEST(StreamProperty, MembersKeepTheirOrder)
{
    const StreamProperty p;
    expect_in_order(p, p.reserved, p.inputs, p.outputs, p.streamsId, p.pStreamId, p.width, p.height, p.inputType,
                    p.inputAddr, p.outputType, p.outputAddr, p.decodeType, p.encodeType, p.model, p.mlModule, p.labels,
                    p.audio, p.saveMp4, p.networkPush, p.outputFile, p.fps, p.manualRebuild, p.rollingsave,
                    p.rollingFps);
}

TEST(StreamProperty, CopyCarriesEveryMember)
{
    StreamProperty original;
    original.reserved = 7;
    original.inputs.resize(2);
    original.inputs[1].position = "<3, 4>";
    original.outputs.resize(1);
    original.outputs[0].textStr = "north gate";
    original.streamsId = "a";
    original.pStreamId = "b";
    original.width = 1;
    original.height = 2;
    original.inputType = "c";
    original.inputAddr = "d";
    original.outputType = "e";
    original.outputAddr = "f";
    original.decodeType = "g";
    original.encodeType = "h";
    original.model = "i";
    original.mlModule = "j";
    original.labels = "k";
    original.audio = original.saveMp4 = original.networkPush = original.rollingsave = true;
    original.outputFile = "l";
    original.fps = 3;
    original.manualRebuild = false;
    original.rollingFps = 4;

    const StreamProperty copy(original);
    EXPECT_EQ(copy.reserved, 7);
    ASSERT_EQ(copy.inputs.size(), 2U);
    EXPECT_EQ(copy.inputs[1].position, "<3, 4>");
    ASSERT_EQ(copy.outputs.size(), 1U);
    EXPECT_EQ(copy.outputs[0].textStr, "north gate");
    EXPECT_EQ(std::tie(copy.streamsId, copy.pStreamId, copy.inputType, copy.inputAddr, copy.outputType, copy.outputAddr,
                       copy.decodeType, copy.encodeType, copy.model, copy.mlModule, copy.labels, copy.outputFile),
              std::tie(original.streamsId, original.pStreamId, original.inputType, original.inputAddr,
                       original.outputType, original.outputAddr, original.decodeType, original.encodeType,
                       original.model, original.mlModule, original.labels, original.outputFile));
    EXPECT_EQ(std::make_tuple(copy.width, copy.height, copy.fps, copy.rollingFps), std::make_tuple(1, 2, 3, 4));
    EXPECT_TRUE(copy.audio && copy.saveMp4 && copy.networkPush && copy.rollingsave);
    EXPECT_FALSE(copy.manualRebuild);
}

TEST(InputStreamProperty, DefaultsAreSet)
{
    const InputStreamProperty input;
    EXPECT_EQ(input.inputType, "");
    EXPECT_EQ(input.inputAddr, "");
    EXPECT_EQ(input.decodeType, "H264");
    EXPECT_EQ(input.width, 0);
    EXPECT_EQ(input.height, 0);
    EXPECT_EQ(input.subStreamId, "");
    EXPECT_EQ(input.position, "<0, 0>");
    EXPECT_EQ(input.dimensions, "<1920, 1080>");
    EXPECT_EQ(input.crop, "");
    EXPECT_EQ(input.flipHorizontal, "");
    EXPECT_EQ(input.flipVertical, "");
}

TEST(OutputStreamProperty, DefaultsAreSet)
{
    const OutputStreamProperty output;
    EXPECT_EQ(output.outputType, "");
    EXPECT_EQ(output.outputAddr, "");
    EXPECT_EQ(output.encodeType, "H264");
    EXPECT_EQ(output.width, 0);
    EXPECT_EQ(output.height, 0);
    EXPECT_EQ(output.overlaySwitch, 0);
    EXPECT_EQ(output.subStreamId, "");
    EXPECT_EQ(output.logoPath, "");
    for (const int32_t number :
         {output.logoWidth, output.logoHeight, output.logoLocX, output.logoLocY, output.logoLocWidth,
          output.logoLocHeight, output.textLocX, output.textLocY, output.textFontSize})
        EXPECT_EQ(number, 0);
    EXPECT_EQ(output.textStr, "");
    EXPECT_EQ(output.textColor, "0xFF0000FF");
}

TEST(InputStreamProperty, MembersKeepTheirOrder)
{
    const InputStreamProperty i;
    expect_in_order(i, i.inputType, i.inputAddr, i.decodeType, i.width, i.height, i.subStreamId, i.position,
                    i.dimensions, i.crop, i.flipHorizontal, i.flipVertical);
}

TEST(OutputStreamProperty, MembersKeepTheirOrder)
{
    const OutputStreamProperty o;
    expect_in_order(o, o.outputType, o.outputAddr, o.encodeType, o.width, o.height, o.overlaySwitch, o.subStreamId,
                    o.logoPath, o.logoWidth, o.logoHeight, o.logoLocX, o.logoLocY, o.logoLocWidth, o.logoLocHeight,
                    o.textStr, o.textLocX, o.textLocY, o.textFontSize, o.textColor);
}

TEST(PiplineData, StartsEmpty)
{
    const PiplineData data;
    EXPECT_EQ(data.pipeline, nullptr);
    EXPECT_EQ(data.bus, nullptr);
    EXPECT_EQ(data.frameCount, 0U);
    EXPECT_FALSE(data.callback);
    EXPECT_EQ(data.streamId, "");
    static_assert(sizeof data.reserved == sizeof(void*));
    static_assert(std::is_same_v<decltype(PiplineData::frameCount), uint64_t>);
    static_assert(std::is_same_v<decltype(PiplineData::lastTime), GstClockTime>);
    static_assert(std::is_same_v<decltype(PiplineData::callback), std::function<int8_t(const Image&)>>);
    expect_in_order(data, data.pipeline, data.bus, data.reserved, data.frameCount, data.lastTime, data.callback,
                    data.image, data.streamId);
}

TEST(ShareMem, StartsUninitialised)
{
    const ShareMem memory;
    EXPECT_TRUE(memory.data.empty());
    EXPECT_EQ(memory.state, -1);
    EXPECT_EQ(memory.width, 0);
    EXPECT_EQ(memory.height, 0);
    EXPECT_EQ(memory.fps, 0);
    expect_in_order(memory, memory.data, memory.state, memory.width, memory.height, memory.fps, memory.reserved);
    static_assert(sizeof memory.reserved == 16);
}

TEST(Enumerations, HaveTheDocumentedValues)
{
    EXPECT_EQ(
        std::make_tuple(STREAM_TYPE_NONE, STREAM_TYPE_WAYLAND, STREAM_TYPE_RTSP, STREAM_TYPE_RTMP, STREAM_TYPE_MP4),
        std::make_tuple(0, 1, 2, 3, 4));
    EXPECT_EQ(std::make_tuple(SCENARIO_FILE, SCENARIO_COMPOSE_ONLY, SCENARIO_FILE_AND_RTSP, SCENARIO_RTSP),
              std::make_tuple(4, 5, 6, 7));
    EXPECT_EQ(std::make_tuple(TASK_ADD_INPUT, TASK_ADD_OUTPUT, TASK_RTSP, InferenceCB, TASK_SET_MAIN_OUTPUT, CustomCB,
                              TASK_SET_MODEL),
              std::make_tuple(0, 1, 2, 3, 4, 5, 6));
}

TEST(SyncData, CopiesWhatACallerDescribes)
{
    StreamIns ins;
    ins.streamsId = "cam";
    ins.pStreamId = "parent";
    ins.width = 640;
    ins.height = 360;
    ins.inputType = "rtsp";
    ins.inputAddr = "rtsp://camera/1";
    ins.outputType = "mp4";
    ins.outputAddr = "/tmp/a.mp4";
    ins.decodeType = "H265";
    ins.encodeType = "h265";
    ins.audio = true;
    ins.saveMp4 = true;
    ins.networkPush = true;
    ins.outputFile = "/tmp/b.mp4";
    ins.fps = 12;
    ins.manualRebuild = false;
    ins.rollingsave = true;
    StreamProperty prop;
    sync_data(ins, prop);
    EXPECT_EQ(prop.streamsId, "cam");
    EXPECT_EQ(prop.pStreamId, "parent");
    EXPECT_EQ(prop.width, 640);
    EXPECT_EQ(prop.height, 360);
    EXPECT_EQ(prop.inputType, "rtsp");
    EXPECT_EQ(prop.inputAddr, "rtsp://camera/1");
    EXPECT_EQ(prop.outputType, "mp4");
    EXPECT_EQ(prop.outputAddr, "/tmp/a.mp4");
    EXPECT_EQ(prop.decodeType, "H265");
    EXPECT_EQ(prop.encodeType, "h265");
    EXPECT_TRUE(prop.audio);
    EXPECT_TRUE(prop.saveMp4);
    EXPECT_TRUE(prop.networkPush);
    EXPECT_EQ(prop.outputFile, "/tmp/b.mp4");
    EXPECT_EQ(prop.fps, 12);
    EXPECT_FALSE(prop.manualRebuild);
    EXPECT_TRUE(prop.rollingsave);
}

TEST(SyncData, IntoAFreshRecordLeavesRollingFpsAndLists)
{
    StreamIns ins;
    ins.reserved = 5;
    StreamProperty prop;
    sync_data(ins, prop);
    EXPECT_EQ(prop.rollingFps, 30);
    EXPECT_TRUE(prop.inputs.empty());
    EXPECT_TRUE(prop.outputs.empty());
    EXPECT_EQ(prop.reserved, -1);
}

TEST(SyncData, LeavesWhatAStreamInsDoesNotSay)
{
    StreamProperty prop;
    prop.reserved = 9;
    prop.inputs.resize(1);
    prop.outputs.resize(2);
    prop.model = "m";
    prop.mlModule = "n";
    prop.labels = "l";
    prop.rollingFps = 12;
    StreamIns ins;
    sync_data(ins, prop);
    EXPECT_EQ(prop.reserved, 9);
    EXPECT_EQ(prop.inputs.size(), 1U);
    EXPECT_EQ(prop.outputs.size(), 2U);
    EXPECT_EQ(prop.model + prop.mlModule + prop.labels, "mnl");
    EXPECT_EQ(prop.rollingFps, 12);
}

TEST(Globals, HaveTheirInitialValues)
{
    EXPECT_TRUE(running.load());
    EXPECT_EQ(g_fps, 25);
    EXPECT_EQ(g_buffer_count, 4);
    EXPECT_EQ(g_stream_id, "");
    EXPECT_TRUE(pipeline_map.empty());
    EXPECT_EQ(pipeline_s, nullptr);
    EXPECT_STREQ(g_stream_conf_file, "/usr/local/share/velstream-gst/conf/velstream-gst.conf");
    EXPECT_STREQ(stream_conf_file, "/usr/local/share/velstream-gst/conf/velstream-gst.conf");
}

// ---- Level and direction of the log

struct LevelMapping {
    int level;
    int passed_on;
};

class SetLogLevel : public ::testing::TestWithParam<LevelMapping> {};

TEST_P(SetLogLevel, PassesTheMappedLevelOn)
{
    set_log_level(static_cast<GSTLogLevel>(GetParam().level));
    EXPECT_EQ(level_calls(), (std::vector<LevelCall>{{"velstream", GetParam().passed_on}}));
}

INSTANTIATE_TEST_SUITE_P(Values, SetLogLevel,
                         ::testing::Values(LevelMapping{0, 0}, LevelMapping{1, 1}, LevelMapping{2, 2},
                                           LevelMapping{3, 5}, LevelMapping{4, 4}, LevelMapping{5, 0},
                                           LevelMapping{6, 0}, LevelMapping{7, 0}));

TEST(Clogger, DirectsTheLogIntoTheFile)
{
    clogger("/var/log/velstream.log");
    EXPECT_EQ(output_calls(), (std::vector<OutputCall>{{"velstream", "/var/log/velstream.log", 2}}));
}

TEST(GetStreamStatus, IsAlwaysMinusOne)
{
    EXPECT_EQ(get_stream_status(), -1);
}

} // namespace
