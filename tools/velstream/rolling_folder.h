// The folder that a rolling recording fills.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

namespace velstream::tool {

struct SegmentCount {
    std::size_t files = 0;
    uintmax_t bytes = 0;
};

class RollingFolder {
public:
    explicit RollingFolder(const std::string& stream_id) : path_("/tmp/rolling/" + stream_id) {}

    const std::filesystem::path& path() const { return path_; }
    /// The segments of the present recording, the one that is being written included.
    SegmentCount segments() const;
    /// Those that were set aside.
    SegmentCount set_aside() const;
    /// Moves the segments of the last recording into a folder beside them, named after the time, so that a new one does
    /// not delete them. Of what was set aside altogether the newest segments stay, as many as a recording has at most.
    /// Says on standard error what it does. @throws UserError when they cannot be moved
    void move_aside() const;

private:
    void thin_out() const;

    std::filesystem::path path_;
};

} // namespace velstream::tool
