// Raw frames for the element tests: made, compared, and pushed through elements.
#pragma once

#include "gst_handles.h"

#include <gst/check/gstharness.h>
#include <gst/video/video.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace velstream::test {

using namespace velstream::handles;

using HarnessPtr = std::unique_ptr<GstHarness, Releaser<gst_harness_teardown>>;

/// "video/x-raw<features>,framerate=25/1,<rest>".
inline std::string video_caps(const std::string& rest, const std::string& features = "")
{
    return "video/x-raw" + features + ",framerate=25/1," + rest;
}

inline std::string size_caps(const char* format, int width, int height)
{
    return std::string("format=") + format + ",width=" + std::to_string(width) + ",height=" + std::to_string(height);
}

inline GstVideoInfo info_of(const std::string& caps_text)
{
    const CapsPtr caps(gst_caps_from_string(caps_text.c_str()));
    GstVideoInfo info;
    gst_video_info_init(&info);
    gst_video_info_from_caps(&info, caps.get());
    return info;
}

/// A mapped frame of `buffer`, laid out by its GstVideoMeta or else by the caps.
class Frame {
public:
    Frame(GstBuffer* buffer, const std::string& caps_text, GstMapFlags flags = GST_MAP_READ)
    {
        const GstVideoInfo info = info_of(caps_text);
        is_mapped_ = gst_video_frame_map(&frame_, &info, buffer, flags);
    }
    ~Frame()
    {
        if (is_mapped_) gst_video_frame_unmap(&frame_);
    }
    Frame(const Frame&) = delete;
    Frame& operator=(const Frame&) = delete;

    bool is_mapped() const { return is_mapped_; }
    int components() const { return static_cast<int>(GST_VIDEO_FRAME_N_COMPONENTS(&frame_)); }
    int width(int component = 0) const { return GST_VIDEO_FRAME_COMP_WIDTH(&frame_, component); }
    int height(int component = 0) const { return GST_VIDEO_FRAME_COMP_HEIGHT(&frame_, component); }
    int stride(int plane = 0) const { return GST_VIDEO_FRAME_PLANE_STRIDE(&frame_, plane); }
    /// Component 0, 1, 2 is R, G, B or Y, U, V in every format.
    uint8_t& at(int component, int x, int y) const
    {
        auto* data = static_cast<uint8_t*>(GST_VIDEO_FRAME_COMP_DATA(&frame_, component));
        return data[y * GST_VIDEO_FRAME_COMP_STRIDE(&frame_, component) +
                    x * GST_VIDEO_FRAME_COMP_PSTRIDE(&frame_, component)];
    }

private:
    GstVideoFrame frame_{};
    bool is_mapped_ = false;
};

/// Colours that change slowly, edges every 48 pixels, and a little noise; the same for each call.
inline uint8_t pattern_value(int component, int x, int y)
{
    const double wave =
        std::sin((x * (component + 2) + y * 3) / 60.0) * 45.0 + std::cos((y * (component + 1) - x) / 45.0) * 35.0;
    const int block = ((x / 48 + y / 48 + component) % 3 - 1) * 20;
    const auto noise =
        static_cast<int>((static_cast<uint32_t>(x * 7919 + y * 104729 + component * 31) * 2654435761U) >> 29);
    return static_cast<uint8_t>(std::lround(128.0 + wave) + block + noise - 4);
}

