// A stream into an MP4 file: judged by a decoder that is not ours.
#include "FilePlayback.h"
#include "Handles.h"
#include "LiveInput.h"
#include "Platform.h"
#include "RecordedLog.h"
#include "StreamBuild.h"

#include <algorithm>
#include <filesystem>

namespace velstream::testing {

namespace {

using Mp4Output = Playback;

constexpr int kFrames = 30;
constexpr int kWidth = 640;
constexpr int kHeight = 360;

/// The V4L2 encoders ask for rows in multiples of 32.
int coded_height(int height)
{
    return Quorvis::VelStream::has_v4l2_codecs() ? (height + 31) / 32 * 32 : height;
}

std::string entry(const std::string& input, const std::string& output, int width, int height)
{
    return file_entry(input, "H264",
                      R"(, "outputType": "mp4", "outputAddr": ")" + output + R"(", "width": )" + std::to_string(width) +
                          R"(, "height": )" + std::to_string(height));
}

/// A camera whose clock is set back by a minute once, and that sends three pictures under one time: the second comes
/// without any, the third with that of the first.
class WrongTimes : public LiveInput {
public:
    using LiveInput::LiveInput;
    GstElement* build() override
    {
        GstElement* bin = LiveInput::build();
        const Quorvis::VelStream::PadPtr pad(gst_element_get_static_pad(bin, "src"));
        gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, change_time, this, nullptr);
        return bin;
    }

private:
    static GstPadProbeReturn change_time(GstPad*, GstPadProbeInfo* info, gpointer self)
    {
        auto* buffer = gst_buffer_make_writable(static_cast<GstBuffer*>(info->data));
        info->data = buffer;
        static_cast<WrongTimes*>(self)->change(buffer);
        return GST_PAD_PROBE_OK;
    }

    void change(GstBuffer* buffer)
    {
        const int number = count_++;
        if (number % 3 == 0) time_ = GST_BUFFER_PTS(buffer) + (number < kFrames / 2 ? 60 * GST_SECOND : 0);
        GST_BUFFER_PTS(buffer) = number % 3 == 1 ? GST_CLOCK_TIME_NONE : time_;
        GST_BUFFER_DTS(buffer) = GST_BUFFER_DURATION(buffer) = GST_CLOCK_TIME_NONE;
    }

    int count_ = 0;
    GstClockTime time_ = 0;
};

media::MediaSpec video(int width, int height)
{
    media::MediaSpec spec;
    spec.width = width;
    spec.height = height;
    spec.frames = kFrames;
    return spec;
}

void expect_recording(const std::string& path, int width, int height)
{
    const VideoFacts facts = probe_video(path);
    EXPECT_EQ(facts.frames, kFrames);
    EXPECT_EQ(facts.width, width);
    EXPECT_EQ(facts.height, coded_height(height));
    EXPECT_NEAR(facts.seconds, 1.0, 0.05);
}

} // namespace

TEST_F(Mp4Output, HoldsEveryFrameOfTheInput)
{
    const std::string input = folder_.file("in.mp4");
    const std::string output = folder_.file("out.mp4");
    make_video(video(kWidth, kHeight), input);
    const ConfigFile config(entry(input, output, kWidth, kHeight));
    const Played played = play_to_end();
    EXPECT_EQ(played.result, result_of_end());
    EXPECT_EQ(played.numbers.size(), static_cast<std::size_t>(kFrames));
    expect_recording(output, kWidth, kHeight);

    const std::string before = decode_with_ffmpeg(input, kHeight);
    const std::string after = decode_with_ffmpeg(output, kHeight);
    const std::size_t stride = 3U * kWidth;
    const std::size_t in_size = stride * kHeight;
    const std::size_t out_size = stride * static_cast<std::size_t>(coded_height(kHeight));
    ASSERT_EQ(after.size(), out_size * kFrames);
    for (std::size_t k = 0; k < kFrames; ++k) {
        const auto* frame = reinterpret_cast<const std::uint8_t*>(&after[k * out_size]);
        EXPECT_EQ(media::read_frame_number(frame, kWidth, kHeight, stride), static_cast<int>(k));
        // Decoded, converted and encoded again at 2 Mbit/s.
        EXPECT_GE(psnr(frame, reinterpret_cast<const std::uint8_t*>(&before[k * in_size]), in_size), 28) << k;
    }
}

TEST_F(Mp4Output, Of720LinesIsPaddedWhereTheEncoderAsksForIt)
{
    const std::string input = folder_.file("in.mp4");
    const std::string output = folder_.file("out.mp4");
    make_video(video(1280, 720), input);
    const ConfigFile config(entry(input, output, 1280, 720));
    const Played played = play_to_end();
    EXPECT_EQ(played.result, result_of_end());
    expect_recording(output, 1280, 720);
}

TEST_F(Mp4Output, HoldsWhatTheCallbackPainted)
{
    const std::string input = folder_.file("in.mp4");
    const std::string output = folder_.file("out.mp4");
    make_video(video(kWidth, kHeight), input);
    const ConfigFile config(entry(input, output, kWidth, kHeight));
    StreamCall call(configured_stream("file"), [](const Image& image) {
        if (image.data) std::fill_n(image.data, image.size, std::uint8_t{200});
    });
    ASSERT_TRUE(call.wait_for_end());
    const std::string after = decode_with_ffmpeg(output, kHeight);
    ASSERT_FALSE(after.empty());
    const auto* pixel = reinterpret_cast<const std::uint8_t*>(&after[3U * kWidth * 100 + 300]);
    for (int channel = 0; channel < 3; ++channel)
        EXPECT_NEAR(pixel[channel], 200, 4);
}

TEST_F(Mp4Output, HoldsPicturesThatComeWithWrongTimes)
{
    const std::string output = folder_.file("out.mp4");
    WrongTimes input("live", {.frames = kFrames});
    Quorvis::VelStream::StreamOutputMp4sink sink(output, 320, 240);
    StreamCall call(
        [&](FrameCallback& callback) { return Quorvis::VelStream::startStream(&input, &sink, "live", callback); });
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.frames(), kFrames);
    EXPECT_EQ(probe_video(output).frames, kFrames);
}

TEST_F(Mp4Output, EndsTheCallAsTheRunnerDocuments)
{
    const std::string input = folder_.file("in.mp4");
    make_video(video(kWidth, kHeight), input);
    const ConfigFile config(entry(input, folder_.file("out.mp4"), kWidth, kHeight));
    EXPECT_EQ(play_to_end().result, result_of_end());
    if (!Quorvis::VelStream::has_v4l2_codecs()) {
        EXPECT_EQ(log_count("W End-Of-Stream reached. Saving mp4 file exit."), 1);
        EXPECT_EQ(log_count("E Pipeline failed after 5 attempts."), 1);
        EXPECT_EQ(log_count("I Starting pipeline, attempt 2 of 5"), 0);
    }
}

TEST_F(Mp4Output, ThatCannotBeWrittenEndsTheCallWithItsName)
{
    const std::string input = folder_.file("in.mp4");
    make_video(video(kWidth, kHeight), input);
    const ConfigFile config(entry(input, folder_.file("absent/out.mp4"), kWidth, kHeight));
    EXPECT_EQ(play_to_end().result, -1);
    const std::vector<std::string> lines = log_lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
        return line.rfind("E ", 0) == 0 && line.find("absent/out.mp4") != std::string::npos;
    }));
}

} // namespace velstream::testing
