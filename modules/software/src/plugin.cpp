// The plug-in's entry: the platform's elements, by their own factory names, in software.
#include "elements.h"

namespace {

gboolean plugin_init(GstPlugin* plugin)
{
    using namespace velstream::software;
    return register_vtransform(plugin) && register_split(plugin) && register_composer(plugin) &&
           register_overlay(plugin) && register_decoders(plugin) && register_encoders(plugin) &&
           register_waylandsink(plugin) && register_mlvconverter(plugin) && register_mlqnn(plugin) &&
           register_mlvdetection(plugin);
}

} // namespace

#define PACKAGE "velstream-gst"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, velsoftware, "The platform's elements in software", plugin_init,
                  "1.0.0", GST_LICENSE_UNKNOWN, "velstream-gst", "velstream-gst")
