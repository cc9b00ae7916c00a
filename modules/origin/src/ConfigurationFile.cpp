#include "ConfigurationFile.h"

#include "Log.h"

#include <fstream>

namespace Quorvis::VelStream {

std::optional<Json::Value> parse_configuration(const char* path)
{
    std::ifstream file(path);
    if (!file.is_open()) return std::nullopt;
    Json::Value root;
    try {
        file >> root;
    } catch (const Json::Exception& error) {
        VEL_LOG_ERROR("Configuration file %s is not valid JSON: %s", path, error.what());
        throw;
    }
    return root;
}

const Json::Value* find_stream(const Json::Value& configuration, const std::string& stream_id)
{
    for (const Json::Value& stream : configuration["streams"]) {
        if (stream.isMember("streamsId") && stream["streamsId"].asString() == stream_id) return &stream;
    }
    return nullptr;
}

} // namespace Quorvis::VelStream
