// Recording and joining with the tool. /tmp/rolling is the test's own.
#include "patience.h"
#include "process.h"
#include "tool_fixture.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

const fs::path kFolder = "/tmp/rolling/cam";

std::vector<fs::path> segments_in(const fs::path& folder)
{
    std::vector<fs::path> files;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) {
        if (entry.path().extension() == ".mp4") files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::vector<fs::path> set_aside_folders()
{
    std::vector<fs::path> folders;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(kFolder, error)) {
        if (entry.path().filename().string().rfind("earlier-", 0) == 0) folders.push_back(entry.path());
    }
    return folders;
}

bool wait_until(const std::function<bool()>& condition)
{
    const auto deadline = Clock::now() + velstream::testing::kPatience;
    while (!condition() && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return condition();
}

bool wait_for_segments(std::size_t count)
{
    return wait_until([=] { return segments_in(kFolder).size() >= count; });
}

int pictures_in(const fs::path& file)
{
    const Output output = run_command("ffprobe -v error -count_packets -select_streams v -show_entries "
                                      "stream=nb_read_packets -of csv=p=0 '" +
                                      file.string() + "' 2>&1");
    return output.status == 0 ? std::atoi(output.text.c_str()) : -1;
}

void expect_all_play(const std::vector<fs::path>& segments)
{
    for (const fs::path& segment : segments)
        EXPECT_GT(pictures_in(segment), 0) << segment;
}

void make_old_segments(int count)
{
    fs::create_directories(kFolder);
    for (int i = 0; i < count; ++i) {
        char name[16];
        std::snprintf(name, sizeof name, "%05d.mp4", i);
        std::ofstream(kFolder / name) << "old";
    }
}

class RecordTool : public Tool {
protected:
    void configure(const std::string& url) const
    {
        write_config(R"({"streams": [{"streamsId": "cam", "properties": {"inputType": "rtsp", "inputAddr": ")" + url +
                     R"("}}, {"streamsId": "usb", "properties": {"inputType": "usbcam"}}]})");
    }
    /// Its results go to results(), what it says to said().
    peers::ChildProcess start(const std::string& arguments) const
    {
        return peers::ChildProcess({"sh", "-c",
                                    "exec " + command("record cam --elements software " + arguments) + " >" +
                                        (folder_ / "results").string() + " 2>" + (folder_ / "said").string()});
    }
    std::string content(const char* name) const
    {
        std::stringstream text;
        text << std::ifstream(folder_ / name).rdbuf();
        return text.str();
    }
    Json::Value results() const { return parse_json(content("results")); }
    std::string said() const { return content("said"); }
};

} // namespace

TEST_F(RecordTool, CtrlCCompletesTheLastSegment)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    configure(camera.url());
    peers::ChildProcess tool = start("--json");
    ASSERT_TRUE(wait_for_segments(2)) << said();
    tool.interrupt();
    EXPECT_EQ(tool.wait(), 0) << said();
    const std::vector<fs::path> segments = segments_in(kFolder);
    EXPECT_GE(segments.size(), 2U);
    expect_all_play(segments);
    const Json::Value value = results();
    EXPECT_EQ(value["stream"], "cam");
    EXPECT_EQ(value["folder"], kFolder.string());
    EXPECT_EQ(value["segments"].asUInt(), segments.size());
    EXPECT_GT(value["bytes"].asUInt(), 0U);
    EXPECT_EQ(value["recordings"], 1);
    EXPECT_EQ(value["stopped"], true);
}

TEST_F(RecordTool, DurationEndsARecordingAndProgressIsShown)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    configure(camera.url());
    const Output output = run_software("record cam --duration 7");
    EXPECT_EQ(output.status, 0) << stderr_text();
    EXPECT_EQ(output.text.rfind("cam: ", 0), 0U) << output.text;
    EXPECT_NE(output.text.find(" in /tmp/rolling/cam, 0 set aside, "), std::string::npos) << output.text;
    EXPECT_NE(stderr_text().find("cam: "), std::string::npos) << stderr_text();
    EXPECT_NE(stderr_text().find(" segments, "), std::string::npos) << stderr_text();
    expect_all_play(segments_in(kFolder));
}

TEST_F(RecordTool, ServerThatIsGoneEndsItWithTheCause)
{
    peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    configure(camera.url());
    peers::ChildProcess tool = start("");
    ASSERT_TRUE(wait_for_segments(2)) << said();
    camera.kill_now();
    EXPECT_EQ(tool.wait(), 1);
    EXPECT_NE(said().find("velstream: the recording of cam has ended: rtspsrc0: "), std::string::npos) << said();
    expect_all_play(segments_in(kFolder));
}

