// Frames as OpenCV matrices, and the frame that the re-encoders share with the application.
#include "RecordedLog.h"
#include "velstream.h"
#include "velstreamFrames.h"

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <vector>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Lines = std::vector<std::string>;

std::vector<uint8_t> counting_bytes(std::size_t size)
{
    std::vector<uint8_t> bytes(size);
    std::iota(bytes.begin(), bytes.end(), uint8_t{0});
    return bytes;
}

/// A camera frame of `width` x `height` visible pixels.
Image padded_image(std::vector<uint8_t>& bytes, int width, int height, int aligned_width, int aligned_height)
{
    bytes = counting_bytes(static_cast<std::size_t>(aligned_width * aligned_height) * 3);
    Image image;
    image.data = bytes.data();
    image.size = bytes.size();
    image.width = width;
    image.height = height;
    image.alignedWidth = aligned_width;
    image.alignedHeight = aligned_height;
    return image;
}

/// Every pixel of `mat` is that of `image`, red and blue swapped.
void expect_swapped(const cv::Mat& mat, const Image& image)
{
    for (int y = 0; y < mat.rows; ++y) {
        for (int x = 0; x < mat.cols; ++x) {
            const uint8_t* rgb = image.data + (y * image.alignedWidth + x) * 3;
            ASSERT_EQ(mat.at<cv::Vec3b>(y, x), cv::Vec3b(rgb[2], rgb[1], rgb[0])) << x << ", " << y;
        }
    }
}

StreamIns sized(int width, int height)
{
    StreamIns ins;
    ins.width = width;
    ins.height = height;
    return ins;
}

TEST(GetData, CopiesTheBytesInTheirOrder)
{
    std::vector<uint8_t> bytes = counting_bytes(5 * 7 * 3);
    const cv::Mat mat = get_data(5, 7, reinterpret_cast<char*>(bytes.data()));
    const std::vector<uint8_t> expected = bytes;
    std::fill(bytes.begin(), bytes.end(), uint8_t{0});
    ASSERT_EQ(mat.rows, 5);
    ASSERT_EQ(mat.cols, 7);
    ASSERT_EQ(mat.type(), CV_8UC3);
    ASSERT_TRUE(mat.isContinuous());
    EXPECT_EQ(std::memcmp(mat.data, expected.data(), expected.size()), 0) << "a copy of its own";
    EXPECT_EQ(log_lines(), (Lines{"I Convert image from buffer to Mat object. g_retrieve_idx: 0"}));
    EXPECT_EQ(log_files(), (Lines{"modules/origin/src/velstreamFrames.cpp"}));
}

TEST(GetData, NothingOfNullIsEmpty)
{
    EXPECT_TRUE(get_data(0, 0, nullptr).empty());
}

TEST(GetData, NullWithASizeRaisesOpenCvsException)
{
    EXPECT_THROW(get_data(2, 2, nullptr), cv::Exception);
}

TEST(V4l2GetMat, SwapsRedAndBlue)
{
    std::vector<uint8_t> bytes;
    const Image image = padded_image(bytes, 6, 4, 6, 4);
    cv::Mat mat;
    ASSERT_EQ(v4l2_get_mat(mat, image), 0);
    ASSERT_EQ(mat.size(), cv::Size(6, 4));
    expect_swapped(mat, image);
}

TEST(V4l2GetMat, CropsPaddedRowsAndKeepsTheirStep)
{
    std::vector<uint8_t> bytes;
    const Image image = padded_image(bytes, 6, 4, 9, 8);
    cv::Mat mat;
    ASSERT_EQ(v4l2_get_mat(mat, image), 0);
    ASSERT_EQ(mat.size(), cv::Size(6, 4));
    EXPECT_EQ(mat.step[0], 9U * 3U);
    EXPECT_FALSE(mat.isContinuous());
    expect_swapped(mat, image);
}

TEST(V4l2GetMat, LeavesTheFrameAndOutlivesIt)
{
    std::vector<uint8_t> bytes;
    const Image image = padded_image(bytes, 2, 2, 3, 2);
    const std::vector<uint8_t> before = bytes;
    cv::Mat mat;
    ASSERT_EQ(v4l2_get_mat(mat, image), 0);
    EXPECT_EQ(bytes, before);
    bytes = {};
    EXPECT_EQ(mat.at<cv::Vec3b>(1, 1), cv::Vec3b(14, 13, 12));
}

