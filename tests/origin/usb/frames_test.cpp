// The frames of a camera, and cameras that are not there, not cameras, or go away.
#include "Command.h"
#include "StreamBuild.h"
#include "VideoFiles.h"
#include "usb_stream.h"

#include <fstream>
#include <mutex>

using namespace Quorvis::VelStream;

namespace velstream::testing {

namespace {

using Lines = std::vector<std::string>;

using UsbFrames = UsbStream;

/// A camera's JPEG as ffmpeg decodes it into packed RGB.
std::string decode_jpeg(const std::vector<std::uint8_t>& jpeg)
{
    const TemporaryFolder folder;
    const std::string path = folder.file("frame.jpg");
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(jpeg.data()), static_cast<std::streamsize>(jpeg.size()));
    return run_command({"ffmpeg", "-v", "error", "-i", path, "-vf", "scale=flags=bicubic+accurate_rnd+full_chroma_int",
                        "-pix_fmt", "rgb24", "-f", "rawvideo", "-"})
        .output;
}

void expect_failed_call(const StreamCall& call, const std::string& element)
{
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), -1);
    EXPECT_TRUE(has_error_with("Error received from element " + element + ": "));
    EXPECT_TRUE(has_error_with("Debugging information: "));
    EXPECT_EQ(log_count("I Registration pipeline for stream id: usb"), 1) << "nothing is retried";
    EXPECT_EQ(log_count("E Pipeline failed."), 1) << "nothing is retried";
    EXPECT_EQ(pipeline_map.at("usb"), nullptr);
}

} // namespace

class UsbPictures : public UsbStream, public ::testing::WithParamInterface<Size> {};

TEST_P(UsbPictures, AreThoseOfTheCameraInTightRows)
{
    const auto [width, height] = GetParam();
    peers::camera::plug_in(camera_of(width, height));
    std::mutex mutex;
    Image last;
    std::vector<std::uint8_t> pixels;
    StreamCall call(usb_stream("usb", usb_property(width, height)), [&](const Image& image) {
        const std::lock_guard lock(mutex);
        last = image;
        pixels.assign(image.data, image.data + image.size);
    });
    ASSERT_TRUE(call.wait_for_frames(5));
    ASSERT_TRUE(stop_ends_call(call, "usb"));

    EXPECT_EQ(last.width, width);
    EXPECT_EQ(last.height, height);
    EXPECT_EQ(last.streamId, "usb");
    ASSERT_EQ(pixels.size(), 3U * static_cast<std::size_t>(width * height)) << "a row is 3 bytes a pixel, no more";
    last.data = pixels.data();
    const std::optional<int> number = number_in(last);
    ASSERT_TRUE(number);
    const std::string expected = decode_jpeg(peers::camera::frame({.width = width, .height = height}, *number));
    ASSERT_EQ(expected.size(), pixels.size());
    EXPECT_GE(psnr(pixels.data(), reinterpret_cast<const std::uint8_t*>(expected.data()), pixels.size()), 30);
}

INSTANTIATE_TEST_SUITE_P(Sizes, UsbPictures,
                         ::testing::Values(Size{640, 480}, Size{642, 362}, Size{854, 480}, Size{1280, 720}),
                         name_of_size);

TEST_F(UsbFrames, ComeInOrderAndGoOnWithoutAnOutput)
{
    std::vector<int> numbers;
    std::vector<std::int64_t> indexes;
    {
        StreamCall call(usb_stream(), [&](const Image& image) {
            numbers.push_back(number_in(image).value_or(-1));
            indexes.push_back(image.frameIndex);
        });
        ASSERT_TRUE(call.wait_for_frames(45));
        EXPECT_TRUE(stop_ends_call(call, "usb"));
        EXPECT_EQ(call.result(), 0);
    }
    for (std::size_t k = 0; k < numbers.size(); ++k) {
        EXPECT_EQ(indexes[k], static_cast<std::int64_t>(k) + 1);
        // A machine that is busy may lose some.
        EXPECT_GT(numbers[k], k > 0 ? numbers[k - 1] : -1);
    }
}

TEST_F(UsbFrames, OfTheConfiguredSizeAreChosenFromWhatTheCameraOffers)
{
    const ConfigFile config(usb_entry(1280, 720));
    std::int32_t width = 0;
    StreamCall call(configured_stream("usb"), [&](const Image& image) { width = image.width; });
    ASSERT_TRUE(call.wait_for_frames(3));
    EXPECT_TRUE(stop_ends_call(call, "usb"));
    EXPECT_EQ(width, 1280);
}

