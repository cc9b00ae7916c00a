// What the tool makes of frames that only a device delivers: rows with padding behind them.
#include "drawing.h"
#include "snapshots.h"
#include "tool_fixture.h"

#include <fstream>
#include <vector>

namespace {

using Quorvis::VelStream::Image;
using velstream::tool::Drawing;
using velstream::tool::Snapshots;

constexpr int kWidth = 50;
constexpr int kHeight = 40;
constexpr int kAlignedWidth = 64;

/// Each pixel tells its place; the padding is of a value that no pixel has.
std::vector<uint8_t> padded_frame()
{
    std::vector<uint8_t> bytes(kAlignedWidth * kHeight * 3, 0xEE);
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            uint8_t* pixel = &bytes[static_cast<std::size_t>((y * kAlignedWidth + x) * 3)];
            pixel[0] = static_cast<uint8_t>(x);
            pixel[1] = static_cast<uint8_t>(y);
            pixel[2] = 7;
        }
    }
    return bytes;
}

Image image_of(std::vector<uint8_t>& bytes)
{
    Image image;
    image.data = bytes.data();
    image.size = bytes.size();
    image.width = kWidth;
    image.height = kHeight;
    image.alignedWidth = kAlignedWidth;
    image.alignedHeight = kHeight;
    return image;
}

class PaddedFrame : public Tool {};

} // namespace

TEST_F(PaddedFrame, IsNotShearedInASnapshot)
{
    std::vector<uint8_t> bytes = padded_frame();
    Snapshots(folder_, "camera").offer(image_of(bytes), 1);
    const std::string rgb =
        run_command("ffmpeg -v error -i " + (folder_ / "camera-000001.png").string() + " -pix_fmt rgb24 -f rawvideo -")
            .text;
    ASSERT_EQ(rgb.size(), static_cast<std::size_t>(kWidth * kHeight * 3));
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            const char* pixel = &rgb[static_cast<std::size_t>((y * kWidth + x) * 3)];
            ASSERT_EQ(std::string(pixel, 3), (std::string{static_cast<char>(x), static_cast<char>(y), 7}))
                << x << ", " << y;
        }
    }
}

TEST_F(PaddedFrame, HasItsPictureWhereItsRowsAre)
{
    const std::string path = (folder_ / "logo.png").string();
    ASSERT_EQ(
        run_command("ffmpeg -v error -f lavfi -i color=0x00a000:s=10x30:d=1,format=rgb24 -frames:v 1 " + path).status,
        0);
    std::vector<uint8_t> bytes = padded_frame();
    const std::vector<uint8_t> before = bytes;
    Drawing({.has_time = false, .picture = path}, false).draw(image_of(bytes));
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kAlignedWidth; ++x) {
            const auto at = static_cast<std::size_t>((y * kAlignedWidth + x) * 3);
            const bool is_drawn = x < 10 && y < 30;
            ASSERT_EQ(bytes[at], is_drawn ? 0 : before[at]) << x << ", " << y;
            ASSERT_NEAR(bytes[at + 1], is_drawn ? 160 : before[at + 1], is_drawn ? 2 : 0) << x << ", " << y;
        }
    }
}

TEST_F(PaddedFrame, ThatIsShorterThanItsRowsIsLeftAlone)
{
    std::vector<uint8_t> bytes = padded_frame();
    const std::vector<uint8_t> before = bytes;
    Image image = image_of(bytes);
    image.size -= 1;
    Drawing({.has_time = true, .picture = {}}, true).draw(image);
    EXPECT_EQ(bytes, before);
    Snapshots(folder_, "camera").offer(image, 1);
    EXPECT_FALSE(std::filesystem::exists(folder_ / "camera-000001.png"));
}
