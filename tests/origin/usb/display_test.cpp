// A camera's frames on a compositor's screen. Not for "v4l2", which names the compositor's folder itself.
#include "compositor.h"
#include "media.h"
#include "usb_stream.h"

#include <chrono>

namespace velstream::testing {

namespace {

/// The number of the frame on a screen of its size: at the left edge, below the compositor's panel where it has one.
std::optional<int> shown_number(const peers::Compositor& screen)
{
    constexpr int kTallestPanel = 64;
    const std::vector<std::uint8_t> pixels = screen.picture();
    const std::size_t stride = 3U * static_cast<std::size_t>(screen.width());
    for (int top = 0; !pixels.empty() && top <= kTallestPanel; ++top) {
        const std::uint8_t* row = pixels.data() + static_cast<std::size_t>(top) * stride;
        if (const auto number = media::read_frame_number(row, screen.width(), screen.height() - top, stride))
            return number;
    }
    return std::nullopt;
}

} // namespace

TEST_F(UsbStream, IsShownOnTheDisplay)
{
    load_software_elements();
    const peers::Compositor screen(640, 480);
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (screen.picture().empty())
        ASSERT_LT(std::chrono::steady_clock::now(), end) << "no compositor";

    const ConfigFile config(usb_entry(640, 480, R"(, "outputType": "wayland", "outputAddr": "")"));
    StreamCall call(configured_stream("usb"));
    ASSERT_TRUE(call.wait_for_frames(5));
    // The compositor fades a new window in.
    std::optional<int> shown;
    while (!shown && std::chrono::steady_clock::now() < end)
        shown = shown_number(screen);
    EXPECT_TRUE(shown);
    EXPECT_TRUE(stop_ends_call(call, "usb"));
    EXPECT_EQ(call.result(), 0);
}

} // namespace velstream::testing
