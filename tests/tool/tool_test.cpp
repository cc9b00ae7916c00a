#include "media.h"
#include "tool_fixture.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <random>
#include <utility>

namespace {

namespace fs = std::filesystem;

/// Width and height from a PNG file's header; 0 when it is none.
std::pair<int, int> png_size(const fs::path& path)
{
    std::array<unsigned char, 24> head{};
    std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(head.data()), head.size());
    if (head[0] != 0x89 || head[1] != 'P' || head[2] != 'N' || head[3] != 'G') return {0, 0};
    return {head[18] * 256 + head[19], head[22] * 256 + head[23]};
}

} // namespace

TEST_F(Tool, RunCountsEveryFrame)
{
    write_clip();
    const Output output = run_software("run clip");
    EXPECT_EQ(output.status, 0) << stderr_text();
    EXPECT_NE(output.text.find("clip: 20 frames, 642x362"), std::string::npos) << output.text;
    EXPECT_NE(output.text.find("result 0"), std::string::npos) << output.text;
}

TEST_F(Tool, JsonHoldsOneObjectAStreamAndNothingElse)
{
    write_clip();
    const Output output = run_software("run clip second --json --log-level info");
    EXPECT_EQ(output.status, 0) << stderr_text();
    const std::vector<std::string> lines = lines_of(output.text);
    ASSERT_EQ(lines.size(), 2U) << output.text;
    const std::vector<std::string> ids{"clip", "second"};
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const Json::Value value = parse_json(lines[i]);
        EXPECT_EQ(value.getMemberNames(), (std::vector<std::string>{"fps", "frames", "height", "result", "seconds",
                                                                    "stopped", "stream", "width"}));
        EXPECT_EQ(value["stream"].asString(), ids[i]);
        EXPECT_EQ(value["result"].asInt(), 0);
        EXPECT_EQ(value["frames"].asInt(), 20);
        EXPECT_EQ(value["width"].asInt(), 642);
        EXPECT_EQ(value["height"].asInt(), 362);
        EXPECT_GT(value["seconds"].asDouble(), 0.0);
    }
}

TEST_F(Tool, CountsWhatFfprobeCounts)
{
    write_clip(33);
    const Output output = run_software("run clip --json");
    const Json::Value value = parse_json(output.text);
    const Output probed = run_command("ffprobe -v error -count_frames -select_streams v:0 -show_entries "
                                      "stream=nb_read_frames -of csv=p=0 " +
                                      clip());
    EXPECT_EQ(value["frames"].asInt(), std::atoi(probed.text.c_str()));
}

TEST_F(Tool, SnapshotsArePicturesOfTheFrames)
{
    write_clip(65);
    const fs::path pictures = folder_ / "deep" / "snapshots";
    ASSERT_EQ(run_software("run clip --snapshot " + pictures.string()).status, 0) << stderr_text();
    for (const char* name : {"clip-000001.png", "clip-000031.png", "clip-000061.png"})
        EXPECT_EQ(png_size(pictures / name), std::make_pair(642, 362)) << name;
    const auto count = std::distance(fs::directory_iterator(pictures), fs::directory_iterator());
    EXPECT_EQ(count, 3);
}

TEST_F(Tool, SnapshotFolderThatCannotBeMadeIsOneSentence)
{
    write_clip();
    const Output output = run_software("run clip --snapshot " + clip() + "/below");
    EXPECT_EQ(output.status, 2);
    EXPECT_NE(stderr_text().find("for snapshots cannot be made or written to."), std::string::npos);
}

TEST_F(Tool, FramesStopsTheStreamAtThatCount)
{
    write_clip(600);
    const Output output = run_software("run clip --json --frames 7");
    EXPECT_EQ(output.status, 0) << stderr_text();
    const Json::Value value = parse_json(output.text);
    EXPECT_EQ(value["frames"].asInt(), 7);
}

TEST_F(Tool, UnknownStreamNamesTheKnownOnes)
{
    write_clip();
    EXPECT_EQ(run_software("run nobody").status, 2);
    EXPECT_NE(stderr_text().find("Stream nobody is not in configuration file"), std::string::npos);
    EXPECT_NE(stderr_text().find("it has: clip, second, full, gone."), std::string::npos);
}

TEST_F(Tool, MissingInputFileIsOneSentence)
{
    write_clip();
    EXPECT_EQ(run_software("run gone").status, 2);
    EXPECT_EQ(stderr_text(), "velstream: Stream gone: \"inputAddr\" /nonexistent.mp4 cannot be read: No such file "
                             "or directory.\n");
}

