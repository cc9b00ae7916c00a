// Joining the segments of a rolling recording through the merge script.
#pragma once

#include <string>

namespace Quorvis::VelStream {

/// True when a merge for this stream runs anywhere on the machine.
bool is_concate_video_running(const std::string& stream_id);

/**
 * Waits seconds + 5 seconds, runs the merge script and waits for it.
 * @param args  the script's options, handed to the shell as they are.
 * @return 0, whatever came of it.
 */
int merge_rolling_save_video(std::string stream_id, std::string args, int seconds);

/// The id as one word of a shell command: as it is when it holds letters, digits, "_", "." and "-" only, else quoted.
std::string shell_word(const std::string& stream_id);

} // namespace Quorvis::VelStream
