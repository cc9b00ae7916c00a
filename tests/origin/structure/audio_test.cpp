// The pipeline that relays sound beside the picture, on every platform: elements, properties, links, and what is said
// of a step that fails.
#include "ConfigFile.h"
#include "Elements.h"
#include "RecordedLog.h"
#include "StreamBuild.h"
#include "StreamBuildAudio.h"
#include "test_platform.h"

#include <gtest/gtest.h>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Lines = std::vector<std::string>;
using Step = int (StreamBuildAudio::*)();

constexpr const char* kPush = "rtsp://127.0.0.1:1/push";

bool is_v4l2()
{
    return test_platform() == "v4l2";
}

std::string decoder()
{
    return on_platform("qtivdec", "v4l2h264dec", "qtivdec", "qtic2vdec");
}

std::string encoder()
{
    return on_platform("qtic2venc", "v4l2h264enc", "qtic2venc", "qtic2venc");
}

const char* decoder_line()
{
    return on_platform("I Platform is default setting(not 6490/8550), will use qtivdec plugin.",
                       "I Platform is 6490 Qualcomm Linux, will use v4l2h264dec plugin.",
                       "I Platform is 6490, will use qtivdec plugin.",
                       "I Platform is 8550, will use qtic2vdec plugin.");
}

std::string entry(const std::string& input, const std::string& codec = "H264", const std::string& output = "rtsp")
{
    const std::string address = input == "file" ? "/absent/video.mp4" : input + "://127.0.0.1:1/camera";
    return one_stream("cam", R"("width": 1280, "height": 720, "inputType": ")" + input + R"(", "inputAddr": ")" +
                                 address + R"(", "decodeType": ")" + codec + R"(", "encodeType": ")" + codec +
                                 R"(", "audio": true, "rollingsave": false, "rollingFps": 30, "manualRebuild": true,
                                 "outputType": ")" +
                                 output + R"(", "outputAddr": ")" + kPush + R"(")");
}

/// A relay whose steps are called one by one; it is never set PLAYING.
class AudioRelay : public WithGStreamer {
protected:
    void describe(const std::string& text)
    {
        config_.reset(); // the former one puts back what it has replaced
        config_ = std::make_unique<ConfigFile>(text);
        relay_ = std::make_unique<StreamBuildAudio>("cam");
        clear_log();
    }

    bool is_file() const { return relay_->property().inputType == "file"; }
    Step input() const { return is_file() ? &StreamBuildAudio::init_file_intput : &StreamBuildAudio::init_rtsp_intput; }
    static Step middle()
    {
        return is_v4l2() ? &StreamBuildAudio::init_middle_6490_ql : &StreamBuildAudio::init_rtsp_middle;
    }
    static Step output()
    {
        return is_v4l2() ? &StreamBuildAudio::init_rtsp_output_6490_ql : &StreamBuildAudio::init_rtsp_output;
    }

    int call(Step step) { return (relay_.get()->*step)(); }

    /// All steps up to the first that fails.
    int assemble()
    {
        for (const Step step : {&StreamBuildAudio::init, input(), middle(), output(), &StreamBuildAudio::init_audio,
                                &StreamBuildAudio::set_pipeline}) {
            if (call(step) == -1) return -1;
        }
        return 0;
    }

    GstElement* pipeline() const { return relay_->pipeline(); }
    ElementPtr made_by(const std::string& factory) const { return child_of_factory(pipeline(), factory); }
    Lines chain_of(const std::string& name) const
    {
        const ElementPtr first = child(pipeline(), name);
        return chain_from(first.get());
    }
    Lines chain_of_factory(const std::string& factory) const
    {
        const ElementPtr first = made_by(factory);
        return chain_from(first.get());
    }

    void expect_step_fails_without(Step step, const Lines& factories, const char* line)
    {
        for (const std::string& factory : factories) {
            const WithoutElement without(factory);
            clear_log();
            EXPECT_EQ(call(step), -1) << factory;
            EXPECT_EQ(log_lines().back(), line) << factory;
        }
    }

