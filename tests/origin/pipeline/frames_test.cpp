// The way of a frame through each platform's chain.
#include "FilePlayback.h"
#include "RecordedLog.h"

#include <algorithm>

namespace velstream::testing {

namespace {

using FileStream = Playback;

constexpr int kFrames = 24;

media::MediaSpec small_video()
{
    media::MediaSpec spec;
    spec.width = 322;
    spec.height = 182;
    spec.frames = kFrames;
    spec.b_frames = 2;
    return spec;
}

} // namespace

TEST_F(FileStream, H264FramesAreThoseThatFfmpegDecodes)
{
    expect_frames_of(small_video(), folder_.file("video.mp4"));
}

TEST_F(FileStream, H265FramesAreThoseThatFfmpegDecodes)
{
    media::MediaSpec spec = small_video();
    spec.codec = "h265";
    expect_frames_of(spec, folder_.file("video.mp4"));
}

TEST_F(FileStream, FramesComeInOrderOnceEach)
{
    const std::string path = folder_.file("video.mp4");
    make_video(small_video(), path);
    const ConfigFile config(file_entry(path));
    const Played played = play_to_end();
    EXPECT_EQ(played.result, result_of_end());
    ASSERT_EQ(played.numbers.size(), static_cast<std::size_t>(kFrames));
    for (int k = 0; k < kFrames; ++k)
        EXPECT_EQ(played.numbers[static_cast<std::size_t>(k)], k);
}

TEST_F(FileStream, ACallbackMayPaintIntoTheFrame)
{
    const std::string path = folder_.file("video.mp4");
    make_video(small_video(), path);
    const ConfigFile config(file_entry(path));
    StreamCall call(configured_stream("file"), [](const Image& image) {
        if (image.data) std::fill_n(image.data, image.size, std::uint8_t{0});
    });
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.frames(), kFrames);
}

TEST_F(FileStream, ACallbackThatThrowsDoesNotEndTheStream)
{
    const std::string path = folder_.file("video.mp4");
    make_video(small_video(), path);
    const ConfigFile config(file_entry(path));
    int calls = 0;
    StreamCall call(configured_stream("file"), [&](const Image&) {
        ++calls;
        throw std::runtime_error("the application's own");
    });
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), result_of_end());
    EXPECT_EQ(calls, kFrames);
    EXPECT_EQ(log_count("E Frame callback of stream file raised an exception: the application's own"), kFrames);
}

TEST_F(FileStream, AudioBesideTheVideoIsIgnored)
{
    media::MediaSpec spec = small_video();
    spec.has_audio = true;
    const std::string path = folder_.file("video.mp4");
    make_video(spec, path);
    const ConfigFile config(file_entry(path));
    const Played played = play_to_end();
    EXPECT_EQ(played.result, result_of_end());
    EXPECT_EQ(played.numbers.size(), static_cast<std::size_t>(kFrames));
}

TEST_F(FileStream, OfTwoVideoTracksOneIsPlayed)
{
    media::MediaSpec spec = small_video();
    spec.video_tracks = 2;
    const std::string path = folder_.file("video.mp4");
    make_video(spec, path);
    const ConfigFile config(file_entry(path));
    const Played played = play_to_end();
    EXPECT_EQ(played.result, result_of_end());
    ASSERT_EQ(played.numbers.size(), static_cast<std::size_t>(kFrames));
    for (int k = 0; k < kFrames; ++k)
        EXPECT_EQ(played.numbers[static_cast<std::size_t>(k)], k);
}

} // namespace velstream::testing
