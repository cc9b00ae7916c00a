#include "patience.h"
#include "video_frames.h"

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <malloc.h>

namespace {

using namespace velstream::test;

class Composer : public testing::Test {
protected:
    static void SetUpTestSuite() { gst_init(nullptr, nullptr); }
};

constexpr GstClockTime kFrameTime = 40 * GST_MSECOND;
constexpr GstClockTime kPatience = velstream::testing::kPatience.count() * GST_SECOND;

BufferPtr timed(BufferPtr buffer, guint64 number, GstClockTime duration = kFrameTime)
{
    buffer.reset(gst_buffer_make_writable(buffer.release()));
    GST_BUFFER_PTS(buffer.get()) = number * duration;
    GST_BUFFER_DURATION(buffer.get()) = duration;
    return buffer;
}

/// Every sample of component c has the value values[c].
BufferPtr flat_frame(const std::string& caps, std::array<int, 4> values)
{
    BufferPtr buffer = make_frame(caps);
    const Frame frame(buffer.get(), caps, GST_MAP_READWRITE);
    for (int c = 0; c < frame.components(); ++c)
        for (int y = 0; y < frame.height(c); ++y)
            for (int x = 0; x < frame.width(c); ++x)
                frame.at(c, x, y) = static_cast<uint8_t>(values[static_cast<std::size_t>(c)]);
    return buffer;
}

/// A playing pipeline of sources "in0", "in1", ... that the test feeds, and a composer that writes for the test.
class Composition {
public:
    Composition(const std::string& composer, const std::vector<std::string>& inputs, const std::string& canvas,
                const std::string& source = "appsrc format=time")
    {
        std::string launch = composer + " ! " + canvas + " ! appsink name=out sync=false ";
        for (std::size_t i = 0; i < inputs.size(); ++i)
            launch += source + " name=in" + std::to_string(i) + " caps=\"" + inputs[i] + "\" ! mixer. ";
        GError* error = nullptr;
        pipeline_.reset(gst_parse_launch(launch.c_str(), &error));
        if (error) ADD_FAILURE() << error->message << " in " << launch;
        g_clear_error(&error);
        out_.reset(gst_bin_get_by_name(GST_BIN(pipeline_.get()), "out"));
        gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);
    }
    ~Composition() { gst_element_set_state(pipeline_.get(), GST_STATE_NULL); }
    Composition(const Composition&) = delete;
    Composition& operator=(const Composition&) = delete;

    ElementPtr element(const std::string& name) const
    {
        return ElementPtr(gst_bin_get_by_name(GST_BIN(pipeline_.get()), name.c_str()));
    }
    ElementPtr source(int index) const { return element("in" + std::to_string(index)); }
    void push(int input, BufferPtr buffer) const
    {
        EXPECT_EQ(gst_app_src_push_buffer(GST_APP_SRC(source(input).get()), buffer.release()), GST_FLOW_OK);
    }
    void end(int input) const { gst_app_src_end_of_stream(GST_APP_SRC(source(input).get())); }

    /// Null at the end of the stream, or when nothing comes.
    /// Waits until the pipeline is in the state it was asked for, also after a flush, which has its sink preroll again.
    bool is_playing() const
    {
        return gst_element_get_state(pipeline_.get(), nullptr, nullptr, kPatience) == GST_STATE_CHANGE_SUCCESS;
    }

    BufferPtr pull() const
    {
        GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(out_.get()), kPatience);
        if (!sample) return nullptr;
        BufferPtr buffer(gst_buffer_ref(gst_sample_get_buffer(sample)));
        gst_sample_unref(sample);
        return buffer;
    }
    bool is_at_end() const { return gst_app_sink_is_eos(GST_APP_SINK(out_.get())); }
    std::string caps() const
    {
        const PadPtr pad(gst_element_get_static_pad(out_.get(), "sink"));
        const CapsPtr current(gst_pad_get_current_caps(pad.get()));
        gchar* text = current ? gst_caps_to_string(current.get()) : nullptr;
        std::string result = text ? text : "";
        g_free(text);
        return result;
    }
    GstElement* pipeline() const { return pipeline_.get(); }

private:
    ElementPtr pipeline_, out_;
};

/// The first canvas of inputs that have one frame each.
BufferPtr compose(const std::string& composer, const std::vector<std::string>& inputs, const std::string& canvas,
                  const std::vector<const BufferPtr*>& frames)
{
    const Composition composition(composer, inputs, canvas);
    for (std::size_t i = 0; i < frames.size(); ++i) {
        composition.push(static_cast<int>(i), timed(BufferPtr(gst_buffer_copy(frames[i]->get())), 0));
        composition.end(static_cast<int>(i));
    }
    return composition.pull();
}