TEST_F(Tool, MissingConfigurationIsOneSentence)
{
    EXPECT_EQ(run_software("run clip").status, 2);
    EXPECT_EQ(stderr_text(),
              "velstream: Configuration file " + config_.string() + " cannot be opened: No such file or directory.\n");
}

TEST_F(Tool, InvalidConfigurationsAreOneSentence)
{
    const std::vector<std::pair<std::string, std::string>> cases{
        {"{ nonsense", "is not valid JSON"},
        {"{}", "has no \"streams\"."},
        {"[]", "has no \"streams\"."},
        {R"({"streams": 3})", "\"streams\" is not an array."},
        {R"({"streams": [{"properties": {}}]})", "has no \"streamsId\"."},
        {R"({"streams": [{"streamsId": "clip", "properties": 3}]})", "are not an object."},
        {R"({"streams": [{"streamsId": "clip"}]})", "has no \"inputType\"."}};
    for (const auto& [text, cause] : cases) {
        write_config(text);
        EXPECT_EQ(run_software("run clip").status, 2) << text;
        EXPECT_NE(stderr_text().find(cause), std::string::npos) << text << " gave " << stderr_text();
        EXPECT_EQ(lines_of(stderr_text()).size(), 1U) << stderr_text();
    }
}

TEST_F(Tool, BrokenInputFailsWithItsCauseInTheLog)
{
    write_clip();
    std::ofstream(clip()) << "no video at all";
    EXPECT_EQ(run_software("run clip").status, 1);
    EXPECT_NE(stderr_text().find("velstream: stream clip failed before its first frame: qtdemux"), std::string::npos)
        << stderr_text();
    EXPECT_NE(stderr_text().find(": This file is invalid and cannot be played.\n"), std::string::npos) << stderr_text();
    EXPECT_NE(stderr_text().find("start_ub2404: ERROR from"), std::string::npos);
}

TEST_F(Tool, InputWithNothingToPlayIsToldInOneSentence)
{
    const auto make = [&](const char* name, const char* codec, bool has_video) {
        media::MediaSpec spec;
        spec.codec = codec;
        spec.width = 320;
        spec.height = 180;
        spec.frames = 20;
        spec.has_video = has_video;
        spec.has_audio = !has_video;
        ASSERT_EQ(media::make_media(spec, (folder_ / name).string()), "");
    };
    make("sound.mp4", "h264", false);
    make("h265.mp4", "h265", true);
    const auto entry = [&](const std::string& id) {
        return R"(,{"streamsId": ")" + id + R"(", "properties": {"inputType": "file", "inputAddr": ")" +
               (folder_ / (id + ".mp4")).string() + R"(", "decodeType": "H264"}})";
    };
    write_clip(1, entry("sound") + entry("h265"));
    EXPECT_EQ(run_software("run sound --log-level none").status, 1);
    EXPECT_EQ(stderr_text(), "velstream: stream sound failed before its first frame: qtdemux0: The file has no H.264 "
                             "or H.265 video.\n");
    EXPECT_EQ(run_software("run h265 --log-level none").status, 1);
    EXPECT_EQ(stderr_text(), "velstream: stream h265 failed before its first frame: qtdemux0: The file's video is of "
                             "another codec than the entry's \"decodeType\".\n");
}

TEST_F(Tool, FileThatCannotBePlayedIsToldInOneSentence)
{
    write_clip(20, R"(,{"streamsId": "other", "properties": {"inputType": "file", "inputAddr": ")" + clip() +
                       R"(", "decodeType": "H265"}})");
    const std::string before = "velstream: stream clip failed before its first frame: qtdemux0: ";
    EXPECT_EQ(run_software("run other --log-level none").status, 1);
    EXPECT_EQ(stderr_text(), "velstream: stream other failed before its first frame: qtdemux0: The file's video is of "
                             "another codec than the entry's \"decodeType\".\n");
    std::filesystem::resize_file(clip(), std::filesystem::file_size(clip()) / 2); // its index is at the end
    EXPECT_EQ(run_software("run clip --log-level none").status, 1);
    EXPECT_EQ(stderr_text().rfind(before + "The file is cut short: ", 0), 0U) << stderr_text();
    EXPECT_EQ(lines_of(stderr_text()).size(), 1U) << stderr_text();
    std::mt19937 random(3);
    std::string bytes(1 << 20, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
    std::ofstream(clip(), std::ios::binary) << bytes;
    EXPECT_EQ(run_software("run clip --log-level none").status, 1);
    EXPECT_EQ(stderr_text(), before + "This file is invalid and cannot be played.\n");
}

