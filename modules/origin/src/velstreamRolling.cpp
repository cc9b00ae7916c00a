#include "velstreamRolling.h"

#include "Log.h"
#include "velstream.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <system_error>
#include <thread>

namespace Quorvis::VelStream {

namespace {

constexpr int kLineSize = 512;
/// So long the recorder may take to complete the segments of the last seconds.
constexpr std::int64_t kSegmentPause = 5;

void sleep_seconds(std::int64_t seconds)
{
    if (seconds <= 0) return;
    timespec left{static_cast<std::time_t>(seconds), 0};
    while (nanosleep(&left, &left) == -1 && errno == EINTR) {
    }
}

} // namespace

std::string shell_word(const std::string& stream_id)
{
    constexpr const char* kPlain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.-";
    if (stream_id.find_first_not_of(kPlain) == std::string::npos) return stream_id;
    std::string word = "'";
    for (const char letter : stream_id) {
        if (letter == '\'')
            word += "'\\''";
        else
            word += letter;
    }
    return word + "'";
}

bool is_concate_video_running(const std::string& stream_id)
{
    const std::string command =
        "ps -ef | grep concate_video.py | grep -v grep | grep  " + shell_word(stream_id); // both blanks are meant
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) {
        perror("popen");
        return false;
    }
    char line[kLineSize];
    const bool is_running = fgets(line, kLineSize, pipe) != nullptr;
    pclose(pipe);
    return is_running;
}

int merge_rolling_save_video(std::string stream_id, std::string args, int seconds)
{
    sleep_seconds(seconds + kSegmentPause);
    const std::string command =
        "python3 /usr/local/bin/concate_video.py " + args + " --stream-id " + shell_word(stream_id);
    const int status = std::system(command.c_str());
    VEL_LOG_INFO("get_rolling_save_video - rolling save command: %s", command.c_str());
    if (status == -1) VEL_LOG_ERROR("get_rolling_save_video - Error calling system");
    return 0;
}

int get_rolling_save_video(std::string stream_id, std::string args, int seconds)
{
    // A second merge is started all the same: each writes a file of its own.
    if (is_concate_video_running(stream_id))
        VEL_LOG_WARN("get_rolling_save_video - concate_video.py is already running for stream_id: %s",
                     stream_id.c_str());
    try {
        std::thread(merge_rolling_save_video, stream_id, args, seconds).detach();
    } catch (const std::system_error& error) {
        VEL_LOG_ERROR("get_rolling_save_video - no thread for stream_id: %s (%s)", stream_id.c_str(), error.what());
    }
    return 0;
}

} // namespace Quorvis::VelStream