std::string place(int pad, int x, int y, int width, int height)
{
    const std::string name = " sink_" + std::to_string(pad);
    return name + "::position=\"<" + std::to_string(x) + ", " + std::to_string(y) + ">\"" + name + "::dimensions=\"<" +
           std::to_string(width) + ", " + std::to_string(height) + ">\"";
}

const std::string kMixer = "qtivcomposer name=mixer";

TEST_F(Composer, TilesOfTheirOwnSizeKeepEveryPixel)
{
    for (const char* format : {"NV12", "NV21", "I420", "RGB", "BGRA", "BGRx", "YUY2"}) {
        const std::string first_caps = video_caps(size_caps(format, 64, 48));
        const std::string second_caps = video_caps(size_caps(format, 32, 20));
        const std::string canvas_caps = video_caps(size_caps(format, 160, 90));
        const BufferPtr first = make_frame(first_caps, 12);
        const BufferPtr second = make_frame(second_caps);
        const BufferPtr output = compose(kMixer + place(0, 10, 8, 64, 48) + place(1, 100, 50, 32, 20),
                                         {first_caps, second_caps}, canvas_caps, {&first, &second});
        ASSERT_TRUE(output) << format;
        const Frame canvas(output.get(), canvas_caps);
        for (const auto& [buffer, caps, x0, y0] :
             {std::tuple{&first, first_caps, 10, 8}, std::tuple{&second, second_caps, 100, 50}}) {
            const Frame in(buffer->get(), caps);
            for (int c = 0; c < 3; ++c) {
                const int step_x = in.width(0) > in.width(c) ? 2 : 1;
                const int step_y = in.height(0) > in.height(c) ? 2 : 1;
                for (int y = 0; y < in.height(c); ++y)
                    for (int x = 0; x < in.width(c); ++x)
                        ASSERT_EQ(canvas.at(c, x + x0 / step_x, y + y0 / step_y), in.at(c, x, y)) << format << c;
            }
        }
        const bool is_yuv = format[0] == 'N' || format[0] == 'I' || format[0] == 'Y';
        for (int c = 0; c < 3; ++c)
            EXPECT_EQ(canvas.at(c, 0, 0), !is_yuv ? 0 : c == 0 ? 16 : 128) << format;
    }
}

TEST_F(Composer, LumaStandsExactlyAtOddPlacesAndSizes)
{
    for (const char* in_format : {"NV12", "RGB"}) {
        const std::string in_caps = video_caps(size_caps(in_format, 33, 21));
        const std::string canvas_caps = video_caps(size_caps("NV12", 95, 61));
        const std::string alone_caps = video_caps(size_caps("NV12", 33, 21));
        const BufferPtr input = make_frame(in_caps);
        const BufferPtr alone = convert("qtivtransform", in_caps, alone_caps, input);
        const BufferPtr output = compose(kMixer + place(0, 7, 9, 33, 21), {in_caps}, canvas_caps, {&input});
        const Frame in(alone.get(), alone_caps);
        const Frame canvas(output.get(), canvas_caps);
        for (int y = 0; y < 61; ++y)
            for (int x = 0; x < 95; ++x) {
                const bool is_inside = x >= 7 && x < 40 && y >= 9 && y < 30;
                ASSERT_NEAR(canvas.at(0, x, y), is_inside ? in.at(0, x - 7, y - 9) : 16, in_format[0] == 'R' ? 1 : 0)
                    << in_format << " " << x << "," << y;
            }
    }
}

TEST_F(Composer, PartOutsideOfTheCanvasIsCutOff)
{
    for (const char* format : {"BGRx", "NV12"}) {
        const std::string in_caps = video_caps(size_caps(format, 40, 30));
        const std::string canvas_caps = video_caps(size_caps(format, 60, 50));
        // Colours that RGB has: the part goes by way of it.
        const std::string rgb_caps = video_caps(size_caps("RGB", 40, 30));
        const BufferPtr input = convert("qtivtransform", rgb_caps, in_caps, make_frame(rgb_caps));
        for (const auto& [left, top] : {std::pair{-12, -8}, std::pair{41, 33}, std::pair{-7, 31}}) {
            const BufferPtr output = compose(kMixer + place(0, left, top, 40, 30), {in_caps}, canvas_caps, {&input});
            const Frame in(input.get(), in_caps);
            const Frame canvas(output.get(), canvas_caps);
            for (int y = std::max(0, top); y < std::min(50, top + 30); ++y)
                for (int x = std::max(0, left); x < std::min(60, left + 40); ++x)
                    ASSERT_NEAR(canvas.at(0, x, y), in.at(0, x - left, y - top), format[0] == 'N' ? 2 : 0);
        }
        const BufferPtr nowhere = compose(kMixer + place(0, 500, 0, 40, 30), {in_caps}, canvas_caps, {&input});
        EXPECT_TRUE(nowhere);
    }
}

