// Re-encoders that draw numbered frames, and what other programs find in their files.
#pragma once

#include "ConfigFile.h"
#include "StreamCall.h"
#include "StreamRecords.h"
#include "VideoFiles.h"

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace velstream::testing {

using Quorvis::VelStream::StreamIns;

/// Initialises GStreamer before the library does, which on one platform points the plug-in path to a vendor's folder.
class Reencoder : public ::testing::Test {
protected:
    static void SetUpTestSuite() { gst_init(nullptr, nullptr); }
    const TemporaryFolder folder_;
};

/// A stream that is saved into `path`.
StreamIns saved_stream(const std::string& id, const std::string& path, int width, int height, int fps = 0);

/// Starts it as an application does that reads no configuration file.
StreamCall::Start described_stream(const StreamIns& ins);

/// Packed RGB frame number `number`: a marker that media::read_frame_number() reads, on a smooth picture.
void paint(std::uint8_t* rgb, int width, int height, int number);

/// Paints the frames in their order, the first one as number 1.
StreamCall::OnFrame painter();

/// Calls back into `rgb`: each decoded frame of the file, as `height` tight rows of packed RGB.
std::vector<std::string> decoded_frames(const std::string& path);

/// Durations of the packets in ms, as ffprobe reads them, in the file's order.
std::vector<double> packet_durations_ms(const std::string& path);

/// The file plays, and its frames are numbers 1 to `count` as they were painted.
void expect_painted_file(const std::string& path, int width, int height, long count);

/// Height of the encoded picture: padded on the platforms with V4L2 encoders.
int encoded_height(int height);

/// Keeps the machine's cores busy for the life of the object.
class Load {
public:
    Load();
    ~Load();
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

private:
    struct State;
    State* state_;
};

} // namespace velstream::testing
