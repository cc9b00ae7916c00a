// Where a command's results go.
#pragma once

#include <cstdio>

namespace velstream::tool {

/// Standard output is for the results: from now on whatever a library prints there goes to standard error.
/// @return the former standard output.
FILE* take_standard_output();

} // namespace velstream::tool
