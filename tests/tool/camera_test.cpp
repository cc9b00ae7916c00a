// The tool with a USB camera, which exists in its process alone.
#include "tool_fixture.h"

namespace {

class CameraTool : public Tool {
protected:
    Output run_with_camera(const std::string& modes, const std::string& arguments)
    {
        write_clip(1, R"(,{"streamsId": "usb", "properties": {"inputType": "usbcam", "width": 642, "height": 362,
                          "inputAddr": "/dev/velstream-camera"}})");
        // The sanitizer's runtime library wants to be the first; it need not be.
        return run_command("VELSTREAM_CAMERA=/dev/velstream-camera=" + modes + " LD_PRELOAD=" + FAKE_CAMERA +
                           " ASAN_OPTIONS=verify_asan_link_order=0:$ASAN_OPTIONS " +
                           command(arguments + " --elements software") + " 2>" + (folder_ / "stderr").string());
    }
};

} // namespace

TEST_F(CameraTool, RunsACamera)
{
    const Output output = run_with_camera("YUYV:642x362,MJPG:642x362", "run usb --json --frames 10");
    EXPECT_EQ(output.status, 0);
    const Json::Value value = parse_json(output.text);
    EXPECT_EQ(value["frames"].asInt(), 10);
    EXPECT_EQ(value["width"].asInt(), 642);
    EXPECT_EQ(value["height"].asInt(), 362);
}

TEST_F(CameraTool, SaysThatACameraLacksTheSize)
{
    const Output output = run_with_camera("MJPG:640x480", "run usb --json --frames 10");
    EXPECT_EQ(output.status, 1);
    EXPECT_EQ(parse_json(output.text)["result"].asInt(), -1);
}
