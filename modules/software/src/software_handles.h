// Owners for the GStreamer handles of the converting elements: they release on every way out.
#pragma once

#include "codec_handles.h"

namespace velstream::software {

using BufferPoolPtr = std::unique_ptr<GstBufferPool, Releaser<gst_object_unref>>;

/// A mapped frame; unmaps at the end of its life and takes no reference to the buffer.
class MappedFrame {
public:
    MappedFrame(const GstVideoInfo& info, GstBuffer* buffer, GstMapFlags flags)
    {
        is_mapped_ =
            gst_video_frame_map(&frame_, &info, buffer,
                                static_cast<GstMapFlags>(static_cast<int>(flags) | GST_VIDEO_FRAME_MAP_FLAG_NO_REF));
    }
    ~MappedFrame()
    {
        if (is_mapped_) gst_video_frame_unmap(&frame_);
    }
    MappedFrame(const MappedFrame&) = delete;
    MappedFrame& operator=(const MappedFrame&) = delete;

    explicit operator bool() const { return is_mapped_; }
    const GstVideoFrame& get() const { return frame_; }

private:
    GstVideoFrame frame_{};
    bool is_mapped_ = false;
};

} // namespace velstream::software
