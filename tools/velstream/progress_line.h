// What a command says of itself while it runs.
#pragma once

#include <chrono>
#include <string>

namespace velstream::tool {

/// On standard error: one line that is written over on a terminal, plain lines now and then elsewhere.
class ProgressLine {
public:
    static constexpr std::chrono::milliseconds kInterval{200};

    /// @param interval  between two texts on a terminal.
    explicit ProgressLine(std::chrono::milliseconds interval = kInterval);
    /// False while it is too early for another text.
    bool is_due() const;
    /// Shows a text without its end of line when one is due.
    void show(const std::string& text);
    /// Leaves a terminal's line empty.
    void finish() const;

private:
    using Clock = std::chrono::steady_clock;

    bool is_terminal_;
    std::chrono::milliseconds interval_;
    Clock::time_point next_;
};

} // namespace velstream::tool
