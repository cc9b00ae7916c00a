// A camera that goes away, comes back, or falls silent.
#include "FilePlayback.h"
#include "Platform.h"
#include "RecordedLog.h"
#include "process.h"

#include <algorithm>
#include <memory>

namespace velstream::testing {

namespace {

class Camera : public Playback {
protected:
    static std::string entry(const std::string& url, bool manual_rebuild)
    {
        return one_stream("camera", R"("inputType": "rtsp", "inputAddr": ")" + url +
                                        R"(", "decodeType": "H264", "manualRebuild": )" +
                                        (manual_rebuild ? "true" : "false"));
    }

    static std::unique_ptr<peers::RtspPeer> camera(int port = 0)
    {
        return std::make_unique<peers::RtspPeer>(
            RTSP_PEER, std::vector<std::string>{"play", "--live", "--port", std::to_string(port)});
    }

    /// The same camera again. Its port may be in use for a moment.
    static std::unique_ptr<peers::RtspPeer> camera_again(int port)
    {
        const auto end = std::chrono::steady_clock::now() + kPatience;
        auto again = camera(port);
        while (again->port() != port && std::chrono::steady_clock::now() < end)
            again = camera(port);
        return again;
    }

    static bool has_line_with(const std::string& beginning)
    {
        const std::vector<std::string> lines = log_lines();
        return std::any_of(lines.begin(), lines.end(),
                           [&](const std::string& line) { return line.rfind(beginning, 0) == 0; });
    }

    /// The callback's frames from now on.
    static bool goes_on(const StreamCall& call, int frames = 10)
    {
        return call.wait_for_frames(call.frames() + frames);
    }
};

long milliseconds_since(std::chrono::steady_clock::time_point start)
{
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count());
}

} // namespace

TEST_F(Camera, ThatDiesEndsTheCallOrIsWaitedFor)
{
    auto server = camera();
    const int port = server->port();
    ASSERT_NE(port, 0);
    const ConfigFile config(entry(server->url(), false));
    StreamCall call(configured_stream("camera"));
    ASSERT_TRUE(call.wait_for_frames(10));
    server->kill_now();
    const auto death = std::chrono::steady_clock::now();
    if (Quorvis::VelStream::has_v4l2_codecs()) {
        // One attempt: the call says what the bus said.
        ASSERT_TRUE(call.wait_for_end());
        std::printf("the call ended %ld ms after the camera\n", milliseconds_since(death));
        if (has_line_with("E start_ub2404: ERROR from")) {
            EXPECT_EQ(call.result(), -1);
        } else {
            EXPECT_EQ(call.result(), 0);
            EXPECT_TRUE(has_line_with("W Stream camera ends by itself. The last warning came from "));
        }
        EXPECT_NE(log_count("I start_ub2404: End-Of-Stream reached. stream_id=camera") == 0,
                  !has_line_with("E start_ub2404: ERROR from"));
        return;
    }
    ASSERT_TRUE(wait_for_log("W Error information received. Manual rebuild switch disabled, It will rebuild."));
    std::printf("noticed %ld ms after the camera's death\n", milliseconds_since(death));
    server = camera_again(port);
    ASSERT_EQ(server->port(), port);
    const auto back = std::chrono::steady_clock::now();
    ASSERT_TRUE(goes_on(call, 1));
    std::printf("frames again %ld ms after its return\n", milliseconds_since(back));
    ASSERT_TRUE(goes_on(call));
    EXPECT_TRUE(stop_ends_call(call, "camera"));
}

TEST_F(Camera, ThatFallsSilentIsWaitedForAndGoesOn)
{
    auto server = camera();
    ASSERT_NE(server->port(), 0);
    const ConfigFile config(entry(server->url(), true));
    StreamCall call(configured_stream("camera"));
    ASSERT_TRUE(call.wait_for_frames(10));
    server->pause();
    EXPECT_FALSE(call.wait_for_end(std::chrono::seconds(4))); // nothing on the bus says so
    const std::int64_t before = call.frames();
    server->resume();
    EXPECT_TRUE(call.wait_for_frames(before + 10));
    EXPECT_FALSE(has_line_with("E "));
    EXPECT_TRUE(stop_ends_call(call, "camera"));
}

} // namespace velstream::testing
