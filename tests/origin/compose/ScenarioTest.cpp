#include "ScenarioTest.h"

#include "RecordedLog.h"
#include "StreamCall.h"
#include "patience.h"
#include "square_detector.h"

#include <gst/gst.h>

namespace velstream::testing {

using namespace Quorvis::VelStream;

namespace {

using Clock = std::chrono::steady_clock;

/// A composition's own bound is 2.5 s; the rest is for a machine that is shared.
constexpr std::chrono::milliseconds kStopBound{4000};

int milliseconds_since(Clock::time_point begin)
{
    return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count());
}

} // namespace

// GStreamer's sink may go on sending on a connection that it has closed, which GIO criticises.
void Scenario::SetUp()
{
    gst_init(nullptr, nullptr);
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK));
}

/// A slow machine may leave a pipeline behind: its threads are not to end with the process.
void Scenario::TearDown()
{
    if (logs("W Composition: ", " does not come down; it is left behind.")) {
        EXPECT_TRUE(wait_for_log("I Composition: what was left behind has come down."));
    }
    if (!HasFailure()) return;
    for (const std::string& line : all_log_lines())
        std::fprintf(stderr, "%s\n", line.c_str());
}

void Scenario::start_cameras(const std::string& codec)
{
    cameras_.emplace(folder_, codec);
    ASSERT_TRUE(cameras_->are_ready());
}

void Scenario::add_cameras(VelStreamEngine& engine, const std::string& codec, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i) {
        Task task = camera_task(i, cameras_->url(i), codec);
        ASSERT_EQ(engine.add_task(TASK_ADD_INPUT, task), 0);
    }
}

void Scenario::add_output(VelStreamEngine& engine, Task task)
{
    ASSERT_EQ(engine.add_task(TASK_ADD_OUTPUT, task), 0);
}

Task Scenario::model_task() const
{
    const std::string model = folder_.file("squares.onnx");
    velstream::test::write_file(model, velstream::test::make_square_detector({}));
    const std::string labels = folder_.file("labels.txt");
    velstream::test::write_file(labels, "square\n");
    return {{"Model", model}, {"MlModule", "yolov8"}, {"Labels", labels}};
}

void Scenario::add_model(VelStreamEngine& engine)
{
    Task task = model_task();
    ASSERT_EQ(engine.add_task(TASK_SET_MODEL, task), 0);
}

std::string Scenario::logo() const
{
    const std::string path = folder_.file("logo.png");
    write_logo(path, "magenta");
    return path;
}

std::chrono::milliseconds Scenario::stop_within_bounds(VelStreamEngine& engine, EngineCall& call)
{
    const auto begin = Clock::now();
    EXPECT_EQ(engine.stop(), 0);
    const int stop_ms = milliseconds_since(begin);
    EXPECT_LT(stop_ms, kStopBound.count());
    EXPECT_TRUE(call.wait_for_end(kEndAfterStop));
    RecordProperty("stop_ms", stop_ms);
    RecordProperty("end_ms", milliseconds_since(begin));
    EXPECT_EQ(call.result(), 0);
    return std::chrono::milliseconds(stop_ms);
}

bool Scenario::logs(const std::string& beginning, const std::string& part)
{
    const std::vector<std::string> lines = log_lines();
    return std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.find(beginning) == 0 && line.find(part) != std::string::npos;
    });
}

void Scenario::wait_for_box(EngineCall& call) const
{
    const auto deadline = Clock::now() + kPatience;
    std::size_t looked_at = 0;
    while (Clock::now() < deadline && !call.wait_for_end(std::chrono::milliseconds(50))) {
        const std::size_t fragments = count_fragments(file_);
        if (fragments == looked_at) continue;
        looked_at = fragments;
        const Picture picture = picture_of(file_, 1280, 720);
        if (picture.is_there() && picture.count_near(1030, 498, 20, 116, {255, 40, 40}) > 80) return;
    }
}

void Scenario::expect_overlays(const Picture& picture, int width)
{
    const auto at = [width](int value) { return value * width / 1280; };
    const auto red_pixels = [&](int x, int y, int w, int h) {
        return picture.count_near(at(x), at(y), at(w), at(h), {255, 40, 40});
    };
    ASSERT_TRUE(shows_all_cameras(picture, width, width * 9 / 16));
    // Logo and text have the pixels of what they are drawn on.
    EXPECT_TRUE(is_near(picture.at(72, 172), {255, 0, 255}));
    EXPECT_GT(picture.count_near(700, 140, 200, 100, {255, 255, 255}), 500);
    // The square lies at 1040,508 to 1136,604; its frame is red, and what is inside stays white.
    EXPECT_GT(red_pixels(1030, 498, 20, 116), 80);
    EXPECT_GT(red_pixels(1126, 498, 20, 116), 80);
    EXPECT_GT(red_pixels(1030, 594, 116, 20), 80);
    EXPECT_TRUE(is_near(picture.at(at(1088), at(560)), {255, 255, 255}));
}

} // namespace velstream::testing
