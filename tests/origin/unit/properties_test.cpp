// The entry points' reader of the configuration file.
#include "ConfigFile.h"
#include "RecordedLog.h"
#include "velstream.h"

#include <gtest/gtest.h>
#include <json/json.h>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Lines = std::vector<std::string>;

TEST(GetProperties, CompleteEntryIsReadWithoutALine)
{
    const ConfigFile file(R"({"streams": [{"streamsId": "cam", "pStreamId": "parent", "properties": {
        "width": 640, "height": 360, "inputType": "rtsp", "inputAddr": "rtsp://c", "decodeType": "H265",
        "encodeType": "H265", "audio": true, "rollingsave": true, "outputType": "mp4", "outputAddr": "o.mp4",
        "fps": 12, "manualRebuild": false, "outputFile": "f.mp4"}}]})");
    StreamIns ins;
    EXPECT_EQ(get_properties("cam", ins), 0);
    EXPECT_EQ(log_lines(), Lines{});
    EXPECT_EQ(ins.streamsId, "cam");
    EXPECT_EQ(ins.pStreamId, "parent");
    EXPECT_EQ(ins.inputType, "rtsp");
    EXPECT_EQ(ins.inputAddr, "rtsp://c");
    EXPECT_EQ(ins.decodeType, "H265");
    EXPECT_EQ(ins.encodeType, "H265");
    EXPECT_TRUE(ins.audio);
    EXPECT_TRUE(ins.rollingsave);
    EXPECT_EQ(ins.outputType, "mp4");
    EXPECT_EQ(ins.outputAddr, "o.mp4");
    EXPECT_EQ(ins.width, 0) << "read for USB cameras only";
    EXPECT_EQ(ins.height, 0) << "read for USB cameras only";
    EXPECT_EQ(ins.fps, 0) << "read for the network push only";
    EXPECT_TRUE(ins.manualRebuild) << "not read here";
    EXPECT_EQ(ins.outputFile, "/tmp/saved_output.mp4") << "not read here";
}

TEST(GetProperties, MinimalEntryLogsTheAbsentSwitches)
{
    const ConfigFile file(one_stream("cam", R"("inputType": "file", "inputAddr": "a.mp4")"));
    StreamIns ins;
    EXPECT_EQ(get_properties("cam", ins), 0);
    EXPECT_EQ(log_lines(), (Lines{"I Audio switch is not defined. Uses false by default.",
                                  "I Rolling save is not defined. Uses false by default."}));
    EXPECT_EQ(ins.streamsId, "cam");
    EXPECT_EQ(ins.pStreamId, "") << "cleared first";
    EXPECT_EQ(ins.decodeType, "H264");
    EXPECT_EQ(ins.encodeType, "H264");
}

TEST(GetProperties, LinesNameTheEntryPointsSource)
{
    const ConfigFile file(one_stream("cam", R"("inputType": "file", "inputAddr": "a.mp4", "audio": false)"));
    StreamIns ins;
    get_properties("cam", ins);
    ASSERT_EQ(log_files().size(), 1U);
    EXPECT_EQ(log_files()[0].rfind("modules/origin/src/velstream", 0), 0U) << log_files()[0];
}

StreamIns filled()
{
    StreamIns ins;
    ins.streamsId = "old";
    ins.pStreamId = "old";
    ins.width = ins.height = ins.fps = 7;
    ins.inputType = ins.inputAddr = ins.outputType = ins.outputAddr = ins.decodeType = ins.encodeType = "old";
    ins.audio = ins.saveMp4 = ins.networkPush = ins.rollingsave = true;
    return ins;
}

void expect_reset(const StreamIns& ins)
{
    EXPECT_EQ(ins.width, 0);
    EXPECT_EQ(ins.height, 0);
    EXPECT_EQ(ins.outputType, "");
    EXPECT_EQ(ins.outputAddr, "");
    EXPECT_EQ(ins.decodeType, "H264");
    EXPECT_EQ(ins.encodeType, "H264");
    EXPECT_FALSE(ins.audio);
    EXPECT_EQ(ins.pStreamId, "");
    EXPECT_EQ(ins.fps, 0);
    EXPECT_EQ(ins.streamsId, "old");
    EXPECT_EQ(ins.inputType, "old");
    EXPECT_EQ(ins.inputAddr, "old");
    EXPECT_TRUE(ins.saveMp4);
    EXPECT_TRUE(ins.networkPush);
    EXPECT_TRUE(ins.rollingsave);
}

