#include "usb_stream.h"

#include "media.h"

#include <algorithm>

namespace velstream::testing {

using peers::camera::Format;
using peers::camera::Spec;
using Quorvis::VelStream::StreamOutput;
using Quorvis::VelStream::StreamProperty;

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
