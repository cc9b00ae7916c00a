// The configuration file as a person sees it: every trouble with it is one sentence.
#pragma once

#include <json/json.h>

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
    Json::Value properties;

    /// A property as text; empty when it is absent.
    std::string text(const char* key) const;
    bool is_set(const char* key) const;
};

/// Reads every entry. @throws UserError
std::vector<StreamEntry> read_streams(const std::string& path);

/// The entry of an id, checked as far as that is possible before it runs. @throws UserError
const StreamEntry& find_startable(const std::vector<StreamEntry>& streams, const std::string& id,
                                  const std::string& path);

} // namespace velstream::tool
