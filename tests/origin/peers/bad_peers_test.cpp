// Cameras and servers that do not send what the entry says, or not for long: the call ends or goes on as documented,
// the log names the cause, and nothing is left of the stream.
#include "FilePlayback.h"
#include "Platform.h"
#include "RecordedLog.h"
#include "StreamBuild.h"
#include "StreamInput.h"
#include "StreamOutput.h"
#include "frame_numbers.h"
#include "patience.h"
#include "process.h"
#include "rtmp_server.h"
#include "silent_server.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <mutex>
#include <thread>

namespace velstream::testing {

namespace {

using Quorvis::VelStream::has_v4l2_codecs;

long entries_of(const char* folder)
{
    return std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator());
}

/// The kernel takes a moment to clear away what has ended. @return the number once it is no larger than `bound`, or
/// after a generous time.
long settled(const char* folder, long bound)
{
    const auto end = std::chrono::steady_clock::now() + kPatience;
    long entries = entries_of(folder);
    while (entries > bound && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        entries = entries_of(folder);
    }
    return entries;
}

class BadPeer : public Playback {
protected:
    // A thread of a pool that waits for work would count as one that is left.
    BadPeer() { g_thread_pool_set_max_unused_threads(0); }

    /// Plays twice: the first time brings what stays for the life of the process, the second is to leave nothing more.
    template <typename Play>
    static void expect_nothing_left_by(const Play& play)
    {
        play();
        Quorvis::VelStream::running = true; // a stop would end the second one too
        const long threads = settled("/proc/self/task", 4);
        const long descriptors = entries_of("/proc/self/fd");
        clear_log();
        play();
        EXPECT_LE(settled("/proc/self/task", threads), threads);
        EXPECT_LE(settled("/proc/self/fd", descriptors), descriptors);
    }

    static std::string entry(const std::string& input, const std::string& url, const std::string& codec = "H264")
    {
        return one_stream("camera", R"("inputType": ")" + input + R"(", "inputAddr": ")" + url +
                                        R"(", "decodeType": ")" + codec + R"(", "manualRebuild": true)");
    }

    /// @return true when a warning's or an error's line holds `cause`.
    static bool log_names(const std::string& cause)
    {
        const std::vector<std::string> lines = log_lines();
        return std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.rfind("I ", 0) != 0 && line.find(cause) != std::string::npos;
        });
    }

    static std::string log_text()
    {
        std::string text;
        for (const std::string& line : log_lines()) {
            if (line.rfind("I ", 0) != 0) text += line + "\n";
        }
        return text;
    }

    std::string make_clip(bool has_audio) const
    {
        media::MediaSpec spec;
        spec.width = 320;
        spec.height = 180;
        spec.frames = 300;
        spec.has_audio = has_audio;
        const std::string path = folder_.file("clip.mp4");
        make_video(spec, path);
        return path;
    }
};

} // namespace

TEST_F(BadPeer, CameraThatClosesItsConnectionEndsTheCallWithItsCause)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live", "--close-after", "1"});
    ASSERT_NE(camera.port(), 0);
    const ConfigFile config(entry("rtsp", camera.url()));
    expect_nothing_left_by([] {
        StreamCall call(configured_stream("camera"));
        if (!has_v4l2_codecs()) {
            // By UDP the client connects again and hears nothing: it fails after its 30 s. A stop comes through.
            ASSERT_TRUE(call.wait_for_frames(10)) << log_text();
            EXPECT_FALSE(call.wait_for_end(std::chrono::seconds(3)));
            EXPECT_TRUE(stop_ends_call(call, "camera"));
            return;
        }
        ASSERT_TRUE(call.wait_for_end());
        EXPECT_GT(call.frames(), 0);
        const bool has_failed = log_names("ERROR from");
        EXPECT_EQ(call.result(), has_failed ? -1 : 0);
        EXPECT_TRUE(has_failed || log_names("Stream camera ends by itself. The last warning came from queue_input_src"))
            << log_text();
    });
}