    /// With `factory` made by another one, all steps pass but the links.
    void expect_failed_link(const std::string& text, const std::string& factory, const std::string& other,
                            const char* line)
    {
        const ElementStandIn stand_in(factory, other);
        describe(text);
        EXPECT_EQ(assemble(), -1) << factory;
        EXPECT_EQ(log_lines().back(), line) << factory;
        EXPECT_FALSE(log_has("I Link connection completed."));
    }

    std::unique_ptr<ConfigFile> config_;
    std::unique_ptr<StreamBuildAudio> relay_;
};

/// What the relay puts behind a decoder up to the output's parser.
Lines middle_of_camera()
{
    if (is_v4l2())
        return {"qtivtransform:qtivtransformInput", "capsfilter", "qtivtransform:qtivtransformOutput", "capsfilter",
                encoder()};
    return {"qtivtransform:qtivtransformInput", "capsfilter:qtivtransformInputCap", "qtivtransform:qtivtransformOutput",
            encoder()};
}

Lines joined(Lines first, const Lines& middle, const Lines& last)
{
    first.insert(first.end(), middle.begin(), middle.end());
    first.insert(first.end(), last.begin(), last.end());
    return first;
}

// ---- A camera

TEST_F(AudioRelay, CameraIsLinkedInTwoChainsIntoOneMuxer)
{
    describe(entry("rtsp"));
    ASSERT_EQ(assemble(), 0);
    EXPECT_EQ(name_of(pipeline()), "cam");
    EXPECT_EQ(chain_of("rtph264depay_rtsp_input"),
              joined({"rtph264depay:rtph264depay_rtsp_input", "h264parse:h264parse_rtsp_input", decoder()},
                     middle_of_camera(), {"h264parse:h264_rtsp_output", "mpegtsmux", "rtspclientsink"}));
    EXPECT_EQ(chain_of("rtpmp4gdepay"), (Lines{"rtpmp4gdepay", "aacparse", "mpegtsmux", "rtspclientsink"}));
}

TEST_F(AudioRelay, CameraOfH265HasItsOwnElements)
{
    describe(entry("rtsp", "H265"));
    const int result = assemble();
    EXPECT_EQ(log_lines()[2], "I Input rtsp is h265. Including rtph265depay and h265parse.");
    EXPECT_EQ(log_lines()[3], decoder_line()) << "the text names h264 for H.265 too";
    if (is_v4l2()) {
        // Its encoder is for H.264 alone.
        EXPECT_EQ(result, -1);
        EXPECT_EQ(log_lines().back(), "E Failed to link elements capsfilter2 - v4l2h264enc - h264parse2 - mpegtsmux in "
                                      "audio stream based on 6490_ql.");
        EXPECT_EQ(chain_of("rtph265depay_rtsp_input")[2], "v4l2h265dec");
        return;
    }
    ASSERT_EQ(result, 0);
    EXPECT_EQ(chain_of("rtph265depay_rtsp_input"),
              joined({"rtph265depay:rtph265depay_rtsp_input", "h265parse:h265parse_rtsp_input", decoder()},
                     middle_of_camera(), {"h265parse:h265_rtsp_output", "mpegtsmux", "rtspclientsink"}));
}

TEST_F(AudioRelay, CameraIsReadOverUdpWithoutLatency)
{
    describe(entry("rtsp"));
    ASSERT_EQ(assemble(), 0);
    const ElementPtr source = made_by("rtspsrc");
    EXPECT_EQ(text_of(source.get(), "location"), "rtsp://127.0.0.1:1/camera");
    EXPECT_EQ(number_of(source.get(), "latency"), 0);
    EXPECT_EQ(number_of(source.get(), "drop-on-latency"), 1);
    EXPECT_EQ(number_of(source.get(), "protocols"), 1);
    const ElementPtr sink = made_by("rtspclientsink");
    EXPECT_EQ(text_of(sink.get(), "location"), kPush);
}

