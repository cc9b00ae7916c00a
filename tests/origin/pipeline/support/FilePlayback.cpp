#include "FilePlayback.h"

#include "Platform.h"

#include <algorithm>

namespace velstream::testing {

std::string file_entry(const std::string& path, const std::string& codec, const std::string& more)
{
    return one_stream("file",
                      R"("inputType": "file", "inputAddr": ")" + path + R"(", "decodeType": ")" + codec + "\"" + more);
}

int result_of_end()
{
    return Quorvis::VelStream::has_v4l2_codecs() ? 0 : -1;
}

namespace {

Image without_data(Image image)
{
    image.data = nullptr;
    return image;
}

std::size_t frame_bytes(const Image& image)
{
    return 3U * static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height);
}

void expect_record(const Image& image, std::size_t k, const media::MediaSpec& spec)
{
    EXPECT_EQ(image.streamId, "file");
    EXPECT_EQ(image.width, spec.width);
    EXPECT_EQ(image.height, spec.height);
    EXPECT_EQ(image.size, frame_bytes(image));
    EXPECT_EQ(image.format, 0);
    EXPECT_EQ(image.extra, "");
    EXPECT_EQ(image.frameIndex, static_cast<std::int64_t>(k + 1));
    if (!Quorvis::VelStream::has_v4l2_codecs()) return;
    EXPECT_EQ(image.alignedWidth, spec.width);
    EXPECT_EQ(image.alignedHeight, spec.height);
    char timestamp[32];
    std::snprintf(timestamp, sizeof timestamp, "0:00:%02zu.", k / static_cast<std::size_t>(spec.fps));
    EXPECT_EQ(image.timestamp.substr(0, 8), timestamp);
}

} // namespace

Played play_to_end()
{
    Played played;
    StreamCall call(configured_stream("file"), [&](const Image& image) {
        const std::size_t stride = 3U * static_cast<std::size_t>(image.width);
        played.numbers.push_back(media::read_frame_number(image.data, image.width, image.height, stride).value_or(-1));
        played.images.push_back(without_data(image));
    });
    EXPECT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.exception(), "");
    played.result = call.result().value_or(-100);
    return played;
}

void expect_frames_of(const media::MediaSpec& spec, const std::string& path)
{
    make_video(spec, path);
    const std::string reference = decode_with_ffmpeg(path, spec.height);
    const std::size_t size = 3U * static_cast<std::size_t>(spec.width) * static_cast<std::size_t>(spec.height);
    ASSERT_EQ(reference.size(), size * static_cast<std::size_t>(spec.frames));
    ASSERT_EQ(probe_video(path).frames, spec.frames);

    const ConfigFile config(file_entry(path, spec.codec == "h265" ? "H265" : "H264"));
    std::vector<Image> images;
    double worst = 100;
    StreamCall call(configured_stream("file"), [&](const Image& image) {
        const std::size_t k = images.size();
        images.push_back(without_data(image));
        if (image.size != size || (k + 1) * size > reference.size()) return;
        worst = std::min(worst, psnr(image.data, reinterpret_cast<const std::uint8_t*>(&reference[k * size]), size));
    });
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), result_of_end());
    ASSERT_EQ(images.size(), static_cast<std::size_t>(spec.frames));
    for (std::size_t k = 0; k < images.size(); ++k)
        expect_record(images[k], k, spec);
    EXPECT_GE(worst, 40) << "dB, the worst frame";
    ::testing::Test::RecordProperty("worst_psnr_db", std::to_string(worst));
}

} // namespace velstream::testing
