#include "VideoFiles.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

namespace velstream::testing {

void make_video(const media::MediaSpec& spec, const std::string& path)
{
    const std::string failure = media::make_media(spec, path);
    ASSERT_EQ(failure, "") << path;
}

VideoFacts probe_video(const std::string& path)
{
    const CommandResult probe =
        run_command({"ffprobe", "-v", "error", "-select_streams", "v:0", "-count_frames", "-show_entries",
                     "stream=width,height,nb_read_frames,duration", "-of", "default=noprint_wrappers=1", path});
    VideoFacts facts;
    const std::string frames = value_of(probe.output, "nb_read_frames");
    if (probe.status != 0 || frames.empty()) return facts;
    facts.frames = std::atol(frames.c_str());
    facts.width = std::atoi(value_of(probe.output, "width").c_str());
    facts.height = std::atoi(value_of(probe.output, "height").c_str());
    facts.seconds = std::atof(value_of(probe.output, "duration").c_str());
    return facts;
}

std::string decode_with_ffmpeg(const std::string& path, int height)
{
    // The chroma samples of H.264 and H.265 lie on the left pixel of two; ffmpeg takes them to lie between the two
    // unless it is told, which costs 7 dB at the edges of saturated colours.
    const std::string scale =
        std::string("scale=in_range=tv:out_range=pc:in_color_matrix=") + (height >= 720 ? "bt709" : "bt601") +
        ":in_h_chr_pos=0:in_v_chr_pos=128:flags=bicubic+accurate_rnd+full_chroma_int+full_chroma_inp";
    const CommandResult decoded = run_command({"ffmpeg", "-v", "error", "-i", path, "-map", "0:v:0", "-vf", scale,
                                               "-vsync", "passthrough", "-pix_fmt", "rgb24", "-f", "rawvideo", "-"});
    EXPECT_EQ(decoded.status, 0) << path;
    return decoded.output;
}

double psnr(const std::uint8_t* a, const std::uint8_t* b, std::size_t size)
{
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < size; ++i) {
        const int difference = a[i] - b[i];
        sum += static_cast<std::uint64_t>(difference * difference);
    }
    if (sum == 0) return 100;
    return 10 * std::log10(255.0 * 255.0 * static_cast<double>(size) / static_cast<double>(sum));
}

} // namespace velstream::testing
