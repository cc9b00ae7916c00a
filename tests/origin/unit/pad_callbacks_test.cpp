// The inputs' pad callbacks, driven with pads of the test's own.
#include "ConfigFile.h"
#include "Elements.h"
#include "RecordedLog.h"
#include "StreamBuild.h"
#include "StreamInput.h"

#include <gtest/gtest.h>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Lines = std::vector<std::string>;

constexpr const char* kH264 = "video/x-h264,stream-format=avc,alignment=au";
constexpr const char* kH265 = "video/x-h265,stream-format=hvc1,alignment=au";
constexpr const char* kAac = "audio/mpeg,mpegversion=4";
constexpr const char* kVideoRtp = "application/x-rtp,media=video,clock-rate=90000,encoding-name=H264,payload=96";
constexpr const char* kVideoRtpText = "application/x-rtp, media=(string)video, clock-rate=(int)90000, "
                                      "encoding-name=(string)H264, payload=(int)96";
constexpr const char* kMismatch = "E Incoming data decode type: %s, doesn't match defined type, Update decode type in "
                                  "file velstream-gst.conf accordingly please.";

std::string mismatch(const std::string& encoding)
{
    std::string text = kMismatch;
    return text.replace(text.find("%s"), 2, encoding);
}

// ---- Tracks of an MP4 file and of an RTMP stream

class DemuxerPads : public WithGStreamer {
protected:
    const ElementPtr queue_ = share(gst_element_factory_make("queue", nullptr));
    const PadPtr sink_ = PadPtr(gst_element_get_static_pad(queue_.get(), "sink"));
};

TEST_F(DemuxerPads, Mp4VideoIsLinkedSilently)
{
    for (const char* caps : {kH264, kH265}) {
        const PadPtr pad = make_source_pad("video_0", caps);
        cb_qtdemux_pad_added(nullptr, pad.get(), queue_.get());
        EXPECT_TRUE(is_linked_to(pad.get(), queue_.get())) << caps;
        gst_pad_unlink(pad.get(), sink_.get());
    }
    EXPECT_EQ(log_lines(), Lines{});
}

TEST_F(DemuxerPads, Mp4AudioIsIgnoredSilently)
{
    for (const char* caps : {kAac, "video/mpeg,mpegversion=4", "text/x-raw,format=utf8"}) {
        const PadPtr pad = make_source_pad("audio_0", caps);
        cb_qtdemux_pad_added(nullptr, pad.get(), queue_.get());
        EXPECT_FALSE(gst_pad_is_linked(pad.get())) << caps;
    }
    EXPECT_EQ(log_lines(), Lines{});
}

TEST_F(DemuxerPads, Mp4PadWithoutCapsIsIgnored)
{
    const PadPtr pad = make_source_pad("video_0", "");
    cb_qtdemux_pad_added(nullptr, pad.get(), queue_.get());
    EXPECT_FALSE(gst_pad_is_linked(pad.get()));
}

TEST_F(DemuxerPads, SecondMp4VideoIsTriedAndRefusedWithReferenceCountsRight)
{
    const PadPtr first = make_source_pad("video_0", kH264);
    const PadPtr second = make_source_pad("video_1", kH264);
    cb_qtdemux_pad_added(nullptr, first.get(), queue_.get());
    const int sink_references = reference_count(sink_.get());
    const int queue_references = reference_count(queue_.get());
    record_pad_links();
    for (int i = 0; i < 3; ++i)
        cb_qtdemux_pad_added(nullptr, second.get(), queue_.get());
    EXPECT_EQ(pad_link_results(), std::vector<GstPadLinkReturn>(3, GST_PAD_LINK_WAS_LINKED)) << "tried each time";
    EXPECT_TRUE(is_linked_to(first.get(), queue_.get()));
    EXPECT_FALSE(gst_pad_is_linked(second.get()));
    EXPECT_EQ(reference_count(sink_.get()), sink_references);
    EXPECT_EQ(reference_count(queue_.get()), queue_references);
    EXPECT_EQ(reference_count(second.get()), 1);
    EXPECT_EQ(log_lines(), Lines{});
}

