// Two streams of one camera: what each callback and each output gets, and how the call ends.
#include "FilePlayback.h"
#include "RecordedLog.h"
#include "StreamBuild.h"
#include "compositor.h"
#include "frame_numbers.h"
#include "process.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>

namespace velstream::testing {

namespace {

using Quorvis::VelStream::pipeline_map;

constexpr int kFrames = 60;
constexpr int kCameraPeriod = 1 << 8; // the camera's numbers wrap where its marker does

std::string half(const std::string& id, const std::string& url, const std::string& more = {})
{
    return R"({"streamsId": ")" + id +
           R"(", "pStreamId": "front", "properties": {"inputType": "rtsp", "inputAddr": ")" + url +
           R"(", "decodeType": "H264")" + more + "}}";
}

std::string rtsp_output(const peers::RtspPeer& recorder)
{
    return R"(, "outputType": "rtsp", "outputAddr": ")" + recorder.url() + R"(")";
}

std::string pair(const std::string& url, const std::string& first_output = {}, const std::string& second_output = {})
{
    return R"({"streams": [)" + half("one", url, first_output) + "," + half("two", url, second_output) + "]}";
}

/// The pair's call; the other callback belongs to "two".
StreamCall::Start split(StreamCall::OnFrame on_second)
{
    return [on_second](FrameCallback& callback) {
        FrameCallback second = [on_second](const Image& image) {
            on_second(image);
            return int8_t{0};
        };
        return Quorvis::VelStream::start_split_stream("one", callback, "two", second);
    };
}

/// Elements of a bin and of the bins in it that decode video.
int video_decoders_in(GstElement* bin)
{
    int count = 0;
    const auto note = [](const GValue* item, gpointer counted) {
        auto* element = GST_ELEMENT(g_value_get_object(item));
        const char* klass = gst_element_get_metadata(element, GST_ELEMENT_METADATA_KLASS);
        if (!GST_IS_BIN(element) && klass && std::string(klass).find("Decoder") != std::string::npos &&
            std::string(klass).find("Video") != std::string::npos)
            ++*static_cast<int*>(counted);
    };
    const Quorvis::VelStream::IteratorPtr elements(gst_bin_iterate_recurse(GST_BIN(bin)));
    while (gst_iterator_foreach(elements.get(), note, &count) == GST_ITERATOR_RESYNC) {
        count = 0;
        gst_iterator_resync(elements.get());
    }
    return count;
}

class SplitCamera : public Playback {
protected:
    std::string make(int frames = kFrames) const
    {
        media::MediaSpec spec;
        spec.width = 640;
        spec.height = 360;
        spec.frames = frames;
        spec.has_audio = true; // which is nobody's
        const std::string path = folder_.file("camera.mp4");
        make_video(spec, path);
        return path;
    }
};

/// The frame's number on the screen, -1 where there is none.
int number_on(peers::Compositor& screen)
{
    const std::vector<std::uint8_t> pixels = screen.read_screen();
    if (pixels.empty()) return -1;
    const auto stride = static_cast<std::size_t>(3 * screen.width());
    return media::read_frame_number(pixels.data(), screen.width(), screen.height(), stride).value_or(-1);
}

/// Three numbers that the screen shows one after the other, or fewer when it does not within the bound.
std::vector<int> numbers_on(peers::Compositor& screen, const StreamCall& call)
{
    std::vector<int> shown;
    const auto start = std::chrono::steady_clock::now();
    // A new window is faded in, so the first pictures may have no number to be read. A window that was refused never
    // has one; one that is there is worth waiting for, since a busy machine takes seconds for each picture of the
    // screen.
    const auto end = [&] { return start + (shown.empty() ? kPatience / 4 : kPatience); };
    while (shown.size() < 3 && !call.has_ended() && std::chrono::steady_clock::now() < end()) {
        const int number = number_on(screen);
        if (number >= 0 && (shown.empty() || shown.back() != number)) shown.push_back(number);
    }
    return shown;
}

/// Lets one thread through once another has opened it.
class Gate {
public:
    void open()
    {
        const std::lock_guard lock(mutex_);
        is_open_ = true;
        opened_.notify_all();
    }
    bool pass()
    {
        std::unique_lock lock(mutex_);
        return opened_.wait_for(lock, kPatience, [this] { return is_open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable opened_;
    bool is_open_ = false;
};

} // namespace

TEST_F(SplitCamera, BothCallbacksHaveEveryFrame)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--file", make()});
    ASSERT_NE(camera.port(), 0);
    const ConfigFile config(pair(camera.url()));
    FrameNumbers first;
    FrameNumbers second;
    std::vector<std::string> ids[2];
    StreamCall call(split([&](const Image& image) {
                        ids[1].push_back(image.streamId);
                        second.take(image);
                    }),
                    [&](const Image& image) {
                        ids[0].push_back(image.streamId);
                        first.take(image);
                    });
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    EXPECT_EQ(first.all(), second.all());
    // By UDP, where a busy machine may lose a packet.
    EXPECT_TRUE(are_rising(first.all()));
    EXPECT_GE(first.all().size(), static_cast<std::size_t>(kFrames / 2)) << text_of(first.all());
    EXPECT_EQ(std::count(ids[0].begin(), ids[0].end(), "one"), static_cast<long>(ids[0].size()));
    EXPECT_EQ(std::count(ids[1].begin(), ids[1].end(), "two"), static_cast<long>(ids[1].size()));
}

TEST_F(SplitCamera, OneDecoderRuns)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    const ConfigFile config(pair(camera.url()));
    int decoders = 0;
    StreamCall call(split([](const Image&) {}), [&](const Image& image) {
        if (image.frameIndex == 3) decoders = video_decoders_in(pipeline_map.at("one"));
    });
    ASSERT_TRUE(call.wait_for_frames(5));
    EXPECT_TRUE(stop_ends_call(call, "one"));
    EXPECT_EQ(decoders, 1);
}

