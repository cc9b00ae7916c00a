// The launch descriptions of a composition, to the blank.
#include "RecordedLog.h"
#include "StreamBuildMultiMerge.h"

#include <gtest/gtest.h>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Lines = std::vector<std::string>;

InputStreamProperty camera(const std::string& address, const std::string& position)
{
    InputStreamProperty input;
    input.inputType = "Rtsp";
    input.inputAddr = address;
    input.width = 1280;
    input.height = 720;
    input.position = position;
    input.dimensions = "<640, 360>";
    return input;
}

OutputStreamProperty output(const std::string& type, const std::string& address)
{
    OutputStreamProperty made;
    made.outputType = type;
    made.outputAddr = address;
    made.logoPath = "/a.png";
    made.logoWidth = 100;
    made.logoHeight = 50;
    made.logoLocX = 10;
    made.logoLocY = 20;
    made.logoLocWidth = 200;
    made.logoLocHeight = -5;
    made.textStr = "Cam";
    made.textLocX = 30;
    made.textLocY = 40;
    made.textFontSize = 24;
    return made;
}

StreamProperty four_cameras(const std::string& codec = "H264")
{
    StreamProperty prop;
    prop.inputs = {camera("rtsp://a/0", "<0, 0>"), camera("rtsp://a/1", "<640, 0>"), camera("rtsp://a/2", "<0, 360>"),
                   camera("rtsp://a/3", "<640, 360>")};
    prop.inputs[0].decodeType = codec;
    prop.outputs = {output("File", "/o.mp4"), output("Rtsp", "rtsp://p/live")};
    prop.outputs[1].logoPath = "/b.png";
    prop.outputs[1].textStr = "Live, now: 50 %";
    prop.outputs[1].textColor = "0x00FF00FF";
    prop.model = "/m.onnx";
    prop.mlModule = "yolov5";
    prop.labels = "/l.txt";
    return prop;
}

const std::string kComposer =
    R"(qtivcomposer name=mixer engine=2 sink_0::position="<0, 0>"  sink_0::dimensions="<640, 360>"  )"
    R"(sink_1::position="<640, 0>"  sink_1::dimensions="<640, 360>"  )"
    R"(sink_2::position="<0, 360>"  sink_2::dimensions="<640, 360>"  )"
    R"(sink_3::position="<640, 360>"  sink_3::dimensions="<640, 360>"   ! )"
    "video/x-raw(memory:GBM),format=NV12,width=1280,height=720 ! qtivtransform engine=2 name=qtiv_main_transform  ! "
    "queue ";

const std::string kDetection =
    " split. ! queue ! qtimlvconverter name=qmlconvert_1 ! qtimlqnn name=qtimlqnn_1 model=/m.onnx "
    "backend=/opt/qcom/qirp-sdk/lib/aarch64-oe-linux-gcc11.2/libQnnHtp.so ! qtimlvdetection threshold=75 results=10 "
    "module=yolov5 labels=/l.txt ! video/x-raw(memory:GBM) ! capsfilter name=ml_capsfilter ! mixer1. ";

const std::string kCameras264 =
    "rtspsrc location=rtsp://a/0 latency=100 !  rtph264depay ! h264parse  config-interval=-1 ! qtic2vdec ! "
    "qtivtransform engine=2 ! queue ! mixer. "
    "rtspsrc location=rtsp://a/1 latency=100 !  rtph264depay ! h264parse  config-interval=-1 ! qtic2vdec ! "
    "qtivtransform engine=2 ! queue ! mixer. "
    "rtspsrc location=rtsp://a/2 latency=100 !  rtph264depay ! h264parse  config-interval=-1 ! qtic2vdec ! "
    "qtivtransform engine=2 ! queue ! mixer. "
    "rtspsrc location=rtsp://a/3 latency=100 !  rtph264depay ! h264parse  config-interval=-1 ! qtic2vdec ! "
    "qtivtransform engine=2 ! queue ! mixer. ";

