// What each source of the plug-in registers. All elements have rank NONE: they run only where they are named.
#pragma once

#include <gst/gst.h>

namespace velstream::software {

/// "qtivtransform".
gboolean register_vtransform(GstPlugin* plugin);
/// "qtivsplit".
gboolean register_split(GstPlugin* plugin);
/// "qtivcomposer".
gboolean register_composer(GstPlugin* plugin);
/// "qtivoverlay".
gboolean register_overlay(GstPlugin* plugin);
/// "qtivdec", "qtic2vdec", "v4l2h264dec", "v4l2h265dec".
gboolean register_decoders(GstPlugin* plugin);
/// "qtic2venc", "v4l2h264enc", "v4l2h265enc".
gboolean register_encoders(GstPlugin* plugin);
/// Lets "waylandsink" answer to the platform's own properties and caps inside this process.
gboolean register_waylandsink(GstPlugin* plugin);

/// "qtimlvconverter".
gboolean register_mlvconverter(GstPlugin* plugin);
/// "qtimlqnn".
gboolean register_mlqnn(GstPlugin* plugin);
/// "qtimlvdetection".
gboolean register_mlvdetection(GstPlugin* plugin);

} // namespace velstream::software
