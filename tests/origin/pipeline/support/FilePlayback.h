// Playing a file as a configured stream and comparing its frames with those of another decoder.
#pragma once

#include "ConfigFile.h"
#include "StreamCall.h"
#include "VideoFiles.h"

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace velstream::testing {

/// Initialises GStreamer before the library does, which on one platform points the plug-in path to a vendor's folder.
class Playback : public ::testing::Test {
protected:
    static void SetUpTestSuite() { gst_init(nullptr, nullptr); }
    const TemporaryFolder folder_;
};

/// A configuration file with one stream "file" that plays `path`; `more` are further properties, each with a comma
/// before it.
std::string file_entry(const std::string& path, const std::string& codec = "H264", const std::string& more = {});

/// What the call of a file that has ended well returns: the runners that rebuild leave the restart to the application.
int result_of_end();

struct Played {
    int result = 0;
    std::vector<int> numbers;  ///< read in each frame's picture, -1 where there is none
    std::vector<Image> images; ///< without their data
};

/// Plays the stream "file" of the configuration to its end.
Played play_to_end();

/// Plays a generated file and holds every frame to what ffmpeg decodes: the number of frames, the picture, the size.
void expect_frames_of(const media::MediaSpec& spec, const std::string& path);

} // namespace velstream::testing
