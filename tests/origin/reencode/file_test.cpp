// What is in the file: every frame that was pushed, evenly spaced, as the callback drew it.
#include "../structure/test_platform.h"
#include "Elements.h"
#include "RecordedLog.h"
#include "Reencoding.h"
#include "StreamBuild.h"

#include <algorithm>
#include <cmath>
#include <future>
#include <stdexcept>
#include <thread>

using namespace Quorvis::VelStream;

namespace velstream::testing {

namespace {

class ReencodedFile : public Reencoder {
protected:
    /// Saves at least this many painted frames. @return how many there were.
    long save(const std::string& path, int width, int height, int fps, int frames)
    {
        StreamCall call(described_stream(saved_stream("cam", path, width, height, fps)), painter());
        EXPECT_TRUE(call.wait_for_frames(frames));
        running = false;
        EXPECT_TRUE(call.wait_for_end());
        EXPECT_EQ(call.result(), 0);
        return call.frames();
    }

    void expect_even_durations(const std::string& path, int fps, long frames)
    {
        const std::vector<double> durations = packet_durations_ms(path);
        ASSERT_EQ(static_cast<long>(durations.size()), frames);
        for (const double duration : durations)
            ASSERT_NEAR(duration, 1000.0 / fps, 0.11); // the muxer's clock has 10 000 ticks a second
    }
};

/// Mean of one channel over the frame.
double mean_of(const std::string& frame, std::size_t channel)
{
    double sum = 0;
    for (std::size_t i = channel; i < frame.size(); i += 3)
        sum += static_cast<unsigned char>(frame[i]);
    return sum * 3 / static_cast<double>(frame.size());
}

} // namespace

TEST_F(ReencodedFile, HoldsEveryFrameAsItWasDrawn)
{
    const std::string path = folder_.file("a.mp4");
    const long frames = save(path, 640, 480, 25, 12);
    expect_painted_file(path, 640, 480, frames);
    expect_even_durations(path, 25, frames);
}

TEST_F(ReencodedFile, OfRowsThatAreNoMultipleOfFourBytesIsNotSheared)
{
    const std::string path = folder_.file("a.mp4");
    expect_painted_file(path, 642, 362, save(path, 642, 362, 30, 6));
}

TEST_F(ReencodedFile, OfRowsWithTwoOddBytesIsNotSheared)
{
    const std::string path = folder_.file("a.mp4");
    expect_painted_file(path, 854, 480, save(path, 854, 480, 30, 6));
}

TEST_F(ReencodedFile, OfHighDefinitionHasItsColours)
{
    const std::string path = folder_.file("a.mp4");
    expect_painted_file(path, 1280, 720, save(path, 1280, 720, 10, 4));
}

TEST_F(ReencodedFile, RateThatIsNoWholeMillisecondIsEven)
{
    const std::string path = folder_.file("a.mp4");
    expect_even_durations(path, 30, save(path, 320, 240, 30, 10));
}

TEST_F(ReencodedFile, RateAboveAThousandKeepsEveryFrame)
{
    // No encoder of the platforms takes such a rate.
    const ElementStandIn encoder(is_v4l2_kind() ? "v4l2h264enc" : "qtic2venc", "x264enc");
    const std::string path = folder_.file("a.mp4");
    const long frames = save(path, 320, 240, 2000, 20);
    EXPECT_EQ(probe_video(path).frames, frames);
}

TEST_F(ReencodedFile, SlowFrameIsNotCaughtUpWithAndTheTimeStampsStayEven)
{
    using Clock = std::chrono::steady_clock;
    const std::string path = folder_.file("a.mp4");
    std::vector<Clock::time_point> starts; // written by the callback alone until the call has ended
    StreamCall call(described_stream(saved_stream("cam", path, 320, 240, 20)), [&starts](const Image&) {
        starts.push_back(Clock::now());
        if (starts.size() == 2) std::this_thread::sleep_for(std::chrono::seconds(1)); // work for 20 frames' time
    });
    ASSERT_TRUE(call.wait_for_frames(24));
    running = false;
    ASSERT_TRUE(call.wait_for_end());
    ASSERT_GE(starts.size(), 23U);
    // 20 slots of 50 ms; the first may begin late, the sleeps themselves are never shorter.
    EXPECT_GE(starts[22] - starts[2], std::chrono::milliseconds(500));
    expect_even_durations(path, 20, call.frames());
}

TEST_F(ReencodedFile, CallbackThatThrowsIsLoggedAndTheFrameIsKept)
{
    const std::string path = folder_.file("a.mp4");
    StreamCall call(described_stream(saved_stream("cam", path, 320, 240, 50)),
                    [paint = painter(), number = 0](const Image& image) mutable {
                        paint(image);
                        if (++number == 2) throw std::runtime_error("no pen");
                        if (number == 3) throw 7;
                    });
    ASSERT_TRUE(call.wait_for_frames(3)) << "the frames that threw are not counted";
    running = false;
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    EXPECT_EQ(log_count("E Frame callback of stream cam raised an exception: no pen"), 1);
    EXPECT_EQ(log_count("E Frame callback of stream cam raised an exception."), 1);
    expect_painted_file(path, 320, 240, call.frames() + 2);
}

TEST_F(ReencodedFile, WithoutACallbackIsGrey)
{
    const std::string path = folder_.file("a.mp4");
    StreamCall call([path](FrameCallback&) {
        StreamIns ins = saved_stream("cam", path, 320, 240, 100);
        FrameCallback none;
        return start(ins, none);
    });
    ASSERT_TRUE(wait_for_log("W Callback not initialized."));
    std::promise<void> passed;
    {
        const ElementPtr pipeline(GST_ELEMENT(gst_object_ref(pipeline_map.at("cam_mp4"))));
        const ElementPtr muxer = child_of_factory(pipeline.get(), "mp4mux");
        const PadPtr pad(gst_element_get_static_pad(muxer.get(), "src"));
        gst_pad_add_probe(
            pad.get(), GST_PAD_PROBE_TYPE_BUFFER,
            [](GstPad*, GstPadProbeInfo*, gpointer user_data) {
                static_cast<std::promise<void>*>(user_data)->set_value();
                return GST_PAD_PROBE_REMOVE;
            },
            &passed, nullptr);
    }
    ASSERT_EQ(passed.get_future().wait_for(kPatience), std::future_status::ready);
    running = false;
    ASSERT_TRUE(call.wait_for_end());
    const std::vector<std::string> frames = decoded_frames(path);
    ASSERT_FALSE(frames.empty());
    for (std::size_t channel = 0; channel < 3; ++channel)
        EXPECT_NEAR(mean_of(frames.back().substr(0, 320 * 240 * 3), channel), 128, 3);
}

TEST_F(ReencodedFile, TwoAtOnceEachHaveTheirRateTheirPictureAndTheirFile)
{
    const std::string red_path = folder_.file("red.mp4");
    const std::string blue_path = folder_.file("blue.mp4");
    const auto fill = [](std::size_t channel) {
        return [channel](const Image& image) {
            for (std::size_t i = 0; i < image.size; ++i)
                image.data[i] = i % 3 == channel ? 220 : 20;
        };
    };
    StreamCall red(described_stream(saved_stream("red", red_path, 320, 240, 20)), fill(0));
    StreamCall blue(described_stream(saved_stream("blue", blue_path, 320, 240, 50)), fill(2));
    ASSERT_TRUE(red.wait_for_frames(10));
    ASSERT_TRUE(blue.wait_for_frames(10));
    running = false;
    ASSERT_TRUE(red.wait_for_end());
    ASSERT_TRUE(blue.wait_for_end());
    expect_even_durations(red_path, 20, red.frames());
    expect_even_durations(blue_path, 50, blue.frames());
    for (const std::string& frame : decoded_frames(red_path)) {
        ASSERT_GT(mean_of(frame.substr(0, 320 * 240 * 3), 0), 190);
        ASSERT_LT(mean_of(frame.substr(0, 320 * 240 * 3), 2), 50);
    }
    for (const std::string& frame : decoded_frames(blue_path)) {
        ASSERT_LT(mean_of(frame.substr(0, 320 * 240 * 3), 0), 50);
        ASSERT_GT(mean_of(frame.substr(0, 320 * 240 * 3), 2), 190);
    }
}

TEST_F(ReencodedFile, ThatCannotBeWrittenEndsTheCall)
{
    StreamCall call(described_stream(saved_stream("cam", "/nowhere/at/all.mp4", 320, 240)));
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), -1);
    bool is_cause_named = false;
    for (const std::string& line : log_lines())
        is_cause_named = is_cause_named || line.find("/nowhere/at/all.mp4") != std::string::npos;
    EXPECT_TRUE(is_cause_named);
}

TEST_F(ReencodedFile, OnAFullDiskEndsTheCallWithAFailure)
{
    StreamCall call(described_stream(saved_stream("cam", "/dev/full", 320, 240, 100)), painter());
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), -1);
}

} // namespace velstream::testing
