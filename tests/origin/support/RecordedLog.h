// What the library has logged in this process.
#pragma once

#include "patience.h"

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace velstream::testing {

/// The lines so far, each as level and text: "I ..." information, "W ..." warning, "E ..." error. Lines about what this
/// machine's elements lack (a property that was skipped, an element that is not installed) are left out.
std::vector<std::string> log_lines();

/// All lines, those about missing elements and properties included.
std::vector<std::string> all_log_lines();

/// Source files of the lines so far, in the order of log_lines().
std::vector<std::string> log_files();

bool log_has(const std::string& line);
long log_count(const std::string& line);

/// Waits until a line was logged. @return false after the bound, which is generous.
bool wait_for_log(const std::string& line, std::chrono::seconds bound = kPatience);

void clear_log();

/// Arguments of the calls that set the level, and of those that direct the log.
struct LevelCall {
    std::string tag;
    int level;
    bool operator==(const LevelCall&) const = default;
};
struct OutputCall {
    std::string tag;
    std::string path;
    int output;
    bool operator==(const OutputCall&) const = default;
};
std::vector<LevelCall> level_calls();
std::vector<OutputCall> output_calls();

} // namespace velstream::testing
