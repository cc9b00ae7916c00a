// "velstream compose": four cameras on one canvas, as a layout file says.
#pragma once

#include <string>

namespace velstream::tool {

struct ComposeOptions {
    std::string layout;
    double duration = 0; ///< seconds; 0: without end
    bool is_check = false;
    bool is_json = false;
    std::string log_level = "error";
    std::string elements = "auto";
};

/// @return the exit status.
int compose(const ComposeOptions& options);

} // namespace velstream::tool
