#include "configuration.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include <unistd.h>

namespace velstream::tool {

namespace {

Json::Value parse(const std::string& path)
{
    std::ifstream file(path);
    if (!file) throw UserError("Configuration file " + path + " cannot be opened: " + std::strerror(errno) + ".");
    Json::Value root;
    std::string errors;
    if (!Json::parseFromStream(Json::CharReaderBuilder(), file, &root, &errors)) {
        std::string first_line;
        std::istringstream lines(errors);
        while (std::getline(lines, first_line) && first_line.find_first_not_of(" *") == std::string::npos) {
        }
        throw UserError("Configuration file " + path + " is not valid JSON: " + first_line);
    }
    return root;
}

std::string known_ids(const std::vector<StreamEntry>& streams)
{
    std::string text;
    for (const StreamEntry& stream : streams)
        text += (text.empty() ? "" : ", ") + stream.id;
    return text.empty() ? "none" : text;
}

void check_startable(const StreamEntry& stream)
{
    const std::string type = stream.text("inputType");
    if (!stream.properties.isMember("inputType")) throw UserError("Stream " + stream.id + " has no \"inputType\".");
    if (type != "splice" && !stream.properties.isMember("inputAddr"))
        throw UserError("Stream " + stream.id + " has no \"inputAddr\".");
    if (type == "file" && access(stream.text("inputAddr").c_str(), R_OK) != 0)
        throw UserError("Stream " + stream.id + ": input file " + stream.text("inputAddr") +
                        " cannot be read: " + std::strerror(errno) + ".");
    if (stream.text("outputType") == "rtmp")
        throw UserError("Stream " + stream.id +
                        ": \"outputType\" \"rtmp\" cannot be started from a configuration file.");
}

} // namespace

std::string StreamEntry::text(const char* key) const
{
    const Json::Value& value = properties[key];
    return value.isConvertibleTo(Json::stringValue) ? value.asString() : std::string();
}

bool StreamEntry::is_set(const char* key) const
{
    const Json::Value& value = properties[key];
    return value.isBool() && value.asBool();
}

std::vector<StreamEntry> read_streams(const std::string& path)
{
    const Json::Value root = parse(path);
    if (!root.isObject() || !root.isMember("streams"))
        throw UserError("Configuration file " + path + " has no \"streams\".");
    if (!root["streams"].isArray()) throw UserError("In configuration file " + path + " \"streams\" is not an array.");
    std::vector<StreamEntry> streams;
    for (const Json::Value& entry : root["streams"]) {
        if (!entry.isObject() || !entry["streamsId"].isString())
            throw UserError("In configuration file " + path + " an entry of \"streams\" has no \"streamsId\".");
        const std::string id = entry["streamsId"].asString();
        const Json::Value& properties = entry["properties"];
        if (!properties.isObject() && !properties.isNull())
            throw UserError("In configuration file " + path + " the \"properties\" of stream " + id +
                            " are not an object.");
        streams.push_back({id, properties});
    }
    return streams;
}

const StreamEntry& find_startable(const std::vector<StreamEntry>& streams, const std::string& id,
                                  const std::string& path)
{
    for (const StreamEntry& stream : streams) {
        if (stream.id != id) continue;
        check_startable(stream);
        return stream;
    }
    throw UserError("Stream " + id + " is not in configuration file " + path + "; it has: " + known_ids(streams) + ".");
}

} // namespace velstream::tool
