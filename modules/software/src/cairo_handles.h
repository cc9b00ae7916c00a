// Owners of what cairo and Pango draw with.
#pragma once

#include "gst_handles.h"

#include <pango/pangocairo.h>

namespace velstream::software {

using SurfacePtr = std::unique_ptr<cairo_surface_t, handles::Releaser<cairo_surface_destroy>>;
using ContextPtr = std::unique_ptr<cairo_t, handles::Releaser<cairo_destroy>>;
using LayoutPtr = handles::ObjectPtr<PangoLayout>;
using FontPtr = std::unique_ptr<PangoFontDescription, handles::Releaser<pango_font_description_free>>;

} // namespace velstream::software
