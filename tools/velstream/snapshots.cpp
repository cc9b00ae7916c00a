#include "snapshots.h"

#include "configuration.h"

#include <png.h>

#include <cstdio>
#include <utility>

#include <unistd.h>

namespace velstream::tool {

namespace {

constexpr int kMostPictures = 100;
constexpr int64_t kFramesApart = 30;

bool write_png(const std::filesystem::path& path, const Quorvis::VelStream::Image& frame)
{
    png_image picture{};
    picture.version = PNG_IMAGE_VERSION;
    picture.width = static_cast<png_uint_32>(frame.width);
    picture.height = static_cast<png_uint_32>(frame.height);
    picture.format = PNG_FORMAT_RGB;
    picture.flags = PNG_IMAGE_FLAG_FAST;
    return png_image_write_to_file(&picture, path.c_str(), 0, frame.data, frame.width * 3, nullptr) != 0;
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

Snapshots::Snapshots(std::filesystem::path folder, std::string stream_id)
    : folder_(std::move(folder)), stream_id_(file_name_of(stream_id))
{
}

void Snapshots::offer(const Quorvis::VelStream::Image& image)
{
    if (image.frameIndex < next_frame_ || written_ >= kMostPictures) return;
    next_frame_ = image.frameIndex + kFramesApart;
    if (image.size < static_cast<uint64_t>(image.width) * static_cast<uint64_t>(image.height) * 3) return;
    char number[32];
    std::snprintf(number, sizeof number, "-%06lld.png", static_cast<long long>(image.frameIndex));
    const std::filesystem::path path = folder_ / (stream_id_ + number);
    if (!write_png(path, image)) std::fprintf(stderr, "velstream: %s cannot be written\n", path.c_str());
    ++written_;
}

} // namespace velstream::tool