TEST(GetProperties, MissingFileIsLoggedAfterTheReset)
{
    const ConfigFile file("{}");
    file.remove();
    StreamIns ins = filled();
    EXPECT_EQ(get_properties("cam", ins), -1);
    EXPECT_EQ(log_lines(), (Lines{"E Unable to open configuration file: " + file.path()}));
    expect_reset(ins);
}

TEST(GetProperties, UnknownIdIsLoggedAfterTheReset)
{
    const ConfigFile file(one_stream("cam", R"("inputType": "file", "inputAddr": "a.mp4")"));
    StreamIns ins = filled();
    EXPECT_EQ(get_properties("other", ins), -1);
    EXPECT_EQ(log_lines(),
              (Lines{"I Specified stream id: other not defined in configuration file velstream-gst.conf."}));
    expect_reset(ins);
}

TEST(GetProperties, TextThatIsNotJsonRaisesTheParsersException)
{
    for (const char* text : {"", "{", "nonsense"}) {
        const ConfigFile file(text);
        StreamIns ins;
        EXPECT_THROW(get_properties("cam", ins), Json::RuntimeError) << text;
    }
}

TEST(GetProperties, FileWithoutStreamsHasNoEntries)
{
    for (const char* text : {"{}", R"({"streams": []})", R"({"streams": 5})", R"({"streams": "cam"})"}) {
        const ConfigFile file(text);
        StreamIns ins;
        EXPECT_EQ(get_properties("cam", ins), -1) << text;
    }
}

TEST(GetProperties, FirstMatchWinsAndEmptyIdsMatch)
{
    const ConfigFile file(R"({"streams": [
        {"streamsId": "", "properties": {"inputType": "file", "inputAddr": "nameless"}},
        {"streamsId": "b", "properties": {"inputType": "file", "inputAddr": "first"}},
        {"streamsId": "b", "properties": {"inputType": "file", "inputAddr": "second"}}]})");
    StreamIns ins;
    EXPECT_EQ(get_properties("b", ins), 0);
    EXPECT_EQ(ins.inputAddr, "first");
    EXPECT_EQ(get_properties("", ins), 0);
    EXPECT_EQ(ins.inputAddr, "nameless");
}

TEST(GetProperties, EntryWithoutIdNeverMatches)
{
    const ConfigFile file(R"({"streams": [{"properties": {"inputType": "file", "inputAddr": "a"}}]})");
    StreamIns ins;
    EXPECT_EQ(get_properties("", ins), -1);
}

// ---- Derived streams

TEST(GetProperties, SaveMp4ReadsTheSizeAndNothingElse)
{
    const ConfigFile file(R"({"streams": [{"streamsId": "cam", "pStreamId": "p", "properties": {
        "saveMp4": true, "width": 64, "height": 48, "fps": 5, "networkPush": true, "inputType": {},
        "decodeType": "H265", "audio": "?"}}]})");
    StreamIns ins;
    ins.streamsId = "before";
    EXPECT_EQ(get_properties("cam", ins), 0);
    EXPECT_EQ(log_lines(), Lines{});
    EXPECT_TRUE(ins.saveMp4);
    EXPECT_EQ(ins.width, 64);
    EXPECT_EQ(ins.height, 48);
    EXPECT_FALSE(ins.networkPush);
    EXPECT_EQ(ins.fps, 0);
    EXPECT_EQ(ins.streamsId, "before");
    EXPECT_EQ(ins.pStreamId, "");
    EXPECT_EQ(ins.decodeType, "H264");
}

TEST(GetProperties, SaveMp4WithoutHeightIsSkippedEntirely)
{
    const ConfigFile file(one_stream("cam", R"("saveMp4": true, "width": 64)"));
    StreamIns ins;
    EXPECT_EQ(get_properties("cam", ins), -1);
    EXPECT_EQ(log_lines(), (Lines{"E inputType is not defined."}));
    EXPECT_FALSE(ins.saveMp4);
    EXPECT_EQ(ins.streamsId, "cam");
}

TEST(GetProperties, SaveMp4WithoutWidthIsNotEvenConverted)
{
    const ConfigFile file(
        one_stream("cam", R"("saveMp4": [], "networkPush": [], "height": 4, "inputType": "file", "inputAddr": "a")"));
    StreamIns ins;
    EXPECT_EQ(get_properties("cam", ins), 0);
    EXPECT_FALSE(ins.saveMp4);
    EXPECT_FALSE(ins.networkPush);
}

