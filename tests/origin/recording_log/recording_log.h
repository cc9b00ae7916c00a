// What the library has logged in this process. Thread-safe. Every level is kept, and each text as it was formatted, a
// trailing newline included. With VELSTREAM_TEST_LOG=1 the lines are also written to standard error.
#pragma once

#include "patience.h"

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace RecordingLog {

struct Line {
    int level;
    std::string file;
    int line;
    std::string text;
};

struct LevelCall {
    std::string tag;
    int level;
};

struct OutputCall {
    std::string tag;
    std::string path;
    int output;
};

std::vector<Line> lines();
/// Texts of the lines from this level up.
std::vector<std::string> texts(int min_level = 0);
/// Lines with exactly this text.
std::size_t count(const std::string& text);
/// Waits for a line that contains this text. @return false after the bound.
bool wait_for(const std::string& text, std::chrono::milliseconds bound = velstream::testing::kPatience);
void clear();

std::vector<LevelCall> level_calls();
std::vector<OutputCall> output_calls();

} // namespace RecordingLog
