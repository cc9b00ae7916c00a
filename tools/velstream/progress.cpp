#include "progress.h"

#include <cstddef>
#include <cstdio>

#include <sys/ioctl.h>
#include <unistd.h>

namespace velstream::tool {

namespace {

constexpr double kSilence = 3.0; // seconds without a frame that are worth a word
constexpr std::chrono::milliseconds kPlainInterval{5000};
constexpr const char* kStartOfEmptyLine = "\r\033[K";

/// A line that wraps cannot be written over.
std::size_t terminal_columns()
{
    winsize size{};
    const bool is_known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
    return is_known ? size.ws_col - 1U : 79U;
}

} // namespace

std::string describe(const StreamSession& session)
{
    char text[128];
    if (!session.has_callback()) return session.id() + ": recording";
    std::snprintf(text, sizeof text, ": %llu frames, %dx%d, %.1f frames/s",
                  static_cast<unsigned long long>(session.frames()), session.width(), session.height(), session.rate());
    std::string line = session.id() + text;
    if (session.has_callback() && !session.is_ended() && session.silent_seconds() > kSilence) {
        std::snprintf(text, sizeof text, ", no frame for %.0f s", session.silent_seconds());
        line += text;
    }
    return line;
}

Progress::Progress()
    : is_terminal_(isatty(STDERR_FILENO) != 0), next_(std::chrono::steady_clock::now() + kPlainInterval)
{
}

void Progress::show(const Sessions& sessions)
{
    const auto now = std::chrono::steady_clock::now();
    if (!is_terminal_ && now < next_) return;
    next_ = now + kPlainInterval;
    std::string line;
    for (const auto& session : sessions)
        line += (line.empty() ? "" : "  |  ") + describe(*session);
    if (is_terminal_)
        std::fprintf(stderr, "%s%s", kStartOfEmptyLine, line.substr(0, terminal_columns()).c_str());
    else
        std::fprintf(stderr, "%s\n", line.c_str());
    std::fflush(stderr);
}

void Progress::finish() const
{
    if (is_terminal_) std::fputs(kStartOfEmptyLine, stderr);
}

} // namespace velstream::tool
