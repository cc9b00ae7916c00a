// Releases GStreamer's things; every unref of the peers stands here.
#pragma once

#include <gst/gst.h>
#include <gst/sdp/gstsdpmessage.h>

#include <memory>

namespace peers {

template <auto Release>
struct Releaser {
    template <typename T>
    void operator()(T* object) const noexcept
    {
        Release(object);
    }
};

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
using CapsPtr = std::unique_ptr<GstCaps, MiniObjectReleaser>;
using BufferPtr = std::unique_ptr<GstBuffer, MiniObjectReleaser>;
using SamplePtr = std::unique_ptr<GstSample, MiniObjectReleaser>;
using MessagePtr = std::unique_ptr<GstMessage, MiniObjectReleaser>;
using ErrorPtr = std::unique_ptr<GError, Releaser<g_error_free>>;
using TextPtr = std::unique_ptr<gchar, Releaser<g_free>>;
using MainLoopPtr = std::unique_ptr<GMainLoop, Releaser<g_main_loop_unref>>;
using IteratorPtr = std::unique_ptr<GstIterator, Releaser<gst_iterator_free>>;
using SdpPtr = std::unique_ptr<GstSDPMessage, Releaser<gst_sdp_message_free>>;
template <typename T>
using ObjectPtr = std::unique_ptr<T, Releaser<g_object_unref>>;

} // namespace peers
