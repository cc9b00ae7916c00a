// What an engine keeps of the tasks that describe its composition.
#pragma once

#include "StreamRecords.h"
#include "velstream.h"

#include <string>
#include <unordered_map>

namespace Quorvis::VelStream {

struct VelStreamEngine::Impl {
    using Parameters = std::unordered_map<std::string, std::string>;

    explicit Impl(ScenarioType chosen) : scenario(chosen) {}

    /// @return 0 the parameters that the task needs are there; 1 a kind with nothing to add; -1 not so.
    int validate_required_param(TaskType type, Parameters& params);

    /// Results and exceptions as those of the engine's add_task().
    int add_task(TaskType type, Parameters& params);

    ScenarioType scenario;
    StreamProperty property;
};

} // namespace Quorvis::VelStream
