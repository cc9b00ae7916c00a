#include "media.h"
#include "gst_handles.h"

#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>

namespace media {

namespace {

using velstream::handles::ElementPtr;

constexpr int kSquare = 32; // pixels; survives H.264, H.265 and MJPEG
constexpr int kGuards = 2;
constexpr int kMaxBits = 16;
constexpr int kLeastWhite = 176;
constexpr int kMostBlack = 80;
constexpr guint64 kMaxQueuedBytes = 16U << 20U;

// Segments a to g of the digits 0 to 9, bit 0 is a (top), then clockwise, g in the middle.
constexpr unsigned kSegments[10] = {0x3F, 0x06, 0x5B, 0x4F, 0x66, 0x6D, 0x7D, 0x07, 0x7F, 0x6F};

std::uint8_t to_byte(double value)
{
    return static_cast<std::uint8_t>(std::clamp(std::lround(value), 0L, 255L));
}

bool ends_with(const std::string& text, const std::string& ending)
{
    return text.size() >= ending.size() && text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

std::string encoder_text(const MediaSpec& spec)
{
    const std::string common =
        " key-int-max=" + std::to_string(spec.key_interval) + " bitrate=" + std::to_string(spec.bitrate);
    if (spec.codec == "h265")
        return "x265enc speed-preset=superfast" + common + " option-string=\"bframes=" + std::to_string(spec.b_frames) +
               ":log-level=error\" ! h265parse";
    return "x264enc speed-preset=veryfast" + common + " bframes=" + std::to_string(spec.b_frames) + " ! h264parse";
}

std::string describe(const MediaSpec& spec, const std::string& path)
{
    const std::string parser_caps =
        spec.codec == "h265" ? "video/x-h265,stream-format=byte-stream" : "video/x-h264,stream-format=byte-stream";
    if (ends_with(path, ".h264") || ends_with(path, ".h265"))
        return "appsrc name=video0 ! videoconvert ! " + encoder_text(spec) + " ! " + parser_caps +
               " ! filesink name=out";
    std::string text = "mp4mux name=mux ! filesink name=out ";
    for (int track = 0; spec.has_video && track < spec.video_tracks; ++track)
        text += "appsrc name=video" + std::to_string(track) + " ! videoconvert ! " + encoder_text(spec) +
                " ! queue max-size-buffers=0 max-size-bytes=0 max-size-time=0 ! mux. ";
    if (spec.has_audio) {
        const int buffers = (spec.frames * 44100 / spec.fps + 1023) / 1024;
        text += "audiotestsrc wave=ticks samplesperbuffer=1024 num-buffers=" + std::to_string(buffers) +
                " ! audio/x-raw,rate=44100,channels=2 ! audioconvert ! avenc_aac ! aacparse ! queue max-size-buffers=0 "
                "max-size-bytes=0 max-size-time=0 ! mux.";
    }
    return text;
}

ElementPtr by_name(GstElement* pipeline, const std::string& name)
{
    return ElementPtr(gst_bin_get_by_name(GST_BIN(pipeline), name.c_str()));
}

void configure_source(GstElement* source, const MediaSpec& spec)
{
    GstCaps* caps = frame_caps(spec);
    g_object_set(source, "caps", caps, "format", GST_FORMAT_TIME, nullptr);
    gst_caps_unref(caps);
}

/// GStreamer's own layout rounds rows up to 4 bytes; the painter's rows have no padding.
void announce_tight_rows(GstBuffer* buffer, int width, int height)
{
    const auto luma = static_cast<gsize>(width) * static_cast<gsize>(height);
    const auto chroma = luma / 4;
    gsize offsets[GST_VIDEO_MAX_PLANES] = {0, luma, luma + chroma, 0};
    gint strides[GST_VIDEO_MAX_PLANES] = {width, width / 2, width / 2, 0};
    gst_buffer_add_video_meta_full(buffer, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_FORMAT_I420, static_cast<guint>(width),
                                   static_cast<guint>(height), 3, offsets, strides);
}

/// Waits until the encoder has caught up. @return false when the pipeline has failed.
bool wait_for_room(GstElement* pipeline, GstElement* source)
{
    GstBus* bus = gst_element_get_bus(pipeline);
    bool is_fine = true;
    while (is_fine && gst_app_src_get_current_level_bytes(GST_APP_SRC(source)) > kMaxQueuedBytes) {
        if (GstMessage* message = gst_bus_timed_pop_filtered(bus, 5 * GST_MSECOND, GST_MESSAGE_ERROR)) {
            gst_bus_post(bus, message); // for the one who reports it
            is_fine = false;
        }
    }
    gst_object_unref(bus);
    return is_fine;
}

void push_frames(GstElement* pipeline, const std::vector<ElementPtr>& sources, const MediaSpec& spec)
{
    FramePainter painter(spec.width, spec.height, spec.has_noise);
    for (int number = 0; number < spec.frames; ++number) {
        for (const ElementPtr& source : sources) {
            if (!wait_for_room(pipeline, source.get())) return;
            if (gst_app_src_push_buffer(GST_APP_SRC(source.get()), make_frame(painter, spec, number)) != GST_FLOW_OK)
                return;
        }
    }
    for (const ElementPtr& source : sources)
        gst_app_src_end_of_stream(GST_APP_SRC(source.get()));
}

std::string wait_for_end(GstElement* pipeline)
{
    GstBus* bus = gst_element_get_bus(pipeline);
    GstMessage* message =
        gst_bus_timed_pop_filtered(bus, 600 * GST_SECOND, GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    std::string failure = message ? "" : "the encoders did not finish";
    if (message && GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
        GError* error = nullptr;
        gst_message_parse_error(message, &error, nullptr);
        failure = error->message;
        g_error_free(error);
    }
    if (message) gst_message_unref(message);
    gst_object_unref(bus);
    return failure;
}

} // namespace

GstCaps* frame_caps(const MediaSpec& spec)
{
    return gst_caps_new_simple(
        "video/x-raw", "format", G_TYPE_STRING, "I420", "width", G_TYPE_INT, spec.width, "height", G_TYPE_INT,
        spec.height, "framerate", GST_TYPE_FRACTION, spec.fps, 1, "colorimetry", G_TYPE_STRING,
        spec.height >= 720 ? "bt709" : "bt601", "chroma-site", G_TYPE_STRING,
        "mpeg2", // which H.264 and H.265 mean when a stream says nothing; newer encoders write it down
        "pixel-aspect-ratio", GST_TYPE_FRACTION, 1, 1, nullptr);
}

GstBuffer* make_frame(FramePainter& painter, const MediaSpec& spec, int number)
{
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, painter.size(), nullptr);
    GstMapInfo map;
    gst_buffer_map(buffer, &map, GST_MAP_WRITE);
    painter.paint(number, map.data);
    gst_buffer_unmap(buffer, &map);
    announce_tight_rows(buffer, spec.width, spec.height);
    const auto index = static_cast<guint64>(number);
    const auto rate = static_cast<guint64>(spec.fps);
    GST_BUFFER_PTS(buffer) = index * GST_SECOND / rate;
    GST_BUFFER_DURATION(buffer) = (index + 1) * GST_SECOND / rate - GST_BUFFER_PTS(buffer);
    return buffer;
}

std::string make_media(const MediaSpec& spec, const std::string& path)
{
    gst_init(nullptr, nullptr);
    GError* error = nullptr;
    const ElementPtr pipeline(GST_ELEMENT(gst_object_ref_sink(gst_parse_launch(describe(spec, path).c_str(), &error))));
    if (error) {
        std::string failure = error->message;
        g_error_free(error);
        return failure;
    }
    g_object_set(by_name(pipeline.get(), "out").get(), "location", path.c_str(), nullptr);
    std::vector<ElementPtr> sources;
    for (int track = 0; spec.has_video && track < spec.video_tracks; ++track) {
        sources.push_back(by_name(pipeline.get(), "video" + std::to_string(track)));
        configure_source(sources.back().get(), spec);
    }
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    push_frames(pipeline.get(), sources, spec);
    std::string failure = wait_for_end(pipeline.get());
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    return failure;
}

FramePainter::FramePainter(int width, int height, bool has_noise)
    : width_(width), height_(height), has_noise_(has_noise),
      background_(static_cast<std::size_t>(width) * height +
                  2 * static_cast<std::size_t>((width + 1) / 2) * ((height + 1) / 2))
{
    // A sky that darkens upwards over a row of colour bars.
    const int bars_top = height * 3 / 4 / 2 * 2;
    for (int row = 0; row < bars_top; row += 2) {
        const double t = static_cast<double>(row) / bars_top;
        fill(background_.data(), 0, row, width, 2, colour(0.10 + 0.35 * t, 0.15 + 0.45 * t, 0.40 + 0.50 * t));
    }
    constexpr double kBars[8][3] = {{.9, .9, .9}, {.9, .9, .1}, {.1, .9, .9}, {.1, .8, .1},
                                    {.9, .1, .9}, {.9, .1, .1}, {.1, .1, .9}, {.1, .1, .1}};
    for (int bar = 0; bar < 8; ++bar) {
        const int left = width * bar / 8 / 2 * 2;
        const int right = width * (bar + 1) / 8 / 2 * 2;
        fill(background_.data(), left, bars_top, (bar == 7 ? width : right) - left, height - bars_top,
             colour(kBars[bar][0], kBars[bar][1], kBars[bar][2]));
    }
}

FramePainter::Colour FramePainter::colour(double red, double green, double blue) const
{
    // ITU-R BT.709 and BT.601, limited range.
    const double kr = height_ >= 720 ? 0.2126 : 0.299;
    const double kb = height_ >= 720 ? 0.0722 : 0.114;
    const double luma = kr * red + (1 - kr - kb) * green + kb * blue;
    return {to_byte(16 + 219 * luma), to_byte(128 + 224 * (blue - luma) / (2 * (1 - kb))),
            to_byte(128 + 224 * (red - luma) / (2 * (1 - kr)))};
}

void FramePainter::fill(std::uint8_t* i420, int x, int y, int width, int height, Colour c) const
{
    const int right = std::min(x + width, width_);
    const int bottom = std::min(y + height, height_);
    const int left = std::max(x, 0);
    const int top = std::max(y, 0);
    if (left >= right || top >= bottom) return;
    for (int row = top; row < bottom; ++row)
        std::memset(i420 + static_cast<std::ptrdiff_t>(row) * width_ + left, c.y,
                    static_cast<std::size_t>(right - left));
    const int chroma_width = (width_ + 1) / 2;
    std::uint8_t* u = i420 + static_cast<std::ptrdiff_t>(width_) * height_;
    std::uint8_t* v = u + static_cast<std::ptrdiff_t>(chroma_width) * ((height_ + 1) / 2);
    for (int row = top / 2; row < (bottom + 1) / 2; ++row) {
        const std::ptrdiff_t start = static_cast<std::ptrdiff_t>(row) * chroma_width + left / 2;
        const auto count = static_cast<std::size_t>((right + 1) / 2 - left / 2);
        std::memset(u + start, c.u, count);
        std::memset(v + start, c.v, count);
    }
}

void FramePainter::paint(int number, std::uint8_t* i420)
{
    std::memcpy(i420, background_.data(), background_.size());
    draw_disc(i420, number);
    if (has_noise_) draw_noise(i420, number);
    draw_digits(i420, number);
    draw_marker(i420, number);
}

void FramePainter::draw_disc(std::uint8_t* i420, int number) const
{
    const int radius = std::max(12, height_ / 10);
    const double turn = number * 2.0 * 3.14159265358979 / 150.0;
    const int cx = static_cast<int>(width_ / 2.0 + std::sin(turn) * (width_ / 2.0 - radius - 4)) / 2 * 2;
    const int cy = static_cast<int>(height_ * 0.55 + std::cos(2 * turn) * height_ * 0.12) / 2 * 2;
    const Colour sun = colour(1.0, 0.75, 0.1);
    for (int dy = -radius / 2 * 2; dy < radius; dy += 2) {
        const int from_middle = dy + 1; // middle of the two rows
        const int half = static_cast<int>(std::sqrt(std::max(0, radius * radius - from_middle * from_middle)));
        fill(i420, cx - half, cy + dy, 2 * half, 2, sun);
    }
}

void FramePainter::draw_noise(std::uint8_t* i420, int number) const
{
    std::uint32_t state = 2463534242U + static_cast<std::uint32_t>(number) * 7919U;
    const std::size_t luma = static_cast<std::size_t>(width_) * height_;
    for (std::size_t i = 0; i < luma; ++i) {
        state ^= state << 13U;
        state ^= state >> 17U;
        state ^= state << 5U;
        i420[i] = to_byte(i420[i] + static_cast<int>(state % 33U) - 16);
    }
}

void FramePainter::draw_digits(std::uint8_t* i420, int number) const
{
    const int unit = std::max(4, height_ / 45 / 2 * 2); // stroke, pixels
    const int digit_width = 6 * unit;
    const Colour white = colour(1, 1, 1);
    const std::string text = std::to_string(number);
    int x = 2 * unit;
    const int y = kSquare + 2 * unit;
    for (const char digit : text) {
        const unsigned on = kSegments[digit - '0'];
        const int w = 4 * unit; // inside width
        const int h = 4 * unit; // height of one half
        if (on & 0x01U) fill(i420, x, y, w, unit, white);
        if (on & 0x02U) fill(i420, x + w - unit, y, unit, h, white);
        if (on & 0x04U) fill(i420, x + w - unit, y + h, unit, h, white);
        if (on & 0x08U) fill(i420, x, y + 2 * h - unit, w, unit, white);
        if (on & 0x10U) fill(i420, x, y + h, unit, h, white);
        if (on & 0x20U) fill(i420, x, y, unit, h, white);
        if (on & 0x40U) fill(i420, x, y + h - unit, w, unit, white);
        x += digit_width;
    }
}

int marker_bits(int width)
{
    return std::clamp(width / kSquare - kGuards, 0, kMaxBits);
}

void FramePainter::draw_marker(std::uint8_t* i420, int number) const
{
    const int bits = marker_bits(width_);
    const Colour white = colour(1, 1, 1);
    const Colour black = colour(0, 0, 0);
    fill(i420, 0, 0, kSquare, kSquare, white);
    fill(i420, kSquare, 0, kSquare, kSquare, black);
    for (int bit = 0; bit < bits; ++bit) {
        const bool is_set = (number >> (bits - 1 - bit)) & 1;
        fill(i420, (kGuards + bit) * kSquare, 0, kSquare, kSquare, is_set ? white : black);
    }
}

std::optional<int> read_frame_number(const std::uint8_t* rgb, int width, int height, std::size_t stride)
{
    const int bits = marker_bits(width);
    if (!rgb || bits == 0 || height < kSquare) return std::nullopt;
    const auto brightness = [&](int square) {
        const std::uint8_t* pixel = rgb + static_cast<std::size_t>(kSquare / 2) * stride +
                                    3 * static_cast<std::size_t>(square * kSquare + kSquare / 2);
        return (pixel[0] + pixel[1] + pixel[2]) / 3;
    };
    if (brightness(0) < kLeastWhite || brightness(1) > kMostBlack) return std::nullopt;
    int number = 0;
    for (int square = kGuards; square < kGuards + bits; ++square) {
        const int level = brightness(square);
        if (level > kMostBlack && level < kLeastWhite) return std::nullopt; // part of a picture, no marker
        number = number * 2 + (level >= kLeastWhite ? 1 : 0);
    }
    return number;
}

} // namespace media
