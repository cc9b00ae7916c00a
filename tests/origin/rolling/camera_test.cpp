// Recording a camera: what is on the disk when the recording ends, however it ends.
#include "Elements.h"
#include "JoinScript.h"
#include "RecordedLog.h"
#include "Segments.h"
#include "StreamBuild.h"
#include "StreamBuildRegistry.h"
#include "StreamRollingSave.h"
#include "VideoFiles.h"
#include "frame_numbers.h"
#include "process.h"
#include "velstream.h"
#include "velstreamRolling.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>

using namespace Quorvis::VelStream;

namespace velstream::testing {

namespace {

using RecordedCamera = WithGStreamer;

constexpr int kAtOnce = -5;

/// What the library said last, for a recording that ended too early.
std::string last_lines()
{
    std::string text;
    for (const std::string& line : log_lines())
        text += line + "\n";
    return text;
}

/// Where the recorder's pictures come from.
PadPtr recorded_pad()
{
    const ElementPtr pipeline = last_started_pipeline();
    const ElementPtr sink = pipeline ? child(pipeline.get(), "rec") : nullptr;
    const PadPtr pad(sink ? gst_element_get_static_pad(sink.get(), "video") : nullptr);
    return PadPtr(pad ? gst_pad_get_peer(pad.get()) : nullptr);
}

/// A camera's clock that is set back by more than the distance of two key frames: at one, between two, and then for the
/// decoding alone.
struct Steps {
    int taken = 0;
    int pictures = 0; ///< since the last step
};

GstPadProbeReturn step_back(GstPad*, GstPadProbeInfo* info, gpointer user_data)
{
    constexpr GstClockTime kStep = 1500 * GST_MSECOND;
    constexpr int kApart = 60;
    auto& steps = *static_cast<Steps*>(user_data);
    auto* buffer = gst_buffer_make_writable(static_cast<GstBuffer*>(info->data));
    info->data = buffer;
    const bool is_key = !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
    const bool is_due = steps.taken == 0 || (steps.taken < 3 && steps.pictures > kApart);
    const bool is_stepping = is_due && is_key == (steps.taken != 1);
    if (is_stepping) ++steps.taken;
    steps.pictures = is_stepping ? 0 : steps.pictures + 1;
    const GstClockTime decoding_time =
        GST_BUFFER_DTS_IS_VALID(buffer) ? GST_BUFFER_DTS(buffer) : GST_BUFFER_PTS(buffer);
    GST_BUFFER_PTS(buffer) -= static_cast<GstClockTime>(std::min(steps.taken, 2)) * kStep;
    GST_BUFFER_DTS(buffer) = decoding_time - static_cast<GstClockTime>(steps.taken) * kStep;
    return GST_PAD_PROBE_OK;
}

void expect_recording(const std::string& codec, const std::string& camera_codec)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live", "--codec", camera_codec});
    ASSERT_NE(camera.port(), 0);
    const ConfigFile config(recorded_entry("rtsp", camera.url(), codec));
    StreamCall call(configured_stream("cam"));
    EXPECT_TRUE(wait_for_segments("cam", 3)) << last_lines();
    EXPECT_TRUE(stop_ends_call(call, "cam"));
    EXPECT_EQ(call.result(), 0);
    EXPECT_GE(segments_of("cam").size(), 3U);
    expect_complete(segments_of("cam"), camera_codec == "h265" ? "hevc" : "h264");
}

} // namespace

TEST_F(RecordedCamera, OfH264LeavesCompleteSegmentsWhenItIsStopped)
{
    expect_recording("H264", "h264");
}

TEST_F(RecordedCamera, OfH265LeavesCompleteSegmentsWhenItIsStopped)
{
    expect_recording("H265", "h265");
}

