// The tool with streams that end only because it stops them.
#include "media.h"
#include "process.h"
#include "rtmp_server.h"
#include "silent_server.h"
#include "tool_fixture.h"

#include <fstream>
#include <sstream>

namespace {

class LiveTool : public Tool {
protected:
    static std::string entry(const std::string& id, const std::string& url)
    {
        return R"(,{"streamsId": ")" + id + R"(", "properties": {"inputType": "rtsp", "inputAddr": ")" + url + R"("}})";
    }
    /// Standard error comes line by line; standard output goes to results().
    peers::ChildProcess start(const std::string& arguments) const
    {
        return peers::ChildProcess({"sh", "-c",
                                    "exec " + command(arguments + " --json --elements software") + " 2>&1 >" +
                                        (folder_ / "results").string()});
    }
    Json::Value results() const
    {
        std::stringstream text;
        text << std::ifstream(folder_ / "results").rdbuf();
        return parse_json(text.str());
    }
};

} // namespace

TEST_F(LiveTool, DurationStopsACamera)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    write_clip(1, entry("camera", camera.url()));
    const Output output = run_software("run camera --json --duration 3");
    EXPECT_EQ(output.status, 0) << stderr_text();
    const Json::Value value = parse_json(output.text);
    EXPECT_GT(value["frames"].asInt(), 0);
    EXPECT_EQ(value["width"].asInt(), 320);
    EXPECT_EQ(value["height"].asInt(), 240);
    EXPECT_GE(value["seconds"].asDouble(), 3.0);
}

TEST_F(LiveTool, FramesStopsWhenEveryStreamHasThemOrHasEnded)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    write_clip(3, entry("camera", camera.url()));
    const Output output = run_software("run clip camera --json --frames 10");
    EXPECT_EQ(output.status, 0) << stderr_text();
    const std::vector<std::string> lines = lines_of(output.text);
    ASSERT_EQ(lines.size(), 2U) << output.text;
    EXPECT_EQ(parse_json(lines[0])["frames"].asInt(), 3);
    EXPECT_EQ(parse_json(lines[1])["frames"].asInt(), 10);
}

TEST_F(LiveTool, FailureBeforeTheStopIsAFailure)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    write_clip(20, entry("camera", camera.url()));
    const Output output = run_software("run full camera --json --duration 4");
    EXPECT_EQ(output.status, 1);
    const std::vector<std::string> lines = lines_of(output.text);
    ASSERT_EQ(lines.size(), 2U) << output.text;
    EXPECT_EQ(parse_json(lines[0])["result"].asInt(), -1);
    EXPECT_GT(parse_json(lines[1])["frames"].asInt(), 0);
    EXPECT_NE(stderr_text().find("velstream: stream full ended with a failure after "), std::string::npos)
        << stderr_text();
    EXPECT_EQ(stderr_text().find("velstream: stream camera"), std::string::npos) << stderr_text();
}

TEST_F(LiveTool, PushesWhatItDraws)
{
    const std::string recorded = (folder_ / "recorded.mp4").string();
    peers::RtspPeer server(RTSP_PEER, {"record", "--out", recorded});
    ASSERT_NE(server.port(), 0);
    write_clip(1,
               R"(,{"streamsId": "pushed", "properties": {"networkPush": true, "width": 642, "height": 362, "fps": 25,
                      "outputAddr": ")" +
                   server.url() + "\"}}");
    // GStreamer's sink may go on sending on a connection that it has closed, which GIO criticises.
    const Output output = run_command("G_DEBUG= " + command("run pushed --json --frames 40 --draw-time") +
                                      " --elements software 2>" + (folder_ / "stderr").string());
    EXPECT_EQ(output.status, 0) << stderr_text();
    EXPECT_EQ(parse_json(output.text)["frames"].asInt(), 40);
    ASSERT_TRUE(server.read_until("eos"));
    const Output last =
        run_command("ffmpeg -v error -i " + recorded +
                    " -vf \"select=eq(n\\,30),crop=480:40:20:20,format=rgb24\" -frames:v 1 -f rawvideo -");
    ASSERT_EQ(last.text.size(), 480U * 40U * 3U);
    int red = 0;
    for (std::size_t i = 0; i < last.text.size(); i += 3)
        red += static_cast<unsigned char>(last.text[i]) > 180 && static_cast<unsigned char>(last.text[i + 1]) < 80;
    EXPECT_GT(red, 300);
}

TEST_F(LiveTool, CameraThatIsSwitchedOffIsToldWithItsCause)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live", "--close-after", "1"});
    ASSERT_NE(camera.port(), 0);
    write_clip(1, entry("camera", camera.url()));
    const Output output = run_software("run camera --json --log-level none");
    EXPECT_EQ(output.status, 0) << stderr_text();
    EXPECT_GT(parse_json(output.text)["frames"].asInt(), 0);
    EXPECT_EQ(stderr_text().rfind("velstream: stream camera ended by itself after ", 0), 0U) << stderr_text();
    EXPECT_NE(stderr_text().find(", and the last report was: queue_input_src: "), std::string::npos) << stderr_text();
}

