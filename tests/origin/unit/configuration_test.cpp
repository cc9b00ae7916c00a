// The builders' readers of the configuration file.
#include "ConfigFile.h"
#include "RecordedLog.h"
#include "StreamCommon.h"

#include <gtest/gtest.h>
#include <json/json.h>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Lines = std::vector<std::string>;

const char* const kCompleteEntry = R"({ "streams": [
    { "streamsId": "cam1",
      "properties": { "width": 1920, "height": 1080,
                      "inputType": "rtsp", "inputAddr": "rtsp://camera/stream1",
                      "decodeType": "H264", "encodeType": "H264",
                      "audio": false, "rollingsave": true, "rollingFps": 30,
                      "manualRebuild": false,
                      "outputType": "rtsp", "outputAddr": "rtsp://server/live/cam1",
                      "fps": 25, "saveMp4": true, "outputFile": "/var/tmp/cam1.mp4" } } ] })";

TEST(Configuration, CompleteEntryFillsTheRecordWithOneLine)
{
    const ConfigFile file(kCompleteEntry);
    StreamProperty prop;
    EXPECT_EQ(get_configuration_properties("cam1", prop), 0);
    EXPECT_EQ(log_lines(), (Lines{"I Start to get configuration properties for stream id: cam1."}));
    EXPECT_EQ(prop.streamsId, "cam1");
    EXPECT_EQ(prop.width, 1920);
    EXPECT_EQ(prop.height, 1080);
    EXPECT_EQ(prop.inputType, "rtsp");
    EXPECT_EQ(prop.inputAddr, "rtsp://camera/stream1");
    EXPECT_EQ(prop.decodeType, "H264");
    EXPECT_EQ(prop.encodeType, "H264");
    EXPECT_FALSE(prop.audio);
    EXPECT_TRUE(prop.rollingsave);
    EXPECT_EQ(prop.rollingFps, 30);
    EXPECT_FALSE(prop.manualRebuild);
    EXPECT_EQ(prop.outputType, "rtsp");
    EXPECT_EQ(prop.outputAddr, "rtsp://server/live/cam1");
    EXPECT_EQ(prop.fps, 25);
    EXPECT_FALSE(prop.saveMp4) << "not read here";
    EXPECT_EQ(prop.outputFile, "/tmp/saved_output.mp4") << "not read here";
    EXPECT_EQ(prop.pStreamId, "empty_p") << "not read here";
}

TEST(Configuration, MinimalEntryLogsEveryDefaultInOrder)
{
    const ConfigFile file(one_stream("cam1", R"("inputType": "file", "inputAddr": "a.mp4")"));
    StreamProperty prop;
    EXPECT_EQ(get_configuration_properties("cam1", prop), 0);
    EXPECT_EQ(log_lines(),
              (Lines{"I Start to get configuration properties for stream id: cam1.",
                     "I width or height is not defined.", "I Decode type is not defined. It's h264 by default.",
                     "I Encode type is not defined. It's h264 by default.", "I Audio switch is not defined.",
                     "I Rolling save is not defined. Uses false by default.",
                     "I Rolling save mp4 fps is not defined. Uses 30 by default.",
                     "I manualRebuild switch is not defined. Default value is false."}));
    EXPECT_EQ(prop.decodeType, "H264");
    EXPECT_EQ(prop.encodeType, "H264");
    EXPECT_TRUE(prop.manualRebuild) << "true although the line says false";
    EXPECT_EQ(prop.rollingFps, 30);
    EXPECT_EQ(prop.fps, 0);
}

TEST(Configuration, LinesNameTheReadersSource)
{
    const ConfigFile file(kCompleteEntry);
    StreamProperty prop;
    get_configuration_properties("cam1", prop);
    ASSERT_EQ(log_files().size(), 1U);
    EXPECT_EQ(log_files()[0].rfind("modules/origin/src/StreamCommon", 0), 0U) << log_files()[0];
}

