#include "media.h"
#include "peer_handles.h"
#include "process.h"
#include "temporary_folder.h"

#include <gst/app/gstappsink.h>
#include <gst/video/video.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
using velstream::testing::TemporaryFolder;

/// Lines that ffprobe prints for these entries of a file's streams.
std::vector<std::string> probe(const std::string& path, const std::string& streams, const std::string& entries)
{
    peers::ChildProcess ffprobe({"ffprobe", "-v", "error", "-count_frames", "-select_streams", streams, "-show_entries",
                                 "stream=" + entries, "-of", "csv=p=0", path});
    std::vector<std::string> lines;
    while (std::optional<std::string> line = ffprobe.read_line())
        lines.push_back(*line);
    EXPECT_EQ(ffprobe.wait(), 0) << path;
    return lines;
}

/// Pulls decoded frames out of a pipeline whose appsink is named "frames" and reads their numbers.
class FrameReader {
public:
    explicit FrameReader(const std::string& source_and_decoder)
    {
        gst_init(nullptr, nullptr);
        GError* error = nullptr;
        pipeline_.reset(GST_ELEMENT(gst_object_ref_sink(gst_parse_launch(
            (source_and_decoder + " ! videoconvert ! video/x-raw,format=RGB ! appsink name=frames sync=false").c_str(),
            &error))));
        if (error) ADD_FAILURE() << peers::ErrorPtr(error)->message;
        sink_.reset(gst_bin_get_by_name(GST_BIN(pipeline_.get()), "frames"));
        gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);
    }
    ~FrameReader() { gst_element_set_state(pipeline_.get(), GST_STATE_NULL); }
    FrameReader(const FrameReader&) = delete;
    FrameReader& operator=(const FrameReader&) = delete;

    struct Frame {
        std::optional<int> number;
        GstClockTime pts;
    };

    /// @return nothing at the end of the stream, or when no frame comes for a long time.
    std::optional<Frame> next()
    {
        const peers::SamplePtr sample(
            gst_app_sink_try_pull_sample(GST_APP_SINK(sink_.get()), static_cast<GstClockTime>(30) * GST_SECOND));
        if (!sample) return std::nullopt;
        GstVideoInfo info;
        GstVideoFrame frame;
        GstBuffer* buffer = gst_sample_get_buffer(sample.get());
        if (!gst_video_info_from_caps(&info, gst_sample_get_caps(sample.get())) ||
            !gst_video_frame_map(&frame, &info, buffer, GST_MAP_READ))
            return std::nullopt;
        const auto* rgb = static_cast<const std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
        const auto stride = static_cast<std::size_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0));
        const auto number =
            media::read_frame_number(rgb, GST_VIDEO_INFO_WIDTH(&info), GST_VIDEO_INFO_HEIGHT(&info), stride);
        gst_video_frame_unmap(&frame);
        return Frame{number, GST_BUFFER_PTS(buffer)};
    }

    /// Skips what a decoder makes of the pictures before the first key frame.
    std::optional<int> next_number()
    {
        while (const std::optional<Frame> frame = next()) {
            if (frame->number) return frame->number;
        }
        return std::nullopt;
    }

    std::vector<int> numbers_to_the_end()
    {
        std::vector<int> numbers;
        while (const std::optional<Frame> frame = next())
            numbers.push_back(frame->number.value_or(-1));
        return numbers;
    }

private:
    peers::ElementPtr pipeline_;
    peers::ElementPtr sink_;
};

std::vector<int> numbers_below(int end)
{
    std::vector<int> numbers(static_cast<std::size_t>(end));
    for (int i = 0; i < end; ++i)
        numbers[static_cast<std::size_t>(i)] = i;
    return numbers;
}

std::string play_pipeline(const std::string& url, const std::string& codec, int protocols)
{
    return "rtspsrc location=" + url + " protocols=" + std::to_string(protocols) + " latency=200 ! rtp" + codec +
           "depay ! " + codec + "parse ! avdec_" + codec;
}

constexpr int kUdp = 1;
constexpr int kTcp = 4;

} // namespace

struct MediaCase {
    const char* name;
    const char* codec;
    int width;
    int height;
    int b_frames;
    const char* file;
    const char* colours;
};

