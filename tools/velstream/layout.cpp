#include "layout.h"

#include <algorithm>
#include <cctype>
#include <filesystem>

namespace velstream::tool {

namespace {

constexpr const char* kSchema = "velstream-compose.schema.json";
constexpr unsigned kCameras = 4;

std::string place(const char* list, Json::ArrayIndex index, const std::string& key = "")
{
    return std::string("$.") + list + "[" + std::to_string(index) + "]" + (key.empty() ? "" : "." + key);
}

bool is_in(const std::string& text, const char* characters)
{
    return text.find_first_of(characters) != std::string::npos;
}

/// The texts go into a launch description as they are.
void check_texts(const Json::Value& task, const std::string& path, Findings& findings)
{
    for (const std::string& key : task.getMemberNames()) {
        if (!task[key].isString()) continue;
        const std::string text = task[key].asString();
        const bool is_word = key.find("Addr") != std::string::npos || key == "logo_path" || key == "text_color" ||
                             key == "Model" || key == "MlModule" || key == "Labels";
        if (is_in(text, "\"\\"))
            findings.push_back(
                {true, "", path + "." + key, "has a quote or a backslash, which a pipeline's text cannot hold"});
        else if (is_word && is_in(text, " \t\n!;"))
            findings.push_back(
                {true, "", path + "." + key, "has a blank, \"!\" or \";\", which a pipeline's text cannot hold"});
        else if (is_word && key != "text_color" && text.empty())
            findings.push_back({true, "", path + "." + key, "is empty"});
    }
}

bool is_pair(const std::string& text)
{
    int first = 0;
    int second = 0;
    char end = 0;
    return std::sscanf(text.c_str(), " < %d , %d %c", &first, &second, &end) == 3 && end == '>';
}

void check_input(const Json::Value& input, Json::ArrayIndex index, Findings& findings)
{
    check_texts(input, place("inputs", index), findings);
    if (input["inputAddr"].asString().find("rtsp") != 0)
        findings.push_back(
            {true, "", place("inputs", index, "inputAddr"), "is no RTSP address: it must begin with \"rtsp://\""});
    for (const char* key : {"position", "dimensions"}) {
        if (input.isMember(key) && !is_pair(input[key].asString()))
            findings.push_back(
                {true, "", place("inputs", index, key), "is no pair of numbers, as \"<640, 360>\" is one"});
    }
    if (index > 0 && (input.isMember("width") || input.isMember("height")))
        findings.push_back(
            {false, "", place("inputs", index), "has a size, and the canvas has that of the first input"});
}

void check_inputs(const Json::Value& root, Findings& findings)
{
    const Json::Value& inputs = root["inputs"];
    for (Json::ArrayIndex i = 0; i < inputs.size(); ++i)
        check_input(inputs[i], i, findings);
    if (inputs.empty()) {
        findings.push_back({true, "", "$.inputs", "is empty: a composition needs a camera"});
        return;
    }
    for (const char* key : {"width", "height"}) {
        if (!inputs[0].isMember(key))
            findings.push_back({true, "", place("inputs", 0),
                                std::string("has no \"") + key + "\": the first input's size is the canvas's"});
    }
    if (inputs.size() < kCameras)
        findings.push_back(
            {false, "", "$.inputs",
             "has " + std::to_string(inputs.size()) + " of four cameras: the rest of the canvas stays black"});
    if (inputs.size() > kCameras)
        findings.push_back({false, "", "$.inputs", "has more than four cameras: those behind the fourth are left out"});
}

bool is_colour(const std::string& text)
{
    return text.size() == 10 && text.compare(0, 2, "0x") == 0 &&
           std::all_of(text.begin() + 2, text.end(), [](unsigned char c) { return std::isxdigit(c) != 0; });
}

void check_output(const Json::Value& output, Json::ArrayIndex index, Findings& findings)
{
    check_texts(output, place("outputs", index), findings);
    const bool is_file = output["outputType"].asString() == "File";
    if (!is_file && output["outputAddr"].asString().find("rtsp") != 0)
        findings.push_back(
            {true, "", place("outputs", index, "outputAddr"), "is no RTSP address: it must begin with \"rtsp://\""});
    if (output.isMember("text_color") && !is_colour(output["text_color"].asString()))
        findings.push_back({true, "", place("outputs", index, "text_color"),
                            "is no colour, as \"0xFF0000FF\" is one: red, green, blue, opacity"});
    std::error_code error;
    if (output.isMember("logo_path") && !std::filesystem::is_regular_file(output["logo_path"].asString(), error))
        findings.push_back({false, "", place("outputs", index, "logo_path"), "is no file: no picture will be drawn"});
}

void check_outputs(const Json::Value& root, const Layout& layout, Findings& findings)
{
    for (Json::ArrayIndex i = 0; i < root["outputs"].size(); ++i)
        check_output(root["outputs"][i], i, findings);
    const std::string scenario = "; scenario " + std::to_string(layout.scenario) + " needs it";
    if (layout.writes_file() && layout.file().empty())
        findings.push_back({true, "", "$.outputs", "has no output of the type \"File\"" + scenario});
    if (layout.pushes() && layout.push().empty())
        findings.push_back({true, "", "$.outputs", "has no output of the type \"Rtsp\"" + scenario});
    if (!layout.pushes() && !layout.push().empty())
        findings.push_back({false, "", "$.outputs",
                            "has a push, and scenario " + std::to_string(layout.scenario) + " pushes nothing"});
}

void check_model(const Json::Value& root, const Layout& layout, Findings& findings)
{
    if (!layout.detects()) {
        if (root.isMember("model"))
            findings.push_back({false, "", "$.model", "is not read: scenario 5 detects nothing"});
        return;
    }
    if (!root.isMember("model")) {
        findings.push_back({true, "", "$", "has no \"model\": every scenario but 5 looks for objects"});
        return;
    }
    check_texts(root["model"], "$.model", findings);
    std::error_code error;
    if (!std::filesystem::is_regular_file(root["model"]["Model"].asString(), error))
        findings.push_back({true, "", "$.model.Model", "is no file"});
    if (!std::filesystem::is_regular_file(root["model"]["Labels"].asString(), error))
        findings.push_back({false, "", "$.model.Labels", "is no file: boxes will have no names"});
}

/// A member as the task parameter of its name.
Task read_task(const Json::Value& members, const Task& defaults)
{
    Task task = defaults;
    for (const std::string& key : members.getMemberNames()) {
        if (key != "comment") task[key] = members[key].asString(); // numbers and switches as their texts
    }
    return task;
}

std::vector<Task> read_tasks(const Json::Value& list, const char* id, const Task& defaults)
{
    std::vector<Task> tasks;
    for (const Json::Value& members : list) {
        tasks.push_back(read_task(members, defaults));
        tasks.back().try_emplace("subStreamId", id + std::to_string(tasks.size()));
    }
    return tasks;
}

} // namespace

std::string Layout::address(bool is_file) const
{
    std::string found;
    for (const Task& output : outputs) {
        if ((output.at("outputType") == "File") == is_file) found = output.at("outputAddr");
    }
    return found;
}

Layout read_layout(const Json::Value& root)
{
    Layout layout;
    layout.scenario = root["scenario"].asInt();
    layout.inputs = read_tasks(root["inputs"], "camera",
                               {{"inputType", "Rtsp"}, {"decodeType", "H264"}, {"width", "0"}, {"height", "0"}});
    layout.outputs = read_tasks(root["outputs"], "output", {{"encodeType", "H264"}, {"width", "0"}, {"height", "0"}});
    if (root.isMember("model")) layout.model = read_task(root["model"], {});
    return layout;
}

Findings check_layout(const Json::Value& root)
{
    Findings findings = check_schema(root, kSchema);
    if (!findings.empty()) return findings; // the rules need the form
    const Layout layout = read_layout(root);
    check_inputs(root, findings);
    check_outputs(root, layout, findings);
    check_model(root, layout, findings);
    return findings;
}

std::vector<std::string> layout_elements(const Layout& layout)
{
    const bool is_h265 = !layout.inputs.empty() && layout.inputs[0].at("decodeType") == "H265";
    std::vector<std::string> names{"rtspsrc",
                                   is_h265 ? "rtph265depay" : "rtph264depay",
                                   is_h265 ? "h265parse" : "h264parse",
                                   "qtic2vdec",
                                   "qtivtransform",
                                   "qtivcomposer",
                                   "qtic2venc"};
    const auto add = [&names](std::initializer_list<const char*> more) {
        names.insert(names.end(), more.begin(), more.end());
    };
    if (layout.writes_file()) add({"mp4mux"});
    if (layout.detects()) add({"qtivoverlay", "qtimlvconverter", "qtimlqnn", "qtimlvdetection"});
    if (layout.pushes()) add({"qtivsplit", "rtspclientsink"});
    return names;
}

} // namespace velstream::tool
