// The three frame taps, called as a probe calls them. The system clock is one that only the test moves.
#include "Elements.h"
#include "RecordedLog.h"
#include "StreamBuild.h"
#include "StreamCommon.h"

#include <gst/check/gsttestclock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Lines = std::vector<std::string>;
using Tap = GstPadProbeReturn (*)(GstPad*, GstPadProbeInfo*, void*);

constexpr const char* kCaps = "video/x-raw,format=RGB,width=4,height=2";
constexpr const char* kCapsLine = "I Caps: video/x-raw, format=(string)RGB, width=(int)4, height=(int)2";

void release_buffer(GstBuffer* buffer)
{
    gst_buffer_unref(buffer);
}
using BufferPtr = std::unique_ptr<GstBuffer, Quorvis::VelStream::Releaser<release_buffer>>;

BufferPtr make_buffer(gsize size, GstClockTime pts = 0)
{
    BufferPtr buffer(gst_buffer_new_allocate(nullptr, size, nullptr));
    gst_buffer_memset(buffer.get(), 0, 7, size);
    GST_BUFFER_PTS(buffer.get()) = pts;
    return buffer;
}

class FrameTap : public WithGStreamer {
protected:
    void SetUp() override
    {
        clock_ = gst_test_clock_new();
        gst_test_clock_set_time(GST_TEST_CLOCK(clock_), kStart);
        gst_system_clock_set_default(clock_);
        pad_ = make_source_pad("src", kCaps);
        data_.pipeline = gst_pipeline_new("cam");
        std::function<int8_t(const Image&)> callback = [this](const Image& image) {
            seen_.push_back(image);
            if (on_frame_) on_frame_(image);
            return int8_t{0};
        };
        ASSERT_EQ(pipeline_data_init(&data_, "cam", callback), 0);
    }

    void TearDown() override
    {
        gst_object_unref(data_.pipeline);
        gst_system_clock_set_default(nullptr);
        gst_object_unref(clock_);
    }

    GstPadProbeReturn call(Tap tap, GstBuffer* buffer)
    {
        GstPadProbeInfo info{};
        info.type = GST_PAD_PROBE_TYPE_BUFFER;
        info.data = buffer;
        return tap(pad_.get(), &info, &data_);
    }

    void frame(Tap tap, GstClockTime pts = 0)
    {
        const BufferPtr buffer = make_buffer(24, pts);
        EXPECT_EQ(call(tap, buffer.get()), GST_PAD_PROBE_OK);
    }

    void advance(GstClockTime duration) { gst_test_clock_advance_time(GST_TEST_CLOCK(clock_), duration); }

    static constexpr GstClockTime kStart = 5 * GST_SECOND;
    GstClock* clock_ = nullptr;
    PadPtr pad_;
    PiplineData data_;
    std::vector<Image> seen_;
    std::function<void(const Image&)> on_frame_;
};

// ---- The lines of a frame, in order

TEST_F(FrameTap, PlainLogsFirstFrame)
{
    frame(on_buffer_received);
    EXPECT_EQ(log_lines(), (Lines{"I callback on_buffer_received start. frame: 1", "I Get width: 4, height: 2",
                                  kCapsLine, "I caps_str get and completed.", "I Callback function invoking.",
                                  "I Callback: w: 4, h: 2, id: cam", "I Callback function invoking completed.",
                                  "I callback on_buffer_received end."}));
}

TEST_F(FrameTap, RecreatedLogsFirstFrame)
{
    frame(on_buffer_received_re);
    EXPECT_EQ(log_lines(), (Lines{"I callback on_buffer_received start. frame: 1", "I Get width: 4, height: 2",
                                  kCapsLine, "I caps_str get and completed.", "I Callback function invoking.",
                                  "I Callback: w: 4, h: 2, id: cam", "I Callback function invoking completed.",
                                  "I callback on_buffer_received end."}));
}

