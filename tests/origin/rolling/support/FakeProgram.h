// A program in the place of the one that a command line names.
#pragma once

#include "ConfigFile.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace velstream::testing {

/// Stands before every other program of its name on the PATH for the life of the object.
class FakeProgram {
public:
    /// @param body  lines of shell; "$FOLDER" is a folder of its own.
    FakeProgram(const std::string& name, const std::string& body) : former_path_(std::getenv("PATH"))
    {
        const std::string program = folder_.file(name);
        std::ofstream(program) << "#!/bin/sh\nFOLDER=" << folder_.file("") << "\n" << body << "\n";
        std::filesystem::permissions(program, std::filesystem::perms::owner_all);
        setenv("PATH", (folder_.file("") + ":" + former_path_).c_str(), 1);
    }
    ~FakeProgram() { setenv("PATH", former_path_.c_str(), 1); }
    FakeProgram(const FakeProgram&) = delete;
    FakeProgram& operator=(const FakeProgram&) = delete;

    /// What it wrote into this file of its folder; empty when there is none.
    std::string written(const std::string& file) const
    {
        std::ostringstream text;
        text << std::ifstream(folder_.file(file)).rdbuf();
        return text.str();
    }
    bool has_written(const std::string& file) const { return std::filesystem::exists(folder_.file(file)); }

private:
    TemporaryFolder folder_;
    std::string former_path_;
};

/// Each argument on a line of its own into "$FOLDER/arguments".
inline const char* const kKeepArguments =
    R"(for word; do echo "$word"; done > $FOLDER/part; mv $FOLDER/part $FOLDER/arguments)";

} // namespace velstream::testing
