// Compositions that do not start or come down as they should: neither holds up the call for good, and no file is lost.
#include "Elements.h"
#include "RecordedLog.h"
#include "ScenarioTest.h"
#include "StuckElements.h"

#include <filesystem>
#include <optional>
#include <string>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

const char kIsDown[] = "I Composition: what was left behind has come down.";
const char kSomebody[] = "rtsp://127.0.0.1:1/silent";

/// The push takes so many buffers and then nothing, not even its end.
class StuckPush : public Scenario, public ::testing::WithParamInterface<int> {
protected:
    void describe(VelStreamEngine& engine)
    {
        start_cameras("h264");
        add_cameras(engine, "h264");
        add_output(engine, output_task("File", file_, logo()));
        add_output(engine, output_task("Rtsp", kSomebody, folder_.file("logo.png")));
        add_model(engine);
    }
};

using StuckCamera = Scenario;

/// The model is loaded once the gate is open.
class SlowModel : public Scenario {
protected:
    void describe(VelStreamEngine& engine)
    {
        model_.emplace("qtimlqnn", slow_model_type());
        start_cameras("h264");
        add_cameras(engine, "h264");
        add_output(engine, output_task("File", file_, logo()));
        add_model(engine);
    }

private:
    std::optional<ElementStandIn> model_;
};

} // namespace

TEST_P(StuckPush, IsLeftBehindAndTheFileIsPlayable)
{
    const ElementStandIn push("rtspclientsink", stuck_push_type(GetParam()));
    VelStreamEngine engine(SCENARIO_FILE_AND_RTSP);
    describe(engine);
    const Gate gate;
    EngineCall call(engine);
    ASSERT_TRUE(Gate::wait_until_held());
    ASSERT_TRUE(wait_for_fragments(file_, 2, call));
    wait_for_box(call);
    EXPECT_EQ(engine.stop(), 0);
    EXPECT_TRUE(call.wait_for_end()); // with the push as stuck as before
    Gate::open();
    EXPECT_TRUE(
        logs("W Composition: stuckpush", std::string("(") + kSomebody + ") does not come down; it is left behind."));
    EXPECT_TRUE(wait_for_log(kIsDown));
    expect_overlays(picture_of(file_, 1280, 720), 1280);
}

INSTANTIATE_TEST_SUITE_P(AfterBuffers, StuckPush, ::testing::Values(0, 10));

TEST_F(StuckCamera, IsLeftBehind)
{
    const ElementStandIn camera("rtspsrc", stuck_camera_type());
    VelStreamEngine engine(SCENARIO_COMPOSE_ONLY);
    for (std::size_t i = 0; i < 4; ++i) {
        Task task = camera_task(i, kSomebody, "h264");
        ASSERT_EQ(engine.add_task(TASK_ADD_INPUT, task), 0);
    }
    add_output(engine, output_task("File", file_));
    const Gate gate;
    EngineCall call(engine);
    ASSERT_TRUE(Gate::wait_until_held());
    EXPECT_EQ(engine.stop(), 0);
    EXPECT_TRUE(call.wait_for_end());
    Gate::open();
    EXPECT_TRUE(
        logs("W Composition: stuckcamera", std::string("(") + kSomebody + ") does not come down; it is left behind."));
    EXPECT_TRUE(wait_for_log(kIsDown));
    EXPECT_FALSE(std::filesystem::exists(file_)); // there is no picture in it
}

TEST_F(SlowModel, IsWaitedForByTheCallAndNotByAStop)
{
    peers::RtspPeer server(RTSP_PEER, {"record", "--out", folder_.file("pushed.mp4")});
    ASSERT_NE(server.port(), 0);
    server.pause(); // an end of stream would wait for it
    VelStreamEngine engine(SCENARIO_FILE_AND_RTSP);
    describe(engine);
    add_output(engine, output_task("Rtsp", server.url(), folder_.file("logo.png")));
    const Gate gate;
    EngineCall call(engine);
    ASSERT_TRUE(Gate::wait_until_held());
    for (int stops = 0; stops < 2; ++stops) {
        EXPECT_EQ(engine.stop(), 0);
        EXPECT_FALSE(call.wait_for_end(std::chrono::milliseconds(0)));
    }
    Gate::open();
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    EXPECT_FALSE(logs("E Composition: ", ""));
    EXPECT_FALSE(logs("W Composition: the end of stream", "")); // nothing has come that has an end
    EXPECT_FALSE(std::filesystem::exists(file_));
    server.resume();
}

TEST_F(SlowModel, IsFollowedByARunLikeAnyOther)
{
    VelStreamEngine engine(SCENARIO_FILE);
    describe(engine);
    const Gate gate;
    EngineCall call(engine);
    ASSERT_TRUE(Gate::wait_until_held());
    Gate::open();
    ASSERT_TRUE(wait_for_fragments(file_, 2, call));
    wait_for_box(call);
    stop_within_bounds(engine, call);
    expect_overlays(picture_of(file_, 1280, 720), 1280);
}