TEST_F(FrameTap, CameraLogsFirstFrame)
{
    frame(on_buffer_received_v4l2);
    EXPECT_EQ(log_lines(),
              (Lines{"I START: on_buffer_received_v4l2 - ############################################ idx: 1",
                     "I callback on_buffer_received start. frame: 1", "I Get width: 4, height: 2", kCapsLine,
                     "I caps_str get and completed.", "I Callback function invoking. idx: 1",
                     "I Callback: w: 4, h: 2, id: cam, fps: 0.000000", "I Callback function invoking completed. idx: 1",
                     "I END: on_buffer_received_v4l2 - ############################################ idx: 1"}));
}

TEST_F(FrameTap, EveryFurtherFrameLogsTheSameLinesWithItsNumber)
{
    for (const Tap tap : {on_buffer_received, on_buffer_received_v4l2, on_buffer_received_re}) {
        frame(tap);
        const Lines first = log_lines();
        clear_log();
        frame(tap);
        const Lines second = log_lines();
        clear_log();
        EXPECT_EQ(first.size(), second.size());
    }
    frame(on_buffer_received_v4l2);
    EXPECT_EQ(data_.image.frameIndex, 7);
    EXPECT_EQ(log_lines().front(),
              "I START: on_buffer_received_v4l2 - ############################################ idx: 7");
    EXPECT_TRUE(log_has("I callback on_buffer_received start. frame: 7"));
}

TEST_F(FrameTap, LinesNameTheirSource)
{
    frame(on_buffer_received);
    for (const std::string& file : log_files())
        EXPECT_EQ(file.rfind("modules/origin/src/StreamBuild", 0), 0U) << file;
}

// ---- What the callback gets

TEST_F(FrameTap, CallbackGetsTheBuffersOwnMemory)
{
    for (const Tap tap : {on_buffer_received, on_buffer_received_v4l2, on_buffer_received_re}) {
        seen_.clear();
        const BufferPtr buffer = make_buffer(24);
        GstMapInfo map;
        ASSERT_TRUE(gst_buffer_map(buffer.get(), &map, GST_MAP_READ));
        const guint8* bytes = map.data;
        gst_buffer_unmap(buffer.get(), &map);
        call(tap, buffer.get());
        ASSERT_EQ(seen_.size(), 1U);
        EXPECT_EQ(seen_[0].data, bytes);
        EXPECT_EQ(seen_[0].size, 24U);
        EXPECT_EQ(seen_[0].streamId, "cam");
        EXPECT_EQ(seen_[0].width, 4);
        EXPECT_EQ(seen_[0].height, 2);
        EXPECT_EQ(seen_[0].format, 0);
        EXPECT_EQ(seen_[0].fps, 0.0);
        EXPECT_EQ(seen_[0].extra, "");
    }
}

TEST_F(FrameTap, FormatAndIdAreSetAgainBeforeEveryCall)
{
    for (const Tap tap : {on_buffer_received, on_buffer_received_v4l2, on_buffer_received_re}) {
        data_.image.format = 9;
        data_.image.streamId = "other";
        frame(tap);
        EXPECT_EQ(seen_.back().format, 0);
        EXPECT_EQ(seen_.back().streamId, "cam");
    }
}

TEST_F(FrameTap, CallbackMayWriteIntoTheFrame)
{
    for (const Tap tap : {on_buffer_received, on_buffer_received_v4l2}) {
        on_frame_ = [](const Image& image) { image.data[5] = 200; };
        const BufferPtr buffer = make_buffer(24);
        call(tap, buffer.get());
        guint8 byte = 0;
        gst_buffer_extract(buffer.get(), 5, &byte, 1);
        EXPECT_EQ(byte, 200);
    }
}

TEST_F(FrameTap, TheCallbacksResultIsIgnored)
{
    for (const int8_t result : {-128, -1, 0, 1, 127}) {
        data_.callback = [result](const Image&) { return result; };
        frame(on_buffer_received);
        frame(on_buffer_received_v4l2);
        frame(on_buffer_received_re);
    }
}