TEST_F(Tool, FileThatIsCutShortEndsWellAndIsTold)
{
    write_clip();
    const std::string cut = (folder_ / "cut.mp4").string();
    ASSERT_EQ(run_command("ffmpeg -v error -i " + clip() + " -c copy -movflags +faststart " + cut).status, 0);
    std::filesystem::resize_file(cut, std::filesystem::file_size(cut) - 1000);
    std::filesystem::rename(cut, clip());
    const Output output = run_software("run clip --log-level none");
    EXPECT_EQ(output.status, 0);
    EXPECT_EQ(stderr_text().rfind("velstream: stream clip ended by itself after ", 0), 0U) << stderr_text();
    EXPECT_NE(stderr_text().find(" frames, and the last report was: qtdemux0: The file is cut short: 1000 bytes are "
                                 "missing at its end.\n"),
              std::string::npos)
        << stderr_text();
}

TEST_F(Tool, ListIsATableOfTheStreams)
{
    write_clip();
    const Output output = run("list");
    EXPECT_EQ(output.status, 0);
    const std::vector<std::string> lines = lines_of(output.text);
    ASSERT_EQ(lines.size(), 5U);
    EXPECT_EQ(lines[0].rfind("STREAM", 0), 0U);
    EXPECT_NE(lines[1].find("clip"), std::string::npos);
    EXPECT_EQ(lines[1].find("file"), lines[0].find("INPUT"));
    EXPECT_EQ(lines[1].find(clip()), lines[0].find("INPUT-ADDRESS"));
    EXPECT_EQ(lines[1].find("H264"), lines[0].find("DECODE"));
    EXPECT_EQ(lines[2].find(" mp4 ") + 1, lines[0].find("OUTPUT"));
    EXPECT_EQ(lines[2].find((folder_ / "out.mp4").string()), lines[0].find("OUTPUT-ADDRESS"));
}

TEST_F(Tool, ElementsAutoTakesTheSoftwareOnesWhereThereIsNoDevice)
{
    write_clip();
    setenv("GST_REGISTRY", (folder_ / "registry.bin").c_str(), 1);
    unsetenv("GST_PLUGIN_PATH");
    EXPECT_EQ(run("run clip --elements auto").status, 0) << stderr_text();
    EXPECT_EQ(run("run clip --elements device").status, 2);
    EXPECT_EQ(stderr_text(), "velstream: Stream clip needs the element v4l2h264dec, which is missing.\n");
}

TEST_F(Tool, ElementsSoftwareThatAreNotThereAreOneSentence)
{
    write_clip();
    setenv("GST_REGISTRY", (folder_ / "registry.bin").c_str(), 1);
    unsetenv("GST_PLUGIN_PATH");
    setenv("VELSTREAM_PLUGIN_DIR", folder_.c_str(), 1);
    EXPECT_EQ(run("run clip --elements software").status, 2);
    EXPECT_EQ(stderr_text(), "velstream: The software elements are not installed; they were looked for in " +
                                 folder_.string() + ".\n");
}

TEST_F(Tool, StreamNamedTwiceIsOneSentence)
{
    write_clip();
    EXPECT_EQ(run_software("run clip clip").status, 2);
    EXPECT_EQ(stderr_text(), "velstream: Stream clip is named twice.\n");
}

TEST_F(Tool, PropertyOfAWrongTypeIsOneSentence)
{
    write_clip(1, R"(,{"streamsId": "list", "properties": {"inputType": "rtsp", "inputAddr": ["rtsp://127.0.0.1/"]}},
                      {"streamsId": "odd", "properties": {"inputType": "rtsp", "inputAddr": "rtsp://127.0.0.1/",
                                                          "audio": "maybe"}})");
    EXPECT_EQ(run_software("run list").status, 2);
    EXPECT_EQ(stderr_text(), "velstream: Stream list: \"inputAddr\" is no string.\n");
    EXPECT_EQ(run_software("run odd").status, 1);
    EXPECT_NE(stderr_text().find("velstream: stream odd cannot be read from the configuration: "), std::string::npos)
        << stderr_text();
}

TEST_F(Tool, EachStreamIsToldItsOwnCause)
{
    write_clip(20,
               R"(,{"streamsId": "camera", "properties": {"inputType": "rtsp", "inputAddr": "rtsp://127.0.0.1:1/x"}},
                      {"streamsId": "usb", "properties": {"inputType": "usbcam", "inputAddr": "/dev/nonexistent",
                                                          "width": 640, "height": 480}})");
    const Output output = run_software("run camera usb clip --log-level none");
    EXPECT_EQ(output.status, 1);
    const std::vector<std::string> lines = lines_of(stderr_text());
    ASSERT_EQ(lines.size(), 2U) << stderr_text();
    EXPECT_EQ(lines[0].rfind("velstream: stream camera failed before its first frame: ", 0), 0U) << lines[0];
    EXPECT_EQ(lines[1], "velstream: stream usb failed before its first frame: queue_input_src: Cannot identify device "
                        "'/dev/nonexistent'.");
    EXPECT_NE(output.text.find("clip: 20 frames, 642x362"), std::string::npos) << output.text;
}