TEST_F(RecordedCamera, WhosePicturesLackATimeIsRecordedAllTheSame)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    const ConfigFile config(recorded_entry("rtsp", camera.url()));
    StreamCall call(configured_stream("cam"));
    ASSERT_TRUE(wait_for_segments("cam", 1));
    const PadPtr source = recorded_pad();
    ASSERT_TRUE(source);
    gst_pad_add_probe(
        source.get(), GST_PAD_PROBE_TYPE_BUFFER,
        [](GstPad*, GstPadProbeInfo* info, gpointer) {
            auto* buffer = gst_buffer_make_writable(static_cast<GstBuffer*>(info->data));
            info->data = buffer;
            if (GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT))
                GST_BUFFER_PTS(buffer) = GST_BUFFER_DTS(buffer) = GST_CLOCK_TIME_NONE;
            return GST_PAD_PROBE_OK;
        },
        nullptr, nullptr);
    EXPECT_TRUE(wait_for_segments("cam", 3)) << last_lines();
    EXPECT_TRUE(stop_ends_call(call, "cam"));
    EXPECT_EQ(call.result(), 0);
    EXPECT_FALSE(log_has("E ERROR from muxer: Could not multiplex stream.\n")) << last_lines();
}

TEST_F(RecordedCamera, WhoseClockIsSetBackIsRecordedAllTheSame)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    const ConfigFile config(recorded_entry("rtsp", camera.url()));
    StreamCall call(configured_stream("cam"));
    ASSERT_TRUE(wait_for_segments("cam", 2));
    const PadPtr source = recorded_pad();
    ASSERT_TRUE(source);
    Steps steps;
    gst_pad_add_probe(source.get(), GST_PAD_PROBE_TYPE_BUFFER, step_back, &steps, nullptr);
    EXPECT_TRUE(wait_for_segments("cam", 8)) << last_lines();
    EXPECT_TRUE(stop_ends_call(call, "cam"));
    EXPECT_EQ(call.result(), 0);
    EXPECT_EQ(steps.taken, 3);
    for (const std::string& line : log_lines())
        EXPECT_NE(line[0], 'E') << line;
    expect_complete(segments_of("cam"));
    EXPECT_GE(segments_of("cam").size(), 8U);
}

TEST_F(RecordedCamera, IsRemuxedWithoutADecoderIntoARingOf100)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    const ConfigFile config(recorded_entry("rtsp", camera.url()));
    StreamCall call(configured_stream("cam"));
    ASSERT_TRUE(wait_for_segments("cam", 1));
    const ElementPtr pipeline = last_started_pipeline();
    ASSERT_TRUE(pipeline);
    EXPECT_EQ(factories_in(pipeline.get()),
              (std::vector<std::string>{"capsfilter", "h264parse", "rtph264depay", "rtspsrc", "splitmuxsink"}));
    const ElementPtr sink = child(pipeline.get(), "rec");
    ASSERT_TRUE(sink);
    EXPECT_EQ(text_of(sink.get(), "location"), "/tmp/rolling/cam/%05d.mp4");
    EXPECT_EQ(number_of(sink.get(), "max-files"), 100);
    EXPECT_EQ(number_of(sink.get(), "async-finalize"), 1);
    guint64 duration = 0;
    g_object_get(sink.get(), "max-size-time", &duration, nullptr);
    EXPECT_EQ(duration, 2000000000U);
    EXPECT_TRUE(stop_ends_call(call, "cam"));
}

TEST_F(RecordedCamera, OfH265IsRemuxedWithoutADecoder)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live", "--codec", "h265"});
    ASSERT_NE(camera.port(), 0);
    const ConfigFile config(recorded_entry("rtsp", camera.url(), "H265"));
    StreamCall call(configured_stream("cam"));
    ASSERT_TRUE(wait_for_segments("cam", 1));
    const ElementPtr pipeline = last_started_pipeline();
    ASSERT_TRUE(pipeline);
    EXPECT_EQ(factories_in(pipeline.get()),
              (std::vector<std::string>{"capsfilter", "h265parse", "rtph265depay", "rtspsrc", "splitmuxsink"}));
    EXPECT_TRUE(stop_ends_call(call, "cam"));
}

TEST_F(RecordedCamera, EndsAtSigintWithACompleteLastSegment)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    const ConfigFile config(recorded_entry("rtsp", camera.url()));
    StreamCall call(configured_stream("cam"));
    EXPECT_TRUE(wait_for_segments("cam", 2));
    std::raise(SIGINT);
    EXPECT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    EXPECT_EQ(log_count("I Received SIGINT signal, will send EOS to pipeline."), 1);
    EXPECT_EQ(log_count("W Sending EOS to pipeline completed."), 1);
    EXPECT_EQ(log_count("I EOS received.\n"), 1);
    expect_complete(segments_of("cam"));
}

