// The configuration file is read afresh at every look-up, so it may change while a stream runs.
#include "FilePlayback.h"
#include "Platform.h"
#include "StreamBuild.h"

#include <mutex>

namespace velstream::testing {

namespace {

class ChangedConfiguration : public Playback {
protected:
    std::string make() const
    {
        media::MediaSpec spec;
        spec.width = 320;
        spec.height = 180;
        spec.frames = 20;
        const std::string path = folder_.file("video.mp4");
        make_video(spec, path);
        return path;
    }
};

} // namespace

TEST_F(ChangedConfiguration, ThatIsNoJsonDoesNotDisturbTheRunningStream)
{
    const ConfigFile config(file_entry(make()));
    std::once_flag once;
    StreamCall call(configured_stream("file"),
                    [&](const Image&) { std::call_once(once, [&] { config.write("{ \"streams\": ["); }); });
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.frames(), 20);
    if (Quorvis::VelStream::has_v4l2_codecs())
        EXPECT_EQ(call.result(), 0);
    else
        EXPECT_NE(call.exception(), ""); // their runner reads the entry at the end of the stream
    // The stream has left the registry whichever way it ended.
    EXPECT_EQ(Quorvis::VelStream::pipeline_map.at("file"), nullptr);
}

TEST_F(ChangedConfiguration, ThatIsNoJsonDoesNotKeepAStreamFromBeingStopped)
{
    const ConfigFile config(file_entry(make()));
    StreamCall call(configured_stream("file"), [&](const Image& image) {
        if (image.frameIndex != 2) return;
        config.write("no JSON");
        Quorvis::VelStream::gstreamer_pipeline_shutdown("file");
    });
    EXPECT_TRUE(call.wait_for_end());
}

TEST_F(ChangedConfiguration, WithoutTheFileLetsTheStreamEnd)
{
    const ConfigFile config(file_entry(make()));
    std::once_flag once;
    StreamCall call(configured_stream("file"), [&](const Image&) { std::call_once(once, [&] { config.remove(); }); });
    ASSERT_TRUE(call.wait_for_end());
    EXPECT_EQ(call.frames(), 20);
    EXPECT_EQ(call.result(), result_of_end());
}

} // namespace velstream::testing
