// Drawing on frames, for applications' callbacks.
#include "velstream.h"

#include "ByteLanes.h"

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>

namespace {

using namespace Quorvis::VelStream;

constexpr std::size_t kChannels = 3;
constexpr unsigned char kOpaque = 240; // a channel above this makes a pixel of the picture transparent

/// Local time with milliseconds, such as 2024-01-02 03:04:05.067.
std::string timestamp_text(std::chrono::system_clock::time_point now)
{
    using namespace std::chrono;
    const auto since_epoch = now.time_since_epoch();
    const std::time_t seconds = duration_cast<std::chrono::seconds>(since_epoch).count();
    const auto milliseconds = duration_cast<std::chrono::milliseconds>(since_epoch).count() % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char date[64] = "";
    std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &local);
    char text[80];
    std::snprintf(text, sizeof text, "%s.%03d", date, static_cast<int>(milliseconds));
    return text;
}

/// Different buffers that share bytes: what is copied early is read again later.
bool overlap(const unsigned char* frame, const unsigned char* picture, std::size_t size)
{
    const auto a = reinterpret_cast<std::uintptr_t>(frame);
    const auto b = reinterpret_cast<std::uintptr_t>(picture);
    return a < b + size && b < a + size;
}

/// Pixel by pixel in the order of the rows; which of them are clear is settled before the first one is written.
void lay_in_order(unsigned char* frame, unsigned char* picture, int width, int height)
{
    const cv::Mat overlay(height, width, CV_8UC3, picture);
    cv::Mat mask; // made in one piece
    cv::inRange(overlay, cv::Scalar::all(0), cv::Scalar::all(kOpaque), mask);
    for (std::size_t i = 0; i < mask.total(); ++i) {
        if (mask.data[i] == 0) continue;
        for (std::size_t channel = 0; channel < kChannels; ++channel)
            frame[i * kChannels + channel] = picture[i * kChannels + channel];
    }
}

/// Which bytes near a byte belong to its pixel, for 16 bytes in a row: 255 where the one at the distance does.
struct PixelBytes {
    using Row = std::array<unsigned char, kByteLanes>;
    Row two_before{};
    Row one_before{};
    Row one_behind{};
    Row two_behind{};

    /// @param first  place of the first byte among the bytes of a pixel row.
    explicit constexpr PixelBytes(std::size_t first)
    {
        for (std::size_t i = 0; i < kByteLanes; ++i) {
            const std::size_t channel = (first + i) % kChannels;
            two_before[i] = channel == 2 ? 255 : 0;
            one_before[i] = channel >= 1 ? 255 : 0;
            one_behind[i] = channel <= 1 ? 255 : 0;
            two_behind[i] = channel == 0 ? 255 : 0;
        }
    }
};

// The pattern repeats every three vectors, which are 16 pixels.
constexpr PixelBytes kPixelBytes[] = {PixelBytes(0), PixelBytes(kByteLanes), PixelBytes(2 * kByteLanes)};
constexpr std::size_t kBlock = kChannels * kByteLanes;

/// 16 bytes; reads two bytes of the picture on either side of them. Without a branch: pictures change between clear
/// and opaque too often for a processor to guess.
void lay_lanes(unsigned char* frame, const unsigned char* picture, const PixelBytes& pixel)
{
    const ByteLanes before = larger_lanes(load_lanes(picture - 2) & load_lanes(pixel.two_before.data()),
                                          load_lanes(picture - 1) & load_lanes(pixel.one_before.data()));
    const ByteLanes behind = larger_lanes(load_lanes(picture + 1) & load_lanes(pixel.one_behind.data()),
                                          load_lanes(picture + 2) & load_lanes(pixel.two_behind.data()));
    const ByteLanes own = load_lanes(picture);
    const ByteLanes is_clear = above_lanes(larger_lanes(own, larger_lanes(before, behind)), all_lanes(kOpaque));
    store_lanes(frame, (load_lanes(frame) & is_clear) | (own & ~is_clear));
}

void lay_pixel(unsigned char* frame, const unsigned char* picture)
{
    if (picture[0] > kOpaque || picture[1] > kOpaque || picture[2] > kOpaque) return;
    for (std::size_t channel = 0; channel < kChannels; ++channel)
        frame[channel] = picture[channel];
}

/// Rows without gaps are one long row. The first pixel and the last ones have no bytes beside them to read.
void lay(unsigned char* frame, const unsigned char* picture, std::size_t size)
{
    lay_pixel(frame, picture);
    std::size_t at = kChannels;
    for (; at + kBlock + 2 <= size; at += kBlock) {
        for (std::size_t part = 0; part < kChannels; ++part)
            lay_lanes(frame + at + part * kByteLanes, picture + at + part * kByteLanes, kPixelBytes[part]);
    }
    for (; at < size; at += kChannels)
        lay_pixel(frame + at, picture + at);
}

} // namespace

void draw_timestamp(unsigned char* frame, int width, int height)
{
    cv::Mat image(height, width, CV_8UC3, frame);
    cv::putText(image, timestamp_text(std::chrono::system_clock::now()), cv::Point(20, 50), cv::FONT_HERSHEY_SIMPLEX,
                1.0, cv::Scalar(255, 0, 0), 2, cv::LINE_AA, false);
}

void draw_picture(unsigned char* frame, unsigned char* picture, int width, int height)
{
    if (!frame || !picture || width <= 0 || height <= 0) return;
    const std::size_t size = static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * kChannels;
    if (frame == picture) return;
    if (overlap(frame, picture, size))
        lay_in_order(frame, picture, width, height);
    else
        lay(frame, picture, size);
}