TEST(Configuration, AbsentKeysKeepWhatTheRecordHolds)
{
    const ConfigFile file(one_stream("cam1", R"("inputType": "file", "inputAddr": "a.mp4")"));
    StreamProperty prop;
    prop.width = 1;
    prop.height = 2;
    prop.decodeType = "H265";
    prop.encodeType = "H265";
    prop.audio = true;
    prop.rollingsave = true;
    prop.rollingFps = 7;
    prop.manualRebuild = false;
    prop.outputType = "mp4";
    prop.outputAddr = "x.mp4";
    prop.fps = 9;
    EXPECT_EQ(get_configuration_properties("cam1", prop), 0);
    EXPECT_EQ(prop.width, 1);
    EXPECT_EQ(prop.height, 2);
    EXPECT_EQ(prop.decodeType, "H265");
    EXPECT_EQ(prop.encodeType, "H265");
    EXPECT_TRUE(prop.audio);
    EXPECT_TRUE(prop.rollingsave);
    EXPECT_EQ(prop.rollingFps, 30) << "set, not kept";
    EXPECT_FALSE(prop.manualRebuild);
    EXPECT_EQ(prop.outputType, "") << "cleared first";
    EXPECT_EQ(prop.outputAddr, "") << "cleared first";
    EXPECT_EQ(prop.fps, 0) << "cleared first";
}

TEST(Configuration, WidthWithoutHeightSetsNeither)
{
    const ConfigFile file(one_stream("cam1", R"("width": 640, "inputType": "file", "inputAddr": "a.mp4")"));
    StreamProperty prop;
    prop.width = 3;
    prop.height = 4;
    EXPECT_EQ(get_configuration_properties("cam1", prop), 0);
    EXPECT_TRUE(log_has("I width or height is not defined."));
    EXPECT_EQ(prop.width, 3);
    EXPECT_EQ(prop.height, 4);
}

TEST(Configuration, HeightWithoutWidthSetsNeither)
{
    const ConfigFile file(one_stream("cam1", R"("height": 640, "inputType": "file", "inputAddr": "a.mp4")"));
    StreamProperty prop;
    EXPECT_EQ(get_configuration_properties("cam1", prop), 0);
    EXPECT_TRUE(log_has("I width or height is not defined."));
    EXPECT_EQ(prop.height, 0);
}

TEST(Configuration, MissingInputTypeFailsAfterTheSize)
{
    const ConfigFile file(one_stream("cam1", R"("width": 640, "height": 360, "inputAddr": "a", "decodeType": "H265")"));
    StreamProperty prop;
    EXPECT_EQ(get_configuration_properties("cam1", prop), -1);
    EXPECT_EQ(log_lines(),
              (Lines{"I Start to get configuration properties for stream id: cam1.", "E inputType is not defined."}));
    EXPECT_EQ(prop.streamsId, "cam1");
    EXPECT_EQ(prop.width, 640) << "what was read stays";
    EXPECT_EQ(prop.inputAddr, "");
    EXPECT_EQ(prop.decodeType, "H264");
}

TEST(Configuration, MissingInputAddrFailsAfterTheInputType)
{
    const ConfigFile file(one_stream("cam1", R"("inputType": "rtsp", "decodeType": "H265")"));
    StreamProperty prop;
    EXPECT_EQ(get_configuration_properties("cam1", prop), -1);
    EXPECT_EQ(log_lines(), (Lines{"I Start to get configuration properties for stream id: cam1.",
                                  "I width or height is not defined.", "E inputAddr is not defined."}));
    EXPECT_EQ(prop.inputType, "rtsp");
    EXPECT_EQ(prop.decodeType, "H264");
}

TEST(Configuration, SpliceEntryNeedsAnInputAddrHere)
{
    const ConfigFile file(one_stream("cam1", R"("inputType": "splice")"));
    StreamProperty prop;
    EXPECT_EQ(get_configuration_properties("cam1", prop), -1);
    EXPECT_TRUE(log_has("E inputAddr is not defined."));
}

TEST(Configuration, OutputTypeWithoutAddressLeavesBothEmpty)
{
    const ConfigFile file(one_stream("cam1", R"("inputType": "file", "inputAddr": "a", "outputType": "mp4")"));
    StreamProperty prop;
    EXPECT_EQ(get_configuration_properties("cam1", prop), 0);
    EXPECT_EQ(prop.outputType, "");
    EXPECT_EQ(prop.outputAddr, "");
    EXPECT_EQ(prop.streamsId, "cam1");
}