TEST_F(Composer, FourScaledCamerasAgreeWithStockCompositor)
{
    const std::string in_caps = video_caps(size_caps("NV12", 640, 360));
    const std::string canvas_caps = video_caps(size_caps("NV12", 960, 540));
    const BufferPtr input = make_frame(in_caps);
    std::string ours = kMixer;
    std::string stock = "compositor name=mixer";
    for (int i = 0; i < 4; ++i) {
        const int x = i % 2 * 480;
        const int y = i / 2 * 270;
        ours += place(i, x, y, 480, 270);
        const std::string pad = " sink_" + std::to_string(i) + "::";
        stock += pad + "xpos=" + std::to_string(x) + pad + "ypos=" + std::to_string(y) + pad + "width=480" + pad +
                 "height=270";
    }
    const std::vector<std::string> inputs(4, in_caps);
    const std::vector<const BufferPtr*> frames(4, &input);
    const BufferPtr actual = compose(ours, inputs, canvas_caps, frames);
    const BufferPtr expected = compose(stock, inputs, canvas_caps, frames);
    ASSERT_TRUE(actual && expected);
    // Filters differ at edges and in noise; a shifted or exchanged picture is far below.
    EXPECT_GE(psnr(actual.get(), expected.get(), canvas_caps), 33.0);
}

TEST_F(Composer, GeometryAndColoursAreThoseOfTheTransform)
{
    const std::string in_caps = video_caps(size_caps("NV12", 320, 180) + ",colorimetry=bt601");
    const std::string canvas_caps = video_caps(size_caps("NV12", 320, 180) + ",colorimetry=bt709");
    const BufferPtr input = make_frame(in_caps);
    for (const char* text : {"flip-horizontal=true", "flip-vertical=true", "rotate=180", "rotate=90CW",
                             "crop=\"<10,20,101,51>\"", "flip-horizontal=false"}) {
        const BufferPtr expected = convert(("qtivtransform " + std::string(text)).c_str(), in_caps, canvas_caps, input);
        const BufferPtr actual = compose(kMixer + " sink_0::" + text, {in_caps}, canvas_caps, {&input});
        ASSERT_TRUE(actual) << text;
        EXPECT_EQ(psnr(actual.get(), expected.get(), canvas_caps), INFINITY) << text;
    }
}

TEST_F(Composer, FlippedAndCroppedPlanesOfOneFormatMoveExactly)
{
    const std::string in_caps = video_caps(size_caps("NV12", 64, 48));
    const std::string canvas_caps = video_caps(size_caps("NV12", 20, 12));
    const BufferPtr input = make_frame(in_caps);
    const BufferPtr output =
        compose(kMixer + " sink_0::crop=\"10,8,20,12\" sink_0::flip-vertical=true", {in_caps}, canvas_caps, {&input});
    const Frame in(input.get(), in_caps);
    const Frame out(output.get(), canvas_caps);
    for (int c = 0; c < 3; ++c)
        for (int y = 0; y < out.height(c); ++y)
            for (int x = 0; x < out.width(c); ++x)
                ASSERT_EQ(out.at(c, x, y), in.at(c, x + (c ? 5 : 10), (c ? 4 + 5 : 8 + 11) - y));
}