TEST_F(FrameTap, WithoutACallbackTheFramePasses)
{
    data_.callback = nullptr;
    frame(on_buffer_received);
    EXPECT_EQ(log_lines(), (Lines{"I callback on_buffer_received start. frame: 1", "I Get width: 4, height: 2",
                                  kCapsLine, "I caps_str get and completed.", "W Callback not initialized.",
                                  "I callback on_buffer_received end."}));
    clear_log();
    frame(on_buffer_received_v4l2);
    const Lines lines = log_lines();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[lines.size() - 2], "W Callback not initialized.");
    EXPECT_EQ(lines.back(), "I END: on_buffer_received_v4l2 - ############################################ idx: 2");
}

TEST_F(FrameTap, AnExceptionOfTheCallbackStaysInTheTap)
{
    on_frame_ = [](const Image&) { throw std::runtime_error("no room"); };
    for (const Tap tap : {on_buffer_received, on_buffer_received_v4l2, on_buffer_received_re}) {
        clear_log();
        EXPECT_NO_THROW(frame(tap));
        EXPECT_TRUE(log_has("E Frame callback of stream cam raised an exception: no room"));
        EXPECT_EQ(log_lines().back().substr(0, 10), tap == Tap(on_buffer_received_v4l2) ? "I END: on_" : "I callback");
    }
    on_frame_ = nullptr;
    frame(on_buffer_received);
    EXPECT_EQ(seen_.size(), 4U) << "the next frame is delivered";
}

TEST_F(FrameTap, SomethingElseThanAnExceptionStaysInTheTapToo)
{
    on_frame_ = [](const Image&) { throw 5; };
    EXPECT_NO_THROW(frame(on_buffer_received));
    EXPECT_TRUE(log_has("E Frame callback of stream cam raised an exception."));
}

// ---- Mapping

/// Memory that notes how it was mapped, and refuses when told to.
struct NotedMemory {
    GstMapFlags flags = GstMapFlags(0);
    bool refuses = false;
    guint8 bytes[64] = {};
};
NotedMemory g_noted;

gpointer map_noted(GstMemory*, gsize, GstMapFlags flags)
{
    g_noted.flags = flags;
    return g_noted.refuses ? nullptr : g_noted.bytes;
}

void init_noted_class(gpointer klass, gpointer)
{
    GST_ALLOCATOR_CLASS(klass)->free = [](GstAllocator*, GstMemory* memory) { g_free(memory); };
    GST_ALLOCATOR_CLASS(klass)->alloc = [](GstAllocator*, gsize, GstAllocationParams*) -> GstMemory* {
        return nullptr;
    };
}

void init_noted(GTypeInstance* instance, gpointer)
{
    GST_ALLOCATOR(instance)->mem_type = "noted";
    GST_ALLOCATOR(instance)->mem_map = map_noted;
    GST_ALLOCATOR(instance)->mem_unmap = [](GstMemory*) {};
}

BufferPtr make_noted_buffer()
{
    static const GType type =
        g_type_register_static_simple(GST_TYPE_ALLOCATOR, "VelTestNotedAllocator", sizeof(GstAllocatorClass),
                                      init_noted_class, sizeof(GstAllocator), init_noted, GTypeFlags{});
    auto* allocator = GST_ALLOCATOR(gst_object_ref_sink(g_object_new(type, nullptr)));
    auto* memory = g_new0(GstMemory, 1);
    gst_memory_init(memory, GST_MEMORY_FLAG_NO_SHARE, allocator, nullptr, 64, 0, 0, 24);
    gst_object_unref(allocator);
    BufferPtr buffer(gst_buffer_new());
    gst_buffer_append_memory(buffer.get(), memory);
    return buffer;
}

TEST_F(FrameTap, RunnersTapsMapForReadingAndWriting)
{
    for (const Tap tap : {on_buffer_received, on_buffer_received_v4l2}) {
        g_noted = {};
        const BufferPtr buffer = make_noted_buffer();
        call(tap, buffer.get());
        EXPECT_EQ(g_noted.flags & (GST_MAP_READ | GST_MAP_WRITE), GST_MAP_READ | GST_MAP_WRITE);
    }
    EXPECT_EQ(seen_.size(), 2U);
}

