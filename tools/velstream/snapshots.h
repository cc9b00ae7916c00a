// PNG files of a stream's frames.
#pragma once

#include "velstream.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace velstream::tool {

/// Writes the first frame, and then every 30th, as ID-000001.png (the frame's number), up to a limit. A thread of its
/// own writes: the stream waits only for a copy of the frame, or for the writer when it is several pictures behind.
class Snapshots {
public:
    /// @param folder  there and writable: see prepare_snapshot_folder().
    Snapshots(std::filesystem::path folder, const std::string& stream_id);
    /// Returns once every picture is written.
    ~Snapshots();
    Snapshots(const Snapshots&) = delete;
    Snapshots& operator=(const Snapshots&) = delete;

    /// Takes a copy when a picture is due. One call at a time.
    /// @param number  of the frame among those that the tool counts, from 1.
    void offer(const Quorvis::VelStream::Image& image, int64_t number);

private:
    struct Picture {
        std::filesystem::path path;
        int width = 0;
        int height = 0;
        std::vector<uint8_t> rgb; ///< rows of 3 x width bytes
    };
    bool is_due(const Quorvis::VelStream::Image& image, int64_t number) const;
    void write_pictures();

    std::filesystem::path folder_;
    std::string file_prefix_;
    // Of the thread that offers:
    int64_t next_frame_ = 0;
    int taken_ = 0;

    std::mutex mutex_; ///< guards the following
    std::condition_variable changed_;
    std::deque<Picture> waiting_;
    bool is_closed_ = false;
    std::thread writer_;
};

/// Makes the folder. @throws UserError when it cannot be made or written to
void prepare_snapshot_folder(const std::filesystem::path& folder);

} // namespace velstream::tool