TEST_F(UsbFrames, OfADescribedStreamComeWithoutAnEntry)
{
    StreamCall call([](FrameCallback& callback) {
        StreamIns ins;
        ins.streamsId = "described";
        ins.inputType = "usbcam";
        ins.inputAddr = kCamera;
        ins.width = 642;
        ins.height = 362;
        return start(ins, callback);
    });
    ASSERT_TRUE(call.wait_for_frames(3));
    EXPECT_TRUE(stop_ends_call(call, "described"));
    EXPECT_EQ(call.result(), 0);
}

TEST_F(UsbFrames, GoOnAfterAWarning)
{
    StreamCall call(usb_stream());
    ASSERT_TRUE(call.wait_for_frames(2));
    {
        const ElementPtr pipeline(GST_ELEMENT(gst_object_ref(pipeline_map.at("usb"))));
        GST_ELEMENT_WARNING(pipeline.get(), STREAM, FAILED, ("a warning"), (nullptr));
    }
    const std::int64_t frames = call.frames();
    EXPECT_TRUE(call.wait_for_frames(frames + 10));
    EXPECT_TRUE(stop_ends_call(call, "usb"));
}

TEST_F(UsbFrames, EndWithAnEndOfStream)
{
    StreamCall call(usb_stream());
    ASSERT_TRUE(call.wait_for_frames(2));
    handle_sigint(2);
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    EXPECT_EQ(log_lines().back(), "I Pipeline completed (EOS).");
    EXPECT_EQ(log_count("W Receiving EOS signal in message bus *****************"), 1);
}

// ---- Cameras that cannot

TEST_F(UsbFrames, OfASizeThatTheCameraLacksFail)
{
    StreamCall call(usb_stream("usb", usb_property(1920, 1080)));
    expect_failed_call(call, "queue_input_src");
    EXPECT_TRUE(has_error_with("not-negotiated"));
    EXPECT_EQ(call.frames(), 0);
}

TEST_F(UsbFrames, OfACameraWithoutJpegFail)
{
    peers::camera::Spec raw = camera_of(640, 480);
    raw.modes[0].format = peers::camera::Format::Yuyv;
    peers::camera::plug_in(raw);
    StreamCall call(usb_stream());
    expect_failed_call(call, "queue_input_src");
    EXPECT_EQ(call.frames(), 0);
}

TEST_F(UsbFrames, OfADeviceThatIsAbsentFailWithItsName)
{
    StreamCall call(usb_stream("usb", usb_property(640, 480, "/dev/velstream-absent")));
    expect_failed_call(call, "queue_input_src");
    EXPECT_TRUE(has_error_with("/dev/velstream-absent"));
}

TEST_F(UsbFrames, OfADeviceThatIsNoCameraFailWithItsName)
{
    for (const char* device : {"/dev/null", "/dev", "/etc/passwd"}) {
        SCOPED_TRACE(device);
        clear_log();
        StreamCall call(usb_stream("usb", usb_property(640, 480, device)));
        expect_failed_call(call, "queue_input_src");
        EXPECT_TRUE(has_error_with(std::string("'") + device + "'"));
    }
}

TEST_F(UsbFrames, OfACameraInUseFailAndTheFirstStreamGoesOn)
{
    StreamCall first(usb_stream("first"));
    ASSERT_TRUE(first.wait_for_frames(2));
    {
        StreamCall second(usb_stream());
        expect_failed_call(second, "queue_input_src");
    }
    const std::int64_t frames = first.frames();
    EXPECT_TRUE(first.wait_for_frames(frames + 5));
    EXPECT_TRUE(stop_ends_call(first, "first"));
    EXPECT_EQ(first.result(), 0);
}

TEST_F(UsbFrames, EndWithAFailureWhenTheCameraIsUnplugged)
{
    StreamCall call(usb_stream());
    ASSERT_TRUE(call.wait_for_frames(5));
    peers::camera::unplug();
    expect_failed_call(call, "queue_input_src");
    EXPECT_GE(call.frames(), 5);
}

TEST_F(UsbFrames, ComeAgainFromACameraThatIsPluggedInAgain)
{
    {
        StreamCall call(usb_stream());
        ASSERT_TRUE(call.wait_for_frames(2));
        peers::camera::unplug();
        ASSERT_TRUE(call.wait_for_end());
        EXPECT_EQ(call.result(), -1);
    }
    {
        StreamCall call(usb_stream());
        ASSERT_TRUE(call.wait_for_end()) << "it is still gone";
        EXPECT_EQ(call.result(), -1);
    }
    peers::camera::plug_in(usual_camera());
    StreamCall call(usb_stream());
    EXPECT_TRUE(call.wait_for_frames(2));
    EXPECT_TRUE(stop_ends_call(call, "usb"));
    EXPECT_EQ(call.result(), 0);
}

} // namespace velstream::testing
