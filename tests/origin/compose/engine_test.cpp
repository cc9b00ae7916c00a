// What an engine makes of tasks.
#include "RecordedLog.h"
#include "velstreamEngine.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <type_traits>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Lines = std::vector<std::string>;
using Parameters = std::unordered_map<std::string, std::string>;

const Parameters kInput{{"subStreamId", "s0"},  {"inputType", "Rtsp"}, {"inputAddr", "rtsp://a/0"},
                        {"decodeType", "H265"}, {"width", "1280"},     {"height", "720"}};
const Parameters kOutput{{"subStreamId", "o0"},  {"outputType", "File"}, {"outputAddr", "/o.mp4"},
                         {"encodeType", "H265"}, {"width", "1920"},      {"height", "1080"}};
const Parameters kMain{{"outputType", "Rtsp"}, {"outputAddr", "rtsp://p/x"}, {"encodeType", "H265"}};
const Parameters kModel{{"Model", "/m.onnx"}, {"MlModule", "yolov5"}, {"Labels", "/l.txt"}};

Parameters with(Parameters params, const Parameters& more)
{
    for (const auto& [key, value] : more)
        params[key] = value;
    return params;
}

Parameters without(Parameters params, const std::string& key)
{
    params.erase(key);
    return params;
}

class EngineTasks : public ::testing::Test {
protected:
    int add(int type, Parameters params) { return impl_.add_task(static_cast<TaskType>(type), params); }
    VelStreamEngine::Impl impl_{SCENARIO_FILE};
    const StreamProperty& property_ = impl_.property;
};

} // namespace

// ---- Inputs

TEST_F(EngineTasks, InputWithNothingButTheRequiredKeysHasTheDefaults)
{
    ASSERT_EQ(add(0, kInput), 0);
    ASSERT_EQ(property_.inputs.size(), 1U);
    const InputStreamProperty& input = property_.inputs[0];
    EXPECT_EQ(input.subStreamId, "s0");
    EXPECT_EQ(input.inputType, "Rtsp");
    EXPECT_EQ(input.inputAddr, "rtsp://a/0");
    EXPECT_EQ(input.decodeType, "H265");
    EXPECT_EQ(input.width, 1280);
    EXPECT_EQ(input.height, 720);
    EXPECT_EQ(input.position, "<0, 0>");
    EXPECT_EQ(input.dimensions, "<1920, 1080>");
    EXPECT_EQ(input.crop + input.flipHorizontal + input.flipVertical, "");
    EXPECT_TRUE(property_.outputs.empty());
    EXPECT_EQ(log_lines(), (Lines{"I To execute validate_required_param: 0", "I Task config validated successfully."}));
}

TEST_F(EngineTasks, InputTakesItsPlaceOnTheCanvas)
{
    ASSERT_EQ(add(0, with(kInput, {{"position", "<1, 2>"},
                                   {"dimensions", "<3, 4>"},
                                   {"crop", "5,6,7,8"},
                                   {"flip-horizontal", "true"},
                                   {"flip-vertical", "false"}})),
              0);
    const InputStreamProperty& input = property_.inputs[0];
    EXPECT_EQ(input.position, "<1, 2>");
    EXPECT_EQ(input.dimensions, "<3, 4>");
    EXPECT_EQ(input.crop, "5,6,7,8");
    EXPECT_EQ(input.flipHorizontal, "true");
    EXPECT_EQ(input.flipVertical, "false");
}

TEST_F(EngineTasks, AddUpInTheOrderOfTheCalls)
{
    for (const char* id : {"a", "b", "c", "d", "e"})
        ASSERT_EQ(add(0, with(kInput, {{"subStreamId", id}})), 0);
    ASSERT_EQ(add(1, kOutput), 0);
    ASSERT_EQ(add(1, with(kOutput, {{"outputType", "Rtsp"}})), 0);
    std::string ids;
    for (const InputStreamProperty& input : property_.inputs)
        ids += input.subStreamId;
    EXPECT_EQ(ids, "abcde");
    EXPECT_EQ(property_.outputs[0].outputType, "File");
    EXPECT_EQ(property_.outputs[1].outputType, "Rtsp");
}

