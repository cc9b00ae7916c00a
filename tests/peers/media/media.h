// Generated media: a moving picture with each frame's number in it, for the demonstration and for the tests.
#pragma once

#include <gst/gst.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace media {

struct MediaSpec {
    std::string codec = "h264"; ///< "h264" or "h265"
    int width = 1280;           ///< pixels, even, 320 at least
    int height = 720;           ///< pixels, even, 160 at least
    int fps = 30;
    int frames = 300;
    int b_frames = 0;
    int key_interval = 30; ///< frames
    int bitrate = 6000;    ///< kbit/s
    bool has_video = true;
    bool has_audio = false; ///< AAC, a tone
    int video_tracks = 1;   ///< more than one: the same picture in each
    bool has_noise = false; ///< makes the stream hard to decode, for benchmarks
};

/// Writes an MP4 file; a path that ends in ".h264" or ".h265" becomes a raw byte stream.
/// @return an empty text, or what went wrong.
std::string make_media(const MediaSpec& spec, const std::string& path);

/// Draws frames as planar 4:2:0: Y, U and V one after the other without padding. Colours are BT.709 from 720 lines up,
/// else BT.601, limited range.
class FramePainter {
public:
    FramePainter(int width, int height, bool has_noise = false);
    std::size_t size() const { return background_.size(); }
    /// Draws frame `number` into `size()` bytes.
    void paint(int number, std::uint8_t* i420);

private:
    struct Colour {
        std::uint8_t y, u, v;
    };
    Colour colour(double red, double green, double blue) const;
    void fill(std::uint8_t* i420, int x, int y, int width, int height, Colour colour) const;
    void draw_marker(std::uint8_t* i420, int number) const;
    void draw_digits(std::uint8_t* i420, int number) const;
    void draw_disc(std::uint8_t* i420, int number) const;
    void draw_noise(std::uint8_t* i420, int number) const;

    int width_;
    int height_;
    bool has_noise_;
    std::vector<std::uint8_t> background_;
};

/// Caps of the frames as they are drawn: I420 with size, rate and colorimetry of `spec`. The caller owns them.
GstCaps* frame_caps(const MediaSpec& spec);

/// Draws frame `number` into a new buffer with time stamp, duration and video meta. The caller owns it.
GstBuffer* make_frame(FramePainter& painter, const MediaSpec& spec, int number);

/// Squares of the marker that carry the number, most significant bit first. Before them stand a white and a black one;
/// each is 32 x 32 pixels, along the top edge from the left: 8 squares at a width of 320, 16 from 576 up.
int marker_bits(int width);

/// Reads the number from the marker at the top left of a packed RGB picture.
/// @param stride  bytes in a row.
/// @return nothing when there is no marker. Numbers wrap at 2^marker_bits(width).
std::optional<int> read_frame_number(const std::uint8_t* rgb, int width, int height, std::size_t stride);

} // namespace media