const std::string kCameras265 =
    "rtspsrc location=rtsp://a/0 latency=100 !  rtph265depay ! h265parse  config-interval=-1 ! qtic2vdec ! "
    "qtivtransform engine=2 ! queue ! mixer. "
    "rtspsrc location=rtsp://a/1 latency=100 !  rtph265depay ! h265parse  config-interval=-1 ! qtic2vdec ! "
    "qtivtransform engine=2 ! queue ! mixer. "
    "rtspsrc location=rtsp://a/2 latency=100 !  rtph265depay ! h265parse  config-interval=-1 ! qtic2vdec ! "
    "qtivtransform engine=2 ! queue ! mixer. "
    "rtspsrc location=rtsp://a/3 latency=100 !  rtph265depay ! h265parse  config-interval=-1 ! qtic2vdec ! "
    "qtivtransform engine=2 ! queue ! mixer. ";

const std::string kFileOverlay =
    R"( ! qtivoverlay images="{(structure)\"Image1,path=/a.png,resolution=<100,50>,destination=<10,20,200,-5>;\"}" )"
    R"(strings="{(structure)\"text1,contents=\\\"Cam\\\",fontsize=24,position=<30,40>,color=0xFF0000FF;\"}" )";

const std::string kPushOverlay = R"(,path=/b.png,resolution=<100,50>,destination=<10,20,200,-5>;\"}" )";
const std::string kPushText =
    R"(,contents=\\\"Live, now: 50 %\\\",fontsize=24,position=<30,40>,color=0x00FF00FF;\"}" )";

} // namespace

// ---- Every mode, with both codecs

TEST(CompositionDescription, PlainRecordingOfH264)
{
    EXPECT_EQ(get_4_cameras_launch_command(four_cameras(), false, 0),
              kComposer +
                  "! qtic2venc target-bitrate=2000000  ! queue ! h264parse   ! mp4mux name=mp4mux_0 faststart=true "
                  "fragment-duration=1000 ! filesink location=/o.mp4 sync=false " +
                  kCameras264);
}

TEST(CompositionDescription, PlainRecordingOfH265)
{
    EXPECT_EQ(get_4_cameras_launch_command(four_cameras("H265"), false, 0),
              kComposer +
                  "! qtic2venc target-bitrate=2000000  ! queue ! h265parse  ! mp4mux name=mp4mux_0 faststart=true "
                  "fragment-duration=1000 ! filesink location=/o.mp4 sync=false " +
                  kCameras265);
}

TEST(CompositionDescription, RecordingOfH264)
{
    EXPECT_EQ(get_4_cameras_launch_command(four_cameras(), true, 0),
              kComposer +
                  "! tee name=split  split. ! queue name=save_queue leaky=2 max-size-buffers=1 ! qtivcomposer "
                  "name=mixer1  " +
                  kFileOverlay +
                  " ! qtic2venc   ! queue ! h264parse   ! mp4mux name=mp4mux_0  ! filesink location=/o.mp4 sync=false "
                  "async=false " +
                  kDetection + kCameras264);
}

TEST(CompositionDescription, RecordingOfH265)
{
    EXPECT_EQ(get_4_cameras_launch_command(four_cameras("H265"), true, 0),
              kComposer +
                  "! tee name=split  split. ! queue name=save_queue leaky=2 max-size-buffers=1 ! qtivcomposer "
                  "name=mixer1  " +
                  kFileOverlay +
                  " ! qtic2venc   ! queue ! h265parse  ! mp4mux name=mp4mux_0  ! filesink location=/o.mp4 sync=false "
                  "async=false " +
                  kDetection + kCameras265);
}

