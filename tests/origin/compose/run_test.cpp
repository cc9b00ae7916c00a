// Starting, stopping and watching a composition, without a camera.
#include "Elements.h"
#include "RecordedLog.h"
#include "StreamBuildMultiMerge.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>

#include <unistd.h>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Lines = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

class CompositionRun : public WithGStreamer {
protected:
    /// Cameras that nobody answers for.
    static StreamProperty away()
    {
        StreamProperty prop;
        for (int i = 0; i < 4; ++i) {
            InputStreamProperty input;
            input.inputAddr = "rtsp://127.0.0.1:1/cam" + std::to_string(i);
            input.width = 640;
            input.height = 360;
            prop.inputs.push_back(input);
        }
        return prop;
    }
};

class BusCall : public WithGStreamer {
protected:
    const Quorvis::VelStream::MainLoopPtr loop_{g_main_loop_new(nullptr, FALSE)};
    const Quorvis::VelStream::BusPtr bus_{gst_bus_new()};
    gboolean call(GstMessage* message)
    {
        const Quorvis::VelStream::MessagePtr owned(message);
        return bus_call(bus_.get(), owned.get(), loop_.get());
    }
    /// Whether the loop is told to end while it runs.
    bool quits_on(GstMessage* message)
    {
        struct Context {
            BusCall* test;
            GstMessage* message;
        } context{this, message};
        g_idle_add(
            [](gpointer data) -> gboolean {
                auto* given = static_cast<Context*>(data);
                EXPECT_TRUE(given->test->call(given->message));
                return G_SOURCE_REMOVE;
            },
            &context);
        const guint guard = g_timeout_add_seconds(
            20,
            [](gpointer loop) -> gboolean {
                ADD_FAILURE() << "the loop runs on";
                g_main_loop_quit(static_cast<GMainLoop*>(loop));
                return G_SOURCE_CONTINUE;
            },
            loop_.get());
        g_main_loop_run(loop_.get());
        g_source_remove(guard);
        return !HasFailure();
    }
};

} // namespace

TEST_F(BusCall, EndOfStreamQuitsTheLoopFiveSecondsLater)
{
    const auto begin = Clock::now();
    EXPECT_TRUE(quits_on(gst_message_new_eos(nullptr)));
    EXPECT_GE(Clock::now() - begin, std::chrono::seconds(5));
    EXPECT_EQ(log_lines(), (Lines{"I EOS received, exiting main loop.\n"}));
}

TEST_F(BusCall, ErrorIsLoggedAndQuitsTheLoop)
{
    GError* error = g_error_new_literal(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_NOT_FOUND, "no such camera");
    EXPECT_TRUE(quits_on(gst_message_new_error(nullptr, error, "debug")));
    g_error_free(error);
    EXPECT_EQ(log_lines(), (Lines{"E ERROR: no such camera"}));
}

TEST_F(BusCall, OtherMessagesAreIgnored)
{
    EXPECT_TRUE(call(gst_message_new_latency(nullptr)));
    EXPECT_TRUE(call(gst_message_new_duration_changed(nullptr)));
    EXPECT_EQ(log_lines(), Lines{});
}

TEST_F(CompositionRun, DescriptionThatDoesNotLinkIsNotLaunched)
{
    EXPECT_EQ(start_stream_multi_merge(away(), true, 5), -1);
    EXPECT_TRUE(log_has("E Failed to create pipeline."));
    EXPECT_EQ(log_lines().back().find("E The launch description is not complete: "), 0U) << log_lines().back();
    // Nothing is left behind: the next one is not told that one runs.
    EXPECT_EQ(start_stream_multi_merge(away(), true, 5), -1);
    EXPECT_FALSE(log_has("E A composition is running already: a process has one."));
}

TEST_F(CompositionRun, TextWithAQuoteIsNotLaunched)
{
    StreamProperty prop = away();
    prop.inputs[1].position = "<0, \"0>";
    EXPECT_EQ(start_stream_multi_merge(prop, false, 0), -1);
    EXPECT_TRUE(log_has("E Failed to create pipeline."));
}

TEST_F(CompositionRun, MissingElementIsNotLaunched)
{
    const WithoutElement without("qtic2venc");
    EXPECT_EQ(start_stream_multi_merge(away(), false, 0), -1);
    EXPECT_TRUE(log_has("E The launch description is not complete: no element \"qtic2venc\""));
}

TEST_F(CompositionRun, NoInputsIsNotLaunched)
{
    EXPECT_EQ(start_stream_multi_merge(StreamProperty(), false, 0), -1);
    EXPECT_EQ(log_lines(), (Lines{"E A composition needs at least one input, and none was added."}));
}

TEST_F(CompositionRun, CameraThatDoesNotAnswerEndsTheRunAndIsNamed)
{
    EXPECT_EQ(start_stream_multi_merge(away(), false, 0), 0);
    bool is_named = false;
    for (const std::string& line : log_lines())
        is_named = is_named || (line.find("E Composition: rtspsrc") == 0 &&
                                line.find("(rtsp://127.0.0.1:1/cam") != std::string::npos);
    EXPECT_TRUE(is_named);
    EXPECT_TRUE(log_has("W Output file address is empty. Please check filling outputType value."));
    EXPECT_TRUE(log_has("W The composition is not recorded: no output of the type File has an address."));
    EXPECT_NE(access("sync=false", F_OK), 0); // as the launch parser would name the file
}

TEST_F(CompositionRun, SetsTheDisplayEnvironmentAndLogsTheDescription)
{
    setenv("WAYLAND_DISPLAY", "other", 1);
    start_stream_multi_merge(away(), true, 5);
    EXPECT_STREQ(getenv("WAYLAND_DISPLAY"), "wayland-1");
    EXPECT_STREQ(getenv("XDG_RUNTIME_DIR"), "/run/user/root");
    EXPECT_TRUE(log_has("I The final pipeline string is: " + get_4_cameras_launch_command(away(), true, 5)));
}

TEST_F(CompositionRun, ProbesLogWhatTheyFind)
{
    EXPECT_EQ(start_stream_multi_merge(away(), false, 0), 0);
    EXPECT_TRUE(log_has("I 🔍 Found mp4mux sink pad: video_0"));
    EXPECT_FALSE(log_has("W ❌ mp4mux element not found in pipeline."));
    for (const std::string& line : log_lines())
        EXPECT_EQ(line.find("tee src pad"), std::string::npos);
}

TEST_F(CompositionRun, StopWithNothingRunningOnlyLogs)
{
    stop_multi_merge();
    EXPECT_EQ(log_lines(), (Lines{"I Received SIGINT signal, will send EOS to pipeline.",
                                  "W pipeline_g is NULL, cannot send EOS.", "W Sending EOS to pipeline completed."}));
}
