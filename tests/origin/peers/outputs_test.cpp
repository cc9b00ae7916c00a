// The same stream into every output, judged by what receives it.
#include "FilePlayback.h"
#include "Platform.h"
#include "RecordedLog.h"
#include "StreamBuild.h"
#include "compositor.h"
#include "frame_numbers.h"
#include "rtmp_server.h"

#include <algorithm>
#include <atomic>
#include <filesystem>

namespace velstream::testing {

namespace {

using Quorvis::VelStream::start_stream_input_file;

constexpr int kFrames = 60;
constexpr int kWidth = 1280;
constexpr int kHeight = 720;

class Output : public Playback {
protected:
    std::string make() const
    {
        media::MediaSpec spec;
        spec.width = kWidth;
        spec.height = kHeight;
        spec.frames = kFrames;
        const std::string path = folder_.file("in.mp4");
        make_video(spec, path);
        return path;
    }

    static std::string output_entry(const std::string& input, const std::string& type, const std::string& address,
                                    const std::string& codec = "H264")
    {
        return file_entry(input, "H264",
                          R"(, "outputType": ")" + type + R"(", "outputAddr": ")" + address + R"(", "encodeType": ")" +
                              codec + R"(", "width": 1280, "height": 720)");
    }

    /// The encoders of V4L2 ask for rows in multiples of 32; the picture lies on top.
    static int coded_height() { return Quorvis::VelStream::has_v4l2_codecs() ? 736 : kHeight; }

    /// Holds the recorded pictures to those of the input, rows that were added left out.
    static void expect_pictures_of(const std::string& input, const std::string& output, int output_height,
                                   double least_psnr)
    {
        const std::string before = decode_with_ffmpeg(input, kHeight);
        const std::string after = decode_with_ffmpeg(output, output_height);
        const std::size_t size = std::size_t{3} * kWidth * kHeight;
        const std::size_t after_size = std::size_t{3} * kWidth * static_cast<std::size_t>(output_height);
        ASSERT_EQ(before.size(), kFrames * size);
        ASSERT_EQ(after.size(), kFrames * after_size);
        double worst = 100;
        for (std::size_t k = 0; k < kFrames; ++k)
            worst = std::min(worst, psnr(reinterpret_cast<const std::uint8_t*>(&before[k * size]),
                                         reinterpret_cast<const std::uint8_t*>(&after[k * after_size]), size));
        EXPECT_GE(worst, least_psnr) << "dB, the worst frame";
        RecordProperty("worst_psnr_db", std::to_string(worst));
        std::printf("worst frame: %.1f dB\n", worst);
    }

    /// Pushes the file to a recorder and looks at what it wrote.
    void expect_recorded_push(const std::string& codec)
    {
        const std::string input = make();
        const std::string recorded = folder_.file("recorded.mp4");
        peers::RtspPeer recorder(RTSP_PEER, {"record", "--out", recorded});
        ASSERT_NE(recorder.port(), 0);
        const ConfigFile config(output_entry(input, "rtsp", recorder.tcp_url(), codec));
        const Played played = play_to_end();
        EXPECT_EQ(played.result, result_of_end());
        EXPECT_EQ(played.numbers, numbers_below(kFrames));
        EXPECT_EQ(recorder.read_until("eos "), "eos frames=" + std::to_string(kFrames));
        EXPECT_EQ(numbers_in_file(recorded), numbers_below(kFrames));
        expect_pictures_of(input, recorded, kHeight, 25);
    }
};

} // namespace

TEST_F(Output, RtspRecorderHasEveryFrame)
{
    expect_recorded_push("H264");
}

TEST_F(Output, RtspRecorderHasEveryFrameInH265)
{
    expect_recorded_push("H265");
}

TEST_F(Output, Mp4FileHasEveryFrame)
{
    const std::string input = make();
    const std::string output = folder_.file("out.mp4");
    const ConfigFile config(output_entry(input, "mp4", output));
    const Played played = play_to_end();
    EXPECT_EQ(played.result, result_of_end());
    const VideoFacts facts = probe_video(output);
    EXPECT_EQ(facts.width, kWidth);
    EXPECT_EQ(facts.height, coded_height());
    EXPECT_EQ(numbers_in_file(output), numbers_below(kFrames));
    expect_pictures_of(input, output, coded_height(), 25);
}

