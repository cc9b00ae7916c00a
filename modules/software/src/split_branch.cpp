#include "split_branch.h"

#include "frame_convert.h"
#include "frame_layout.h"
#include "vtransform_caps.h"

#include <algorithm>

namespace velstream::software {

namespace {

/// Evens out two branches that take turns at being slower; not so many that a decoder's pool runs dry.
constexpr unsigned kMaxFrames = 3;

} // namespace

void SplitBranch::open()
{
    const std::lock_guard lock(mutex_);
    is_open_ = true;
    flow_ = GST_FLOW_OK;
}

void SplitBranch::close()
{
    std::deque<MiniObjectPtr> dropped;
    {
        const std::lock_guard lock(mutex_);
        is_open_ = false;
        dropped.swap(items_);
        frames_ = 0;
    }
    changed_.notify_all();
}

void SplitBranch::set_linked(bool is_linked)
{
    std::deque<MiniObjectPtr> dropped;
    {
        const std::lock_guard lock(mutex_);
        is_linked_ = is_linked;
        if (is_linked) return;
        std::deque<MiniObjectPtr> kept;
        for (MiniObjectPtr& item : items_)
            (GST_IS_BUFFER(item.get()) ? dropped : kept).push_back(std::move(item));
        items_.swap(kept);
        frames_ = 0;
    }
    changed_.notify_all();
}

/// Under the lock. Nobody will take another frame before a flush, a new segment or a new link.
bool SplitBranch::is_gone() const
{
    return !is_open_ || flow_ != GST_FLOW_OK || !is_linked_;
}

void SplitBranch::put_frame(GstBuffer* buffer)
{
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return frames_ < kMaxFrames || is_gone(); });
    if (is_gone()) return;
    items_.emplace_back(GST_MINI_OBJECT(gst_buffer_ref(buffer)));
    ++frames_;
    changed_.notify_all();
}

void SplitBranch::put_event(EventPtr event)
{
    const std::lock_guard lock(mutex_);
    if (!is_open_) return;
    items_.emplace_back(GST_MINI_OBJECT(event.release()));
    changed_.notify_all();
}

GstFlowReturn SplitBranch::flow()
{
    const std::lock_guard lock(mutex_);
    return flow_;
}

/// With the end of the stream on its way no frame comes that would tell upstream of a failure.
void SplitBranch::set_flow(GstFlowReturn flow)
{
    bool is_last = false;
    {
        const std::lock_guard lock(mutex_);
        flow_ = flow;
        is_last = std::any_of(items_.begin(), items_.end(), [](const MiniObjectPtr& item) {
            return GST_IS_EVENT(item.get()) && GST_EVENT_TYPE(item.get()) == GST_EVENT_EOS;
        });
    }
    changed_.notify_all();
    const ElementPtr element(gst_pad_get_parent_element(pad_));
    if (is_last && element && flow <= GST_FLOW_NOT_NEGOTIATED) GST_ELEMENT_FLOW_ERROR(element.get(), flow);
}

/// The next item; empty: the branch is closed.
MiniObjectPtr SplitBranch::take()
{
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return !items_.empty() || !is_open_; });
    if (!is_open_) return nullptr;
    MiniObjectPtr item = std::move(items_.front());
    items_.pop_front();
    if (GST_IS_BUFFER(item.get())) {
        --frames_;
        changed_.notify_all();
    }
    return item;
}

void SplitBranch::handle_one()
{
    MiniObjectPtr item = take();
    if (!item)
        gst_pad_pause_task(pad_);
    else if (GST_IS_BUFFER(item.get()))
        handle_frame(BufferPtr(GST_BUFFER_CAST(item.release())));
    else
        handle_event(EventPtr(GST_EVENT_CAST(item.release())));
}

void SplitBranch::handle_event(EventPtr event)
{
    switch (GST_EVENT_TYPE(event.get())) {
    case GST_EVENT_CAPS: {
        GstCaps* caps = nullptr;
        gst_event_parse_caps(event.get(), &caps);
        in_caps_.reset(gst_caps_ref(caps));
        out_caps_.reset();
        negotiate_and_note();
        return;
    }
    case GST_EVENT_STREAM_START:
    case GST_EVENT_SEGMENT:
        // A peer that has said end of stream may take the next stream.
        if (flow() == GST_FLOW_EOS) set_flow(GST_FLOW_OK);
        break;
    default:
        break;
    }
    // A new peer has to hear its own caps before the events behind them.
    if (in_caps_ && gst_pad_check_reconfigure(pad_)) negotiate_and_note();
    gst_pad_push_event(pad_, event.release());
}