TEST_F(FrameTap, RebuiltPipelinesTapMapsForReadingOnly)
{
    g_noted = {};
    const BufferPtr buffer = make_noted_buffer();
    call(on_buffer_received_re, buffer.get());
    EXPECT_EQ(g_noted.flags & (GST_MAP_READ | GST_MAP_WRITE), GST_MAP_READ);
    EXPECT_EQ(seen_.size(), 1U);
}

TEST_F(FrameTap, BufferThatCannotBeMappedSkipsTheCall)
{
    for (const Tap tap : {on_buffer_received, on_buffer_received_re}) {
        clear_log();
        g_noted = {};
        g_noted.refuses = true;
        const BufferPtr buffer = make_noted_buffer();
        EXPECT_EQ(call(tap, buffer.get()), GST_PAD_PROBE_OK);
        const Lines lines = log_lines();
        ASSERT_EQ(lines.size(), 7U);
        EXPECT_EQ(Lines(lines.begin() + 4, lines.end()),
                  (Lines{"I Callback function invoking.", "I Callback function invoking completed.",
                         "I callback on_buffer_received end."}));
    }
    EXPECT_TRUE(seen_.empty());
}

TEST_F(FrameTap, CameraBufferThatCannotBeMappedSkipsTheCall)
{
    g_noted = {};
    g_noted.refuses = true;
    const BufferPtr buffer = make_noted_buffer();
    EXPECT_EQ(call(on_buffer_received_v4l2, buffer.get()), GST_PAD_PROBE_OK);
    EXPECT_TRUE(seen_.empty());
    EXPECT_TRUE(log_has("I Callback function invoking completed. idx: 1"));
    EXPECT_FALSE(log_has("I Callback: w: 4, h: 2, id: cam, fps: 0.000000"));
}

TEST_F(FrameTap, BufferThatOthersHoldIsNotGivenForWriting)
{
    const BufferPtr buffer = make_buffer(24);
    const BufferPtr held(gst_buffer_ref(buffer.get()));
    call(on_buffer_received, buffer.get());
    call(on_buffer_received_v4l2, buffer.get());
    EXPECT_TRUE(seen_.empty());
    call(on_buffer_received_re, buffer.get());
    EXPECT_EQ(seen_.size(), 1U) << "reading is allowed";
}

TEST_F(FrameTap, BufferIsUnmappedAfterTheCall)
{
    for (const Tap tap : {on_buffer_received, on_buffer_received_v4l2, on_buffer_received_re}) {
        const BufferPtr buffer = make_buffer(24);
        call(tap, buffer.get());
        EXPECT_EQ(GST_MINI_OBJECT_REFCOUNT_VALUE(buffer.get()), 1);
        GstMemory* memory = gst_buffer_peek_memory(buffer.get(), 0);
        EXPECT_TRUE(gst_mini_object_is_writable(GST_MINI_OBJECT_CAST(memory)));
        EXPECT_EQ(data_.image.data, nullptr) << "no pointer outlives the map";
    }
}

// ---- Caps

TEST_F(FrameTap, CapsWithoutHeightKeepPreviousSize)
{
    for (const Tap tap : {on_buffer_received, on_buffer_received_v4l2, on_buffer_received_re}) {
        set_pad_caps(pad_.get(), kCaps);
        frame(tap);
        set_pad_caps(pad_.get(), "video/x-raw,format=RGB,width=100");
        clear_log();
        frame(tap);
        EXPECT_EQ(seen_.back().width, 4);
        EXPECT_EQ(seen_.back().height, 2);
        EXPECT_TRUE(log_has("W Width or Height not found."));
        EXPECT_TRUE(log_has("I Caps: video/x-raw, format=(string)RGB, width=(int)100"));
        EXPECT_TRUE(log_has("I caps_str get and completed."));
        EXPECT_FALSE(log_has("I Get width: 4, height: 2"));
    }
}

TEST_F(FrameTap, CapsWithoutWidthKeepPreviousSize)
{
    frame(on_buffer_received);
    set_pad_caps(pad_.get(), "video/x-raw,format=RGB,height=100");
    frame(on_buffer_received);
    EXPECT_EQ(seen_.back().width, 4);
    EXPECT_EQ(seen_.back().height, 2);
}

