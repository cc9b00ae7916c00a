// A test of whole compositions: cameras, an engine's tasks, and what is asked of every one.
#pragma once

#include "Scene.h"

#include <chrono>

namespace velstream::testing {

class Scenario : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override; ///< shows what a failed test has logged

    void start_cameras(const std::string& codec);
    void add_cameras(Quorvis::VelStream::VelStreamEngine& engine, const std::string& codec, std::size_t count = 4);
    static void add_output(Quorvis::VelStream::VelStreamEngine& engine, Task task);
    void add_model(Quorvis::VelStream::VelStreamEngine& engine);
    Task model_task() const;
    std::string logo() const;

    /// Stops, and holds the stop and the call to their bounds. @return how long the stop has taken.
    static std::chrono::milliseconds stop_within_bounds(Quorvis::VelStream::VelStreamEngine& engine, EngineCall& call);

    /// A line with this beginning and this within.
    static bool logs(const std::string& beginning, const std::string& part);

    /// Waits until the file, which is being written, shows the box: the first one of a busy machine comes late. When it
    /// does not come, a later look at the file says so.
    void wait_for_box(EngineCall& call) const;

    /// Cameras, logo, text and the box around the square, on a canvas of 1280x720 scaled to this width.
    static void expect_overlays(const Picture& picture, int width);

    TemporaryFolder folder_;
    std::optional<Cameras> cameras_;
    const std::string file_ = folder_.file("out.mp4");
};

} // namespace velstream::testing
