// Which elements the pipelines are made of: a device's own, or the software ones that come with the library.
#pragma once

#include <string>
#include <vector>

namespace velstream::tool {

/// Initialises GStreamer for "device", "software" or "auto" (the device's where it has them, else software).
/// Call it before any thread starts. @throws UserError when the software elements are asked for and are not there.
void choose_elements(const std::string& choice);

/// What this GStreamer knows of an element.
struct ElementState {
    std::string name;
    std::string plugin; ///< empty when the element is missing
    std::string file;   ///< of the plug-in; empty for one that is built in
    bool is_found() const { return !plugin.empty(); }
};
ElementState find_element(const std::string& name);

/// The elements that a platform brings along, in alphabetical order; all others are GStreamer's own.
const std::vector<std::string>& platform_elements();
/// The ones among `names` that a platform brings along.
std::vector<std::string> platform_elements_of(const std::vector<std::string>& names);

/// The ones among `names` that are not there.
std::vector<std::string> missing_elements(const std::vector<std::string>& names);

/// " (package gstreamer1.0-rtsp)" for an element of GStreamer's own; nothing for a platform's.
std::string package_hint(const std::string& name);

} // namespace velstream::tool