TEST_F(Composer, TransparentInputsAreBlended)
{
    const std::string below_caps = video_caps(size_caps("RGB", 64, 48));
    const BufferPtr below = flat_frame(below_caps, {40, 200, 90, 0});
    for (const char* format : {"RGBA", "BGRA", "ARGB", "ABGR"}) {
        for (const char* canvas : {"RGB", "BGRA", "xRGB", "NV12", "I420", "YUY2"}) {
            const std::string above_caps = video_caps(size_caps(format, 32, 24));
            const BufferPtr above = flat_frame(above_caps, {250, 30, 10, 102});
            const std::string canvas_caps = video_caps(size_caps(canvas, 64, 48));
            const std::string rgb_caps = video_caps(size_caps("RGB", 64, 48));
            const BufferPtr mixed = compose(kMixer + " sink_1::position=\"<21,11>\" sink_1::dimensions=\"<20,20>\"",
                                            {below_caps, above_caps}, canvas_caps, {&below, &above});
            const BufferPtr output = convert("qtivtransform", canvas_caps, rgb_caps, mixed);
            const Frame frame(output.get(), rgb_caps);
            const bool is_yuv = canvas[0] == 'N' || canvas[0] == 'I' || canvas[0] == 'Y';
            for (int c = 0; c < 3; ++c) {
                const int bottom = std::array{40, 200, 90}[static_cast<std::size_t>(c)];
                const int top = std::array{250, 30, 10}[static_cast<std::size_t>(c)];
                EXPECT_NEAR(frame.at(c, 30, 20), (top * 102 + bottom * 153) / 255, is_yuv ? 4 : 1) << format << canvas;
                EXPECT_NEAR(frame.at(c, 5, 5), bottom, is_yuv ? 3 : 0) << format << canvas;
                EXPECT_NEAR(frame.at(c, 60, 40), bottom, is_yuv ? 3 : 0) << format << canvas;
            }
        }
    }
}

TEST_F(Composer, AlphaOfThePadFadesIt)
{
    const std::string caps = video_caps(size_caps("NV12", 64, 48));
    const BufferPtr below = flat_frame(caps, {60, 100, 140, 0});
    const BufferPtr above = flat_frame(caps, {180, 140, 120, 0});
    for (const double alpha : {0.0, 0.25, 1.0}) {
        const BufferPtr output =
            compose(kMixer + " sink_1::alpha=" + std::to_string(alpha), {caps, caps}, caps, {&below, &above});
        const Frame frame(output.get(), caps);
        for (int c = 0; c < 3; ++c) {
            const double bottom = std::array{60, 100, 140}[static_cast<std::size_t>(c)];
            const double top = std::array{180, 140, 120}[static_cast<std::size_t>(c)];
            EXPECT_NEAR(frame.at(c, 10, 10), bottom + alpha * (top - bottom), 3.0) << alpha;
        }
    }
}

TEST_F(Composer, MaskWithoutDimensionsFillsTheCanvasAndClearPixelsChangeNothing)
{
    const std::string picture_caps = video_caps(size_caps("NV12", 128, 72));
    const std::string mask_caps = video_caps(size_caps("BGRA", 64, 36), "(memory:GBM)");
    const BufferPtr picture = make_frame(picture_caps);
    const BufferPtr clear = flat_frame(mask_caps, {255, 255, 255, 0});
    const BufferPtr red = flat_frame(mask_caps, {255, 0, 0, 255});
    const BufferPtr under_clear = compose(kMixer, {picture_caps, mask_caps}, picture_caps, {&picture, &clear});
    EXPECT_EQ(psnr(under_clear.get(), picture.get(), picture_caps), INFINITY);
    const BufferPtr under_red = compose(kMixer, {picture_caps, mask_caps}, picture_caps, {&picture, &red});
    const Frame frame(under_red.get(), picture_caps);
    for (const auto& [x, y] : {std::pair{0, 0}, std::pair{127, 71}, std::pair{60, 30}})
        EXPECT_NEAR(frame.at(0, x, y), 81, 2);
}

TEST_F(Composer, HigherZorderLiesAbove)
{
    const std::string caps = video_caps(size_caps("NV12", 64, 48));
    const BufferPtr dark = flat_frame(caps, {50, 128, 128, 0});
    const BufferPtr light = flat_frame(caps, {200, 128, 128, 0});
    const BufferPtr usual = compose(kMixer, {caps, caps}, caps, {&dark, &light});
    EXPECT_EQ(Frame(usual.get(), caps).at(0, 5, 5), 200);
    const BufferPtr turned = compose(kMixer + " sink_0::zorder=7", {caps, caps}, caps, {&dark, &light});
    EXPECT_EQ(Frame(turned.get(), caps).at(0, 5, 5), 50);
}

TEST_F(Composer, BackgroundHasItsColour)
{
    const std::string in_caps = video_caps(size_caps("RGB", 16, 16));
    const BufferPtr input = make_frame(in_caps);
    for (const char* format : {"RGBA", "RGB"}) {
        const std::string canvas_caps = video_caps(size_caps(format, 65, 49));
        const BufferPtr output =
            compose(kMixer + " background=0x102030ff" + place(0, 0, 0, 16, 16), {in_caps}, canvas_caps, {&input});
        const Frame frame(output.get(), canvas_caps);
        for (const auto& [x, y] : {std::pair{16, 0}, std::pair{64, 48}, std::pair{0, 16}}) {
            EXPECT_EQ(frame.at(0, x, y), 0x10);
            EXPECT_EQ(frame.at(1, x, y), 0x20);
            EXPECT_EQ(frame.at(2, x, y), 0x30);
        }
    }
}

