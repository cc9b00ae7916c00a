// Owners of GStreamer and GLib objects. The release functions stand here and nowhere else.
#pragma once

#include <gst/gst.h>

#include <memory>

namespace Quorvis::VelStream {

template <auto Release>
struct Releaser {
    template <typename T>
    void operator()(T* object) const noexcept
    {
        Release(object);
    }
};

/// For mini objects, whose own unref functions are inline and so differ from source to source.
struct MiniObjectReleaser {
    template <typename T>
    void operator()(T* object) const noexcept
    {
        gst_mini_object_unref(GST_MINI_OBJECT_CAST(object));
    }
};

using ElementPtr = std::unique_ptr<GstElement, Releaser<gst_object_unref>>;
using PadPtr = std::unique_ptr<GstPad, Releaser<gst_object_unref>>;
using BusPtr = std::unique_ptr<GstBus, Releaser<gst_object_unref>>;
using ClockPtr = std::unique_ptr<GstClock, Releaser<gst_object_unref>>;
using CapsPtr = std::unique_ptr<GstCaps, MiniObjectReleaser>;
using BufferPtr = std::unique_ptr<GstBuffer, MiniObjectReleaser>;
using SamplePtr = std::unique_ptr<GstSample, MiniObjectReleaser>;
using MessagePtr = std::unique_ptr<GstMessage, MiniObjectReleaser>;
using IteratorPtr = std::unique_ptr<GstIterator, Releaser<gst_iterator_free>>;
using ErrorPtr = std::unique_ptr<GError, Releaser<g_error_free>>;
using TextPtr = std::unique_ptr<char, Releaser<g_free>>;
using MainContextPtr = std::unique_ptr<GMainContext, Releaser<g_main_context_unref>>;
using MainLoopPtr = std::unique_ptr<GMainLoop, Releaser<g_main_loop_unref>>;
using SourcePtr = std::unique_ptr<GSource, Releaser<g_source_unref>>;

/// Makes an element and sinks its floating reference: the handle owns it before and after a bin takes its own.
/// Null when the factory is missing; the log names it.
ElementPtr make_element(const char* factory, const char* name = nullptr);

/// A further owner of an element that may still be floating. Null stays null.
inline ElementPtr share(GstElement* element)
{
    return ElementPtr(element ? GST_ELEMENT(gst_object_ref_sink(element)) : nullptr);
}

/// A buffer mapped for the life of this object. It takes no reference: a further one would make the buffer unwritable.
/// A buffer that is shared is not mapped for writing, since others may be reading it.
class MappedBuffer {
public:
    MappedBuffer(GstBuffer* buffer, GstMapFlags flags) : buffer_(buffer)
    {
        const bool is_allowed = buffer_ && (!(flags & GST_MAP_WRITE) || gst_buffer_is_writable(buffer_));
        is_mapped_ = is_allowed && gst_buffer_map(buffer_, &info_, flags);
    }
    ~MappedBuffer()
    {
        if (is_mapped_) gst_buffer_unmap(buffer_, &info_);
    }
    MappedBuffer(const MappedBuffer&) = delete;
    MappedBuffer& operator=(const MappedBuffer&) = delete;

    explicit operator bool() const { return is_mapped_; }
    guint8* data() const { return info_.data; }
    gsize size() const { return info_.size; }

private:
    GstBuffer* buffer_;
    GstMapInfo info_ = GST_MAP_INFO_INIT;
    bool is_mapped_ = false;
};

} // namespace Quorvis::VelStream
