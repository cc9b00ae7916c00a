#include "usb_stream.h"

#include "VideoFiles.h"
#include "media.h"

#include <algorithm>

namespace velstream::testing {

using peers::camera::Format;
using peers::camera::Spec;
using Quorvis::VelStream::StreamOutput;
using Quorvis::VelStream::StreamProperty;

void PrintTo(const Size& size, std::ostream* out)
{
    *out << size.width << "x" << size.height;
}

std::string name_of_size(const ::testing::TestParamInfo<Size>& test)
{
    return std::to_string(test.param.width) + "x" + std::to_string(test.param.height);
}

Spec usual_camera()
{
    Spec spec = camera_of(640, 480);
    spec.modes.insert(spec.modes.begin(), {Format::Yuyv, 640, 480});
    spec.modes.push_back({Format::Jpeg, 642, 362});
    spec.modes.push_back({Format::Jpeg, 1280, 720});
    return spec;
}

Spec camera_of(int width, int height)
{
    Spec spec;
    spec.path = kCamera;
    spec.modes = {{Format::Jpeg, width, height}};
    return spec;
}

StreamProperty usb_property(int width, int height, const std::string& device)
{
    StreamProperty property;
    property.inputAddr = device;
    property.width = width;
    property.height = height;
    return property;
}

StreamCall::Start usb_stream(const std::string& id, const StreamProperty& property,
                             std::shared_ptr<StreamOutput> output)
{
    if (output) output->set_stream_id(id);
    return [id, property, output](FrameCallback& callback) {
        return Quorvis::VelStream::startUsbStream(property, output.get(), id, callback);
    };
}

std::string usb_entry(int width, int height, const std::string& more)
{
    return one_stream("usb", R"("inputType": "usbcam", "inputAddr": ")" + std::string(kCamera) + R"(", "width": )" +
                                 std::to_string(width) + R"(, "height": )" + std::to_string(height) + more);
}

std::optional<int> number_in(const Image& image)
{
    return media::read_frame_number(image.data, image.width, image.height, 3U * static_cast<unsigned>(image.width));
}

std::vector<int> numbers_in_file(const std::string& path, Size size)
{
    const std::string frames = decode_with_ffmpeg(path, size.height);
    const std::size_t stride = 3U * static_cast<std::size_t>(size.width);
    // Some platforms' files have rows below the picture.
    const std::size_t bytes = stride * static_cast<std::size_t>(probe_video(path).height);
    EXPECT_EQ(frames.size() % bytes, 0U);
    std::vector<int> numbers;
    for (std::size_t offset = 0; offset + bytes <= frames.size(); offset += bytes) {
        const auto* frame = reinterpret_cast<const std::uint8_t*>(&frames[offset]);
        numbers.push_back(media::read_frame_number(frame, size.width, size.height, stride).value_or(-1));
    }
    return numbers;
}

std::vector<std::string> runner_lines()
{
    std::vector<std::string> kept;
    for (const std::string& line : log_lines()) {
        bool is_the_taps = false;
        for (const char* start : {"I callback on_buffer", "I Get width", "I Caps: ", "I caps_str", "I Callback",
                                  "I To calculate", "I FPS", "I Complete to"})
            is_the_taps = is_the_taps || line.rfind(start, 0) == 0;
        if (!is_the_taps) kept.push_back(line);
    }
    return kept;
}

bool has_error_with(const std::string& text)
{
    const std::vector<std::string> lines = log_lines();
    return std::any_of(lines.begin(), lines.end(), [&text](const std::string& line) {
        return line.rfind("E ", 0) == 0 && line.find(text) != std::string::npos;
    });
}

} // namespace velstream::testing
