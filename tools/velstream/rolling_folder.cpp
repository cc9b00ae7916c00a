#include "rolling_folder.h"

#include "configuration.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <vector>

namespace velstream::tool {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kRing = 100; // segments that a recording keeps
constexpr const char* kSetAside = "earlier-";

std::vector<fs::path> segment_files(const fs::path& folder)
{
    std::vector<fs::path> files;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) {
        std::error_code unread;
        if (entry.path().extension() == ".mp4" && entry.is_regular_file(unread)) files.push_back(entry.path());
    }
    return files;
}

std::vector<fs::path> set_aside_files(const fs::path& folder)
{
    std::vector<fs::path> files;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) {
        if (entry.path().filename().string().rfind(kSetAside, 0) != 0) continue;
        const std::vector<fs::path> part = segment_files(entry.path());
        files.insert(files.end(), part.begin(), part.end());
    }
    return files;
}

/// The ring may take a file away meanwhile.
SegmentCount count(const std::vector<fs::path>& files)
{
    SegmentCount sum;
    for (const fs::path& file : files) {
        std::error_code error;
        const uintmax_t size = fs::file_size(file, error);
        if (error) continue;
        ++sum.files;
        sum.bytes += size;
    }
    return sum;
}

fs::path new_folder_for(const fs::path& folder)
{
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", &local);
    fs::path path = folder / (std::string(kSetAside) + stamp);
    for (int number = 1; fs::exists(path); ++number)
        path = folder / (std::string(kSetAside) + stamp + "-" + std::to_string(number));
    return path;
}

} // namespace

SegmentCount RollingFolder::segments() const
{
    return count(segment_files(path_));
}

SegmentCount RollingFolder::set_aside() const
{
    return count(set_aside_files(path_));
}

void RollingFolder::move_aside() const
{
    const std::vector<fs::path> files = segment_files(path_);
    if (files.empty()) return;
    try {
        const fs::path folder = new_folder_for(path_);
        fs::create_directory(folder);
        for (const fs::path& file : files)
            fs::rename(file, folder / file.filename());
        std::fprintf(stderr, "velstream: %zu segments set aside in %s.\n", files.size(), folder.c_str());
    } catch (const fs::filesystem_error& error) {
        throw UserError("The segments in " + path_.string() +
                        " cannot be set aside, and a new recording would delete them: " + error.code().message() + ".");
    }
    thin_out();
}

void RollingFolder::thin_out() const
{
    std::vector<fs::path> files = set_aside_files(path_);
    if (files.size() <= kRing) return;
    std::sort(files.begin(), files.end(), [](const fs::path& a, const fs::path& b) {
        std::error_code error;
        return fs::last_write_time(a, error) < fs::last_write_time(b, error);
    });
    files.resize(files.size() - kRing);
    for (const fs::path& file : files) {
        std::error_code error;
        fs::remove(file, error);
        fs::remove(file.parent_path(), error); // once it is empty
    }
    std::fprintf(stderr, "velstream: the %zu oldest segments that were set aside are deleted: %zu are kept.\n",
                 files.size(), kRing);
}

} // namespace velstream::tool
