#include "tensors.h"

#include <array>
#include <condition_variable>
#include <mutex>

namespace {

using namespace velstream::test;

class MlVConverter : public testing::Test {
protected:
    static void SetUpTestSuite() { gst_init(nullptr, nullptr); }
};

std::string tensor_caps(const std::string& type, const std::string& dimensions)
{
    return "neural-network/tensors,type=(string)" + type + ",dimensions=(int)<<" + dimensions + ">>";
}

/// All of one colour, by GStreamer's own source and converter.
BufferPtr solid_frame(const std::string& caps, guint argb)
{
    const std::string launch =
        "videotestsrc num-buffers=1 pattern=solid-color foreground-color=" + std::to_string(argb) +
        " ! video/x-raw,format=ARGB ! videoconvert ! " + caps + " ! identity";
    const HarnessPtr harness(gst_harness_new_parse(launch.c_str()));
    gst_harness_play(harness.get());
    return BufferPtr(gst_harness_pull(harness.get()));
}

const std::string kFormats[] = {"NV12", "NV21", "I420", "YUY2", "UYVY", "RGB",  "BGR", "RGBA",
                                "BGRA", "RGBx", "BGRx", "ARGB", "ABGR", "xRGB", "xBGR"};

TEST_F(MlVConverter, BytesAreTheColoursOfEveryFormatAndOddSize)
{
    for (const std::string& format : kFormats) {
        const std::string caps = video_caps(size_caps(format.c_str(), 101, 75));
        const BufferPtr input = solid_frame(caps, 0xFFC83214);
        const BufferPtr output =
            convert("qtimlvconverter placement=stretch", caps, tensor_caps("UINT8", "1,33,57,3"), input);
        const auto bytes = numbers_of<uint8_t>(output.get());
        ASSERT_EQ(bytes.size(), 33U * 57U * 3U) << format;
        for (std::size_t i = 0; i < bytes.size(); ++i)
            ASSERT_NEAR(bytes[i], (std::array{0xC8, 0x32, 0x14}[i % 3]), 7) << format << " " << i;
    }
}

TEST_F(MlVConverter, GreyFramesHaveThreeEqualChannels)
{
    const std::string caps = video_caps(size_caps("GRAY8", 31, 20));
    BufferPtr input = make_frame(caps);
    gst_buffer_memset(input.get(), 0, 77, gst_buffer_get_size(input.get()));
    const BufferPtr output = convert("qtimlvconverter", caps, tensor_caps("UINT8", "1,20,31,3"), input);
    for (const int byte : numbers_of<uint8_t>(output.get()))
        ASSERT_NEAR(byte, 77, 1);
}

TEST_F(MlVConverter, FloatsArePlanesFromZeroToOne)
{
    const std::string caps = video_caps(size_caps("RGB", 40, 30), "(memory:GBM)");
    const BufferPtr input = solid_frame(video_caps(size_caps("RGB", 40, 30)), 0xFFC83214);
    const BufferPtr output = convert("qtimlvconverter", caps, tensor_caps("FLOAT32", "1,3,30,40"), input);
    const auto numbers = numbers_of<float>(output.get());
    ASSERT_EQ(numbers.size(), 3U * 1200U);
    for (std::size_t i = 0; i < numbers.size(); ++i)
        ASSERT_NEAR(numbers[i], (std::array{0xC8, 0x32, 0x14}[i / 1200]) / 255.0, 1e-6) << i;
}

TEST_F(MlVConverter, MeanAndSigmaAndChannelOrderApply)
{
    const std::string caps = video_caps(size_caps("RGB", 40, 30));
    const BufferPtr input = solid_frame(caps, 0xFFC83214);
    const BufferPtr output =
        convert("qtimlvconverter mean=\"<100.5, 10, 20.0, 58.0>\" sigma=\"<2.0, 0.5, 1.0, 1.0>\" subpixel-layout=bgr",
                caps, tensor_caps("FLOAT32", "1,30,40,3"), input);
    const auto numbers = numbers_of<float>(output.get());
    ASSERT_EQ(numbers.size(), 3U * 1200U);
    EXPECT_FLOAT_EQ(numbers[0], (0x14 - 100.5F) * 2.0F);
    EXPECT_FLOAT_EQ(numbers[1], (0x32 - 10.0F) * 0.5F);
    EXPECT_FLOAT_EQ(numbers[2], (0xC8 - 20.0F) * 1.0F);
}

TEST_F(MlVConverter, WholeNumbersAndGreyTensorsAreMade)
{
    const std::string caps = video_caps(size_caps("RGB", 40, 30));
    const BufferPtr input = solid_frame(caps, 0xFFC83214);
    const BufferPtr output = convert("qtimlvconverter", caps, tensor_caps("INT32", "1,1,30,40"), input);
    const auto numbers = numbers_of<gint32>(output.get());
    ASSERT_EQ(numbers.size(), 1200U);
    for (const int number : numbers)
        ASSERT_NEAR(number, 0.299 * 0xC8 + 0.587 * 0x32 + 0.114 * 0x14, 1);
}

struct PlacementRow {
    const char* name;
    std::string place, source;  ///< in the caps
    std::array<int, 4> picture; ///< left, top, right, bottom of what is not black
};

TEST_F(MlVConverter, PlacementPutsThePictureWhereTheCapsSay)
{
    const PlacementRow rows[] = {
        {"top-left", "< 0, 0, 80, 45 >", "< 0, 0, 320, 180 >", {0, 0, 80, 45}},
        {"centre", "< 0, 17, 80, 45 >", "< 0, 0, 320, 180 >", {0, 17, 80, 62}},
        {"stretch", "< 0, 0, 80, 80 >", "< 0, 0, 320, 180 >", {0, 0, 80, 80}},
        {"centre-crop", "< 0, 0, 80, 80 >", "< 70, 0, 180, 180 >", {0, 0, 80, 80}},
    };
    for (const PlacementRow& row : rows) {
        const std::string caps = video_caps(size_caps("NV12", 320, 180));
        const BufferPtr input = solid_frame(caps, 0xFFFFFFFF);
        const std::string launch = std::string("qtimlvconverter placement=") + row.name;
        const HarnessPtr harness = make_harness(launch.c_str(), caps, tensor_caps("UINT8", "1,80,80,3"));
        const BufferPtr output = push_and_pull(harness, input);
        const auto bytes = numbers_of<uint8_t>(output.get());
        for (int y = 0; y < 80; ++y)
            for (int x = 0; x < 80; ++x) {
                const bool is_picture =
                    x >= row.picture[0] && x < row.picture[2] && y >= row.picture[1] && y < row.picture[3];
                ASSERT_NEAR(bytes[static_cast<std::size_t>(3 * (80 * y + x))], is_picture ? 255 : 0, 2)
                    << row.name << " " << x << "," << y;
            }
        const std::string made = output_caps(harness);
        EXPECT_NE(made.find("picture-size=(int)< 320, 180 >"), std::string::npos) << made;
        EXPECT_NE(made.find("picture-source=(int)" + row.source), std::string::npos) << row.name << made;
        EXPECT_NE(made.find("picture-tensor=(int)< 80, 80 >"), std::string::npos) << made;
        EXPECT_NE(made.find("picture-place=(int)" + row.place), std::string::npos) << row.name << made;
    }
}

TEST_F(MlVConverter, WithoutAModelTheTensorIsTheFrame)
{
    const std::string caps = video_caps(size_caps("RGB", 64, 48));
    const BufferPtr input = make_frame(caps);
    const HarnessPtr harness = make_harness("qtimlvconverter", caps, "");
    const BufferPtr output = push_and_pull(harness, input);
    EXPECT_EQ(numbers_of<uint8_t>(output.get()), numbers_of<uint8_t>(input.get()));
    EXPECT_NE(output_caps(harness).find("type=(string)UINT8"), std::string::npos);
}

TEST_F(MlVConverter, AnotherSizeOfVideoMakesTheSameTensor)
{
    const HarnessPtr harness =
        make_harness("qtimlvconverter", video_caps(size_caps("NV12", 320, 180)), tensor_caps("UINT8", "1,64,64,3"));
    for (const auto& [width, height] : {std::pair{320, 180}, std::pair{101, 203}, std::pair{1282, 722}}) {
        const std::string caps = video_caps(size_caps("NV12", width, height));
        gst_harness_set_src_caps_str(harness.get(), caps.c_str());
        const BufferPtr input = make_frame(caps);
        GST_BUFFER_PTS(input.get()) = 7 * GST_SECOND;
        GST_BUFFER_DURATION(input.get()) = 40 * GST_MSECOND;
        const BufferPtr output = push_and_pull(harness, input);
        EXPECT_EQ(gst_buffer_get_size(output.get()), 64U * 64U * 3U);
        EXPECT_EQ(GST_BUFFER_PTS(output.get()), 7 * GST_SECOND);
        EXPECT_EQ(GST_BUFFER_DURATION(output.get()), 40 * GST_MSECOND);
        const std::string size = "picture-size=(int)< " + std::to_string(width) + ", " + std::to_string(height) + " >";
        EXPECT_NE(output_caps(harness).find(size), std::string::npos);
    }
}

TEST_F(MlVConverter, WorksOnAfterAFlushAndPassesTheEndOfStream)
{
    const std::string caps = video_caps(size_caps("NV12", 320, 180));
    const HarnessPtr harness = make_harness("qtimlvconverter", caps, tensor_caps("UINT8", "1,64,64,3"));
    ASSERT_TRUE(push_and_pull(harness, make_frame(caps)));
    ASSERT_TRUE(gst_harness_push_event(harness.get(), gst_event_new_flush_start()));
    ASSERT_TRUE(gst_harness_push_event(harness.get(), gst_event_new_flush_stop(TRUE)));
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    ASSERT_TRUE(gst_harness_push_event(harness.get(), gst_event_new_segment(&segment)));
    ASSERT_TRUE(push_and_pull(harness, make_frame(caps)));
    ASSERT_TRUE(gst_harness_push_event(harness.get(), gst_event_new_eos()));
    while (GstEvent* event = gst_harness_pull_event(harness.get())) {
        const bool is_end = GST_EVENT_TYPE(event) == GST_EVENT_EOS;
        gst_event_unref(event);
        if (is_end) return;
    }
    ADD_FAILURE() << "no end of stream came out";
}

TEST_F(MlVConverter, AModelThatTakesNoPictureIsAnErrorThatNamesItsInput)
{
    const Ending ending =
        run_to_end("videotestsrc num-buffers=2 ! video/x-raw,width=64,height=48 ! qtimlvconverter ! " +
                   tensor_caps("FLOAT32", "1,1000") + " ! fakesink");
    EXPECT_NE(ending.text.find("The model's input is no picture: "), std::string::npos) << ending.text;
    EXPECT_NE(ending.text.find("1000"), std::string::npos) << ending.text;
}

/// Holds up what comes out of an element until it is opened.
class Gate {
public:
    explicit Gate(GstElement* element) : pad_(gst_element_get_static_pad(element, "src"))
    {
        id_ =
            gst_pad_add_probe(pad_, static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BLOCK | GST_PAD_PROBE_TYPE_BUFFER),
                              arrive, this, nullptr);
    }
    ~Gate() { gst_object_unref(pad_); }
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    void wait_for_a_buffer()
    {
        std::unique_lock lock(mutex_);
        arrived_.wait(lock, [this] { return is_closed_on_buffer_; });
    }
    void open() { gst_pad_remove_probe(pad_, id_); }

private:
    static GstPadProbeReturn arrive(GstPad*, GstPadProbeInfo*, gpointer data)
    {
        auto* gate = static_cast<Gate*>(data);
        const std::lock_guard lock(gate->mutex_);
        gate->is_closed_on_buffer_ = true;
        gate->arrived_.notify_all();
        return GST_PAD_PROBE_OK;
    }

