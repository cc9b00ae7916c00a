// Owners for the GStreamer and GLib handles of the elements: they release on every way out.
#pragma once

#include <gst/gst.h>
#include <gst/video/video.h>

#include <memory>

namespace velstream::software {

template <auto Release>
struct Releaser {
    template <typename T>
    void operator()(T* object) const noexcept
    {
        Release(object);
    }
};

/// For what GStreamer counts as mini objects; their own unref functions are inline and name no template.
struct MiniObjectReleaser {
    template <typename T>
    void operator()(T* object) const noexcept
    {
        gst_mini_object_unref(GST_MINI_OBJECT_CAST(object));
    }
};

using ElementPtr = std::unique_ptr<GstElement, Releaser<gst_object_unref>>;
using ElementFactoryPtr = std::unique_ptr<GstElementFactory, Releaser<gst_object_unref>>;
using PluginPtr = std::unique_ptr<GstPlugin, Releaser<gst_object_unref>>;
using PluginFeaturePtr = std::unique_ptr<GstPluginFeature, Releaser<gst_object_unref>>;
using PadPtr = std::unique_ptr<GstPad, Releaser<gst_object_unref>>;
using BufferPoolPtr = std::unique_ptr<GstBufferPool, Releaser<gst_object_unref>>;
using BufferPtr = std::unique_ptr<GstBuffer, MiniObjectReleaser>;
using CapsPtr = std::unique_ptr<GstCaps, MiniObjectReleaser>;
using MiniObjectPtr = std::unique_ptr<GstMiniObject, MiniObjectReleaser>;
using EventPtr = std::unique_ptr<GstEvent, MiniObjectReleaser>;
using QueryPtr = std::unique_ptr<GstQuery, MiniObjectReleaser>;
using StructurePtr = std::unique_ptr<GstStructure, Releaser<gst_structure_free>>;
using ConverterPtr = std::unique_ptr<GstVideoConverter, Releaser<gst_video_converter_free>>;

/// Takes over a floating or new element: the handle owns it before and after a bin takes a reference of its own.
inline ElementPtr own_element(GstElement* element)
{
    return ElementPtr(element ? GST_ELEMENT(gst_object_ref_sink(element)) : nullptr);
}

/// Makes an element by its factory name; empty where the factory is missing.
inline ElementPtr make_element(const char* factory)
{
    return own_element(gst_element_factory_make(factory, nullptr));
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
