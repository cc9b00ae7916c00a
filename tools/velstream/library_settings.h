// What the tool tells the library before it starts a stream.
#pragma once

#include <string>

namespace velstream::tool {

/// The configuration file that streams are read from.
void set_configuration(const std::string& path);

/// @param name  "info", "warning", "error" or "none".
void apply_log_level(const std::string& name);

} // namespace velstream::tool
