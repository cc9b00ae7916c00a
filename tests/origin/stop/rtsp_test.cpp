// Stops of a stream that comes over RTSP: by TCP on "ub2404", by UDP on the other platforms.
#include "process.h"
#include "rounds.h"

#include <gtest/gtest.h>

namespace velstream::testing {

TEST(StopOfRtsp, EndsTheCallTenTimes)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    for (int round = 0; round < 10; ++round) {
        SCOPED_TRACE(round);
        ASSERT_EQ(run_round({"stop-rtsp", camera.url(), std::to_string(1 + round % 4)}).status, 0);
    }
}

TEST(StopOfRtsp, WhileItConnectsEndsTheCall)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    for (int round = 0; round < 5; ++round) {
        SCOPED_TRACE(round);
        ASSERT_EQ(run_round({"stop-rtsp", camera.url(), "0"}).status, 0);
    }
}

TEST(StopOfRtsp, WhoseServerIsSilentEndsTheCall)
{
    ASSERT_EQ(run_round({"stop-rtsp-silent"}).status, 0);
}

TEST(StopOfRtsp, WhoseServerStallsEndsTheCall)
{
    // The server stops in the middle: the frames that the stop waits for never come.
    peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    ASSERT_EQ(run_round({"stop-rtsp-stalled", camera.url(), std::to_string(camera.pid())}).status, 0);
    camera.resume();
}

} // namespace velstream::testing
