// What "velstream run" shows while streams run.
#pragma once

#include "stream_session.h"

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace velstream::tool {

using Sessions = std::vector<std::unique_ptr<StreamSession>>;

/// "id: N frames, WxH, N.N frames/s", and for a running stream since when no frame has come, if that is a while.
std::string describe(const StreamSession& session);

/// On standard error: one line that is written over on a terminal, plain lines now and then elsewhere.
class Progress {
public:
    static constexpr std::chrono::milliseconds kInterval{200}; ///< between two calls of show()

    Progress();
    void show(const Sessions& sessions);
    /// Leaves a terminal's line empty.
    void finish() const;

private:
    bool is_terminal_;
    std::chrono::steady_clock::time_point next_;
};

} // namespace velstream::tool