TEST_F(RecordTool, RestartGoesOnWhenTheCameraIsBackAndKeepsWhatThereWas)
{
    auto camera = std::make_unique<peers::RtspPeer>(RTSP_PEER, std::vector<std::string>{"play", "--live"});
    ASSERT_NE(camera->port(), 0);
    const std::string port = std::to_string(camera->port());
    configure(camera->url());
    peers::ChildProcess tool = start("--restart --json");
    ASSERT_TRUE(wait_for_segments(3)) << said();
    camera->kill_now();
    camera->wait();
    ASSERT_TRUE(wait_until([] { return !set_aside_folders().empty(); })) << said();
    const std::vector<fs::path> earlier = segments_in(set_aside_folders().front());
    EXPECT_GE(earlier.size(), 3U);
    camera = std::make_unique<peers::RtspPeer>(RTSP_PEER, std::vector<std::string>{"--port", port, "play", "--live"});
    ASSERT_NE(camera->port(), 0);
    ASSERT_TRUE(wait_for_segments(2)) << said();
    tool.interrupt();
    EXPECT_EQ(tool.wait(), 0) << said();
    EXPECT_NE(said().find("velstream: the recording of cam has ended: rtspsrc0: "), std::string::npos) << said();
    EXPECT_NE(said().find("; again in 1 s.\n"), std::string::npos) << said();
    EXPECT_GE(results()["recordings"].asInt(), 2);
    EXPECT_EQ(results()["set_aside"].asUInt(), earlier.size());
    std::vector<fs::path> all = segments_in(kFolder);
    all.insert(all.end(), earlier.begin(), earlier.end());
    int pictures = 0;
    for (const fs::path& segment : all)
        pictures += pictures_in(segment);
    const fs::path joined = folder_ / "joined.mp4";
    EXPECT_EQ(run_command(TOOL_PATH " merge cam -o " + joined.string()).status, 0);
    EXPECT_EQ(pictures_in(joined), pictures);
}

TEST_F(RecordTool, KilledLosesTheLastTwoSegmentsAtMost)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    configure(camera.url());
    peers::ChildProcess tool = start("");
    ASSERT_TRUE(wait_for_segments(5)) << said();
    tool.kill_now();
    tool.wait();
    std::vector<fs::path> segments = segments_in(kFolder);
    ASSERT_GE(segments.size(), 5U);
    segments.resize(segments.size() - 2);
    expect_all_play(segments);
}

TEST_F(RecordTool, RestartGoesOnWithACameraThatFellSilent)
{
    peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    configure(camera.url());
    peers::ChildProcess tool = start("--restart --json");
    ASSERT_TRUE(wait_for_segments(2)) << said();
    camera.pause(); // its connection stays, as with a camera whose cable is pulled
    ASSERT_TRUE(wait_until([this] {
        return said().find("velstream: the recording of cam has ended; again in 1 s.\n") != std::string::npos;
    })) << said();
    camera.resume();
    ASSERT_TRUE(wait_until([] { return !set_aside_folders().empty(); })) << said();
    ASSERT_TRUE(wait_for_segments(2)) << said();
    tool.interrupt();
    EXPECT_EQ(tool.wait(), 0) << said();
    expect_all_play(segments_in(set_aside_folders().front()));
}

TEST_F(RecordTool, RestartAsksACameraAnewThatNeverSendsAPacket)
{
    peers::ChildProcess camera({"python3", MUTE_CAMERA});
    const std::optional<std::string> line = camera.read_until("port=");
    ASSERT_TRUE(line);
    configure("rtsp://127.0.0.1:" + line->substr(5) + "/mute");
    peers::ChildProcess tool = start("--restart --stall-timeout 3 --json");
    ASSERT_TRUE(camera.read_until("PLAY")) << said();
    ASSERT_TRUE(camera.read_until("PLAY")) << said();
    tool.interrupt();
    EXPECT_EQ(tool.wait(), 1) << said();
    EXPECT_NE(said().find("velstream: nothing of cam was written for 3 s.\n"), std::string::npos) << said();
    EXPECT_GE(results()["recordings"].asInt(), 2);
}

TEST_F(RecordTool, StallTimeoutWithoutRestartIsWrongUsage)
{
    configure("rtsp://127.0.0.1:1/off");
    EXPECT_EQ(run_software("record cam --stall-timeout 3").status, 2);
    EXPECT_NE(stderr_text().find("--restart"), std::string::npos) << stderr_text();
}

TEST_F(RecordTool, CameraThatIsOffIsAFailure)
{
    configure("rtsp://127.0.0.1:1/off");
    const Output output = run_software("record cam --json");
    EXPECT_EQ(output.status, 1);
    EXPECT_EQ(parse_json(output.text)["segments"].asInt(), 0);
    EXPECT_NE(stderr_text().find("velstream: nothing of stream cam was recorded: rtspsrc0: "), std::string::npos)
        << stderr_text();
}