TEST_F(Output, RtmpServerHasEveryFrame)
{
    const std::string input = make();
    peers::RtmpServer server;
    ASSERT_NE(server.port(), 0);
    const ConfigFile config(file_entry(input));
    Quorvis::VelStream::StreamInputFile in(input, "file");
    Quorvis::VelStream::StreamOutputRtmpsink out(server.url()); // no configuration names it
    out.set_stream_id("file");
    FrameNumbers numbers;
    StreamCall call(
        [&](FrameCallback& callback) { return Quorvis::VelStream::startStream(&in, &out, "file", callback); },
        numbers.taker());
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(numbers.all().size(), static_cast<std::size_t>(kFrames));
    const std::string recorded = server.take_recording();
    EXPECT_EQ(numbers_in_file(recorded), numbers_below(kFrames));
    expect_pictures_of(input, recorded, kHeight, 25);
}

namespace {

class Display : public Output {
protected:
    struct Picture {
        int width = 0;
        int height = 0;
        std::string rgb;
    };

    static Picture read_picture(const std::string& path, const std::string& filter)
    {
        Picture picture;
        const VideoFacts facts = probe_video(path);
        picture.width = facts.width;
        picture.height = facts.height;
        std::vector<std::string> command{"ffmpeg", "-v", "error", "-i", path};
        command.insert(command.end(), {"-vf", filter});
        command.insert(command.end(), {"-pix_fmt", "rgb24", "-f", "rawvideo", "-"});
        picture.rgb = run_command(command).output;
        return picture;
    }

    /// Numbers of the frame that the callback has had last.
    struct Seen {
        std::atomic<int> number{-1};
        StreamCall::OnFrame taker()
        {
            return [this](const Image& image) {
                number = media::read_frame_number(image.data, image.width, image.height, 3U * image.width).value_or(-1);
            };
        }
    };

    /// Shows a video in a window of this size, which lies at the top left of a screen of the video's size, and reads
    /// the frames' numbers in pictures of the screen until two of them differ: it moves.
    void expect_shown(int video_width, int video_height, int width, int height)
    {
        media::MediaSpec spec;
        spec.width = video_width;
        spec.height = video_height;
        spec.fps = 10;
        spec.frames = 900; // a minute and a half: the sink shows them at their time
        const std::string input = folder_.file("in.mp4");
        make_video(spec, input);
        const int shown_width = width ? width : video_width;
        const int shown_height = height ? height : video_height;
        peers::Compositor screen(video_width, video_height);
        ASSERT_TRUE(screen.is_ready());
        const ConfigFile config(file_entry(input));
        Seen seen;
        StreamCall call(
            [&](FrameCallback& callback) {
                return start_stream_input_file(input, callback, Quorvis::VelStream::STREAM_TYPE_WAYLAND, "", width,
                                               height, "file");
            },
            seen.taker());
        ASSERT_TRUE(call.wait_for_frames(10));
        const std::string window = "crop=" + std::to_string(shown_width) + ":" + std::to_string(shown_height) +
                                   ":0:0,scale=" + std::to_string(video_width) + ":" + std::to_string(video_height);
        std::vector<int> shown;
        // A new window is faded in, so the first pictures may have no number to be read.
        while (shown.size() < 2 && !call.has_ended()) {
            const std::string path = screen.take_picture();
            const int latest = seen.number;
            const Picture picture = read_picture(path, window);
            ASSERT_EQ(picture.width, video_width);
            ASSERT_EQ(picture.height, video_height);
            const auto* rgb = reinterpret_cast<const std::uint8_t*>(picture.rgb.data());
            ASSERT_EQ(picture.rgb.size(), std::size_t{3} * video_width * video_height);
            const auto number = media::read_frame_number(rgb, video_width, video_height, 3U * video_width);
            if (const char* keep = std::getenv("VELSTREAM_KEEP_PICTURES"))
                std::filesystem::copy_file(path, std::string(keep) + "/shown.png",
                                           std::filesystem::copy_options::overwrite_existing);
            if (!number || (!shown.empty() && shown.back() == *number)) continue;
            EXPECT_LE(*number, latest) << "shown before the callback had it";
            shown.push_back(*number);
        }
        EXPECT_TRUE(are_rising(shown));
        EXPECT_EQ(shown.size(), 2U) << "the screen shows no moving picture";
        EXPECT_TRUE(stop_ends_call(call, "file"));
    }
};

} // namespace

TEST_F(Display, ShowsTheFramesInTheirOwnSizeForNone)
{
    expect_shown(640, 360, 0, 0);
}

TEST_F(Display, ShowsTheFramesInAWindowOfTheGivenSize)
{
    expect_shown(1280, 720, 640, 360);
}

} // namespace velstream::testing
