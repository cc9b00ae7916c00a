// An end of stream behind a source that is a bin, as an RTSP client is, and whose thread never waits for a frame: what
// is behind it holds that thread up.
#include "StreamBuildRegistry.h"
#include "gst_handles.h"

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

namespace velstream::testing {

namespace {

using velstream::handles::BusPtr;
using velstream::handles::ElementPtr;
using velstream::handles::MessagePtr;
using velstream::handles::PadPtr;

/// Adds a bin of a kind of its own with a source inside, as a source that consists of elements is.
GstElement* add_source_bin(GstBin* pipeline)
{
    static const GType type = g_type_register_static_simple(GST_TYPE_BIN, "TestSourceBin", sizeof(GstBinClass), nullptr,
                                                            sizeof(GstBin), nullptr, GTypeFlags{});
    auto* bin = static_cast<GstElement*>(g_object_new(type, nullptr));
    GstElement* source = gst_element_factory_make("videotestsrc", nullptr);
    GstElement* queue = gst_element_factory_make("queue", nullptr);
    gst_bin_add_many(GST_BIN(bin), source, queue, nullptr);
    gst_element_link(source, queue);
    gst_element_add_pad(bin, gst_ghost_pad_new("src", PadPtr(gst_element_get_static_pad(queue, "src")).get()));
    gst_bin_add(pipeline, bin);
    return bin;
}

/// What lies behind the source: it takes its time for the first frame.
struct Behind {
    std::atomic<int> frames = 0;
    std::promise<void> is_busy;
    std::promise<void> goes_on;
};

GstPadProbeReturn take_frame(GstPad*, GstPadProbeInfo*, gpointer data)
{
    auto& behind = *static_cast<Behind*>(data);
    if (behind.frames++ > 0) return GST_PAD_PROBE_OK;
    behind.is_busy.set_value();
    behind.goes_on.get_future().wait();
    return GST_PAD_PROBE_OK;
}

/// The end of stream waits there for the frame that is on its way.
bool wait_for_end_at(GstPad* pad)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!gst_pad_is_blocked(pad) && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return gst_pad_is_blocked(pad);
}

} // namespace

TEST(EndOfStream, ComesBehindTheFrameThatIsOnItsWayThoughTheNextIsThere)
{
    gst_init(nullptr, nullptr);
    const ElementPtr pipeline(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new(nullptr))));
    GstElement* source = add_source_bin(GST_BIN(pipeline.get()));
    GstElement* sink = gst_element_factory_make("fakesink", nullptr);
    gst_bin_add(GST_BIN(pipeline.get()), sink);
    ASSERT_TRUE(gst_element_link(source, sink));
    Behind behind;
    gst_pad_add_probe(PadPtr(gst_element_get_static_pad(sink, "sink")).get(), GST_PAD_PROBE_TYPE_BUFFER, take_frame,
                      &behind, nullptr);
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    behind.is_busy.get_future().wait();
    Quorvis::VelStream::send_end_of_stream(pipeline.get());
    EXPECT_TRUE(wait_for_end_at(PadPtr(gst_element_get_static_pad(source, "src")).get()));
    behind.goes_on.set_value();
    const BusPtr bus(gst_element_get_bus(pipeline.get()));
    const MessagePtr message(
        gst_bus_timed_pop_filtered(bus.get(), 60 * GST_SECOND, GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
    EXPECT_TRUE(message && GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS);
    EXPECT_EQ(behind.frames, 1);
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
}

} // namespace velstream::testing