TEST_F(FrameTap, FirstCapsWithoutHeightLeaveTheSizeAtZero)
{
    set_pad_caps(pad_.get(), "video/x-raw,format=RGB,width=100");
    frame(on_buffer_received_v4l2);
    EXPECT_EQ(seen_.back().width, 0);
    EXPECT_EQ(seen_.back().height, 0);
    EXPECT_EQ(seen_.back().alignedWidth, 0) << "a height of 0 divides nothing";
    EXPECT_TRUE(log_has("W Width or Height not found."));
}

TEST_F(FrameTap, NewCapsGiveTheNewSize)
{
    for (const Tap tap : {on_buffer_received, on_buffer_received_v4l2, on_buffer_received_re}) {
        set_pad_caps(pad_.get(), kCaps);
        frame(tap);
        set_pad_caps(pad_.get(), "video/x-raw,format=RGB,width=2,height=4");
        frame(tap);
        EXPECT_EQ(seen_.back().width, 2);
        EXPECT_EQ(seen_.back().height, 4);
        EXPECT_TRUE(log_has("I Get width: 2, height: 4"));
    }
}

TEST_F(FrameTap, PadWithoutCapsKeepsTheSize)
{
    pad_ = make_source_pad("src", "");
    for (const Tap tap : {on_buffer_received, on_buffer_received_re}) {
        clear_log();
        frame(tap);
        const Lines lines = log_lines();
        ASSERT_GE(lines.size(), 3U);
        EXPECT_EQ(lines[1], "I No caps available on this pad.");
        EXPECT_EQ(lines[2], "I Callback function invoking.") << "neither a caps text nor its end";
    }
    EXPECT_EQ(seen_.back().width, 0);
}

TEST_F(FrameTap, CapsWithoutStructureAreAWarning)
{
    // Only an event made by hand can put empty caps on a pad.
    const CapsPtr empty(gst_caps_new_empty());
    pad_ = make_source_pad("src", "");
    gst_pad_push_event(pad_.get(), gst_event_new_stream_start("test"));
    GstEvent* event = gst_event_new_custom(
        GST_EVENT_CAPS, gst_structure_new("GstEventCaps", "caps", GST_TYPE_CAPS, empty.get(), nullptr));
    ASSERT_EQ(gst_pad_store_sticky_event(pad_.get(), event), GST_FLOW_OK);
    gst_event_unref(event);
    frame(on_buffer_received);
    const Lines lines = log_lines();
    ASSERT_GE(lines.size(), 4U);
    EXPECT_EQ(lines[1], "W No structure found in caps.");
    EXPECT_EQ(lines[2], "I Caps: EMPTY");
    EXPECT_EQ(lines[3], "I caps_str get and completed.");
}

TEST_F(FrameTap, CapsAreReleased)
{
    const CapsPtr before(gst_pad_get_current_caps(pad_.get()));
    frame(on_buffer_received);
    const int after_first = GST_MINI_OBJECT_REFCOUNT_VALUE(before.get());
    for (int i = 0; i < 100; ++i)
        frame(on_buffer_received);
    EXPECT_EQ(GST_MINI_OBJECT_REFCOUNT_VALUE(before.get()), after_first);
}

// ---- Rows and time stamp

TEST_F(FrameTap, CameraRecordsPixelsInARowAndRows)
{
    set_pad_caps(pad_.get(), "video/x-raw,format=RGB,width=854,height=2");
    const BufferPtr buffer = make_buffer(2 * (3 * 854 + 2));
    call(on_buffer_received_v4l2, buffer.get());
    EXPECT_EQ(seen_.back().alignedWidth, 854) << "integer division drops the rest";
    EXPECT_EQ(seen_.back().alignedHeight, 2);
    EXPECT_EQ(seen_.back().size, 5128U);
}

TEST_F(FrameTap, CameraRowsOfAPaddedBufferAreLonger)
{
    const BufferPtr buffer = make_buffer(2 * 3 * 16);
    call(on_buffer_received_v4l2, buffer.get());
    EXPECT_EQ(seen_.back().width, 4);
    EXPECT_EQ(seen_.back().alignedWidth, 16);
}

