// Owners for the GStreamer and GLib handles of the codec elements: they release on every way out.
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

using ElementPtr = std::unique_ptr<GstElement, Releaser<gst_object_unref>>;
using ElementFactoryPtr = std::unique_ptr<GstElementFactory, Releaser<gst_object_unref>>;
using PluginPtr = std::unique_ptr<GstPlugin, Releaser<gst_object_unref>>;
using PluginFeaturePtr = std::unique_ptr<GstPluginFeature, Releaser<gst_object_unref>>;
using PadPtr = std::unique_ptr<GstPad, Releaser<gst_object_unref>>;
using CapsPtr = std::unique_ptr<GstCaps, Releaser<gst_caps_unref>>;
using EventPtr = std::unique_ptr<GstEvent, Releaser<gst_event_unref>>;
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

} // namespace velstream::software
