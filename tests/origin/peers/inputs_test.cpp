// Frames that come from a camera or a server, each of them by its number.
#include "FilePlayback.h"
#include "Platform.h"
#include "frame_numbers.h"
#include "process.h"
#include "rtmp_server.h"

#include <chrono>

namespace velstream::testing {

namespace {

constexpr int kFrames = 60;

class NetworkInput : public Playback {
protected:
    std::string make(const std::string& codec, bool has_audio = false) const
    {
        media::MediaSpec spec;
        spec.codec = codec;
        spec.width = 640;
        spec.height = 360;
        spec.frames = kFrames;
        spec.has_audio = has_audio;
        const std::string path = folder_.file("camera.mp4");
        make_video(spec, path);
        return path;
    }

    static std::string entry(const std::string& input, const std::string& url, const std::string& codec)
    {
        return one_stream("camera", R"("inputType": ")" + input + R"(", "inputAddr": ")" + url +
                                        R"(", "decodeType": ")" + codec + R"(", "manualRebuild": true)");
    }

    /// Plays a file from a server to its end: every frame has arrived, once and in order.
    void expect_every_frame(const std::string& file, const std::string& codec)
    {
        const peers::RtspPeer server(RTSP_PEER, {"play", "--file", file});
        ASSERT_NE(server.port(), 0);
        const ConfigFile config(entry("rtsp", server.url(), codec));
        FrameNumbers numbers;
        const auto start = std::chrono::steady_clock::now();
        StreamCall call(configured_stream("camera"), numbers.taker());
        ASSERT_TRUE(call.wait_for_frames(1));
        note_first_frame(start);
        ASSERT_TRUE(call.wait_for_end());
        EXPECT_EQ(call.result(), result_of_end());
        if (Quorvis::VelStream::has_v4l2_codecs()) {
            EXPECT_EQ(numbers.all(), numbers_below(kFrames)) << text_of(numbers.all());
            return;
        }
        // By UDP, where a busy machine may lose a packet, and every picture up to the next key frame with it.
        EXPECT_TRUE(are_rising(numbers.all()));
        EXPECT_GE(numbers.all().size(), static_cast<std::size_t>(kFrames / 2)) << text_of(numbers.all());
    }

    static void note_first_frame(std::chrono::steady_clock::time_point start)
    {
        const auto after =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
        RecordProperty("first_frame_ms", std::to_string(after.count()));
        std::printf("first frame after %ld ms\n", static_cast<long>(after.count()));
    }
};

} // namespace

TEST_F(NetworkInput, RtspH264FramesArriveOnceEachInOrder)
{
    expect_every_frame(make("h264"), "H264");
}

TEST_F(NetworkInput, RtspH265FramesArriveOnceEachInOrder)
{
    expect_every_frame(make("h265"), "H265");
}

TEST_F(NetworkInput, RtspSoundBesideThePictureIsIgnored)
{
    expect_every_frame(make("h264", true), "H264");
}

TEST_F(NetworkInput, RtmpFramesArriveInOrderAsPublished)
{
    peers::RtmpServer server;
    ASSERT_NE(server.port(), 0);
    const peers::RtmpPublisher publisher(make("h264", true), server.url());
    ASSERT_TRUE(server.wait_for("publish:"));
    const ConfigFile config(entry("rtmp", server.url() + " live=1", "H264"));
    FrameNumbers numbers;
    const auto start = std::chrono::steady_clock::now();
    StreamCall call(configured_stream("camera"), numbers.taker());
    ASSERT_TRUE(call.wait_for_frames(1));
    note_first_frame(start);
    ASSERT_TRUE(call.wait_for_frames(kFrames + 20)); // beyond the file's end
    EXPECT_TRUE(stop_ends_call(call, "camera"));
    EXPECT_TRUE(are_consecutive(numbers.all(), kFrames));
}

} // namespace velstream::testing