// ---- Outputs

TEST_F(EngineTasks, OutputWithNothingButTheRequiredKeysHasTheDefaults)
{
    ASSERT_EQ(add(1, kOutput), 0);
    ASSERT_EQ(property_.outputs.size(), 1U);
    const OutputStreamProperty& output = property_.outputs[0];
    EXPECT_EQ(output.subStreamId, "o0");
    EXPECT_EQ(output.outputType, "File");
    EXPECT_EQ(output.outputAddr, "/o.mp4");
    EXPECT_EQ(output.encodeType, "H265");
    EXPECT_EQ(output.width, 1920);
    EXPECT_EQ(output.height, 1080);
    EXPECT_EQ(output.overlaySwitch, 0);
    EXPECT_EQ(output.logoPath + output.textStr, "");
    EXPECT_EQ(output.logoWidth | output.logoHeight | output.logoLocX | output.logoLocY | output.logoLocWidth |
                  output.logoLocHeight | output.textLocX | output.textLocY | output.textFontSize,
              0);
    EXPECT_EQ(output.textColor, "0xFF0000FF");
    EXPECT_EQ(log_lines(), (Lines{"I To execute validate_required_param: 1", "I Task config validated successfully.",
                                  "I MultiVideoEncode data filling."}));
}

TEST_F(EngineTasks, OutputTakesItsOverlay)
{
    ASSERT_EQ(add(1, with(kOutput, {{"overlay_switch", "1"},
                                    {"logo_path", "/logo.png"},
                                    {"logo_width", "2"},
                                    {"logo_height", "3"},
                                    {"logo_loc_x", "4"},
                                    {"logo_loc_y", "-5"},
                                    {"logo_loc_width", "6"},
                                    {"logo_loc_height", "7"},
                                    {"text_str", "Grüße"},
                                    {"text_loc_x", "8"},
                                    {"text_loc_y", "9"},
                                    {"text_font_size", "10"},
                                    {"text_color", "0x00FF00FF"}})),
              0);
    const OutputStreamProperty& output = property_.outputs[0];
    EXPECT_EQ(output.overlaySwitch, 1);
    EXPECT_EQ(output.logoPath, "/logo.png");
    EXPECT_EQ(output.logoWidth, 2);
    EXPECT_EQ(output.logoHeight, 3);
    EXPECT_EQ(output.logoLocX, 4);
    EXPECT_EQ(output.logoLocY, -5);
    EXPECT_EQ(output.logoLocWidth, 6);
    EXPECT_EQ(output.logoLocHeight, 7);
    EXPECT_EQ(output.textStr, "Grüße");
    EXPECT_EQ(output.textLocX, 8);
    EXPECT_EQ(output.textLocY, 9);
    EXPECT_EQ(output.textFontSize, 10);
    EXPECT_EQ(output.textColor, "0x00FF00FF");
}

TEST_F(EngineTasks, NumberThatIsNoneThrowsAndIsNotRecorded)
{
    for (const char* width : {"wide", "", "-", "x12"})
        EXPECT_THROW(add(1, with(kOutput, {{"width", width}})), std::invalid_argument) << width;
    EXPECT_THROW(add(1, with(kOutput, {{"text_font_size", "99999999999"}})), std::out_of_range);
    EXPECT_THROW(add(0, with(kInput, {{"height", "high"}})), std::invalid_argument);
    EXPECT_TRUE(property_.outputs.empty());
    EXPECT_TRUE(property_.inputs.empty());
}

TEST_F(EngineTasks, NumberIsReadInBaseTenUpToWhatIsNone)
{
    ASSERT_EQ(add(1, with(kOutput, {{"width", " 12px"}, {"height", "0x10"}})), 0);
    EXPECT_EQ(property_.outputs[0].width, 12);
    EXPECT_EQ(property_.outputs[0].height, 0);
}