TEST(Configuration, OutputAddressWithoutTypeLeavesBothEmpty)
{
    const ConfigFile file(one_stream("cam1", R"("inputType": "file", "inputAddr": "a", "outputAddr": "b", "fps": 5)"));
    StreamProperty prop;
    EXPECT_EQ(get_configuration_properties("cam1", prop), 0);
    EXPECT_EQ(prop.outputType, "");
    EXPECT_EQ(prop.outputAddr, "");
    EXPECT_EQ(prop.fps, 5);
}

TEST(Configuration, FileThatCannotBeOpenedIsLoggedWithItsPath)
{
    const ConfigFile file("{}");
    file.remove();
    StreamProperty prop;
    prop.fps = 3;
    prop.outputType = "mp4";
    prop.outputAddr = "x";
    EXPECT_EQ(get_configuration_properties("cam1", prop), -1);
    EXPECT_EQ(log_lines(), (Lines{"I Start to get configuration properties for stream id: cam1.",
                                  "E Unable to open configuration file: " + file.path()}));
    EXPECT_EQ(prop.fps, 0);
    EXPECT_EQ(prop.outputType + prop.outputAddr, "");
    EXPECT_EQ(prop.streamsId, "empty");
}

TEST(Configuration, UnknownIdFailsWithoutAMessage)
{
    const ConfigFile file(kCompleteEntry);
    StreamProperty prop;
    EXPECT_EQ(get_configuration_properties("cam2", prop), -1);
    EXPECT_EQ(log_lines(), (Lines{"I Start to get configuration properties for stream id: cam2."}));
    EXPECT_EQ(prop.streamsId, "empty");
}

TEST(Configuration, IdsAreComparedExactly)
{
    const ConfigFile file(kCompleteEntry);
    StreamProperty prop;
    for (const char* id : {"CAM1", "cam", "cam11", " cam1", ""})
        EXPECT_EQ(get_configuration_properties(id, prop), -1) << id;
}

TEST(Configuration, FirstOfTwoEntriesWithOneIdWins)
{
    const ConfigFile file(R"({"streams": [
        {"streamsId": "a", "properties": {"inputType": "file", "inputAddr": "zero"}},
        {"streamsId": "b", "properties": {"inputType": "file", "inputAddr": "first"}},
        {"streamsId": "b", "properties": {"inputType": "file", "inputAddr": "second"}}]})");
    StreamProperty prop;
    EXPECT_EQ(get_configuration_properties("b", prop), 0);
    EXPECT_EQ(prop.inputAddr, "first");
}

TEST(Configuration, TwoEmptyIdsMatch)
{
    const ConfigFile file(one_stream("", R"("inputType": "file", "inputAddr": "a.mp4")"));
    StreamProperty prop;
    EXPECT_EQ(get_configuration_properties("", prop), 0);
    EXPECT_EQ(prop.streamsId, "");
    EXPECT_EQ(prop.inputAddr, "a.mp4");
}

TEST(Configuration, EntryWithoutIdNeverMatches)
{
    const ConfigFile file(R"({"streams": [{"properties": {"inputType": "file", "inputAddr": "a"}}]})");
    StreamProperty prop;
    EXPECT_EQ(get_configuration_properties("", prop), -1);
    EXPECT_EQ(prop.inputType, "");
}

TEST(Configuration, EntryWithoutPropertiesHasNoKeys)
{
    const ConfigFile file(R"({"streams": [{"streamsId": "cam1"}]})");
    StreamProperty prop;
    EXPECT_EQ(get_configuration_properties("cam1", prop), -1);
    EXPECT_EQ(log_lines(), (Lines{"I Start to get configuration properties for stream id: cam1.",
                                  "I width or height is not defined.", "E inputType is not defined."}));
}

TEST(Configuration, FileWithoutStreamsHasNoEntries)
{
    StreamProperty prop;
    for (const char* text :
         {"{}", R"({"streams": []})", R"({"streams": null})", R"({"streams": 5})", R"({"streams": "cam1"})"}) {
        const ConfigFile file(text);
        EXPECT_EQ(get_configuration_properties("cam1", prop), -1) << text;
        EXPECT_EQ(get_config_properties_mp4("cam1", prop), -1) << text;
    }
}

