// Rounds that each need a process of their own: `running` is process-wide and never set again.
#pragma once

#include "Command.h"

#include <string>
#include <vector>

namespace velstream::testing {

/**
 * Runs one round in a process of its own: this executable, started again.
 * @param arguments  input ("file", "rtsp", "rtmp", or "configured" and "split" for the streams of a configuration
 * file), its address, output ("none", "mp4", "rtsp", "wayland", "rtmp"), its address, frames before the stop or 0 for
 * the stream's own end; or those of run_special_round(). Behind them, for GStreamer's leak tracer, "deinit", or "keep"
 * for something to find.
 */
CommandResult run_round(const std::vector<std::string>& arguments);

/// Runs rounds, some of them at the same time, and holds each to have gone well. @return their results, in order.
std::vector<CommandResult> run_rounds(const std::vector<std::vector<std::string>>& rounds);

/// The process of a round; `arguments` are those of run_round(). @return its exit status, 0 when all went well.
int be_round(const std::vector<std::string>& arguments);

} // namespace velstream::testing
