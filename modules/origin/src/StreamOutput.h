// The output builders: each makes a bin that takes raw video through its ghost "sink" pad and writes it somewhere.
#pragma once

#include "StreamBase.h"

namespace Quorvis::VelStream {

class StreamOutput : public StreamBase {
public:
    virtual ~StreamOutput();
    GstElement* build() override = 0;
};

/// Writes an MP4 file.
class StreamOutputMp4sink : public StreamOutput {
public:
    explicit StreamOutputMp4sink(std::string location);
    StreamOutputMp4sink(std::string location, int width, int height);
    GstElement* build() override;
    /// The variant for V4L2 codecs, whose rows are padded to a multiple of 32.
    GstElement* build_6490_ql();

private:
    std::string location_;
    void* reserved_ = nullptr; // not used
    int32_t width_ = 640;
    int32_t height_ = 480;
};

/// Pushes to an RTSP server by RECORD.
class StreamOutputRtspsink : public StreamOutput {
public:
    explicit StreamOutputRtspsink(std::string location);
    StreamOutputRtspsink(std::string location, int width, int height);
    GstElement* build() override;
    /// The variant for V4L2 codecs; its bin carries the stream id, so several can share a pipeline.
    GstElement* build_6490_ql();

private:
    std::string location_;
    void* reserved_ = nullptr; // not used
    int32_t width_ = 640;
    int32_t height_ = 480;
};

/// Pushes to an RTMP server.
class StreamOutputRtmpsink : public StreamOutput {
public:
    explicit StreamOutputRtmpsink(std::string location);
    GstElement* build() override;

private:
    std::string location_;
};

/// Shows on the Wayland display, in a window of this place and size in pixels.
class StreamOutputWaylandsink : public StreamOutput {
public:
    StreamOutputWaylandsink(int x, int y, int width, int height);
    GstElement* build() override;

private:
    int32_t x_;
    int32_t y_;
    int32_t width_;
    int32_t height_;
};

/// Keeps a builder that an entry point or a rebuild made for as long as the process lives.
void keep_builder(StreamOutput* builder);

} // namespace Quorvis::VelStream
