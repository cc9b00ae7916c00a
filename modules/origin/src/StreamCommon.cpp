#include "StreamCommon.h"

#include "ConfigurationFile.h"
#include "Log.h"

#include <optional>

namespace Quorvis::VelStream {

const char* stream_conf_file = "/usr/local/share/velstream-gst/conf/velstream-gst.conf";

namespace {

std::optional<Json::Value> read_file()
{
    std::optional<Json::Value> root = parse_configuration(stream_conf_file);
    if (!root) VEL_LOG_ERROR("Unable to open configuration file: %s", stream_conf_file);
    return root;
}

/// Sets both or neither.
bool read_size(const Json::Value& properties, StreamProperty& prop)
{
    if (!properties.isMember("width") || !properties.isMember("height")) return false;
    prop.width = properties["width"].asInt();
    prop.height = properties["height"].asInt();
    return true;
}

bool read_text(const Json::Value& properties, const char* key, std::string& field)
{
    if (!properties.isMember(key)) return false;
    field = properties[key].asString();
    return true;
}

bool read_flag(const Json::Value& properties, const char* key, bool& field)
{
    if (!properties.isMember(key)) return false;
    field = properties[key].asBool();
    return true;
}

bool read_number(const Json::Value& properties, const char* key, int32_t& field)
{
    if (!properties.isMember(key)) return false;
    field = properties[key].asInt();
    return true;
}

bool read_input(const Json::Value& properties, StreamProperty& prop)
{
    if (!read_text(properties, "inputType", prop.inputType)) {
        VEL_LOG_ERROR("inputType is not defined.");
        return false;
    }
    if (!read_text(properties, "inputAddr", prop.inputAddr)) {
        VEL_LOG_ERROR("inputAddr is not defined.");
        return false;
    }
    return true;
}

void read_codecs(const Json::Value& properties, StreamProperty& prop)
{
    if (!read_text(properties, "decodeType", prop.decodeType))
        VEL_LOG_INFO("Decode type is not defined. It's h264 by default.");
    if (!read_text(properties, "encodeType", prop.encodeType))
        VEL_LOG_INFO("Encode type is not defined. It's h264 by default.");
}

void read_switches(const Json::Value& properties, StreamProperty& prop)
{
    if (!read_flag(properties, "audio", prop.audio)) VEL_LOG_INFO("Audio switch is not defined.");
    if (!read_flag(properties, "rollingsave", prop.rollingsave))
        VEL_LOG_INFO("Rolling save is not defined. Uses false by default.");
    if (!read_number(properties, "rollingFps", prop.rollingFps)) {
        prop.rollingFps = 30;
        VEL_LOG_INFO("Rolling save mp4 fps is not defined. Uses 30 by default.");
    }
    // Kept: the text says false, but a stream without the key is treated as manual-rebuild.
    if (!read_flag(properties, "manualRebuild", prop.manualRebuild))
        VEL_LOG_INFO("manualRebuild switch is not defined. Default value is false.");
}

void read_output(const Json::Value& properties, const std::string& id, StreamProperty& prop)
{
    if (properties.isMember("outputType") && properties.isMember("outputAddr")) {
        prop.outputType = properties["outputType"].asString();
        prop.outputAddr = properties["outputAddr"].asString();
    } else {
        prop.streamsId = id;
    }
    read_number(properties, "fps", prop.fps);
}

StreamProperty read_properties(const std::string& id)
{
    StreamProperty prop;
    get_configuration_properties(id, prop);
    return prop;
}

} // namespace

int get_configuration_properties(std::string id, StreamProperty& prop)
{
    VEL_LOG_INFO("Start to get configuration properties for stream id: %s.", id.c_str());
    prop.fps = 0;
    prop.outputType.clear();
    prop.outputAddr.clear();

    const std::optional<Json::Value> root = read_file();
    if (!root) return -1;
    const Json::Value* stream = find_stream(*root, id);
    if (!stream) return -1;
    prop.streamsId = (*stream)["streamsId"].asString();

    const Json::Value& properties = (*stream)["properties"];
    if (!read_size(properties, prop)) VEL_LOG_INFO("width or height is not defined.");
    if (!read_input(properties, prop)) return -1;
    read_codecs(properties, prop);
    read_switches(properties, prop);
    read_output(properties, id, prop);
    return 0;
}

int get_config_properties_mp4(std::string id, StreamProperty& prop)
{
    VEL_LOG_INFO("[MP4 Saving] Start to get configuration properties for stream id: %s.", id.c_str());
    prop.outputFile = "/var/tmp/saved_output.mp4";
    prop.fps = 25;

    const std::optional<Json::Value> root = read_file();
    if (!root) return -1;
    const Json::Value* stream = find_stream(*root, id);
    if (!stream) {
        VEL_LOG_ERROR("For stream id: %s missing related configuration.", id.c_str());
        return -1;
    }
    const Json::Value& properties = (*stream)["properties"];
    if (!properties.isMember("saveMp4") && !properties["networkPush"].asBool()) {
        VEL_LOG_ERROR("For stream id: %s missing mandatory parameter saveMp4.", id.c_str());
        return -1;
    }
    prop.streamsId = (*stream)["streamsId"].asString();
    if (!read_size(properties, prop)) {
        VEL_LOG_ERROR("For stream id: %s missing mandatory parameter width/height.", id.c_str());
        return -1;
    }
    read_text(properties, "outputFile", prop.outputFile);
    read_text(properties, "outputAddr", prop.outputAddr);
    read_number(properties, "fps", prop.fps);
    VEL_LOG_INFO("Get saving mp4 configuration completed.");
    return 0;
}

std::string get_decode_type(std::string id)
{
    return read_properties(id).decodeType;
}

std::string get_encode_type(std::string id)
{
    return read_properties(id).encodeType;
}

int get_output_fps(std::string id)
{
    return read_properties(id).fps;
}

bool get_manual_rebuild(std::string id)
{
    return read_properties(id).manualRebuild;
}

bool output_mp4(std::string id)
{
    return read_properties(id).outputType == "mp4";
}

int get_stream_width(std::string id)
{
    return read_properties(id).width;
}

int get_stream_height(std::string id)
{
    return read_properties(id).height;
}

} // namespace Quorvis::VelStream
