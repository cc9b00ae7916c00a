#include "video_frames.h"

#include <gtest/gtest.h>

#include <atomic>
#include <malloc.h>
#include <thread>

namespace {

using namespace velstream::test;

constexpr double kAgreementDb = 40.0;

class VTransform : public testing::Test {
protected:
    static void SetUpTestSuite() { gst_init(nullptr, nullptr); }
};

struct Conversion {
    const char* in;
    const char* out;
    const char* colorimetry;
    int width, height;
};

std::string side_caps(const char* format, const Conversion& conversion)
{
    const std::string caps = video_caps(size_caps(format, conversion.width, conversion.height));
    const std::string name = format;
    const bool is_yuv = name == "NV12" || name == "NV21" || name == "I420" || name == "YUY2";
    return is_yuv ? caps + ",colorimetry=" + conversion.colorimetry : caps;
}

double agreement(const Conversion& conversion)
{
    const std::string in_caps = side_caps(conversion.in, conversion);
    const std::string out_caps = side_caps(conversion.out, conversion);
    const BufferPtr input = make_frame(in_caps);
    // From I420 to RGB the stock converter has short cuts that repeat chroma samples; from NV12 it interpolates.
    const bool has_short_cut = std::string(conversion.in) == "I420";
    const char* reference = has_short_cut ? "videoconvert ! video/x-raw,format=NV12 ! videoconvert" : "videoconvert";
    const BufferPtr expected = convert(reference, in_caps, out_caps, input);
    const BufferPtr actual = convert("qtivtransform", in_caps, out_caps, input);
    return psnr(actual.get(), expected.get(), out_caps);
}

constexpr const char* kYuvFormats[] = {"NV12", "NV21", "I420", "YUY2"};
constexpr const char* kRgbFormats[] = {"RGB", "BGR", "RGBA", "BGRA", "RGBx", "BGRx", "ARGB", "ABGR", "xRGB", "xBGR"};
// bt601, bt709, and both with full range.
constexpr const char* kColorimetries[] = {"bt601", "bt709", "1:4:5:1", "1:3:5:1"};

TEST_F(VTransform, YuvToRgbAgreesWithStockConverter)
{
    for (const char* in : kYuvFormats)
        for (const char* out : kRgbFormats)
            for (const char* colorimetry : kColorimetries)
                EXPECT_GE(agreement({in, out, colorimetry, 322, 242}), kAgreementDb)
                    << in << " " << out << " " << colorimetry;
}

TEST_F(VTransform, RgbToYuvAgreesWithStockConverter)
{
    for (const char* in : kRgbFormats)
        for (const char* out : kYuvFormats)
            for (const char* colorimetry : kColorimetries)
                EXPECT_GE(agreement({in, out, colorimetry, 322, 242}), kAgreementDb)
                    << in << " " << out << " " << colorimetry;
}

TEST_F(VTransform, LayoutChangesAgreeWithStockConverter)
{
    for (const char* in : kYuvFormats)
        for (const char* out : kYuvFormats)
            EXPECT_GE(agreement({in, out, "bt601", 322, 242}), kAgreementDb) << in << " " << out;
    for (const char* in : kRgbFormats)
        for (const char* out : kRgbFormats)
            EXPECT_EQ(agreement({in, out, "", 322, 242}), INFINITY) << in << " " << out;
}

/// Saturated bars, 9 pixels wide: their edges show where a chroma sample is taken to lie.
BufferPtr make_bars(const std::string& caps_text)
{
    BufferPtr buffer = make_frame(caps_text);
    const Frame frame(buffer.get(), caps_text, GST_MAP_READWRITE);
    for (int c = 0; c < 3; ++c) {
        const int step = frame.width(0) > frame.width(c) ? 2 : 1;
        for (int y = 0; y < frame.height(c); ++y)
            for (int x = 0; x < frame.width(c); ++x)
                frame.at(c, x, y) = (x * step / 9 + c) % 2 ? 190 : 70;
    }
    return buffer;
}

TEST_F(VTransform, ChromaLiesWhereStockConverterPutsIt)
{
    // On the even pixels (mpeg2), or between two pixels (jpeg).
    for (const char* site : {"mpeg2", "jpeg"}) {
        const std::string yuv_caps = video_caps(size_caps("NV12", 640, 480) + ",colorimetry=bt709,chroma-site=" + site);
        const std::string rgb_caps = video_caps(size_caps("RGB", 640, 480));
        for (const auto& [in_caps, out_caps] : {std::pair{yuv_caps, rgb_caps}, std::pair{rgb_caps, yuv_caps}}) {
            const BufferPtr input = make_bars(in_caps);
            const BufferPtr expected = convert("videoconvert", in_caps, out_caps, input);
            const BufferPtr actual = convert("qtivtransform", in_caps, out_caps, input);
            EXPECT_GE(psnr(actual.get(), expected.get(), out_caps), kAgreementDb) << site << " from " << in_caps;
        }
    }
}

TEST_F(VTransform, OddSizesAgreeWithStockConverter)
{
    for (const auto& [width, height] : {std::pair{641, 359}, std::pair{33, 17}, std::pair{319, 241}}) {
        EXPECT_GE(agreement({"NV12", "RGB", "bt709", width, height}), kAgreementDb) << width;
        EXPECT_GE(agreement({"I420", "BGRx", "bt601", width, height}), kAgreementDb) << width;
        EXPECT_GE(agreement({"RGB", "NV12", "bt709", width, height}), kAgreementDb) << width;
        EXPECT_GE(agreement({"BGRA", "I420", "bt601", width, height}), kAgreementDb) << width;
        EXPECT_GE(agreement({"YUY2", "RGB", "bt601", width, height}), kAgreementDb) << width;
    }
}

TEST_F(VTransform, SmallestSizesConvert)
{
    for (const auto& [width, height] : {std::pair{1, 1}, std::pair{2, 1}, std::pair{1, 3}, std::pair{3, 2}}) {
        for (const char* in : {"NV12", "I420", "YUY2", "RGB", "BGRA"}) {
            for (const char* out : {"NV12", "NV21", "YUY2", "RGB", "RGBA"}) {
                const Conversion conversion{in, out, "bt601", width, height};
                const BufferPtr input = make_frame(side_caps(in, conversion));
                const BufferPtr output =
                    convert("qtivtransform", side_caps(in, conversion), side_caps(out, conversion), input);
                EXPECT_TRUE(output) << in << " " << out << " " << width << "x" << height;
            }
        }
    }
}

TEST_F(VTransform, ColorimetryAloneIsConverted)
{
    for (const auto& [in, out] : {std::pair{"bt709", "bt601"}, std::pair{"bt601", "bt709"}}) {
        const std::string size = size_caps("NV12", 320, 240);
        const std::string in_caps = video_caps(size + ",colorimetry=" + in);
        const std::string out_caps = video_caps(size + ",colorimetry=" + out);
        const BufferPtr input = make_frame(in_caps);
        const BufferPtr expected = convert("videoconvert", in_caps, out_caps, input);
        const BufferPtr actual = convert("qtivtransform", in_caps, out_caps, input);
        EXPECT_GE(psnr(actual.get(), expected.get(), out_caps), kAgreementDb) << in << " " << out;
        EXPECT_LT(psnr(actual.get(), input.get(), out_caps), kAgreementDb) << "nothing was converted";
    }
}

TEST_F(VTransform, WhiteAndBlackAreExactInBothRanges)
{
    for (const auto& [colorimetry, white, black] :
         {std::tuple{"bt601", 235, 16}, std::tuple{"bt709", 235, 16}, std::tuple{"1:4:5:1", 255, 0}}) {
        for (const int level : {white, black}) {
            const std::string in_caps = video_caps(size_caps("NV12", 64, 16) + ",colorimetry=" + colorimetry);
            const std::string out_caps = video_caps(size_caps("RGB", 64, 16));
            const BufferPtr input = make_frame(in_caps);
            gst_buffer_memset(input.get(), 0, static_cast<guint8>(level), 64 * 16);
            gst_buffer_memset(input.get(), 64 * 16, 128, 64 * 8);
            const BufferPtr rgb = convert("qtivtransform", in_caps, out_caps, input);
            const Frame frame(rgb.get(), out_caps);
            for (int c = 0; c < 3; ++c)
                EXPECT_EQ(frame.at(c, 63, 15), level == white ? 255 : 0) << colorimetry;
            const BufferPtr back = convert("qtivtransform", out_caps, in_caps, rgb);
            EXPECT_EQ(psnr(back.get(), input.get(), in_caps), INFINITY) << colorimetry;
        }
    }
}

TEST_F(VTransform, PaddedInputRowsAreRead)
{
    for (const char* format : {"NV12", "I420", "RGB", "BGRA", "YUY2"}) {
        const std::string in_caps = video_caps(size_caps(format, 322, 42));
        const std::string out_caps = video_caps(size_caps("RGBx", 322, 42));
        const BufferPtr plain = convert("qtivtransform", in_caps, out_caps, make_frame(in_caps));
        for (const int padding : {0, 30}) {
            const BufferPtr padded = convert("qtivtransform", in_caps, out_caps, make_frame(in_caps, padding));
            EXPECT_EQ(psnr(plain.get(), padded.get(), out_caps), INFINITY) << format << " " << padding;
        }
    }
}

void expect_tight_rows(GstBuffer* buffer, int width, int height)
{
    const GstVideoMeta* meta = gst_buffer_get_video_meta(buffer);
    ASSERT_NE(meta, nullptr) << width;
    EXPECT_EQ(meta->stride[0], 3 * width);
    EXPECT_EQ(gst_buffer_get_size(buffer), static_cast<gsize>(3) * width * height);
}

TEST_F(VTransform, RgbOutputHasTightRows)
{
    for (const char* format : {"RGB", "BGR"}) {
        for (const int width : {854, 1366, 642, 641, 1, 7, 640}) {
            const std::string in_caps = video_caps(size_caps("NV12", width, 18));
            const std::string out_caps = video_caps(size_caps(format, width, 18));
            const BufferPtr input = make_frame(in_caps);
            const BufferPtr output = convert("qtivtransform", in_caps, out_caps, input);
            expect_tight_rows(output.get(), width, 18);
            const std::string reference_caps = video_caps(size_caps("RGBx", width, 18));
            const BufferPtr reference = convert("qtivtransform", in_caps, reference_caps, input);
            const Frame actual(output.get(), out_caps);
            const Frame expected(reference.get(), reference_caps);
            for (int c = 0; c < 3; ++c)
                for (int y = 0; y < 18; ++y)
                    for (int x = 0; x < width; ++x)
                        ASSERT_EQ(actual.at(c, x, y), expected.at(c, x, y)) << format << width << " " << x << "," << y;
        }
    }
}

TEST_F(VTransform, RgbRowsStayTightWhereDownstreamOffersAnotherPool)
{
    const std::string in_caps = video_caps(size_caps("NV12", 854, 48));
    const std::string out_caps = video_caps(size_caps("RGB", 854, 48));
    HarnessPtr harness(gst_harness_new_parse("qtivtransform"));
    const CapsPtr caps(gst_caps_from_string(out_caps.c_str()));
    const GstVideoInfo info = info_of(out_caps);
    GstBufferPool* pool = gst_video_buffer_pool_new();
    GstStructure* config = gst_buffer_pool_get_config(pool);
    gst_buffer_pool_config_set_params(config, caps.get(), static_cast<guint>(info.size), 2, 0);
    gst_buffer_pool_set_config(pool, config);
    gst_pad_set_query_function_full(
        harness->sinkpad,
        [](GstPad* pad, GstObject* parent, GstQuery* query) -> gboolean {
            if (GST_QUERY_TYPE(query) != GST_QUERY_ALLOCATION) {
                if (GST_QUERY_TYPE(query) != GST_QUERY_CAPS) return gst_pad_query_default(pad, parent, query);
                const CapsPtr rgb(gst_caps_from_string("video/x-raw,format=RGB"));
                gst_query_set_caps_result(query, rgb.get());
                return TRUE;
            }
            gst_query_add_allocation_pool(query, static_cast<GstBufferPool*>(pad->querydata), 854 * 48 * 4, 2, 0);
            return TRUE;
        },
        pool, nullptr);
    gst_harness_set_src_caps_str(harness.get(), in_caps.c_str());
    const BufferPtr output = push_and_pull(harness, make_frame(in_caps));
    ASSERT_TRUE(output);
    expect_tight_rows(output.get(), 854, 48);
    EXPECT_NE(output->pool, pool);
    harness.reset();
    gst_object_unref(pool);
}

TEST_F(VTransform, PaddedRgbComesOutTight)
{
    for (const int width : {854, 642, 641, 640}) {
        const std::string caps = video_caps(size_caps("RGB", width, 16));
        const BufferPtr input = make_frame(caps, width == 640 ? 64 : -1);
        const BufferPtr output = convert("qtivtransform", caps, caps, input);
        EXPECT_NE(output.get(), input.get());
        expect_tight_rows(output.get(), width, 16);
        EXPECT_EQ(psnr(output.get(), input.get(), caps), INFINITY);
    }
}

TEST_F(VTransform, TightRgbWithoutMetaIsRead)
{
    const std::string caps = video_caps(size_caps("RGB", 642, 16));
    const BufferPtr input = make_frame(caps, 0);
    const BufferPtr bare(gst_buffer_copy_deep(input.get()));
    gst_buffer_remove_meta(bare.get(), &gst_buffer_get_video_meta(bare.get())->meta);
    const BufferPtr output = convert("qtivtransform", caps, caps, bare);
    ASSERT_TRUE(output);
    expect_tight_rows(output.get(), 642, 16);
    EXPECT_EQ(psnr(output.get(), input.get(), caps), INFINITY);
}

TEST_F(VTransform, StockConverterUpstreamWritesTightRows)
{
    const std::string in_caps = video_caps(size_caps("YUY2", 854, 48));
    const std::string rgb_caps = video_caps(size_caps("RGB", 854, 48));
    const HarnessPtr harness = make_harness("videoconvert ! video/x-raw,format=RGB ! qtivtransform name=transform",
                                            in_caps, "video/x-raw,format=RGB");
    GstElement* transform = gst_bin_get_by_name(GST_BIN(harness->element), "transform");
    GstPad* pad = gst_element_get_static_pad(transform, "sink");
    static std::atomic<int> stride_seen{0};
    static std::atomic<gpointer> buffer_seen{nullptr};
    gst_pad_add_probe(
        pad, GST_PAD_PROBE_TYPE_BUFFER,
        [](GstPad*, GstPadProbeInfo* info, gpointer) {
            const GstVideoMeta* meta = gst_buffer_get_video_meta(GST_PAD_PROBE_INFO_BUFFER(info));
            stride_seen = meta ? meta->stride[0] : -1;
            buffer_seen = GST_PAD_PROBE_INFO_BUFFER(info);
            return GST_PAD_PROBE_OK;
        },
        nullptr, nullptr);
    gst_object_unref(pad);
    gst_object_unref(transform);
    const BufferPtr input = make_frame(in_caps);
    const BufferPtr output = push_and_pull(harness, input);
    EXPECT_EQ(stride_seen, 3 * 854);
    EXPECT_EQ(static_cast<gpointer>(output.get()), buffer_seen) << "tight rows need no copy";
    const BufferPtr expected = convert("videoconvert", in_caps, rgb_caps, input);
    EXPECT_EQ(psnr(output.get(), expected.get(), rgb_caps), INFINITY);
}

TEST_F(VTransform, SameCapsPassTheBufferItself)
{
    for (const char* format : {"NV12", "I420", "RGB", "BGRA"}) {
        const std::string caps = video_caps(size_caps(format, 640, 48));
        const BufferPtr input = make_frame(caps);
        const HarnessPtr harness = make_harness("qtivtransform", caps, "");
        const BufferPtr output = push_and_pull(harness, input);
        EXPECT_EQ(output.get(), input.get()) << format;
        EXPECT_NE(output_caps(harness).find(std::string("format=(string)") + format), std::string::npos);
    }
}

TEST_F(VTransform, MemoryFeatureAloneNeedsNoCopy)
{
    const std::string plain = video_caps(size_caps("NV12", 640, 48));
    const std::string gbm = video_caps(size_caps("NV12", 640, 48), "(memory:GBM)");
    for (const auto& [in, out] : {std::pair{plain, gbm}, std::pair{gbm, plain}}) {
        const HarnessPtr harness = make_harness("qtivtransform", in, out);
        const BufferPtr input = make_frame(in);
        const BufferPtr output = push_and_pull(harness, input);
        EXPECT_EQ(output.get(), input.get());
        const CapsPtr wanted(gst_caps_from_string(out.c_str()));
        const CapsPtr actual(gst_pad_get_current_caps(harness->sinkpad));
        EXPECT_TRUE(gst_caps_is_subset(actual.get(), wanted.get())) << output_caps(harness);
    }
}

TEST_F(VTransform, OpenDownstreamGetsPlainMemoryAndTheInputsValues)
{
    const HarnessPtr harness =
        make_harness("qtivtransform", video_caps(size_caps("NV12", 640, 48), "(memory:GBM)"), "");
    const BufferPtr output = push_and_pull(harness, make_frame(video_caps(size_caps("NV12", 640, 48))));
    ASSERT_TRUE(output);
    const std::string caps = output_caps(harness);
    EXPECT_EQ(caps.find("memory:"), std::string::npos) << caps;
    EXPECT_NE(caps.find("format=(string)NV12, width=(int)640, height=(int)48"), std::string::npos) << caps;
}

TEST_F(VTransform, MissingFieldsKeepTheInputsValues)
{
    const HarnessPtr harness =
        make_harness("qtivtransform", video_caps(size_caps("NV12", 640, 480)), "video/x-raw,width=320");
    const BufferPtr output = push_and_pull(harness, make_frame(video_caps(size_caps("NV12", 640, 480))));
    ASSERT_TRUE(output);
    const std::string caps = output_caps(harness);
    for (const char* part : {"format=(string)NV12", "width=(int)320", "height=(int)480", "framerate=(fraction)25/1"})
        EXPECT_NE(caps.find(part), std::string::npos) << part << " in " << caps;
}

TEST_F(VTransform, RgbOutputIsSrgb)
{
    const HarnessPtr harness = make_harness(
        "qtivtransform", video_caps(size_caps("NV12", 64, 48) + ",colorimetry=bt709"), "video/x-raw,format=RGB");
    const BufferPtr output = push_and_pull(harness, make_frame(video_caps(size_caps("NV12", 64, 48))));
    EXPECT_NE(output_caps(harness).find("colorimetry=(string)sRGB"), std::string::npos) << output_caps(harness);
}

TEST_F(VTransform, ScalingKeepsTheColoursOfTheInput)
{
    const HarnessPtr harness = make_harness("qtivtransform", video_caps(size_caps("NV12", 1280, 720)),
                                            "video/x-raw,format=NV12,width=320,height=180");
    const BufferPtr output = push_and_pull(harness, make_frame(video_caps(size_caps("NV12", 1280, 720))));
    ASSERT_TRUE(output);
    EXPECT_NE(output_caps(harness).find("colorimetry=(string)bt709"), std::string::npos) << output_caps(harness);
}

TEST_F(VTransform, TimesAndFlagsStay)
{
    const std::string in_caps = video_caps(size_caps("NV12", 64, 48));
    const HarnessPtr harness = make_harness("qtivtransform", in_caps, video_caps(size_caps("RGB", 64, 48)));
    const BufferPtr input = make_frame(in_caps);
    GST_BUFFER_PTS(input.get()) = 7 * GST_SECOND;
    GST_BUFFER_DTS(input.get()) = 6 * GST_SECOND;
    GST_BUFFER_DURATION(input.get()) = 40 * GST_MSECOND;
    GST_BUFFER_OFFSET(input.get()) = 175;
    GST_BUFFER_FLAG_SET(input.get(), GST_BUFFER_FLAG_DELTA_UNIT);
    const BufferPtr output = push_and_pull(harness, input);
    EXPECT_EQ(GST_BUFFER_PTS(output.get()), 7 * GST_SECOND);
    EXPECT_EQ(GST_BUFFER_DTS(output.get()), 6 * GST_SECOND);
    EXPECT_EQ(GST_BUFFER_DURATION(output.get()), 40 * GST_MSECOND);
    EXPECT_EQ(GST_BUFFER_OFFSET(output.get()), 175U);
    EXPECT_TRUE(GST_BUFFER_FLAG_IS_SET(output.get(), GST_BUFFER_FLAG_DELTA_UNIT));
}

TEST_F(VTransform, BuffersComeFromAPool)
{
    const std::string in_caps = video_caps(size_caps("NV12", 854, 48));
    for (const char* format : {"RGB", "I420"}) {
        const HarnessPtr harness = make_harness("qtivtransform", in_caps, video_caps(size_caps(format, 854, 48)));
        GstBuffer* first = nullptr;
        for (int i = 0; i < 4; ++i) {
            const BufferPtr output = push_and_pull(harness, make_frame(in_caps));
            ASSERT_NE(output->pool, nullptr) << format;
            if (i == 0) first = output.get();
            EXPECT_EQ(output.get(), first) << format << ": a returned buffer is used again";
        }
    }
}

TEST_F(VTransform, NewCapsInMidStreamAreFollowed)
{
    const HarnessPtr harness =
        make_harness("qtivtransform", video_caps(size_caps("NV12", 640, 48)), "video/x-raw,format=RGB");
    for (const auto& [format, width, height] : {std::tuple{"NV12", 640, 48}, std::tuple{"I420", 854, 60},
                                                std::tuple{"RGB", 642, 20}, std::tuple{"NV12", 640, 48}}) {
        const std::string in_caps = video_caps(size_caps(format, width, height));
        gst_harness_set_src_caps_str(harness.get(), in_caps.c_str());
        const BufferPtr output = push_and_pull(harness, make_frame(in_caps));
        ASSERT_TRUE(output);
        expect_tight_rows(output.get(), width, height);
        EXPECT_NE(output_caps(harness).find("width=(int)" + std::to_string(width)), std::string::npos);
    }
}

TEST_F(VTransform, FlowsAgainAfterAFlushAndPassesEos)
{
    const std::string in_caps = video_caps(size_caps("NV12", 64, 48));
    const HarnessPtr harness = make_harness("qtivtransform", in_caps, video_caps(size_caps("RGB", 64, 48)));
    ASSERT_TRUE(push_and_pull(harness, make_frame(in_caps)));
    EXPECT_TRUE(gst_harness_push_event(harness.get(), gst_event_new_flush_start()));
    EXPECT_TRUE(gst_harness_push_event(harness.get(), gst_event_new_flush_stop(TRUE)));
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    EXPECT_TRUE(gst_harness_push_event(harness.get(), gst_event_new_segment(&segment)));
    EXPECT_TRUE(push_and_pull(harness, make_frame(in_caps)));
    EXPECT_TRUE(gst_harness_push_event(harness.get(), gst_event_new_eos()));
    bool has_eos = false;
    while (GstEvent* event = gst_harness_try_pull_event(harness.get())) {
        has_eos |= GST_EVENT_TYPE(event) == GST_EVENT_EOS;
        gst_event_unref(event);
    }
    EXPECT_TRUE(has_eos);
}

TEST_F(VTransform, UpstreamLatencyIsReportedUnchanged)
{
    const HarnessPtr harness =
        make_harness("qtivtransform", video_caps(size_caps("NV12", 64, 48)), video_caps(size_caps("RGB", 64, 48)));
    gst_harness_set_upstream_latency(harness.get(), 40 * GST_MSECOND);
    ASSERT_TRUE(push_and_pull(harness, make_frame(video_caps(size_caps("NV12", 64, 48)))));
    EXPECT_EQ(gst_harness_query_latency(harness.get()), 40 * GST_MSECOND);
}

/// Compares every RGB pixel of the output with the input's pixel that `source` names.
template <typename Source>
void expect_pixels(const char* launch, int out_width, int out_height, Source source)
{
    for (const char* format : {"RGB", "BGRA"}) {
        const std::string in_caps = video_caps(size_caps(format, 37, 22));
        const std::string out_caps = video_caps(size_caps(format, out_width, out_height));
        const BufferPtr input = make_frame(in_caps);
        const BufferPtr output = convert(launch, in_caps, out_caps, input);
        ASSERT_TRUE(output) << launch;
        const Frame in(input.get(), in_caps);
        const Frame out(output.get(), out_caps);
        for (int c = 0; c < 3; ++c)
            for (int y = 0; y < out_height; ++y)
                for (int x = 0; x < out_width; ++x) {
                    const auto [from_x, from_y] = source(x, y);
                    const int expected = from_x < 0 ? 0 : in.at(c, from_x, from_y);
                    ASSERT_EQ(out.at(c, x, y), expected) << launch << " " << format << " at " << x << "," << y;
                }
    }
}

TEST_F(VTransform, GeometryMovesPixelsExactly)
{
    using Point = std::pair<int, int>;
    expect_pixels("qtivtransform flip-horizontal=true", 37, 22, [](int x, int y) { return Point(36 - x, y); });
    expect_pixels("qtivtransform flip-vertical=true", 37, 22, [](int x, int y) { return Point(x, 21 - y); });
    expect_pixels("qtivtransform rotate=180", 37, 22, [](int x, int y) { return Point(36 - x, 21 - y); });
    expect_pixels("qtivtransform rotate=90CW", 22, 37, [](int x, int y) { return Point(y, 21 - x); });
    expect_pixels("qtivtransform rotate=90CCW", 22, 37, [](int x, int y) { return Point(36 - y, x); });
    expect_pixels("qtivtransform rotate=90CW flip-horizontal=true", 22, 37, [](int x, int y) { return Point(y, x); });
    expect_pixels("qtivtransform crop=\"<5, 3, 20, 11>\"", 20, 11, [](int x, int y) { return Point(x + 5, y + 3); });
    expect_pixels("qtivtransform crop=\"<5,3,20,11>\" flip-vertical=true", 20, 11,
                  [](int x, int y) { return Point(x + 5, 13 - y); });
    expect_pixels("qtivtransform destination=\"<7, 9, 37, 22>\"", 50, 40, [](int x, int y) {
        const bool is_inside = x >= 7 && x < 44 && y >= 9 && y < 31;
        return is_inside ? Point(x - 7, y - 9) : Point(-1, -1);
    });
}

TEST_F(VTransform, CropOutsideTheInputIsCutToIt)
{
    expect_pixels("qtivtransform crop=\"<30, 20, 1000, 1000>\"", 7, 2,
                  [](int x, int y) { return std::pair(x + 30, y + 20); });
}

TEST_F(VTransform, CroppedYuvHasThePixelsOfTheWholePicture)
{
    const std::string in_caps = video_caps(size_caps("NV12", 96, 64));
    const std::string whole_caps = video_caps(size_caps("RGB", 96, 64));
    const std::string part_caps = video_caps(size_caps("RGB", 33, 21));
    const BufferPtr input = make_frame(in_caps);
    const BufferPtr whole = convert("qtivtransform", in_caps, whole_caps, input);
    const BufferPtr part = convert("qtivtransform crop=\"<7,5,33,21>\"", in_caps, part_caps, input);
    const Frame all(whole.get(), whole_caps);
    const Frame cropped(part.get(), part_caps);
    for (int c = 0; c < 3; ++c)
        for (int y = 0; y < 21; ++y)
            for (int x = 0; x < 33; ++x)
                ASSERT_EQ(cropped.at(c, x, y), all.at(c, x + 7, y + 5)) << x << "," << y;
}

TEST_F(VTransform, YuvPlanesAreTurnedAndPlaced)
{
    const std::string in_caps = video_caps(size_caps("NV12", 32, 20));
    const BufferPtr input = make_frame(in_caps);
    const std::string turned_caps = video_caps(size_caps("I420", 20, 32));
    const BufferPtr turned = convert("qtivtransform rotate=90CW", in_caps, turned_caps, input);
    const std::string placed_caps = video_caps(size_caps("NV12", 64, 48));
    const BufferPtr placed = convert("qtivtransform destination=\"<8,4,32,20>\"", in_caps, placed_caps, input);
    const Frame in(input.get(), in_caps);
    const Frame out(turned.get(), turned_caps);
    const Frame canvas(placed.get(), placed_caps);
    for (int c = 0; c < 3; ++c) {
        for (int y = 0; y < out.height(c); ++y)
            for (int x = 0; x < out.width(c); ++x)
                ASSERT_EQ(out.at(c, x, y), in.at(c, y, in.height(c) - 1 - x));
        const int left = c == 0 ? 8 : 4;
        const int top = c == 0 ? 4 : 2;
        for (int y = 0; y < in.height(c); ++y)
            for (int x = 0; x < in.width(c); ++x)
                ASSERT_EQ(canvas.at(c, left + x, top + y), in.at(c, x, y));
        EXPECT_EQ(canvas.at(c, 0, 0), c == 0 ? 16 : 128);
        EXPECT_EQ(canvas.at(c, canvas.width(c) - 1, canvas.height(c) - 1), c == 0 ? 16 : 128);
    }
}

TEST_F(VTransform, RotationExchangesTheNaturalSize)
{
    const HarnessPtr harness =
        make_harness("qtivtransform rotate=90CCW", video_caps(size_caps("NV12", 64, 48)), "video/x-raw,format=NV12");
    ASSERT_TRUE(push_and_pull(harness, make_frame(video_caps(size_caps("NV12", 64, 48)))));
    EXPECT_NE(output_caps(harness).find("width=(int)48, height=(int)64"), std::string::npos) << output_caps(harness);
}

/// A picture of one colour stays that colour at every size, but for the rounding of repeated halving.
TEST_F(VTransform, ScalingKeepsFlatColours)
{
    for (const char* format : {"NV12", "RGB", "BGRA"}) {
        for (const auto& [width, height] : {std::pair{1920, 1080}, std::pair{33, 17}, std::pair{320, 179}}) {
            const std::string in_caps = video_caps(size_caps(format, 322, 182));
            const std::string out_caps = video_caps(size_caps(format, width, height));
            const BufferPtr input = make_frame(in_caps);
            gst_buffer_memset(input.get(), 0, 90, gst_buffer_get_size(input.get()));
            const BufferPtr output = convert("qtivtransform", in_caps, out_caps, input);
            const Frame frame(output.get(), out_caps);
            for (int c = 0; c < 3; ++c)
                for (const int y : {0, frame.height(c) / 2, frame.height(c) - 1})
                    for (const int x : {0, frame.width(c) / 2, frame.width(c) - 1})
                        EXPECT_NEAR(frame.at(c, x, y), 90, 3) << format << " " << width;
        }
    }
}

TEST_F(VTransform, ScalingAgreesWithStockScaler)
{
    for (const auto& [in, out] : {std::pair{"NV12", "NV12"}, std::pair{"NV12", "RGB"}, std::pair{"RGB", "RGB"}}) {
        const std::string in_caps = video_caps(size_caps(in, 640, 360) + (in[0] == 'N' ? ",colorimetry=bt601" : ""));
        const std::string out_caps = video_caps(size_caps(out, 854, 480) + (out[0] == 'N' ? ",colorimetry=bt601" : ""));
        const BufferPtr input = make_frame(in_caps);
        const BufferPtr expected = convert("videoscale ! videoconvert", in_caps, out_caps, input);
        const BufferPtr actual = convert("qtivtransform", in_caps, out_caps, input);
        // Filters differ at edges and in noise; a shifted or sheared picture is far below.
        EXPECT_GE(psnr(actual.get(), expected.get(), out_caps), 33.0) << in << " " << out;
    }
}

TEST_F(VTransform, PropertiesChangeARunningStream)
{
    const std::string caps = video_caps(size_caps("NV12", 64, 48));
    const HarnessPtr harness = make_harness("qtivtransform", caps, "");
    const BufferPtr input = make_frame(caps);
    EXPECT_EQ(push_and_pull(harness, input).get(), input.get());
    g_object_set(element_of(harness), "flip-horizontal", TRUE, nullptr);
    const BufferPtr flipped = push_and_pull(harness, input);
    ASSERT_NE(flipped.get(), input.get());
    const Frame in(input.get(), caps);
    const Frame out(flipped.get(), caps);
    for (int x = 0; x < 64; ++x)
        EXPECT_EQ(out.at(0, x, 5), in.at(0, 63 - x, 5));
    g_object_set(element_of(harness), "flip-horizontal", FALSE, nullptr);
    EXPECT_EQ(push_and_pull(harness, input).get(), input.get());
    gst_util_set_object_arg(G_OBJECT(element_of(harness)), "rotate", "90CW");
    ASSERT_TRUE(push_and_pull(harness, input));
    EXPECT_NE(output_caps(harness).find("width=(int)48, height=(int)64"), std::string::npos) << output_caps(harness);
}

TEST_F(VTransform, PropertiesMayBeSetFromAnotherThread)
{
    const std::string in_caps = video_caps(size_caps("NV12", 66, 50));
    const HarnessPtr harness = make_harness("qtivtransform", in_caps, video_caps(size_caps("RGB", 66, 50)));
    std::atomic<bool> is_done{false};
    std::atomic<int> changes{0};
    std::thread setter([&] {
        const char* const crops[] = {"<0,0,0,0>", "<3,5,20,20>", "<0,0,66,50>"};
        for (int i = 0; !is_done; ++i) {
            gst_util_set_object_arg(G_OBJECT(element_of(harness)), "crop", crops[i % 3]);
            g_object_set(element_of(harness), "rotate", i % 4, "flip-vertical", i % 2, nullptr);
            ++changes;
            std::this_thread::yield();
        }
    });
    const BufferPtr input = make_frame(in_caps);
    bool is_tight = true;
    for (int i = 0; i < 300 || changes < 300; ++i) {
        const BufferPtr output = push_and_pull(harness, input);
        is_tight &= output && gst_buffer_get_video_meta(output.get())->stride[0] == 3 * 66;
    }
    is_done = true;
    setter.join();
    EXPECT_TRUE(is_tight);
}

/// The pipeline's element "transform", playing to its end.
void expect_runs(const std::string& launch)
{
    GError* error = nullptr;
    GstElement* pipeline = gst_parse_launch(launch.c_str(), &error);
    ASSERT_EQ(error, nullptr) << error->message;
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    GstBus* bus = gst_element_get_bus(pipeline);
    GstMessage* message = gst_bus_timed_pop_filtered(bus, 60 * GST_SECOND,
                                                     static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    ASSERT_NE(message, nullptr) << launch;
    EXPECT_EQ(GST_MESSAGE_TYPE(message), GST_MESSAGE_EOS) << launch;
    gst_message_unref(message);
    gst_object_unref(bus);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
}

TEST_F(VTransform, RunsInLaunchedPipelinesWithGbmFilters)
{
    const std::string source = "videotestsrc num-buffers=3 ! video/x-raw,format=NV12,width=854,height=480 ! ";
    expect_runs(source + "qtivtransform ! fakesink");
    expect_runs(source + "qtivtransform ! video/x-raw,format=RGB ! qtivtransform ! "
                         "video/x-raw(memory:GBM),format=NV12,colorimetry=bt601 ! fakesink");
    expect_runs(source +
                "qtivtransform engine=2 ! video/x-raw(memory:GBM),format=NV12,colorimetry=bt709 ! qtivtransform "
                "engine=3 ! video/x-raw,format=RGB,width=320,height=240 ! fakesink");
    expect_runs(source + "videoconvert ! video/x-raw,format=RGB,width=854 ! qtivtransform crop=\"<0,0,10,10>\" ! "
                         "video/x-raw(memory:GBM),format=NV12,colorimetry=bt709,width=64,height=64 ! fakesink");
    expect_runs(source + "tee name=t ! queue ! qtivtransform rotate=90CW ! fakesink t. ! queue ! qtivtransform "
                         "flip-vertical=true ! video/x-raw,format=BGRA ! fakesink");
}

TEST_F(VTransform, LaunchStringsSetEveryProperty)
{
    const HarnessPtr harness(gst_harness_new_parse(
        "qtivtransform engine=3 crop=\"<0,0,10,10>\" destination=\"<1, 2, 3, 4>\" rotate=90CCW flip-horizontal=true "
        "flip-vertical=true"));
    gint engine = 0;
    gint rotate = 0;
    gboolean horizontal = FALSE;
    gboolean vertical = FALSE;
    g_object_get(element_of(harness), "engine", &engine, "rotate", &rotate, "flip-horizontal", &horizontal,
                 "flip-vertical", &vertical, nullptr);
    EXPECT_EQ(engine, 3);
    EXPECT_EQ(rotate, 2);
    EXPECT_TRUE(horizontal);
    EXPECT_TRUE(vertical);
    GValue value = G_VALUE_INIT;
    g_object_get_property(G_OBJECT(element_of(harness)), "destination", &value);
    ASSERT_EQ(gst_value_array_get_size(&value), 4U);
    for (guint i = 0; i < 4; ++i)
        EXPECT_EQ(g_value_get_int(gst_value_array_get_value(&value, i)), static_cast<int>(i) + 1);
    g_value_unset(&value);
}

TEST_F(VTransform, EngineNumbersHaveDistinctNicks)
{
    GstElement* element = gst_element_factory_make("qtivtransform", nullptr);
    ASSERT_NE(element, nullptr);
    auto* spec = G_PARAM_SPEC_ENUM(g_object_class_find_property(G_OBJECT_GET_CLASS(element), "engine"));
    EXPECT_EQ(spec->default_value, 1);
    EXPECT_STREQ(g_enum_get_value(spec->enum_class, 1)->value_nick, "gles");
    EXPECT_STREQ(g_enum_get_value(spec->enum_class, 2)->value_nick, "fcv");
    for (int number = 0; number < 4; ++number)
        EXPECT_EQ(
            g_enum_get_value_by_nick(spec->enum_class, g_enum_get_value(spec->enum_class, number)->value_nick)->value,
            number);
    GstElementFactory* factory = gst_element_get_factory(element);
    EXPECT_EQ(gst_plugin_feature_get_rank(GST_PLUGIN_FEATURE(factory)), static_cast<guint>(GST_RANK_NONE));
    gst_object_unref(element);
}

/// Bytes in use on the heap; 0 where a sanitizer has its own heap.
std::size_t heap_in_use()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

TEST_F(VTransform, ThousandStartsAndStopsKeepTheHeapFlat)
{
    const std::string in_caps = video_caps(size_caps("NV12", 64, 48));
    const std::string out_caps = video_caps(size_caps("RGB", 66, 48));
    const BufferPtr input = make_frame(in_caps);
    std::size_t after_warm_up = 0;
    for (int round = 0; round < 1000; ++round) {
        if (round == 100) after_warm_up = heap_in_use();
        ASSERT_TRUE(convert("qtivtransform", in_caps, out_caps, input)) << round;
    }
    // One leaked frame a round would be 8 MB.
    EXPECT_LT(static_cast<double>(heap_in_use()) - static_cast<double>(after_warm_up), 1.0e6);
}

} // namespace