/// @param padding  bytes behind each row, announced by a GstVideoMeta; negative: GStreamer's own layout, without a meta
inline BufferPtr make_frame(const std::string& caps_text, int padding = -1)
{
    const GstVideoInfo info = info_of(caps_text);
    BufferPtr buffer;
    if (padding < 0) {
        buffer.reset(gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&info), nullptr));
    } else {
        gsize offset[GST_VIDEO_MAX_PLANES] = {};
        gint stride[GST_VIDEO_MAX_PLANES] = {};
        gsize size = 0;
        for (guint plane = 0; plane < GST_VIDEO_INFO_N_PLANES(&info); ++plane) {
            const auto component = plane;
            offset[plane] = size;
            const int row = GST_VIDEO_INFO_COMP_WIDTH(&info, component) * GST_VIDEO_INFO_COMP_PSTRIDE(&info, component);
            stride[plane] = row + padding;
            size +=
                static_cast<gsize>(stride[plane]) * static_cast<gsize>(GST_VIDEO_INFO_COMP_HEIGHT(&info, component));
        }
        buffer.reset(gst_buffer_new_allocate(nullptr, size, nullptr));
        gst_buffer_add_video_meta_full(buffer.get(), GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_INFO_FORMAT(&info),
                                       static_cast<guint>(info.width), static_cast<guint>(info.height),
                                       GST_VIDEO_INFO_N_PLANES(&info), offset, stride);
    }
    gst_buffer_memset(buffer.get(), 0, 0xEE, gst_buffer_get_size(buffer.get()));
    const Frame frame(buffer.get(), caps_text, GST_MAP_READWRITE);
    for (int c = 0; c < frame.components(); ++c) {
        const int step_x = frame.width(0) > frame.width(c) ? 2 : 1;
        const int step_y = frame.height(0) > frame.height(c) ? 2 : 1;
        for (int y = 0; y < frame.height(c); ++y)
            for (int x = 0; x < frame.width(c); ++x)
                frame.at(c, x, y) = c == 3 ? 255 : pattern_value(c, x * step_x, y * step_y);
    }
    return buffer;
}

/// Over the first three components. Infinite for equal frames, 0 where sizes differ.
inline double psnr(GstBuffer* a, GstBuffer* b, const std::string& caps_text)
{
    const Frame first(a, caps_text);
    const Frame second(b, caps_text);
    if (!first.is_mapped() || !second.is_mapped()) return 0.0;
    double sum = 0.0;
    double count = 0.0;
    for (int c = 0; c < 3; ++c)
        for (int y = 0; y < first.height(c); ++y)
            for (int x = 0; x < first.width(c); ++x) {
                const double difference = double{1} * first.at(c, x, y) - second.at(c, x, y);
                sum += difference * difference;
                count += 1.0;
            }
    return sum == 0.0 ? INFINITY : 10.0 * std::log10(255.0 * 255.0 * count / sum);
}

/// An element or bin between two pads whose caps are fixed; empty `out_caps` leave the output open.
inline HarnessPtr make_harness(const char* launch, const std::string& in_caps, const std::string& out_caps)
{
    HarnessPtr harness(gst_harness_new_parse(launch));
    if (!out_caps.empty()) gst_harness_set_sink_caps_str(harness.get(), out_caps.c_str());
    gst_harness_set_src_caps_str(harness.get(), in_caps.c_str());
    return harness;
}

/// The one element of a harness made from a launch string, which puts it into a bin; borrowed.
inline GstElement* element_of(const HarnessPtr& harness)
{
    return GST_IS_BIN(harness->element) ? GST_ELEMENT(GST_BIN(harness->element)->children->data) : harness->element;
}

/// The handle keeps its reference.
inline BufferPtr push_and_pull(const HarnessPtr& harness, const BufferPtr& buffer)
{
    return BufferPtr(gst_harness_push_and_pull(harness.get(), gst_buffer_ref(buffer.get())));
}

inline BufferPtr convert(const char* launch, const std::string& in_caps, const std::string& out_caps,
                         const BufferPtr& buffer)
{
    const HarnessPtr harness = make_harness(launch, in_caps, out_caps);
    return push_and_pull(harness, buffer);
}

inline std::string output_caps(const HarnessPtr& harness)
{
    const CapsPtr caps(gst_pad_get_current_caps(harness->sinkpad));
    gchar* text = caps ? gst_caps_to_string(caps.get()) : nullptr;
    const std::string result = text ? text : "";
    g_free(text);
    return result;
}

} // namespace velstream::test
