// What the tests of USB streams share: a camera that is plugged in, and calls that start its stream.
#pragma once

#include "ConfigFile.h"
#include "Elements.h"
#include "RecordedLog.h"
#include "StreamBuildUsb.h"
#include "StreamCall.h"
#include "fake_camera.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace velstream::testing {

inline const char* const kCamera = "/dev/velstream-camera";

struct Size {
    int width;
    int height;
};

void PrintTo(const Size& size, std::ostream* out);

/// A size as part of a test's name.
std::string name_of_size(const ::testing::TestParamInfo<Size>& test);

/// Rows of a multiple of 4 bytes, with two odd ones, and of high definition, all of which the usual camera offers.
const auto kSizes = ::testing::Values(Size{640, 480}, Size{642, 362}, Size{1280, 720});

/// As most cameras: raw frames first, JPEG in more sizes.
peers::camera::Spec usual_camera();

/// A camera of this one JPEG size.
peers::camera::Spec camera_of(int width, int height);

Quorvis::VelStream::StreamProperty usb_property(int width = 640, int height = 480, const std::string& device = kCamera);

/// Runs a camera's stream under this id, with this output or with none.
StreamCall::Start usb_stream(const std::string& id = "usb",
                             const Quorvis::VelStream::StreamProperty& property = usb_property(),
                             std::shared_ptr<Quorvis::VelStream::StreamOutput> output = nullptr);

/// The properties of an entry "usb" for the camera; `more` are further ones, each with a comma before it.
std::string usb_entry(int width, int height, const std::string& more = {});

/// The number in a frame's picture.
std::optional<int> number_in(const Image& image);

/// The numbers of the frames in a file, which ffmpeg decodes.
std::vector<int> numbers_in_file(const std::string& path, Size size);

/// The lines that come from the start call and the runner: the tap's are left out.
std::vector<std::string> runner_lines();

/// True when an error line holds this text.
bool has_error_with(const std::string& text);

/// Initialises GStreamer before the library does, and plugs a camera in.
class UsbStream : public WithGStreamer {
protected:
    void SetUp() override { peers::camera::plug_in(usual_camera()); }
    const ConfigFile config_{complete_stream("usb", "H264")};
};

} // namespace velstream::testing