TEST_F(DemuxerPads, RtmpVideoIsLinkedAndLogged)
{
    for (const char* caps : {kH264, kH265}) {
        clear_log();
        const PadPtr pad = make_source_pad("video", caps);
        cb_flvdemux_pad_added(nullptr, pad.get(), queue_.get());
        EXPECT_TRUE(is_linked_to(pad.get(), queue_.get())) << caps;
        EXPECT_EQ(log_lines(), (Lines{"I Successfully linked new pad (video) to queue.\n"}));
        gst_pad_unlink(pad.get(), sink_.get());
    }
}

TEST_F(DemuxerPads, RtmpAudioIsSkippedWithALine)
{
    const PadPtr pad = make_source_pad("audio", kAac);
    cb_flvdemux_pad_added(nullptr, pad.get(), queue_.get());
    EXPECT_FALSE(gst_pad_is_linked(pad.get()));
    const Lines lines = log_lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].substr(2), "Pad added, but type is not video/x-h264 or video/x-h265, skipping.\n");
}

TEST_F(DemuxerPads, SecondRtmpVideoIsIgnored)
{
    const PadPtr first = make_source_pad("video", kH264);
    const PadPtr second = make_source_pad("video_1", kH264);
    cb_flvdemux_pad_added(nullptr, first.get(), queue_.get());
    clear_log();
    const int sink_references = reference_count(sink_.get());
    record_pad_links();
    cb_flvdemux_pad_added(nullptr, second.get(), queue_.get());
    EXPECT_TRUE(pad_link_results().empty()) << "not even tried";
    EXPECT_FALSE(gst_pad_is_linked(second.get()));
    EXPECT_EQ(log_lines(), Lines{});
    EXPECT_EQ(reference_count(sink_.get()), sink_references);
}

TEST_F(DemuxerPads, RtmpLinkThatFailsIsAnError)
{
    const ElementPtr parser = share(gst_element_factory_make("h265parse", nullptr));
    const PadPtr pad = make_source_pad("video", kH264);
    cb_flvdemux_pad_added(nullptr, pad.get(), parser.get());
    EXPECT_FALSE(gst_pad_is_linked(pad.get()));
    EXPECT_EQ(log_lines(), (Lines{"E Failed to link new pad (video) to queue. Exiting.\n"}));
}

TEST_F(DemuxerPads, CallbacksHoldNoReference)
{
    const PadPtr pad = make_source_pad("audio", kAac);
    const CapsPtr caps(gst_pad_get_current_caps(pad.get()));
    const int caps_references = GST_MINI_OBJECT_REFCOUNT_VALUE(caps.get());
    const int sink_references = reference_count(sink_.get());
    cb_qtdemux_pad_added(nullptr, pad.get(), queue_.get());
    cb_flvdemux_pad_added(nullptr, pad.get(), queue_.get());
    EXPECT_EQ(reference_count(pad.get()), 1);
    EXPECT_EQ(reference_count(sink_.get()), sink_references);
    EXPECT_EQ(GST_MINI_OBJECT_REFCOUNT_VALUE(caps.get()), caps_references);
}

// ---- Pads of a camera

class CameraPads : public WithGStreamer {
protected:
    void SetUp() override
    {
        const StreamInputRtsp noted("rtsp://127.0.0.1:1/cam", "cam");
        clear_log();
    }
    void call(GstPad* pad) { cb_rtspsrc_pad_added(nullptr, pad, depay_.get()); }

    const ConfigFile config_{complete_stream("cam", "H264")};
    const ElementPtr depay_ = share(gst_element_factory_make("rtph264depay", nullptr));
};

TEST_F(CameraPads, VideoIsLinked)
{
    const PadPtr pad = make_source_pad("recv_rtp_src_0", kVideoRtp);
    call(pad.get());
    EXPECT_TRUE(is_linked_to(pad.get(), depay_.get()));
    EXPECT_EQ(log_lines(),
              (Lines{"I cb_uridecodebin_pad_added called.", "I rtsp padname: recv_rtp_src_0",
                     std::string("I Caps information: ") + kVideoRtpText, "I Media type: video",
                     "I This is a video stream.", "I Start to get configuration properties for stream id: cam.",
                     "I rtsp Structure name: application/x-rtp\n",
                     "I Linking application/x-rtp and media type is video.", "I Pad linked successfully.\n"}));
}