TEST_F(Composer, RgbRowsAreTight)
{
    const std::string caps = video_caps(size_caps("NV12", 64, 48));
    const BufferPtr input = make_frame(caps);
    const BufferPtr output = compose(kMixer, {caps}, video_caps(size_caps("RGB", 854, 48)), {&input});
    const GstVideoMeta* meta = gst_buffer_get_video_meta(output.get());
    ASSERT_NE(meta, nullptr);
    EXPECT_EQ(meta->stride[0], 3 * 854);
}

TEST_F(Composer, OpenCanvasHasTheFirstInputsFormat)
{
    const std::string first = video_caps(size_caps("NV12", 640, 360) + ",colorimetry=bt709");
    const std::string second = video_caps(size_caps("RGB", 64, 48));
    const BufferPtr a = make_frame(first);
    const BufferPtr b = make_frame(second);
    const Composition composition(kMixer, {first, second}, "video/x-raw");
    composition.push(0, timed(BufferPtr(gst_buffer_copy(a.get())), 0));
    composition.push(1, timed(BufferPtr(gst_buffer_copy(b.get())), 0));
    composition.end(0);
    composition.end(1);
    ASSERT_TRUE(composition.pull());
    for (const char* part : {"format=(string)NV12", "width=(int)640", "height=(int)360", "framerate=(fraction)25/1",
                             "colorimetry=(string)bt709"})
        EXPECT_NE(composition.caps().find(part), std::string::npos) << part << " in " << composition.caps();
}

// ---- Properties

PadPtr request_pad(const ElementPtr& element)
{
    return PadPtr(gst_element_request_pad_simple(element.get(), "sink_%u"));
}

std::vector<int> numbers_of(GstPad* pad, const char* property)
{
    GValue boxed = G_VALUE_INIT;
    g_object_get_property(G_OBJECT(pad), property, &boxed);
    GValue array = G_VALUE_INIT;
    g_value_init(&array, GST_TYPE_ARRAY);
    std::vector<int> numbers;
    if (g_value_transform(&boxed, &array))
        for (guint i = 0; i < gst_value_array_get_size(&array); ++i)
            numbers.push_back(g_value_get_int(gst_value_array_get_value(&array, i)));
    g_value_unset(&array);
    g_value_unset(&boxed);
    return numbers;
}

using Numbers = std::vector<int>;

TEST_F(Composer, NumbersAreReadInBothForms)
{
    const ElementPtr element(GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("qtivcomposer", nullptr))));
    const PadPtr pad = request_pad(element);
    EXPECT_EQ(numbers_of(pad.get(), "crop"), (Numbers{0, 0, 0, 0}));
    for (const char* text : {"<1, 2, 3, 4>", "1,2,3,4", "<1,2,3,4>", " 1 , 2,3, 4 ", "< (int)1, (int)2, 3, 4 >"}) {
        gst_util_set_object_arg(G_OBJECT(pad.get()), "crop", "<9,9,9,9>");
        gst_util_set_object_arg(G_OBJECT(pad.get()), "crop", text);
        EXPECT_EQ(numbers_of(pad.get(), "crop"), (Numbers{1, 2, 3, 4})) << text;
    }
    gst_util_set_object_arg(G_OBJECT(pad.get()), "position", "-5,7");
    EXPECT_EQ(numbers_of(pad.get(), "position"), (Numbers{-5, 7}));
    gst_util_set_object_arg(G_OBJECT(pad.get()), "dimensions", "<640, 360>");
    EXPECT_EQ(numbers_of(pad.get(), "dimensions"), (Numbers{640, 360}));
}

TEST_F(Composer, BadNumbersChangeNothing)
{
    const ElementPtr element(GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("qtivcomposer", nullptr))));
    const PadPtr pad = request_pad(element);
    gst_util_set_object_arg(G_OBJECT(pad.get()), "crop", "1,2,3,4");
    for (const char* text : {"", "<>", "1", "1,2,3", "1,2,3,4,5", "<1,2,3,4", "1,2,3,4>", "a,b,c,d", "1,,3,4",
                             "1.5,2,3,4", "99999999999,2,3,4", "{1,2,3,4}", ",,,"}) {
        gst_util_set_object_arg(G_OBJECT(pad.get()), "crop", text);
        EXPECT_EQ(numbers_of(pad.get(), "crop"), (Numbers{1, 2, 3, 4})) << text;
    }
}

