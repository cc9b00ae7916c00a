// The configuration file as a person sees it: every trouble with it is one sentence.
#pragma once

#include <json/json.h>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace velstream::tool {

/// A trouble that the user can mend; its text is one sentence.
class UserError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct StreamEntry {
    std::string id;
    std::string parent; ///< "pStreamId"; empty when it is absent
    Json::Value properties;
    std::size_t index = 0; ///< place in "streams"

    /// A property as text; empty when it is absent.
    std::string text(const char* key) const;
    /// A property as a number; 0 when it is absent or no number.
    long number(const char* key) const;
    bool is_set(const char* key) const;
    bool has(const char* key) const { return properties.isMember(key); }
    /// The library takes the output only as a pair.
    bool has_output() const { return has("outputType") && has("outputAddr"); }
    std::string codec(const char* key) const { return text(key) == "H265" ? "H265" : "H264"; }
};

struct Configuration {
    std::string path;
    std::string content;
    Json::Value root;
};

/// Reads and parses the file. @throws UserError
Configuration read_configuration(const std::string& path);

/// The entries of a file. @throws UserError
std::vector<StreamEntry> streams_of(const Configuration& configuration);
inline std::vector<StreamEntry> read_streams(const std::string& path)
{
    return streams_of(read_configuration(path));
}

/// The entry that the library takes for an id: the first. @throws UserError when there is none
const StreamEntry& find_stream(const std::vector<StreamEntry>& streams, const std::string& id, const std::string& path);

} // namespace velstream::tool