TEST_F(FrameTap, CameraRowsFollowTheOldHeightWhenCapsLackIt)
{
    frame(on_buffer_received_v4l2);
    set_pad_caps(pad_.get(), "video/x-raw,format=RGB,width=100");
    const BufferPtr buffer = make_buffer(60);
    call(on_buffer_received_v4l2, buffer.get());
    EXPECT_EQ(seen_.back().alignedWidth, 10) << "60 / (3 x 2)";
    EXPECT_EQ(seen_.back().alignedHeight, 2);
}

TEST_F(FrameTap, OtherTapsRecordNeitherRowsNorTimeStamp)
{
    for (const Tap tap : {on_buffer_received, on_buffer_received_re}) {
        frame(tap, GST_SECOND);
        EXPECT_EQ(seen_.back().alignedWidth, 0);
        EXPECT_EQ(seen_.back().alignedHeight, 0);
        EXPECT_EQ(seen_.back().timestamp, "");
    }
}

TEST_F(FrameTap, CameraWritesThePresentationTime)
{
    const struct {
        GstClockTime pts;
        const char* text;
    } cases[] = {
        {0, "0:00:00.000000000"},
        {5, "0:00:00.000000005"},
        {3661 * GST_SECOND + 5, "1:01:01.000000005"},
        {GST_SECOND - 1, "0:00:00.999999999"},
        {100 * 3600 * GST_SECOND + 59 * 60 * GST_SECOND, "100:59:00.000000000"},
    };
    for (const auto& one : cases) {
        frame(on_buffer_received_v4l2, one.pts);
        EXPECT_EQ(seen_.back().timestamp, one.text);
    }
}

TEST_F(FrameTap, FrameWithoutTimeKeepsTheFormerTimeStamp)
{
    frame(on_buffer_received_v4l2, 3 * GST_SECOND);
    clear_log();
    frame(on_buffer_received_v4l2, GST_CLOCK_TIME_NONE);
    EXPECT_EQ(seen_.back().timestamp, "0:00:03.000000000");
    const Lines lines = log_lines();
    ASSERT_GE(lines.size(), 3U);
    EXPECT_EQ(lines[1], "I Frame 2 has no timestamp.");
    EXPECT_EQ(lines[2], "I callback on_buffer_received start. frame: 2");
}

TEST_F(FrameTap, CameraWithoutABufferReturnsAtOnce)
{
    EXPECT_EQ(call(on_buffer_received_v4l2, nullptr), GST_PAD_PROBE_OK);
    EXPECT_EQ(log_lines(),
              (Lines{"I START: on_buffer_received_v4l2 - ############################################ idx: 1",
                     "I Frame 1 no buffer received."}));
    EXPECT_EQ(data_.image.frameIndex, 1) << "counted all the same";
    EXPECT_EQ(data_.frameCount, 0U);
    EXPECT_TRUE(seen_.empty());
}

// ---- Frame number and rate

TEST_F(FrameTap, FramesAreCountedFromOne)
{
    for (int64_t i = 1; i <= 3; ++i) {
        frame(on_buffer_received);
        EXPECT_EQ(seen_.back().frameIndex, i);
    }
}

TEST_F(FrameTap, FramesWithoutACallbackAreCountedToo)
{
    data_.callback = nullptr;
    frame(on_buffer_received);
    frame(on_buffer_received_v4l2);
    frame(on_buffer_received_re);
    EXPECT_EQ(data_.image.frameIndex, 3);
    EXPECT_EQ(data_.frameCount, 3U);
}

TEST_F(FrameTap, NoRateBeforeAFullSecond)
{
    for (const Tap tap : {on_buffer_received, on_buffer_received_v4l2, on_buffer_received_re}) {
        data_.lastTime = gst_clock_get_time(clock_);
        data_.frameCount = 0;
        advance(GST_SECOND - 1);
        frame(tap);
        EXPECT_EQ(seen_.back().fps, 0.0);
        EXPECT_FALSE(log_has("I To calculate frame rate."));
        EXPECT_EQ(data_.frameCount, 1U);
    }
}