TEST_F(AudioRelay, CameraLogsItsSteps)
{
    describe(entry("rtsp"));
    ASSERT_EQ(assemble(), 0);
    const Lines steps =
        is_v4l2() ? Lines{"I Init rtsp middle based on 6490_ql.", "I Init rtsp output based on 6490_ql.",
                          "I Target address: rtsp://127.0.0.1:1/push"}
        : test_platform() == "8550"
            ? Lines{"I Init rtsp middle.", "I Platform is 8550, will skip opengl handling.", "I Init rtsp output."}
            : Lines{"I Init rtsp middle.", "I Init rtsp output."};
    EXPECT_EQ(log_lines(), joined({"I Init pipeline.", "I Init rtsp input.",
                                   "I Input rtsp is h264. Including rtph264depay and h264parse.", decoder_line()},
                                  steps,
                                  {"I Init audio.", "I Set pipeline.", "I Set rtsp-rtsp pipeline.",
                                   "I Link connection completed."}));
}

TEST_F(AudioRelay, CameraSoundIsLinkedAndItsPictureIsNot)
{
    describe(entry("rtsp"));
    ASSERT_EQ(assemble(), 0);
    const ElementPtr source = made_by("rtspsrc");
    const PadPtr video =
        make_source_pad("video", "application/x-rtp,media=video,clock-rate=90000,encoding-name=H264,payload=96");
    const PadPtr audio = make_source_pad("audio", "application/x-rtp,media=audio,clock-rate=44100,"
                                                  "encoding-name=MPEG4-GENERIC,payload=97");
    for (const PadPtr* pad : {&video, &audio})
        gst_element_add_pad(source.get(), GST_PAD(gst_object_ref(pad->get())));
    const ElementPtr sound = child(pipeline(), "rtpmp4gdepay");
    EXPECT_FALSE(gst_pad_is_linked(video.get()));
    EXPECT_TRUE(is_linked_to(audio.get(), sound.get()));
}

// ---- A file

TEST_F(AudioRelay, FileIsLinkedInThreeChains)
{
    describe(entry("file"));
    ASSERT_EQ(assemble(), 0);
    Lines encoded{encoder(), "capsfilter:capsfilter_output", "mpegtsmux", "rtspclientsink"};
    if (is_v4l2()) encoded = {encoder(), "mpegtsmux", "rtspclientsink"};
    // "capsfilter1" looks like a name that GStreamer gave.
    const std::string filter = is_v4l2() ? "capsfilter" : "capsfilter:qtivtransformInputCap";
    EXPECT_EQ(chain_of_factory("filesrc"), (Lines{"filesrc:velstream_input_file_cam", "qtdemux"}));
    EXPECT_EQ(chain_of("file_input_queue"),
              joined({"queue:file_input_queue", "h264parse", decoder(), "qtivtransform:qtivtransformInput", filter,
                      "qtivtransform:qtivtransformOutput"},
                     encoded, {}));
    EXPECT_EQ(chain_of("audio_queue"), (Lines{"queue:audio_queue", "aacparse", "mpegtsmux", "rtspclientsink"}));
    const ElementPtr source = made_by("filesrc");
    EXPECT_EQ(text_of(source.get(), "location"), "/absent/video.mp4");
}

TEST_F(AudioRelay, FileLogsItsSteps)
{
    describe(entry("file"));
    ASSERT_EQ(assemble(), 0);
    const Lines lines = log_lines();
    EXPECT_EQ(Lines(lines.begin(), lines.begin() + 3),
              (Lines{"I Init pipeline.", "I Init file input.", decoder_line()}));
    EXPECT_EQ(Lines(lines.end() - 4, lines.end()),
              (Lines{"I Init audio.", "I Set pipeline.", "I Set file-rtsp pipeline.", "I Link connection completed."}));
}

