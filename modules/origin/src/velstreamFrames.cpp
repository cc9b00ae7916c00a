#include "velstreamFrames.h"

#include "Log.h"

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <mutex>

namespace Quorvis::VelStream {

ShareMem g_share_memory_mp4;
uint64_t buffer_index = 0;

namespace {

constexpr int kInitialised = 2;
constexpr int kSharedRate = 25;   // frames a second
constexpr uint8_t kMidGrey = 128; // what is encoded until the callback has drawn

/// Bytes of a packed RGB frame in 32 bits: a size beyond them wraps around, and the re-encoders find the frame too
/// small.
int32_t frame_bytes(const StreamIns& ins)
{
    return static_cast<int32_t>(static_cast<uint32_t>(ins.width) * static_cast<uint32_t>(ins.height) * 3U);
}

/// A camera frame in its padded size, red and blue swapped.
int convert_to_bgr(cv::Mat& out, const Image& image)
{
    if (!image.data) {
        VEL_LOG_ERROR("Input data is empty.");
        return -1;
    }
    const cv::Mat frame(image.alignedHeight, image.alignedWidth, CV_8UC3, image.data);
    cv::cvtColor(frame, out, cv::COLOR_RGB2BGR, 0);
    return 0;
}

} // namespace

cv::Mat get_data(int rows, int cols, char* data)
{
    VEL_LOG_INFO("Convert image from buffer to Mat object. g_retrieve_idx: %ld", 0L);
    cv::Mat copy;
    cv::Mat(rows, cols, CV_8UC3, data).copyTo(copy);
    return copy;
}

int v4l2_get_mat(cv::Mat& out, Image image)
{
    if (convert_to_bgr(out, image) != 0) return -1;
    out = out(cv::Rect(0, 0, image.width, image.height));
    return 0;
}

int v4l2_get_mat_ori(cv::Mat& out, Image image)
{
    return convert_to_bgr(out, image);
}

void init_share_mem_mp4(StreamIns& ins)
{
    // Several streams may start at once; the first one's size stays.
    static std::mutex mutex;
    const std::lock_guard lock(mutex);
    if (g_share_memory_mp4.state == kInitialised) return;
    const int32_t bytes = ins.width > 0 && ins.height > 0 ? frame_bytes(ins) : 0;
    if (bytes <= 0) {
        VEL_LOG_ERROR("A shared frame of %d x %d pixels cannot be made.", ins.width, ins.height);
        return;
    }
    g_share_memory_mp4.data.assign(static_cast<std::size_t>(bytes), kMidGrey);
    g_share_memory_mp4.width = ins.width;
    g_share_memory_mp4.height = ins.height;
    g_share_memory_mp4.fps = kSharedRate;
    g_share_memory_mp4.state = kInitialised;
}

} // namespace Quorvis::VelStream