TEST_F(RecordedCamera, WhoseServerIsGoneEndsTheCallAndItsClosedSegmentsPlay)
{
    peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    const ConfigFile config(recorded_entry("rtsp", camera.url()));
    StreamCall call(configured_stream("cam"));
    EXPECT_TRUE(wait_for_segments("cam", 3));
    camera.kill_now();
    EXPECT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    std::vector<std::string> segments = segments_of("cam");
    ASSERT_GE(segments.size(), 3U);
    expect_complete(segments);
    EXPECT_NE(last_lines().find("W WARNING from rtspsrc0: Could not read from resource"), std::string::npos)
        << last_lines();
    EXPECT_TRUE(log_has("I EOS received.\n"));
}

TEST_F(RecordedCamera, ThatFailsLeavesACompleteLastSegment)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    const ConfigFile config(recorded_entry("rtsp", camera.url()));
    StreamCall call(configured_stream("cam"));
    ASSERT_TRUE(wait_for_segments("cam", 2));
    const ElementPtr pipeline = last_started_pipeline();
    ASSERT_TRUE(pipeline);
    const ElementPtr source = child(pipeline.get(), "rtspsrc0");
    const ElementPtr depayloader = child(pipeline.get(), "rtph264depay0");
    ASSERT_TRUE(source && depayloader);
    // A source that fails says so, and then ends its stream.
    GST_ELEMENT_ERROR(source.get(), RESOURCE, READ, ("The camera is gone."), (nullptr));
    EXPECT_TRUE(wait_for_log("E ERROR from rtspsrc0: The camera is gone.\n"));
    const PadPtr pad(gst_element_get_static_pad(depayloader.get(), "sink"));
    gst_pad_send_event(pad.get(), gst_event_new_eos());
    EXPECT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    expect_complete(segments_of("cam"));
}

TEST_F(RecordedCamera, WhoseServerStallsIsStoppedAllTheSame)
{
    peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    const ConfigFile config(recorded_entry("rtsp", camera.url()));
    StreamCall call(configured_stream("cam"));
    EXPECT_TRUE(wait_for_segments("cam", 2));
    camera.pause();
    EXPECT_TRUE(stop_ends_call(call, "cam"));
    EXPECT_EQ(call.result(), 0);
    expect_complete(segments_of("cam"));
    camera.resume();
}

TEST_F(RecordedCamera, ThatNeverAnswersEndsAtSigint)
{
    peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    camera.pause();
    const ConfigFile config(recorded_entry("rtsp", camera.url()));
    StreamCall call(configured_stream("cam"));
    ASSERT_TRUE(wait_for_log("I Pipeline PLAYING. Press Ctrl+C to quit.\n"));
    std::raise(SIGINT);
    EXPECT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.result(), 0);
    camera.resume();
}

TEST_F(RecordedCamera, StartedAgainHasOnlyNewSegments)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    const ConfigFile config(recorded_entry("rtsp", camera.url()));
    {
        StreamCall call(configured_stream("cam"));
        EXPECT_TRUE(wait_for_segments("cam", 3));
        EXPECT_TRUE(stop_ends_call(call, "cam"));
    }
    clear_log();
    StreamCall call(configured_stream("cam"));
    ASSERT_TRUE(wait_for_log("I Pipeline PLAYING. Press Ctrl+C to quit.\n"));
    EXPECT_LE(segments_of("cam").size(), 1U);
    EXPECT_TRUE(wait_for_segments("cam", 1));
    EXPECT_TRUE(stop_ends_call(call, "cam"));
    EXPECT_EQ(call.result(), 0);
}

TEST_F(RecordedCamera, IsRecordedUnderAnIdWithPercentSigns)
{
    const std::string id = "100%s%d";
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    const ConfigFile config(
        one_stream(id, R"("inputType": "rtsp", "inputAddr": ")" + camera.url() + R"(", "rollingsave": true)"));
    StreamCall call(configured_stream(id));
    EXPECT_TRUE(wait_for_segments(id, 3)) << last_lines();
    EXPECT_TRUE(stop_ends_call(call, id));
    EXPECT_EQ(call.result(), 0);
    expect_complete(segments_of(id));
}