TEST_F(Composer, NumbersAreSetFromStringsAndArraysToo)
{
    const ElementPtr element(GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("qtivcomposer", nullptr))));
    const PadPtr pad = request_pad(element);
    GValue text = G_VALUE_INIT;
    g_value_init(&text, G_TYPE_STRING);
    g_value_set_string(&text, "5,6");
    g_object_set_property(G_OBJECT(pad.get()), "position", &text);
    EXPECT_EQ(numbers_of(pad.get(), "position"), (Numbers{5, 6}));
    g_value_set_string(&text, "nonsense");
    g_object_set_property(G_OBJECT(pad.get()), "position", &text);
    EXPECT_EQ(numbers_of(pad.get(), "position"), (Numbers{5, 6}));
    g_value_unset(&text);
    GValue array = G_VALUE_INIT;
    g_value_init(&array, GST_TYPE_ARRAY);
    for (const int number : {320, 180}) {
        GValue item = G_VALUE_INIT;
        g_value_init(&item, G_TYPE_INT);
        g_value_set_int(&item, number);
        gst_value_array_append_and_take_value(&array, &item);
    }
    g_object_set_property(G_OBJECT(pad.get()), "dimensions", &array);
    EXPECT_EQ(numbers_of(pad.get(), "dimensions"), (Numbers{320, 180}));
    g_value_unset(&array);
}

TEST_F(Composer, LaunchStringSetsEveryPad)
{
    GError* error = nullptr;
    const ElementPtr pipeline(gst_parse_launch(
        "qtivcomposer name=mixer engine=2 sink_0::position=\"<0, 0>\"  sink_0::dimensions=\"<960, 540>\" "
        "sink_0::crop=\"0,0,960,540\"  sink_1::position=\"<960, 0>\"  sink_1::dimensions=\"<960, 540>\" "
        "sink_1::crop=\"<1, 2, 3, 4>\" sink_1::flip-horizontal=TRUE sink_1::flip-vertical=1 sink_2::crop=\"bad\" "
        "! video/x-raw(memory:GBM),format=NV12,width=1920,height=1080 ! qtivtransform engine=2 "
        "name=qtiv_main_transform  ! queue ! fakesink "
        "videotestsrc ! queue ! mixer. videotestsrc ! queue ! mixer. videotestsrc ! queue ! mixer. ",
        &error));
    ASSERT_EQ(error, nullptr) << error->message;
    const ElementPtr mixer(gst_bin_get_by_name(GST_BIN(pipeline.get()), "mixer"));
    const PadPtr first(gst_element_get_static_pad(mixer.get(), "sink_0"));
    const PadPtr second(gst_element_get_static_pad(mixer.get(), "sink_1"));
    const PadPtr third(gst_element_get_static_pad(mixer.get(), "sink_2"));
    EXPECT_EQ(numbers_of(first.get(), "dimensions"), (Numbers{960, 540}));
    EXPECT_EQ(numbers_of(first.get(), "crop"), (Numbers{0, 0, 960, 540}));
    EXPECT_EQ(numbers_of(second.get(), "position"), (Numbers{960, 0}));
    EXPECT_EQ(numbers_of(second.get(), "crop"), (Numbers{1, 2, 3, 4}));
    EXPECT_EQ(numbers_of(third.get(), "crop"), (Numbers{0, 0, 0, 0}));
    gboolean horizontal = FALSE;
    gboolean vertical = FALSE;
    guint zorder = 9;
    g_object_get(second.get(), "flip-horizontal", &horizontal, "flip-vertical", &vertical, "zorder", &zorder, nullptr);
    EXPECT_TRUE(horizontal && vertical);
    EXPECT_EQ(zorder, 1U);
}

// ---- Time

