// The pads that most elements have.
#pragma once

#include <gst/gst.h>

namespace velstream::software {

/// An always-present "sink" and "src". The templates take references of their own to the caps.
inline void add_pad_templates(GstElementClass* element_class, GstCaps* sink_caps, GstCaps* src_caps)
{
    gst_element_class_add_pad_template(element_class,
                                       gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, sink_caps));
    gst_element_class_add_pad_template(element_class,
                                       gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, src_caps));
}

} // namespace velstream::software
