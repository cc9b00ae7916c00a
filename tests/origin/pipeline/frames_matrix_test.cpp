// Frame k of the callback is frame k of the file, whatever its size, codec and order of frames.
#include "FilePlayback.h"

namespace velstream::testing {

namespace {

struct Size {
    int width;
    int height;
};

class FramesOfFile : public Playback, public ::testing::WithParamInterface<std::tuple<Size, const char*, int>> {};

std::string name_of(const ::testing::TestParamInfo<FramesOfFile::ParamType>& info)
{
    const auto& [size, codec, b_frames] = info.param;
    return std::string(codec) + "_" + std::to_string(size.width) + "x" + std::to_string(size.height) + "_b" +
           std::to_string(b_frames);
}

} // namespace

TEST_P(FramesOfFile, AreThoseThatFfmpegDecodes)
{
    const auto& [size, codec, b_frames] = GetParam();
    media::MediaSpec spec;
    spec.codec = codec;
    spec.width = size.width;
    spec.height = size.height;
    spec.frames = 20;
    spec.b_frames = b_frames;
    spec.key_interval = 8;
    expect_frames_of(spec, folder_.file("video.mp4"));
}

INSTANTIATE_TEST_SUITE_P(All, FramesOfFile,
                         ::testing::Combine(::testing::Values(Size{1280, 720}, Size{854, 480}, Size{1366, 768},
                                                              Size{642, 362}),
                                            ::testing::Values("h264", "h265"), ::testing::Values(0, 3)),
                         name_of);

} // namespace velstream::testing