TEST_F(Composer, InputThatEndsLeavesItsPlaceAndTheOthersGoOn)
{
    const std::string caps = video_caps(size_caps("NV12", 64, 48));
    const BufferPtr light = flat_frame(caps, {200, 128, 128, 0});
    const Composition composition(kMixer + place(0, 0, 0, 32, 48) + place(1, 32, 0, 32, 48), {caps, caps}, caps);
    for (int i = 0; i < 6; ++i) {
        if (i < 3) composition.push(0, timed(BufferPtr(gst_buffer_copy(light.get())), static_cast<guint64>(i)));
        composition.push(1, timed(BufferPtr(gst_buffer_copy(light.get())), static_cast<guint64>(i)));
    }
    composition.end(0);
    composition.end(1);
    for (guint64 i = 0; i < 6; ++i) {
        const BufferPtr output = composition.pull();
        ASSERT_TRUE(output) << i;
        EXPECT_EQ(GST_BUFFER_PTS(output.get()), i * kFrameTime);
        EXPECT_EQ(GST_BUFFER_DURATION(output.get()), kFrameTime);
        const Frame frame(output.get(), caps);
        EXPECT_EQ(frame.at(0, 5, 5), i < 3 ? 200 : 16) << i;
        EXPECT_EQ(frame.at(0, 40, 5), 200) << i;
    }
    EXPECT_FALSE(composition.pull());
    EXPECT_TRUE(composition.is_at_end());
}

TEST_F(Composer, SlowerInputIsRepeatedAndFasterOneThinnedOut)
{
    const std::string caps = "video/x-raw,framerate=10/1," + size_caps("NV12", 32, 32);
    const std::string fast_caps = "video/x-raw,framerate=50/1," + size_caps("NV12", 32, 32);
    const std::string canvas = video_caps(size_caps("NV12", 32, 32));
    for (const auto& [in_caps, duration, frames] :
         {std::tuple{caps, 100 * GST_MSECOND, 4}, std::tuple{fast_caps, 20 * GST_MSECOND, 20}}) {
        const Composition composition(kMixer, {in_caps}, canvas);
        for (int i = 0; i < frames; ++i)
            composition.push(0, timed(flat_frame(in_caps, {50 + i, 128, 128, 0}), static_cast<guint64>(i), duration));
        composition.end(0);
        for (GstClockTime start = 0; start < 400 * GST_MSECOND; start += kFrameTime) {
            const BufferPtr output = composition.pull();
            ASSERT_TRUE(output);
            EXPECT_EQ(GST_BUFFER_PTS(output.get()), start);
            // The newest that has begun by the end of the canvas's time.
            const auto newest = static_cast<int>((start + kFrameTime - 1) / duration);
            EXPECT_EQ(Frame(output.get(), canvas).at(0, 3, 3), 50 + newest) << start / GST_MSECOND;
        }
        EXPECT_FALSE(composition.pull());
    }
}

TEST_F(Composer, InputsThatEndWithoutAFrameEndTheCanvas)
{
    const std::string caps = video_caps(size_caps("NV12", 32, 32));
    const Composition composition(kMixer, {caps, caps}, caps);
    composition.end(0);
    composition.end(1);
    EXPECT_FALSE(composition.pull());
    EXPECT_TRUE(composition.is_at_end());
}

TEST_F(Composer, NewCapsOfAnInputAreFollowed)
{
    const std::string canvas = video_caps(size_caps("NV12", 64, 48));
    const Composition composition(kMixer, {canvas}, canvas);
    int number = 0;
    for (const auto& [format, width, height] : {std::tuple{"NV12", 64, 48}, std::tuple{"RGB", 33, 21},
                                                std::tuple{"BGRA", 64, 48}, std::tuple{"NV12", 128, 96}}) {
        const std::string caps = video_caps(size_caps(format, width, height));
        const CapsPtr parsed(gst_caps_from_string(caps.c_str()));
        gst_app_src_set_caps(GST_APP_SRC(composition.source(0).get()), parsed.get());
        const bool is_rgb = format[0] != 'N';
        const std::array<int, 4> grey = is_rgb ? std::array{128, 128, 128, 255} : std::array{126, 128, 128, 0};
        composition.push(0, timed(flat_frame(caps, grey), static_cast<guint64>(number++)));
    }
    composition.end(0);
    for (int i = 0; i < number; ++i) {
        const BufferPtr output = composition.pull();
        ASSERT_TRUE(output) << i;
        const Frame frame(output.get(), canvas);
        for (const auto& [x, y] : {std::pair{0, 0}, std::pair{63, 47}, std::pair{30, 20}})
            EXPECT_NEAR(frame.at(0, x, y), 126, 1) << i;
    }
}

TEST_F(Composer, FlowsAgainAfterAFlush)
{
    const std::string caps = video_caps(size_caps("NV12", 32, 32));
    const Composition composition(kMixer, {caps}, caps);
    for (int round = 0; round < 5; ++round) {
        composition.push(0, timed(flat_frame(caps, {50 + round, 128, 128, 0}), 0));
        composition.push(0, timed(flat_frame(caps, {50 + round, 128, 128, 0}), 1));
        const BufferPtr output = composition.pull();
        ASSERT_TRUE(output) << round;
        EXPECT_EQ(Frame(output.get(), caps).at(0, 3, 3), 50 + round);
        // A flush while the pipeline still follows its sink's preroll would leave that sink paused.
        ASSERT_TRUE(composition.is_playing());
        const ElementPtr source = composition.source(0);
        ASSERT_TRUE(gst_element_send_event(source.get(), gst_event_new_flush_start()));
        ASSERT_TRUE(gst_element_send_event(source.get(), gst_event_new_flush_stop(TRUE)));
    }
}

