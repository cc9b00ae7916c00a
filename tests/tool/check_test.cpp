// "velstream check" and "velstream elements": exact findings, exact exit statuses.
#include "tool_fixture.h"

#include <cstdlib>
#include <utility>

namespace {

class Check : public Tool {
protected:
    /// One stream "s" with these properties; the text up to its first property is two lines long.
    void write_stream(const std::string& properties) const
    {
        write_config("{ \"streams\": [ { \"streamsId\": \"s\", \"properties\": {\n" + properties + " } } ] }\n");
    }
    Output check(const std::string& arguments = "") const { return run_software("check " + arguments); }
    /// A finding of the stream "s", as it is printed.
    std::string finding(int line, const std::string& level, const std::string& text) const
    {
        return config_.string() + ":" + std::to_string(line) + ": " + level + ": stream s: $.streams[0]" + text + "\n";
    }
    static std::string file_input(const std::string& more = "")
    {
        return R"("inputType": "file", "inputAddr": "/dev/null")" + more;
    }
    static std::string camera(const std::string& more = "")
    {
        return R"("inputType": "rtsp", "inputAddr": "rtsp://127.0.0.1:8554/c")" + more;
    }
};

struct Case {
    std::string properties;
    std::string finding; ///< behind "$.streams[0]"
};

} // namespace

TEST_F(Check, GoodStreamIsShownWithItsElements)
{
    write_stream(file_input(R"(, "decodeType": "H265")"));
    const Output output = check();
    EXPECT_EQ(output.status, 0) << stderr_text();
    EXPECT_EQ(output.text, "s: file -> callback; platform elements: v4l2h265dec qtivtransform\n"
                           "1 stream for the ub2404 build: 0 errors, 0 warnings\n");
    EXPECT_EQ(stderr_text(), "");
}

TEST_F(Check, ValuesOutsideTheSchemaAreNamedWithTheirPlace)
{
    const std::vector<Case> cases{
        {file_input(R"(, "decodeType": "h265")"), R"(.properties.decodeType "h265" is none of "H264", "H265")"},
        {file_input(R"(, "manualRebuild": "no")"),
         ".properties.manualRebuild is of type string; it must be of type boolean"},
        {file_input(R"(, "fps": 25.5)"), ".properties.fps is of type number; it must be of type integer"},
        {file_input(R"(, "width": -1, "height": 3)"), ".properties.width -1 is below the minimum of 0"},
        {file_input(R"(, "rollingFps": 0)"), ".properties.rollingFps 0 is below the minimum of 1"},
        {file_input(R"(, "manualrebuild": true)"),
         R"(.properties.manualrebuild is no key that the library reads; did you mean "manualRebuild"?)"},
        {file_input(R"(, "colour": 3)"), ".properties.colour is no key that the library reads"}};
    for (const Case& one : cases) {
        write_stream(one.properties);
        const Output output = check();
        EXPECT_EQ(output.status, 1);
        const std::string expected = finding(2, "error", one.finding);
        EXPECT_EQ(output.text.substr(0, expected.size()), expected) << output.text;
        EXPECT_NE(output.text.find(": 1 error, 0 warnings\n"), std::string::npos) << output.text;
    }
}

