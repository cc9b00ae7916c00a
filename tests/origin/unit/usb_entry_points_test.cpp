// The functions that start a USB camera's stream, up to the pipeline: without "qtivtransform" it is not built.
#include "ConfigFile.h"
#include "Elements.h"
#include "RecordedLog.h"
#include "StreamBuild.h"
#include "velstream.h"

#include <gtest/gtest.h>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Lines = std::vector<std::string>;

struct Choice {
    int type;
    const char* line;
    Lines output; ///< of the output builder
    bool is_refused;
};

void PrintTo(const Choice& choice, std::ostream* out)
{
    *out << "Type" << choice.type;
}

const char* const kFakesink = "I streamOutput is set to fakesink due to streamOutput is nullptr.";
const char* const kNotBuilt = "E Failed to create one or more GStreamer elements in start_usb";
const char* const kRefusal = "E Output stream type is not supported. Exit.";

// The texts name RTSP, as those of the RTSP input.
const Choice kChoices[] = {
    {0, "I RTSP - Doesn't display stream(autosink).", {kFakesink}, false},
    {1, "I RTSP - To display stream via waylandsink. ", {}, false},
    {2,
     "I RTSP - To display stream via rtsp. ",
     {"I Build 6490 ql v4l2.", "I Output url: out.", "I Start to get configuration properties for stream id: cam.",
      "I Stream id: cam, Output rtsp sink is h264 parse.",
      "I Platform is 6490 Qualcomm Linux, will use v4l2h264/5enc plugin."},
     false},
    {3, kRefusal, {}, true},
    {4,
     "I RTSP - To save mp4.",
     // Its transform is missing, so the bin is not built.
     {"I Start to get configuration properties for stream id: cam.",
      "I Start to get configuration properties for stream id: cam.", "I Configure video bottom: -16",
      "I Output url: out.", "I Platform is 6490 ql, will use v4l2h264enc plugin.",
      "E Not all elements could be created.\n"},
     false},
    {5, kRefusal, {}, true},
    {-1, kRefusal, {}, true},
};

int8_t ignore_frame(const Image&)
{
    return 0;
}

class UsbEntryPoints : public WithGStreamer {
protected:
    static StreamIns described(const std::string& output_type = {})
    {
        StreamIns ins;
        ins.streamsId = "mine";
        ins.inputType = "usbcam";
        ins.inputAddr = "/dev/velstream-absent";
        ins.width = 640;
        ins.height = 360;
        ins.outputType = output_type;
        ins.outputAddr = "out";
        return ins;
    }

    std::function<int8_t(const Image&)> callback_ = ignore_frame;
    const WithoutElement without_transform_{"qtivtransform"};
};

class UsbEntryPointChoice : public UsbEntryPoints, public ::testing::WithParamInterface<Choice> {
protected:
    int call(const std::string& stream_id) const
    {
        StreamIns ins = described();
        return start_stream_input_usbcam(ins, ignore_frame, static_cast<StreamType>(GetParam().type), stream_id);
    }
};

TEST_P(UsbEntryPointChoice, LogsAndBuildsItsOutput)
{
    const Choice& choice = GetParam();
    const ConfigFile file(complete_stream("cam", "H264"));
    EXPECT_EQ(call("cam"), -1);
    Lines expected{choice.line};
    if (!choice.is_refused) {
        expected.push_back("I Registration pipeline for stream id: cam");
        expected.insert(expected.end(), choice.output.begin(), choice.output.end());
        expected.push_back(kNotBuilt);
    }
    EXPECT_EQ(log_lines(), expected);
}

TEST_P(UsbEntryPointChoice, TheIdEmptyTakesAFallbackName)
{
    const ConfigFile file(complete_stream("cam", "H264"));
    EXPECT_EQ(call("empty"), -1);
    EXPECT_EQ(pipeline_map.count("velstream_usb"), GetParam().is_refused ? 0U : 1U);
    EXPECT_EQ(pipeline_map.count("empty"), 0U);
}

INSTANTIATE_TEST_SUITE_P(Types, UsbEntryPointChoice, ::testing::ValuesIn(kChoices), [](const auto& test) {
    return test.param.type < 0 ? std::string("Negative") : "Type" + std::to_string(test.param.type);
});

struct OutputType {
    const char* name;
    const char* line;
};

// Of an entry and of a described stream alike.
const OutputType kOutputTypes[] = {
    {"", kChoices[0].line},     {"screen", kChoices[0].line}, {"wayland", kChoices[1].line},
    {"rtsp", kChoices[2].line}, {"rtmp", kRefusal},           {"mp4", kChoices[4].line}};

TEST_F(UsbEntryPoints, ConfiguredStreamTakesItsOutputType)
{
    for (const OutputType& type : kOutputTypes) {
        SCOPED_TRACE(type.name);
        const ConfigFile file(one_stream("cam", R"("inputType": "usbcam", "inputAddr": "/dev/velstream-absent",
                                                   "audio": false, "rollingsave": false, "width": 640, "height": 360,
                                                   "outputAddr": "out", "outputType": ")" +
                                                    std::string(type.name) + "\""));
        clear_log();
        EXPECT_EQ(start_stream("cam", callback_), -1);
        EXPECT_EQ(log_lines().at(0), type.line);
        EXPECT_EQ(log_has("I Registration pipeline for stream id: cam"), type.line != kRefusal);
    }
    EXPECT_TRUE(callback_) << "copied, not taken";
}

TEST_F(UsbEntryPoints, DescribedStreamTakesItsOutputTypeWithoutReadingItsEntry)
{
    const ConfigFile file(complete_stream("mine", "H264"));
    g_stream_conf_file = "/absent/velstream-gst.conf";
    for (const OutputType& type : kOutputTypes) {
        SCOPED_TRACE(type.name);
        clear_log();
        StreamIns ins = described(type.name);
        EXPECT_EQ(start(ins, callback_), -1);
        EXPECT_EQ(log_lines().at(0), type.line);
        EXPECT_EQ(log_has("I Registration pipeline for stream id: mine"), type.line != kRefusal);
        EXPECT_FALSE(log_has("E Unable to open configuration file: /absent/velstream-gst.conf"));
    }
    EXPECT_TRUE(callback_) << "copied, not taken";
}

TEST_F(UsbEntryPoints, DescribedStreamWithoutAnIdTakesAFallbackName)
{
    StreamIns ins = described();
    ins.streamsId = StreamIns().streamsId;
    EXPECT_EQ(start(ins, callback_), -1);
    EXPECT_TRUE(log_has("I Registration pipeline for stream id: velstream_usb"));
}

TEST_F(UsbEntryPoints, Mp4WithAnEmptyAddressMissesIt)
{
    StreamIns ins = described("mp4");
    ins.outputAddr.clear();
    EXPECT_EQ(start(ins, callback_), -1);
    EXPECT_EQ(log_lines(),
              (Lines{"E Mandatory parameter outputAddr missing in configuration file for saving mp4 file."}));
}

TEST_F(UsbEntryPoints, EntryWithoutADeviceIsRefused)
{
    const ConfigFile file(one_stream("cam", R"("inputType": "usbcam", "width": 640, "height": 360)"));
    EXPECT_EQ(start_stream("cam", callback_), -1);
    EXPECT_EQ(log_lines(), (Lines{"E inputAddr is not defined.", "E There is no related stream information."}));
}

} // namespace
