// Drawing on frames, for applications' callbacks.
#include "velstream.h"

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>

namespace {

constexpr int kChannels = 3;
constexpr int kOpaque = 240; // a channel above this makes a pixel of the picture transparent

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
    return a != b && a < b + size && b < a + size;
}

/// Pixel by pixel in the order of the rows.
void copy_in_order(unsigned char* frame, const unsigned char* picture, const cv::Mat& mask)
{
    const std::size_t pixels = mask.total(); // the mask is made in one piece
    for (std::size_t i = 0; i < pixels; ++i) {
        if (mask.data[i] <= kOpaque) continue;
        for (std::size_t channel = 0; channel < kChannels; ++channel)
            frame[i * kChannels + channel] = picture[i * kChannels + channel];
    }
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
    cv::Mat image(height, width, CV_8UC3, frame);
    const cv::Mat overlay(height, width, CV_8UC3, picture);
    cv::Mat mask;
    cv::inRange(overlay, cv::Scalar(0, 0, 0, 0), cv::Scalar(kOpaque, kOpaque, kOpaque, 0), mask);
    if (overlap(frame, picture, image.total() * image.elemSize()))
        copy_in_order(frame, picture, mask);
    else
        overlay.copyTo(image, mask);
}