// ---- Main output and model

TEST_F(EngineTasks, MainOutputIsTheLastOne)
{
    ASSERT_EQ(add(4, with(kMain, {{"width", "640"}, {"height", "360"}})), 0);
    EXPECT_EQ(property_.outputType, "Rtsp");
    EXPECT_EQ(property_.outputAddr, "rtsp://p/x");
    EXPECT_EQ(property_.encodeType, "H265");
    EXPECT_EQ(property_.width, 640);
    EXPECT_EQ(property_.height, 360);
    ASSERT_EQ(add(4, with(kMain, {{"outputType", "File"}})), 0);
    EXPECT_EQ(property_.outputType, "File");
    EXPECT_EQ(property_.width, 0);
    EXPECT_EQ(property_.height, 0);
    EXPECT_TRUE(property_.outputs.empty());
}

TEST_F(EngineTasks, MainOutputWithAWrongNumberIsNotRecorded)
{
    EXPECT_THROW(add(4, with(kMain, {{"height", "high"}})), std::invalid_argument);
    EXPECT_EQ(property_.outputType, "");
    EXPECT_EQ(property_.encodeType, "H264");
}

TEST_F(EngineTasks, MainOutputNeedsItsCodec)
{
    EXPECT_EQ(add(4, without(kMain, "encodeType")), -1);
    EXPECT_EQ(log_lines(),
              (Lines{"I To execute validate_required_param: 4", "E Missing required config key: encodeType"}));
    EXPECT_EQ(property_.outputType, "");
}

TEST_F(EngineTasks, ModelIsTheLastOne)
{
    ASSERT_EQ(add(6, kModel), 0);
    ASSERT_EQ(add(6, with(kModel, {{"Labels", "/other.txt"}})), 0);
    EXPECT_EQ(property_.model, "/m.onnx");
    EXPECT_EQ(property_.mlModule, "yolov5");
    EXPECT_EQ(property_.labels, "/other.txt");
}

// ---- What is refused

TEST_F(EngineTasks, EveryRequiredKeyIsMissed)
{
    const std::pair<int, Parameters> tasks[] = {{0, kInput}, {1, kOutput}, {4, kMain}, {6, kModel}};
    for (const auto& [type, params] : tasks) {
        for (const auto& [key, value] : params) {
            clear_log();
            EXPECT_EQ(add(type, without(params, key)), -1);
            EXPECT_EQ(log_lines().back(), "E Missing required config key: " + key) << type;
        }
    }
    EXPECT_TRUE(property_.inputs.empty() && property_.outputs.empty() && property_.model.empty());
}

TEST_F(EngineTasks, OneMissingKeyIsLogged)
{
    EXPECT_EQ(add(0, {}), -1);
    EXPECT_EQ(log_lines().size(), 2U);
}

TEST_F(EngineTasks, CallbackKindsHaveNothingToAdd)
{
    EXPECT_EQ(add(3, kInput), -1);
    EXPECT_EQ(add(5, {}), -1);
    EXPECT_EQ(log_lines(), (Lines{"I To execute validate_required_param: 3",
                                  "W Input task type is InferenceCB, does NOT need to add task type, just set it.",
                                  "I To execute validate_required_param: 5",
                                  "W Input task type is CustomCB, does NOT need to add task type, just set it."}));
    Parameters none;
    EXPECT_EQ(impl_.validate_required_param(InferenceCB, none), 1);
    EXPECT_EQ(impl_.validate_required_param(CustomCB, none), 1);
}

TEST_F(EngineTasks, RtspDeclarationIsValidAndStillRefused)
{
    const Parameters params = with(without(kInput, "subStreamId"), {{"IOType", "Rtsp"}});
    EXPECT_EQ(add(2, params), -1);
    EXPECT_EQ(log_lines(), (Lines{"I To execute validate_required_param: 2", "I Task config validated successfully."}));
    Parameters valid = params;
    EXPECT_EQ(impl_.validate_required_param(TASK_RTSP, valid), 0);
}

