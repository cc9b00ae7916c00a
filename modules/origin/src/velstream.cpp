#include "velstream.h"

#include "ConfigurationFile.h"
#include "Log.h"
#include "StreamBuild.h"
#include "StreamBuildReencode.h"
#include "StreamBuildUsb.h"
#include "StreamCommon.h"
#include "StreamRollingSave.h"
#include "velstreamFrames.h"

#include <exception>
#include <mutex>
#include <optional>

namespace Quorvis::VelStream {

const char* g_stream_conf_file = "/usr/local/share/velstream-gst/conf/velstream-gst.conf";

// Kept for applications that name it; the entry points never lock it, since a start call blocks for a stream's life.
std::mutex start_stream_mtx;

namespace {

constexpr const char* kMissingParameter = "Mandatory parameter missing in configuration file.";

void reset(StreamIns& ins)
{
    ins.width = 0;
    ins.height = 0;
    ins.outputType.clear();
    ins.outputAddr.clear();
    ins.decodeType = "H264";
    ins.encodeType = "H264";
    ins.audio = false;
    ins.pStreamId.clear();
    ins.fps = 0;
}

void read_size(const Json::Value& properties, StreamIns& ins)
{
    ins.width = properties["width"].asInt();
    ins.height = properties["height"].asInt();
}

/// A stream that re-encodes its parent's frames needs no more than a size and a rate. @return true when it is one.
bool read_derived_stream(const Json::Value& properties, StreamIns& ins)
{
    if (!properties.isMember("width") || !properties.isMember("height")) return false;
    if (properties.isMember("saveMp4")) {
        ins.saveMp4 = properties["saveMp4"].asBool();
        if (ins.saveMp4) {
            read_size(properties, ins);
            return true;
        }
    }
    if (!properties.isMember("networkPush")) return false;
    ins.networkPush = properties["networkPush"].asBool();
    if (!ins.networkPush) return false;
    read_size(properties, ins);
    ins.fps = properties["fps"].asInt();
    return true;
}

void read_codecs_and_switches(const Json::Value& properties, StreamIns& ins)
{
    if (properties.isMember("decodeType")) ins.decodeType = properties["decodeType"].asString();
    if (properties.isMember("encodeType")) ins.encodeType = properties["encodeType"].asString();
    if (properties.isMember("audio"))
        ins.audio = properties["audio"].asBool();
    else
        VEL_LOG_INFO("Audio switch is not defined. Uses false by default.");
    if (properties.isMember("rollingsave"))
        ins.rollingsave = properties["rollingsave"].asBool();
    else
        VEL_LOG_INFO("Rolling save is not defined. Uses false by default.");
}

int read_ordinary_stream(const Json::Value& stream, const std::string& stream_id, StreamIns& ins)
{
    const Json::Value& properties = stream["properties"];
    if (stream.isMember("pStreamId")) ins.pStreamId = stream["pStreamId"].asString();
    ins.streamsId = stream["streamsId"].asString();
    if (!properties.isMember("inputType")) {
        VEL_LOG_ERROR("inputType is not defined.");
        return -1;
    }
    ins.inputType = properties["inputType"].asString();
    if (ins.inputType == "usbcam" && properties.isMember("width") && properties.isMember("height"))
        read_size(properties, ins);
    if (ins.inputType == "splice") return 0;
    if (!properties.isMember("inputAddr")) {
        VEL_LOG_ERROR("inputAddr is not defined.");
        return -1;
    }
    ins.inputAddr = properties["inputAddr"].asString();
    read_codecs_and_switches(properties, ins);
    if (properties.isMember("outputType") && properties.isMember("outputAddr")) {
        ins.outputType = properties["outputType"].asString();
        ins.outputAddr = properties["outputAddr"].asString();
    } else {
        ins.streamsId = stream_id;
    }
    return 0;
}

StreamType stream_type(const std::string& output_type)
{
    if (output_type == "wayland") return STREAM_TYPE_WAYLAND;
    if (output_type == "rtsp") return STREAM_TYPE_RTSP;
    if (output_type == "rtmp") return STREAM_TYPE_RTMP;
    if (output_type == "mp4") return STREAM_TYPE_MP4;
    return STREAM_TYPE_NONE;
}

int start_mp4_output(StreamIns& ins, const std::string& stream_id, bool reads_file,
                     std::function<int8_t(const Image&)>& callback)
{
    if (ins.width == 0 || ins.height == 0) {
        VEL_LOG_ERROR("%s", kMissingParameter);
        return -1;
    }
    init_share_mem_mp4(ins);
    if (reads_file) return start_save_mp4(stream_id, callback);
    StreamProperty property;
    sync_data(ins, property);
    return start_save_mp4_intern(property, callback);
}

int start_network_output(StreamIns& ins, bool reads_file, std::function<int8_t(const Image&)>& callback)
{
    if (ins.width == 0 || ins.height == 0 || ins.fps == 0) {
        VEL_LOG_ERROR("%s", kMissingParameter);
        return -1;
    }
    init_share_mem_mp4(ins);
    if (reads_file) return start_network_push(ins.streamsId, callback);
    StreamProperty property;
    sync_data(ins, property);
    return start_network_intern(property, callback);
}

/// Where the kinds of stream that have a pipeline of their own join, in the order in which they are asked for.
/// @return their result; nothing for a stream of the ordinary path.
std::optional<int> start_special_stream(StreamIns& ins, const std::string& stream_id, bool reads_file,
                                        std::function<int8_t(const Image&)>& callback)
{
    if (ins.inputType == "splice") return start_splice_stream(stream_id, callback);
    if (reads_file && ins.audio) {
        VEL_LOG_INFO("Start to launch audio stream. stream_id: %s", stream_id.c_str());
        return start_audio_stream(stream_id, callback);
    }
    if (reads_file && ins.rollingsave) {
        VEL_LOG_INFO("Start rolling save. stream_id :%s", stream_id.c_str());
        return start_rolling_save(stream_id);
    }
    if (ins.saveMp4) return start_mp4_output(ins, stream_id, reads_file, callback);
    if (ins.networkPush) return start_network_output(ins, reads_file, callback);
    return std::nullopt;
}

int start_ordinary_stream(StreamIns& ins, const std::string& stream_id,
                          const std::function<int8_t(const Image&)>& callback)
{
    const StreamType type = stream_type(ins.outputType);
    if (type == STREAM_TYPE_MP4 && ins.outputAddr.empty()) {
        VEL_LOG_ERROR("Mandatory parameter outputAddr missing in configuration file for saving mp4 file.");
        return -1;
    }
    if (ins.inputType == "file")
        return start_stream_input_file(ins.inputAddr, callback, type, ins.outputAddr, ins.width, ins.height, stream_id);
    if (ins.inputType == "rtsp")
        return start_stream_input_rtsp(ins.inputAddr, callback, type, ins.outputAddr, ins.width, ins.height, stream_id);
    if (ins.inputType == "rtmp")
        return start_stream_input_rtmp(ins.inputAddr, callback, type, ins.outputAddr, ins.width, ins.height, stream_id);
    if (ins.inputType == "usbcam") return start_stream_input_usbcam(ins, callback, type, stream_id);
    return -1;
}

/// Hands both halves to the runner. The builders live as long as the process.
int run_ordinary_stream(StreamInput* input, StreamOutput* output, const std::string& stream_id, const char* fallback,
                        std::function<int8_t(const Image&)>& callback)
{
    keep_builder(input);
    input->set_stream_id(stream_id);
    if (output) {
        keep_builder(output);
        output->set_stream_id(stream_id);
    }
    return startStream(input, output, stream_id == "empty" ? fallback : stream_id, callback);
}

bool is_splice_stream(const std::string& stream_id)
{
    try {
        StreamIns ins;
        return get_properties(stream_id, ins) == 0 && ins.inputType == "splice";
    } catch (const std::exception& error) {
        // The file may be in the middle of an edit; a running stream must stop all the same.
        VEL_LOG_ERROR("Configuration file %s is not readable: %s", g_stream_conf_file, error.what());
        return false;
    }
}

} // namespace

int get_properties(std::string stream_id, StreamIns& ins)
{
    reset(ins);
    const std::optional<Json::Value> root = parse_configuration(g_stream_conf_file);
    if (!root) {
        VEL_LOG_ERROR("Unable to open configuration file: %s", g_stream_conf_file);
        return -1;
    }
    const Json::Value* stream = find_stream(*root, stream_id);
    if (!stream) {
        VEL_LOG_INFO("Specified stream id: %s not defined in configuration file velstream-gst.conf.",
                     stream_id.c_str());
        return -1;
    }
    if (read_derived_stream((*stream)["properties"], ins)) return 0;
    return read_ordinary_stream(*stream, stream_id, ins);
}

int start_stream(std::string stream_id, std::function<int8_t(const Image&)>& callback)
{
    StreamIns ins;
    ins.streamsId = stream_id;
    if (get_properties(stream_id, ins) == -1) {
        VEL_LOG_ERROR("There is no related stream information.");
        return -1;
    }
    if (const std::optional<int> result = start_special_stream(ins, stream_id, true, callback)) return *result;
    return start_ordinary_stream(ins, stream_id, callback);
}

int start(StreamIns& ins, std::function<int8_t(const Image&)>& callback)
{
    if (const std::optional<int> result = start_special_stream(ins, ins.streamsId, false, callback)) return *result;
    return start_ordinary_stream(ins, ins.streamsId, callback);
}

int start_stream_input_file(std::string input_addr, std::function<int8_t(const Image&)> callback, StreamType type,
                            std::string output_addr, int width, int height, std::string stream_id)
{
    VEL_LOG_INFO("Start stream from input file.");
    auto* input = new StreamInputFile(input_addr, stream_id);
    StreamOutput* output = nullptr;
    switch (type) {
    case STREAM_TYPE_NONE:
        VEL_LOG_INFO("FILE - To display stream via waylandsink. ");
        break;
    case STREAM_TYPE_WAYLAND:
        VEL_LOG_INFO("FILE - To display file.");
        output = new StreamOutputWaylandsink(0, 0, width, height);
        break;
    case STREAM_TYPE_RTSP:
        VEL_LOG_INFO("FILE - To display stream via rtsp.");
        output = new StreamOutputRtspsink(output_addr, width, height);
        break;
    case STREAM_TYPE_MP4:
        VEL_LOG_INFO("FILE - To save mp4.");
        output = new StreamOutputMp4sink(output_addr, width, height);
        break;
    default:
        keep_builder(input);
        return -1;
    }
    return run_ordinary_stream(input, output, stream_id, "velstream_file", callback);
}

int start_stream_input_rtsp(std::string input_addr, std::function<int8_t(const Image&)> callback, StreamType type,
                            std::string output_addr, int width, int height, std::string stream_id)
{
    auto* input = new StreamInputRtsp(input_addr, stream_id);
    StreamOutput* output = nullptr;
    const char* fallback = "velstream_rtsp";
    switch (type) {
    case STREAM_TYPE_NONE:
        VEL_LOG_INFO("RTSP - Doesn't display stream(autosink).");
        break;
    case STREAM_TYPE_WAYLAND:
        VEL_LOG_INFO("RTSP - To display stream via waylandsink. ");
        output = new StreamOutputWaylandsink(0, 0, width, height);
        break;
    case STREAM_TYPE_RTSP:
        VEL_LOG_INFO("RTSP - To display stream via rtsp. ");
        output = new StreamOutputRtspsink(output_addr); // its size comes from the stream
        break;
    case STREAM_TYPE_MP4:
        VEL_LOG_INFO("RTSP - To save mp4.");
        output = new StreamOutputMp4sink(output_addr, width, height);
        fallback = "velstream_file";
        break;
    default:
        keep_builder(input);
        VEL_LOG_ERROR("Output stream type is not supported. Exit.");
        return -1;
    }
    return run_ordinary_stream(input, output, stream_id, fallback, callback);
}

int start_stream_input_rtmp(std::string input_addr, std::function<int8_t(const Image&)> callback, StreamType type,
                            std::string output_addr, int width, int height, std::string stream_id)
{
    auto* input = new StreamInputRtmp(input_addr, stream_id);
    StreamOutput* output = nullptr;
    const char* fallback = "velstream_rtmp";
    switch (type) {
    case STREAM_TYPE_NONE:
        VEL_LOG_INFO("RTMP - Doesn't display stream(autosink).");
        break;
    case STREAM_TYPE_WAYLAND:
        VEL_LOG_INFO("RTMP - To display rtmp stream via waylandsink. width: %d, height: %d", width, height);
        output = new StreamOutputWaylandsink(0, 0, width, height);
        break;
    case STREAM_TYPE_RTSP:
        VEL_LOG_INFO("RTMP - To display rtmp stream via rtsp. width: %d, height: %d", width, height);
        output = new StreamOutputRtspsink(output_addr, width, height);
        break;
    case STREAM_TYPE_MP4:
        VEL_LOG_INFO("RTSP - To save mp4."); // kept: shared with the RTSP input
        output = new StreamOutputMp4sink(output_addr, width, height);
        fallback = "velstream_file";
        break;
    default:
        keep_builder(input);
        return -1;
    }
    return run_ordinary_stream(input, output, stream_id, fallback, callback);
}

int start_stream_input_usbcam(StreamIns& ins, std::function<int8_t(const Image&)> callback, StreamType type,
                              std::string stream_id)
{
    StreamProperty property;
    sync_data(ins, property);
    StreamOutput* output = nullptr;
    switch (type) { // the texts are the RTSP input's
    case STREAM_TYPE_NONE:
        VEL_LOG_INFO("RTSP - Doesn't display stream(autosink).");
        break;
    case STREAM_TYPE_WAYLAND:
        VEL_LOG_INFO("RTSP - To display stream via waylandsink. ");
        output = new StreamOutputWaylandsink(0, 0, ins.width, ins.height);
        break;
    case STREAM_TYPE_RTSP:
        VEL_LOG_INFO("RTSP - To display stream via rtsp. ");
        output = new StreamOutputRtspsink(ins.outputAddr); // its size comes from the stream
        break;
    case STREAM_TYPE_MP4:
        VEL_LOG_INFO("RTSP - To save mp4.");
        output = new StreamOutputMp4sink(ins.outputAddr, ins.width, ins.height);
        break;
    default:
        VEL_LOG_ERROR("Output stream type is not supported. Exit.");
        return -1;
    }
    if (output) {
        keep_builder(output);
        output->set_stream_id(stream_id);
    }
    return startUsbStream(property, output, stream_id == "empty" ? "velstream_usb" : stream_id, callback);
}

void gstreamer_pipeline_shutdown(std::string stream_id)
{
    if (stream_id != "all_stream" && is_splice_stream(stream_id)) {
        stop_splice_stream(stream_id);
        return;
    }
    send_eos(stream_id);
}

int get_stream_status()
{
    return -1;
}

void set_log_level(GSTLogLevel level)
{
    int mapped = 0;
    switch (static_cast<int>(level)) {
    case 1:
    case 2:
    case 4:
        mapped = level;
        break;
    case 3:
        mapped = 5;
        break;
    default:
        break;
    }
    VelClog::clog_set_log_level("velstream", mapped);
}

void clogger(const char* path)
{
    VelClog::clogger("velstream", path, 2);
}

} // namespace Quorvis::VelStream
