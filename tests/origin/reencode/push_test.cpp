// Re-encoding towards a server that records what comes.
#include "RecordedLog.h"
#include "Reencoding.h"
#include "StreamBuild.h"
#include "process.h"

using namespace Quorvis::VelStream;

namespace velstream::testing {

namespace {

class ReencodedPush : public Reencoder {
protected:
    // GStreamer's sink may go on sending on a connection that it has closed, which GIO criticises.
    void SetUp() override { g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK)); }

    static std::string entry(const std::string& url, int fps = 25)
    {
        return one_stream("cam", R"("networkPush": true, "width": 642, "height": 362, "fps": )" + std::to_string(fps) +
                                     R"(, "outputAddr": ")" + url + "\"");
    }
};

} // namespace

TEST_F(ReencodedPush, ReachesTheServerWhole)
{
    const std::string path = folder_.file("recorded.mp4");
    peers::RtspPeer server(RTSP_PEER, {"record", "--out", path});
    ASSERT_NE(server.port(), 0);
    const ConfigFile file(entry(server.url()));
    StreamCall call(configured_stream("cam"), painter());
    ASSERT_TRUE(server.read_until("record"));
    ASSERT_TRUE(call.wait_for_frames(call.frames() + 10));
    EXPECT_TRUE(log_has("I Registration pipeline for network stream id: cam"));
    running = false;
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    EXPECT_EQ(server.read_until("eos"), "eos frames=" + std::to_string(call.frames()));
    expect_painted_file(path, 642, 362, call.frames());
}

TEST_F(ReencodedPush, IsStoppedUnderItsKey)
{
    peers::RtspPeer server(RTSP_PEER, {"record", "--out", folder_.file("recorded.mp4")});
    const ConfigFile file(entry(server.url()));
    StreamCall call(configured_stream("cam"), painter());
    ASSERT_TRUE(server.read_until("record"));
    ASSERT_TRUE(call.wait_for_frames(3));
    EXPECT_TRUE(stop_ends_call(call, "cam_network"));
    EXPECT_TRUE(server.read_until("teardown"));
}

TEST_F(ReencodedPush, WithoutAServerEndsTheCallAndNamesTheCause)
{
    peers::RtspPeer server(RTSP_PEER, {"record", "--out", folder_.file("recorded.mp4")});
    const ConfigFile file(entry(server.url()));
    server.kill_now();
    server.wait();
    StreamCall call(configured_stream("cam"), painter());
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), -1);
    bool is_cause_named = false;
    for (const std::string& line : log_lines())
        is_cause_named = is_cause_named || line.rfind("E Re-encoding of stream cam failed: ", 0) == 0;
    EXPECT_TRUE(is_cause_named);
}

TEST_F(ReencodedPush, WhoseServerGoesAwayEndsTheCall)
{
    peers::RtspPeer server(RTSP_PEER, {"record", "--out", folder_.file("recorded.mp4")});
    const ConfigFile file(entry(server.url()));
    StreamCall call(configured_stream("cam"), painter());
    ASSERT_TRUE(server.read_until("record"));
    server.kill_now();
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), -1);
}

TEST_F(ReencodedPush, WhoseServerStallsIsStopped)
{
    peers::RtspPeer server(RTSP_PEER, {"record", "--out", folder_.file("recorded.mp4")});
    const ConfigFile file(entry(server.url()));
    StreamCall call(configured_stream("cam"), painter());
    ASSERT_TRUE(server.read_until("record"));
    ASSERT_TRUE(call.wait_for_frames(5));
    server.pause();
    EXPECT_TRUE(stop_ends_call(call, "cam"));
    server.resume();
}

} // namespace velstream::testing