TEST_F(RecordedCamera, EndsWithoutTheOtherOneByItsId)
{
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    const std::string properties =
        R"({"inputType": "rtsp", "inputAddr": ")" + camera.url() + R"(", "rollingsave": true})";
    const ConfigFile config(R"({"streams": [{"streamsId": "a", "properties": )" + properties +
                            R"(}, {"streamsId": "b", "properties": )" + properties + "}]}");
    StreamCall a(configured_stream("a"));
    EXPECT_TRUE(wait_for_segments("a", 1));
    StreamCall b(configured_stream("b"));
    EXPECT_TRUE(wait_for_segments("b", 1));
    EXPECT_TRUE(stop_ends_call(a, "a"));
    EXPECT_FALSE(b.has_ended());
    EXPECT_NE(std::atomic_ref(g_loop).load(), nullptr);
    EXPECT_TRUE(wait_for_segments("b", 2));
    std::raise(SIGINT);
    EXPECT_TRUE(b.wait_for_end());
    expect_complete(segments_of("a"));
    expect_complete(segments_of("b"));
    EXPECT_EQ(g_loop, nullptr);
}

TEST_F(RecordedCamera, IsMergedIntoAFileWhileItIsRecorded)
{
    std::filesystem::copy(JOIN_SCRIPT, "/usr/local/bin/concate_video.py");
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    const ConfigFile config(recorded_entry("rtsp", camera.url()));
    StreamCall call(configured_stream("cam"));
    ASSERT_TRUE(wait_for_segments("cam", 4)) << last_lines();
    EXPECT_EQ(merge_rolling_save_video("cam", "--last 3 --output /tmp/rolling/out.mp4", kAtOnce), 0);
    EXPECT_FALSE(call.has_ended());
    EXPECT_TRUE(stop_ends_call(call, "cam"));
    const std::vector<int> numbers = numbers_in_file("/tmp/rolling/out.mp4");
    EXPECT_GE(numbers.size(), 25U); // a busy camera draws fewer a second
    EXPECT_TRUE(are_consecutive(numbers, 1 << media::marker_bits(320))) << text_of(numbers);
    const std::vector<Packet> packets = packets_in("/tmp/rolling/out.mp4");
    for (std::size_t i = 1; i < packets.size(); ++i)
        EXPECT_GT(packets[i].dts, packets[i - 1].dts) << i;
}

TEST_F(RecordedCamera, IsMergedTwiceAtOnceByRequestWhileItIsRecorded)
{
    std::filesystem::copy(JOIN_SCRIPT, "/usr/local/bin/concate_video.py");
    const peers::RtspPeer camera(RTSP_PEER, {"play", "--live"});
    ASSERT_NE(camera.port(), 0);
    const ConfigFile config(recorded_entry("rtsp", camera.url()));
    StreamCall call(configured_stream("cam"));
    ASSERT_TRUE(wait_for_segments("cam", 3)) << last_lines();
    const std::vector<std::string> outputs{"/tmp/rolling/one.mp4", "/tmp/rolling/two.mp4"};
    EXPECT_EQ(get_rolling_save_video("absent", "--output /tmp/rolling/absent.mp4", kAtOnce), 0);
    for (const std::string& output : outputs)
        EXPECT_EQ(get_rolling_save_video("cam", "--output " + output, kAtOnce), 0);
    const char* const kCommand = "I get_rolling_save_video - rolling save command: python3 "
                                 "/usr/local/bin/concate_video.py --output ";
    for (const std::string& output : outputs) {
        EXPECT_TRUE(wait_for_log(kCommand + output + " --stream-id cam"));
        const std::vector<int> numbers = numbers_in_file(output);
        EXPECT_GE(numbers.size(), 50U);
        EXPECT_TRUE(are_consecutive(numbers, 1 << media::marker_bits(320))) << text_of(numbers);
    }
    EXPECT_TRUE(wait_for_log(kCommand + std::string("/tmp/rolling/absent.mp4 --stream-id absent")));
    EXPECT_FALSE(std::filesystem::exists("/tmp/rolling/absent.mp4"));
    EXPECT_FALSE(call.has_ended());
    EXPECT_TRUE(stop_ends_call(call, "cam"));
    expect_complete(segments_of("cam"));
}

} // namespace velstream::testing
