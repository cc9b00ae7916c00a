// The converting half of "qtimlvconverter"; the other half keeps its branch from holding up others.
#pragma once

#include <gst/gst.h>

namespace velstream::software {

enum class ConverterProperty : guint { placement = 1, subpixel_layout, mean, sigma };
inline constexpr guint kConverterPropertyCount = 4;

/// A plain converter from video to tensors; its type is not registered as an element of its own.
GType mlvconverter_core_type();

/// Its properties, for whoever hands them on to it.
void install_converter_properties(GObjectClass* klass);

GstCaps* make_converter_sink_caps();

} // namespace velstream::software
