// A camera's frames pushed to an RTSP server.
#include "VideoFiles.h"
#include "process.h"
#include "usb_stream.h"

namespace velstream::testing {

class UsbPush : public UsbStream, public ::testing::WithParamInterface<Size> {};

INSTANTIATE_TEST_SUITE_P(Sizes, UsbPush, kSizes, name_of_size);

TEST_P(UsbPush, ArrivesInOrder)
{
    const Size size = GetParam();
    const TemporaryFolder folder;
    const std::string path = folder.file("pushed.mp4");
    peers::RtspPeer server(RTSP_PEER, {"record", "--out", path});
    ASSERT_NE(server.port(), 0);
    const ConfigFile config(
        usb_entry(size.width, size.height, R"(, "outputType": "rtsp", "outputAddr": ")" + server.url() + "\""));
    StreamCall call(configured_stream("usb"));
    ASSERT_TRUE(server.read_until("record", kPatience));
    ASSERT_TRUE(call.wait_for_frames(call.frames() + 30));
    ASSERT_TRUE(stop_ends_call(call, "usb"));
    EXPECT_EQ(call.result(), 0);

    ASSERT_TRUE(server.read_until("eos frames="));
    const std::vector<int> numbers = numbers_in_file(path, size);
    EXPECT_GE(numbers.size(), 15U);
    for (std::size_t k = 0; k < numbers.size(); ++k)
        EXPECT_GT(numbers[k], k > 0 ? numbers[k - 1] : -1);
}

TEST_F(UsbStream, PushedToAServerThatIsAbsentFails)
{
    const ConfigFile config(usb_entry(640, 480, R"(, "outputType": "rtsp", "outputAddr": "rtsp://127.0.0.1:1/test")"));
    StreamCall call(configured_stream("usb"));
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), -1);
    EXPECT_EQ(log_lines().back(), "E Pipeline failed.");
}

} // namespace velstream::testing
