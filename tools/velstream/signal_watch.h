// Ctrl+C for commands that run streams.
#pragma once

#include "stream_session.h"

#include <atomic>
#include <csignal>

namespace velstream::tool {

/// Waits for SIGINT and SIGTERM on a thread of its own; the second one ends the process. To be made before the process
/// has another thread, and to live as long as it.
class SignalWatch {
public:
    explicit SignalWatch(Waker& waker);
    bool is_asked() const { return is_asked_; }

private:
    void watch();

    Waker& waker_;
    sigset_t signals_{};
    std::atomic<bool> is_asked_{false};
};

} // namespace velstream::tool
