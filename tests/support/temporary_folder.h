// A folder of a test's own.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

namespace velstream::testing {

/// A new folder, removed with everything in it.
class TemporaryFolder {
public:
    TemporaryFolder()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "velstream-test-XXXXXX").string();
        if (!mkdtemp(pattern.data())) throw std::runtime_error("no temporary folder");
        path_ = pattern;
    }
    ~TemporaryFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::filesystem::path& path() const { return path_; }
    /// Path of a file in the folder; the file need not exist.
    std::string file(std::string_view name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

} // namespace velstream::testing
