// Which elements the pipelines are made of: a device's own, or the software ones that come with the library.
#pragma once

#include <string>

namespace velstream::tool {

/// Initialises GStreamer for "device", "software" or "auto" (the device's where it has them, else software).
/// Call it before any thread starts. @throws UserError when the software elements are asked for and are not there.
void choose_elements(const std::string& choice);

} // namespace velstream::tool