/// Names the case in a test's listing.
void PrintTo(const MediaCase& media_case, std::ostream* stream)
{
    *stream << media_case.name;
}

class Media : public ::testing::TestWithParam<MediaCase> {};

TEST_P(Media, HasEachFrameOnceWithItsNumberAndItsColourMatrix)
{
    const MediaCase& c = GetParam();
    const TemporaryFolder folder;
    media::MediaSpec spec;
    spec.codec = c.codec;
    spec.width = c.width;
    spec.height = c.height;
    spec.b_frames = c.b_frames;
    spec.frames = 70;
    const std::string path = folder.file(c.file);
    ASSERT_EQ(media::make_media(spec, path), "");

    const std::string size = std::to_string(c.width) + "," + std::to_string(c.height);
    EXPECT_EQ(probe(path, "v", "width,height,color_space,nb_read_frames"),
              std::vector<std::string>{size + "," + c.colours + ",70"});
    const std::string codec = c.codec;
    const std::string demuxer = std::filesystem::path(path).extension() == ".mp4" ? " ! qtdemux" : "";
    FrameReader reader("filesrc location=" + path + demuxer + " ! " + codec + "parse ! avdec_" + codec);
    EXPECT_EQ(reader.numbers_to_the_end(), numbers_below(70));
}

