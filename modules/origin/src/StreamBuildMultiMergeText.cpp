#include "StreamBuildMultiMerge.h"

#include "Log.h"

#include <algorithm>

using Quorvis::VelStream::InputStreamProperty;
using Quorvis::VelStream::OutputStreamProperty;
using Quorvis::VelStream::StreamProperty;

// The blanks of the pieces, doubled ones included, are as they are on purpose.

namespace {

constexpr std::size_t kCameras = 4;
constexpr const char* kPushOptions =
    "  tcp-timeout=5000000 do-rtsp-keep-alive=true async-handling=false timeout=5000000 ";

std::size_t camera_count(const StreamProperty& prop)
{
    return std::min(prop.inputs.size(), kCameras);
}

struct CodecPieces {
    const char* depay;
    const char* parse;
};

CodecPieces codec_pieces(const StreamProperty& prop)
{
    if (!prop.inputs.empty() && prop.inputs[0].decodeType == "H265")
        return {" rtph265depay ! h265parse ", " ! queue ! h265parse "};
    return {" rtph264depay ! h264parse ", " ! queue ! h264parse  "};
}

/// The outputs that are written and pushed: the last of each kind.
struct Outputs {
    OutputStreamProperty file;
    OutputStreamProperty push;
};

Outputs choose_outputs(const StreamProperty& prop)
{
    Outputs outputs;
    for (const OutputStreamProperty& output : prop.outputs) {
        VEL_LOG_INFO("Output type: %s", output.outputType.c_str());
        (output.outputType == "File" ? outputs.file : outputs.push) = output;
    }
    if (outputs.file.outputAddr.empty())
        VEL_LOG_WARN("Output file address is empty. Please check filling outputType value.");
    return outputs;
}

int round_to_even(int value)
{
    return value / 2 * 2;
}

/// @param number  of the names: 1 or 2.
std::string overlay(int number, const OutputStreamProperty& values)
{
    const auto text = [](int value) { return std::to_string(value); };
    return R"( ! qtivoverlay images="{(structure)\"Image)" + text(number) + ",path=" + values.logoPath +
           ",resolution=<" + text(values.logoWidth) + "," + text(values.logoHeight) + ">" + ",destination=<" +
           text(values.logoLocX) + "," + text(values.logoLocY) + "," + text(values.logoLocWidth) + "," +
           text(values.logoLocHeight) + R"(>;\"}" strings="{(structure)\"text)" + text(number) + R"(,contents=\\\")" +
           values.textStr + R"(\\\")" + ",fontsize=" + text(values.textFontSize) + ",position=<" +
           text(values.textLocX) + "," + text(values.textLocY) + ">" + ",color=" + values.textColor + R"(;\"}" )";
}

std::string composer(const StreamProperty& prop)
{
    std::string text = "qtivcomposer name=mixer engine=2 ";
    for (std::size_t i = 0; i < camera_count(prop); ++i) {
        const InputStreamProperty& input = prop.inputs[i];
        const std::string pad = "sink_" + std::to_string(i);
        text += pad + "::position=\"" + input.position + "\"  " + pad + "::dimensions=\"" + input.dimensions + "\" " +
                build_sink_properties(prop, static_cast<int>(i)) + " ";
    }
    return text;
}

std::string canvas(const StreamProperty& prop)
{
    const InputStreamProperty first = prop.inputs.empty() ? InputStreamProperty() : prop.inputs[0];
    return " ! video/x-raw(memory:GBM),format=NV12,width=" + std::to_string(round_to_even(first.width)) +
           ",height=" + std::to_string(round_to_even(first.height)) +
           " ! qtivtransform engine=2 name=qtiv_main_transform  ! queue ";
}

std::string plain_recording(const std::string& parse, const Outputs& outputs)
{
    return "! qtic2venc target-bitrate=2000000 " + parse +
           " ! mp4mux name=mp4mux_0 faststart=true fragment-duration=1000 ! filesink location=" +
           outputs.file.outputAddr + " sync=false ";
}

std::string recording(const std::string& parse, const Outputs& outputs)
{
    return " split. ! queue name=save_queue leaky=2 max-size-buffers=1 ! qtivcomposer name=mixer1  " +
           overlay(1, outputs.file) + " ! qtic2venc  " + parse +
           " ! mp4mux name=mp4mux_0  ! filesink location=" + outputs.file.outputAddr + " sync=false async=false ";
}

std::string recording_and_push(const std::string& parse, const Outputs& outputs)
{
    return " split. ! queue ! qtivcomposer name=mixer1 engine=2 ! queue ! qtivsplit name=pushing  pushing. ! queue " +
           overlay(1, outputs.file) + " ! qtic2venc " + parse +
           " ! mp4mux name=mp4mux_0 fragment-duration=1000 fragment-mode=first-moov-then-finalise "
           "moov-recovery-file=/tmp/moov_recover.moov  ! filesink location=" +
           outputs.file.outputAddr +
           " sync=false  async=false   pushing. ! queue leaky=downstream max-size-buffers=2 max-size-bytes=0 "
           "max-size-time=0 " +
           overlay(2, outputs.push) + " ! video/x-raw(memory:GBM),width=1920,height=1080  ! qtic2venc " + parse +
           " ! rtspclientsink protocols=tcp location=" + outputs.push.outputAddr + kPushOptions;
}

std::string push(const std::string& parse, const Outputs& outputs)
{
    return "split. ! queue ! qtivcomposer name=mixer1 engine=2 ! queue ! qtivsplit name=pushing  pushing. ! queue "
           "leaky=downstream max-size-buffers=2 max-size-bytes=0 max-size-time=0 " +
           overlay(1, outputs.push) + " ! video/x-raw(memory:GBM),width=1920,height=1080  ! qtic2venc " + parse +
           "  ! rtspclientsink protocols=tcp location=" + outputs.push.outputAddr + kPushOptions;
}

std::string branch(int mode, const std::string& parse, const Outputs& outputs)
{
    switch (mode) {
    case 0:
        return recording(parse, outputs);
    case 1:
        return recording_and_push(parse, outputs);
    case 2:
        return push(parse, outputs);
    default:
        return {};
    }
}

std::string detection(const StreamProperty& prop)
{
    return " split. ! queue ! qtimlvconverter name=qmlconvert_1 ! qtimlqnn name=qtimlqnn_1 model=" + prop.model +
           " backend=/opt/qcom/qirp-sdk/lib/aarch64-oe-linux-gcc11.2/libQnnHtp.so "
           "! qtimlvdetection threshold=75 results=10 module=" +
           prop.mlModule + " labels=" + prop.labels +
           " ! video/x-raw(memory:GBM) ! capsfilter name=ml_capsfilter ! mixer1. ";
}

std::string sources(const StreamProperty& prop, const std::string& depay)
{
    std::string text;
    for (std::size_t i = 0; i < camera_count(prop); ++i)
        text += "rtspsrc location=" + prop.inputs[i].inputAddr + " latency=100 ! " + depay +
                " config-interval=-1 ! qtic2vdec ! qtivtransform engine=2 ! queue ! mixer. ";
    return text;
}

} // namespace

std::string build_sink_properties(const StreamProperty& prop, int index)
{
    if (index < 0 || static_cast<std::size_t>(index) >= prop.inputs.size()) return {};
    const InputStreamProperty& input = prop.inputs[static_cast<std::size_t>(index)];
    const std::string pad = "sink_" + std::to_string(index);
    std::string text;
    if (!input.crop.empty()) text += pad + "::crop=\"" + input.crop + "\" ";
    if (!input.flipHorizontal.empty()) text += pad + "::flip-horizontal=" + input.flipHorizontal + " ";
    if (!input.flipVertical.empty()) text += pad + "::flip-vertical=" + input.flipVertical + " ";
    return text;
}

std::string get_4_cameras_launch_command(const StreamProperty& prop, bool use_tee, int mode)
{
    const CodecPieces codec = codec_pieces(prop);
    const Outputs outputs = choose_outputs(prop);
    const std::string head = composer(prop) + canvas(prop);
    if (!use_tee) return head + plain_recording(codec.parse, outputs) + sources(prop, codec.depay);
    return head + "! tee name=split " + branch(mode, codec.parse, outputs) + detection(prop) +
           sources(prop, codec.depay);
}
