// Opening, parsing and searching the configuration file; what its entries mean is its readers' business.
#pragma once

#include <json/json.h>

#include <optional>
#include <string>

namespace Quorvis::VelStream {

/// The file's content; nothing when it cannot be opened. A file that is not JSON is logged and raises jsoncpp's
/// exception.
std::optional<Json::Value> parse_configuration(const char* path);

/// The first entry of "streams" with this id, or null. An entry without "streamsId" never matches.
const Json::Value* find_stream(const Json::Value& configuration, const std::string& stream_id);

} // namespace Quorvis::VelStream
