// Whole compositions: cameras that play, what is written and pushed, and how it ends.
#include "RecordedLog.h"
#include "Scene.h"
#include "square_detector.h"

#include <gst/gst.h>

#include <filesystem>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Clock = std::chrono::steady_clock;

class Scenario : public ::testing::Test {
protected:
    // GStreamer's sink may go on sending on a connection that it has closed, which GIO criticises.
    void SetUp() override
    {
        gst_init(nullptr, nullptr);
        g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK));
    }
    void TearDown() override
    {
        if (!HasFailure()) return;
        for (const std::string& line : all_log_lines())
            std::fprintf(stderr, "%s\n", line.c_str());
    }
    void start_cameras(const std::string& codec)
    {
        cameras_.emplace(folder_, codec);
        ASSERT_TRUE(cameras_->are_ready());
    }
    void add_cameras(VelStreamEngine& engine, const std::string& codec)
    {
        for (std::size_t i = 0; i < 4; ++i) {
            Task task = camera_task(i, cameras_->url(i), codec);
            ASSERT_EQ(engine.add_task(TASK_ADD_INPUT, task), 0);
        }
    }
    static void add_output(VelStreamEngine& engine, Task task) { ASSERT_EQ(engine.add_task(TASK_ADD_OUTPUT, task), 0); }
    void add_model(VelStreamEngine& engine)
    {
        const std::string model = folder_.file("squares.onnx");
        velstream::test::write_file(model, velstream::test::make_square_detector({}));
        const std::string labels = folder_.file("labels.txt");
        velstream::test::write_file(labels, "square\n");
        Task task{{"Model", model}, {"MlModule", "yolov8"}, {"Labels", labels}};
        ASSERT_EQ(engine.add_task(TASK_SET_MODEL, task), 0);
    }
    std::string logo()
    {
        const std::string path = folder_.file("logo.png");
        write_logo(path, "magenta");
        return path;
    }
    static long red_pixels(const Picture& picture, int x, int y, int width, int height)
    {
        return picture.count_near(x, y, width, height, {255, 40, 40});
    }
    /// Cameras, logo, text and the box around the square, on a canvas of 1280x720 scaled to this width.
    static void expect_overlays(const Picture& picture, int width)
    {
        const auto at = [width](int value) { return value * width / 1280; };
        ASSERT_TRUE(shows_all_cameras(picture, width, width * 9 / 16));
        // Logo and text have the pixels of what they are drawn on.
        EXPECT_TRUE(is_near(picture.at(72, 172), {255, 0, 255}));
        EXPECT_GT(picture.count_near(700, 140, 200, 100, {255, 255, 255}), 500);
        // The square lies at 1040,508 to 1136,604; its frame is red, and what is inside stays white.
        EXPECT_GT(red_pixels(picture, at(1030), at(498), at(20), at(116)), 80);
        EXPECT_GT(red_pixels(picture, at(1126), at(498), at(20), at(116)), 80);
        EXPECT_GT(red_pixels(picture, at(1030), at(594), at(116), at(20)), 80);
        EXPECT_TRUE(is_near(picture.at(at(1088), at(560)), {255, 255, 255}));
    }
    void stop_within_bounds(VelStreamEngine& engine, EngineCall& call)
    {
        EXPECT_EQ(engine.stop(), 0);
        EXPECT_TRUE(call.wait_for_end(std::chrono::seconds(10))); // a second, on a machine that is not shared
        EXPECT_EQ(call.result(), 0);
    }

    TemporaryFolder folder_;
    std::optional<Cameras> cameras_;
    const std::string file_ = folder_.file("out.mp4");
};

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
    stop_within_bounds(engine, call);
    EXPECT_TRUE(log_has("I ✅ mp4mux received EOS on pad: video_0\n"));
    EXPECT_TRUE(log_has("I EOS received, exiting main loop.\n"));
    const FileFacts facts = probe_file(file_);
    EXPECT_EQ(facts.codec, codec == "h265" ? "hevc" : "h264");
    EXPECT_EQ(facts.width, 1280);
    EXPECT_EQ(facts.height, 720);
    EXPECT_GE(facts.seconds, 1.0); // the first fragment may be short
    EXPECT_NEAR(static_cast<double>(facts.frames) / facts.seconds, 10.0, 2.0);
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

