// What the tool's tests share: a folder with a clip and a configuration, and the tool as another program.
#pragma once

#include "temporary_folder.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <string>
#include <vector>

struct Output {
    int status = -1; ///< exit status, or 128 + the signal
    std::string text;
};

/// Runs a shell command. @return its standard output and status.
Output run_command(const std::string& command);

std::vector<std::string> lines_of(const std::string& text);

/// The first object in a text; null when there is none.
Json::Value parse_json(const std::string& text);

class Tool : public testing::Test {
protected:
    /// Makes a short clip, 642x362, and a configuration: "clip" plays it, "second" writes it to out.mp4, "full" writes
    /// it where there is no room, "gone" has no file. Further entries: JSON, each with a comma before it.
    void write_clip(int frames = 20, const std::string& further_entries = "");
    void write_config(const std::string& text) const;
    std::string clip() const { return (folder_ / "clip.mp4").string(); }

    /// The tool's command line with this configuration.
    std::string command(const std::string& arguments) const;
    /// Standard output alone; standard error goes to stderr_text().
    Output run(const std::string& arguments) const;
    Output run_software(const std::string& arguments) const { return run(arguments + " --elements software"); }
    std::string stderr_text() const;

    const velstream::testing::TemporaryFolder own_folder_;
    const std::filesystem::path& folder_ = own_folder_.path();
    std::filesystem::path config_ = folder_ / "streams.conf";
};
