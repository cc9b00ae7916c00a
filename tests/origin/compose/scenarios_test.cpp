// Whole compositions: cameras that play, what is written and pushed, and how it ends.
#include "RecordedLog.h"
#include "ScenarioTest.h"

#include <filesystem>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

/// How long a scenario goes on behind its first fragments: not at all, or the seconds that the environment asks for.
std::chrono::seconds run_length()
{
    const char* text = std::getenv("VELSTREAM_SCENARIO_SECONDS");
    return std::chrono::seconds(text ? std::atoi(text) : 0);
}

void run_on(EngineCall& call)
{
    EXPECT_FALSE(call.wait_for_end(run_length()));
}

/// A branch with a queue that leaks loses the frames that its encoder has no time for: those of a busy machine.
enum class Branch { keeps_frames, leaks_frames };

/// What is pushed cannot be looked at before its end: for so long, within which the first detection comes.
#ifdef __SANITIZE_THREAD__
constexpr std::chrono::seconds kPushTime{15};
#else
constexpr std::chrono::seconds kPushTime{4};
#endif

/// Size and codec; what was shown in the time that was to be recorded, at the cameras' rate. A run without a length is
/// a short one, on a machine with other tests: it tells that there are frames, never more than the cameras'.
void expect_video(const FileFacts& facts, const std::string& codec, int width, Branch branch)
{
    EXPECT_EQ(facts.codec, codec == "h265" ? "hevc" : "h264");
    EXPECT_EQ(facts.width, width);
    EXPECT_EQ(facts.height, width * 9 / 16);
    const auto seconds = static_cast<double>(run_length().count());
    EXPECT_GE(facts.seconds, std::max(seconds, 1.0)); // the first fragment may be short
    const double rate = static_cast<double>(facts.frames) / facts.seconds;
    EXPECT_LE(rate, seconds > 0 ? 10.5 : 12.0); // few frames are counted with one more or less
    EXPECT_GT(facts.frames, 1);
    if (seconds == 0) return;
    EXPECT_LE(facts.seconds, seconds + 20); // until the first fragments are there, and until the stop
    EXPECT_GE(rate, branch == Branch::keeps_frames ? 9.5 : 0.0);
}

/// What a test saw, for whoever runs it for long.
void note(const char* what, const FileFacts& facts)
{
    if (run_length() > std::chrono::seconds(0))
        std::printf("%s: %s %dx%d, %.3f s, %ld frames, %s frames a second\n", what, facts.codec.c_str(), facts.width,
                    facts.height, facts.seconds, facts.frames, facts.rate.c_str());
}

class PlainScenario : public Scenario, public ::testing::WithParamInterface<const char*> {};

} // namespace

TEST_P(PlainScenario, RecordsTheCanvas)
{
    const std::string codec = GetParam();
    start_cameras(codec);
    VelStreamEngine engine(SCENARIO_COMPOSE_ONLY);
    add_cameras(engine, codec);
    add_output(engine, output_task("File", file_));
    EngineCall call(engine);
    ASSERT_TRUE(wait_for_fragments(file_, 2, call));
    run_on(call);
    stop_within_bounds(engine, call);
    EXPECT_TRUE(log_has("I ✅ mp4mux received EOS on pad: video_0\n"));
    EXPECT_TRUE(log_has("I EOS received, exiting main loop.\n"));
    const FileFacts facts = probe_file(file_);
    note("file", facts);
    expect_video(facts, codec, 1280, Branch::keeps_frames);
    EXPECT_TRUE(shows_all_cameras(picture_of(file_, 1280, 720), 1280, 720));
}

INSTANTIATE_TEST_SUITE_P(Codecs, PlainScenario, ::testing::Values("h264", "h265"));

TEST_F(Scenario, StopsTwiceAndStartsAgain)
{
    start_cameras("h264");
    VelStreamEngine engine(SCENARIO_COMPOSE_ONLY);
    add_cameras(engine, "h264");
    add_output(engine, output_task("File", file_));
    for (int round = 0; round < 2; ++round) {
        EngineCall call(engine);
        ASSERT_TRUE(wait_for_fragments(file_, 1, call));
        VelStreamEngine second(SCENARIO_COMPOSE_ONLY); // one composition a process
        add_cameras(second, "h264");
        EXPECT_EQ(second.start(), 0);
        EXPECT_TRUE(log_has("E A composition is running already: a process has one."));
        engine.stop();
        stop_within_bounds(engine, call);
        EXPECT_GT(probe_file(file_).frames, 0);
        std::filesystem::remove(file_);
    }
}

