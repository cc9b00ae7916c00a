// What is wrong with a configuration, sorted by where it stands.
#pragma once

#include "configuration.h"

#include <string>
#include <vector>

namespace velstream::tool {

struct Finding {
    bool is_error = true; ///< the stream cannot start, or a value is none that the library knows; else a warning
    std::string stream;   ///< id; empty for the file as a whole
    std::string path;     ///< "$.streams[0].properties.width"
    std::string text;     ///< what is to be said of the value there: "is 3; it must be ..."
};

using Findings = std::vector<Finding>;

/// What keeps one entry from running, and what in it has no effect, beyond the types of its values. Errors come in the
/// order in which a start would meet them.
Findings check_stream(const StreamEntry& stream, const std::string& platform);

/// What is wrong between the entries: ids given twice, pairs for a split stream that do not match.
Findings check_together(const std::vector<StreamEntry>& streams);

/// @throws UserError for two streams that start_split_stream() would not take, or could not read
void refuse_unlike_pair(const StreamEntry& first, const StreamEntry& second);

/// What does not follow the schema: types, values, unknown keys. @throws UserError when the schema cannot be read
Findings check_schema(const Json::Value& root, const std::string& schema = "velstream-gst.schema.json");

/// Where the schema lies: beside this program's installation or in its build folder.
std::string schema_path(const std::string& schema);

/// The first error as one sentence: "Stream clip: \"outputAddr\" is empty: ...". @throws UserError when there is one
void refuse_errors(const Findings& findings);

/// The line of a path in the file's text, from 1; the nearest parent's for a key that is not there.
int line_of(const Configuration& configuration, const std::string& path);

} // namespace velstream::tool
