// A composition whose process is killed, and one whose disk is full: the file is playable up to its last fragment.
#include "PrivateMounts.h"
#include "RecordedLog.h"
#include "ScenarioTest.h"

#include <json/json.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

/// With the scenario as its parameter: 4 recorded with overlays, 5 recorded plainly, 6 recorded and pushed.
class CutShort : public Scenario, public ::testing::WithParamInterface<int> {
protected:
    void expect_playable_up_to_the_last_fragment() const
    {
        const long frames = frames_in_fragments(file());
        ASSERT_GT(frames, 0);
        const FileFacts facts = probe_file(file());
        EXPECT_EQ(facts.width, 1280);
        EXPECT_GE(facts.frames, frames);
        EXPECT_TRUE(shows_all_cameras(picture_of(file(), 1280, 720), 1280, 720));
    }
    virtual std::string file() const { return file_; }
    bool has_push() const { return GetParam() == SCENARIO_FILE_AND_RTSP; }
    std::vector<Task> outputs(const std::string& push_address) const
    {
        std::vector<Task> tasks{output_task("File", file(), logo())};
        if (has_push()) tasks.push_back(output_task("Rtsp", push_address, folder_.file("logo.png")));
        return tasks;
    }
};

class KilledProcess : public CutShort {
protected:
    /// The tasks as the tool takes them; numbers are numbers there.
    static Json::Value to_json(const Task& task)
    {
        Json::Value object;
        for (const auto& [key, value] : task) {
            const bool is_number = !value.empty() && value.find_first_not_of("0123456789") == std::string::npos;
            object[key] = is_number ? Json::Value(std::stoi(value)) : Json::Value(value);
        }
        return object;
    }
    std::string write_layout(const std::string& push_address) const
    {
        Json::Value layout;
        layout["scenario"] = GetParam();
        for (std::size_t i = 0; i < 4; ++i)
            layout["inputs"].append(to_json(camera_task(i, cameras_->url(i), "h264")));
        for (const Task& output : outputs(push_address))
            layout["outputs"].append(to_json(output));
        layout["model"] = to_json(model_task());
        std::ofstream(folder_.file("layout.json")) << layout;
        return folder_.file("layout.json");
    }
};

/// The file lies on a file system of the test's own, with little room.
class FullDisk : public CutShort {
protected:
    void SetUp() override
    {
        ASSERT_EQ(enter_private_mounts({}), ""); // before GStreamer has threads
        std::filesystem::create_directory(disk());
        ASSERT_EQ(mount("velstream-test", disk().c_str(), "tmpfs", 0, "size=4m"), 0) << std::strerror(errno);
        CutShort::SetUp();
    }
    void TearDown() override
    {
        CutShort::TearDown();
        umount2(disk().c_str(), MNT_DETACH);
    }
    std::string file() const override { return disk() + "/out.mp4"; }
    /// Leaves no room at all.
    void fill() const
    {
        std::ofstream filler(disk() + "/filler");
        const std::string block(4096, 'x');
        while (filler.write(block.data(), static_cast<std::streamsize>(block.size())).flush()) {
        }
    }

private:
    std::string disk() const { return folder_.file("disk"); }
};

/// Files of this process that grow beyond the limit fail to be written, up to the limit to the byte.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit limit{bytes, before_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &before_); }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit before_{};
};

using FullDiskAmidAHead = CutShort;

} // namespace

TEST_P(KilledProcess, LeavesAFileThatIsPlayableUpToItsLastFragment)
{
    start_cameras("h264");
    peers::RtspPeer server(RTSP_PEER, {"record", "--out", folder_.file("pushed.mp4")});
    peers::ChildProcess tool({TOOL_PATH, "compose", write_layout(server.url()), "--elements", "software"});
    const auto has_ended = [&tool](std::chrono::milliseconds pause) { return tool.wait(pause).has_value(); };
    ASSERT_TRUE(wait_for_fragments(file(), 4, has_ended));
    tool.kill_now();
    EXPECT_EQ(tool.wait(), 128 + SIGKILL);
    expect_playable_up_to_the_last_fragment();
}

INSTANTIATE_TEST_SUITE_P(Scenarios, KilledProcess,
                         ::testing::Values(SCENARIO_FILE, SCENARIO_COMPOSE_ONLY, SCENARIO_FILE_AND_RTSP));

TEST_P(FullDisk, EndsTheRunWithItsCauseAndLeavesAPlayableFile)
{
    start_cameras("h264");
    peers::RtspPeer server(RTSP_PEER, {"record", "--out", folder_.file("pushed.mp4")});
    VelStreamEngine engine(static_cast<ScenarioType>(GetParam()));
    add_cameras(engine, "h264");
    for (const Task& output : outputs(server.url()))
        add_output(engine, output);
    add_model(engine);
    EngineCall call(engine);
    ASSERT_TRUE(wait_for_fragments(file(), 3, call));
    fill();
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    EXPECT_TRUE(logs("E Composition: filesink", file()));
    EXPECT_TRUE(logs("E ERROR: ", "No space left"));
    expect_playable_up_to_the_last_fragment();
}

INSTANTIATE_TEST_SUITE_P(Scenarios, FullDisk,
                         ::testing::Values(SCENARIO_FILE, SCENARIO_COMPOSE_ONLY, SCENARIO_FILE_AND_RTSP));

// Players refuse a whole file for the head of a fragment that is broken off, where a full disk may well leave it. Where
// the next head comes is known of the scenario that writes it before its fragment's pictures.
TEST_P(FullDiskAmidAHead, LeavesAPlayableFile)
{
    start_cameras("h264");
    VelStreamEngine engine(static_cast<ScenarioType>(GetParam()));
    add_cameras(engine, "h264");
    add_output(engine, output_task("File", file_));
    EngineCall call(engine);
    const std::size_t size = wait_for_whole_fragments(file_, 2, call);
    ASSERT_NE(size, 0U);
    const FileSizeLimit limit(size + 100);
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    EXPECT_TRUE(logs("E Composition: filesink", file_));
    expect_playable_up_to_the_last_fragment();
}

INSTANTIATE_TEST_SUITE_P(Scenarios, FullDiskAmidAHead, ::testing::Values(SCENARIO_COMPOSE_ONLY));
