// Which two entries start_split_stream() takes for one camera's, and what it says of others. Without "qtivsplit" a pair
// that was taken ends before it plays.
#include "ConfigFile.h"
#include "Elements.h"
#include "RecordedLog.h"
#include "StreamBuild.h"
#include "velstream.h"

#include <gtest/gtest.h>
#include <json/json.h>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Lines = std::vector<std::string>;

const Lines kTaken{"E Failed to create elements."};
const Lines kOtherSource{"E The input stream definition are not in the same source."};
const Lines kOtherInput{"E The input stream definition are not the same."};

/// An entry of the pair; an empty parent is left out.
std::string half(const std::string& id, const std::string& parent, const std::string& address = "rtsp://a/b",
                 const std::string& type = "rtsp", const std::string& codec = "H264")
{
    return R"({"streamsId": ")" + id + R"(",)" + (parent.empty() ? "" : R"("pStreamId": ")" + parent + R"(",)") +
           R"("properties": {"inputType": ")" + type + R"(", "inputAddr": ")" + address + R"(", "decodeType": ")" +
           codec + R"(", "audio": false, "rollingsave": false}})";
}

class SplitEntry : public WithGStreamer {
protected:
    int start(const std::string& first, const std::string& second)
    {
        const ConfigFile config(R"({"streams": [)" + first + "," + second + "]}");
        clear_log();
        return start_split_stream("one", callback_, "two", other_callback_);
    }

    static Lines failures()
    {
        Lines lines;
        for (const std::string& line : log_lines()) {
            if (line[0] == 'E') lines.push_back(line);
        }
        return lines;
    }

    std::function<int8_t(const Image&)> callback_ = [](const Image&) { return int8_t{0}; };
    std::function<int8_t(const Image&)> other_callback_ = [](const Image&) { return int8_t{0}; };
    const WithoutElement without_splitter_{"qtivsplit"};
};

TEST_F(SplitEntry, PairOfOneParentAndOneInputIsTaken)
{
    EXPECT_EQ(start(half("one", "front"), half("two", "front")), -1);
    EXPECT_EQ(failures(), kTaken);
    EXPECT_EQ(pipeline_map.count("one") + pipeline_map.count("two"), 2U);
}

TEST_F(SplitEntry, PairWithoutAParentIsTaken)
{
    EXPECT_EQ(start(half("one", ""), half("two", "")), -1);
    EXPECT_EQ(failures(), kTaken);
}

TEST_F(SplitEntry, ParentsThatDifferAreRefused)
{
    EXPECT_EQ(start(half("one", "front"), half("two", "back")), -1);
    EXPECT_EQ(failures(), kOtherSource);
    EXPECT_EQ(start(half("one", "front"), half("two", "")), -1);
    EXPECT_EQ(failures(), kOtherSource);
    EXPECT_TRUE(pipeline_map.empty());
    EXPECT_TRUE(callback_ && other_callback_) << "not moved from";
}

TEST_F(SplitEntry, ParentNamedAsTheDefaultIsRefused)
{
    EXPECT_EQ(start(half("one", "empty_p"), half("two", "empty_p")), -1);
    EXPECT_EQ(failures(), kOtherSource);
}

TEST_F(SplitEntry, InputsThatDifferAreRefused)
{
    for (const std::string& other : {half("two", "front", "rtsp://a/c"), half("two", "front", "rtsp://a/b", "file"),
                                     half("two", "front", "rtsp://a/b", "rtsp", "H265")}) {
        EXPECT_EQ(start(half("one", "front"), other), -1);
        EXPECT_EQ(failures(), kOtherInput) << other;
    }
    EXPECT_TRUE(pipeline_map.empty());
    EXPECT_TRUE(callback_ && other_callback_) << "not moved from";
}

TEST_F(SplitEntry, UnknownFirstIdEndsItBeforeTheSecondIsRead)
{
    EXPECT_EQ(start(half("another", "front"), half("two", "front")), -1);
    EXPECT_EQ(log_lines(), (Lines{"I Specified stream id: one not defined in configuration file velstream-gst.conf.",
                                  "E There is no related stream information."}));
}

TEST_F(SplitEntry, UnknownSecondIdIsLogged)
{
    EXPECT_EQ(start(half("one", "front"), half("another", "front")), -1);
    EXPECT_EQ(log_lines(), (Lines{"I Specified stream id: two not defined in configuration file velstream-gst.conf.",
                                  "E There is no related stream information."}));
}

TEST_F(SplitEntry, EntryOfAWrongTypeRaisesTheParsersException)
{
    const ConfigFile config(R"({"streams": [)" + half("one", "front") + R"(, {"streamsId": "two", "pStreamId": {},
                            "properties": {}}]})");
    EXPECT_THROW(start_split_stream("one", callback_, "two", other_callback_), Json::LogicError);
    EXPECT_TRUE(pipeline_map.empty());
}

} // namespace