TEST_F(CameraPads, RdtVideoIsTriedToo)
{
    const PadPtr pad = make_source_pad("pad", "application/x-rdt,media=video,encoding-name=H264");
    call(pad.get());
    EXPECT_TRUE(log_has("I rtsp Structure name: application/x-rdt\n"));
    EXPECT_TRUE(log_has("I Linking application/x-rtp and media type is video."));
    EXPECT_TRUE(log_has("E Failed to link pads: no common format.")) << "the depayloader takes RTP only";
}

TEST_F(CameraPads, AudioIsNotLinked)
{
    const PadPtr pad =
        make_source_pad("recv_rtp_src_1", "application/x-rtp,media=audio,clock-rate=8000,encoding-name=PCMA,payload=8");
    call(pad.get());
    EXPECT_FALSE(gst_pad_is_linked(pad.get()));
    const Lines lines = log_lines();
    ASSERT_EQ(lines.size(), 7U);
    EXPECT_EQ(lines[3], "I Media type: audio");
    EXPECT_EQ(lines[4], "I This is an audio stream.");
    EXPECT_EQ(lines[5], "I rtsp Structure name: application/x-rtp\n");
    EXPECT_EQ(lines[6], "I This stream is not video.");
}

TEST_F(CameraPads, UnknownMediaIsAnError)
{
    const PadPtr pad = make_source_pad("pad", "application/x-rtp,media=application,clock-rate=90000,payload=99");
    call(pad.get());
    EXPECT_FALSE(gst_pad_is_linked(pad.get()));
    EXPECT_TRUE(log_has("E Unknown media type: application"));
    EXPECT_EQ(log_lines().back(), "I This stream is not video.");
}

TEST_F(CameraPads, VideoThatIsNotRtpIsNotLinked)
{
    const PadPtr pad = make_source_pad("pad", "video/x-h264,media=video,encoding-name=H264");
    call(pad.get());
    EXPECT_FALSE(gst_pad_is_linked(pad.get()));
    EXPECT_EQ(log_lines().back(), "I This stream is not video.");
    EXPECT_FALSE(log_has("I Linking application/x-rtp and media type is video."));
}

TEST_F(CameraPads, PadWithoutCapsIsAnError)
{
    const PadPtr pad = make_source_pad("bare", "");
    call(pad.get());
    EXPECT_EQ(log_lines(), (Lines{"I cb_uridecodebin_pad_added called.", "I rtsp padname: bare",
                                  "E Failed to get pad caps. Exiting callback.\n"}));
}

TEST_F(CameraPads, CapsWithoutMediaAreAnError)
{
    const PadPtr pad = make_source_pad("bare", "application/x-rtp,encoding-name=H264");
    call(pad.get());
    EXPECT_EQ(log_lines(), (Lines{"I cb_uridecodebin_pad_added called.", "I rtsp padname: bare",
                                  "I Caps information: application/x-rtp, encoding-name=(string)H264",
                                  "E Media type not found in caps.\n"}));
}

TEST_F(CameraPads, SecondVideoIsIgnored)
{
    const PadPtr first = make_source_pad("first", kVideoRtp);
    const PadPtr second = make_source_pad("second", kVideoRtp);
    call(first.get());
    clear_log();
    call(second.get());
    EXPECT_TRUE(is_linked_to(first.get(), depay_.get()));
    EXPECT_FALSE(gst_pad_is_linked(second.get()));
    EXPECT_EQ(log_lines().back(), "I We are already linked. Ignoring.\n");
}

