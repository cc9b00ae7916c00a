// What goes wrong with a composition's cameras, pushes, models and pictures: the cause is in the log, and what was
// written is playable.
#include "RecordedLog.h"
#include "ScenarioTest.h"
#include "square_detector.h"

#include <filesystem>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

const char kNobody[] = "rtsp://127.0.0.1:1/nobody";

class FaultyCamera : public Scenario {
protected:
    /// Starts four cameras and describes a plain recording of them, with another address for the third if one is given.
    void describe(const std::string& third_camera = "")
    {
        start_cameras("h264");
        for (std::size_t i = 0; i < 4; ++i) {
            const bool is_other = i == 2 && !third_camera.empty();
            Task task = camera_task(i, is_other ? third_camera : cameras_->url(i), "h264");
            ASSERT_EQ(engine_.add_task(TASK_ADD_INPUT, task), 0);
        }
        add_output(engine_, output_task("File", file_));
    }
    VelStreamEngine engine_{SCENARIO_COMPOSE_ONLY};
};

class FaultyPush : public Scenario {
protected:
    void describe(const std::string& address)
    {
        start_cameras("h264");
        add_cameras(engine_, "h264");
        add_output(engine_, output_task("File", file_, logo()));
        add_output(engine_, output_task("Rtsp", address, folder_.file("logo.png")));
        add_model(engine_);
    }
    /// What was recorded, if a fragment has come so far, is a file that plays.
    void expect_playable_if_begun() const
    {
        if (count_fragments(file_) == 0) return;
        EXPECT_EQ(probe_file(file_).width, 1280);
    }
    std::string pushed() const { return folder_.file("pushed.mp4"); }
    VelStreamEngine engine_{SCENARIO_FILE_AND_RTSP};
};

struct BadModel {
    const char* name;
    velstream::test::ModelOutput output;
    const char* text; ///< in the file in place of a model
    const char* module;
    const char* cause; ///< as the log has it
};

void PrintTo(const BadModel& model, std::ostream* stream)
{
    *stream << model.name;
}

class FaultyModel : public Scenario, public ::testing::WithParamInterface<BadModel> {};

} // namespace

// ---- Cameras

TEST_F(FaultyCamera, ThatIsKilledIsNamedAndTheFileIsPlayable)
{
    describe();
    EngineCall call(engine_);
    ASSERT_TRUE(wait_for_fragments(file_, 2, call));
    cameras_->server(2).kill_now();
    ASSERT_TRUE(call.wait_for_end()); // over UDP, which comes first, a dead server is an error
    EXPECT_EQ(call.result(), 0);
    EXPECT_TRUE(logs("E Composition: rtspsrc2", cameras_->url(2)));
    EXPECT_TRUE(shows_all_cameras(picture_of(file_, 1280, 720), 1280, 720));
}

TEST_F(FaultyCamera, ThatIsAbsentAmongThreeThatPlayIsNamed)
{
    describe(kNobody);
    EngineCall call(engine_);
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    EXPECT_TRUE(logs("E Composition: rtspsrc2", kNobody));
}

TEST_F(FaultyCamera, ThatNeverAnswersLeavesItsQuarterFreeAndHoldsUpNoStop)
{
    describe();
    cameras_->server(2).pause();
    EngineCall call(engine_);
    ASSERT_TRUE(wait_for_fragments(file_, 2, call));
    stop_within_bounds(engine_, call);
    const Picture picture = picture_of(file_, 1280, 720);
    ASSERT_TRUE(picture.is_there());
    EXPECT_TRUE(is_near(picture.at(320, 490), {0, 0, 0}));
    cameras_->server(2).resume();
}

TEST_F(FaultyCamera, ThatFallsSilentLeavesTheOthersGoingAndHoldsUpNoStop)
{
    describe();
    EngineCall call(engine_);
    ASSERT_TRUE(wait_for_fragments(file_, 2, call));
    cameras_->server(2).pause();
    const std::size_t before = count_fragments(file_);
    EXPECT_TRUE(wait_for_fragments(file_, before + 2, call));
    stop_within_bounds(engine_, call);
    EXPECT_GE(probe_file(file_).seconds, 2.0);
    EXPECT_TRUE(shows_all_cameras(picture_of(file_, 1280, 720), 1280, 720));
    cameras_->server(2).resume();
}

TEST_F(FaultyCamera, AllThatNeverAnswerHoldUpNoStop)
{
    describe();
    for (std::size_t i = 0; i < 4; ++i)
        cameras_->server(i).pause();
    EngineCall call(engine_);
    EXPECT_TRUE(wait_for_log("I 🔍 Found mp4mux sink pad: video_0"));
    EXPECT_FALSE(call.wait_for_end(std::chrono::seconds(1))); // it is under way, with nothing to show
    stop_within_bounds(engine_, call);
    for (std::size_t i = 0; i < 4; ++i)
        cameras_->server(i).resume();
}

