// A file's encoded video and sound in memory, ready to be sent again and again.
#pragma once

#include "peer_handles.h"

#include <string>
#include <vector>

namespace peers {

struct Track {
    CapsPtr caps; ///< null: the file has no such track
    std::vector<BufferPtr> units;
};

struct Clip {
    Track video; ///< H.264 or H.265, byte-stream, one access unit a buffer, parameter sets before each key frame
    Track audio; ///< AAC frames
    GstClockTime length = 0; ///< of the video: what one turn of a loop takes

    bool is_h265() const;
};

/// Reads an MP4 file. Time stamps start at 0.
/// @return an empty text, or why there is nothing to play.
std::string load_clip(const std::string& path, Clip& clip);

} // namespace peers
