// "velstream check": says what is wrong with a configuration file before a stream is started.
#pragma once

#include <string>

namespace velstream::tool {

struct CheckOptions {
    std::string config;
    std::string elements = "auto";
    bool is_strict = false;
    bool is_json = false;
};

/// @return the exit status: 0 nothing is wrong, 1 something is. @throws UserError when the file cannot be read
int check_configuration(const CheckOptions& options);

} // namespace velstream::tool
