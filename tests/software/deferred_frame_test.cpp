// A decoder's NV12 frames, whose conversion waits for who reads them: whoever does sees the same pixels.
#include "gst_handles.h"

#include <gst/app/gstappsink.h>
#include <gst/check/gstharness.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace velstream::handles;
using HarnessPtr = std::unique_ptr<GstHarness, Releaser<gst_harness_teardown>>;
using Bytes = std::vector<guint8>;

/// The last sample of "<description> ! appsink"; its pipeline is gone.
SamplePtr last_sample(const std::string& description)
{
    const ElementPtr pipeline(gst_parse_launch((description + " ! appsink name=out sync=false").c_str(), nullptr));
    const ElementPtr out(gst_bin_get_by_name(GST_BIN(pipeline.get()), "out"));
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    SamplePtr last;
    while (GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(out.get()), 20 * GST_SECOND))
        last.reset(sample);
    EXPECT_TRUE(gst_app_sink_is_eos(GST_APP_SINK(out.get())));
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    return last;
}

std::string stream(int width, int height)
{
    return "videotestsrc pattern=smpte num-buffers=4 ! video/x-raw,format=I420,framerate=25/1,width=" +
           std::to_string(width) + ",height=" + std::to_string(height) +
           " ! x264enc speed-preset=ultrafast ! h264parse";
}

SamplePtr decoded(int width = 322, int height = 182)
{
    return last_sample(stream(width, height) + " ! v4l2h264dec ! video/x-raw,format=NV12");
}

/// Copies of the visible rows, plane after plane.
Bytes pixels_of(GstBuffer* buffer, GstCaps* caps)
{
    GstVideoInfo info;
    GstVideoFrame frame;
    Bytes pixels;
    if (!gst_video_info_from_caps(&info, caps) || !gst_video_frame_map(&frame, &info, buffer, GST_MAP_READ)) {
        ADD_FAILURE() << "not mapped";
        return pixels;
    }
    for (guint plane = 0; plane < GST_VIDEO_FRAME_N_PLANES(&frame); ++plane) {
        const auto component = static_cast<guint>(plane);
        const int bytes =
            GST_VIDEO_FRAME_COMP_WIDTH(&frame, component) * GST_VIDEO_FRAME_COMP_PSTRIDE(&frame, component);
        for (int y = 0; y < GST_VIDEO_FRAME_COMP_HEIGHT(&frame, component); ++y) {
            const auto* row = static_cast<const guint8*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, plane)) +
                              static_cast<std::ptrdiff_t>(y) * GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane);
            pixels.insert(pixels.end(), row, row + bytes);
        }
    }
    gst_video_frame_unmap(&frame);
    return pixels;
}

Bytes pixels_of(const SamplePtr& sample)
{
    return sample ? pixels_of(gst_sample_get_buffer(sample.get()), gst_sample_get_caps(sample.get())) : Bytes{};
}

/// What qtivtransform makes of one buffer; a reference of it is taken.
Bytes to_rgb(GstBuffer* buffer, GstCaps* caps)
{
    const HarnessPtr harness(gst_harness_new("qtivtransform"));
    gst_harness_set_sink_caps_str(harness.get(), "video/x-raw,format=RGB");
    gst_harness_set_src_caps(harness.get(), gst_caps_copy(caps));
    EXPECT_EQ(gst_harness_push(harness.get(), gst_buffer_ref(buffer)), GST_FLOW_OK);
    const BufferPtr out(gst_harness_pull(harness.get()));
    const CapsPtr out_caps(gst_pad_get_current_caps(harness->sinkpad));
    return pixels_of(out.get(), out_caps.get());
}

class DeferredFrame : public testing::Test {
protected:
    static void SetUpTestSuite() { gst_init(nullptr, nullptr); }
};

} // namespace

// The pipelines are gone when the frame is read.
TEST_F(DeferredFrame, HasTheDecodersPixels)
{
    for (const auto& [width, height] : {std::pair{322, 182}, std::pair{640, 360}, std::pair{34, 18}}) {
        const SamplePtr frame = decoded(width, height);
        const SamplePtr reference = last_sample(stream(width, height) + " ! avdec_h264 ! videoconvert dither=none ! "
                                                                        "video/x-raw,format=NV12");
        EXPECT_EQ(pixels_of(frame), pixels_of(reference)) << width;
    }
}

TEST_F(DeferredFrame, IsConvertedToTheSameRgbAsACopyOfIt)
{
    const SamplePtr frame = decoded();
    ASSERT_TRUE(frame);
    GstCaps* caps = gst_sample_get_caps(frame.get());
    const Bytes direct = to_rgb(gst_sample_get_buffer(frame.get()), caps);
    const BufferPtr copy(gst_buffer_copy_deep(gst_sample_get_buffer(frame.get())));
    EXPECT_EQ(direct.size(), 322U * 182U * 3U);
    EXPECT_EQ(direct, to_rgb(copy.get(), caps));
    EXPECT_EQ(direct, to_rgb(gst_sample_get_buffer(frame.get()), caps)); // read as NV12 meanwhile
}

TEST_F(DeferredFrame, IsReadByManyThreadsAtOnce)
{
    const SamplePtr frame = decoded();
    const Bytes expected = pixels_of(decoded());
    std::atomic<int> alike = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
            if (pixels_of(frame) == expected) ++alike;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(alike, 8);
}

TEST_F(DeferredFrame, ThatIsWrittenToShowsWhatWasWritten)
{
    SamplePtr frame = decoded();
    ASSERT_TRUE(frame);
    const CapsPtr caps(gst_caps_copy(gst_sample_get_caps(frame.get())));
    BufferPtr buffer(gst_buffer_ref(gst_sample_get_buffer(frame.get())));
    frame.reset();
    ASSERT_TRUE(gst_buffer_is_writable(buffer.get()));
    gst_buffer_memset(buffer.get(), 0, 128, static_cast<gsize>(-1)); // grey, chroma too
    const Bytes rgb = to_rgb(buffer.get(), caps.get());
    ASSERT_EQ(rgb.size(), 322U * 182U * 3U);
    EXPECT_EQ(std::memcmp(rgb.data(), rgb.data() + 1, rgb.size() - 1), 0);
}

TEST_F(DeferredFrame, MadeWritableLeavesTheOtherHoldersFrame)
{
    const SamplePtr frame = decoded();
    ASSERT_TRUE(frame);
    const Bytes before = pixels_of(decoded());
    BufferPtr own(gst_buffer_copy_deep(gst_sample_get_buffer(frame.get())));
    gst_buffer_memset(own.get(), 0, 128, static_cast<gsize>(-1));
    EXPECT_EQ(pixels_of(frame), before);
    const BufferPtr half(gst_buffer_copy_region(gst_sample_get_buffer(frame.get()), GST_BUFFER_COPY_MEMORY, 0, 1000));
    GstMapInfo map;
    ASSERT_TRUE(gst_buffer_map(half.get(), &map, GST_MAP_READ));
    EXPECT_EQ(map.size, 1000U);
    EXPECT_EQ(std::memcmp(map.data, before.data(), 322), 0); // its first row
    gst_buffer_unmap(half.get(), &map);
}