TEST(CompositionDescription, RecordingAndPushOfH264)
{
    EXPECT_EQ(get_4_cameras_launch_command(four_cameras(), true, 1),
              kComposer +
                  "! tee name=split  split. ! queue ! qtivcomposer name=mixer1 engine=2 ! queue ! qtivsplit "
                  "name=pushing  pushing. ! queue " +
                  kFileOverlay +
                  " ! qtic2venc  ! queue ! h264parse   ! mp4mux name=mp4mux_0 fragment-duration=1000 "
                  "fragment-mode=first-moov-then-finalise moov-recovery-file=/tmp/moov_recover.moov  ! filesink "
                  "location=/o.mp4 sync=false  async=false   pushing. ! queue leaky=downstream max-size-buffers=2 "
                  "max-size-bytes=0 max-size-time=0 " +
                  R"( ! qtivoverlay images="{(structure)\"Image2)" + kPushOverlay + R"(strings="{(structure)\"text2)" +
                  kPushText +
                  " ! video/x-raw(memory:GBM),width=1920,height=1080  ! qtic2venc  ! queue ! h264parse   ! "
                  "rtspclientsink protocols=tcp location=rtsp://p/live  tcp-timeout=5000000 do-rtsp-keep-alive=true "
                  "async-handling=false timeout=5000000 " +
                  kDetection + kCameras264);
}

TEST(CompositionDescription, RecordingAndPushOfH265)
{
    EXPECT_EQ(get_4_cameras_launch_command(four_cameras("H265"), true, 1),
              kComposer +
                  "! tee name=split  split. ! queue ! qtivcomposer name=mixer1 engine=2 ! queue ! qtivsplit "
                  "name=pushing  pushing. ! queue " +
                  kFileOverlay +
                  " ! qtic2venc  ! queue ! h265parse  ! mp4mux name=mp4mux_0 fragment-duration=1000 "
                  "fragment-mode=first-moov-then-finalise moov-recovery-file=/tmp/moov_recover.moov  ! filesink "
                  "location=/o.mp4 sync=false  async=false   pushing. ! queue leaky=downstream max-size-buffers=2 "
                  "max-size-bytes=0 max-size-time=0 " +
                  R"( ! qtivoverlay images="{(structure)\"Image2)" + kPushOverlay + R"(strings="{(structure)\"text2)" +
                  kPushText +
                  " ! video/x-raw(memory:GBM),width=1920,height=1080  ! qtic2venc  ! queue ! h265parse  ! "
                  "rtspclientsink protocols=tcp location=rtsp://p/live  tcp-timeout=5000000 do-rtsp-keep-alive=true "
                  "async-handling=false timeout=5000000 " +
                  kDetection + kCameras265);
}

TEST(CompositionDescription, PushOfH264)
{
    EXPECT_EQ(get_4_cameras_launch_command(four_cameras(), true, 2),
              kComposer +
                  "! tee name=split split. ! queue ! qtivcomposer name=mixer1 engine=2 ! queue ! qtivsplit "
                  "name=pushing  pushing. ! queue leaky=downstream max-size-buffers=2 max-size-bytes=0 "
                  "max-size-time=0 " +
                  R"( ! qtivoverlay images="{(structure)\"Image1)" + kPushOverlay + R"(strings="{(structure)\"text1)" +
                  kPushText +
                  " ! video/x-raw(memory:GBM),width=1920,height=1080  ! qtic2venc  ! queue ! h264parse    ! "
                  "rtspclientsink protocols=tcp location=rtsp://p/live  tcp-timeout=5000000 do-rtsp-keep-alive=true "
                  "async-handling=false timeout=5000000 " +
                  kDetection + kCameras264);
}

TEST(CompositionDescription, PushOfH265)
{
    EXPECT_EQ(get_4_cameras_launch_command(four_cameras("H265"), true, 2),
              kComposer +
                  "! tee name=split split. ! queue ! qtivcomposer name=mixer1 engine=2 ! queue ! qtivsplit "
                  "name=pushing  pushing. ! queue leaky=downstream max-size-buffers=2 max-size-bytes=0 "
                  "max-size-time=0 " +
                  R"( ! qtivoverlay images="{(structure)\"Image1)" + kPushOverlay + R"(strings="{(structure)\"text1)" +
                  kPushText +
                  " ! video/x-raw(memory:GBM),width=1920,height=1080  ! qtic2venc  ! queue ! h265parse   ! "
                  "rtspclientsink protocols=tcp location=rtsp://p/live  tcp-timeout=5000000 do-rtsp-keep-alive=true "
                  "async-handling=false timeout=5000000 " +
                  kDetection + kCameras265);
}

TEST(CompositionDescription, OtherModeHasTheTeeAndTheDetection)
{
    for (const int mode : {-1, 3, 5})
        EXPECT_EQ(get_4_cameras_launch_command(four_cameras(), true, mode),
                  kComposer + "! tee name=split " + kDetection + kCameras264);
}

TEST(CompositionDescription, PlainRecordingIsTheSameInEveryMode)
{
    const std::string plain = get_4_cameras_launch_command(four_cameras(), false, 0);
    for (const int mode : {1, 2, 5})
        EXPECT_EQ(get_4_cameras_launch_command(four_cameras(), false, mode), plain);
    for (const char* word : {"tee", "qtivoverlay", "qtiml", "rtspclientsink"})
        EXPECT_EQ(plain.find(word), std::string::npos) << word;
}

// ---- Codec and canvas

TEST(CompositionDescription, CodecOtherThanH265IsH264)
{
    for (const char* codec : {"h265", "", "HEVC", "H264"})
        EXPECT_EQ(get_4_cameras_launch_command(four_cameras(codec), false, 0),
                  get_4_cameras_launch_command(four_cameras(), false, 0))
            << codec;
}

TEST(CompositionDescription, CodecIsThatOfTheFirstInput)
{
    StreamProperty prop = four_cameras();
    for (std::size_t i = 1; i < 4; ++i)
        prop.inputs[i].decodeType = "H265";
    EXPECT_EQ(get_4_cameras_launch_command(prop, true, 1), get_4_cameras_launch_command(four_cameras(), true, 1));
}

TEST(CompositionDescription, CanvasHasTheFirstInputsSizeRoundedTowardZeroToEven)
{
    struct Row {
        int width;
        int height;
        const char* caps;
    };
    for (const Row& row :
         {Row{1281, 721, ",format=NV12,width=1280,height=720 ! "},
          Row{1280, 720, ",format=NV12,width=1280,height=720 ! "}, Row{-3, -1, ",format=NV12,width=-2,height=0 ! "},
          Row{1, 0, ",format=NV12,width=0,height=0 ! "}}) {
        StreamProperty prop = four_cameras();
        prop.inputs[0].width = row.width;
        prop.inputs[0].height = row.height;
        prop.inputs[1].width = 64;
        EXPECT_NE(get_4_cameras_launch_command(prop, false, 0).find(row.caps), std::string::npos) << row.caps;
    }
}

// ---- Pads

TEST(CompositionSinkProperties, HoldsWhatHasAValueInOrder)
{
    StreamProperty prop = four_cameras();
    EXPECT_EQ(build_sink_properties(prop, 0), "");
    prop.inputs[2].flipVertical = "true";
    EXPECT_EQ(build_sink_properties(prop, 2), "sink_2::flip-vertical=true ");
    prop.inputs[2].crop = "0,0,960,540";
    EXPECT_EQ(build_sink_properties(prop, 2), R"(sink_2::crop="0,0,960,540" sink_2::flip-vertical=true )");
    prop.inputs[2].flipHorizontal = "1";
    EXPECT_EQ(build_sink_properties(prop, 2),
              R"(sink_2::crop="0,0,960,540" sink_2::flip-horizontal=1 sink_2::flip-vertical=true )");
    EXPECT_EQ(build_sink_properties(prop, 3), "");
}

TEST(CompositionSinkProperties, InputThatIsNotThereHasNone)
{
    const StreamProperty prop = four_cameras();
    for (const int index : {-1, 4, 100})
        EXPECT_EQ(build_sink_properties(prop, index), "");
    EXPECT_EQ(build_sink_properties(StreamProperty(), 0), "");
}

TEST(CompositionDescription, CropStandsBehindTheDimensionsOfItsPad)
{
    StreamProperty prop = four_cameras();
    prop.inputs[0].crop = "0,0,960,540";
    const std::string text = get_4_cameras_launch_command(prop, true, 0);
    EXPECT_EQ(
        text.find(R"(qtivcomposer name=mixer engine=2 sink_0::position="<0, 0>"  sink_0::dimensions="<640, 360>" )"
                  R"(sink_0::crop="0,0,960,540"  sink_1::position="<640, 0>")"),
        0U);
}

// ---- Number of inputs

TEST(CompositionDescription, FewerInputsAreThoseThatThereAre)
{
    StreamProperty prop = four_cameras();
    prop.inputs.resize(2);
    EXPECT_EQ(get_4_cameras_launch_command(prop, false, 0),
              R"(qtivcomposer name=mixer engine=2 sink_0::position="<0, 0>"  sink_0::dimensions="<640, 360>"  )"
              R"(sink_1::position="<640, 0>"  sink_1::dimensions="<640, 360>"   ! )"
              "video/x-raw(memory:GBM),format=NV12,width=1280,height=720 ! qtivtransform engine=2 "
              "name=qtiv_main_transform  ! queue ! qtic2venc target-bitrate=2000000  ! queue ! h264parse   ! mp4mux "
              "name=mp4mux_0 faststart=true fragment-duration=1000 ! filesink location=/o.mp4 sync=false "
              "rtspsrc location=rtsp://a/0 latency=100 !  rtph264depay ! h264parse  config-interval=-1 ! qtic2vdec ! "
              "qtivtransform engine=2 ! queue ! mixer. "
              "rtspsrc location=rtsp://a/1 latency=100 !  rtph264depay ! h264parse  config-interval=-1 ! qtic2vdec ! "
              "qtivtransform engine=2 ! queue ! mixer. ");
    prop.inputs.clear();
    EXPECT_EQ(get_4_cameras_launch_command(prop, true, 2).find("rtspsrc"), std::string::npos);
}

TEST(CompositionDescription, InputsBehindTheFourthAreLeftOut)
{
    StreamProperty prop = four_cameras();
    prop.inputs.push_back(camera("rtsp://a/4", "<9, 9>"));
    EXPECT_EQ(get_4_cameras_launch_command(prop, true, 1), get_4_cameras_launch_command(four_cameras(), true, 1));
}

// ---- Outputs

TEST(CompositionDescription, OutputTypesAreLogged)
{
    get_4_cameras_launch_command(four_cameras(), true, 1);
    EXPECT_EQ(log_lines(), (Lines{"I Output type: File", "I Output type: Rtsp"}));
}

TEST(CompositionDescription, LaterOutputOfAKindReplacesTheEarlier)
{
    StreamProperty prop = four_cameras();
    std::swap(prop.outputs[0], prop.outputs[1]);
    prop.outputs.insert(prop.outputs.begin(), {output("File", "/first.mp4"), output("file", "rtsp://p/first")});
    EXPECT_EQ(get_4_cameras_launch_command(prop, true, 1), get_4_cameras_launch_command(four_cameras(), true, 1));
}

TEST(CompositionDescription, NoFileOutputIsLoggedAndLeavesTheAddressEmpty)
{
    StreamProperty prop = four_cameras();
    prop.outputs.erase(prop.outputs.begin());
    for (const bool use_tee : {false, true}) {
        clear_log();
        EXPECT_NE(get_4_cameras_launch_command(prop, use_tee, 0).find("! filesink location= sync=false "),
                  std::string::npos);
        EXPECT_EQ(log_lines(), (Lines{"I Output type: Rtsp", "W Output file address is empty. Please check filling "
                                                             "outputType value."}));
    }
}

TEST(CompositionDescription, FileOutputWithoutAddressIsLoggedInEveryMode)
{
    StreamProperty prop = four_cameras();
    prop.outputs[0].outputAddr.clear();
    for (const int mode : {0, 1, 2, 5}) {
        clear_log();
        get_4_cameras_launch_command(prop, true, mode);
        EXPECT_TRUE(log_has("W Output file address is empty. Please check filling outputType value.")) << mode;
    }
}

TEST(CompositionDescription, OverlayIsThereWhateverItsSwitchSays)
{
    StreamProperty prop = four_cameras();
    const std::string off = get_4_cameras_launch_command(prop, true, 0);
    prop.outputs[0].overlaySwitch = 1;
    EXPECT_EQ(get_4_cameras_launch_command(prop, true, 0), off);
}