TEST(GetProperties, SaveMp4FalseClearsTheSwitchAndGoesOn)
{
    const ConfigFile file(
        one_stream("cam", R"("saveMp4": false, "width": 64, "height": 48, "inputType": "file", "inputAddr": "a")"));
    StreamIns ins;
    ins.saveMp4 = true;
    EXPECT_EQ(get_properties("cam", ins), 0);
    EXPECT_FALSE(ins.saveMp4);
    EXPECT_EQ(ins.width, 0);
    EXPECT_EQ(ins.inputAddr, "a");
}

TEST(GetProperties, NetworkPushReadsSizeAndRate)
{
    const ConfigFile file(one_stream(
        "cam", R"("saveMp4": false, "networkPush": true, "width": 64, "height": 48, "fps": 5, "inputType": "file")"));
    StreamIns ins;
    EXPECT_EQ(get_properties("cam", ins), 0);
    EXPECT_EQ(log_lines(), Lines{});
    EXPECT_TRUE(ins.networkPush);
    EXPECT_EQ(ins.width, 64);
    EXPECT_EQ(ins.height, 48);
    EXPECT_EQ(ins.fps, 5);
    EXPECT_EQ(ins.inputType, "");
}

TEST(GetProperties, NetworkPushWithoutRateHasRateZero)
{
    const ConfigFile file(one_stream("cam", R"("networkPush": true, "width": 64, "height": 48)"));
    StreamIns ins;
    EXPECT_EQ(get_properties("cam", ins), 0);
    EXPECT_TRUE(ins.networkPush);
    EXPECT_EQ(ins.fps, 0);
}

TEST(GetProperties, NetworkPushFalseGoesOn)
{
    const ConfigFile file(one_stream("cam", R"("networkPush": false, "width": 64, "height": 48, "fps": 5)"));
    StreamIns ins;
    EXPECT_EQ(get_properties("cam", ins), -1);
    EXPECT_EQ(log_lines(), (Lines{"E inputType is not defined."}));
    EXPECT_EQ(ins.width, 0);
    EXPECT_EQ(ins.fps, 0);
}

TEST(GetProperties, DerivedStreamsWithWrongTypesRaiseTheException)
{
    const struct {
        const char* properties;
        int width;
    } cases[] = {
        {R"("saveMp4": "yes", "width": 1, "height": 2)", 0},
        {R"("saveMp4": true, "width": "1", "height": 2)", 0},
        {R"("saveMp4": true, "width": 1, "height": "2")", 1},
        {R"("networkPush": "yes", "width": 1, "height": 2)", 0},
        {R"("networkPush": true, "width": 1, "height": 2, "fps": "5")", 1},
    };
    for (const auto& one : cases) {
        const ConfigFile file(one_stream("cam", one.properties));
        StreamIns ins;
        EXPECT_THROW(get_properties("cam", ins), Json::LogicError) << one.properties;
        EXPECT_EQ(ins.width, one.width) << one.properties;
    }
}

// ---- Ordinary streams

TEST(GetProperties, ParentIdIsReadFromTheEntryNotItsProperties)
{
    const ConfigFile file(one_stream("cam", R"("pStreamId": "p", "inputType": "file", "inputAddr": "a")"));
    StreamIns ins;
    EXPECT_EQ(get_properties("cam", ins), 0);
    EXPECT_EQ(ins.pStreamId, "");
}

TEST(GetProperties, UsbCameraReadsItsSize)
{
    const ConfigFile file(one_stream("cam", R"("inputType": "usbcam", "inputAddr": "/dev/video0", "width": 64,
                                               "height": 48)"));
    StreamIns ins;
    EXPECT_EQ(get_properties("cam", ins), 0);
    EXPECT_EQ(ins.width, 64);
    EXPECT_EQ(ins.height, 48);
}

TEST(GetProperties, UsbCameraWithHalfASizeReadsNone)
{
    for (const char* size : {R"("width": 64)", R"("height": 48)"}) {
        const ConfigFile file(one_stream("cam", std::string(R"("inputType": "usbcam", "inputAddr": "d", )") + size));
        StreamIns ins;
        EXPECT_EQ(get_properties("cam", ins), 0);
        EXPECT_EQ(ins.width + ins.height, 0);
    }
}

TEST(GetProperties, SpliceEndsTheReadAfterTheInputType)
{
    const ConfigFile file(R"({"streams": [{"streamsId": "cam", "pStreamId": "p", "properties": {
        "inputType": "splice", "decodeType": "H265", "width": 5, "height": 6}}]})");
    StreamIns ins;
    EXPECT_EQ(get_properties("cam", ins), 0);
    EXPECT_EQ(log_lines(), Lines{});
    EXPECT_EQ(ins.inputType, "splice");
    EXPECT_EQ(ins.pStreamId, "p");
    EXPECT_EQ(ins.decodeType, "H264");
    EXPECT_EQ(ins.width, 0);
}

