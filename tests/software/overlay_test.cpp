#include "temporary_folder.h"
#include "video_frames.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <malloc.h>

namespace {

using namespace velstream::test;

/// With a folder of its own for pictures.
class Overlay : public testing::Test {
protected:
    static void SetUpTestSuite() { gst_init(nullptr, nullptr); }

    /// A file of nothing but pixels, all of one colour.
    std::string raw_picture(int width, int height, std::array<int, 4> rgba) const
    {
        std::string path = folder_ + "/raw.rgba";
        std::ofstream file(path, std::ios::binary);
        for (int i = 0; i < width * height; ++i)
            for (const int value : rgba)
                file.put(static_cast<char>(value));
        return path;
    }
    std::string png_picture(int width, int height) const
    {
        std::string path = folder_ + "/logo.png";
        const std::string launch = "videotestsrc num-buffers=1 pattern=solid-color foreground-color=0xff14c828 ! " +
                                   video_caps(size_caps("RGBA", width, height)) +
                                   " ! pngenc ! filesink location=" + path;
        GstElement* pipeline = gst_parse_launch(launch.c_str(), nullptr);
        gst_element_set_state(pipeline, GST_STATE_PLAYING);
        GstBus* bus = gst_element_get_bus(pipeline);
        GstMessage* message = gst_bus_timed_pop_filtered(
            bus, 60 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
        EXPECT_TRUE(message && GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS);
        if (message) gst_message_unref(message);
        gst_object_unref(bus);
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(pipeline);
        return path;
    }

    const velstream::testing::TemporaryFolder own_folder_;
    const std::string folder_ = own_folder_.path();
};

std::string image_text(const std::string& path, const std::string& resolution, const std::string& destination)
{
    return "{(structure)\"Image1,path=" + path + ",resolution=<" + resolution + ">,destination=<" + destination +
           ">;\"}";
}

std::string string_text(const std::string& contents, int size, const std::string& position,
                        const std::string& colour = "0xFF0000FF")
{
    return "{(structure)\"text1,contents=\\\"" + contents + "\\\",fontsize=" + std::to_string(size) + ",position=<" +
           position + ">,color=" + colour + ";\"}";
}

BufferPtr grey_frame(const std::string& caps)
{
    BufferPtr buffer = make_frame(caps);
    const Frame frame(buffer.get(), caps, GST_MAP_READWRITE);
    for (int c = 0; c < frame.components(); ++c)
        for (int y = 0; y < frame.height(c); ++y)
            for (int x = 0; x < frame.width(c); ++x)
                frame.at(c, x, y) = c == 3 ? 255 : 128;
    return buffer;
}

BufferPtr draw(const std::string& caps, const std::string& images, const std::string& strings, const BufferPtr& input)
{
    const HarnessPtr harness = make_harness("qtivoverlay", caps, caps);
    g_object_set(element_of(harness), "images", images.c_str(), "strings", strings.c_str(), nullptr);
    return push_and_pull(harness, input);
}

/// The smallest rectangle around what differs from grey: left, top, right, bottom; right 0: nothing does.
std::array<int, 4> drawn_area(const BufferPtr& buffer, const std::string& caps)
{
    const Frame frame(buffer.get(), caps);
    std::array<int, 4> area{frame.width(), frame.height(), 0, 0};
    for (int y = 0; y < frame.height(); ++y)
        for (int x = 0; x < frame.width(); ++x) {
            if (frame.at(0, x, y) == 128) continue;
            area = {std::min(area[0], x), std::min(area[1], y), std::max(area[2], x + 1), std::max(area[3], y + 1)};
        }
    return area;
}

const std::string kRgb = video_caps(size_caps("RGB", 320, 240));
const std::string kNv12 = video_caps(size_caps("NV12", 320, 240));

TEST_F(Overlay, NothingToDrawPassesTheFrameItself)
{
    const BufferPtr input = grey_frame(kNv12);
    EXPECT_EQ(draw(kNv12, "", "", input).get(), input.get());
}

TEST_F(Overlay, PixelsOfARawFileStandWhereTheyArePut)
{
    const std::string path = raw_picture(30, 20, {20, 200, 40, 255});
    for (const char* format : {"RGB", "BGR", "RGBA", "BGRx", "ARGB", "xBGR"}) {
        const std::string caps = video_caps(size_caps(format, 101, 75), "(memory:GBM)");
        const BufferPtr output = draw(caps, image_text(path, "30,20", "11,13,30,20"), "", grey_frame(caps));
        const Frame frame(output.get(), caps);
        for (int y = 0; y < 75; ++y)
            for (int x = 0; x < 101; ++x)
                for (int c = 0; c < 3; ++c) {
                    const bool is_inside = x >= 11 && x < 41 && y >= 13 && y < 33;
                    ASSERT_EQ(frame.at(c, x, y),
                              is_inside ? (std::array{20, 200, 40}[static_cast<std::size_t>(c)]) : 128)
                        << format << " " << x << "," << y;
                }
    }
}

TEST_F(Overlay, YuvFramesAreDrawnOnWithTheirOwnColours)
{
    const std::string path = raw_picture(30, 20, {20, 200, 40, 255});
    for (const char* format : {"NV12", "NV21", "I420", "YUY2"}) {
        for (const char* colorimetry : {"bt601", "bt709"}) {
            const std::string caps = video_caps(size_caps(format, 102, 75) + ",colorimetry=" + colorimetry);
            const std::string rgb = video_caps(size_caps("RGB", 102, 75));
            const BufferPtr drawn = draw(caps, image_text(path, "30,20", "11,13,30,20"), "", grey_frame(caps));
            const BufferPtr output = convert("qtivtransform", caps, rgb, drawn);
            const Frame frame(output.get(), rgb);
            for (int c = 0; c < 3; ++c) {
                EXPECT_NEAR(frame.at(c, 25, 22), (std::array{20, 200, 40}[static_cast<std::size_t>(c)]), 3) << format;
                EXPECT_NEAR(frame.at(c, 5, 5), 130, 1) << format;
            }
            // Luma has sharp edges also where two pixels share their chroma.
            const Frame yuv(drawn.get(), caps);
            EXPECT_EQ(yuv.at(0, 10, 20), 128);
            EXPECT_EQ(yuv.at(0, 41, 20), 128);
            EXPECT_NEAR(yuv.at(0, 11, 20), yuv.at(0, 25, 22), 1);
            EXPECT_NEAR(yuv.at(0, 40, 20), yuv.at(0, 25, 22), 1);
        }
    }
}

TEST_F(Overlay, TransparentPixelsAreBlended)
{
    const std::string path = raw_picture(16, 16, {255, 0, 64, 51});
    const BufferPtr output = draw(kRgb, image_text(path, "16,16", "10,10,16,16"), "", grey_frame(kRgb));
    const Frame frame(output.get(), kRgb);
    EXPECT_NEAR(frame.at(0, 15, 15), (255 * 51 + 128 * 204) / 255, 1);
    EXPECT_NEAR(frame.at(1, 15, 15), 128 * 204 / 255, 1);
    EXPECT_NEAR(frame.at(2, 15, 15), (64 * 51 + 128 * 204) / 255, 1);
}

TEST_F(Overlay, PngIsScaledToItsDestination)
{
    const std::string path = png_picture(40, 20);
    const BufferPtr output = draw(kRgb, image_text(path, "40,20", "33,47,121,63"), "", grey_frame(kRgb));
    EXPECT_EQ(drawn_area(output, kRgb), (std::array{33, 47, 33 + 121, 47 + 63}));
    const Frame frame(output.get(), kRgb);
    for (const auto& [x, y] : {std::pair{33, 47}, std::pair{153, 109}, std::pair{90, 80}}) {
        EXPECT_NEAR(frame.at(0, x, y), 0x14, 1);
        EXPECT_NEAR(frame.at(1, x, y), 0xc8, 1);
        EXPECT_NEAR(frame.at(2, x, y), 0x28, 1);
    }
    const BufferPtr natural = draw(kRgb, image_text(path, "0,0", "5,6,0,0"), "", grey_frame(kRgb));
    EXPECT_EQ(drawn_area(natural, kRgb), (std::array{5, 6, 45, 26}));
}

TEST_F(Overlay, PartOutsideOfTheFrameIsCutOff)
{
    const std::string path = raw_picture(30, 20, {20, 200, 40, 255});
    for (const std::string& caps : {kRgb, kNv12}) {
        const BufferPtr left = draw(caps, image_text(path, "30,20", "-11,-7,30,20"), "", grey_frame(caps));
        EXPECT_EQ(drawn_area(left, caps), (std::array{0, 0, 19, 13}));
        const BufferPtr right = draw(caps, image_text(path, "30,20", "311,231,30,20"), "", grey_frame(caps));
        EXPECT_EQ(drawn_area(right, caps), (std::array{311, 231, 320, 240}));
        const BufferPtr nowhere = draw(caps, image_text(path, "30,20", "5000,0,30,20"), "", grey_frame(caps));
        EXPECT_EQ(drawn_area(nowhere, caps)[2], 0);
    }
}

TEST_F(Overlay, TextStandsAtItsPositionInItsSizeAndColour)
{
    const BufferPtr output = draw(kRgb, "", string_text("HHH", 40, "50,60"), grey_frame(kRgb));
    const auto area = drawn_area(output, kRgb);
    EXPECT_GE(area[0], 50);
    EXPECT_LE(area[0], 60);
    EXPECT_GE(area[1], 60);
    EXPECT_LE(area[3], 60 + 56);
    EXPECT_NEAR(area[3] - area[1], 29, 4) << "capitals are some seven tenths of the size";
    const Frame frame(output.get(), kRgb);
    int red = 0;
    for (int y = area[1]; y < area[3]; ++y)
        for (int x = area[0]; x < area[2]; ++x)
            red += frame.at(0, x, y) == 255 && frame.at(1, x, y) == 0 && frame.at(2, x, y) == 0;
    EXPECT_GT(red, 200);
    const auto twice = drawn_area(draw(kRgb, "", string_text("HHH", 80, "50,60"), grey_frame(kRgb)), kRgb);
    EXPECT_NEAR(twice[3] - twice[1], 2 * (area[3] - area[1]), 4);
}

TEST_F(Overlay, ColourIsReadWithItsAlphaAndInEveryIntegerType)
{
    const auto brightest = [](const std::string& colour) {
        const BufferPtr output = draw(kRgb, "", string_text("HHH", 60, "10,10", colour), grey_frame(kRgb));
        const Frame frame(output.get(), kRgb);
        int most = 0;
        for (int y = 0; y < 240; ++y)
            for (int x = 0; x < 320; ++x)
                most = std::max<int>(most, frame.at(2, x, y));
        return most;
    };
    EXPECT_EQ(brightest("0x0000FFFF"), 255);
    EXPECT_EQ(brightest("(uint)0xFF00FFFF"), 255);
    EXPECT_NEAR(brightest("0x0000FF80"), 192, 2);
    EXPECT_EQ(brightest("0x0000FF00"), 128);
}

TEST_F(Overlay, TextMayHoldAnyUtf8AndLookLikeANumber)
{
    for (const char* contents : {"Cam, a: b 50% {x}", "Grüße", "25", "北京", "a\xff\xfe", "ÅÄÖ €"}) {
        const BufferPtr output = draw(kNv12, "", string_text(contents, 30, "10,10"), grey_frame(kNv12));
        EXPECT_GT(drawn_area(output, kNv12)[2], 0) << contents;
    }
    EXPECT_EQ(drawn_area(draw(kNv12, "", string_text("", 30, "10,10"), grey_frame(kNv12)), kNv12)[2], 0);
    const auto wide =
        drawn_area(draw(kNv12, "", string_text(std::string(2000, 'W'), 30, "10,10"), grey_frame(kNv12)), kNv12);
    EXPECT_EQ(wide[2], 320);
}

TEST_F(Overlay, SharedInputIsNotWrittenTo)
{
    const BufferPtr input = grey_frame(kNv12);
    const BufferPtr output = draw(kNv12, "", string_text("HHH", 40, "5,5"), input);
    EXPECT_GT(drawn_area(output, kNv12)[2], 0);
    EXPECT_EQ(drawn_area(input, kNv12)[2], 0);
}

TEST_F(Overlay, PropertiesChangeARunningStream)
{
    const HarnessPtr harness = make_harness("qtivoverlay", kNv12, kNv12);
    const BufferPtr input = grey_frame(kNv12);
    EXPECT_EQ(push_and_pull(harness, input).get(), input.get());
    g_object_set(element_of(harness), "strings", string_text("HHH", 40, "5,5").c_str(), nullptr);
    EXPECT_GT(drawn_area(push_and_pull(harness, input), kNv12)[2], 0);
    g_object_set(element_of(harness), "strings", string_text("HHH", 40, "105,5").c_str(), nullptr);
    EXPECT_GE(drawn_area(push_and_pull(harness, input), kNv12)[0], 105);
    g_object_set(element_of(harness), "strings", "", nullptr);
    EXPECT_EQ(push_and_pull(harness, input).get(), input.get());
}

TEST_F(Overlay, PicturesAreMadeAgainOnlyWhenAPropertyChanges)
{
    const std::string path = raw_picture(30, 20, {20, 200, 40, 255});
    const HarnessPtr harness = make_harness("qtivoverlay", kNv12, kNv12);
    const std::string images = image_text(path, "30,20", "11,13,30,20");
    g_object_set(element_of(harness), "images", images.c_str(), nullptr);
    EXPECT_GT(drawn_area(push_and_pull(harness, grey_frame(kNv12)), kNv12)[2], 0);
    std::filesystem::remove(path);
    EXPECT_GT(drawn_area(push_and_pull(harness, grey_frame(kNv12)), kNv12)[2], 0);
    g_object_set(element_of(harness), "images", images.c_str(), nullptr);
    EXPECT_EQ(drawn_area(push_and_pull(harness, grey_frame(kNv12)), kNv12)[2], 0);
}

TEST_F(Overlay, NewCapsInMidStreamAreFollowed)
{
    const HarnessPtr harness = make_harness("qtivoverlay", kNv12, "");
    g_object_set(element_of(harness), "strings", string_text("HHH", 40, "5,5").c_str(), nullptr);
    for (const auto& [format, width, height] : {std::tuple{"NV12", 320, 240}, std::tuple{"RGB", 643, 241},
                                                std::tuple{"BGRA", 64, 48}, std::tuple{"I420", 33, 17}}) {
        const std::string caps = video_caps(size_caps(format, width, height));
        gst_harness_set_src_caps_str(harness.get(), caps.c_str());
        const BufferPtr output = push_and_pull(harness, grey_frame(caps));
        ASSERT_TRUE(output) << format;
        EXPECT_GT(drawn_area(output, caps)[2], 0) << format;
    }
}

/// The warning that the element posted, empty: none.
std::string warning_of(const std::string& images, const std::string& strings)
{
    const HarnessPtr harness = make_harness("qtivoverlay", kNv12, kNv12);
    GstBus* bus = gst_bus_new();
    gst_element_set_bus(harness->element, bus);
    g_object_set(element_of(harness), "images", images.c_str(), "strings", strings.c_str(), nullptr);
    const BufferPtr input = grey_frame(kNv12);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(push_and_pull(harness, input).get(), input.get()) << "video goes on untouched";
    std::string text;
    int count = 0;
    while (GstMessage* message = gst_bus_pop_filtered(bus, GST_MESSAGE_WARNING)) {
        GError* error = nullptr;
        gst_message_parse_warning(message, &error, nullptr);
        text = error->message;
        g_error_free(error);
        gst_message_unref(message);
        ++count;
    }
    EXPECT_LE(count, 1) << "it is said once, not for each frame";
    gst_element_set_bus(harness->element, nullptr);
    gst_object_unref(bus);
    return text;
}

TEST_F(Overlay, PictureThatCannotBeReadIsAWarning)
{
    const std::string absent = folder_ + "/absent.png";
    EXPECT_NE(warning_of(image_text(absent, "10,10", "0,0,10,10"), "").find(absent), std::string::npos);
    const std::string wrong_size = raw_picture(5, 5, {1, 2, 3, 4});
    EXPECT_NE(warning_of(image_text(wrong_size, "10,10", "0,0,10,10"), "").find(wrong_size), std::string::npos);
    const std::string broken = folder_ + "/broken.png";
    std::ofstream(broken, std::ios::binary) << "\x89PNG\r\n\x1a\n and then nothing that is a picture";
    EXPECT_NE(warning_of(image_text(broken, "10,10", "0,0,10,10"), "").find(broken), std::string::npos);
    EXPECT_NE(warning_of(image_text(folder_, "10,10", "0,0,10,10"), "").find(folder_), std::string::npos);
}

TEST_F(Overlay, TextThatIsNoListIsAWarning)
{
    EXPECT_NE(warning_of("nonsense", "").find("images"), std::string::npos);
    EXPECT_NE(warning_of("{(structure)\"Image1,path=,resolution=<1,1>;\"}", "").find("images"), std::string::npos);
    EXPECT_NE(warning_of("", "{(structure)\"text1,color=;\"}").find("strings"), std::string::npos);
    EXPECT_EQ(warning_of("", "{(structure)\"text1;\"}"), "");
}

TEST_F(Overlay, LaunchStringDrawsPictureAndText)
{
    const std::string path = raw_picture(100, 50, {20, 200, 40, 255});
    const std::string launch = "identity ! qtivoverlay images=\"{(structure)\\\"Image1,path=" + path +
                               ",resolution=<100,50>,destination=<10,10,100,50>;\\\"}\" "
                               "strings=\"{(structure)\\\"text1,contents=\\\\\\\"Cam "
                               "1\\\\\\\",fontsize=24,position=<150,120>,color=0xFF0000FF;"
                               "\\\"}\"  ! identity";
    const BufferPtr output = convert(launch.c_str(), kRgb, kRgb, grey_frame(kRgb));
    ASSERT_TRUE(output);
    const Frame frame(output.get(), kRgb);
    EXPECT_EQ(frame.at(1, 20, 20), 200);
    EXPECT_EQ(drawn_area(output, kRgb)[0], 10);
    EXPECT_GT(drawn_area(output, kRgb)[2], 150);
    EXPECT_GT(drawn_area(output, kRgb)[3], 120);
}

TEST_F(Overlay, ThousandStartsAndStopsKeepTheHeapFlat)
{
    const std::string path = raw_picture(30, 20, {20, 200, 40, 255});
    const std::string caps = video_caps(size_caps("NV12", 64, 48));
    const BufferPtr input = grey_frame(caps);
    double after_warm_up = 0;
    const auto heap_in_use = [] {
        const struct mallinfo2 info = mallinfo2();
        return static_cast<double>(info.uordblks + info.hblkhd);
    };
    for (int round = 0; round < 1000; ++round) {
        if (round == 100) after_warm_up = heap_in_use();
        ASSERT_TRUE(draw(caps, image_text(path, "30,20", "5,5,40,30"), string_text("HHH", 20, "5,5"), input)) << round;
    }
    // One leaked frame or picture a round would be 4 MB.
    EXPECT_LT(heap_in_use() - after_warm_up, 1.5e6);
}

} // namespace
