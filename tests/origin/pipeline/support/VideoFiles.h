// Video files, made for a test, and read by ffmpeg and ffprobe.
#pragma once

#include "Command.h"
#include "media.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace velstream::testing {

/// Makes a file; ends the test with a failure when that fails.
void make_video(const media::MediaSpec& spec, const std::string& path);

struct VideoFacts {
    long frames = -1; ///< as counted by decoding; -1 when the file cannot be read
    int width = 0;
    int height = 0;
    double seconds = 0;
};

/// What ffprobe says of the first video track.
VideoFacts probe_video(const std::string& path);

/// The frames of a file as ffmpeg decodes them into packed RGB of the file's size, one after the other, with the
/// matrix that this project's media have: BT.709 from 720 lines up, else BT.601.
std::string decode_with_ffmpeg(const std::string& path, int height);

/// Peak signal-to-noise ratio in dB over all samples; 100 for equal ones.
double psnr(const std::uint8_t* a, const std::uint8_t* b, std::size_t size);

} // namespace velstream::testing