TEST_F(RecordTool, RestartOfACameraThatIsOffCanBeStopped)
{
    configure("rtsp://127.0.0.1:1/off");
    peers::ChildProcess tool = start("--restart --json");
    ASSERT_TRUE(wait_until([this] { return said().find("again in 2 s") != std::string::npos; })) << said();
    tool.terminate();
    EXPECT_EQ(tool.wait(), 1) << said();
    EXPECT_GE(results()["recordings"].asInt(), 2);
}

TEST_F(RecordTool, EarlierSegmentsAreDeletedWithAWord)
{
    make_old_segments(3);
    configure("rtsp://127.0.0.1:1/off");
    run_software("record cam");
    EXPECT_NE(
        stderr_text().find("velstream: the 3 segments of an earlier recording are deleted; --restart keeps them."),
        std::string::npos)
        << stderr_text();
    EXPECT_TRUE(segments_in(kFolder).empty());
}

TEST_F(RecordTool, RestartSetsEarlierSegmentsAsideAndKeepsARingOfThem)
{
    make_old_segments(70);
    fs::create_directory(kFolder / "earlier-20200101-000000");
    for (int i = 0; i < 70; ++i) {
        const fs::path file = kFolder / "earlier-20200101-000000" / (std::to_string(10000 + i) + ".mp4");
        std::ofstream(file) << "older";
        fs::last_write_time(file, fs::file_time_type::clock::now() - std::chrono::hours(100 - i));
    }
    configure("rtsp://127.0.0.1:1/off");
    const Output output = run_software("record cam --restart --duration 0.5 --json");
    EXPECT_EQ(output.status, 1);
    EXPECT_EQ(parse_json(output.text)["set_aside"].asInt(), 100);
    EXPECT_NE(stderr_text().find("velstream: 70 segments set aside in /tmp/rolling/cam/earlier-"), std::string::npos);
    EXPECT_NE(stderr_text().find("the 40 oldest segments that were set aside are deleted: 100 are kept."),
              std::string::npos)
        << stderr_text();
    const std::vector<fs::path> older = segments_in(kFolder / "earlier-20200101-000000");
    ASSERT_EQ(older.size(), 30U);
    EXPECT_EQ(older.front().filename(), "10040.mp4");
}

TEST_F(RecordTool, WrongStreamsAreRefused)
{
    configure("rtsp://127.0.0.1:1/off");
    EXPECT_EQ(run_software("record absent").status, 2);
    EXPECT_EQ(run_software("record usb").status, 2);
    EXPECT_NE(stderr_text().find("velstream: Stream usb is no RTSP camera"), std::string::npos) << stderr_text();
    EXPECT_EQ(run_software("record").status, 2);
    EXPECT_EQ(run_software("record cam --duration 0").status, 2);
}

TEST_F(RecordTool, MergeHandsItsOptionsToTheScript)
{
    fs::create_directories(kFolder);
    const fs::path first = kFolder / "00000.mp4";
    ASSERT_EQ(
        run_command("ffmpeg -v error -f lavfi -i testsrc2=size=64x64:rate=10 -t 1 -pix_fmt yuv420p -c:v libx264 " +
                    first.string())
            .status,
        0);
    for (const char* name : {"00001.mp4", "00002.mp4"})
        fs::copy(first, kFolder / name);
    const fs::path joined = folder_ / "a b.mp4";
    const std::string merge = TOOL_PATH " merge cam ";
    const Output output = run_command(merge + "--last 2 --json -o '" + joined.string() + "'");
    EXPECT_EQ(output.status, 0);
    EXPECT_EQ(parse_json(output.text)["frames"], 20);
    EXPECT_EQ(pictures_in(joined), 20);
    EXPECT_EQ(run_command(merge + "-o '" + joined.string() + "' 2>&1").status, 1);
    EXPECT_EQ(run_command(merge + "--end 100 2>&1").status, 3);
    EXPECT_EQ(run_command(merge + "--start yesterday 2>&1").status, 2);
    EXPECT_EQ(run_command(TOOL_PATH " merge 2>&1").status, 2);
}

TEST_F(RecordTool, MergeOfAnUnknownStreamHasNothingToJoin)
{
    const Output output = run_command(TOOL_PATH " merge absent 2>&1");
    EXPECT_EQ(output.status, 3);
    EXPECT_EQ(output.text.rfind("concate_video.py: /tmp/rolling/absent is not there: ", 0), 0U) << output.text;
}

TEST_F(RecordTool, HelpHasExamplesAndExitStatuses)
{
    for (const char* name : {"record", "merge"}) {
        const Output help = run_command(TOOL_PATH " " + std::string(name) + " --help");
        EXPECT_EQ(help.status, 0);
        EXPECT_NE(help.text.find("Examples:"), std::string::npos);
        EXPECT_NE(help.text.find("Exit status: 0 "), std::string::npos);
    }
}
