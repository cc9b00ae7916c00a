// What "velstream run" shows while streams run.
#pragma once

#include "stream_session.h"

#include <memory>
#include <string>
#include <vector>

namespace velstream::tool {

using Sessions = std::vector<std::unique_ptr<StreamSession>>;

/// "id: N frames, WxH, N.N frames/s", and for a running stream since when no frame has come, if that is a while.
std::string describe(const StreamSession& session);

/// The streams' descriptions beside one another.
std::string describe(const Sessions& sessions);

} // namespace velstream::tool
