// What the relay with sound makes of a source's new pads, and of a frame before it has a callback.
#include "ConfigFile.h"
#include "Elements.h"
#include "RecordedLog.h"
#include "StreamBuildAudio.h"
#include "velstream.h"

#include <gtest/gtest.h>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Lines = std::vector<std::string>;

constexpr const char* kVideoRtp = "application/x-rtp,media=video,clock-rate=90000,encoding-name=H264,payload=96";
constexpr const char* kAudioRtp =
    "application/x-rtp,media=audio,clock-rate=44100,encoding-name=MPEG4-GENERIC,payload=97";
constexpr const char* kAvc = "video/x-h264,stream-format=avc,alignment=au";
constexpr const char* kAac = "audio/mpeg,mpegversion=4,stream-format=raw";

class RelayPads : public WithGStreamer {
protected:
    /// An element of the pipeline.
    GstElement* add(const char* factory, const char* name)
    {
        GstElement* element = gst_element_factory_make(factory, name);
        gst_bin_add(GST_BIN(pipeline_.get()), element);
        return element;
    }
    void on_camera_pad(const PadPtr& pad) { audio_cb_rtspsrc_pad_added(nullptr, pad.get(), pipeline_.get()); }
    void on_file_pad(const PadPtr& pad) { audio_cb_filesrc_pad_added(nullptr, pad.get(), pipeline_.get()); }

    const ElementPtr pipeline_ = share(gst_pipeline_new("relay"));
};

// ---- A camera's

TEST_F(RelayPads, CameraSoundIsLinkedToTheDepayloader)
{
    GstElement* depay = add("rtpmp4gdepay", "rtpmp4gdepay");
    const PadPtr pad = make_source_pad("audio", kAudioRtp);
    on_camera_pad(pad);
    EXPECT_TRUE(is_linked_to(pad.get(), depay));
    EXPECT_EQ(log_lines(), (Lines{"I new_pad_type value: application/x-rtp, media type: audio"}));
}

TEST_F(RelayPads, SecondSoundOfACameraIsIgnored)
{
    GstElement* depay = add("rtpmp4gdepay", "rtpmp4gdepay");
    const PadPtr first = make_source_pad("first", kAudioRtp);
    const PadPtr second = make_source_pad("second", kAudioRtp);
    on_camera_pad(first);
    on_camera_pad(second);
    EXPECT_TRUE(is_linked_to(first.get(), depay));
    EXPECT_FALSE(gst_pad_is_linked(second.get()));
}

TEST_F(RelayPads, CameraPictureFindsNoDepayloaderOfItsName)
{
    add("rtph264depay", "rtph264depay_rtsp_input");
    const PadPtr pad = make_source_pad("video", kVideoRtp);
    on_camera_pad(pad);
    EXPECT_FALSE(gst_pad_is_linked(pad.get()));
    EXPECT_EQ(log_lines(), (Lines{"I new_pad_type value: application/x-rtp, media type: video"}));
}

TEST_F(RelayPads, CameraPictureIsLinkedToTheExactName)
{
    GstElement* depay = add("rtph264depay", "rtph264depay");
    const PadPtr pad = make_source_pad("video", kVideoRtp);
    on_camera_pad(pad);
    EXPECT_TRUE(is_linked_to(pad.get(), depay));
}

TEST_F(RelayPads, OtherCameraPadsStayUnlinked)
{
    GstElement* depay = add("rtpmp4gdepay", "rtpmp4gdepay");
    for (const char* caps : {"application/x-rtp", "application/x-rtp,media=application", "audio/x-raw,media=audio"}) {
        const PadPtr pad = make_source_pad("pad", caps);
        on_camera_pad(pad);
        EXPECT_FALSE(gst_pad_is_linked(pad.get())) << caps;
    }
    const PadPtr without_caps(GST_PAD(gst_object_ref_sink(gst_pad_new("bare", GST_PAD_SRC))));
    on_camera_pad(without_caps);
    EXPECT_FALSE(gst_pad_is_linked(without_caps.get()));
    EXPECT_EQ(depay->numsinkpads, 1);
}

TEST_F(RelayPads, HandlersHoldNoReference)
{
    GstElement* depay = add("rtpmp4gdepay", "rtpmp4gdepay");
    GstElement* queue = add("queue", "audio_queue");
    const PadPtr sound = make_source_pad("sound", kAudioRtp);
    const PadPtr track = make_source_pad("track", kAac);
    on_camera_pad(sound);
    on_file_pad(track);
    EXPECT_EQ(reference_count(depay), 1);
    EXPECT_EQ(reference_count(queue), 1);
    EXPECT_EQ(reference_count(sound.get()), 1);
    EXPECT_EQ(reference_count(track.get()), 1);
}

// ---- A file's

TEST_F(RelayPads, FilePictureIsLinkedToItsQueue)
{
    GstElement* queue = add("queue", "file_input_queue");
    const PadPtr pad = make_source_pad("video_0", kAvc);
    on_file_pad(pad);
    EXPECT_TRUE(is_linked_to(pad.get(), queue));
    EXPECT_EQ(log_lines(), (Lines{"I New pad added: video_0, _caps_str : video/x-h264, stream-format=(string)avc, "
                                  "alignment=(string)au",
                                  "I Start to link video/x-h264.", "I Linked video pad to queue."}));
}

