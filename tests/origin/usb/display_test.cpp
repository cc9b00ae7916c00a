// A camera's frames on a compositor's screen. Not for "v4l2", which names the compositor's folder itself.
#include "compositor.h"
#include "media.h"
#include "usb_stream.h"

#include <chrono>

namespace velstream::testing {

namespace {

/// The number of the frame on a screen of its size.
std::optional<int> shown_number(peers::Compositor& screen)
{
    const std::vector<std::uint8_t> pixels = screen.read_screen();
    if (pixels.empty()) return std::nullopt;
    const std::size_t stride = 3U * static_cast<std::size_t>(screen.width());
    return media::read_frame_number(pixels.data(), screen.width(), screen.height(), stride);
}

} // namespace

class UsbWindow : public UsbStream, public ::testing::WithParamInterface<Size> {};

INSTANTIATE_TEST_SUITE_P(Sizes, UsbWindow, kSizes, name_of_size);

TEST_P(UsbWindow, ShowsTheCamera)
{
    const auto [width, height] = GetParam();
    load_software_elements();
    peers::Compositor screen(width, height);
    ASSERT_TRUE(screen.is_ready());
    const ConfigFile config(usb_entry(width, height, R"(, "outputType": "wayland", "outputAddr": "")"));
    StreamCall call(configured_stream("usb"));
    ASSERT_TRUE(call.wait_for_frames(5));
    std::optional<int> shown;
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!shown && std::chrono::steady_clock::now() < end)
        shown = shown_number(screen);
    EXPECT_TRUE(shown);
    EXPECT_TRUE(stop_ends_call(call, "usb"));
    EXPECT_EQ(call.result(), 0);
}

} // namespace velstream::testing
