#include "progress_line.h"

#include <cstddef>
#include <cstdio>

#include <sys/ioctl.h>
#include <unistd.h>

namespace velstream::tool {

namespace {

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

ProgressLine::ProgressLine(std::chrono::milliseconds interval)
    : is_terminal_(isatty(STDERR_FILENO) != 0), interval_(is_terminal_ ? interval : kPlainInterval),
      next_(Clock::now() + (is_terminal_ ? std::chrono::milliseconds(0) : kPlainInterval))
{
}

bool ProgressLine::is_due() const
{
    return Clock::now() >= next_;
}

void ProgressLine::show(const std::string& text)
{
    if (!is_due()) return;
    next_ = Clock::now() + interval_;
    if (is_terminal_)
        std::fprintf(stderr, "%s%s", kStartOfEmptyLine, text.substr(0, terminal_columns()).c_str());
    else
        std::fprintf(stderr, "%s\n", text.c_str());
    std::fflush(stderr);
}

void ProgressLine::finish() const
{
    if (is_terminal_) std::fputs(kStartOfEmptyLine, stderr);
}

} // namespace velstream::tool