TEST_F(RelayPads, FileSoundIsLinkedToItsQueue)
{
    GstElement* queue = add("queue", "audio_queue");
    const PadPtr pad = make_source_pad("audio_0", kAac);
    on_file_pad(pad);
    EXPECT_TRUE(is_linked_to(pad.get(), queue));
    EXPECT_EQ(log_lines().back(), "I Linked audio pad to aacparse.");
    EXPECT_EQ(log_lines().size(), 2U);
}

TEST_F(RelayPads, SecondTracksOfAFileAreIgnored)
{
    GstElement* video_queue = add("queue", "file_input_queue");
    GstElement* audio_queue = add("queue", "audio_queue");
    const PadPtr video = make_source_pad("video_0", kAvc);
    const PadPtr audio = make_source_pad("audio_0", kAac);
    on_file_pad(video);
    on_file_pad(audio);
    const PadPtr more_video = make_source_pad("video_1", kAvc);
    const PadPtr more_audio = make_source_pad("audio_1", kAac);
    on_file_pad(more_video);
    EXPECT_EQ(log_lines().back(), "I Video is already linked.");
    on_file_pad(more_audio);
    EXPECT_EQ(log_lines().back(), "I Audio is already linked.");
    EXPECT_TRUE(is_linked_to(video.get(), video_queue));
    EXPECT_TRUE(is_linked_to(audio.get(), audio_queue));
}

TEST_F(RelayPads, FileTrackThatCannotBeLinkedIsLogged)
{
    add("rtpmp4gdepay", "file_input_queue"); // takes no such caps
    const PadPtr video = make_source_pad("video_0", kAvc);
    const PadPtr audio = make_source_pad("audio_0", kAac); // there is no queue for it
    on_file_pad(video);
    EXPECT_EQ(log_lines().back(), "E Failed to link video pad to queue.");
    on_file_pad(audio);
    EXPECT_EQ(log_lines().back(), "E Failed to link audio pad to aacparse.");
}

TEST_F(RelayPads, OtherTracksOfAFileAreNamed)
{
    add("queue", "file_input_queue");
    const PadPtr h265 = make_source_pad("video_0", "video/x-h265,stream-format=hvc1");
    on_file_pad(h265);
    EXPECT_FALSE(gst_pad_is_linked(h265.get()));
    EXPECT_EQ(log_lines().back(), "W Unhandled pad type: video/x-h265");
}

// ---- The entry point

TEST_F(RelayPads, EntryWithAudioIsARelayWhateverElseItIs)
{
    const ConfigFile config(one_stream("cam", R"("inputType": "udp", "inputAddr": "a", "audio": true,
        "rollingsave": true, "saveMp4": true)"));
    std::function<int8_t(const Image&)> callback = [](const Image&) { return int8_t{0}; };
    EXPECT_EQ(start_stream("cam", callback), -1);
    EXPECT_EQ(log_lines()[0], "I Start to launch audio stream. stream_id: cam");
    EXPECT_EQ(log_lines()[1], "I start_audio_stream - stream_id: cam");
    EXPECT_EQ(log_lines().back(), "E Un-supported input type.");
    EXPECT_TRUE(callback) << "copied, not moved from";
}

TEST_F(RelayPads, SpliceComesBeforeTheRelay)
{
    const ConfigFile config(one_stream("cam", R"("inputType": "splice", "audio": true)"));
    std::function<int8_t(const Image&)> callback;
    EXPECT_EQ(start_stream("cam", callback), -1) << "a splice stream without a callback";
    EXPECT_FALSE(log_has("I Start to launch audio stream. stream_id: cam"));
}

// ---- A frame

class RelayFrame : public WithGStreamer {
protected:
    void frame(StreamBuildAudio& relay)
    {
        const BufferPtr buffer(gst_buffer_new_allocate(nullptr, 24, nullptr));
        GstPadProbeInfo info{};
        info.type = GST_PAD_PROBE_TYPE_BUFFER;
        info.data = buffer.get();
        clear_log();
        EXPECT_EQ(audio_on_buffer_received(pad_.get(), &info, &relay), GST_PAD_PROBE_OK);
    }

    const ConfigFile config_{complete_stream("cam", "H264")};
    const PadPtr pad_ = make_source_pad("src", "video/x-raw,format=RGB,width=4,height=2");
};

TEST_F(RelayFrame, WithoutACallbackIsCountedAndPasses)
{
    StreamBuildAudio relay("cam");
    ASSERT_EQ(relay.init(), 0);
    for (const char* number : {"1", "2"}) {
        frame(relay);
        EXPECT_EQ(log_lines(), (Lines{std::string("I callback on_buffer_received start. frame: ") + number,
                                      "I Get width: 4, height: 2",
                                      "I Caps: video/x-raw, format=(string)RGB, width=(int)4, height=(int)2",
                                      "I caps_str get and completed.", "W Callback not initialized.",
                                      "I callback on_buffer_received end."}));
    }
}

TEST_F(RelayFrame, WithoutCapsIsLogged)
{
    StreamBuildAudio relay("cam");
    ASSERT_EQ(relay.init(), 0);
    const PadPtr bare(GST_PAD(gst_object_ref_sink(gst_pad_new("src", GST_PAD_SRC))));
    GstPadProbeInfo info{};
    EXPECT_EQ(audio_on_buffer_received(bare.get(), &info, &relay), GST_PAD_PROBE_OK);
    EXPECT_TRUE(log_has("I No caps available on this pad."));
}

TEST_F(RelayFrame, BuilderBuildsNoElementOfAnotherPipeline)
{
    StreamBuildAudio relay("cam");
    EXPECT_EQ(relay.build(), nullptr);
}

} // namespace