INSTANTIATE_TEST_SUITE_P(Files, Media,
                         ::testing::Values(MediaCase{"H264In720Lines", "h264", 1280, 720, 2, "a.mp4", "bt709"},
                                           MediaCase{"H265", "h265", 640, 480, 2, "a.mp4", "smpte170m"},
                                           MediaCase{"H264Smallest", "h264", 320, 160, 0, "a.mp4", "smpte170m"},
                                           MediaCase{"H264RowsOfNoMultipleOfFour", "h264", 854, 480, 0, "a.mp4",
                                                     "smpte170m"},
                                           MediaCase{"H264ByteStream", "h264", 640, 360, 0, "a.h264", "smpte170m"},
                                           MediaCase{"H265ByteStream", "h265", 640, 360, 0, "a.h265", "smpte170m"}),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(MediaFile, BFramesAndKeyFramesAreAsAsked)
{
    const TemporaryFolder folder;
    media::MediaSpec spec;
    spec.width = 640;
    spec.height = 360;
    spec.frames = 60;
    spec.key_interval = 20;
    spec.b_frames = 2;
    ASSERT_EQ(media::make_media(spec, folder.file("b.mp4")), "");
    peers::ChildProcess ffprobe({"ffprobe", "-v", "error", "-select_streams", "v", "-show_entries", "frame=pict_type",
                                 "-of", "csv=p=0", folder.file("b.mp4")});
    std::string types;
    while (const std::optional<std::string> line = ffprobe.read_line())
        types += line->substr(0, 1);
    EXPECT_EQ(std::count(types.begin(), types.end(), 'I'), 3) << types;
    EXPECT_GT(std::count(types.begin(), types.end(), 'B'), 5) << types;
}

TEST(MediaFile, SoundAndSecondVideoTrackAreThere)
{
    const TemporaryFolder folder;
    media::MediaSpec spec;
    spec.width = 640;
    spec.height = 360;
    spec.frames = 30;
    spec.has_audio = true;
    spec.video_tracks = 2;
    ASSERT_EQ(media::make_media(spec, folder.file("a.mp4")), "");
    EXPECT_EQ(probe(folder.file("a.mp4"), "v", "codec_name,nb_read_frames"), (std::vector<std::string>(2, "h264,30")));
    EXPECT_EQ(probe(folder.file("a.mp4"), "a", "codec_name"), (std::vector<std::string>{"aac"}));
}

TEST(MediaFile, SoundAloneHasNoVideoTrack)
{
    const TemporaryFolder folder;
    media::MediaSpec spec;
    spec.has_video = false;
    spec.has_audio = true;
    spec.frames = 30;
    ASSERT_EQ(media::make_media(spec, folder.file("a.mp4")), "");
    EXPECT_TRUE(probe(folder.file("a.mp4"), "v", "codec_name").empty());
    EXPECT_EQ(probe(folder.file("a.mp4"), "a", "codec_name"), (std::vector<std::string>{"aac"}));
}

TEST(MediaFile, FileThatCannotBeWrittenIsSaid)
{
    media::MediaSpec spec;
    spec.frames = 3;
    EXPECT_NE(media::make_media(spec, "/nonexistent/a.mp4"), "");
}

TEST(Marker, PictureWithoutOneHasNoNumber)
{
    std::vector<std::uint8_t> rgb(640 * 360 * 3, 128);
    EXPECT_EQ(media::read_frame_number(rgb.data(), 640, 360, 640 * 3), std::nullopt);
    std::fill(rgb.begin(), rgb.end(), std::uint8_t{255});
    EXPECT_EQ(media::read_frame_number(rgb.data(), 640, 360, 640 * 3), std::nullopt);
}

struct PlayCase {
    const char* name;
    const char* codec;
    int protocols;
};

void PrintTo(const PlayCase& play_case, std::ostream* stream)
{
    *stream << play_case.name;
}

class RtspPlay : public ::testing::TestWithParam<PlayCase> {};

TEST_P(RtspPlay, FileIsLoopedWithTimeStampsThatGoOn)
{
    const TemporaryFolder folder;
    media::MediaSpec spec;
    spec.codec = GetParam().codec;
    spec.width = 640;
    spec.height = 360;
    spec.frames = 30;
    spec.key_interval = 30;
    spec.b_frames = 2;
    spec.has_audio = true;
    ASSERT_EQ(media::make_media(spec, folder.file("a.mp4")), "");
    const peers::RtspPeer server(RTSP_PEER, {"play", "--file", folder.file("a.mp4"), "--loop"});
    ASSERT_NE(server.port(), 0);

    FrameReader reader(play_pipeline(server.url(), spec.codec, GetParam().protocols));
    std::optional<FrameReader::Frame> last = reader.next();
    ASSERT_TRUE(last && last->number);
    for (int i = 0; i < 75; ++i) { // over two seams
        const std::optional<FrameReader::Frame> frame = reader.next();
        ASSERT_TRUE(frame && frame->number) << i;
        EXPECT_EQ(*frame->number, (*last->number + 1) % 30) << i;
        EXPECT_GE(frame->pts, last->pts) << i; // newer jitter buffers give early B pictures their neighbour's time
        last = frame;
    }
}

TEST_P(RtspPlay, CameraGoesOnForEachOfTwoClients)
{
    const std::string codec = GetParam().codec;
    const peers::RtspPeer server(RTSP_PEER, {"play", "--live", "--codec", codec, "--size", "640x360"});
    ASSERT_NE(server.port(), 0);
    FrameReader first(play_pipeline(server.url(), codec, GetParam().protocols));
    FrameReader second(play_pipeline(server.url(), codec, GetParam().protocols));
    for (FrameReader* reader : {&first, &second}) {
        std::optional<int> last = reader->next_number();
        ASSERT_TRUE(last);
        for (int i = 0; i < 30; ++i) {
            const std::optional<int> number = reader->next_number();
            ASSERT_TRUE(number) << i;
            EXPECT_EQ(*number, *last + 1) << i;
            last = number;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Clients, RtspPlay,
                         ::testing::Values(PlayCase{"H264OverTcp", "h264", kTcp}, PlayCase{"H264OverUdp", "h264", kUdp},
                                           PlayCase{"H265OverTcp", "h265", kTcp}),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(RtspPlayOnce, FileEndsTheStreamAfterItsLastFrame)
{
    const TemporaryFolder folder;
    media::MediaSpec spec;
    spec.width = 640;
    spec.height = 360;
    spec.frames = 40;
    ASSERT_EQ(media::make_media(spec, folder.file("a.mp4")), "");
    const peers::RtspPeer server(RTSP_PEER, {"play", "--file", folder.file("a.mp4")});
    ASSERT_NE(server.port(), 0);
    FrameReader reader(play_pipeline(server.url(), "h264", kTcp));
    EXPECT_EQ(reader.numbers_to_the_end(), numbers_below(40));
}

TEST(RtspPlayOnce, FileWithoutVideoIsRefused)
{
    const TemporaryFolder folder;
    std::ofstream(folder.file("a.mp4")) << "no media";
    peers::ChildProcess server({RTSP_PEER, "play", "--file", folder.file("a.mp4")});
    EXPECT_EQ(server.wait(), 1);
}

TEST(RtspRecord, WholeStreamIsInTheFileAtItsEnd)
{
    const TemporaryFolder folder;
    media::MediaSpec spec;
    spec.width = 640;
    spec.height = 360;
    spec.frames = 45;
    ASSERT_EQ(media::make_media(spec, folder.file("a.mp4")), "");
    peers::RtspPeer server(RTSP_PEER, {"record", "--out", folder.file("out.mp4")});
    ASSERT_NE(server.port(), 0);
    peers::ChildProcess client({"ffmpeg", "-v", "error", "-re", "-i", folder.file("a.mp4"), "-c", "copy", "-f", "rtsp",
                                "-rtsp_transport", "tcp", server.url()});
    EXPECT_EQ(server.read_until("eos").value_or(""), "eos frames=45");
    EXPECT_EQ(probe(folder.file("out.mp4"), "v", "codec_name,nb_read_frames"), (std::vector<std::string>{"h264,45"}));
    FrameReader reader("filesrc location=" + folder.file("out.mp4") + " ! qtdemux ! h264parse ! avdec_h264");
    EXPECT_EQ(reader.numbers_to_the_end(), numbers_below(45));
}

TEST(RtspRecord, ClientThatDiesIsSaidAndTheNextOneIsTaken)
{
    const TemporaryFolder folder;
    peers::RtspPeer server(RTSP_PEER, {"record", "--out", folder.file("out.mp4")});
    ASSERT_NE(server.port(), 0);
    const std::vector<std::string> push{"gst-launch-1.0",
                                        "-q",
                                        "videotestsrc",
                                        "is-live=true",
                                        "!",
                                        "x264enc",
                                        "tune=zerolatency",
                                        "!",
                                        "h264parse",
                                        "!",
                                        "rtspclientsink",
                                        "location=" + server.url(),
                                        "protocols=4"};
    peers::ChildProcess first(push);
    ASSERT_TRUE(server.read_until("record"));
    first.kill_now();
    EXPECT_TRUE(server.read_until("lost frames="));
    const peers::ChildProcess second(push);
    EXPECT_TRUE(server.read_until("record"));
}

TEST(Process, ExitCodeAndSignalAreTold)
{
    peers::ChildProcess failing({"sh", "-c", "exit 3"});
    EXPECT_EQ(failing.wait(), 3);
    peers::ChildProcess killed({"sleep", "600"});
    EXPECT_TRUE(killed.is_running());
    killed.kill_now();
    EXPECT_EQ(killed.wait(), 128 + SIGKILL);
    EXPECT_FALSE(killed.is_running());
    peers::ChildProcess missing({"/nonexistent/program"});
    EXPECT_EQ(missing.wait(), 127);
}

TEST(Process, LinesComeOneByOneAndTheBoundHolds)
{
    peers::ChildProcess child({"sh", "-c", "echo one; echo two; echo three; exec sleep 600"});
    EXPECT_EQ(child.read_line(), "one");
    EXPECT_EQ(child.read_until("th"), "three");
    EXPECT_EQ(child.read_line(50ms), std::nullopt);
    EXPECT_EQ(child.wait(50ms), std::nullopt);
}

TEST(Process, EndsWithItsObject)
{
    pid_t pid = 0;
    {
        const peers::ChildProcess child({"sleep", "600"});
        pid = child.pid();
    }
    EXPECT_EQ(kill(pid, 0), -1);
}

TEST(Process, EndsWithItsParent)
{
    // The shell is the server's parent here; once it is killed, the server's end of the pipe closes.
    peers::ChildProcess parent({"sh", "-c", RTSP_PEER " play --live & wait"});
    ASSERT_TRUE(parent.read_until("port="));
    parent.kill_now();
    EXPECT_EQ(parent.wait(), 128 + SIGKILL);
    EXPECT_EQ(parent.read_line(), std::nullopt);
    EXPECT_TRUE(parent.is_at_end());
}
