// Where a camera's frames go beside the callback.
#include "Platform.h"
#include "StreamBuild.h"
#include "VideoFiles.h"
#include "usb_stream.h"

#include <future>

using namespace Quorvis::VelStream;

namespace velstream::testing {

namespace {

constexpr Size kUsual{640, 480};

using UsbOutput = UsbStream;

std::string entry_with(const std::string& type, const std::string& address, Size size = kUsual)
{
    return usb_entry(size.width, size.height, R"(, "outputType": ")" + type + R"(", "outputAddr": ")" + address + "\"");
}

} // namespace

class UsbFile : public UsbStream, public ::testing::WithParamInterface<Size> {};

INSTANTIATE_TEST_SUITE_P(Sizes, UsbFile, kSizes, name_of_size);

TEST_P(UsbFile, HoldsTheFramesThatTheCallbackGot)
{
    const Size size = GetParam();
    const TemporaryFolder folder;
    const std::string path = folder.file("usb.mp4");
    const ConfigFile config(entry_with("mp4", path, size));
    std::vector<int> numbers;
    {
        StreamCall call(configured_stream("usb"),
                        [&](const Image& image) { numbers.push_back(number_in(image).value_or(-1)); });
        ASSERT_TRUE(call.wait_for_frames(30));
        ASSERT_TRUE(stop_ends_call(call, "usb"));
        EXPECT_EQ(call.result(), 0);
    }
    const VideoFacts facts = probe_video(path);
    EXPECT_EQ(facts.width, size.width);
    EXPECT_GE(facts.height, size.height) << "an encoder may want more rows";
    EXPECT_EQ(numbers_in_file(path, size), numbers);
}

TEST_F(UsbOutput, Mp4IsCompleteWhenTheCameraIsUnplugged)
{
    const TemporaryFolder folder;
    const std::string path = folder.file("usb.mp4");
    const ConfigFile config(entry_with("mp4", path));
    std::vector<int> numbers;
    {
        StreamCall call(configured_stream("usb"),
                        [&](const Image& image) { numbers.push_back(number_in(image).value_or(-1)); });
        ASSERT_TRUE(call.wait_for_frames(10));
        peers::camera::unplug();
        ASSERT_TRUE(call.wait_for_end());
        EXPECT_EQ(call.result(), -1);
        EXPECT_EQ(log_lines().back(), "E Pipeline failed.");
    }
    EXPECT_EQ(numbers_in_file(path, kUsual), numbers);
}

TEST_F(UsbOutput, DisplaysWindowHasTheStreamsSize)
{
    const ElementStandIn sink("waylandsink", window_sink_type());
    const ConfigFile config(entry_with("wayland", ""));
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
    StreamCall call(configured_stream("usb"), [opened](const Image& image) {
        if (image.frameIndex == 2) opened.wait();
    });
    ASSERT_TRUE(call.wait_for_frames(1));
    {
        const ElementPtr pipeline(GST_ELEMENT(gst_object_ref(pipeline_map.at("usb"))));
        const ElementPtr display = child(pipeline.get(), "velstream-output-waylandsink");
        ASSERT_TRUE(display);
        const ElementPtr window = only_child(display.get());
        ASSERT_TRUE(window);
        EXPECT_EQ(number_of(window.get(), "x"), 0);
        EXPECT_EQ(number_of(window.get(), "y"), 0);
        EXPECT_EQ(number_of(window.get(), "width"), kUsual.width);
        EXPECT_EQ(number_of(window.get(), "height"), kUsual.height);
    }
    gate.set_value();
    EXPECT_TRUE(stop_ends_call(call, "usb"));
}

TEST_F(UsbOutput, DisplayWithoutACompositorEndsTheCall)
{
    load_software_elements();
    const TemporaryFolder empty;
    setenv("XDG_RUNTIME_DIR", empty.file("").c_str(), 1);
    const ConfigFile config(entry_with("wayland", ""));
    StreamCall call(configured_stream("usb"));
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), -1);
    EXPECT_EQ(log_lines().back(), "E Pipeline failed.");
}

} // namespace velstream::testing
