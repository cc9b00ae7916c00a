// A frame costs no memory: what the taps allocate once a stream runs. An executable of its own, since it stands before
// the C library's allocator and before the log, which drops every line as it does below its level.
#include "StreamBuild.h"
#include "StreamCommon.h"
#include "velclog.h"

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <cstdlib>

namespace {

thread_local long t_allocations = 0;

} // namespace

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);

__attribute__((visibility("default"))) void* malloc(std::size_t size) noexcept
{
    ++t_allocations;
    return __libc_malloc(size);
}

__attribute__((visibility("default"))) void* calloc(std::size_t count, std::size_t size) noexcept
{
    ++t_allocations;
    return __libc_calloc(count, size);
}

__attribute__((visibility("default"))) void* realloc(void* memory, std::size_t size) noexcept
{
    ++t_allocations;
    return __libc_realloc(memory, size);
}
}

namespace Quorvis::VelClog {

void clog_printf(int, const char*, int, const char*, ...) {}
void clog_set_log_level(const char*, int) {}
void clogger(const char*, const char*, int) {}

} // namespace Quorvis::VelClog

namespace {

using namespace Quorvis::VelStream;
using Tap = GstPadProbeReturn (*)(GstPad*, GstPadProbeInfo*, void*);

TEST(FrameTapAllocations, AreSeenByTheCount)
{
    gst_init(nullptr, nullptr);
    const long before = t_allocations;
    gst_object_unref(gst_pad_new("src", GST_PAD_SRC));
    const std::string text(100, 'x');
    EXPECT_GE(t_allocations - before, 2) << "GLib's and the language's own";
}

TEST(FrameTapAllocations, DoNotHappenInASteadyStream)
{
    gst_init(nullptr, nullptr);
    const ElementPtr pipeline(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new("cam"))));
    const PadPtr pad(GST_PAD(gst_object_ref_sink(gst_pad_new("src", GST_PAD_SRC))));
    gst_pad_set_active(pad.get(), TRUE);
    gst_pad_push_event(pad.get(), gst_event_new_stream_start("cam"));
    const CapsPtr caps(gst_caps_from_string("video/x-raw,format=RGB,width=4,height=2"));
    gst_pad_push_event(pad.get(), gst_event_new_caps(caps.get()));

    long frames = 0;
    PiplineData data;
    data.pipeline = pipeline.get();
    std::function<int8_t(const Image&)> callback = [&frames](const Image& image) {
        frames += image.width == 4 ? 1 : 0;
        return int8_t{0};
    };
    // Longer than what a string holds in place.
    ASSERT_EQ(pipeline_data_init(&data, "a-camera-with-a-long-name-0123456789", callback), 0);
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, 24, nullptr);
    GstPadProbeInfo info{};
    info.type = GST_PAD_PROBE_TYPE_BUFFER;
    info.data = buffer;

    for (const Tap tap : {on_buffer_received, on_buffer_received_v4l2, on_buffer_received_re}) {
        const auto run = [&](int count) {
            for (int i = 0; i < count; ++i) {
                GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(i) * GST_SECOND;
                tap(pad.get(), &info, &data);
            }
        };
        run(2); // what the first frames leave behind is used again
        const long before = t_allocations;
        run(100);
        EXPECT_EQ(t_allocations - before, 0);
    }
    EXPECT_EQ(frames, 306);
    gst_buffer_unref(buffer);
}

} // namespace
