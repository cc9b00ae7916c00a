// Making, setting and linking elements, with the failures reported where they are known.
#pragma once

#include "Handles.h"
#include "PlatformTables.h"

#include <initializer_list>
#include <string>

namespace Quorvis::VelStream {

/// Sets one property. A name that the object lacks or that is read-only, and a value that it refuses, are skipped with
/// an information line: platforms' elements differ, and one unknown name in a g_object_set call would drop every pair
/// behind it. Null objects are skipped: a missing element is reported once, where all are checked.
void set_property(gpointer object, const char* name, int value);
void set_property(gpointer object, const char* name, bool value);
void set_property(gpointer object, const char* name, const std::string& value);
void set_property(gpointer object, const char* name, const CapsPtr& caps);

/// Caps of `text`, which must be well-formed.
inline CapsPtr make_caps(const char* text)
{
    return CapsPtr(gst_caps_from_string(text));
}

/// A "capsfilter" of that name (null for none) with these caps.
ElementPtr make_capsfilter(const char* name, const char* caps);

/// An element with its "location".
ElementPtr make_located(const char* factory, const char* name, const std::string& location);

/// The parser of a codec: "h265parse" for "H265", else "h264parse".
ElementPtr make_parser(const std::string& codec);

/// The platform's decoder for a codec, with its properties set.
ElementPtr make_decoder(const DecoderRow& row, const std::string& codec);

/// Sets "capture-io-mode" and "output-io-mode"; 0 leaves the element's own.
void set_io_modes(GstElement* element, IoModes io);

/// Adds elements to a bin. Null elements are passed over, so that they show as a failed link.
/// @return false when the bin refused one, which a name that is in it twice does.
bool add_all(GstElement* bin, std::initializer_list<GstElement*> elements);

struct LinkStep {
    GstElement* from;
    GstElement* to;
    const char* failure; ///< Logged at error level when the link fails.
};

/// Links one after the other up to the first failure. A null element is a failed link.
bool link_steps(std::initializer_list<LinkStep> steps);

/// Links a chain silently. A null element is a failed link.
bool link_chain(std::initializer_list<GstElement*> elements);

/// Makes a pipeline run on the system clock with a latency of 0.
void use_system_clock(GstElement* pipeline);

/// Current time of the system clock in ns.
GstClockTime system_time();

/// Puts a buffer probe on an element's static pad.
void add_buffer_probe(GstElement* element, const char* pad, GstPadProbeCallback callback, gpointer user_data);

} // namespace Quorvis::VelStream
