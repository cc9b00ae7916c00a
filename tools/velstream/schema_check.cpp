// What does not follow the schema. The validator decides; the sentences are made from the schema, so that they name
// what would be right.
#include "findings.h"

// A schema that is none raises an exception instead of ending the process.
#define VALIJSON_USE_EXCEPTIONS 1
#include <valijson/adapters/jsoncpp_adapter.hpp>
#include <valijson/schema.hpp>
#include <valijson/schema_parser.hpp>
#include <valijson/validation_results.hpp>
#include <valijson/validator.hpp>

#include <algorithm>
#include <filesystem>
#include <set>

namespace velstream::tool {

namespace {

namespace fs = std::filesystem;

/// A value, the schema's part for it, and how a person writes its place.
struct Place {
    const Json::Value* value;
    const Json::Value* schema;
    std::string path;
};

std::string compact(const Json::Value& value)
{
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}

/// Follows "$ref": "#/$defs/name".
const Json::Value& resolve(const Json::Value& root, const Json::Value& schema)
{
    if (!schema.isMember("$ref")) return schema;
    const Json::Value* found = &root;
    const std::string reference = schema["$ref"].asString();
    for (std::size_t start = 2; start <= reference.size();) {
        const std::size_t end = std::min(reference.find('/', start), reference.size());
        found = &(*found)[reference.substr(start, end - start)];
        start = end + 1;
    }
    return *found;
}

/// The validator's context is "<root>", "[streams]", "[0]", ...
Place find_place(const Json::Value& document, const Json::Value& schema, const std::vector<std::string>& context)
{
    Place place{&document, &resolve(schema, schema), "$"};
    for (std::size_t i = 1; i < context.size(); ++i) {
        const std::string name = context[i].substr(1, context[i].size() - 2);
        if (place.value->isArray()) {
            place.value = &(*place.value)[static_cast<Json::ArrayIndex>(std::stoul(name))];
            place.schema = &resolve(schema, (*place.schema)["items"]);
            place.path += "[" + name + "]";
        } else {
            place.value = &(*place.value)[name];
            place.schema = &resolve(schema, (*place.schema)["properties"][name]);
            place.path += "." + name;
        }
    }
    return place;
}

const char* type_name(const Json::Value& value)
{
    if (value.isNull()) return "null";
    if (value.isBool()) return "boolean";
    if (value.isIntegral()) return "integer";
    if (value.isNumeric()) return "number";
    if (value.isString()) return "string";
    return value.isArray() ? "array" : "object";
}

bool has_type(const Json::Value& value, const std::string& type)
{
    const std::string own = type_name(value);
    return own == type || (type == "number" && own == "integer");
}

std::string listed(const Json::Value& values)
{
    std::string text;
    for (const Json::Value& value : values)
        text += (text.empty() ? "" : ", ") + compact(value);
    return text;
}

std::size_t edit_distance(const std::string& one, const std::string& other)
{
    std::vector<std::size_t> row(other.size() + 1);
    for (std::size_t j = 0; j < row.size(); ++j)
        row[j] = j;
    for (std::size_t i = 1; i <= one.size(); ++i) {
        std::size_t diagonal = row[0]++;
        for (std::size_t j = 1; j < row.size(); ++j) {
            const bool is_same = std::tolower(static_cast<unsigned char>(one[i - 1])) ==
                                 std::tolower(static_cast<unsigned char>(other[j - 1]));
            const std::size_t changed = diagonal + (is_same ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({changed, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row.back();
}

/// " (did you mean ...?)" for a slip of the pen.
std::string suggestion(const std::string& key, const Json::Value& known)
{
    std::string best;
    std::size_t distance = 4;
    for (const std::string& name : known.getMemberNames()) {
        if (const std::size_t d = edit_distance(key, name); d < distance && d < name.size() / 2) {
            best = name;
            distance = d;
        }
    }
    return best.empty() ? "" : "; did you mean \"" + best + "\"?";
}

void explain_object(const Place& place, const std::string& stream, Findings& findings)
{
    for (const Json::Value& key : (*place.schema)["required"]) {
        if (!place.value->isMember(key.asString()))
            findings.push_back({true, stream, place.path, "has no \"" + key.asString() + "\""});
    }
    const Json::Value& known = (*place.schema)["properties"];
    for (const std::string& key : place.value->getMemberNames()) {
        if (!known.isMember(key))
            findings.push_back(
                {true, stream, place.path + "." + key, "is no key that the library reads" + suggestion(key, known)});
    }
}

/// @return false when the schema's part does not say what the validator found.
bool explain(const Place& place, const std::string& stream, Findings& findings)
{
    const Json::Value& value = *place.value;
    const Json::Value& schema = *place.schema;
    const std::size_t before = findings.size();
    if (schema.isMember("type") && !has_type(value, schema["type"].asString()))
        findings.push_back(
            {true, stream, place.path,
             std::string("is of type ") + type_name(value) + "; it must be of type " + schema["type"].asString()});
    else if (schema.isMember("enum") &&
             std::find(schema["enum"].begin(), schema["enum"].end(), value) == schema["enum"].end())
        findings.push_back({true, stream, place.path, compact(value) + " is none of " + listed(schema["enum"])});
    else if (schema.isMember("minimum") && value.isNumeric() && value.asDouble() < schema["minimum"].asDouble())
        findings.push_back(
            {true, stream, place.path, compact(value) + " is below the minimum of " + compact(schema["minimum"])});
    else if (schema.isMember("maximum") && value.isNumeric() && value.asDouble() > schema["maximum"].asDouble())
        findings.push_back(
            {true, stream, place.path, compact(value) + " is above the maximum of " + compact(schema["maximum"])});
    else if (value.isObject())
        explain_object(place, stream, findings);
    return findings.size() > before;
}

/// The validator tells of a trouble once for every level above it, too.
bool is_about_a_child(const std::string& description)
{
    return description.find("Failed to validate item #") == 0 ||
           description.find("Failed to validate against schema associated") == 0;
}

std::string stream_of(const Json::Value& document, const std::vector<std::string>& context)
{
    if (context.size() < 3 || context[1] != "[streams]" || !document["streams"].isArray()) return "";
    const auto index = static_cast<Json::ArrayIndex>(std::stoul(context[2].substr(1)));
    const Json::Value& entry = document["streams"][index];
    return entry.isObject() && entry["streamsId"].isString() ? entry["streamsId"].asString() : "";
}

Json::Value read_schema(const std::string& schema)
{
    try {
        return read_configuration(schema_path(schema)).root;
    } catch (const UserError& error) {
        throw UserError("The schema that configurations are checked against is not installed: " +
                        std::string(error.what()));
    }
}

} // namespace

std::string schema_path(const std::string& schema)
{
    const fs::path prefix = fs::read_symlink("/proc/self/exe").parent_path().parent_path();
    return (prefix / VELSTREAM_CONF_SUBDIR / schema).lexically_normal().string();
}

Findings check_schema(const Json::Value& root, const std::string& schema_name)
{
    const Json::Value definition = read_schema(schema_name);
    valijson::Schema schema;
    valijson::SchemaParser().populateSchema(valijson::adapters::JsonCppAdapter(definition), schema);
    valijson::ValidationResults results;
    valijson::Validator().validate(schema, valijson::adapters::JsonCppAdapter(root), &results);

    Findings findings;
    std::set<std::string> explained;
    for (const valijson::ValidationResults::Error& error : results) {
        if (is_about_a_child(error.description)) continue;
        const Place place = find_place(root, definition, error.context);
        if (!explained.insert(place.path).second) continue;
        const std::string stream = stream_of(root, error.context);
        if (!explain(place, stream, findings)) findings.push_back({true, stream, place.path, error.description});
    }
    return findings;
}

int line_of(const Configuration& configuration, const std::string& path)
{
    const Json::Value* value = &configuration.root;
    std::size_t start = 1;
    while (start < path.size()) {
        const bool is_index = path[start] == '[';
        const std::size_t end = std::min(path.find_first_of(is_index ? "]" : ".[", start + 1), path.size());
        const std::string name = path.substr(start + 1, end - start - 1);
        if (is_index) {
            const auto index = static_cast<Json::ArrayIndex>(std::stoul(name));
            if (!value->isArray() || !value->isValidIndex(index)) break;
            value = &(*value)[index];
        } else {
            if (!value->isObject() || !value->isMember(name)) break;
            value = &(*value)[name];
        }
        start = is_index ? end + 1 : end;
    }
    const auto offset =
        std::min<std::ptrdiff_t>(value->getOffsetStart(), static_cast<std::ptrdiff_t>(configuration.content.size()));
    return 1 +
           static_cast<int>(std::count(configuration.content.begin(), configuration.content.begin() + offset, '\n'));
}

} // namespace velstream::tool
