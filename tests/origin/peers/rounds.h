// Rounds that each need a process of their own: `running` is process-wide and never set again.
#pragma once

#include "Command.h"

#include <string>
#include <vector>

namespace velstream::testing {

/// Runs one round in a process of its own: this executable, started again.
CommandResult run_round(const std::vector<std::string>& arguments);

/// Runs rounds, some of them at the same time, and holds each to have gone well. @return their results, in order.
std::vector<CommandResult> run_rounds(const std::vector<std::vector<std::string>>& rounds);

/// The process of a round; `arguments` are those of run_round(). @return its exit status, 0 when all went well.
int be_round(const std::vector<std::string>& arguments);

} // namespace velstream::testing