TEST(Configuration, EveryCallReadsTheFileAfresh)
{
    const ConfigFile file(one_stream("cam1", R"("inputType": "file", "inputAddr": "a", "decodeType": "H264")"));
    EXPECT_EQ(get_decode_type("cam1"), "H264");
    file.write(one_stream("cam1", R"("inputType": "file", "inputAddr": "a", "decodeType": "H265")"));
    EXPECT_EQ(get_decode_type("cam1"), "H265");
}

TEST(Configuration, TextThatIsNotJsonRaisesTheParsersException)
{
    StreamProperty prop;
    for (const char* text : {"", "{", R"({"streams": [})", "nonsense"}) {
        const ConfigFile file(text);
        EXPECT_THROW(get_configuration_properties("cam1", prop), Json::RuntimeError) << text;
        EXPECT_THROW(get_config_properties_mp4("cam1", prop), Json::RuntimeError) << text;
        EXPECT_THROW(get_decode_type("cam1"), Json::RuntimeError) << text;
        EXPECT_THROW(get_manual_rebuild("cam1"), Json::RuntimeError) << text;
    }
}

TEST(Configuration, RootAndEntriesOfAWrongTypeRaiseTheParsersException)
{
    StreamProperty prop;
    for (const char* text : {"[1, 2]", R"({"streams": [5]})", R"({"streams": [{"streamsId": ["cam1"]}]})",
                             R"({"streams": [{"streamsId": "cam1", "properties": [1]}]})"}) {
        const ConfigFile file(text);
        EXPECT_THROW(get_configuration_properties("cam1", prop), Json::LogicError) << text;
        EXPECT_THROW(get_config_properties_mp4("cam1", prop), Json::LogicError) << text;
    }
}

// ---- One key of a wrong type: what stands before it is read, what stands behind is not

struct Key {
    const char* name;
    const char* good;
    const char* bad;
    bool (*is_read)(const StreamProperty&);
};

void PrintTo(const Key& key, std::ostream* out)
{
    *out << key.name;
}