TEST_F(EngineTasks, RtspDeclarationOfAnotherKindIsLogged)
{
    EXPECT_EQ(add(2, with(kInput, {{"IOType", "rtsp"}})), -1);
    EXPECT_EQ(log_lines(), (Lines{"I To execute validate_required_param: 2", "E Invalid IOType, must be 'Rtsp'"}));
}

TEST_F(EngineTasks, RtspDeclarationWithoutKindThrows)
{
    EXPECT_THROW(add(2, kInput), std::out_of_range);
    EXPECT_EQ(add(2, without(kInput, "inputAddr")), -1); // the keys are looked for first
    EXPECT_EQ(log_lines().back(), "E Missing required config key: inputAddr");
}

TEST_F(EngineTasks, UnknownKindIsLogged)
{
    EXPECT_EQ(add(7, kInput), -1);
    EXPECT_EQ(add(-1, kInput), -1);
    EXPECT_EQ(log_lines(), (Lines{"I To execute validate_required_param: 7", "E Unknown TaskType: 7",
                                  "I To execute validate_required_param: -1", "E Unknown TaskType: -1"}));
}

// ---- The engine

TEST(Engine, ScenarioWithoutCompositionStartsNothing)
{
    for (const int scenario : {0, 1, 2, 3, 8, -1}) {
        VelStreamEngine engine(static_cast<ScenarioType>(scenario));
        Parameters params = kInput;
        ASSERT_EQ(engine.add_task(TASK_ADD_INPUT, params), 0);
        clear_log();
        EXPECT_EQ(engine.start(), 0);
        EXPECT_EQ(log_lines(), Lines{});
    }
}

TEST(Engine, StartWithoutInputsIsLoggedAndReturnsZero)
{
    const std::pair<ScenarioType, Lines> scenarios[] = {{SCENARIO_FILE, {"I Pushing type is file only."}},
                                                        {SCENARIO_COMPOSE_ONLY, {}},
                                                        {SCENARIO_FILE_AND_RTSP, {"I Pushing type is file+rtsp."}},
                                                        {SCENARIO_RTSP, {"I Pushing type is rtsp."}}};
    for (auto [scenario, expected] : scenarios) {
        clear_log();
        EXPECT_EQ(VelStreamEngine(scenario).start(), 0);
        expected.push_back("E A composition needs at least one input, and none was added.");
        EXPECT_EQ(log_lines(), expected);
    }
}

TEST(Engine, StopWithNothingRunningIsHarmless)
{
    VelStreamEngine engine(SCENARIO_FILE);
    const Lines expected{"I Received SIGINT signal, will send EOS to pipeline.",
                         "W pipeline_g is NULL, cannot send EOS.", "W Sending EOS to pipeline completed."};
    EXPECT_EQ(engine.stop(), 0);
    EXPECT_EQ(log_lines(), expected);
    clear_log();
    EXPECT_EQ(engine.stop(), 0);
    EXPECT_EQ(log_lines(), expected);
}

TEST(Engine, CallbackIsNeitherKeptNorCalled)
{
    const auto token = std::make_shared<int>(0);
    VelStreamEngine engine(SCENARIO_FILE);
    std::function<int8_t(const Image&)> callback = [token](const Image&) { return int8_t{0}; };
    const long owners = token.use_count();
    engine.set_callback(InferenceCB, callback);
    engine.set_callback(CustomCB, callback);
    EXPECT_EQ(token.use_count(), owners);
    EXPECT_TRUE(callback);
    EXPECT_EQ(log_lines(), Lines{});
}

TEST(Engine, HoldsOnePointer)
{
    EXPECT_EQ(sizeof(VelStreamEngine), sizeof(void*));
    EXPECT_FALSE(std::is_copy_constructible_v<VelStreamEngine>);
}
