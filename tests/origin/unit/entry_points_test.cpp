// The functions that an application calls. Without "qtivtransform" a stream that was started ends before it plays, so
// that what a start function decides shows without a camera, a server or a file.
#include "ConfigFile.h"
#include "Elements.h"
#include "RecordedLog.h"
#include "StreamBuild.h"
#include "velstream.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <optional>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Lines = std::vector<std::string>;
using StartFunction = int (*)(std::string, std::function<int8_t(const Image&)>, StreamType, std::string, int, int,
                              std::string);

int8_t ignore_frame(const Image&)
{
    return 0;
}

class EntryPoints : public WithGStreamer {
protected:
    void SetUp() override { without_transform_.emplace("qtivtransform"); }

    std::function<int8_t(const Image&)> callback_ = ignore_frame;
    std::optional<WithoutElement> without_transform_;
};

Lines first(const Lines& lines, std::size_t count)
{
    return Lines(lines.begin(), lines.begin() + static_cast<long>(std::min(count, lines.size())));
}

// ---- start_stream

TEST_F(EntryPoints, UnknownIdIsLoggedTwice)
{
    const ConfigFile file(complete_stream("cam", "H264"));
    EXPECT_EQ(start_stream("other", callback_), -1);
    EXPECT_EQ(log_lines(), (Lines{"I Specified stream id: other not defined in configuration file velstream-gst.conf.",
                                  "E There is no related stream information."}));
}

TEST_F(EntryPoints, MissingFileIsLoggedTwice)
{
    const ConfigFile file("{}");
    file.remove();
    EXPECT_EQ(start_stream("cam", callback_), -1);
    EXPECT_EQ(log_lines(), (Lines{"E Unable to open configuration file: " + file.path(),
                                  "E There is no related stream information."}));
}

TEST_F(EntryPoints, TextThatIsNotJsonRaisesTheParsersException)
{
    const ConfigFile file("{");
    EXPECT_THROW(start_stream("cam", callback_), Json::RuntimeError);
}

TEST_F(EntryPoints, EntryOfAWrongTypeRaisesTheParsersExceptionAndStartsNothing)
{
    const ConfigFile file(one_stream("cam", R"("inputType": "file", "inputAddr": {}, "audio": false)"));
    EXPECT_THROW(start_stream("cam", callback_), Json::LogicError);
    EXPECT_EQ(log_lines(), Lines{});
    EXPECT_TRUE(pipeline_map.empty());
    EXPECT_TRUE(callback_);
}

TEST_F(EntryPoints, SaveMp4WithoutHeightAndInputTypeIsLogged)
{
    const ConfigFile file(one_stream("cam", R"("saveMp4": true, "width": 640)"));
    EXPECT_EQ(start_stream("cam", callback_), -1);
    EXPECT_EQ(log_lines(), (Lines{"E inputType is not defined.", "E There is no related stream information."}));
}

TEST_F(EntryPoints, SaveMp4WithASizeOfZeroMissesAParameter)
{
    for (const char* size : {R"("width": 0, "height": 720)", R"("width": 1280, "height": 0)"}) {
        const ConfigFile file(one_stream("cam", std::string(R"("saveMp4": true, )") + size));
        clear_log();
        EXPECT_EQ(start_stream("cam", callback_), -1);
        EXPECT_EQ(log_lines(), (Lines{"E Mandatory parameter missing in configuration file."}));
    }
}

TEST_F(EntryPoints, NetworkPushWithAZeroMissesAParameter)
{
    for (const char* values : {R"("width": 0, "height": 720, "fps": 25)", R"("width": 1280, "height": 0, "fps": 25)",
                               R"("width": 1280, "height": 720, "fps": 0)", R"("width": 1280, "height": 720)"}) {
        const ConfigFile file(one_stream("cam", std::string(R"("networkPush": true, )") + values));
        clear_log();
        EXPECT_EQ(start_stream("cam", callback_), -1);
        EXPECT_EQ(log_lines(), (Lines{"E Mandatory parameter missing in configuration file."})) << values;
    }
}

TEST_F(EntryPoints, Mp4WithAnEmptyAddressMissesIt)
{
    const ConfigFile file(complete_stream("cam", "H264", R"(, "outputType": "mp4", "outputAddr": "")"));
    EXPECT_EQ(start_stream("cam", callback_), -1);
    EXPECT_EQ(log_lines(),
              (Lines{"E Mandatory parameter outputAddr missing in configuration file for saving mp4 file."}));
}

