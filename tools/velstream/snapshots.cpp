#include "snapshots.h"

#include "configuration.h"

#include <png.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include <unistd.h>

namespace velstream::tool {

namespace {

constexpr int kMostPictures = 100;
constexpr int64_t kFramesApart = 30;
constexpr std::size_t kMostWaiting = 4; // 1080p: 6 MB each

std::size_t row_bytes(int width)
{
    return static_cast<std::size_t>(width) * 3;
}

/// Bytes from one row to the next: a device may pad its rows.
std::size_t stride_of(const Quorvis::VelStream::Image& image)
{
    return row_bytes(std::max(image.width, image.alignedWidth));
}

/// The visible part in rows without padding.
std::vector<uint8_t> tight_rows(const Quorvis::VelStream::Image& image)
{
    std::vector<uint8_t> rgb;
    rgb.reserve(row_bytes(image.width) * static_cast<std::size_t>(image.height));
    for (int y = 0; y < image.height; ++y) {
        const uint8_t* row = image.data + static_cast<std::size_t>(y) * stride_of(image);
        rgb.insert(rgb.end(), row, row + row_bytes(image.width));
    }
    return rgb;
}

void write_png(const std::filesystem::path& path, int width, int height, const uint8_t* rgb)
{
    png_image picture{};
    picture.version = PNG_IMAGE_VERSION;
    picture.width = static_cast<png_uint_32>(width);
    picture.height = static_cast<png_uint_32>(height);
    picture.format = PNG_FORMAT_RGB;
    picture.flags = PNG_IMAGE_FLAG_FAST;
    if (png_image_write_to_file(&picture, path.c_str(), 0, rgb, width * 3, nullptr) == 0)
        std::fprintf(stderr, "velstream: %s cannot be written: %s\n", path.c_str(), picture.message);
}

/// An id may hold what a file name may not.
std::string file_name_of(const std::string& stream_id)
{
    std::string name = stream_id;
    for (char& c : name) {
        if (c == '/' || c == '\0') c = '_';
    }
    return name;
}

} // namespace

void prepare_snapshot_folder(const std::filesystem::path& folder)
{
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error || access(folder.c_str(), W_OK | X_OK) != 0)
        throw UserError("Folder " + folder.string() + " for snapshots cannot be made or written to.");
}

Snapshots::Snapshots(std::filesystem::path folder, const std::string& stream_id)
    : folder_(std::move(folder)), file_prefix_(file_name_of(stream_id)), writer_([this] { write_pictures(); })
{
}

Snapshots::~Snapshots()
{
    {
        const std::lock_guard lock(mutex_);
        is_closed_ = true;
        changed_.notify_all();
    }
    writer_.join();
}

bool Snapshots::is_due(const Quorvis::VelStream::Image& image, int64_t number) const
{
    return taken_ < kMostPictures && number >= next_frame_ && image.width > 0 && image.height > 0 &&
           image.size >= stride_of(image) * static_cast<std::size_t>(image.height);
}

void Snapshots::offer(const Quorvis::VelStream::Image& image, int64_t number)
{
    if (!is_due(image, number)) return;
    next_frame_ = number + kFramesApart;
    ++taken_;
    char suffix[32];
    std::snprintf(suffix, sizeof suffix, "-%06lld.png", static_cast<long long>(number));
    Picture picture{folder_ / (file_prefix_ + suffix), image.width, image.height, tight_rows(image)};
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return waiting_.size() < kMostWaiting; });
    waiting_.push_back(std::move(picture));
    changed_.notify_all();
}

void Snapshots::write_pictures()
{
    std::unique_lock lock(mutex_);
    while (true) {
        changed_.wait(lock, [this] { return is_closed_ || !waiting_.empty(); });
        if (waiting_.empty()) return;
        const Picture picture = std::move(waiting_.front());
        waiting_.pop_front();
        changed_.notify_all();
        lock.unlock();
        write_png(picture.path, picture.width, picture.height, picture.rgb.data());
        lock.lock();
    }
}

} // namespace velstream::tool
