#include "media.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <sys/wait.h>

namespace {

namespace fs = std::filesystem;

struct Output {
    int status = -1;
    std::string text;
};

Output run_command(const std::string& command)
{
    Output output;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return output;
    std::array<char, 4096> part{};
    std::size_t length = 0;
    while ((length = std::fread(part.data(), 1, part.size(), pipe)) > 0)
        output.text.append(part.data(), length);
    const int status = pclose(pipe);
    output.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return output;
}

std::vector<std::string> lines_of(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

class Tool : public testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = (fs::temp_directory_path() / "velstream-tool-XXXXXX").string();
        folder_ = mkdtemp(pattern.data());
        config_ = folder_ / "streams.conf";
    }
    void TearDown() override { fs::remove_all(folder_); }

    /// Makes a short clip and a configuration with stream "clip"; "loop" rebuilds nothing, "gone" has no file.
    void write_clip(int frames = 20)
    {
        media::MediaSpec spec;
        spec.width = 642;
        spec.height = 362;
        spec.frames = frames;
        ASSERT_EQ(media::make_media(spec, clip()), "");
        write_config(R"({"streams": [
            {"streamsId": "clip", "properties": {"inputType": "file", "inputAddr": ")" +
                     clip() + R"("}},
            {"streamsId": "second", "properties": {"inputType": "file", "inputAddr": ")" +
                     clip() + R"(",
                "outputType": "mp4", "outputAddr": ")" +
                     (folder_ / "out.mp4").string() + R"("}},
            {"streamsId": "gone", "properties": {"inputType": "file", "inputAddr": "/nonexistent.mp4"}}]})");
    }
    void write_config(const std::string& text) { std::ofstream(config_) << text; }
    std::string clip() const { return (folder_ / "clip.mp4").string(); }

    /// Standard output alone; standard error goes to stderr_text().
    Output run(const std::string& arguments) const
    {
        return run_command(std::string(TOOL_PATH) + " " + arguments + " --config " + config_.string() + " 2> " +
                           (folder_ / "stderr").string());
    }
    Output run_software(const std::string& arguments) const { return run(arguments + " --elements software"); }
    std::string stderr_text() const
    {
        std::stringstream text;
        text << std::ifstream(folder_ / "stderr").rdbuf();
        return text.str();
    }

    fs::path folder_;
    fs::path config_;
};

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
        Json::Value value;
        std::istringstream(lines[i]) >> value;
        EXPECT_EQ(value.getMemberNames(),
                  (std::vector<std::string>{"fps", "frames", "height", "result", "seconds", "stream", "width"}));
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
    Json::Value value;
    std::istringstream(output.text) >> value;
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
    Json::Value value;
    std::istringstream(output.text) >> value;
    EXPECT_EQ(value["frames"].asInt(), 7);
}

TEST_F(Tool, UnknownStreamNamesTheKnownOnes)
{
    write_clip();
    EXPECT_EQ(run_software("run nobody").status, 2);
    EXPECT_NE(stderr_text().find("Stream nobody is not in configuration file"), std::string::npos);
    EXPECT_NE(stderr_text().find("it has: clip, second, gone."), std::string::npos);
}

TEST_F(Tool, MissingInputFileIsOneSentence)
{
    write_clip();
    EXPECT_EQ(run_software("run gone").status, 2);
    EXPECT_EQ(stderr_text(), "velstream: Stream gone: input file /nonexistent.mp4 cannot be read: No such file or "
                             "directory.\n");
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
    EXPECT_NE(stderr_text().find("velstream: stream clip failed before its first frame"), std::string::npos);
    EXPECT_NE(stderr_text().find("start_ub2404: ERROR from"), std::string::npos);
}

TEST_F(Tool, ListIsATableOfTheStreams)
{
    write_clip();
    const Output output = run("list");
    EXPECT_EQ(output.status, 0);
    const std::vector<std::string> lines = lines_of(output.text);
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[0].rfind("STREAM", 0), 0U);
    EXPECT_NE(lines[1].find("clip"), std::string::npos);
    EXPECT_NE(lines[2].find("mp4 " + (folder_ / "out.mp4").string()), std::string::npos);
    EXPECT_EQ(lines[1].find("file"), lines[0].find("INPUT"));
}

TEST_F(Tool, InterruptedStreamEndsWell)
{
    write_clip(6000);
    // The shell's job is interrupted once the first picture is there: by then frames arrive.
    const Output output = run_command(
        std::string(TOOL_PATH) + " run clip --json --elements software --snapshot " + (folder_ / "s").string() +
        " --config " + config_.string() + " 2>/dev/null & pid=$!; for i in $(seq 300); do [ -e " +
        (folder_ / "s/clip-000001.png").string() + " ] && break; sleep 0.1; done; kill -INT $pid; wait $pid");
    EXPECT_EQ(output.status, 0);
    Json::Value value;
    std::istringstream(output.text) >> value;
    EXPECT_GT(value["frames"].asInt(), 0);
    EXPECT_LT(value["frames"].asInt(), 6000);
}

TEST_F(Tool, WrongUsageIsStatusTwo)
{
    EXPECT_EQ(run_command(std::string(TOOL_PATH) + " 2>/dev/null").status, 2);
    EXPECT_EQ(run_command(std::string(TOOL_PATH) + " run 2>/dev/null").status, 2);
    EXPECT_EQ(run_command(std::string(TOOL_PATH) + " run x --elements none 2>/dev/null").status, 2);
    EXPECT_EQ(run_command(std::string(TOOL_PATH) + " --version").text, "velstream 1.0.0\n");
}