TEST_F(LiveTool, CameraWithSoundOnlyIsToldInOneSentence)
{
    write_clip(1);
    const std::string sound = (folder_ / "sound.mp4").string();
    media::MediaSpec spec;
    spec.width = 320;
    spec.height = 180;
    spec.frames = 100;
    spec.has_audio = true;
    ASSERT_EQ(media::make_media(spec, sound), "");
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--file", sound, "--sound-only"});
    ASSERT_NE(camera.port(), 0);
    write_clip(1, entry("camera", camera.url()));
    EXPECT_EQ(run_software("run camera --json --log-level none").status, 1);
    EXPECT_EQ(stderr_text().rfind("velstream: stream camera failed before its first frame: ", 0), 0U) << stderr_text();
    EXPECT_EQ(lines_of(stderr_text()).size(), 1U) << stderr_text();
}

TEST_F(LiveTool, RtmpServerWithSoundOnlyIsToldInOneSentence)
{
    media::MediaSpec spec;
    spec.frames = 100;
    spec.has_video = false;
    spec.has_audio = true;
    const std::string sound = (folder_ / "sound.mp4").string();
    ASSERT_EQ(media::make_media(spec, sound), "");
    peers::RtmpServer server;
    ASSERT_NE(server.port(), 0);
    const peers::RtmpPublisher publisher(sound, server.url("plain"));
    ASSERT_TRUE(server.wait_for("publish:"));
    write_clip(1, R"(,{"streamsId": "camera", "properties": {"inputType": "rtmp", "inputAddr": ")" +
                      server.url("plain") + R"( live=1"}})");
    EXPECT_EQ(run_software("run camera --json --log-level none").status, 1);
    EXPECT_EQ(stderr_text().rfind("velstream: stream camera failed before its first frame: ", 0), 0U) << stderr_text();
    EXPECT_NE(stderr_text().find("The server sends sound before any video, or no video at all.\n"), std::string::npos)
        << stderr_text();
    EXPECT_EQ(lines_of(stderr_text()).size(), 1U) << stderr_text();
}

TEST_F(LiveTool, CameraOfAnotherCodecIsToldWhileItRuns)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live", "--codec", "h265"});
    ASSERT_NE(camera.port(), 0);
    write_clip(1, entry("camera", camera.url()));
    peers::ChildProcess tool = start("run camera");
    std::optional<std::string> line = tool.read_line();
    while (line && line->find("Incoming data decode type: H265, doesn't match defined type") == std::string::npos)
        line = tool.read_line();
    EXPECT_TRUE(line) << "nothing names the cause";
    tool.interrupt();
    EXPECT_EQ(tool.read_until("velstream: "), "velstream: stream camera was stopped before its first frame.");
    EXPECT_EQ(tool.wait(), 1);
}

class LiveToolSignal : public LiveTool, public testing::WithParamInterface<int> {};

TEST_P(LiveToolSignal, EndsACameraWell)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    write_clip(1, entry("camera", camera.url()));
    peers::ChildProcess tool = start("run camera");
    // A plain line of progress: frames arrive.
    std::optional<std::string> line = tool.read_until("camera: ");
    while (line && line->rfind("camera: 0 frames", 0) == 0)
        line = tool.read_until("camera: ");
    ASSERT_TRUE(line);
    EXPECT_NE(line->find(" frames, 320x240, "), std::string::npos) << *line;
    EXPECT_NE(line->find(" frames/s"), std::string::npos) << *line;
    kill(tool.pid(), GetParam());
    EXPECT_EQ(tool.wait(), 0);
    EXPECT_GT(results()["frames"].asInt(), 0);
}

INSTANTIATE_TEST_SUITE_P(All, LiveToolSignal, testing::Values(SIGINT, SIGTERM), [](const auto& test) {
    return std::string(test.param == SIGINT ? "Interrupt" : "Terminate");
});

TEST_F(LiveTool, SilentCameraIsToldAndCanBeInterrupted)
{
    const velstream::testing::SilentServer server;
    ASSERT_NE(server.port(), 0);
    write_clip(1, entry("camera", "rtsp://127.0.0.1:" + std::to_string(server.port()) + "/test"));
    peers::ChildProcess tool = start("run camera");
    const std::optional<std::string> line = tool.read_until("camera: 0 frames");
    ASSERT_TRUE(line);
    EXPECT_NE(line->find(", no frame for "), std::string::npos) << *line;
    tool.interrupt();
    EXPECT_EQ(tool.wait(), 1) << "still running long after Ctrl+C, or a stream without a frame counts as well";
    EXPECT_EQ(results()["frames"].asInt(), 0);
    EXPECT_TRUE(results()["stopped"].asBool());
}
