// The bins of a library that was built for a platform which no table names.
#include "ConfigFile.h"
#include "Elements.h"
#include "RecordedLog.h"
#include "StreamInput.h"
#include "StreamOutput.h"
#include "velstream.h"

#include <gtest/gtest.h>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Lines = std::vector<std::string>;

const char* const kConfigurationLine = "I Start to get configuration properties for stream id: cam.";
const char* const kDecoderLine = "I Platform is default setting(not 6490/8550), will use qtivdec plugin.";

class OtherPlatform : public WithGStreamer {
protected:
    template <typename Builder>
    ElementPtr build(Builder&& builder) const
    {
        builder.set_stream_id("cam");
        return share(builder.build());
    }

    const ConfigFile config_{complete_stream("cam", "H265")};
};

TEST_F(OtherPlatform, FileInputDecodesWithQtivdec)
{
    const ElementPtr bin = build(StreamInputFile("a.mp4", "cam"));
    ASSERT_TRUE(bin);
    EXPECT_EQ(chain_to_ghost_src(bin.get()), (Lines{"queue", "h265parse", "qtivdec"}));
    EXPECT_EQ(log_lines(), (Lines{kConfigurationLine, "I Input rtsp is h264. Including h265parse.", kDecoderLine}));
}

TEST_F(OtherPlatform, RtmpInputDecodesWithQtivdec)
{
    const ElementPtr bin = build(StreamInputRtmp("rtmp://127.0.0.1:1/live/cam", "cam"));
    ASSERT_TRUE(bin);
    EXPECT_EQ(chain_to_ghost_src(bin.get()), (Lines{"queue", "h265parse", "qtivdec"}));
    EXPECT_EQ(log_lines(), (Lines{kConfigurationLine, kDecoderLine}));
}

TEST_F(OtherPlatform, RtspInputDecodesWithQtivdecAndReceivesByUdp)
{
    const ElementPtr bin = build(StreamInputRtsp("rtsp://127.0.0.1:1/cam", "cam"));
    ASSERT_TRUE(bin);
    EXPECT_EQ(chain_to_ghost_src(bin.get()), (Lines{"rtph265depay", "h265parse", "qtivdec"}));
    EXPECT_EQ(log_lines(),
              (Lines{kConfigurationLine, "I Input rtsp is h265. Including rtph265depay and h265parse.", kDecoderLine}));
    const ElementPtr source = child(bin.get(), "queue_input_src");
    EXPECT_EQ(number_of(source.get(), "latency"), 1000);
    EXPECT_EQ(number_of(source.get(), "protocols"), 1);
    EXPECT_EQ(number_of(source.get(), "drop-on-latency"), 1);
    EXPECT_EQ(number_of(source.get(), "udp-buffer-size"), 2097152);
    EXPECT_EQ(number_of(source.get(), "timeout"), 30000000);
}

TEST_F(OtherPlatform, RtspOutputIsTheGenericChain)
{
    const ElementPtr bin = build(StreamOutputRtspsink("rtsp://127.0.0.1:1/out"));
    ASSERT_TRUE(bin);
    EXPECT_EQ(name_of(bin.get()), "velstream-output-rtspsink");
    EXPECT_EQ(chain_from_ghost_sink(bin.get()), (Lines{"qtic2venc", "capsfilter", "h265parse", "rtspclientsink"}));
    EXPECT_EQ(log_lines(),
              (Lines{"I Output url: rtsp://127.0.0.1:1/out.",
                     "I Platform is default setting(not 6490/8550), will use qtic2venc plugin.", kConfigurationLine}));
}

TEST_F(OtherPlatform, Mp4OutputIsTheGenericChain)
{
    const ElementPtr bin = build(StreamOutputMp4sink("/tmp/x.mp4"));
    ASSERT_TRUE(bin);
    EXPECT_EQ(chain_from_ghost_sink(bin.get()), (Lines{"qtic2venc", "queue", "h264parse", "mp4mux", "filesink"}));
    EXPECT_EQ(log_lines(),
              (Lines{"I Output url: /tmp/x.mp4.", "I Platform is 8550 (pure ubuntu), will use qtic2venc plugin."}));
}

TEST_F(OtherPlatform, StreamRunsWithThePlainRunner)
{
    const WithoutElement without("qtivtransform");
    EXPECT_EQ(start_stream_input_file("/absent/video.mp4", nullptr, STREAM_TYPE_NONE, "", 0, 0, "cam"), -1);
    const Lines lines = log_lines();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[lines.size() - 2], "I Starting pipeline, attempt 1 of 5") << "no line about an engine";
    EXPECT_EQ(lines.back(), "E Failed to link elements input with qtivtransformInput in the pipeline.");
}

} // namespace
