// What an application draws on a frame in its callback.
#include "velstream.h"

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

/// The overlay, pixel by pixel.
void scan(unsigned char* frame, const unsigned char* picture, int width, int height)
{
    const Bytes original(picture, picture + static_cast<long>(width) * height * 3);
    for (std::size_t i = 0; i < original.size(); i += 3) {
        if (original[i] > 240 || original[i + 1] > 240 || original[i + 2] > 240) continue;
        for (std::size_t channel = 0; channel < 3; ++channel)
            frame[i + channel] = picture[i + channel];
    }
}

/// Random bytes, half of them near the border between opaque and transparent.
Bytes random_bytes(std::size_t size, unsigned seed)
{
    std::mt19937 random(seed);
    Bytes bytes(size);
    for (unsigned char& byte : bytes) {
        const unsigned value = random();
        byte = static_cast<unsigned char>(value & 0x100 ? 236 + (value & 7) : value);
    }
    return bytes;
}

TEST(DrawPicture, IsThePlainScanForEverySize)
{
    for (int width = 1; width <= 70; ++width) {
        for (const int height : {1, 2, 3, 31}) {
            const auto size = static_cast<std::size_t>(width * height) * 3;
            Bytes frame = random_bytes(size, 1);
            Bytes picture = random_bytes(size, static_cast<unsigned>(width * 100 + height));
            const Bytes before = picture;
            Bytes expected = frame;
            scan(expected.data(), picture.data(), width, height);
            draw_picture(frame.data(), picture.data(), width, height);
            ASSERT_EQ(frame, expected) << width << "x" << height;
            ASSERT_EQ(picture, before);
        }
    }
}

TEST(DrawPicture, IsThePlainScanForEveryValueOfAChannel)
{
    for (std::size_t channel = 0; channel < 3; ++channel) {
        Bytes picture(256 * 3, 0);
        for (std::size_t value = 0; value < 256; ++value)
            picture[value * 3 + channel] = static_cast<unsigned char>(value);
        Bytes frame(256 * 3, 99);
        Bytes expected = frame;
        scan(expected.data(), picture.data(), 256, 1);
        draw_picture(frame.data(), picture.data(), 256, 1);
        ASSERT_EQ(frame, expected);
    }
}

TEST(DrawPicture, IsThePlainScanForBuffersThatOverlap)
{
    constexpr int kWidth = 40;
    constexpr int kHeight = 20;
    constexpr std::size_t kSize = kWidth * kHeight * 3;
    for (const std::size_t frame_at : {0U, 1U, 3U, 120U, 600U, 2399U}) {
        for (const std::size_t picture_at : {0U, 2U, 3U, 117U, 2399U}) {
            Bytes memory = random_bytes(2 * kSize, static_cast<unsigned>(frame_at + picture_at));
            Bytes expected = memory;
            scan(expected.data() + frame_at, expected.data() + picture_at, kWidth, kHeight);
            draw_picture(memory.data() + frame_at, memory.data() + picture_at, kWidth, kHeight);
            ASSERT_EQ(memory, expected) << frame_at << ", " << picture_at;
        }
    }
}

TEST(DrawPicture, WhitePictureChangesNothing)
{
    Bytes frame = random_bytes(64 * 48 * 3, 5);
    const Bytes before = frame;
    Bytes picture(frame.size(), 255);
    draw_picture(frame.data(), picture.data(), 64, 48);
    EXPECT_EQ(frame, before);
}

TEST(DrawPicture, BorderIsBetween240And241)
{
    Bytes picture{240, 240, 240, 241, 0, 0, 0, 241, 0, 0, 0, 241};
    Bytes frame(picture.size(), 7);
    draw_picture(frame.data(), picture.data(), 4, 1);
    EXPECT_EQ(frame, (Bytes{240, 240, 240, 7, 7, 7, 7, 7, 7, 7, 7, 7}));
}

TEST(DrawPicture, WithoutASizeOrABufferTouchesNothing)
{
    Bytes frame(12, 7);
    Bytes picture(12, 9);
    auto* nowhere = reinterpret_cast<unsigned char*>(1); // reading it would crash
    for (const auto& [width, height] : {std::pair(0, 2), {2, 0}, {-1, 2}, {2, -1}, {0, 0}})
        draw_picture(nowhere, nowhere, width, height);
    draw_picture(nullptr, picture.data(), 2, 2);
    draw_picture(frame.data(), nullptr, 2, 2);
    EXPECT_EQ(frame, Bytes(12, 7));
}

/// The frame that holds this instant's text.
Bytes stamped(const Bytes& frame, int width, int height, std::int64_t milliseconds)
{
    const std::time_t seconds = milliseconds / 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[80];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03d", local.tm_year + 1900, local.tm_mon + 1,
                  local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, static_cast<int>(milliseconds % 1000));
    Bytes drawn = frame;
    cv::Mat image(height, width, CV_8UC3, drawn.data());
    cv::putText(image, text, cv::Point(20, 50), 0, 1.0, cv::Scalar(255, 0, 0), 2, 16, false);
    return drawn;
}

std::int64_t milliseconds_now()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

/// Draws once and holds the frame to that of a millisecond between the call and the return.
void expect_stamp(int width, int height)
{
    const Bytes before(static_cast<std::size_t>(width * height) * 3, 30);
    Bytes frame = before;
    const std::int64_t first = milliseconds_now();
    draw_timestamp(frame.data(), width, height);
    const std::int64_t last = milliseconds_now();
    bool is_found = false;
    for (std::int64_t at = first; at <= last && !is_found; ++at)
        is_found = frame == stamped(before, width, height, at);
    EXPECT_TRUE(is_found) << width << "x" << height;
}

TEST(DrawTimestamp, WritesTheLocalTimeInRed)
{
    for (const char* zone : {"UTC", "Asia/Kolkata", "XYZ+7:45"}) {
        setenv("TZ", zone, 1);
        tzset();
        expect_stamp(640, 120);
    }
}

TEST(DrawTimestamp, ClipsAtTheEdges)
{
    expect_stamp(100, 60);
    expect_stamp(30, 20);
    expect_stamp(1, 1);
}

TEST(DrawTimestamp, NullFrameRaisesOpenCvsException)
{
    EXPECT_THROW(draw_timestamp(nullptr, 2, 2), cv::Exception);
}

} // namespace
