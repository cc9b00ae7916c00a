// The relay of sound beside the picture, judged by what receives it.
#include "FilePlayback.h"
#include "RecordedLog.h"
#include "frame_numbers.h"
#include "process.h"

#include <set>
#include <sstream>
#include <utility>

namespace velstream::testing {

namespace {

constexpr int kFrames = 60;

class SoundRelay : public Playback {
protected:
    std::string make(int frames = kFrames, bool has_audio = true, const std::string& codec = "h264") const
    {
        media::MediaSpec spec;
        spec.codec = codec;
        spec.width = 640;
        spec.height = 360;
        spec.frames = frames;
        spec.has_audio = has_audio;
        const std::string path = folder_.file("in.mp4");
        make_video(spec, path);
        return path;
    }

    static std::string entry(const std::string& input, const std::string& address, const std::string& push)
    {
        return one_stream("relay", R"("inputType": ")" + input + R"(", "inputAddr": ")" + address +
                                       R"(", "decodeType": "H264", "audio": true, "outputType": "rtsp",
                                       "outputAddr": ")" +
                                       push + R"(")");
    }

    /// The sound's access units of a file as they are, each with its ADTS header.
    std::string sound_of(const std::string& path) const
    {
        return run_command({"ffmpeg", "-v", "error", "-i", path, "-map", "0:a", "-c", "copy", "-f", "adts", "-"})
            .output;
    }

    /// Its codecs and its container, as they come.
    static std::vector<std::string> kinds_in(const std::string& path)
    {
        std::istringstream output(
            run_command({"ffprobe", "-v", "error", "-show_entries", "format=format_name:stream=codec_name", "-of",
                         "default=noprint_wrappers=1:nokey=1", path})
                .output);
        std::set<std::string> kinds; // a program names its streams once more
        for (std::string line; std::getline(output, line);)
            kinds.insert(line);
        return {kinds.begin(), kinds.end()};
    }

    static bool has_line_with(const std::string& part)
    {
        for (const std::string& line : log_lines()) {
            if (line.find(part) != std::string::npos) return true;
        }
        return false;
    }
};

} // namespace

TEST_F(SoundRelay, FileReachesTheRecorderWithItsSoundUntouched)
{
    const std::string input = make();
    const std::string recorded = folder_.file("recorded.ts");
    peers::RtspPeer recorder(RTSP_PEER, {"record", "--out", recorded});
    ASSERT_NE(recorder.port(), 0);
    const ConfigFile config(entry("file", input, recorder.url()));
    FrameNumbers numbers;
    StreamCall call(configured_stream("relay"), numbers.taker());
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    EXPECT_TRUE(log_has("I End-Of-Stream reached."));
    EXPECT_EQ(numbers.all(), numbers_below(kFrames));
    EXPECT_EQ(recorder.read_until("eos "), "eos frames=" + std::to_string(kFrames));
    EXPECT_EQ(kinds_in(recorded), (std::vector<std::string>{"aac", "h264", "mpegts"}));
    EXPECT_EQ(numbers_in_file(recorded), numbers_below(kFrames));
    const std::string sound = sound_of(input);
    EXPECT_GT(sound.size(), 2000U);
    EXPECT_EQ(sound_of(recorded), sound);
}

TEST_F(SoundRelay, StopOfItsIdOrOfAllEndsTheCall)
{
    constexpr int kMoreThanIsRelayed = 900;
    peers::RtspPeer recorder(RTSP_PEER, {"record", "--out", folder_.file("recorded.ts")});
    ASSERT_NE(recorder.port(), 0);
    const ConfigFile config(entry("file", make(kMoreThanIsRelayed), recorder.url()));
    for (const char* id : {"relay", "all_stream"}) {
        StreamCall call(configured_stream("relay"));
        ASSERT_TRUE(call.wait_for_frames(30)) << id;
        EXPECT_TRUE(stop_ends_call(call, id)) << id;
        EXPECT_EQ(call.result(), 0) << id;
        EXPECT_LT(call.frames(), kMoreThanIsRelayed) << id;
    }
}

TEST_F(SoundRelay, StopOfAnotherStreamDoesNotEndTheCall)
{
    peers::RtspPeer recorder(RTSP_PEER, {"record", "--out", folder_.file("recorded.ts")});
    ASSERT_NE(recorder.port(), 0);
    const ConfigFile config(entry("file", make(), recorder.url()));
    bool is_first = true;
    StreamCall call(configured_stream("relay"), [&](const Image&) {
        if (std::exchange(is_first, false)) Quorvis::VelStream::gstreamer_pipeline_shutdown("another");
    });
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    EXPECT_EQ(call.frames(), kFrames);
}

TEST_F(SoundRelay, ServerThatIsNotThereEndsTheCallWithItsError)
{
    const ConfigFile config(entry("file", make(), "rtsp://127.0.0.1:1/push"));
    StreamCall call(configured_stream("relay"));
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    EXPECT_TRUE(has_line_with("E Error received from element rtspclientsink"));
}

TEST_F(SoundRelay, FileWithoutSoundEndsTheCallWithItsCause)
{
    peers::RtspPeer recorder(RTSP_PEER, {"record", "--out", folder_.file("recorded.ts")});
    ASSERT_NE(recorder.port(), 0);
    const ConfigFile config(entry("file", make(kFrames, false), recorder.url()));
    StreamCall call(configured_stream("relay"));
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    EXPECT_TRUE(has_line_with("The file has no AAC audio track to relay."));
}

TEST_F(SoundRelay, CameraDeliversNoFramesAndIsStopped)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--file", make(), "--loop"});
    peers::RtspPeer recorder(RTSP_PEER, {"record", "--out", folder_.file("recorded.ts")});
    ASSERT_TRUE(camera.port() && recorder.port());
    const ConfigFile config(entry("rtsp", camera.url(), recorder.url()));
    StreamCall call(configured_stream("relay"));
    ASSERT_TRUE(wait_for_log("I new_pad_type value: application/x-rtp, media type: video"));
    EXPECT_FALSE(call.wait_for_frames(1, std::chrono::seconds(3)));
    EXPECT_TRUE(stop_ends_call(call, "relay"));
    EXPECT_EQ(call.frames(), 0);
}

} // namespace velstream::testing
