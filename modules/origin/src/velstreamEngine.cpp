#include "velstreamEngine.h"

#include "Log.h"
#include "StreamBuildMultiMerge.h"

#include <algorithm>
#include <iterator>
#include <unordered_set>
#include <utility>

namespace Quorvis::VelStream {

namespace {

using Parameters = VelStreamEngine::Impl::Parameters;
using Keys = std::unordered_set<std::string>;

struct RequiredKeys {
    TaskType type;
    Keys keys;
};

const RequiredKeys* find_required(TaskType type)
{
    static const RequiredKeys kRows[] = {
        {TASK_ADD_INPUT, {"subStreamId", "inputType", "inputAddr", "decodeType", "width", "height"}},
        {TASK_ADD_OUTPUT, {"subStreamId", "outputType", "outputAddr", "encodeType", "width", "height"}},
        {TASK_RTSP, {"inputType", "inputAddr", "decodeType"}},
        {TASK_SET_MAIN_OUTPUT, {"outputType", "outputAddr", "encodeType"}},
        {TASK_SET_MODEL, {"Model", "MlModule", "Labels"}},
    };
    const auto* row =
        std::find_if(std::begin(kRows), std::end(kRows), [type](const RequiredKeys& r) { return r.type == type; });
    return row == std::end(kRows) ? nullptr : row;
}

bool has_all(const Keys& keys, const Parameters& params)
{
    for (const std::string& key : keys) {
        if (params.count(key) == 0) {
            VEL_LOG_ERROR("Missing required config key: %s", key.c_str());
            return false;
        }
    }
    return true;
}

std::string text_of(const Parameters& params, const char* key, const char* absent = "")
{
    const auto found = params.find(key);
    return found == params.end() ? absent : found->second;
}

int number_of(const Parameters& params, const char* key)
{
    const auto found = params.find(key);
    return found == params.end() ? 0 : std::stoi(found->second);
}

InputStreamProperty read_input(const Parameters& params)
{
    InputStreamProperty input;
    input.inputType = text_of(params, "inputType");
    input.inputAddr = text_of(params, "inputAddr");
    input.decodeType = text_of(params, "decodeType", "H264");
    input.width = number_of(params, "width");
    input.height = number_of(params, "height");
    input.subStreamId = text_of(params, "subStreamId");
    input.position = text_of(params, "position", "<0, 0>");
    input.dimensions = text_of(params, "dimensions", "<1920, 1080>");
    input.crop = text_of(params, "crop");
    input.flipHorizontal = text_of(params, "flip-horizontal");
    input.flipVertical = text_of(params, "flip-vertical");
    return input;
}

OutputStreamProperty read_output(const Parameters& params)
{
    OutputStreamProperty output;
    output.outputType = text_of(params, "outputType");
    output.outputAddr = text_of(params, "outputAddr");
    output.encodeType = text_of(params, "encodeType", "H264");
    output.width = number_of(params, "width");
    output.height = number_of(params, "height");
    output.overlaySwitch = number_of(params, "overlay_switch");
    output.subStreamId = text_of(params, "subStreamId");
    output.logoPath = text_of(params, "logo_path");
    output.logoWidth = number_of(params, "logo_width");
    output.logoHeight = number_of(params, "logo_height");
    output.logoLocX = number_of(params, "logo_loc_x");
    output.logoLocY = number_of(params, "logo_loc_y");
    output.logoLocWidth = number_of(params, "logo_loc_width");
    output.logoLocHeight = number_of(params, "logo_loc_height");
    output.textStr = text_of(params, "text_str");
    output.textLocX = number_of(params, "text_loc_x");
    output.textLocY = number_of(params, "text_loc_y");
    output.textFontSize = number_of(params, "text_font_size");
    output.textColor = text_of(params, "text_color", "0xFF0000FF");
    return output;
}

void set_main_output(const Parameters& params, StreamProperty& property)
{
    const int width = number_of(params, "width"); // before anything is changed: a text that is no number throws
    const int height = number_of(params, "height");
    property.outputType = text_of(params, "outputType");
    property.outputAddr = text_of(params, "outputAddr");
    property.encodeType = text_of(params, "encodeType", "H264");
    property.width = width;
    property.height = height;
}

void set_model(const Parameters& params, StreamProperty& property)
{
    property.model = params.at("Model");
    property.mlModule = params.at("MlModule");
    property.labels = params.at("Labels");
}

} // namespace

int VelStreamEngine::Impl::validate_required_param(TaskType type, Parameters& params)
{
    VEL_LOG_INFO("To execute validate_required_param: %d", static_cast<int>(type));
    if (type == InferenceCB) {
        VEL_LOG_WARN("Input task type is InferenceCB, does NOT need to add task type, just set it.");
        return 1;
    }
    if (type == CustomCB) {
        VEL_LOG_WARN("Input task type is CustomCB, does NOT need to add task type, just set it.");
        return 1;
    }
    const RequiredKeys* required = find_required(type);
    if (!required) {
        VEL_LOG_ERROR("Unknown TaskType: %d", static_cast<int>(type));
        return -1;
    }
    if (!has_all(required->keys, params)) return -1;
    if (type == TASK_RTSP && params.at("IOType") != "Rtsp") {
        VEL_LOG_ERROR("Invalid IOType, must be 'Rtsp'");
        return -1;
    }
    VEL_LOG_INFO("Task config validated successfully.");
    return 0;
}

int VelStreamEngine::Impl::add_task(TaskType type, Parameters& params)
{
    if (validate_required_param(type, params) != 0) return -1;
    switch (type) {
    case TASK_SET_MAIN_OUTPUT:
        set_main_output(params, property);
        return 0;
    case TASK_ADD_INPUT:
        property.inputs.push_back(read_input(params));
        return 0;
    case TASK_ADD_OUTPUT:
        VEL_LOG_INFO("MultiVideoEncode data filling.");
        property.outputs.push_back(read_output(params));
        return 0;
    case TASK_SET_MODEL:
        set_model(params, property);
        return 0;
    default:
        return -1; // TASK_RTSP too, although it is valid
    }
}

VelStreamEngine::VelStreamEngine(ScenarioType scenario) : impl_(std::make_unique<Impl>(scenario)) {}

VelStreamEngine::~VelStreamEngine() = default;

void VelStreamEngine::set_callback(TaskType, std::function<int8_t(const Image&)>&) {}

int VelStreamEngine::add_task(TaskType type, std::unordered_map<std::string, std::string>& params)
{
    return impl_->add_task(type, params);
}

int VelStreamEngine::start()
{
    switch (impl_->scenario) {
    case SCENARIO_FILE:
        VEL_LOG_INFO("Pushing type is file only.");
        start_stream_multi_merge(impl_->property, true, 0);
        break;
    case SCENARIO_COMPOSE_ONLY:
        start_stream_multi_merge(impl_->property, false, 0);
        break;
    case SCENARIO_FILE_AND_RTSP:
        VEL_LOG_INFO("Pushing type is file+rtsp.");
        start_stream_multi_merge(impl_->property, true, 1);
        break;
    case SCENARIO_RTSP:
        VEL_LOG_INFO("Pushing type is rtsp.");
        start_stream_multi_merge(impl_->property, true, 2);
        break;
    default:
        break;
    }
    return 0;
}

int VelStreamEngine::stop()
{
    stop_multi_merge();
    return 0;
}

} // namespace Quorvis::VelStream
