// "velstream split": two streams of one camera.
#include "process.h"
#include "tool_fixture.h"

#include <utility>

namespace {

class SplitTool : public Tool {
protected:
    static std::string half(const std::string& id, const std::string& url, const std::string& parent = "gate",
                            const std::string& more = "")
    {
        return R"({"streamsId": ")" + id + R"(", "pStreamId": ")" + parent +
               R"(", "properties": {"inputType": "rtsp", "inputAddr": ")" + url + '"' + more + "}}";
    }
    void write_pair(const std::string& first, const std::string& second) const
    {
        write_config("{ \"streams\": [\n" + first + ",\n" + second + " ] }\n");
    }
};

TEST_F(SplitTool, BothStreamsHaveTheirFrames)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    write_pair(half("one", camera.url()), half("two", camera.url()));
    const Output output = run_software("split one two --json --frames 10");
    EXPECT_EQ(output.status, 0) << stderr_text();
    const std::vector<std::string> lines = lines_of(output.text);
    ASSERT_EQ(lines.size(), 2U) << output.text;
    for (const auto& [line, id] : {std::pair{lines[0], "one"}, {lines[1], "two"}}) {
        const Json::Value value = parse_json(line);
        EXPECT_EQ(value["stream"].asString(), id);
        EXPECT_EQ(value["frames"].asInt(), 10);
        EXPECT_EQ(value["result"].asInt(), 0);
        EXPECT_EQ(value["width"].asInt(), 320);
    }
}

TEST_F(SplitTool, CameraThatIsNotThereIsAFailureOfBoth)
{
    write_pair(half("one", "rtsp://127.0.0.1:1/c"), half("two", "rtsp://127.0.0.1:1/c"));
    const Output output = run_software("split one two --json");
    EXPECT_EQ(output.status, 1);
    for (const char* id : {"one", "two"})
        EXPECT_NE(stderr_text().find(std::string("velstream: stream ") + id +
                                     " failed before its first frame: source: Could not open resource"),
                  std::string::npos)
            << stderr_text();
}

TEST_F(SplitTool, StreamsThatAreNoPairAreRefused)
{
    const std::string url = "rtsp://127.0.0.1:1/c";
    const std::pair<std::string, std::string> cases[] = {
        {half("two", url, "door"), R"(Streams one and two have not the same "pStreamId".)"},
        {half("two", "rtsp://127.0.0.1:1/d"),
         R"(Streams one and two have not the same "inputType", "inputAddr" and "decodeType".)"},
        {half("two", url, "gate", R"(, "decodeType": "H265")"),
         R"(Streams one and two have not the same "inputType", "inputAddr" and "decodeType".)"},
        {half("two", url, "gate", R"(, "saveMp4": true, "width": 320, "height": 240)"),
         "Stream two is no stream of a camera."},
        {half("other", url), "two"}};
    for (const auto& [second, sentence] : cases) {
        write_pair(half("one", url), second);
        EXPECT_EQ(run_software("split one two").status, 2) << second;
        EXPECT_NE(stderr_text().find(sentence), std::string::npos) << stderr_text();
    }
    write_pair(half("one", url, "gate", R"(, "decodeType": "H265")"),
               half("two", url, "gate", R"(, "decodeType": "H265")"));
    EXPECT_EQ(run_software("split one two").status, 2);
    EXPECT_EQ(stderr_text(), "velstream: Streams one and two cannot be split: that takes RTSP with H.264.\n");
}

TEST_F(SplitTool, TakesTwoStreams)
{
    const std::string url = "rtsp://127.0.0.1:1/c";
    write_pair(half("one", url), half("two", url));
    for (const char* ids : {"one", "one two three", "one one"})
        EXPECT_EQ(run_software(std::string("split ") + ids).status, 2) << ids;
}

TEST_F(SplitTool, CheckNamesTheSplittersElements)
{
    const std::string url = "rtsp://127.0.0.1:1/c";
    write_pair(half("one", url), half("two", url, "gate", R"(, "outputType": "rtsp", "outputAddr": "rtsp://a/b")"));
    const Output output = run_software("check");
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_EQ(output.text,
              "one: rtsp -> callback; platform elements: v4l2h264dec qtivtransform qtivsplit\n"
              "two: rtsp -> callback, rtsp; platform elements: v4l2h264dec qtivtransform v4l2h264enc qtivsplit\n"
              "2 streams for the ub2404 build: 0 errors, 0 warnings\n");
}

} // namespace
