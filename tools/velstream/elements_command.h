// "velstream elements": says which of the platform's elements are there, and from where.
#pragma once

#include <string>

namespace velstream::tool {

/// @param choice  as for choose_elements().
/// @return the exit status: 0 every one is there, 1 one is missing. @throws UserError
int show_elements(const std::string& choice, bool is_json);

} // namespace velstream::tool