TEST(V4l2GetMatOri, KeepsThePadding)
{
    std::vector<uint8_t> bytes;
    const Image image = padded_image(bytes, 6, 4, 9, 8);
    cv::Mat mat;
    ASSERT_EQ(v4l2_get_mat_ori(mat, image), 0);
    ASSERT_EQ(mat.size(), cv::Size(9, 8));
    expect_swapped(mat, image);
}

TEST(V4l2GetMat, NullDataIsLogged)
{
    std::vector<uint8_t> bytes;
    Image image = padded_image(bytes, 6, 4, 9, 8);
    image.data = nullptr;
    cv::Mat mat(1, 1, CV_8UC1);
    EXPECT_EQ(v4l2_get_mat(mat, image), -1);
    EXPECT_EQ(v4l2_get_mat_ori(mat, image), -1);
    EXPECT_EQ(mat.size(), cv::Size(1, 1)) << "left as it was";
    EXPECT_EQ(log_lines(), (Lines{"E Input data is empty.", "E Input data is empty."}));
}

TEST(V4l2GetMat, PaddedSizeOfZeroRaisesOpenCvsException)
{
    std::vector<uint8_t> bytes(12);
    Image image = padded_image(bytes, 2, 2, 2, 2);
    image.alignedWidth = 0;
    cv::Mat mat;
    EXPECT_THROW(v4l2_get_mat(mat, image), cv::Exception);
    EXPECT_THROW(v4l2_get_mat_ori(mat, image), cv::Exception);
}

TEST(V4l2GetMat, VisibleSizeOfZeroIsEmpty)
{
    std::vector<uint8_t> bytes;
    const Image image = padded_image(bytes, 0, 0, 4, 4);
    cv::Mat mat;
    EXPECT_EQ(v4l2_get_mat(mat, image), 0);
    EXPECT_TRUE(mat.empty());
}

TEST(V4l2GetMat, VisibleSizeBeyondThePaddedRaisesOpenCvsException)
{
    std::vector<uint8_t> bytes;
    const Image image = padded_image(bytes, 5, 4, 4, 4);
    cv::Mat mat;
    EXPECT_THROW(v4l2_get_mat(mat, image), cv::Exception);
}

TEST(SharedFrame, IsEmptyAtFirst)
{
    EXPECT_TRUE(g_share_memory_mp4.data.empty());
    EXPECT_EQ(g_share_memory_mp4.state, -1);
    EXPECT_EQ(g_share_memory_mp4.width, 0);
    EXPECT_EQ(g_share_memory_mp4.height, 0);
    EXPECT_EQ(g_share_memory_mp4.fps, 0);
    EXPECT_EQ(buffer_index, 0U);
}

TEST(SharedFrame, IsGreyAfterTheFirstStart)
{
    StreamIns ins = sized(1280, 720);
    init_share_mem_mp4(ins);
    const auto& data = g_share_memory_mp4.data;
    ASSERT_EQ(data.size(), 2764800U);
    EXPECT_EQ(std::count(data.begin(), data.end(), uint8_t{128}), 2764800);
    EXPECT_EQ(g_share_memory_mp4.state, 2);
    EXPECT_EQ(g_share_memory_mp4.width, 1280);
    EXPECT_EQ(g_share_memory_mp4.height, 720);
    EXPECT_EQ(g_share_memory_mp4.fps, 25);
}

TEST(SharedFrame, KeepsItsFirstSizeAndContent)
{
    StreamIns ins = sized(4, 2);
    init_share_mem_mp4(ins);
    g_share_memory_mp4.data[5] = 7;
    const std::vector<uint8_t> first = g_share_memory_mp4.data;
    StreamIns other = sized(640, 480);
    init_share_mem_mp4(other);
    EXPECT_EQ(g_share_memory_mp4.data, first);
    EXPECT_EQ(g_share_memory_mp4.width, 4);
    EXPECT_EQ(g_share_memory_mp4.height, 2);
}

TEST(SharedFrame, SizeThatIsNoFrameIsLoggedAndMakesNone)
{
    for (const auto& [width, height] : {std::pair(0, 720), {-1280, 720}, {-640, -480}, {30000, 30000}}) {
        StreamIns ins = sized(width, height);
        clear_log();
        init_share_mem_mp4(ins);
        EXPECT_TRUE(g_share_memory_mp4.data.empty()) << width << "x" << height;
        EXPECT_EQ(g_share_memory_mp4.state, -1);
        EXPECT_EQ(log_lines(), (Lines{"E A shared frame of " + std::to_string(width) + " x " + std::to_string(height) +
                                      " pixels cannot be made."}));
    }
}

} // namespace