TEST_F(FaultyCamera, ThatIsNotThereAtAllLeavesAQuarterFree)
{
    start_cameras("h264");
    add_cameras(engine_, "h264", 3);
    add_output(engine_, output_task("File", file_));
    EngineCall call(engine_);
    ASSERT_TRUE(wait_for_fragments(file_, 2, call));
    stop_within_bounds(engine_, call);
    EXPECT_TRUE(log_has("W A composition shows four inputs; 3 were added."));
    const Picture picture = picture_of(file_, 1280, 720);
    ASSERT_TRUE(picture.is_there());
    EXPECT_TRUE(is_near(picture.at(960, 540), {0, 0, 0}));
}

// ---- Pushes

TEST_F(FaultyPush, ToNobodyIsNamed)
{
    describe(kNobody);
    EngineCall call(engine_);
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    EXPECT_TRUE(logs("E Composition: ", kNobody));
    expect_playable_if_begun();
}

TEST_F(FaultyPush, ToAServerThatRefusesIsNamed)
{
    peers::RtspPeer player(RTSP_PEER, {"play", "--live"}); // takes no announcement
    ASSERT_NE(player.port(), 0);
    describe(player.url());
    EngineCall call(engine_);
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    EXPECT_TRUE(logs("E Composition: ", player.url()));
    expect_playable_if_begun();
}

TEST_F(FaultyPush, ToAServerThatNeverAnswersIsNamed)
{
    peers::RtspPeer server(RTSP_PEER, {"record", "--out", pushed()});
    ASSERT_NE(server.port(), 0);
    server.pause();
    describe(server.url());
    EngineCall call(engine_);
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    EXPECT_TRUE(logs("E Composition: ", server.url()));
    expect_playable_if_begun();
    server.resume();
}

TEST_F(FaultyPush, ToAServerThatNeverAnswersHoldsUpNoStop)
{
    peers::RtspPeer server(RTSP_PEER, {"record", "--out", pushed()});
    ASSERT_NE(server.port(), 0);
    server.pause();
    describe(server.url());
    EngineCall call(engine_);
    EXPECT_FALSE(call.wait_for_end(std::chrono::seconds(2))); // the client waits 5 s for an answer
    stop_within_bounds(engine_, call);
    expect_playable_if_begun();
    server.resume();
}

TEST_F(FaultyPush, ThatFallsSilentHoldsUpNeitherTheFileNorAStop)
{
    peers::RtspPeer server(RTSP_PEER, {"record", "--out", pushed()});
    ASSERT_NE(server.port(), 0);
    describe(server.url());
    EngineCall call(engine_);
    ASSERT_TRUE(server.read_until("record"));
    ASSERT_TRUE(wait_for_fragments(file_, 2, call));
    wait_for_box(call);
    server.pause();
    const std::size_t before = count_fragments(file_);
    EXPECT_TRUE(wait_for_fragments(file_, before + 2, call));
    stop_within_bounds(engine_, call);
    expect_overlays(picture_of(file_, 1280, 720), 1280);
    server.resume();
}

TEST_F(FaultyPush, WhoseServerIsKilledIsNamedAndTheFileIsPlayable)
{
    peers::RtspPeer server(RTSP_PEER, {"record", "--out", pushed()});
    ASSERT_NE(server.port(), 0);
    describe(server.url());
    EngineCall call(engine_);
    ASSERT_TRUE(server.read_until("record"));
    ASSERT_TRUE(wait_for_fragments(file_, 2, call));
    wait_for_box(call);
    server.kill_now();
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    EXPECT_TRUE(logs("E Composition: ", server.url()));
    expect_overlays(picture_of(file_, 1280, 720), 1280);
}

// ---- Logos

TEST_F(Scenario, LogoThatIsAbsentCostsOnlyTheLogo)
{
    start_cameras("h264");
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
        EXPECT_TRUE(logs("W Composition: ", name)) << name;
    }
}

// ---- Models

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
    EXPECT_TRUE(logs("E ERROR: ", "/nowhere/model.onnx"));
}

TEST_P(FaultyModel, EndsTheRunWithItsCause)
{
    const BadModel& bad = GetParam();
    start_cameras("h264");
    VelStreamEngine engine(SCENARIO_FILE);
    add_cameras(engine, "h264");
    add_output(engine, output_task("File", file_, logo()));
    Task task = model_task();
    velstream::test::SquareDetector detector;
    detector.output = bad.output;
    velstream::test::write_file(task["Model"], bad.text ? bad.text : velstream::test::make_square_detector(detector));
    task["MlModule"] = bad.module;
    ASSERT_EQ(engine.add_task(TASK_SET_MODEL, task), 0);
    EngineCall call(engine);
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    EXPECT_TRUE(logs("E ERROR: ", bad.cause));
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, FaultyModel,
    ::testing::Values(BadModel{"NoOnnx", velstream::test::ModelOutput::yolov8, "this is a text", "yolov8",
                               "no ONNX model"},
                      BadModel{"OtherShape", velstream::test::ModelOutput::raw_score, nullptr, "yolov8",
                               "The model's output <<1,1,157,297>> is not what the module \"yolov8\" reads."},
                      BadModel{"UnknownModule", velstream::test::ModelOutput::yolov8, nullptr, "other",
                               "The module \"other\" is not known"}),
    [](const auto& tested) { return tested.param.name; });