TEST_F(Scenario, StopWhileStartingEndsTheCall)
{
    start_cameras("h264");
    VelStreamEngine engine(SCENARIO_COMPOSE_ONLY);
    add_cameras(engine, "h264");
    for (const int wait_ms : {0, 1, 5, 20, 100, 300}) {
        clear_log();
        EngineCall call(engine);
        if (wait_ms > 0) {
            EXPECT_TRUE(wait_for_log("W Output file address is empty. Please check filling outputType value."));
        }
        call.wait_for_end(std::chrono::milliseconds(wait_ms));
        // One that comes before the call has begun finds nothing to stop.
        do
            engine.stop();
        while (!call.wait_for_end(std::chrono::milliseconds(3500)) && wait_ms == 0);
        EXPECT_TRUE(call.wait_for_end(std::chrono::seconds(10)));
        EXPECT_EQ(call.result(), 0);
    }
}

TEST_F(Scenario, CamerasThatEndCompleteTheFile)
{
    start_cameras("h264");
    const std::string clip = folder_.file("camera0.mp4"); // two seconds, not repeated
    VelStreamEngine engine(SCENARIO_COMPOSE_ONLY);
    std::vector<std::unique_ptr<peers::RtspPeer>> servers;
    for (std::size_t i = 0; i < 4; ++i) {
        servers.push_back(
            std::make_unique<peers::RtspPeer>(RTSP_PEER, std::vector<std::string>{"play", "--file", clip}));
        Task task = camera_task(i, servers[i]->url(), "h264");
        ASSERT_EQ(engine.add_task(TASK_ADD_INPUT, task), 0);
    }
    add_output(engine, output_task("File", file_));
    EngineCall call(engine);
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_TRUE(log_has("I EOS received, exiting main loop.\n"));
    EXPECT_GE(probe_file(file_).frames, 10);
}

// ---- With overlays and detection

namespace {

class OverlayScenario : public Scenario, public ::testing::WithParamInterface<const char*> {
protected:
    static void expect_overlays_all_along(const std::string& path, int width)
    {
        expect_overlays(picture_of(path, width, width * 9 / 16), width);
        for (int second = 5; second < run_length().count(); second += 5)
            expect_overlays(picture_at(path, width, width * 9 / 16, second), width);
    }
    static void expect_file(const std::string& path, int width, Branch branch)
    {
        const FileFacts facts = probe_file(path);
        note(path.c_str(), facts);
        expect_video(facts, GetParam(), width, branch);
        expect_overlays_all_along(path, width);
    }
    std::string pushed() const { return folder_.file("pushed.mp4"); }
};

} // namespace

TEST_P(OverlayScenario, RecordsWithLogoTextAndDetection)
{
    start_cameras(GetParam());
    VelStreamEngine engine(SCENARIO_FILE);
    add_cameras(engine, GetParam());
    add_output(engine, output_task("File", file_, logo()));
    add_model(engine);
    EngineCall call(engine);
    ASSERT_TRUE(wait_for_fragments(file_, 2, call));
    wait_for_box(call);
    run_on(call);
    const auto stop_time = stop_within_bounds(engine, call);
    EXPECT_TRUE(log_has("I 👀 Adding probe to tee src pad: src_0"));
    // An end that is late is pushed along, past this.
    if (stop_time < std::chrono::seconds(1)) {
        EXPECT_TRUE(log_has("I ✅ save_queue src pad received EOS. "));
    }
    expect_file(file_, 1280, Branch::leaks_frames);
}

TEST_P(OverlayScenario, RecordsAndPushes)
{
    start_cameras(GetParam());
    peers::RtspPeer server(RTSP_PEER, {"record", "--out", pushed()});
    ASSERT_NE(server.port(), 0);
    VelStreamEngine engine(SCENARIO_FILE_AND_RTSP);
    add_cameras(engine, GetParam());
    add_output(engine, output_task("File", file_, logo()));
    add_output(engine, output_task("Rtsp", server.url(), folder_.file("logo.png")));
    add_model(engine);
    EngineCall call(engine);
    ASSERT_TRUE(server.read_until("record"));
    ASSERT_TRUE(wait_for_fragments(file_, 3, call));
    wait_for_box(call);
    run_on(call);
    stop_within_bounds(engine, call);
    EXPECT_TRUE(server.read_until("eos frames="));
    expect_file(file_, 1280, Branch::keeps_frames);
    expect_file(pushed(), 1920, Branch::leaks_frames);
}

TEST_P(OverlayScenario, Pushes)
{
    start_cameras(GetParam());
    peers::RtspPeer server(RTSP_PEER, {"record", "--out", pushed()});
    VelStreamEngine engine(SCENARIO_RTSP);
    add_cameras(engine, GetParam());
    add_output(engine, output_task("Rtsp", server.url(), logo()));
    add_model(engine);
    EngineCall call(engine);
    ASSERT_TRUE(server.read_until("record"));
    EXPECT_FALSE(call.wait_for_end(kPushTime)); // what is recorded
    run_on(call);
    stop_within_bounds(engine, call);
    EXPECT_TRUE(server.read_until("eos frames="));
    EXPECT_TRUE(log_has("W ❌ mp4mux element not found in pipeline."));
    expect_file(pushed(), 1920, Branch::leaks_frames);
}

INSTANTIATE_TEST_SUITE_P(Codecs, OverlayScenario, ::testing::Values("h264", "h265"));