TEST_F(AudioRelay, FileTracksAreLinkedByTheirKind)
{
    describe(entry("file"));
    ASSERT_EQ(assemble(), 0);
    const ElementPtr demux = made_by("qtdemux");
    const PadPtr video = make_source_pad("video_0", "video/x-h264,stream-format=avc,alignment=au");
    const PadPtr audio = make_source_pad("audio_0", "audio/mpeg,mpegversion=4,stream-format=raw");
    for (const PadPtr* pad : {&video, &audio})
        gst_element_add_pad(demux.get(), GST_PAD(gst_object_ref(pad->get())));
    const ElementPtr picture = child(pipeline(), "file_input_queue");
    const ElementPtr sound = child(pipeline(), "audio_queue");
    EXPECT_TRUE(is_linked_to(video.get(), picture.get()));
    EXPECT_TRUE(is_linked_to(audio.get(), sound.get()));
}

TEST_F(AudioRelay, FileWithoutSoundPostsAnError)
{
    describe(entry("file"));
    ASSERT_EQ(assemble(), 0);
    gst_element_set_state(pipeline(), GST_STATE_READY); // so that its bus takes messages
    const ElementPtr demux = made_by("qtdemux");
    const PadPtr video = make_source_pad("video_0", "video/x-h264,stream-format=avc,alignment=au");
    gst_element_add_pad(demux.get(), GST_PAD(gst_object_ref(video.get())));
    gst_element_no_more_pads(demux.get());
    const BusPtr bus(gst_element_get_bus(pipeline()));
    const MessagePtr message(gst_bus_pop_filtered(bus.get(), GST_MESSAGE_ERROR));
    ASSERT_TRUE(message);
    GError* error = nullptr;
    gst_message_parse_error(message.get(), &error, nullptr);
    EXPECT_STREQ(error->message, "The file has no AAC audio track to relay.");
    g_error_free(error);
    gst_element_set_state(pipeline(), GST_STATE_NULL);
}

// ---- Properties of a platform

TEST_F(AudioRelay, RgbIsAskedForBehindTheFirstTransform)
{
    describe(entry("file"));
    ASSERT_EQ(assemble(), 0);
    const ElementPtr filter = child(pipeline(), is_v4l2() ? "capsfilter1" : "qtivtransformInputCap");
    EXPECT_TRUE(has_caps(filter.get(), is_v4l2() ? "video/x-raw(memory:GBM),format=RGB" : "video/x-raw,format=RGB"));
}

TEST_F(AudioRelay, CameraIsEncodedFromNv12OnQualcommLinux)
{
    describe(entry("rtsp"));
    ASSERT_EQ(assemble(), 0);
    const ElementPtr filter = child(pipeline(), "capsfilter2");
    ASSERT_EQ(filter != nullptr, is_v4l2());
    if (!is_v4l2()) return;
    EXPECT_TRUE(has_caps(filter.get(), "video/x-raw(memory:GBM),format=NV12,colorimetry=bt601"));
}

TEST_F(AudioRelay, TransformsHaveTheirEngine)
{
    describe(entry("file"));
    ASSERT_EQ(assemble(), 0);
    const ElementPtr plain = share(gst_element_factory_make("qtivtransform", nullptr));
    const long engine = number_of(plain.get(), "engine");
    for (const char* name : {"qtivtransformInput", "qtivtransformOutput"}) {
        const ElementPtr transform = child(pipeline(), name);
        EXPECT_EQ(number_of(transform.get(), "engine"), on_platform(engine, 2L, engine, 2L)) << name;
    }
}

TEST_F(AudioRelay, CodecsOfQualcommLinuxImportTheirBuffers)
{
    if (!is_v4l2()) GTEST_SKIP() << "other codecs have no such properties";
    for (const char* kind : {"rtsp", "file"}) {
        describe(entry(kind));
        ASSERT_EQ(assemble(), 0);
        const ElementPtr decoder_element = made_by("v4l2h264dec");
        const ElementPtr encoder_element = made_by("v4l2h264enc");
        for (const ElementPtr* codec : {&decoder_element, &encoder_element}) {
            EXPECT_EQ(number_of(codec->get(), "capture-io-mode"), 5);
            EXPECT_EQ(number_of(codec->get(), "output-io-mode"), 5);
        }
        const bool is_camera = std::string(kind) == "rtsp";
        EXPECT_EQ(number_of(decoder_element.get(), "discard-corrupted-frames"), is_camera ? 1 : 0);
    }
}