void SplitBranch::negotiate_and_note()
{
    const GstFlowReturn flow = negotiate();
    if (flow != GST_FLOW_OK && flow != GST_FLOW_NOT_LINKED) set_flow(flow);
}

void SplitBranch::handle_frame(BufferPtr input)
{
    if (flow() != GST_FLOW_OK || !gst_pad_is_linked(pad_)) return;
    GstFlowReturn flow = GST_FLOW_OK;
    if (gst_pad_check_reconfigure(pad_) || !out_caps_) flow = negotiate();
    if (flow == GST_FLOW_OK) {
        BufferPtr output = convert(std::move(input));
        flow = output ? gst_pad_push(pad_, output.release()) : GST_FLOW_ERROR;
    }
    // Not linked: perhaps the next frame is. Flushing: the flush or the stop that follows closes the branch.
    if (flow == GST_FLOW_NOT_LINKED || flow == GST_FLOW_FLUSHING) return;
    if (flow != GST_FLOW_OK) set_flow(flow);
}

/// What the peer takes, its open fields as the input has them; without a peer the input's caps. Empty caps: nothing
/// fits.
CapsPtr SplitBranch::choose_caps() const
{
    const CapsPtr open(make_other_caps(in_caps_.get(), nullptr));
    CapsPtr possible(gst_pad_peer_query_caps(pad_, open.get()));
    possible.reset(gst_caps_intersect_full(possible.get(), open.get(), GST_CAPS_INTERSECT_FIRST));
    if (gst_caps_is_empty(possible.get())) return possible;
    return CapsPtr(fixate_other_caps(in_caps_.get(), possible.release(), false));
}

GstFlowReturn SplitBranch::negotiate()
{
    if (!in_caps_) return GST_FLOW_NOT_NEGOTIATED;
    const CapsPtr chosen = choose_caps();
    if (gst_caps_is_empty(chosen.get()) || !gst_caps_is_fixed(chosen.get())) return GST_FLOW_NOT_NEGOTIATED;
    if (out_caps_ && gst_caps_is_equal(out_caps_.get(), chosen.get())) return GST_FLOW_OK;
    return prepare(chosen.get());
}

GstFlowReturn SplitBranch::prepare(GstCaps* caps)
{
    if (!gst_video_info_from_caps(&in_, in_caps_.get()) || !gst_video_info_from_caps(&out_, caps))
        return GST_FLOW_NOT_NEGOTIATED;
    transformer_.configure(in_, out_, Geometry{});
    if (pool_) gst_buffer_pool_set_active(pool_.get(), FALSE);
    pool_.reset(make_frame_pool(caps, 0));
    if (!pool_ || !gst_buffer_pool_set_active(pool_.get(), TRUE)) return GST_FLOW_ERROR;
    out_caps_.reset(gst_caps_ref(caps));
    // The pad keeps the caps: a peer that is only just being linked gets them, or refuses them, with the next frame.
    gst_pad_push_event(pad_, gst_event_new_caps(caps));
    return GST_FLOW_OK;
}

/// The input itself where the peer takes it so. Empty: no memory, or a frame that cannot be mapped.
BufferPtr SplitBranch::convert(BufferPtr input)
{
    const bool is_tight = !has_tight_layout(GST_VIDEO_INFO_FORMAT(&out_)) || has_tight_rows(input.get(), in_);
    if (transformer_.is_identity() && is_tight) return input;
    GstBuffer* acquired = nullptr;
    if (gst_buffer_pool_acquire_buffer(pool_.get(), &acquired, nullptr) != GST_FLOW_OK) return nullptr;
    BufferPtr output(acquired);
    if (!convert_frame(transformer_, in_, input.get(), out_, output.get())) {
        const ElementPtr element(gst_pad_get_parent_element(pad_));
        if (element)
            GST_ELEMENT_ERROR(element.get(), RESOURCE, FAILED, ("A video frame could not be mapped."), (nullptr));
        return nullptr;
    }
    copy_frame_metadata(input.get(), output.get());
    return output;
}

} // namespace velstream::software
