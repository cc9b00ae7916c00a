// A configuration file of a test's own.
#pragma once

#include "temporary_folder.h"

#include <string>
#include <string_view>

namespace velstream::testing {

/// Points both readers to a file with this text for the life of the object.
class ConfigFile {
public:
    explicit ConfigFile(std::string_view text);
    ~ConfigFile();
    ConfigFile(const ConfigFile&) = delete;
    ConfigFile& operator=(const ConfigFile&) = delete;

    const std::string& path() const { return path_; }
    void write(std::string_view text) const;
    void remove() const;

private:
    TemporaryFolder folder_;
    std::string path_;
    const char* entry_point_path_;
    const char* builder_path_;
};

/// A file with one entry: `properties` is the text between the braces of "properties".
std::string one_stream(std::string_view id, std::string_view properties);

/// An entry that has every key that the pipelines' builders ask for, so that a read logs one line. The input is a file
/// that does not exist.
std::string complete_stream(std::string_view id, std::string_view codec, std::string_view more = {});

} // namespace velstream::testing
