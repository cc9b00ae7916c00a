// "velstream compose": what is said of a layout, and a run that Ctrl+C ends.
#include "patience.h"
#include "process.h"
#include "tool_fixture.h"

#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

namespace {

class Compose : public Tool {
protected:
    std::string layout() const { return (folder_ / "layout.json").string(); }
    void write_layout(const std::string& text) const { std::ofstream(layout()) << text; }
    Output compose(const std::string& arguments) const
    {
        return run_command(std::string(TOOL_PATH) + " compose " + layout() + " --elements software " + arguments +
                           " 2> " + (folder_ / "stderr").string());
    }
    bool says(const std::string& text) const { return stderr_text().find(text) != std::string::npos; }
};

} // namespace

TEST_F(Compose, LayoutWithErrorsIsToldLineByLineAndNotStarted)
{
    write_layout(
        "{ \"scenario\": 4,\n"
        "\"inputs\": [ { \"inputAddr\": \"http://x\", \"width\": 1280, \"position\": \"0,0\" } ],\n"
        "\"outputs\": [ { \"outputType\": \"File\", \"outputAddr\": \"/tmp/a b.mp4\", \"text_color\": \"red\",\n"
        "\"text_str\": \"a \\\"b\\\"\" } ] }");
    EXPECT_EQ(compose("").status, 2);
    EXPECT_TRUE(says(layout() + ":2: error: $.inputs[0].inputAddr is no RTSP address")) << stderr_text();
    EXPECT_TRUE(says(":2: error: $.inputs[0].position is no pair of numbers")) << stderr_text();
    EXPECT_TRUE(says(":2: error: $.inputs[0] has no \"height\"")) << stderr_text();
    EXPECT_TRUE(says(":2: warning: $.inputs has 1 of four cameras")) << stderr_text();
    EXPECT_TRUE(says(":3: error: $.outputs[0].outputAddr has a blank")) << stderr_text();
    EXPECT_TRUE(says(":3: error: $.outputs[0].text_color is no colour")) << stderr_text();
    EXPECT_TRUE(says(":4: error: $.outputs[0].text_str has a quote")) << stderr_text();
    EXPECT_TRUE(says(":1: error: $ has no \"model\"")) << stderr_text();
}

TEST_F(Compose, LayoutOfAnotherFormIsToldFromTheSchema)
{
    write_layout(R"({ "scenario": 9, "input": [], "inputs": [ { "inputAddr": 3 } ] })");
    EXPECT_EQ(compose("").status, 2);
    EXPECT_TRUE(says("error: $.scenario 9 is none of 4, 5, 6, 7")) << stderr_text();
    EXPECT_TRUE(says("error: $.inputs[0].inputAddr is of type integer; it must be of type string")) << stderr_text();
    EXPECT_TRUE(says("error: $.input is no key")) << stderr_text();
}

TEST_F(Compose, ScenarioNeedsItsOutputs)
{
    write_layout(R"({ "scenario": 6, "inputs": [ { "inputAddr": "rtsp://x", "width": 2, "height": 2 } ] })");
    EXPECT_EQ(compose("").status, 2);
    EXPECT_TRUE(says("error: $.outputs has no output of the type \"File\"; scenario 6 needs it")) << stderr_text();
    EXPECT_TRUE(says("error: $.outputs has no output of the type \"Rtsp\"; scenario 6 needs it")) << stderr_text();
}

TEST_F(Compose, LayoutThatCannotBeReadIsOneSentence)
{
    EXPECT_EQ(compose("").status, 2);
    EXPECT_TRUE(says("velstream: ")) << stderr_text();
    EXPECT_TRUE(says(layout())) << stderr_text();
}

TEST_F(Compose, CameraThatIsAwayFailsWithItsCause)
{
    write_layout(R"({ "scenario": 5, "inputs": [ { "inputAddr": "rtsp://127.0.0.1:1/x", "width": 640, "height": 360 } ],
                      "outputs": [ { "outputType": "File", "outputAddr": ")" +
                 (folder_ / "out.mp4").string() + R"(" } ] })");
    const Output output = compose("--json");
    EXPECT_EQ(output.status, 1);
    const Json::Value result = parse_json(output.text);
    EXPECT_EQ(result["stopped"], false);
    EXPECT_NE(result["failure"].asString(), "");
    EXPECT_TRUE(says("velstream: the composition failed: ")) << stderr_text();
}

#ifdef RTSP_PEER
TEST_F(Compose, CtrlCLeavesAPlayableFile)
{
    peers::RtspPeer camera(RTSP_PEER, {"play", "--live", "--size", "640x360", "--fps", "10"});
    ASSERT_NE(camera.port(), 0);
    const std::string file = (folder_ / "out.mp4").string();
    std::string inputs;
    for (const char* position : {"<0, 0>", "<320, 0>", "<0, 180>", "<320, 180>"})
        inputs += std::string(inputs.empty() ? "" : ",") + R"({"inputAddr": ")" + camera.url() + R"(", "position": ")" +
                  position + R"(", "dimensions": "<320, 180>")" +
                  (inputs.empty() ? R"(, "width": 640, "height": 360})" : "}");
    write_layout(R"({"scenario": 5, "inputs": [)" + inputs +
                 R"(], "outputs": [{"outputType": "File", "outputAddr": ")" + file + R"("}]})");
    peers::ChildProcess tool({"sh", "-c",
                              std::string("exec ") + TOOL_PATH + " compose " + layout() +
                                  " --elements software --json 2> " + (folder_ / "stderr").string()});
    const auto deadline = std::chrono::steady_clock::now() + velstream::testing::kPatience;
    std::error_code error;
    while (std::filesystem::file_size(file, error) < 50000 || error) { // a fragment or two
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << stderr_text();
        ASSERT_TRUE(tool.is_running()) << stderr_text();
        std::this_thread::sleep_for(std::chrono::milliseconds(50)); // between two looks
    }
    tool.interrupt();
    const Json::Value result = parse_json(tool.read_line().value_or(""));
    EXPECT_EQ(tool.wait(), 0) << stderr_text();
    EXPECT_EQ(result["stopped"], true);
    EXPECT_EQ(result["file"], file);
    EXPECT_EQ(result["failure"], "");
    EXPECT_GT(result["bytes"].asInt64(), 0);
    const Output probe = run_command("ffprobe -v error -show_entries stream=width,height -of csv=p=0 " + file);
    EXPECT_EQ(probe.status, 0);
    EXPECT_EQ(probe.text, "640,360\n");
}
#endif
