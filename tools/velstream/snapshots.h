// PNG files of a stream's frames.
#pragma once

#include "velstream.h"

#include <cstdint>
#include <filesystem>
#include <string>

namespace velstream::tool {

/// Writes the first frame, and then every 30th, as ID-000001.png (the frame's number), up to a
/// limit. Used on the stream's own thread, which waits for the file.
class Snapshots {
public:
    /// @throws UserError when the folder cannot be made or written to.
    Snapshots(std::filesystem::path folder, std::string stream_id);
    void offer(const Quorvis::VelStream::Image& image);

private:
    std::filesystem::path folder_;
    std::string stream_id_;
    int64_t next_frame_ = 0;
    int written_ = 0;
};

/// Makes the folder and tries to write into it. @throws UserError
void prepare_snapshot_folder(const std::filesystem::path& folder);

} // namespace velstream::tool