TEST_F(AudioRelay, EncodedPictureIsAByteStreamOfAccessUnits)
{
    if (is_v4l2()) GTEST_SKIP() << "has no filter behind the encoder";
    describe(entry("file"));
    ASSERT_EQ(assemble(), 0);
    const ElementPtr filter = child(pipeline(), "capsfilter_output");
    EXPECT_TRUE(has_caps(filter.get(), "video/x-h264,stream-format=byte-stream,alignment=au"));
}

// ---- What fails

TEST_F(AudioRelay, MissingElementsAreLoggedStepByStep)
{
    describe(entry("rtsp"));
    expect_step_fails_without(input(), {"rtspsrc", "rtph264depay", "h264parse", decoder()},
                              "E init_rtsp_intput - Not all elements could be created.\n");
    expect_step_fails_without(middle(), {"qtivtransform", "capsfilter"},
                              "E init_middle - Not all elements could be created.\n");
    expect_step_fails_without(output(), {"rtspclientsink", encoder(), "h264parse", "mpegtsmux"},
                              is_v4l2() ? "E init_rtsp_output_6490_ql - Not all elements could be created.\n"
                                        : "E init_rtsp_output - Not all elements could be created.\n");
    expect_step_fails_without(&StreamBuildAudio::init_audio, {"rtpmp4gdepay", "aacparse"},
                              "E init_audio - Not all elements could be created.\n");
    describe(entry("file"));
    expect_step_fails_without(input(), {"filesrc", "qtdemux", "queue", "h264parse", decoder()},
                              "E init_file_intput - Not all elements could be created.\n");
    expect_step_fails_without(&StreamBuildAudio::init_audio, {"queue", "aacparse"},
                              "E init_audio - Not all elements could be created.\n");
}

TEST_F(AudioRelay, CameraOfAnotherCodecIsRefused)
{
    describe(entry("rtsp", "h264"));
    EXPECT_EQ(assemble(), -1);
    EXPECT_EQ(log_lines(), (Lines{"I Init pipeline.", "I Init rtsp input.", decoder_line(),
                                  "E init_rtsp_intput - Not all elements could be created.\n"}));
}

TEST_F(AudioRelay, PipelineThatCannotBeMadeIsLogged)
{
    describe(entry("file"));
    const WithoutElement without("pipeline");
    EXPECT_EQ(call(&StreamBuildAudio::init), -1);
    EXPECT_EQ(log_lines(), (Lines{"I Init pipeline.", "E pipeline couldn't be created due to pipeline is nullptr."}));
}

TEST_F(AudioRelay, FailedLinkOfACameraIsLogged)
{
    const char* const all = "E Failed to link elements in audio stream.";
    const char* const texts[] = {
        "E Failed to link elements rtph264depay - h264parse - v4l2h264dec - qtivtransformInput - capsfilter1 in audio "
        "stream based on 6490_ql.",
        "E Failed to link elements capsfilter1 - qtivtransformOutput - capsfilter2 in audio stream based on 6490_ql.",
        "E Failed to link elements capsfilter2 - v4l2h264enc - h264parse2 - mpegtsmux in audio stream based on "
        "6490_ql.",
        "E Failed to link elements rtpmp4gdepay - aacparse - mpegtsmux in audio stream based on 6490_ql.",
        "E Failed to link elements mpegtsmux - rtspclientsink in audio stream based on 6490_ql."};
    const auto expected = [&](int step) { return is_v4l2() ? texts[step] : all; };
    expect_failed_link(entry("rtsp"), decoder(), "fakesink", expected(0));
    expect_failed_link(entry("rtsp"), "capsfilter", "fakesink", expected(1));
    expect_failed_link(entry("rtsp"), encoder(), "fakesink", expected(2));
    expect_failed_link(entry("rtsp"), "aacparse", "fakesink", expected(3));
    expect_failed_link(entry("rtsp"), "rtspclientsink", "fakesrc", expected(4));
}