TEST_F(Scenario, CameraThatIsKilledIsNamedAndTheFileIsPlayable)
{
    start_cameras("h264");
    VelStreamEngine engine(SCENARIO_COMPOSE_ONLY);
    add_cameras(engine, "h264");
    add_output(engine, output_task("File", file_));
    EngineCall call(engine);
    ASSERT_TRUE(wait_for_fragments(file_, 2, call));
    cameras_->server(2).kill_now();
    ASSERT_TRUE(call.wait_for_end()); // over UDP, which comes first, a dead server is an error
    EXPECT_EQ(call.result(), 0);
    bool is_named = false;
    for (const std::string& line : log_lines())
        is_named =
            is_named || (line.find("E Composition: rtspsrc2") == 0 && line.find(cameras_->url(2)) != std::string::npos);
    EXPECT_TRUE(is_named);
    EXPECT_TRUE(shows_all_cameras(picture_of(file_, 1280, 720), 1280, 720));
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

TEST_F(Scenario, ThreeCamerasLeaveAQuarterFree)
{
    start_cameras("h264");
    VelStreamEngine engine(SCENARIO_COMPOSE_ONLY);
    for (std::size_t i = 0; i < 3; ++i) {
        Task task = camera_task(i, cameras_->url(i), "h264");
        ASSERT_EQ(engine.add_task(TASK_ADD_INPUT, task), 0);
    }
    add_output(engine, output_task("File", file_));
    EngineCall call(engine);
    ASSERT_TRUE(wait_for_fragments(file_, 2, call));
    stop_within_bounds(engine, call);
    EXPECT_TRUE(log_has("W A composition shows four inputs; 3 were added."));
    const Picture picture = picture_of(file_, 1280, 720);
    ASSERT_TRUE(picture.is_there());
    EXPECT_TRUE(is_near(picture.at(960, 540), {0, 0, 0}));
}

// ---- With overlays and detection

namespace {

class OverlayScenario : public Scenario, public ::testing::WithParamInterface<const char*> {
protected:
    std::string codec_name() const { return std::string(GetParam()) == "h265" ? "hevc" : "h264"; }
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
    stop_within_bounds(engine, call);
    EXPECT_TRUE(log_has("I 👀 Adding probe to tee src pad: src_0"));
    EXPECT_TRUE(log_has("I ✅ save_queue src pad received EOS. "));
    const FileFacts facts = probe_file(file_);
    EXPECT_EQ(facts.codec, codec_name());
    EXPECT_EQ(facts.width, 1280);
    EXPECT_GE(facts.seconds, 1.0); // the first fragment may be short
    expect_overlays(picture_of(file_, 1280, 720), 1280);
}

TEST_P(OverlayScenario, RecordsAndPushes)
{
    start_cameras(GetParam());
    const std::string pushed = folder_.file("pushed.mp4");
    peers::RtspPeer server(RTSP_PEER, {"record", "--out", pushed});
    ASSERT_NE(server.port(), 0);
    VelStreamEngine engine(SCENARIO_FILE_AND_RTSP);
    add_cameras(engine, GetParam());
    add_output(engine, output_task("File", file_, logo()));
    add_output(engine, output_task("Rtsp", server.url(), folder_.file("logo.png")));
    add_model(engine);
    EngineCall call(engine);
    ASSERT_TRUE(server.read_until("record"));
    ASSERT_TRUE(wait_for_fragments(file_, 3, call));
    stop_within_bounds(engine, call);
    EXPECT_TRUE(server.read_until("eos frames="));
    const FileFacts file = probe_file(file_);
    EXPECT_EQ(file.codec, codec_name());
    EXPECT_EQ(file.width, 1280);
    EXPECT_EQ(file.height, 720);
    expect_overlays(picture_of(file_, 1280, 720), 1280);
    const FileFacts push = probe_file(pushed);
    EXPECT_EQ(push.codec, codec_name());
    EXPECT_EQ(push.width, 1920);
    EXPECT_EQ(push.height, 1080);
    EXPECT_GT(push.frames, 5);
    expect_overlays(picture_of(pushed, 1920, 1080), 1920);
}

TEST_P(OverlayScenario, Pushes)
{
    start_cameras(GetParam());
    const std::string pushed = folder_.file("pushed.mp4");
    peers::RtspPeer server(RTSP_PEER, {"record", "--out", pushed});
    VelStreamEngine engine(SCENARIO_RTSP);
    add_cameras(engine, GetParam());
    add_output(engine, output_task("Rtsp", server.url(), logo()));
    add_model(engine);
    EngineCall call(engine);
    ASSERT_TRUE(server.read_until("record"));
    EXPECT_FALSE(call.wait_for_end(std::chrono::seconds(4))); // what is recorded
    stop_within_bounds(engine, call);
    EXPECT_TRUE(server.read_until("eos frames="));
    EXPECT_TRUE(log_has("W ❌ mp4mux element not found in pipeline."));
    EXPECT_EQ(probe_file(pushed).codec, codec_name());
    expect_overlays(picture_of(pushed, 1920, 1080), 1920);
}

INSTANTIATE_TEST_SUITE_P(Codecs, OverlayScenario, ::testing::Values("h264", "h265"));

// ---- Faults

TEST_F(Scenario, PushThatIsRefusedIsNamed)
{
    start_cameras("h264");
    VelStreamEngine engine(SCENARIO_FILE_AND_RTSP);
    add_cameras(engine, "h264");
    add_output(engine, output_task("File", file_, logo()));
    add_output(engine, output_task("Rtsp", "rtsp://127.0.0.1:1/nobody", folder_.file("logo.png")));
    add_model(engine);
    EngineCall call(engine);
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    bool is_named = false;
    for (const std::string& line : log_lines())
        is_named = is_named ||
                   (line.find("E Composition: ") == 0 && line.find("rtsp://127.0.0.1:1/nobody") != std::string::npos);
    EXPECT_TRUE(is_named);
}

TEST_F(Scenario, LogoThatIsAbsentCostsOnlyTheLogo)
{
    start_cameras("h264");
    write_logo(folder_.file("logo.png"), "magenta");
    velstream::test::write_file(folder_.file("no-picture.png"), "text");
    for (const char* name : {"none.png", "no-picture.png"}) {
        clear_log();
        std::filesystem::remove(file_);
        VelStreamEngine engine(SCENARIO_FILE);
        add_cameras(engine, "h264");
        add_output(engine, output_task("File", file_, folder_.file(name)));
        add_model(engine);
        EngineCall call(engine);
        ASSERT_TRUE(wait_for_fragments(file_, 2, call));
        stop_within_bounds(engine, call);
        EXPECT_TRUE(shows_all_cameras(picture_of(file_, 1280, 720), 1280, 720));
        bool is_named = false;
        for (const std::string& line : log_lines())
            is_named = is_named || (line.find("W Composition: ") == 0 && line.find(name) != std::string::npos);
        EXPECT_TRUE(is_named) << name;
    }
}

TEST_F(Scenario, ModelThatIsAbsentIsNamed)
{
    start_cameras("h264");
    VelStreamEngine engine(SCENARIO_FILE);
    add_cameras(engine, "h264");
    add_output(engine, output_task("File", file_, logo()));
    Task task{{"Model", "/nowhere/model.onnx"}, {"MlModule", "yolov8"}, {"Labels", "/nowhere/labels.txt"}};
    ASSERT_EQ(engine.add_task(TASK_SET_MODEL, task), 0);
    EngineCall call(engine);
    ASSERT_TRUE(call.wait_for_end());
    bool is_named = false;
    for (const std::string& line : log_lines())
        is_named = is_named || (line.find("E ERROR: ") == 0 && line.find("/nowhere/model.onnx") != std::string::npos);
    EXPECT_TRUE(is_named);
}