    GstPad* pad_;
    gulong id_;
    std::mutex mutex_;
    std::condition_variable arrived_;
    bool is_closed_on_buffer_ = false;
};

TEST_F(MlVConverter, LiveFramesThatFindTheModelBusyGiveWayToTheNewest)
{
    const std::string caps = video_caps(size_caps("NV12", 64, 48));
    const HarnessPtr harness(gst_harness_new_parse("qtimlvconverter"));
    gst_harness_set_live(harness.get(), TRUE);
    gst_harness_set_sink_caps_str(harness.get(), tensor_caps("UINT8", "1,48,64,3").c_str());
    gst_harness_set_src_caps_str(harness.get(), caps.c_str());
    Gate gate(element_of(harness));
    const auto push = [&](int number) {
        BufferPtr frame = make_frame(caps);
        GST_BUFFER_PTS(frame.get()) = static_cast<GstClockTime>(number) * 40 * GST_MSECOND;
        ASSERT_EQ(gst_harness_push(harness.get(), frame.release()), GST_FLOW_OK);
    };
    push(0);
    gate.wait_for_a_buffer();
    for (int number = 1; number <= 50; ++number)
        push(number); // would wait for ever if it waited
    gate.open();
    const BufferPtr first(gst_harness_pull(harness.get()));
    const BufferPtr second(gst_harness_pull(harness.get()));
    ASSERT_TRUE(first && second);
    EXPECT_EQ(GST_BUFFER_PTS(first.get()), 0U);
    EXPECT_EQ(GST_BUFFER_PTS(second.get()), 50 * 40 * GST_MSECOND);
}

TEST_F(MlVConverter, EveryFrameOfAFileIsConverted)
{
    const std::string caps = video_caps(size_caps("NV12", 64, 48));
    const HarnessPtr harness(gst_harness_new_parse("qtimlvconverter"));
    gst_harness_set_live(harness.get(), FALSE);
    gst_harness_set_sink_caps_str(harness.get(), tensor_caps("UINT8", "1,48,64,3").c_str());
    gst_harness_set_src_caps_str(harness.get(), caps.c_str());
    for (int number = 0; number < 50; ++number) {
        BufferPtr frame = make_frame(caps);
        GST_BUFFER_PTS(frame.get()) = static_cast<GstClockTime>(number) * 40 * GST_MSECOND;
        ASSERT_EQ(gst_harness_push(harness.get(), frame.release()), GST_FLOW_OK);
    }
    for (int number = 0; number < 50; ++number) {
        const BufferPtr output(gst_harness_pull(harness.get()));
        ASSERT_TRUE(output) << number;
        EXPECT_EQ(GST_BUFFER_PTS(output.get()), static_cast<GstClockTime>(number) * 40 * GST_MSECOND);
    }
}

} // namespace
