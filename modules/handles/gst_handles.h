// Owners of GStreamer and GLib objects: they release on every way out. The library, the software elements, the tool and
// the tests share them.
#pragma once

#include <gst/gst.h>

#include <memory>

namespace velstream::handles {

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

template <typename T>
using ObjectPtr = std::unique_ptr<T, Releaser<g_object_unref>>;
template <typename T>
using GstObjectPtr = std::unique_ptr<T, Releaser<gst_object_unref>>;
template <typename T>
using GstMiniObjectPtr = std::unique_ptr<T, MiniObjectReleaser>;

using ElementPtr = GstObjectPtr<GstElement>;
using PadPtr = GstObjectPtr<GstPad>;
using BusPtr = GstObjectPtr<GstBus>;
using ClockPtr = GstObjectPtr<GstClock>;
using PluginPtr = GstObjectPtr<GstPlugin>;

using MiniObjectPtr = GstMiniObjectPtr<GstMiniObject>;
using CapsPtr = GstMiniObjectPtr<GstCaps>;
using BufferPtr = GstMiniObjectPtr<GstBuffer>;
using SamplePtr = GstMiniObjectPtr<GstSample>;
using MessagePtr = GstMiniObjectPtr<GstMessage>;
using EventPtr = GstMiniObjectPtr<GstEvent>;
using QueryPtr = GstMiniObjectPtr<GstQuery>;

using StructurePtr = std::unique_ptr<GstStructure, Releaser<gst_structure_free>>;
using IteratorPtr = std::unique_ptr<GstIterator, Releaser<gst_iterator_free>>;
using ErrorPtr = std::unique_ptr<GError, Releaser<g_error_free>>;
using TextPtr = std::unique_ptr<char, Releaser<g_free>>;
using MainContextPtr = std::unique_ptr<GMainContext, Releaser<g_main_context_unref>>;
using MainLoopPtr = std::unique_ptr<GMainLoop, Releaser<g_main_loop_unref>>;
using SourcePtr = std::unique_ptr<GSource, Releaser<g_source_unref>>;

/// A further owner of an element that may still be floating. Null stays null.
inline ElementPtr share(GstElement* element)
{
    return ElementPtr(element ? GST_ELEMENT(gst_object_ref_sink(element)) : nullptr);
}

} // namespace velstream::handles
