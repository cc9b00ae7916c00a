#include "StreamRollingSegments.h"

#include "Handles.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace Quorvis::VelStream {

namespace {

/// How far the segments of one recording are. Each is fed and ended by a thread of its own.
class SegmentOrder {
public:
    /// @return the number of a new segment, from 1
    unsigned add()
    {
        const std::lock_guard lock(mutex_);
        return ++added_;
    }

    void begin(unsigned segment)
    {
        const std::lock_guard lock(mutex_);
        begun_ = segment;
        changed_.notify_all();
    }

    /// The last segment has none behind it.
    void end_input()
    {
        const std::lock_guard lock(mutex_);
        is_input_ended_ = true;
        changed_.notify_all();
    }

    void wait_for_next(unsigned segment)
    {
        std::unique_lock lock(mutex_);
        const auto is_next_begun = [&] { return begun_ > segment; };
        changed_.wait_for(lock, kBound, [&] { return is_input_ended_ || is_next_begun(); });
        changed_.wait_for(lock, kLastBound, is_next_begun);
    }

private:
    // A pipeline that goes down meanwhile waits as long, and a segment that is let go too early is lost but seldom.
    static constexpr std::chrono::milliseconds kBound{1000};
    static constexpr std::chrono::milliseconds kLastBound{100};

    std::mutex mutex_;
    std::condition_variable changed_;
    unsigned added_ = 0;
    unsigned begun_ = 0;
    bool is_input_ended_ = false;
};

using OrderPtr = std::shared_ptr<SegmentOrder>;

struct Segment {
    OrderPtr order;
    unsigned number;
};

template <typename T>
void free_data(gpointer data)
{
    delete static_cast<T*>(data);
}

/// Only what comes after the turn is written into a new segment.
GstPadProbeReturn begin_segment(GstPad*, GstPadProbeInfo*, gpointer user_data)
{
    const auto& segment = *static_cast<Segment*>(user_data);
    segment.order->begin(segment.number);
    return GST_PAD_PROBE_REMOVE;
}

GstPadProbeReturn hold_end(GstPad*, GstPadProbeInfo* info, gpointer user_data)
{
    const auto& segment = *static_cast<Segment*>(user_data);
    if (GST_EVENT_TYPE(info->data) == GST_EVENT_EOS) segment.order->wait_for_next(segment.number);
    return GST_PAD_PROBE_OK;
}

GstPadProbeReturn end_input(GstPad*, GstPadProbeInfo* info, gpointer order)
{
    if (GST_EVENT_TYPE(info->data) == GST_EVENT_EOS) (*static_cast<OrderPtr*>(order))->end_input();
    return GST_PAD_PROBE_OK;
}

void on_sink_added(GstElement*, GstElement* file, gpointer user_data)
{
    const auto& order = *static_cast<OrderPtr*>(user_data);
    const PadPtr pad(gst_element_get_static_pad(file, "sink"));
    if (!pad) return;
    const Segment segment{order, order->add()};
    gst_pad_add_probe(pad.get(), GstPadProbeType(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST),
                      begin_segment, new Segment(segment), free_data<Segment>);
    gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, hold_end, new Segment(segment),
                      free_data<Segment>);
}

} // namespace

void order_segments(GstElement* sink)
{
    const auto order = std::make_shared<SegmentOrder>();
    const PadPtr input(gst_element_get_static_pad(sink, "video"));
    if (!input) return;
    gst_pad_add_probe(input.get(), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, end_input, new OrderPtr(order),
                      free_data<OrderPtr>);
    g_signal_connect_data(
        sink, "sink-added", G_CALLBACK(on_sink_added), new OrderPtr(order),
        [](gpointer data, GClosure*) { free_data<OrderPtr>(data); }, GConnectFlags(0));
}

} // namespace Quorvis::VelStream