TEST_F(BadPeer, CameraWithSoundOnlyEndsTheCallWithItsCause)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--file", make_clip(true), "--sound-only"});
    ASSERT_NE(camera.port(), 0);
    const ConfigFile config(entry("rtsp", camera.url()));
    expect_nothing_left_by([] {
        StreamCall call(configured_stream("camera"));
        ASSERT_TRUE(call.wait_for_end());
        EXPECT_EQ(call.result(), -1);
        EXPECT_EQ(call.frames(), 0);
        EXPECT_TRUE(log_names("The camera sends no video.")) << log_text();
    });
}

TEST_F(BadPeer, CameraOfH264DeclaredH265IsReportedAndCanBeStopped)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live", "--codec", "h264"});
    ASSERT_NE(camera.port(), 0);
    const ConfigFile config(entry("rtsp", camera.url(), "H265"));
    expect_nothing_left_by([] {
        StreamCall call(configured_stream("camera"));
        EXPECT_TRUE(wait_for_log("E Incoming data decode type: H264, doesn't match defined type, Update decode type "
                                 "in file velstream-gst.conf accordingly please."));
        EXPECT_TRUE(wait_for_log("E Failed to link pads: no common format."));
        EXPECT_TRUE(stop_ends_call(call, "camera"));
        EXPECT_EQ(call.frames(), 0);
    });
}

TEST_F(BadPeer, CameraThatChangesItsSizeGoesOnInTheNewOne)
{
    const peers::RtspPeer camera(
        RTSP_PEER, {"play", "--live", "--size", "320x240", "--then-size", "640x360", "--size-frames", "30"});
    ASSERT_NE(camera.port(), 0);
    const ConfigFile config(entry("rtsp", camera.url()));
    expect_nothing_left_by([] {
        std::mutex mutex;
        std::vector<std::pair<int, int>> sizes;
        std::atomic<long> late_numbers{0};
        StreamCall call(configured_stream("camera"), [&](const Image& image) {
            const std::lock_guard lock(mutex);
            const std::pair<int, int> size(image.width, image.height);
            if (sizes.empty() || sizes.back() != size) sizes.push_back(size);
            const std::size_t stride = 3U * static_cast<std::size_t>(image.width);
            if (image.width == 640 && media::read_frame_number(image.data, image.width, image.height, stride))
                ++late_numbers;
        });
        const auto end = std::chrono::steady_clock::now() + kPatience;
        while (late_numbers < 10 && !call.has_ended() && std::chrono::steady_clock::now() < end)
            call.wait_for_frames(call.frames() + 1);
        EXPECT_GE(late_numbers, 10) << "the pictures of the new size cannot be read\n" << log_text();
        EXPECT_TRUE(stop_ends_call(call, "camera"));
        const std::lock_guard lock(mutex);
        EXPECT_EQ(sizes, (std::vector<std::pair<int, int>>{{320, 240}, {640, 360}}));
    });
}

TEST_F(BadPeer, RtmpServerThatMaySendSoundFirstIsPlayedOrNamed)
{
    peers::RtmpServer server;
    ASSERT_NE(server.port(), 0);
    const std::string url = server.url("plain");
    const peers::RtmpPublisher publisher(make_clip(true), url);
    ASSERT_TRUE(server.wait_for("publish:"));
    const ConfigFile config(entry("rtmp", url + " live=1"));
    expect_nothing_left_by([] {
        StreamCall call(configured_stream("camera"));
        if (call.wait_for_frames(10)) {
            EXPECT_TRUE(stop_ends_call(call, "camera"));
            return;
        }
        // Nobody takes the sound, and the picture does not exist yet.
        ASSERT_TRUE(call.wait_for_end());
        EXPECT_EQ(call.result(), -1);
        EXPECT_TRUE(log_names("The server sends sound before any video, or no video at all.")) << log_text();
    });
}

