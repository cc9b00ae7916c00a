// "velstream splice": a file of raw H.265 through the splice decoder.
#pragma once

#include <string>

namespace velstream::tool {

struct SpliceOptions {
    std::string file;
    int fps = 25; ///< units a second
    std::string snapshot_folder;
    bool is_json = false;
    std::string elements = "auto";
};

/// Pushes every access unit of a file and counts the frames that come out.
/// @return the exit status. @throws UserError
int splice_file(const SpliceOptions& options);

} // namespace velstream::tool
