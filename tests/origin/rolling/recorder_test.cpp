// The recorder up to its pipeline, and with files.
#include "Elements.h"
#include "FakeProgram.h"
#include "RecordedLog.h"
#include "Segments.h"
#include "StreamBuild.h"
#include "StreamRollingSave.h"
#include "VideoFiles.h"
#include "test_platform.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>

using namespace Quorvis::VelStream;

namespace velstream::testing {

namespace {

namespace fs = std::filesystem;

using RollingSave = WithGStreamer;

const char* const kFolder = "/tmp/rolling/cam";

void touch(const std::string& path)
{
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << "old";
}

/// An entry that has no launch description, so that a call ends before its pipeline.
std::string unrecorded_entry(const std::string& id)
{
    return one_stream(id, R"("inputType": "rtmp", "inputAddr": "rtmp://127.0.0.1:1/a", "rollingsave": true)");
}

bool has_line_with(const std::string& beginning)
{
    const std::vector<std::string> lines = log_lines();
    return std::any_of(lines.begin(), lines.end(), [&](const std::string& l) { return l.rfind(beginning, 0) == 0; });
}

std::string skipped_clean_up(const std::string& id)
{
    return "W clear rolling dir failed, cmd=find '/tmp/rolling/" + id +
           "' -maxdepth 1 -type f -name '*.mp4' -delete, ret=-1";
}

} // namespace

TEST_F(RollingSave, FolderIsMadeWithMode0755)
{
    const ConfigFile config(unrecorded_entry("cam"));
    umask(022);
    EXPECT_EQ(start_rolling_save("cam"), -1);
    struct stat folder {};
    ASSERT_EQ(stat(kFolder, &folder), 0);
    EXPECT_EQ(folder.st_mode & 07777U, 0755U);
}

TEST_F(RollingSave, OldSegmentsAreDeletedAndNothingElse)
{
    const ConfigFile config(unrecorded_entry("cam"));
    for (const char* name : {"00000.mp4", "00099.mp4", "joined.mkv", "kept/00000.mp4"})
        touch(std::string(kFolder) + "/" + name);
    touch("/tmp/rolling/other/00000.mp4");
    touch("/tmp/rolling/cam.mp4");
    EXPECT_EQ(start_rolling_save("cam"), -1);
    EXPECT_EQ(segments_of("cam"), std::vector<std::string>{});
    EXPECT_TRUE(fs::exists("/tmp/rolling/cam/joined.mkv"));
    EXPECT_TRUE(fs::exists("/tmp/rolling/cam/kept/00000.mp4"));
    EXPECT_TRUE(fs::exists("/tmp/rolling/other/00000.mp4"));
    EXPECT_TRUE(fs::exists("/tmp/rolling/cam.mp4"));
    EXPECT_FALSE(has_line_with("W "));
}

TEST_F(RollingSave, CleanUpRunsFindWithTheseWords)
{
    const FakeProgram find("find", kKeepArguments);
    for (const std::string id : {"cam", "Cam_1.a-B", ".a", "_"}) {
        const ConfigFile config(unrecorded_entry(id));
        EXPECT_EQ(start_rolling_save(id), -1);
        EXPECT_EQ(find.written("arguments"),
                  "/tmp/rolling/" + id + "\n-maxdepth\n1\n-type\nf\n-name\n*.mp4\n-delete\n");
    }
}

TEST_F(RollingSave, FailedCleanUpIsLoggedAndTheStartGoesOn)
{
    const ConfigFile config(unrecorded_entry("cam"));
    const FakeProgram find("find", "exit 3");
    EXPECT_EQ(start_rolling_save("cam"), -1);
    EXPECT_TRUE(log_has("W clear rolling dir failed, cmd=find '/tmp/rolling/cam' -maxdepth 1 -type f -name '*.mp4' "
                        "-delete, ret=768"));
    EXPECT_TRUE(log_has("I Rolling save pipe desc: "));
}

TEST_F(RollingSave, IdThatLeavesItsFolderIsNotCleanedUp)
{
    const ConfigFile config(R"({"streams": []})");
    touch("/tmp/rolling/cam/00000.mp4");
    touch("/tmp/rolling/a/b/00000.mp4");
    for (const std::string id : {"x/../cam", "..", "a/b", "/cam"}) {
        SCOPED_TRACE(id);
        EXPECT_EQ(start_rolling_save(id), -1);
        EXPECT_TRUE(log_has(skipped_clean_up(id)));
    }
    EXPECT_TRUE(fs::exists("/tmp/rolling/cam/00000.mp4"));
    EXPECT_TRUE(fs::exists("/tmp/rolling/a/b/00000.mp4"));
}

TEST_F(RollingSave, IdWithAQuoteRunsNoCommand)
{
    const ConfigFile config(R"({"streams": []})");
    touch("/tmp/rolling/cam/00000.mp4");
    for (const std::string id : {"x' ; rm -r '/tmp/rolling/cam", "it's", "a\"b"}) {
        SCOPED_TRACE(id);
        EXPECT_EQ(start_rolling_save(id), -1);
        EXPECT_TRUE(log_has(skipped_clean_up(id)));
    }
    EXPECT_TRUE(fs::exists("/tmp/rolling/cam/00000.mp4"));
}

TEST_F(RollingSave, IdWithABlankOrADollarStaysInItsQuotes)
{
    const ConfigFile config(R"({"streams": []})");
    for (const std::string id : {"front door", "$HOME", "a;b", "*"}) {
        touch("/tmp/rolling/" + id + "/00000.mp4");
        EXPECT_EQ(start_rolling_save(id), -1);
        EXPECT_EQ(segments_of(id), std::vector<std::string>{}) << id;
    }
}

TEST_F(RollingSave, UnknownIdHasTheDefaultsAndIsNotBuilt)
{
    const ConfigFile config(R"({"streams": []})");
    EXPECT_EQ(start_rolling_save("cam"), -1);
    EXPECT_TRUE(log_has("I Rolling save pipe desc: "));
    EXPECT_TRUE(has_line_with("E Pipeline build error: "));
    EXPECT_TRUE(pipeline_map.empty());
    EXPECT_EQ(g_loop, nullptr);
}

TEST_F(RollingSave, OtherCodecIsNotBuilt)
{
    const ConfigFile config(recorded_entry("rtsp", "rtsp://127.0.0.1:1/a", "VP8"));
    EXPECT_EQ(start_rolling_save("cam"), -1);
    EXPECT_TRUE(log_has("E The input decord type : VP8 is not supported."));
    EXPECT_TRUE(has_line_with("E Pipeline build error: "));
}

TEST_F(RollingSave, MissingElementIsNotBuilt)
{
    const ConfigFile config(recorded_entry("rtsp", "rtsp://127.0.0.1:1/a"));
    const WithoutElement without("rtph264depay");
    EXPECT_EQ(start_rolling_save("cam"), -1);
    EXPECT_TRUE(log_has("E Pipeline build error: no element \"rtph264depay\"\n"));
}

TEST_F(RollingSave, CameraThatIsOffEndsTheCallWith0)
{
    const ConfigFile config(recorded_entry("rtsp", "rtsp://127.0.0.1:1/a"));
    EXPECT_EQ(start_rolling_save("cam"), 0);
    EXPECT_TRUE(log_has("I Pipeline PLAYING. Press Ctrl+C to quit.\n"));
    EXPECT_TRUE(has_line_with("E ERROR from rtspsrc0: "));
    EXPECT_TRUE(has_line_with("E debug: "));
    EXPECT_EQ(pipeline_map.at("cam"), nullptr);
    EXPECT_EQ(g_loop, nullptr);
}

TEST_F(RollingSave, HandlerOfSigintIsReplacedAndStays)
{
    std::signal(SIGINT, SIG_IGN);
    const ConfigFile config(unrecorded_entry("cam"));
    EXPECT_EQ(start_rolling_save("cam"), -1);
    const auto handler = std::signal(SIGINT, SIG_DFL);
    EXPECT_NE(handler, SIG_IGN);
    EXPECT_NE(handler, SIG_DFL);
    EXPECT_NE(handler, Quorvis::VelStream::handle_sigint) << "the runners' handler ends another pipeline";
}

TEST_F(RollingSave, FileIsRecordedWhereThePlatformHasADecoderForIt)
{
    const TemporaryFolder folder;
    const std::string path = folder.file("video.mp4");
    make_video({.width = 320, .height = 240, .frames = 150}, path);
    const ConfigFile config(recorded_entry("file", path));
    StreamCall call(configured_stream("cam"));
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_TRUE(log_has("I Start rolling save. stream_id :cam"));
    if (test_platform() == "ub2404") {
        EXPECT_EQ(call.result(), -1);
        EXPECT_TRUE(has_line_with("E Pipeline build error: "));
        EXPECT_EQ(segments_of("cam"), std::vector<std::string>{});
        return;
    }
    EXPECT_EQ(call.result(), 0);
    EXPECT_TRUE(log_has("I EOS received.\n"));
    EXPECT_GE(segments_of("cam").size(), 2U);
    expect_complete(segments_of("cam"));
}

TEST_F(RollingSave, FileOfH265IsNotBuilt)
{
    const ConfigFile config(recorded_entry("file", "/absent/video.mp4", "H265"));
    EXPECT_EQ(start_rolling_save("cam"), -1);
    EXPECT_TRUE(has_line_with("E Pipeline build error: "));
}

} // namespace velstream::testing
