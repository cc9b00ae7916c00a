#include "configuration.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <regex>
#include <sstream>

namespace velstream::tool {

namespace {

std::string read_text(const std::string& path)
{
    std::ifstream file(path);
    if (!file) throw UserError("Configuration file " + path + " cannot be opened: " + std::strerror(errno) + ".");
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored)) throw UserError("Configuration file " + path + " is a folder.");
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

/// "* Line 1, Column 3\n  Missing '}'\n..." as "line 1, column 3: Missing '}'".
std::string first_error(const std::string& errors)
{
    static const std::regex place(R"(\* Line (\d+), Column (\d+)\n\s*([^\n]*))");
    std::smatch match;
    if (!std::regex_search(errors, match, place)) return errors.substr(0, errors.find('\n'));
    std::string cause = match[3];
    while (!cause.empty() && cause.back() == '.')
        cause.pop_back();
    return "line " + match[1].str() + ", column " + match[2].str() + ": " + cause;
}

std::string known_ids(const std::vector<StreamEntry>& streams)
{
    std::string text;
    for (const StreamEntry& stream : streams)
        text += (text.empty() ? "" : ", ") + stream.id;
    return text.empty() ? "none" : text;
}

} // namespace

std::string StreamEntry::text(const char* key) const
{
    const Json::Value& value = properties[key];
    return value.isConvertibleTo(Json::stringValue) ? value.asString() : std::string();
}

long StreamEntry::number(const char* key) const
{
    const Json::Value& value = properties[key];
    return value.isInt() ? value.asInt() : 0;
}

bool StreamEntry::is_set(const char* key) const
{
    const Json::Value& value = properties[key];
    return value.isBool() && value.asBool();
}

Configuration read_configuration(const std::string& path)
{
    Configuration configuration{path, read_text(path), {}};
    std::istringstream stream(configuration.content);
    std::string errors;
    bool is_valid = false;
    try {
        // With the settings that the library's own parser has.
        is_valid = Json::parseFromStream(Json::CharReaderBuilder(), stream, &configuration.root, &errors);
    } catch (const Json::Exception& error) {
        errors = error.what(); // nested deeper than the parser goes
    }
    if (!is_valid) throw UserError("Configuration file " + path + " is not valid JSON: " + first_error(errors) + ".");
    return configuration;
}

std::vector<StreamEntry> streams_of(const Configuration& configuration)
{
    const Json::Value& root = configuration.root;
    const std::string& path = configuration.path;
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
        const Json::Value& parent = entry["pStreamId"];
        streams.push_back({id, parent.isString() ? parent.asString() : "", properties, streams.size()});
    }
    return streams;
}

const StreamEntry& find_stream(const std::vector<StreamEntry>& streams, const std::string& id, const std::string& path)
{
    for (const StreamEntry& stream : streams) {
        if (stream.id == id) return stream;
    }
    throw UserError("Stream " + id + " is not in configuration file " + path + "; it has: " + known_ids(streams) + ".");
}

} // namespace velstream::tool