const std::string kLiveSource = "appsrc format=time is-live=true do-timestamp=true";

TEST_F(Composer, LiveCanvasDoesNotWaitForAnInputThatIsAbsent)
{
    const std::string caps = video_caps(size_caps("NV12", 64, 48));
    const BufferPtr light = flat_frame(caps, {200, 128, 128, 0});
    const Composition composition(kMixer + place(0, 0, 0, 32, 48) + place(1, 32, 0, 32, 48), {caps, caps}, caps,
                                  kLiveSource);
    composition.push(0, BufferPtr(gst_buffer_copy(light.get())));
    for (int i = 0; i < 10; ++i)
        ASSERT_TRUE(composition.pull()) << i;
    // The one that was late appears, and goes again when it ends; the other one stands still.
    bool has_come = false;
    for (int i = 0; i < 200 && !has_come; ++i) {
        composition.push(1, BufferPtr(gst_buffer_copy(light.get())));
        const BufferPtr output = composition.pull();
        ASSERT_TRUE(output);
        has_come = Frame(output.get(), caps).at(0, 40, 5) == 200;
    }
    EXPECT_TRUE(has_come);
    composition.end(1);
    bool has_gone = false;
    for (int i = 0; i < 500 && !has_gone; ++i) {
        const BufferPtr output = composition.pull();
        ASSERT_TRUE(output);
        EXPECT_EQ(Frame(output.get(), caps).at(0, 5, 5), 200);
        has_gone = Frame(output.get(), caps).at(0, 40, 5) == 16;
    }
    EXPECT_TRUE(has_gone);
}

TEST_F(Composer, LiveLatencyIsOneFrameMoreThanUpstreams)
{
    const std::string caps = video_caps(size_caps("NV12", 64, 48));
    const Composition composition(kMixer, {caps}, caps, kLiveSource + " min-latency=100000000");
    composition.push(0, flat_frame(caps, {200, 128, 128, 0}));
    ASSERT_TRUE(composition.pull());
    GstQuery* query = gst_query_new_latency();
    ASSERT_TRUE(gst_element_query(composition.element("mixer").get(), query));
    gboolean is_live = FALSE;
    GstClockTime least = 0;
    gst_query_parse_latency(query, &is_live, &least, nullptr);
    gst_query_unref(query);
    EXPECT_TRUE(is_live);
    EXPECT_EQ(least, 140 * GST_MSECOND);
}

TEST_F(Composer, PadComesAndGoesWhileTheCanvasIsDrawn)
{
    const std::string caps = video_caps(size_caps("NV12", 64, 48));
    const Composition composition(kMixer, {caps}, caps, kLiveSource);
    composition.push(0, flat_frame(caps, {200, 128, 128, 0}));
    const ElementPtr mixer = composition.element("mixer");
    for (int round = 0; round < 20; ++round) {
        const PadPtr pad = request_pad(mixer);
        ASSERT_TRUE(pad);
        ASSERT_TRUE(composition.pull());
        gst_element_release_request_pad(mixer.get(), pad.get());
    }
    EXPECT_EQ(mixer->numsinkpads, 1);
}

TEST_F(Composer, ThousandStartsAndStopsKeepTheHeapFlat)
{
    const std::string caps = video_caps(size_caps("NV12", 64, 48));
    const std::string mask_caps = video_caps(size_caps("BGRA", 64, 48));
    const BufferPtr input = make_frame(caps);
    const BufferPtr mask = make_frame(mask_caps);
    double after_warm_up = 0;
    const auto heap_in_use = [] {
        const struct mallinfo2 info = mallinfo2();
        return static_cast<double>(info.uordblks + info.hblkhd);
    };
    for (int round = 0; round < 1000; ++round) {
        if (round == 100) after_warm_up = heap_in_use();
        ASSERT_TRUE(compose(kMixer, {caps, mask_caps}, caps, {&input, &mask})) << round;
    }
    // One leaked frame a round would be 4 MB.
    EXPECT_LT(heap_in_use() - after_warm_up, 1.5e6);
}

} // namespace