// In the order of reading; the good values differ from a fresh record's.
const Key kKeys[] = {
    {"width", "64", R"("wide")", [](const StreamProperty& p) { return p.width == 64; }},
    {"height", "48", R"([])", [](const StreamProperty& p) { return p.height == 48; }},
    {"inputType", R"("rtsp")", "{}", [](const StreamProperty& p) { return p.inputType == "rtsp"; }},
    {"inputAddr", R"("rtsp://c")", "[1]", [](const StreamProperty& p) { return p.inputAddr == "rtsp://c"; }},
    {"decodeType", R"("H265")", "{}", [](const StreamProperty& p) { return p.decodeType == "H265"; }},
    {"encodeType", R"("h265")", "[]", [](const StreamProperty& p) { return p.encodeType == "h265"; }},
    {"audio", "true", R"("yes")", [](const StreamProperty& p) { return p.audio; }},
    {"rollingsave", "true", "[]", [](const StreamProperty& p) { return p.rollingsave; }},
    {"rollingFps", "11", R"("11")", [](const StreamProperty& p) { return p.rollingFps == 11; }},
    {"manualRebuild", "false", R"("false")", [](const StreamProperty& p) { return !p.manualRebuild; }},
    {"outputType", R"("mp4")", "{}", [](const StreamProperty& p) { return p.outputType == "mp4"; }},
    {"outputAddr", R"("o.mp4")", "[]", [](const StreamProperty& p) { return p.outputAddr == "o.mp4"; }},
    {"fps", "12", R"("12")", [](const StreamProperty& p) { return p.fps == 12; }},
};

std::string entry_with_bad(const char* bad_key)
{
    std::string properties;
    for (const Key& key : kKeys) {
        if (!properties.empty()) properties += ", ";
        properties += std::string("\"") + key.name + "\": " + (std::string(bad_key) == key.name ? key.bad : key.good);
    }
    return one_stream("cam1", properties);
}

class ConfigurationKey : public ::testing::TestWithParam<Key> {};

TEST_P(ConfigurationKey, OfAWrongTypeRaisesTheExceptionAndStopsTheReadThere)
{
    const ConfigFile file(entry_with_bad(GetParam().name));
    StreamProperty prop;
    EXPECT_THROW(get_configuration_properties("cam1", prop), Json::LogicError);
    bool is_before = true;
    for (const Key& key : kKeys) {
        if (std::string(key.name) == GetParam().name) is_before = false;
        EXPECT_EQ(key.is_read(prop), is_before) << key.name;
    }
}

INSTANTIATE_TEST_SUITE_P(Keys, ConfigurationKey, ::testing::ValuesIn(kKeys),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(Configuration, NumbersFollowTheParsersConversions)
{
    const ConfigFile file(one_stream("cam1", R"("width": 640.0, "height": null, "inputType": 7, "inputAddr": true,
                                                "audio": 1, "manualRebuild": null)"));
    StreamProperty prop;
    EXPECT_EQ(get_configuration_properties("cam1", prop), 0);
    EXPECT_EQ(prop.width, 640);
    EXPECT_EQ(prop.height, 0);
    EXPECT_EQ(prop.inputType, "7");
    EXPECT_EQ(prop.inputAddr, "true");
    EXPECT_TRUE(prop.audio);
    EXPECT_FALSE(prop.manualRebuild);
}

TEST(Configuration, NumberOutOfRangeRaisesTheParsersException)
{
    const ConfigFile file(
        one_stream("cam1", R"("width": 4294967296, "height": 1, "inputType": "file", "inputAddr": "a")"));
    StreamProperty prop;
    EXPECT_THROW(get_configuration_properties("cam1", prop), Json::LogicError);
}

// ---- The MP4-saving read

TEST(Mp4Configuration, CompleteEntryIsRead)
{
    const ConfigFile file(kCompleteEntry);
    StreamProperty prop;
    EXPECT_EQ(get_config_properties_mp4("cam1", prop), 0);
    EXPECT_EQ(log_lines(), (Lines{"I [MP4 Saving] Start to get configuration properties for stream id: cam1.",
                                  "I Get saving mp4 configuration completed."}));
    EXPECT_EQ(prop.streamsId, "cam1");
    EXPECT_EQ(prop.width, 1920);
    EXPECT_EQ(prop.height, 1080);
    EXPECT_EQ(prop.outputFile, "/var/tmp/cam1.mp4");
    EXPECT_EQ(prop.outputAddr, "rtsp://server/live/cam1");
    EXPECT_EQ(prop.fps, 25);
    EXPECT_EQ(prop.inputType, "") << "not read here";
}

TEST(Mp4Configuration, AbsentKeysLeaveItsDefaults)
{
    const ConfigFile file(one_stream("cam1", R"("saveMp4": true, "width": 64, "height": 48)"));
    StreamProperty prop;
    prop.outputAddr = "kept";
    prop.outputType = "kept";
    EXPECT_EQ(get_config_properties_mp4("cam1", prop), 0);
    EXPECT_EQ(prop.outputFile, "/var/tmp/saved_output.mp4");
    EXPECT_EQ(prop.fps, 25);
    EXPECT_EQ(prop.outputAddr, "kept");
    EXPECT_EQ(prop.outputType, "kept");
}

TEST(Mp4Configuration, SaveMp4FalseCountsAsPresent)
{
    const ConfigFile file(one_stream("cam1", R"("saveMp4": false, "width": 64, "height": 48, "fps": 10)"));
    StreamProperty prop;
    EXPECT_EQ(get_config_properties_mp4("cam1", prop), 0);
    EXPECT_EQ(prop.fps, 10);
}

TEST(Mp4Configuration, SaveMp4OfAnyTypeCountsAsPresent)
{
    const ConfigFile file(one_stream("cam1", R"("saveMp4": ["?"], "networkPush": "?", "width": 64, "height": 48)"));
    StreamProperty prop;
    EXPECT_EQ(get_config_properties_mp4("cam1", prop), 0);
}

TEST(Mp4Configuration, NetworkPushStandsInForSaveMp4)
{
    const ConfigFile file(one_stream("cam1", R"("networkPush": true, "width": 64, "height": 48, "outputAddr": "u")"));
    StreamProperty prop;
    EXPECT_EQ(get_config_properties_mp4("cam1", prop), 0);
    EXPECT_EQ(prop.outputAddr, "u");
}

TEST(Mp4Configuration, NeitherSwitchFails)
{
    for (const char* properties :
         {R"("width": 64, "height": 48)", R"("networkPush": false, "width": 64, "height": 48)"}) {
        const ConfigFile file(one_stream("cam1", properties));
        StreamProperty prop;
        clear_log();
        EXPECT_EQ(get_config_properties_mp4("cam1", prop), -1);
        EXPECT_EQ(log_lines(), (Lines{"I [MP4 Saving] Start to get configuration properties for stream id: cam1.",
                                      "E For stream id: cam1 missing mandatory parameter saveMp4."}));
        EXPECT_EQ(prop.streamsId, "empty") << "not copied yet";
    }
}

TEST(Mp4Configuration, NetworkPushOfAWrongTypeRaisesTheException)
{
    const ConfigFile file(one_stream("cam1", R"("networkPush": "yes", "width": 64, "height": 48)"));
    StreamProperty prop;
    EXPECT_THROW(get_config_properties_mp4("cam1", prop), Json::LogicError);
    EXPECT_EQ(prop.streamsId, "empty");
}

TEST(Mp4Configuration, MissingSizeFailsAfterTheId)
{
    for (const char* size : {R"("width": 64)", R"("height": 48)", R"("fps": 1)"}) {
        const ConfigFile file(one_stream("cam1", std::string(R"("saveMp4": true, )") + size));
        StreamProperty prop;
        clear_log();
        EXPECT_EQ(get_config_properties_mp4("cam1", prop), -1);
        EXPECT_EQ(log_lines(), (Lines{"I [MP4 Saving] Start to get configuration properties for stream id: cam1.",
                                      "E For stream id: cam1 missing mandatory parameter width/height."}));
        EXPECT_EQ(prop.streamsId, "cam1");
        EXPECT_EQ(prop.width, 0);
        EXPECT_EQ(prop.height, 0);
        EXPECT_EQ(prop.fps, 25);
    }
}

TEST(Mp4Configuration, UnknownIdIsAnError)
{
    const ConfigFile file(kCompleteEntry);
    StreamProperty prop;
    EXPECT_EQ(get_config_properties_mp4("cam2", prop), -1);
    EXPECT_EQ(log_lines(), (Lines{"I [MP4 Saving] Start to get configuration properties for stream id: cam2.",
                                  "E For stream id: cam2 missing related configuration."}));
    EXPECT_EQ(prop.outputFile, "/var/tmp/saved_output.mp4") << "set first";
    EXPECT_EQ(prop.fps, 25) << "set first";
}

TEST(Mp4Configuration, FileThatCannotBeOpenedIsLoggedWithItsPath)
{
    const ConfigFile file("{}");
    file.remove();
    StreamProperty prop;
    EXPECT_EQ(get_config_properties_mp4("cam1", prop), -1);
    EXPECT_EQ(log_lines(), (Lines{"I [MP4 Saving] Start to get configuration properties for stream id: cam1.",
                                  "E Unable to open configuration file: " + file.path()}));
}

TEST(Mp4Configuration, WrongTypesRaiseTheExceptionInOrder)
{
    const struct {
        const char* properties;
        int width;
        const char* output_file;
        const char* output_addr;
    } cases[] = {
        {R"("saveMp4": 1, "width": "x", "height": 2, "outputFile": "f")", 0, "/var/tmp/saved_output.mp4", ""},
        {R"("saveMp4": 1, "width": 1, "height": "x", "outputFile": "f")", 1, "/var/tmp/saved_output.mp4", ""},
        {R"("saveMp4": 1, "width": 1, "height": 2, "outputFile": {}, "outputAddr": "a")", 1,
         "/var/tmp/saved_output.mp4", ""},
        {R"("saveMp4": 1, "width": 1, "height": 2, "outputFile": "f", "outputAddr": [])", 1, "f", ""},
        {R"("saveMp4": 1, "width": 1, "height": 2, "outputFile": "f", "outputAddr": "a", "fps": "x")", 1, "f", "a"},
    };
    for (const auto& one : cases) {
        const ConfigFile file(one_stream("cam1", one.properties));
        StreamProperty prop;
        EXPECT_THROW(get_config_properties_mp4("cam1", prop), Json::LogicError) << one.properties;
        EXPECT_EQ(prop.width, one.width) << one.properties;
        EXPECT_EQ(prop.outputFile, one.output_file) << one.properties;
        EXPECT_EQ(prop.outputAddr, one.output_addr) << one.properties;
        EXPECT_EQ(prop.fps, 25) << one.properties;
    }
}

// ---- One value each

TEST(SingleValueReaders, ReturnTheEntrysValues)
{
    const ConfigFile file(one_stream("cam1", R"("width": 64, "height": 48, "inputType": "file", "inputAddr": "a",
        "decodeType": "H265", "encodeType": "h265", "manualRebuild": false, "fps": 12,
        "outputType": "mp4", "outputAddr": "o.mp4")"));
    EXPECT_EQ(get_decode_type("cam1"), "H265");
    EXPECT_EQ(get_encode_type("cam1"), "h265");
    EXPECT_EQ(get_output_fps("cam1"), 12);
    EXPECT_FALSE(get_manual_rebuild("cam1"));
    EXPECT_TRUE(output_mp4("cam1"));
    EXPECT_EQ(get_stream_width("cam1"), 64);
    EXPECT_EQ(get_stream_height("cam1"), 48);
}

TEST(SingleValueReaders, ReturnDefaultsForAnUnknownIdAndAMissingFile)
{
    const ConfigFile file(kCompleteEntry);
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(get_decode_type("other"), "H264");
        EXPECT_EQ(get_encode_type("other"), "H264");
        EXPECT_EQ(get_output_fps("other"), 0);
        EXPECT_TRUE(get_manual_rebuild("other"));
        EXPECT_FALSE(output_mp4("other"));
        EXPECT_EQ(get_stream_width("other"), 0);
        EXPECT_EQ(get_stream_height("other"), 0);
        if (round == 0) file.remove();
    }
}

TEST(SingleValueReaders, ReturnWhatWasReadBeforeAFailure)
{
    const ConfigFile file(one_stream("cam1", R"("width": 64, "height": 48, "decodeType": "H265")"));
    EXPECT_EQ(get_stream_width("cam1"), 64);
    EXPECT_EQ(get_decode_type("cam1"), "H264") << "inputType is missing, so the read ended before it";
}

TEST(SingleValueReaders, ManualRebuildIsTrueWhileTheLogSaysFalse)
{
    const ConfigFile file(one_stream("cam1", R"("inputType": "file", "inputAddr": "a")"));
    EXPECT_TRUE(get_manual_rebuild("cam1"));
    EXPECT_TRUE(log_has("I manualRebuild switch is not defined. Default value is false."));
}

TEST(SingleValueReaders, OnlyMp4InLowerCaseIsAnMp4Output)
{
    for (const auto& [type, expected] :
         {std::pair{"mp4", true}, std::pair{"MP4", false}, std::pair{"mp4 ", false}, std::pair{"rtsp", false}}) {
        const ConfigFile file(
            one_stream("cam1", std::string(R"("inputType": "file", "inputAddr": "a", "outputType": ")") + type +
                                   R"(", "outputAddr": "o")"));
        EXPECT_EQ(output_mp4("cam1"), expected) << type;
    }
}

TEST(SingleValueReaders, PassTheParsersExceptionOn)
{
    const ConfigFile file(one_stream("cam1", R"("width": "wide", "height": 1, "inputType": "file", "inputAddr": "a")"));
    EXPECT_THROW(get_decode_type("cam1"), Json::LogicError);
    EXPECT_THROW(get_stream_width("cam1"), Json::LogicError);
    EXPECT_THROW(output_mp4("cam1"), Json::LogicError);
}

} // namespace