TEST_F(EntryPoints, Mp4WithoutAnAddressKeyHasNoDisplay)
{
    const ConfigFile file(complete_stream("cam", "H264", R"(, "outputType": "mp4")"));
    EXPECT_EQ(start_stream("cam", callback_), -1);
    EXPECT_EQ(first(log_lines(), 3),
              (Lines{"I Start stream from input file.", "I FILE - To display stream via waylandsink. ",
                     "I Registration pipeline for stream id: cam"}));
}

TEST_F(EntryPoints, FileInputWithRtmpOutputFailsWithoutAMessage)
{
    const ConfigFile file(complete_stream("cam", "H264", R"(, "outputType": "rtmp", "outputAddr": "rtmp://x/y")"));
    EXPECT_EQ(start_stream("cam", callback_), -1);
    EXPECT_EQ(log_lines(), (Lines{"I Start stream from input file."}));
}

TEST_F(EntryPoints, UnknownInputTypeFailsWithoutAMessage)
{
    const ConfigFile file(
        one_stream("cam", R"("inputType": "FILE", "inputAddr": "a", "audio": false, "rollingsave": false)"));
    EXPECT_EQ(start_stream("cam", callback_), -1);
    EXPECT_EQ(log_lines(), Lines{});
}

TEST_F(EntryPoints, OutputTypesAreComparedExactly)
{
    const ConfigFile file(complete_stream("cam", "H264", R"(, "outputType": "Wayland", "outputAddr": "x")"));
    EXPECT_EQ(start_stream("cam", callback_), -1);
    EXPECT_TRUE(log_has("I FILE - To display stream via waylandsink. ")) << "type 0";
}

TEST_F(EntryPoints, InputTypeChoosesTheStartFunction)
{
    const struct {
        const char* type;
        const char* line;
    } cases[] = {{"file", "I FILE - To display stream via waylandsink. "},
                 {"rtsp", "I RTSP - Doesn't display stream(autosink)."},
                 {"rtmp", "I RTMP - Doesn't display stream(autosink)."}};
    for (const auto& one : cases) {
        const ConfigFile file(one_stream("cam", std::string(R"("audio": false, "rollingsave": false, "inputAddr": "a",
                                                               "inputType": ")") +
                                                    one.type + "\""));
        clear_log();
        EXPECT_EQ(start_stream("cam", callback_), -1);
        EXPECT_TRUE(log_has(one.line));
    }
}

TEST_F(EntryPoints, SizeOfTheEntryIsNotPassedOn)
{
    const ConfigFile file(one_stream("cam", R"("width": 640, "height": 360, "inputType": "rtmp", "inputAddr": "a",
                                               "outputType": "wayland", "outputAddr": "")"));
    EXPECT_EQ(start_stream("cam", callback_), -1);
    EXPECT_TRUE(log_has("I RTMP - To display rtmp stream via waylandsink. width: 0, height: 0"));
}

TEST_F(EntryPoints, CallersCallbackIsCopiedNotTaken)
{
    const ConfigFile file(complete_stream("cam", "H264"));
    start_stream("cam", callback_);
    EXPECT_TRUE(callback_);
}

// ---- start

StreamIns described(const char* input_type)
{
    StreamIns ins;
    ins.streamsId = "mine";
    ins.inputType = input_type;
    ins.inputAddr = "/absent/video.mp4";
    return ins;
}

TEST_F(EntryPoints, DescribedStreamIsStartedWithoutReadingItsEntry)
{
    const ConfigFile file(complete_stream("mine", "H264"));
    g_stream_conf_file = "/absent/velstream-gst.conf";
    StreamIns ins = described("file");
    EXPECT_EQ(start(ins, callback_), -1);
    EXPECT_EQ(first(log_lines(), 3),
              (Lines{"I Start stream from input file.", "I FILE - To display stream via waylandsink. ",
                     "I Registration pipeline for stream id: mine"}));
    EXPECT_FALSE(log_has("E Unable to open configuration file: /absent/velstream-gst.conf"));
}

TEST_F(EntryPoints, DescribedStreamHasNoAudioAndNoRollingBranch)
{
    const ConfigFile file(complete_stream("mine", "H264"));
    StreamIns ins = described("file");
    ins.audio = true;
    ins.rollingsave = true;
    EXPECT_EQ(start(ins, callback_), -1);
    EXPECT_TRUE(log_has("I Registration pipeline for stream id: mine"));
}

TEST_F(EntryPoints, DescribedStreamPassesItsSizeOn)
{
    const ConfigFile file(complete_stream("mine", "H264"));
    StreamIns ins = described("rtmp");
    ins.width = 640;
    ins.height = 360;
    ins.outputType = "rtsp";
    ins.outputAddr = "rtsp://127.0.0.1:1/x";
    EXPECT_EQ(start(ins, callback_), -1);
    EXPECT_TRUE(log_has("I RTMP - To display rtmp stream via rtsp. width: 640, height: 360"));
}

TEST_F(EntryPoints, DescribedDerivedStreamsMissTheirParameters)
{
    StreamIns save = described("file");
    save.saveMp4 = true;
    save.width = 640;
    EXPECT_EQ(start(save, callback_), -1);
    StreamIns push = described("file");
    push.networkPush = true;
    push.width = 640;
    push.height = 360;
    EXPECT_EQ(start(push, callback_), -1);
    EXPECT_EQ(log_lines(), (Lines{"E Mandatory parameter missing in configuration file.",
                                  "E Mandatory parameter missing in configuration file."}));
}

TEST_F(EntryPoints, DescribedMp4WithoutAddressMissesIt)
{
    StreamIns ins = described("rtsp");
    ins.outputType = "mp4";
    EXPECT_EQ(start(ins, callback_), -1);
    EXPECT_EQ(log_lines(),
              (Lines{"E Mandatory parameter outputAddr missing in configuration file for saving mp4 file."}));
}

TEST_F(EntryPoints, DescribedStreamOfAnUnknownInputTypeFailsWithoutAMessage)
{
    StreamIns ins = described("tape");
    EXPECT_EQ(start(ins, callback_), -1);
    EXPECT_EQ(log_lines(), Lines{});
}

// ---- Inputs and output types

struct Choice {
    const char* name;
    StartFunction start;
    int type;
    Lines before;    ///< up to the registration
    Lines output;    ///< of the output builder
    bool is_refused; ///< ends before the registration
    const char* fallback;
};

void PrintTo(const Choice& choice, std::ostream* out)
{
    *out << choice.name;
}

const char* const kWayland = "I RTSP - To display stream via waylandsink. ";
const char* const kFakesink = "I streamOutput is set to fakesink due to streamOutput is nullptr.";
const Lines kRtspOutput{"I Build 6490 ql v4l2.", "I Output url: out.",
                        "I Start to get configuration properties for stream id: cam.",
                        "I Stream id: cam, Output rtsp sink is h264 parse.",
                        "I Platform is 6490 Qualcomm Linux, will use v4l2h264/5enc plugin."};
// Its transform is missing, so the bin is not built.
const Lines kMp4Output{"I Start to get configuration properties for stream id: cam.",
                       "I Start to get configuration properties for stream id: cam.",
                       "I Configure video bottom: -16",
                       "I Output url: out.",
                       "I Platform is 6490 ql, will use v4l2h264enc plugin.",
                       "E Not all elements could be created.\n"};
const char* const kFileEntry = "I Start stream from input file.";

const Choice kChoices[] = {
    {"File0",
     start_stream_input_file,
     0,
     {kFileEntry, "I FILE - To display stream via waylandsink. "},
     {},
     false,
     "velstream_file"},
    {"File1", start_stream_input_file, 1, {kFileEntry, "I FILE - To display file."}, {}, false, "velstream_file"},
    {"File2",
     start_stream_input_file,
     2,
     {kFileEntry, "I FILE - To display stream via rtsp."},
     kRtspOutput,
     false,
     "velstream_file"},
    {"File3", start_stream_input_file, 3, {kFileEntry}, {}, true, ""},
    {"File4", start_stream_input_file, 4, {kFileEntry, "I FILE - To save mp4."}, kMp4Output, false, "velstream_file"},
    {"File5", start_stream_input_file, 5, {kFileEntry}, {}, true, ""},
    {"Rtsp0", start_stream_input_rtsp, 0, {"I RTSP - Doesn't display stream(autosink)."}, {}, false, "velstream_rtsp"},
    {"Rtsp1", start_stream_input_rtsp, 1, {kWayland}, {}, false, "velstream_rtsp"},
    {"Rtsp2",
     start_stream_input_rtsp,
     2,
     {"I RTSP - To display stream via rtsp. "},
     kRtspOutput,
     false,
     "velstream_rtsp"},
    {"Rtsp3", start_stream_input_rtsp, 3, {"E Output stream type is not supported. Exit."}, {}, true, ""},
    {"Rtsp4", start_stream_input_rtsp, 4, {"I RTSP - To save mp4."}, kMp4Output, false, "velstream_file"},
    {"Rtsp5", start_stream_input_rtsp, 5, {"E Output stream type is not supported. Exit."}, {}, true, ""},
    {"Rtmp0", start_stream_input_rtmp, 0, {"I RTMP - Doesn't display stream(autosink)."}, {}, false, "velstream_rtmp"},
    {"Rtmp1",
     start_stream_input_rtmp,
     1,
     {"I RTMP - To display rtmp stream via waylandsink. width: 640, height: 360"},
     {},
     false,
     "velstream_rtmp"},
    {"Rtmp2",
     start_stream_input_rtmp,
     2,
     {"I RTMP - To display rtmp stream via rtsp. width: 640, height: 360"},
     kRtspOutput,
     false,
     "velstream_rtmp"},
    {"Rtmp3", start_stream_input_rtmp, 3, {}, {}, true, ""},
    {"Rtmp4", start_stream_input_rtmp, 4, {"I RTSP - To save mp4."}, kMp4Output, false, "velstream_file"},
    {"Rtmp5", start_stream_input_rtmp, 5, {}, {}, true, ""},
};

Lines input_lines(StartFunction start)
{
    Lines lines{"I Start to get configuration properties for stream id: cam."};
    if (start == StartFunction(start_stream_input_rtsp)) {
        lines.push_back("I Input rtsp is h264. Including rtph264depay and h264parse.");
        lines.push_back("I Platform is 6490 Qualcomm Linux, will use related v4l2h264/5dec plugin.");
        return lines;
    }
    if (start == StartFunction(start_stream_input_file)) lines.push_back("I Input rtsp is h264. Including h264parse.");
    lines.push_back("I Platform is 6490 Qualcomm Linux, will use v4l2h264dec / v4l2h265dec plugin.");
    return lines;
}

class EntryPointChoice : public EntryPoints, public ::testing::WithParamInterface<Choice> {
protected:
    int call(const std::string& stream_id) const
    {
        return GetParam().start("/absent/video.mp4", ignore_frame, static_cast<StreamType>(GetParam().type), "out", 640,
                                360, stream_id);
    }
};

void append(Lines& lines, const Lines& more)
{
    lines.insert(lines.end(), more.begin(), more.end());
}

TEST_P(EntryPointChoice, LogsAndBuildsItsOutput)
{
    const Choice& choice = GetParam();
    const ConfigFile file(complete_stream("cam", "H264"));
    EXPECT_EQ(call("cam"), -1);

    Lines expected = choice.before;
    if (!choice.is_refused) {
        expected.push_back("I Registration pipeline for stream id: cam");
        append(expected, input_lines(choice.start));
        append(expected, choice.output);
        const bool is_built = choice.type != 4;
        expected.push_back("I Platform is ubuntu 2404. Starting pipeline once. stream_id=cam");
        expected.push_back(choice.type == 0
                               ? "I start_ub2404: output factory=fakesink, skip_output_nv12_convert=1"
                               : (is_built ? "I start_ub2404: output factory=bin, skip_output_nv12_convert=0"
                                           : "I start_ub2404: output factory=unknown, skip_output_nv12_convert=0"));
        expected.push_back("E start_ub2404: Failed to create one or more elements.");
    }
    Lines actual = log_lines();
    // Where the line about a missing output stands is a test of its own.
    if (choice.type == 0) {
        EXPECT_EQ(log_count(kFakesink), 1);
        actual.erase(std::remove(actual.begin(), actual.end(), kFakesink), actual.end());
    }
    EXPECT_EQ(actual, expected);
}

TEST_F(EntryPoints, MissingOutputIsAnnouncedBeforeAnythingIsBuilt)
{
    const ConfigFile file(complete_stream("cam", "H264"));
    start_stream("cam", callback_);
    const Lines lines = log_lines();
    const auto registration = std::find(lines.begin(), lines.end(), "I Registration pipeline for stream id: cam");
    ASSERT_GE(lines.end() - registration, 2);
    EXPECT_EQ(registration[1], kFakesink);
}

TEST_P(EntryPointChoice, TheIdEmptyTakesAFallbackName)
{
    const Choice& choice = GetParam();
    const ConfigFile file(complete_stream("cam", "H264"));
    EXPECT_EQ(call("empty"), -1);
    EXPECT_EQ(log_has(std::string("I Registration pipeline for stream id: ") + choice.fallback), !choice.is_refused);
    EXPECT_FALSE(log_has("I Registration pipeline for stream id: empty"));
    EXPECT_EQ(pipeline_map.count(choice.fallback), choice.is_refused ? 0U : 1U);
}

TEST_P(EntryPointChoice, AnotherIdNamesThePipeline)
{
    const ConfigFile file(complete_stream("cam", "H264"));
    EXPECT_EQ(call(""), -1);
    EXPECT_EQ(log_has("I Registration pipeline for stream id: "), !GetParam().is_refused) << "an empty id is an id";
}

INSTANTIATE_TEST_SUITE_P(Types, EntryPointChoice, ::testing::ValuesIn(kChoices),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(EntryPoints, FileThatIsAbsentEndsTheStreamWithItsNameInTheLog)
{
    without_transform_.reset();
    const ConfigFile file(complete_stream("cam", "H264"));
    EXPECT_EQ(start_stream("cam", callback_), -1);
    const Lines lines = log_lines();
    const auto error = std::find_if(lines.begin(), lines.end(), [](const std::string& line) {
        return line.rfind("E start_ub2404: ERROR from queue_input_src: ", 0) == 0;
    });
    ASSERT_GE(lines.end() - error, 2);
    EXPECT_EQ(error[1].rfind("E start_ub2404: debug info: ", 0), 0U);
    EXPECT_NE(error[1].find("/absent/video.mp4"), std::string::npos) << error[1];
    EXPECT_EQ(lines.back(), "E start_ub2404: Pipeline failed.");
    EXPECT_EQ(pipeline_map.at("cam"), nullptr) << "the entry stays, the pointer does not";
    EXPECT_EQ(pipeline_s, nullptr);
}

// ---- Stop

TEST_F(EntryPoints, ShutdownOfAllStreamsNeverReadsTheFile)
{
    const ConfigFile file("{}");
    file.remove();
    gstreamer_pipeline_shutdown("all_stream");
    EXPECT_EQ(log_lines(), Lines{});
    EXPECT_FALSE(running.load());
}

TEST_F(EntryPoints, ShutdownOfAllStreamsIsNotStoppedByABadFile)
{
    const ConfigFile file("{");
    EXPECT_NO_THROW(gstreamer_pipeline_shutdown("all_stream"));
    EXPECT_EQ(log_lines(), Lines{});
    EXPECT_FALSE(running.load());
}

TEST_F(EntryPoints, ShutdownWithoutAFileStopsAllTheSame)
{
    const ConfigFile file("{}");
    file.remove();
    gstreamer_pipeline_shutdown("cam");
    EXPECT_EQ(log_lines(), (Lines{"E Unable to open configuration file: " + file.path()}));
    EXPECT_FALSE(running.load());
}

TEST_F(EntryPoints, ShutdownOfAnUnknownIdOnlyClearsRunning)
{
    const ConfigFile file(complete_stream("cam", "H264"));
    gstreamer_pipeline_shutdown("other");
    EXPECT_EQ(log_lines(),
              (Lines{"I Specified stream id: other not defined in configuration file velstream-gst.conf."}));
    EXPECT_FALSE(running.load());
    EXPECT_TRUE(pipeline_map.empty());
}

TEST_F(EntryPoints, ShutdownWithAFileThatIsNotJsonStopsAllTheSame)
{
    const ConfigFile file("{ \"streams\": [");
    EXPECT_NO_THROW(gstreamer_pipeline_shutdown("cam"));
    EXPECT_FALSE(running.load());
}

TEST_F(EntryPoints, ShutdownWithAnEntryOfAWrongTypeStopsAllTheSame)
{
    const ConfigFile file(one_stream("cam", R"("inputType": {})"));
    EXPECT_NO_THROW(gstreamer_pipeline_shutdown("cam"));
    EXPECT_FALSE(running.load());
}

TEST_F(EntryPoints, SendEosWithAnEmptyRegistryOnlyClearsRunning)
{
    send_eos("all_stream");
    EXPECT_EQ(log_lines(), Lines{});
    EXPECT_FALSE(running.load());
}

TEST_F(EntryPoints, SendEosToAStreamThatEndedIsHarmless)
{
    const ConfigFile file(complete_stream("cam", "H264"));
    EXPECT_EQ(start_stream("cam", callback_), -1);
    clear_log();
    send_eos("cam");
    send_eos("all_stream");
    EXPECT_EQ(log_lines(), Lines{});
}

TEST_F(EntryPoints, SigintWithoutAPipelineOnlyClearsRunning)
{
    handle_sigint(2);
    EXPECT_EQ(log_lines(), Lines{});
    EXPECT_FALSE(running.load());
}

} // namespace