/// The client's read waits for as long as the server is silent, and nothing wakes it.
TEST_F(BadPeer, RtmpServerThatFallsSilentIsStoppedAllTheSame)
{
    peers::RtmpServer server;
    ASSERT_NE(server.port(), 0);
    peers::RtmpPublisher publisher(make_clip(true), server.url());
    ASSERT_TRUE(server.wait_for("publish:"));
    const ConfigFile config(entry("rtmp", server.url() + " live=1"));
    StreamCall call(configured_stream("camera"));
    ASSERT_TRUE(call.wait_for_frames(10)) << log_text();
    publisher.pause();
    while (call.wait_for_frames(call.frames() + 1, std::chrono::seconds(1))) {
    }
    EXPECT_TRUE(stop_ends_call(call, "camera"));
}

TEST_F(BadPeer, RtmpServerThatNeverAnswersIsStoppedAllTheSame)
{
    SilentServer server;
    const ConfigFile config(entry("rtmp", "rtmp://127.0.0.1:" + std::to_string(server.port()) + "/live/camera live=1"));
    StreamCall call(configured_stream("camera"));
    ASSERT_TRUE(server.take_request(kPatience));
    EXPECT_TRUE(stop_ends_call(call, "camera")) << log_text();
}

TEST_F(BadPeer, RtmpServerThatNeverTakesThePushIsNotWaitedForByAStop)
{
    const std::string clip = make_clip(false);
    SilentServer server;
    const ConfigFile config(entry("file", clip));
    Quorvis::VelStream::StreamInputFile in(clip, "camera");
    Quorvis::VelStream::StreamOutputRtmpsink out("rtmp://127.0.0.1:" + std::to_string(server.port()) + "/live/camera");
    out.set_stream_id("camera");
    StreamCall call(
        [&](FrameCallback& callback) { return Quorvis::VelStream::startStream(&in, &out, "camera", callback); });
    ASSERT_TRUE(server.take_request(kPatience));
    EXPECT_TRUE(stop_ends_call(call, "camera")) << log_text();
}

TEST_F(BadPeer, RtmpServerThatFallsSilentDoesNotHoldUpAnOutputsFailure)
{
    // GStreamer's sink may go on sending on a connection that it has closed, which GIO criticises.
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK));
    peers::RtmpServer server;
    ASSERT_NE(server.port(), 0);
    const peers::RtmpPublisher publisher(make_clip(true), server.url());
    ASSERT_TRUE(server.wait_for("publish:"));
    const TemporaryFolder folder;
    peers::RtspPeer recorder(RTSP_PEER, {"record", "--out", folder.file("pushed.mp4")});
    ASSERT_NE(recorder.port(), 0);
    const ConfigFile config(one_stream("camera", R"("inputType": "rtmp", "inputAddr": ")" + server.url() +
                                                     R"( live=1", "decodeType": "H264", )" +
                                                     R"("outputType": "rtsp", "outputAddr": ")" + recorder.tcp_url() +
                                                     R"(", "encodeType": "H264", "manualRebuild": true)"));
    StreamCall call(configured_stream("camera"));
    ASSERT_TRUE(call.wait_for_frames(10)) << log_text();
    server.pause();
    while (call.wait_for_frames(call.frames() + 1, std::chrono::seconds(1))) {
    }
    recorder.kill_now();
    if (has_v4l2_codecs()) {
        EXPECT_TRUE(call.wait_for_end()) << log_text();
        EXPECT_EQ(call.result(), -1);
    } else { // tries the same pipeline again, for which it must come down; a stop does not wait for that
        EXPECT_FALSE(call.wait_for_end(std::chrono::seconds(1)));
        EXPECT_TRUE(stop_ends_call(call, "camera")) << log_text();
    }
    server.resume(); // for its end
}

} // namespace velstream::testing