TEST(GetProperties, MissingInputAddrFailsAfterTheInputType)
{
    const ConfigFile file(one_stream("cam", R"("inputType": "rtsp", "decodeType": "H265")"));
    StreamIns ins;
    EXPECT_EQ(get_properties("cam", ins), -1);
    EXPECT_EQ(log_lines(), (Lines{"E inputAddr is not defined."}));
    EXPECT_EQ(ins.inputType, "rtsp");
    EXPECT_EQ(ins.decodeType, "H264");
}

TEST(GetProperties, EntryWithoutPropertiesHasNoKeys)
{
    const ConfigFile file(R"({"streams": [{"streamsId": "cam"}]})");
    StreamIns ins;
    EXPECT_EQ(get_properties("cam", ins), -1);
    EXPECT_EQ(log_lines(), (Lines{"E inputType is not defined."}));
}

TEST(GetProperties, OutputIsTakenAsAPairOnly)
{
    for (const char* half : {R"("outputType": "mp4")", R"("outputAddr": "o.mp4")"}) {
        const ConfigFile file(one_stream("cam", std::string(R"("inputType": "file", "inputAddr": "a", )") + half));
        StreamIns ins;
        EXPECT_EQ(get_properties("cam", ins), 0);
        EXPECT_EQ(ins.outputType + ins.outputAddr, "") << half;
        EXPECT_EQ(ins.streamsId, "cam");
    }
}

struct Key {
    const char* name;
    const char* good;
    const char* bad;
    bool (*is_read)(const StreamIns&);
};

void PrintTo(const Key& key, std::ostream* out)
{
    *out << key.name;
}

// In the order of reading; "usbcam" so that the size is read.
const Key kKeys[] = {
    {"inputType", R"("usbcam")", "{}", [](const StreamIns& i) { return i.inputType == "usbcam"; }},
    {"width", "64", R"("x")", [](const StreamIns& i) { return i.width == 64; }},
    {"height", "48", R"("x")", [](const StreamIns& i) { return i.height == 48; }},
    {"inputAddr", R"("d")", "[]", [](const StreamIns& i) { return i.inputAddr == "d"; }},
    {"decodeType", R"("H265")", "[]", [](const StreamIns& i) { return i.decodeType == "H265"; }},
    {"encodeType", R"("H265")", "{}", [](const StreamIns& i) { return i.encodeType == "H265"; }},
    {"audio", "true", R"("x")", [](const StreamIns& i) { return i.audio; }},
    {"rollingsave", "true", R"("x")", [](const StreamIns& i) { return i.rollingsave; }},
    {"outputType", R"("mp4")", "{}", [](const StreamIns& i) { return i.outputType == "mp4"; }},
    {"outputAddr", R"("o")", "[]", [](const StreamIns& i) { return i.outputAddr == "o"; }},
};

class GetPropertiesKey : public ::testing::TestWithParam<Key> {};

TEST_P(GetPropertiesKey, OfAWrongTypeRaisesTheExceptionAndStopsTheReadThere)
{
    std::string properties;
    for (const Key& key : kKeys) {
        const bool is_bad = std::string(GetParam().name) == key.name;
        properties +=
            std::string(properties.empty() ? "\"" : ", \"") + key.name + "\": " + (is_bad ? key.bad : key.good);
    }
    const ConfigFile file(one_stream("cam", properties));
    StreamIns ins;
    EXPECT_THROW(get_properties("cam", ins), Json::LogicError);
    EXPECT_EQ(ins.streamsId, "cam") << "read before all of these";
    bool is_before = true;
    for (const Key& key : kKeys) {
        if (std::string(GetParam().name) == key.name) is_before = false;
        EXPECT_EQ(key.is_read(ins), is_before) << key.name;
    }
}

INSTANTIATE_TEST_SUITE_P(Keys, GetPropertiesKey, ::testing::ValuesIn(kKeys),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(GetProperties, ParentIdOfAWrongTypeRaisesTheException)
{
    const ConfigFile file(R"({"streams": [{"streamsId": "cam", "pStreamId": {},
                              "properties": {"inputType": "file", "inputAddr": "a"}}]})");
    StreamIns ins;
    EXPECT_THROW(get_properties("cam", ins), Json::LogicError);
    EXPECT_EQ(ins.inputType, "");
}

} // namespace