TEST_F(SplitCamera, StopOfEitherIdEndsTheCall)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    const ConfigFile config(pair(camera.url()));
    for (const char* id : {"one", "two", "all_stream"}) {
        StreamCall call(split([](const Image&) {}));
        ASSERT_TRUE(call.wait_for_frames(3)) << id;
        EXPECT_TRUE(stop_ends_call(call, id)) << id;
        EXPECT_EQ(call.result(), 0) << id;
    }
}

TEST_F(SplitCamera, SlowCallbackHoldsUpTheOtherOnlyWithAFullQueue)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    const ConfigFile config(pair(camera.url()));
    constexpr int kHeld = 5;
    constexpr int kQueued = 3; // what the splitter keeps for a branch
    Gate gate;
    bool has_passed = false;
    FrameNumbers first;
    FrameNumbers second;
    StreamCall call(split([&](const Image& image) {
                        second.take(image);
                        if (image.frameIndex == kHeld + kQueued) gate.open();
                    }),
                    [&](const Image& image) {
                        first.take(image);
                        // This branch stands still until the other has had what is queued here meanwhile.
                        if (image.frameIndex == kHeld) has_passed = gate.pass();
                    });
    ASSERT_TRUE(call.wait_for_frames(20));
    EXPECT_TRUE(stop_ends_call(call, "two"));
    EXPECT_TRUE(has_passed);
    EXPECT_TRUE(are_consecutive(first.all(), kCameraPeriod)) << "none was dropped meanwhile";
    EXPECT_TRUE(are_consecutive(second.all(), kCameraPeriod));
}

TEST_F(SplitCamera, CameraThatDiesEndsTheCall)
{
    peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    const ConfigFile config(pair(camera.url()));
    StreamCall call(split([](const Image&) {}));
    ASSERT_TRUE(call.wait_for_frames(3));
    camera.kill_now();
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
}

TEST_F(SplitCamera, CameraThatIsNotThereEndsTheCallWithItsError)
{
    const ConfigFile config(pair("rtsp://127.0.0.1:1/camera"));
    StreamCall call(split([](const Image&) {}));
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    EXPECT_TRUE(log_has("E Error received from element source: Could not open resource for reading and writing."));
}

TEST_F(SplitCamera, WindowShowsTheCamera)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live", "--size", "640x360"});
    peers::Compositor screen(640, 360);
    ASSERT_TRUE(camera.port() != 0 && screen.is_ready());
    const ConfigFile config(pair(camera.url(), R"(, "outputType": "wayland", "outputAddr": "")"));
    std::vector<int> shown;
    // GStreamer's sink gives a compositor a tenth of a second for the layout of a new window. One that takes longer, on
    // a busy machine, refuses the window, and the stream goes on without it: another one then.
    for (int attempt = 0; attempt < 4 && shown.size() < 3; ++attempt) {
        StreamCall call(split([](const Image&) {}));
        ASSERT_TRUE(call.wait_for_frames(10));
        shown = numbers_on(screen, call);
        EXPECT_TRUE(stop_ends_call(call, "one"));
    }
    EXPECT_EQ(shown.size(), 3U) << "the screen shows no moving picture: " << text_of(shown);
}

TEST_F(SplitCamera, TwoRecordersHaveEveryFrame)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--file", make()});
    const std::string paths[] = {folder_.file("one.ts"), folder_.file("two.ts")};
    peers::RtspPeer recorder(RTSP_PEER, {"record", "--out", paths[0]});
    peers::RtspPeer other_recorder(RTSP_PEER, {"record", "--out", paths[1]});
    ASSERT_TRUE(camera.port() && recorder.port() && other_recorder.port());
    const ConfigFile config(pair(camera.url(), rtsp_output(recorder), rtsp_output(other_recorder)));
    FrameNumbers numbers;
    StreamCall call(split([](const Image&) {}), numbers.taker());
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    const std::string frames = "eos frames=" + std::to_string(numbers.all().size());
    EXPECT_EQ(recorder.read_until("eos "), frames);
    EXPECT_EQ(other_recorder.read_until("eos "), frames);
    for (const std::string& path : paths)
        EXPECT_EQ(numbers_in_file(path), numbers.all()) << path;
}

} // namespace velstream::testing