TEST_F(Check, StreamsThatCannotStartAreNamed)
{
    const std::vector<Case> cases{
        {"", R"(.properties has no "inputType")"},
        {R"("inputType": "file")", R"(.properties has no "inputAddr")"},
        {R"("inputType": "file", "inputAddr": "/nonexistent.mp4")",
         ".properties.inputAddr /nonexistent.mp4 cannot be read: No such file or directory"},
        {R"("inputType": "rtsp", "inputAddr": "http://127.0.0.1/")",
         R"(.properties.inputAddr "http://127.0.0.1/" is no rtsp:// address)"},
        {R"("inputType": "rtmp", "inputAddr": "rtmp://127.0.0.1/", "decodeType": "H265")",
         R"(.properties.decodeType "H265" does not come over RTMP: the FLV demuxer knows no H.265)"},
        {R"("inputType": "usbcam", "inputAddr": "/dev/video0")",
         R"(.properties needs "width" and "height" for a USB camera)"},
        {R"("inputType": "disk", "inputAddr": "/x")",
         R"(.properties.inputType "disk" is none of "file", "rtsp", "rtmp", "usbcam", "splice")"},
        {camera(R"(, "outputType": "rtmp", "outputAddr": "rtmp://127.0.0.1/")"),
         R"(.properties.outputType "rtmp" cannot be started from a configuration file)"},
        {camera(R"(, "outputType": "mp4", "outputAddr": "")"),
         ".properties.outputAddr is empty: an MP4 file needs its path"},
        {camera(R"(, "outputType": "mp4", "outputAddr": "/nonexistent/x.mp4")"),
         ".properties.outputAddr /nonexistent/x.mp4 lies in a folder that does not exist"},
        {file_input(R"(, "outputType": "mp4", "outputAddr": "/dev/null")"),
         ".properties.outputAddr is the input file, which would be written over"},
        {camera(R"(, "outputType": "rtsp", "outputAddr": "127.0.0.1")"),
         R"(.properties.outputAddr "127.0.0.1" is no rtsp:// address)"},
        {file_input(R"(, "audio": true)"),
         R"(.properties.outputType must be "rtsp", with its "outputAddr", for a relay with "audio")"},
        {file_input(
             R"(, "audio": true, "decodeType": "H265", "outputType": "rtsp", "outputAddr": "rtsp://127.0.0.1/x")"),
         R"(.properties.decodeType "H265" is not relayed from a file: "audio" takes H.264 there)"},
        {file_input(R"(, "rollingsave": true)"),
         R"(.properties.rollingsave records from "rtsp" only in the ub2404 build)"},
        {R"("saveMp4": true, "width": 0, "height": 720)", R"(.properties needs "width" and "height" above 0)"},
        {R"("saveMp4": true, "width": 640, "height": 480, "outputFile": "/nonexistent/x.mp4")",
         ".properties.outputFile /nonexistent/x.mp4 lies in a folder that does not exist"},
        {R"("networkPush": true, "width": 640, "height": 480, "outputAddr": "rtsp://127.0.0.1/x")",
         R"(.properties needs "fps" above 0 for "networkPush")"},
        {R"("networkPush": true, "width": 640, "height": 480, "fps": 25)",
         R"(.properties needs "outputAddr", an rtsp:// address, for "networkPush")"}};
    for (const Case& one : cases) {
        write_stream(one.properties);
        const Output output = check();
        EXPECT_EQ(output.status, 1) << one.properties;
        EXPECT_NE(output.text.find(": error: stream s: $.streams[0]" + one.finding + "\n"), std::string::npos)
            << one.properties << " gave " << output.text;
        EXPECT_NE(output.text.find(": 1 error, 0 warnings\n"), std::string::npos) << output.text;
    }
}

TEST_F(Check, KeysWithoutEffectAreWarnings)
{
    const std::vector<Case> cases{
        {file_input(R"(, "width": 640)"), R"(.properties.width counts only together with "height")"},
        {file_input(R"(, "outputType": "wayland")"),
         R"(.properties.outputType counts only together with "outputAddr")"},
        {file_input(R"(, "saveMp4": true, "width": 640)"),
         R"(.properties.saveMp4 counts only together with "width" and "height")"},
        {camera(R"(, "encodeType": "H265", "outputType": "mp4", "outputAddr": "/tmp/x.mp4")"),
         ".properties.encodeType has no effect: an MP4 file is always H.264"},
        {camera(R"(, "rollingsave": true, "outputType": "mp4", "outputAddr": "/tmp/x.mp4")"),
         ".properties.outputType has no effect: a rolling recording has no other output"},
        {camera(R"(, "audio": true, "outputType": "rtsp", "outputAddr": "rtsp://127.0.0.1/x")"),
         ".properties.audio from an RTSP source links the sound only: its video stays unlinked"}};
    for (const Case& one : cases) {
        write_stream(one.properties);
        const Output output = check();
        EXPECT_EQ(output.status, 0) << output.text;
        EXPECT_NE(output.text.find(": warning: stream s: $.streams[0]" + one.finding + "\n"), std::string::npos)
            << one.properties << " gave " << output.text;
        EXPECT_EQ(check("--strict").status, 1);
    }
}

TEST_F(Check, EntriesAreComparedWithEachOther)
{
    const auto entry = [](const std::string& id, const std::string& address) {
        return R"({"streamsId": ")" + id +
               R"(", "pStreamId": "p", "properties": {"inputType": "rtsp", "inputAddr": ")" + address + "\"}}";
    };
    write_config("{\"streams\": [" + entry("a", "rtsp://127.0.0.1/1") + ",\n" + entry("b", "rtsp://127.0.0.1/2") +
                 ",\n" + entry("a", "rtsp://127.0.0.1/1") + "]}");
    const Output output = check();
    EXPECT_EQ(output.status, 1);
    const std::vector<std::string> lines = lines_of(output.text);
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[0], config_.string() +
                            ":2: error: stream b: $.streams[1].pStreamId \"p\" is shared with stream a, but "
                            "\"inputType\", \"inputAddr\" and \"decodeType\" are not the same");
    EXPECT_EQ(lines[1], config_.string() +
                            ":3: warning: stream a: $.streams[2].streamsId \"a\" is given twice: only the "
                            "first entry with an id is ever read");
}

TEST_F(Check, EveryFindingOfAFileIsTold)
{
    write_config("{ \"stream\": 3,\n  \"streams\": [ { \"properties\": 3 },\n { \"streamsId\": \"s\" } ] }");
    const Output output = check();
    EXPECT_EQ(output.status, 1);
    const std::string file = config_.string();
    EXPECT_EQ(output.text, file + ":1: error: $.stream is no key that the library reads; did you mean \"streams\"?\n" +
                               file +
                               ":2: error: $.streams[0].properties is of type integer; it must be of type object\n" +
                               file + ":2: error: $.streams[0] has no \"streamsId\"\n" + file +
                               ":3: error: stream s: $.streams[1] has no \"properties\"\n"
                               "0 streams for the ub2404 build: 4 errors, 0 warnings\n");
}

TEST_F(Check, JsonHoldsOneObjectAFinding)
{
    write_stream(file_input(R"(, "decodeType": "h265", "width": 640)"));
    const Output output = check("--json");
    EXPECT_EQ(output.status, 1);
    const std::vector<std::string> lines = lines_of(output.text);
    ASSERT_EQ(lines.size(), 2U) << output.text;
    const Json::Value error = parse_json(lines[0]);
    EXPECT_EQ(error["level"].asString(), "error");
    EXPECT_EQ(error["stream"].asString(), "s");
    EXPECT_EQ(error["path"].asString(), "$.streams[0].properties.decodeType");
    EXPECT_EQ(error["line"].asInt(), 2);
    EXPECT_EQ(error["message"].asString(), R"("h265" is none of "H264", "H265")");
    EXPECT_EQ(parse_json(lines[1])["level"].asString(), "warning");
}

TEST_F(Check, FileThatIsNoJsonIsOneSentenceWithItsPlace)
{
    write_config("{ \"streams\": [\n  { \"streamsId\": \"s\" \"properties\": 3 } ] }");
    EXPECT_EQ(check().status, 2);
    EXPECT_EQ(stderr_text(), "velstream: Configuration file " + config_.string() +
                                 " is not valid JSON: line 2, column 22: Missing ',' or '}' in object declaration.\n");
    write_config(std::string(100000, '['));
    EXPECT_EQ(check().status, 2);
    EXPECT_EQ(lines_of(stderr_text()).size(), 1U) << stderr_text();
}

TEST_F(Check, FolderInPlaceOfTheFileIsOneSentence)
{
    config_ = folder_;
    EXPECT_EQ(check().status, 2);
    EXPECT_EQ(stderr_text(), "velstream: Configuration file " + folder_.string() + " is a folder.\n");
}

TEST_F(Check, MissingElementsAreNamedWithTheirStream)
{
    setenv("GST_REGISTRY", (folder_ / "registry.bin").c_str(), 1);
    unsetenv("GST_PLUGIN_PATH");
    write_stream(file_input());
    const Output output = run("check --elements device");
    EXPECT_EQ(output.status, 1);
    EXPECT_NE(output.text.find(finding(1, "error", " needs the element v4l2h264dec, which is missing")),
              std::string::npos)
        << output.text;
    EXPECT_NE(output.text.find(finding(1, "error", " needs the element qtivtransform, which is missing")),
              std::string::npos)
        << output.text;
}

TEST_F(Check, MissingStockElementNamesItsPackage)
{
    // A GStreamer with its core elements and the software ones alone.
    setenv("GST_REGISTRY", (folder_ / "registry.bin").c_str(), 1);
    setenv("GST_PLUGIN_SYSTEM_PATH", folder_.c_str(), 1);
    write_stream(camera(R"(, "outputType": "rtsp", "outputAddr": "rtsp://127.0.0.1/x")"));
    const Output output = check();
    EXPECT_EQ(output.status, 1);
    EXPECT_NE(output.text.find(finding(
                  1, "error", " needs the element rtspclientsink, which is missing (package gstreamer1.0-rtsp)")),
              std::string::npos)
        << output.text;
}

TEST_F(Check, ShippedConfigurationHasEveryKindAndNoFault)
{
    config_ = SHIPPED_CONFIGURATION;
    const Output output = check();
    // The example of a file is not on this machine, and nothing else is wrong.
    for (const std::string& line : lines_of(output.text)) {
        const bool is_error = line.find(": error: ") != std::string::npos;
        EXPECT_TRUE(!is_error || line.find("/var/tmp/video.mp4 cannot be read") != std::string::npos) << line;
    }
    EXPECT_NE(output.text.find(", 0 warnings\n"), std::string::npos) << output.text;
    for (const char* road :
         {": file -> callback;", ": rtsp -> callback;", ": rtmp -> callback;", ": usbcam -> callback;",
          ": rtsp -> callback, wayland;", ": rtsp -> callback, rtsp;", ": rtsp -> callback, mp4;",
          ": application -> mp4;", ": application -> rtsp;", ": file -> callback, rtsp with sound;",
          ": rtsp -> rolling mp4;", ": application -> callback;"})
        EXPECT_NE(output.text.find(road), std::string::npos) << road;
}

TEST_F(Check, ElementsNamesThePlugInOfEach)
{
    const Output output = run_command(std::string(TOOL_PATH) + " elements --elements software");
    const std::vector<std::string> lines = lines_of(output.text);
    EXPECT_EQ(lines.size(), 15U) << output.text;
    EXPECT_NE(output.text.find("qtivtransform    found    velsoftware  " SOFTWARE_PLUGIN "\n"), std::string::npos)
        << output.text;
    EXPECT_EQ(output.status, output.text.find("missing") == std::string::npos ? 0 : 1);
}

TEST_F(Check, ElementsHaveThePlatformsDisplayWhereTheToolScansByItself)
{
    setenv("GST_REGISTRY", (folder_ / "registry.bin").c_str(), 1);
    setenv("GST_REGISTRY_FORK", "no", 1);
    for (const char* registry : {"scanned", "read"}) {
        const Output output = run_command(std::string(TOOL_PATH) + " elements --elements software");
        EXPECT_NE(output.text.find("waylandsink      found    velsoftware "), std::string::npos) << registry << "\n"
                                                                                                 << output.text;
    }
}

TEST_F(Check, ElementsThatAreMissingAreStatusOne)
{
    setenv("GST_REGISTRY", (folder_ / "registry.bin").c_str(), 1);
    unsetenv("GST_PLUGIN_PATH");
    const Output output = run_command(std::string(TOOL_PATH) + " elements --elements device --json");
    EXPECT_EQ(output.status, 1);
    int found = 0;
    for (const std::string& line : lines_of(output.text)) {
        const Json::Value element = parse_json(line);
        if (element["element"].asString() == "qtivdec") {
            ++found;
            EXPECT_FALSE(element["found"].asBool());
            EXPECT_FALSE(element.isMember("plugin"));
        }
        if (element["element"].asString() == "waylandsink") {
            ++found;
            EXPECT_TRUE(element["found"].asBool());
            EXPECT_EQ(element["plugin"].asString(), "waylandsink");
            EXPECT_NE(element["file"].asString().find("libgstwaylandsink.so"), std::string::npos);
        }
    }
    EXPECT_EQ(found, 2) << output.text;
}
