// The ring of segments, filled faster than a camera fills it.
#include "Elements.h"
#include "Segments.h"
#include "StreamRecords.h"
#include "StreamRollingSave.h"
#include "StreamRollingSegments.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <thread>

using namespace Quorvis::VelStream;

namespace velstream::testing {

namespace {

using Ring = WithGStreamer;

/// The recorder's own last element behind a camera of one picture a second, which nothing holds back.
std::string description(int pictures)
{
    StreamProperty property;
    property.inputType = "rtsp";
    const std::string camera = rolling_description(property, "cam");
    return "videotestsrc num-buffers=" + std::to_string(pictures) +
           " ! video/x-raw,width=64,height=64,framerate=1/1 ! x264enc key-int-max=2 bframes=0 ! h264parse ! "
           "video/x-h264,stream-format=avc,alignment=au" +
           camera.substr(camera.find(" ! splitmuxsink"));
}

/// A segment that ends before the pipeline plays would tell its end again, which a camera's two seconds rule out: the
/// first is not filled up before.
GstPadProbeReturn wait_for_playing(GstPad* pad, GstPadProbeInfo*, gpointer pictures)
{
    constexpr int kForTheFirstData = 3;
    if (++*static_cast<int*>(pictures) <= kForTheFirstData) return GST_PAD_PROBE_OK;
    const ElementPtr sink(gst_pad_get_parent_element(pad));
    gst_element_get_state(sink.get(), nullptr, nullptr, 10 * GST_SECOND);
    return GST_PAD_PROBE_REMOVE;
}

/// A pipeline that writes that many segments.
ElementPtr make_ring(int segments)
{
    std::filesystem::create_directories("/tmp/rolling/cam");
    ElementPtr pipeline(gst_parse_launch(description(2 * segments).c_str(), nullptr));
    if (!pipeline) return pipeline;
    const ElementPtr sink = child(pipeline.get(), "rec");
    const PadPtr pad(gst_element_get_static_pad(sink.get(), "video"));
    gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, wait_for_playing, new int(0),
                      [](gpointer pictures) { delete static_cast<int*>(pictures); });
    return pipeline;
}

/// Runs it to its end, and looks at the ring meanwhile.
/// @return the most segments that were there at once; 0 when it did not come to its end
std::size_t run(GstElement* pipeline)
{
    const BusPtr bus(gst_element_get_bus(pipeline));
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    std::size_t most = 0;
    MessagePtr end;
    for (int i = 0; i < 2000 && !end; ++i) {
        end.reset(gst_bus_timed_pop_filtered(bus.get(), 20 * GST_MSECOND,
                                             GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
        most = std::max(most, segments_of("cam").size());
    }
    gst_element_set_state(pipeline, GST_STATE_NULL);
    return end && GST_MESSAGE_TYPE(end.get()) == GST_MESSAGE_EOS ? most : 0;
}

/// The first data and the end of each file, in their order.
class Turns {
public:
    /// @param sink  before its segments are put in order: what holds an end back stands between the two probes.
    explicit Turns(GstElement* sink)
    {
        g_signal_connect(sink, "sink-added", G_CALLBACK(watch_data), this);
        g_signal_connect_after(sink, "sink-added", G_CALLBACK(watch_end), this);
        g_signal_connect(sink, "muxer-added", G_CALLBACK(dawdle), nullptr);
    }

    /// Each as "data N" or "end N", N from 0.
    std::vector<std::string> in_order() const
    {
        const std::lock_guard lock(mutex_);
        return turns_;
    }

private:
    struct Note {
        Turns* turns;
        std::string text;
    };

    static void watch_data(GstElement*, GstElement* file, gpointer turns)
    {
        static_cast<Turns*>(turns)->watch(
            file, GstPadProbeType(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST), "data");
    }
    static void watch_end(GstElement*, GstElement* file, gpointer turns)
    {
        static_cast<Turns*>(turns)->watch(file, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, "end");
        ++static_cast<Turns*>(turns)->files_;
    }
    /// The turn is made here: for long enough that an end which is not held back overtakes it.
    static void dawdle() { std::this_thread::sleep_for(std::chrono::milliseconds(50)); }
    void watch(GstElement* file, GstPadProbeType type, const std::string& what)
    {
        gst_pad_add_probe(PadPtr(gst_element_get_static_pad(file, "sink")).get(), type, note,
                          new Note{this, what + " " + std::to_string(files_)},
                          [](gpointer data) { delete static_cast<Note*>(data); });
    }
    static GstPadProbeReturn note(GstPad*, GstPadProbeInfo* info, gpointer user_data)
    {
        const auto& [turns, text] = *static_cast<Note*>(user_data);
        const bool is_event = info->type & GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM;
        if (is_event && GST_EVENT_TYPE(info->data) != GST_EVENT_EOS) return GST_PAD_PROBE_OK;
        const std::lock_guard lock(turns->mutex_);
        turns->turns_.push_back(text);
        return GST_PAD_PROBE_REMOVE;
    }

    mutable std::mutex mutex_;
    std::vector<std::string> turns_;
    int files_ = 0;
};

} // namespace

TEST_F(Ring, NeverHoldsMoreThan100SegmentsAndUsesTheirNumbersAgain)
{
    const ElementPtr pipeline = make_ring(230);
    ASSERT_TRUE(pipeline);
    order_segments(child(pipeline.get(), "rec").get());
    EXPECT_EQ(run(pipeline.get()), 100U);
    const std::vector<std::string> segments = segments_of("cam");
    ASSERT_EQ(segments.size(), 100U);
    EXPECT_EQ(segments.front(), "/tmp/rolling/cam/00000.mp4");
    EXPECT_EQ(segments.back(), "/tmp/rolling/cam/00099.mp4");
    // The second turn ended at 00029, so this one is newer than the one after it.
    const auto time_of = [&](std::size_t i) { return std::filesystem::last_write_time(segments[i]); };
    EXPECT_GT(time_of(29), time_of(30));
    EXPECT_GT(time_of(0), time_of(50));
}

TEST_F(Ring, SegmentEndsBehindTheFirstDataOfTheNext)
{
    constexpr int kSegments = 4;
    const ElementPtr pipeline = make_ring(kSegments);
    ASSERT_TRUE(pipeline);
    const ElementPtr sink = child(pipeline.get(), "rec");
    const Turns turns(sink.get());
    order_segments(sink.get());
    EXPECT_GT(run(pipeline.get()), 0U);
    const std::vector<std::string> order = turns.in_order();
    const auto place_of = [&](const std::string& text) { return std::find(order.begin(), order.end(), text); };
    for (int segment = 0; segment + 1 < kSegments; ++segment) {
        const auto data = place_of("data " + std::to_string(segment + 1));
        const auto end = place_of("end " + std::to_string(segment));
        EXPECT_NE(end, order.end()) << segment;
        EXPECT_LT(data, end) << segment;
    }
}

} // namespace velstream::testing
