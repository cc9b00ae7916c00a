// What the elements own, and how they make and map it.
#pragma once

#include "gst_handles.h"

#include <gst/video/video.h>

namespace velstream::software {

using namespace velstream::handles;

using ElementFactoryPtr = GstObjectPtr<GstElementFactory>;
using PluginFeaturePtr = GstObjectPtr<GstPluginFeature>;
using BufferPoolPtr = GstObjectPtr<GstBufferPool>;
using ConverterPtr = std::unique_ptr<GstVideoConverter, Releaser<gst_video_converter_free>>;

/// Makes an element by its factory name; empty where the factory is missing.
inline ElementPtr make_element(const char* factory)
{
    return share(gst_element_factory_make(factory, nullptr));
}

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
