// "velstream merge": joins the segments of a rolling recording.
#pragma once

#include <string>
#include <vector>

namespace velstream::tool {

/// Goes on as the script that joins them. Returns only when that cannot be run.
/// @param options  of the script. @return the exit status
int merge_segments(const std::string& id, const std::vector<std::string>& options);

} // namespace velstream::tool