TEST_F(Tool, FailureAfterFramesIsToldWithTheirNumber)
{
    write_clip();
    const Output output = run_software("run full --log-level none");
    EXPECT_EQ(output.status, 1);
    EXPECT_NE(output.text.find("result -1"), std::string::npos) << output.text;
    EXPECT_EQ(stderr_text().rfind("velstream: stream full ended with a failure after ", 0), 0U) << stderr_text();
    EXPECT_NE(stderr_text().find(" frames: filesink"), std::string::npos) << stderr_text();
    EXPECT_EQ(lines_of(stderr_text()).size(), 1U) << stderr_text();
}

TEST_F(Tool, StreamForPushedAccessUnitsNamesItsCommand)
{
    write_config(R"({"streams": [{"streamsId": "pushed", "properties": {"inputType": "splice"}}]})");
    EXPECT_EQ(run_software("run pushed").status, 2);
    EXPECT_EQ(stderr_text(), "velstream: Stream pushed decodes what an application pushes: \"velstream splice\" serves "
                             "it.\n");
}

TEST_F(Tool, StreamThatCannotStartIsRefusedByRunAsByCheck)
{
    write_clip(1, R"(,{"streamsId": "up", "properties": {"inputType": "file", "inputAddr": ")" + clip() +
                      R"(", "outputType": "rtmp", "outputAddr": "rtmp://127.0.0.1/x"}})");
    EXPECT_EQ(run_software("run up").status, 2);
    EXPECT_EQ(stderr_text(),
              "velstream: Stream up: \"outputType\" \"rtmp\" cannot be started from a configuration file.\n");
}

TEST_F(Tool, HelpOfEveryCommandHasExamplesAndExitStatuses)
{
    for (const char* name : {"run", "list", "check", "elements"}) {
        const Output output = run_command(std::string(TOOL_PATH) + " " + name + " --help");
        EXPECT_EQ(output.status, 0) << name;
        EXPECT_NE(output.text.find(std::string("Examples:\n  velstream ") + name), std::string::npos) << output.text;
        EXPECT_NE(output.text.find("\nExit status: 0 "), std::string::npos) << output.text;
    }
}

TEST_F(Tool, WrongUsageIsStatusTwo)
{
    EXPECT_EQ(run_command(std::string(TOOL_PATH) + " 2>/dev/null").status, 2);
    EXPECT_EQ(run_command(std::string(TOOL_PATH) + " run 2>/dev/null").status, 2);
    EXPECT_EQ(run_command(std::string(TOOL_PATH) + " run x --elements none 2>/dev/null").status, 2);
    EXPECT_EQ(run_command(std::string(TOOL_PATH) + " --version").text, "velstream 1.0.0\n");
}

namespace {

/// The tool with the library of a platform that reports every end of stream as -1.
class ToolOf6490 : public Tool {
protected:
    void SetUp() override
    {
        std::filesystem::create_symlink(LIBRARY_OF_6490, folder_ / "libvelstream-gst.so.1");
        setenv("LD_LIBRARY_PATH", folder_.c_str(), 1);
    }
};

} // namespace

TEST_F(ToolOf6490, FailureThatIsTheWordForAStopIsSaidAndEndsWell)
{
    write_clip(600);
    const Output output = run_software("run clip --frames 7 --log-level none");
    EXPECT_EQ(output.status, 0) << stderr_text();
    EXPECT_NE(output.text.find("clip: 7 frames, 642x362, "), std::string::npos) << output.text;
    EXPECT_NE(output.text.find(" s, stopped, result -1 (its platform's word for a stop)\n"), std::string::npos)
        << output.text;
    EXPECT_EQ(stderr_text(), "");
}

TEST_F(ToolOf6490, EndThatNobodyAskedForIsAFailure)
{
    write_clip();
    const Output output = run_software("run clip --log-level none");
    EXPECT_EQ(output.status, 1);
    EXPECT_NE(output.text.find(" s, ended, result -1\n"), std::string::npos) << output.text;
    EXPECT_EQ(stderr_text(), "velstream: stream clip ended with a failure after 20 frames; --log-level error shows the "
                             "cause.\n");
}
