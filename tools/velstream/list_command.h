// "velstream list": the configured streams as a table.
#pragma once

#include <string>

namespace velstream::tool {

/// @throws UserError
void list_streams(const std::string& config, bool is_json);

} // namespace velstream::tool