TEST_F(FrameTap, RateIsMeasuredAfterAFullSecondAndCountsTheClosingFrame)
{
    for (const Tap tap : {on_buffer_received, on_buffer_received_v4l2, on_buffer_received_re}) {
        data_.lastTime = gst_clock_get_time(clock_);
        data_.frameCount = 0;
        data_.image.fps = 0.0;
        for (int i = 0; i < 24; ++i)
            frame(tap);
        advance(GST_SECOND);
        clear_log();
        frame(tap);
        EXPECT_EQ(seen_.back().fps, 25.0);
        EXPECT_EQ(data_.frameCount, 0U);
        EXPECT_EQ(data_.lastTime, gst_clock_get_time(clock_));

        const Lines lines = log_lines();
        const auto start = std::find(lines.begin(), lines.end(), "I To calculate frame rate.");
        ASSERT_GE(lines.end() - start, 4);
        EXPECT_EQ(*(start - 1), "I caps_str get and completed.");
        EXPECT_EQ(start[1], "I FPS: 25.000000");
        EXPECT_EQ(start[2], "I Complete to calculate frame rate.");
        EXPECT_EQ(start[3].rfind("I Callback function invoking.", 0), 0U);
    }
}

TEST_F(FrameTap, RateDividesByTheTimeThatPassed)
{
    for (int i = 0; i < 9; ++i)
        frame(on_buffer_received);
    advance(4 * GST_SECOND);
    frame(on_buffer_received);
    EXPECT_EQ(seen_.back().fps, 2.5);
}

TEST_F(FrameTap, RateStaysUntilTheNextOneIsMeasured)
{
    advance(GST_SECOND);
    frame(on_buffer_received);
    EXPECT_EQ(seen_.back().fps, 1.0);
    advance(GST_SECOND / 2);
    frame(on_buffer_received);
    EXPECT_EQ(seen_.back().fps, 1.0);
    advance(GST_SECOND / 2);
    frame(on_buffer_received);
    EXPECT_EQ(seen_.back().fps, 2.0);
}

TEST_F(FrameTap, CameraLogsTheRateWithTheFrame)
{
    advance(GST_SECOND);
    frame(on_buffer_received_v4l2);
    EXPECT_TRUE(log_has("I Callback: w: 4, h: 2, id: cam, fps: 1.000000"));
}

// ---- Start of a record

TEST_F(FrameTap, InitStartsTheRecordOver)
{
    data_.image.frameIndex = 99;
    data_.frameCount = 99;
    advance(7 * GST_SECOND);
    std::function<int8_t(const Image&)> callback = [](const Image&) { return int8_t{0}; };
    EXPECT_EQ(pipeline_data_init(&data_, "next", callback), 0);
    EXPECT_FALSE(callback) << "moved from";
    EXPECT_TRUE(data_.callback);
    EXPECT_EQ(data_.image.frameIndex, 0);
    EXPECT_EQ(data_.frameCount, 0U);
    EXPECT_EQ(data_.lastTime, kStart + 7 * GST_SECOND);
    EXPECT_EQ(data_.streamId, "next");
    EXPECT_EQ(log_lines(), Lines{});
}

TEST_F(FrameTap, InitWithoutAPipelineFailsAndFillsTheRecordAllTheSame)
{
    PiplineData data;
    data.image.frameIndex = 99;
    std::function<int8_t(const Image&)> callback = [](const Image&) { return int8_t{0}; };
    EXPECT_EQ(pipeline_data_init(&data, "cam", callback), -1);
    EXPECT_EQ(log_lines(), (Lines{"E pipeline couldn't be created due to pipeline is nullptr."}));
    EXPECT_FALSE(callback);
    EXPECT_EQ(data.streamId, "cam");
    EXPECT_EQ(data.lastTime, kStart);
    EXPECT_EQ(data.image.frameIndex, 0);
    EXPECT_EQ(data.pipeline, nullptr);
}

} // namespace
