// What differs between the platforms and is data: element names, properties and the lines that announce them.
#pragma once

#include "Platform.h"

#include <cstddef>

namespace Quorvis::VelStream {

/// Values of a V4L2 codec's "capture-io-mode" and "output-io-mode": 2 mmap, 4 dmabuf, 5 dmabuf-import; 0 leaves the
/// element's own.
struct IoModes {
    int capture;
    int output;
};

struct DecoderRow {
    std::string_view platform; ///< Empty matches every platform.
    const char* h264;
    const char* h265;
    IoModes io;
    bool discards_corrupted_frames;
    const char* log;
};

inline constexpr DecoderRow kDecoders[] = {
    {"8550", "qtic2vdec", "qtic2vdec", {0, 0}, false, "Platform is 8550, will use qtic2vdec plugin."},
    {"6490", "qtivdec", "qtivdec", {0, 0}, false, "Platform is 6490, will use qtivdec plugin."},
    {"v4l2",
     "v4l2h264dec",
     "v4l2h265dec",
     {5, 5},
     false,
     "Platform is 6490 Qualcomm Linux, will use v4l2h264dec / v4l2h265dec plugin."},
    {"ub2404",
     "v4l2h264dec",
     "v4l2h265dec",
     {4, 4},
     false,
     "Platform is 6490 Qualcomm Linux, will use v4l2h264dec / v4l2h265dec plugin."},
    {"", "qtivdec", "qtivdec", {0, 0}, false, "Platform is default setting(not 6490/8550), will use qtivdec plugin."},
};

// A camera's stream has losses, so its decoders discard what is corrupted and import what they are given.
inline constexpr DecoderRow kRtspDecoders[] = {
    {"8550", "qtic2vdec", "qtic2vdec", {0, 0}, false, "Platform is 8550 (pure ubuntu), will use qtic2vdec plugin."},
    {"6490", "qtivdec", "qtivdec", {0, 0}, false, "Platform is 6490 (quorvis / pure ubuntu), will use qtivdec plugin."},
    {"v4l2",
     "v4l2h264dec",
     "v4l2h265dec",
     {5, 2},
     true,
     "Platform is 6490 Qualcomm Linux, will use related v4l2h264/5dec plugin."},
    {"ub2404",
     "v4l2h264dec",
     "v4l2h265dec",
     {4, 4},
     true,
     "Platform is 6490 Qualcomm Linux, will use related v4l2h264/5dec plugin."},
    {"", "qtivdec", "qtivdec", {0, 0}, false, "Platform is default setting(not 6490/8550), will use qtivdec plugin."},
};

struct EncoderIoRow {
    std::string_view platform;
    IoModes mp4;
    IoModes rtsp_h264;
    IoModes rtsp_h265;
};

// The two codecs differ on "v4l2" on purpose.
inline constexpr EncoderIoRow kEncoderIoModes[] = {
    {"v4l2", {2, 5}, {2, 5}, {5, 5}},
    {"ub2404", {4, 4}, {4, 4}, {4, 4}},
    {"", {0, 0}, {0, 0}, {0, 0}},
};

struct RtspEncoderLogRow {
    std::string_view platform;
    const char* log;
};

inline constexpr RtspEncoderLogRow kRtspEncoderLogs[] = {
    {"8550", "Platform is 8550 (pure ubuntu), will use qtic2venc plugin."},
    // Kept: the text names another element; the factory is qtic2venc here too.
    {"6490", "Platform is 6490 (quorvis / pure ubuntu), will use qticvenc plugin."},
    {"", "Platform is default setting(not 6490/8550), will use qtic2venc plugin."},
};

/// The row of this build's platform; every table ends with a row that matches all.
template <typename Row, std::size_t N>
const Row& platform_row(const Row (&table)[N])
{
    for (const Row& row : table) {
        if (row.platform.empty() || row.platform == platform()) return row;
    }
    return table[N - 1];
}

} // namespace Quorvis::VelStream
