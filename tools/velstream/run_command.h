// "velstream run": runs streams and says how they went.
#pragma once

#include "configuration.h"
#include "drawing.h"

#include <cstdint>
#include <string>
#include <vector>

namespace velstream::tool {

struct RunOptions {
    std::vector<std::string> ids;
    bool is_split = false; ///< the two ids are one camera's, decoded once
    std::string config;
    double duration = 0; ///< seconds; 0 for no limit
    uint64_t frames = 0; ///< of each stream; 0 for no limit
    std::string snapshot_folder;
    DrawingOptions drawing;
    bool is_json = false;
    std::string elements = "auto";
    std::string log_level = "warning";
};

/// @return the exit status: 0 every stream ended well, 1 one did not. @throws UserError
int run_streams(const RunOptions& options);

/// @throws UserError when a pipeline could not even be built
void refuse_missing_elements(const std::vector<StreamEntry>& streams, bool is_split = false);

} // namespace velstream::tool
