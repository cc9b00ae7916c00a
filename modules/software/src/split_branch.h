// One output of "qtivsplit": a short queue, and the conversion to the caps that its peer asks for.
#pragma once

#include "software_handles.h"
#include "vtransform_geometry.h"

#include <condition_variable>
#include <deque>
#include <mutex>

namespace velstream::software {

/**
 * Takes frames and events from the sink pad's thread, converts and pushes them from the source pad's own. It waits for
 * its own peer only: whoever puts a frame waits while the queue is full, unless the branch leads nowhere.
 */
class SplitBranch {
public:
    /// @param pad  the source pad, borrowed: it owns the branch
    explicit SplitBranch(GstPad* pad) : pad_(pad) {}

    GstPad* pad() const { return pad_; }

    /// Any thread. Open when the pad is active and not flushing; closing drops what waits and wakes everyone.
    void open();
    void close();
    /// Any thread, the pad's object lock not held. With the peer go the frames that wait for it.
    void set_linked(bool is_linked);

    /// Sink pad's thread. Waits while the queue is full.
    void put_frame(GstBuffer* buffer);
    void put_event(EventPtr event);
    /// What the peer last said to a frame; OK again after a flush.
    GstFlowReturn flow();

    /// Source pad's thread: handles one frame or event, or pauses the pad's task when the branch is closed.
    void handle_one();

private:
    MiniObjectPtr take();
    bool is_gone() const;
    void set_flow(GstFlowReturn flow);
    void handle_event(EventPtr event);
    void handle_frame(BufferPtr input);
    void negotiate_and_note();
    GstFlowReturn negotiate();
    CapsPtr choose_caps() const;
    GstFlowReturn prepare(GstCaps* caps);
    BufferPtr convert(BufferPtr input);

    GstPad* const pad_;

    std::mutex mutex_; ///< guards what follows; never held across a call into GStreamer that can block
    std::condition_variable changed_;
    std::deque<MiniObjectPtr> items_;
    unsigned frames_ = 0; ///< of items_
    bool is_open_ = false;
    bool is_linked_ = false; ///< as the pad told; asking the pad would take its lock inside ours
    GstFlowReturn flow_ = GST_FLOW_OK;

    // The rest belongs to the source pad's thread.
    CapsPtr in_caps_;
    CapsPtr out_caps_;
    GstVideoInfo in_{};
    GstVideoInfo out_{};
    FrameTransformer transformer_;
    BufferPoolPtr pool_; ///< none: frames are handed on as they are
};

} // namespace velstream::software