TEST_F(CameraPads, AnotherCodecThanTheEntrysIsAnErrorAndTheChainIsKept)
{
    const PadPtr pad =
        make_source_pad("pad", "application/x-rtp,media=video,clock-rate=90000,encoding-name=H265,payload=96");
    call(pad.get());
    EXPECT_TRUE(log_has(mismatch("H265")));
    EXPECT_TRUE(log_has("I Linking application/x-rtp and media type is video.")) << "goes on regardless";
    EXPECT_EQ(log_lines().back(), "E Failed to link pads: no common format.");
    EXPECT_FALSE(gst_pad_is_linked(pad.get()));
}

TEST_F(CameraPads, CodecNamesAreComparedExactly)
{
    const PadPtr pad =
        make_source_pad("pad", "application/x-rtp,media=video,clock-rate=90000,encoding-name=h264,payload=96");
    call(pad.get());
    EXPECT_TRUE(log_has(mismatch("h264")));
}

TEST_F(CameraPads, VideoWithoutEncodingNameIsAMismatch)
{
    const PadPtr pad = make_source_pad("pad", "application/x-rtp,media=video,clock-rate=90000,payload=96");
    call(pad.get());
    EXPECT_TRUE(log_has(mismatch("")));
}

TEST_F(CameraPads, CodecOfTheLastConstructedInputIsCompared)
{
    config_.write(complete_stream("other", "H265"));
    const StreamInputRtsp later("rtsp://127.0.0.1:1/other", "other");
    const PadPtr pad = make_source_pad("pad", kVideoRtp);
    call(pad.get());
    EXPECT_TRUE(log_has("I Start to get configuration properties for stream id: other."));
    EXPECT_TRUE(log_has(mismatch("H264")));
    EXPECT_TRUE(is_linked_to(pad.get(), depay_.get()));
}

TEST_F(CameraPads, ConfigurationThatIsNotJsonRaisesNothing)
{
    config_.write("{ \"streams\": [");
    const PadPtr pad = make_source_pad("pad", kVideoRtp);
    EXPECT_NO_THROW(call(pad.get()));
    EXPECT_TRUE(is_linked_to(pad.get(), depay_.get())) << "the stream goes on";
    bool is_logged = false;
    for (const std::string& line : log_lines())
        is_logged = is_logged || line.rfind("E ", 0) == 0;
    EXPECT_TRUE(is_logged);
}

TEST_F(CameraPads, ConfigurationOfAWrongTypeRaisesNothing)
{
    config_.write(one_stream("cam", R"("width": "wide", "height": 1, "inputType": "rtsp", "inputAddr": "a")"));
    const PadPtr pad = make_source_pad("pad", kVideoRtp);
    EXPECT_NO_THROW(call(pad.get()));
    EXPECT_TRUE(is_linked_to(pad.get(), depay_.get()));
}

TEST_F(CameraPads, MissingConfigurationCountsAsH264)
{
    config_.remove();
    const PadPtr pad = make_source_pad("pad", kVideoRtp);
    call(pad.get());
    EXPECT_TRUE(log_has("E Unable to open configuration file: " + config_.path()));
    EXPECT_FALSE(log_has(mismatch("H264")));
    EXPECT_TRUE(is_linked_to(pad.get(), depay_.get()));
}

TEST_F(CameraPads, CallbackHoldsNoReference)
{
    const PadPtr sink(gst_element_get_static_pad(depay_.get(), "sink"));
    const int sink_references = reference_count(sink.get());
    const PadPtr first = make_source_pad("first", kVideoRtp);
    const PadPtr second = make_source_pad("second", kVideoRtp);
    const CapsPtr caps(gst_pad_get_current_caps(second.get()));
    const int caps_references = GST_MINI_OBJECT_REFCOUNT_VALUE(caps.get());
    call(first.get());
    const int linked_references = reference_count(sink.get());
    call(second.get());
    EXPECT_EQ(linked_references, sink_references);
    EXPECT_EQ(reference_count(sink.get()), linked_references);
    EXPECT_EQ(reference_count(second.get()), 1);
    EXPECT_EQ(GST_MINI_OBJECT_REFCOUNT_VALUE(caps.get()), caps_references);
}

TEST(PadProbe, LetsEveryBufferPass)
{
    EXPECT_EQ(pad_probe_cb(nullptr, nullptr, nullptr), GST_PAD_PROBE_OK);
}

} // namespace
