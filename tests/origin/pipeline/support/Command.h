// Running another program.
#pragma once

#include "patience.h"

#include <chrono>
#include <string>
#include <vector>

namespace velstream::testing {

struct CommandResult {
    int status = -1; ///< exit status; 128 + signal when a signal ended it; -1 when it could not be run or took too long
    std::string output; ///< its standard output
};

/// Runs a program to its end; one that takes longer than the bound is killed.
CommandResult run_command(const std::vector<std::string>& arguments, std::chrono::seconds bound = kPatience);

/// Value of the first "key=value" line in a program's output, or empty.
std::string value_of(const std::string& output, const std::string& key);

} // namespace velstream::testing