TEST_F(AudioRelay, FailedLinkOfAFileIsLogged)
{
    expect_failed_link(entry("file"), "filesrc", "fakesink", "E Failed to link filesrc and qtdemux. Exiting.");
    expect_failed_link(
        entry("file"), decoder(), "fakesink",
        "E Failed to link queue_file_in - h264parse - qtivdec - qtivtransformInput - capsfilter elements.");
    expect_failed_link(entry("file"), encoder(), "fakesink",
                       is_v4l2()
                           ? "E Failed to link capsfilter - qtivtransformOutput - qtic2venc - mpegtsmux elements."
                           : "E Failed to link capsfilter - qtivtransformOutput - qtic2venc - capsfilter_output - "
                             "mpegtsmux elements.");
    expect_failed_link(entry("file"), "aacparse", "fakesink",
                       "E Failed to link queue_audio - aacparse - mpegtsmux elements.");
    expect_failed_link(entry("file"), "rtspclientsink", "fakesrc",
                       "E Failed to link mpegtsmux - rtspclientsink elements.");
}

TEST_F(AudioRelay, PipelineWithoutAnInputIsRefused)
{
    describe(entry("rtsp"));
    EXPECT_EQ(call(&StreamBuildAudio::init), 0);
    EXPECT_EQ(call(&StreamBuildAudio::set_pipeline), -1);
    EXPECT_EQ(log_lines().back(), "E Un-supported stream type: 0");
}

// ---- The whole call

class AudioLaunch : public AudioRelay {
protected:
    int launch(const std::string& text)
    {
        describe(text);
        std::function<int8_t(const Image&)> callback = [](const Image&) { return int8_t{0}; };
        return relay_->launch_stream(callback);
    }
};

TEST_F(AudioLaunch, UnknownInputTypeIsRefusedBeforeAnyElementIsMade)
{
    EXPECT_EQ(launch(entry("udp")), -1);
    EXPECT_EQ(log_lines(), (Lines{"I Init pipeline.", "E Un-supported input type."}));
    EXPECT_EQ(pipeline_map.at("cam"), nullptr);
}

TEST_F(AudioLaunch, EntryThatIsNotThereIsRefused)
{
    const ConfigFile config(entry("rtsp"));
    StreamBuildAudio other("other");
    clear_log();
    std::function<int8_t(const Image&)> callback;
    EXPECT_EQ(other.launch_stream(callback), -1);
    EXPECT_EQ(log_lines(), (Lines{"I Init pipeline.", "E Un-supported input type."}));
}

TEST_F(AudioLaunch, OtherOutputTypeIsRefused)
{
    for (const char* input : {"rtsp", "file"}) {
        EXPECT_EQ(launch(entry(input, "H264", "file")), -1);
        EXPECT_EQ(log_lines().back(), "E Un-supported output type. Please take a try to disable audio parameter.");
    }
}

TEST_F(AudioLaunch, AbsentFileEndsTheCallWithItsError)
{
    // Its own error would come from another thread.
    const ElementStandIn sink("rtspclientsink", "fakesink");
    EXPECT_EQ(launch(entry("file")), 0);
    const Lines lines = log_lines();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[lines.size() - 2].find("E Error received from element velstream_input_file_cam: "), 0U);
    EXPECT_EQ(lines.back().find("E Debugging information: "), 0U);
    EXPECT_EQ(lines.back().back(), '\n');
    EXPECT_EQ(pipeline_map.at("cam"), nullptr);
    EXPECT_EQ(relay_->pipeline(), nullptr);
}

} // namespace
