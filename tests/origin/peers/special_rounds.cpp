#include "special_rounds.h"

#include "PrivateMounts.h"
#include "Scene.h"
#include "Segments.h"
#include "SpliceStream.h"
#include "StreamCall.h"

#include <array>
#include <utility>

namespace velstream::testing {

namespace {

using Round = std::string (*)(const std::vector<std::string>&);

std::string push_access_units(const std::vector<std::string>& arguments)
{
    const std::vector<AccessUnit> units = read_access_units(arguments.at(1));
    FrameLog frames;
    const SpliceStream stream("round", frames.callback());
    if (stream.start_result() != 0) return "the stream does not start";
    for (const AccessUnit& unit : units) {
        if (stream.push(unit) != 0) return "an access unit is refused";
    }
    if (!frames.wait_for(5)) return "no frames";
    return stream.stop() == 0 ? "" : "the stream is not stopped";
}

std::string record_segments(const std::vector<std::string>& /*arguments*/)
{
    StreamCall call(configured_stream("cam"));
    if (!wait_for_segments("cam", 1)) return "no segment";
    return stop_ends_call(call, "cam") ? "" : "the call goes on after the stop";
}

std::string compose_cameras(const std::vector<std::string>& arguments)
{
    Quorvis::VelStream::VelStreamEngine engine(Quorvis::VelStream::SCENARIO_COMPOSE_ONLY);
    for (std::size_t camera = 0; camera < kCameraColours.size(); ++camera) {
        Task task = camera_task(camera, arguments.at(1), "h264");
        if (engine.add_task(Quorvis::VelStream::TASK_ADD_INPUT, task) != 0) return "a camera is refused";
    }
    Task output = output_task("File", arguments.at(2));
    if (engine.add_task(Quorvis::VelStream::TASK_ADD_OUTPUT, output) != 0) return "the output is refused";
    EngineCall call(engine);
    if (!wait_for_fragments(arguments.at(2), 1, call)) return "nothing is recorded";
    engine.stop();
    return call.wait_for_end() ? "" : "the composition goes on after the stop";
}

constexpr std::array<std::pair<const char*, Round>, 3> kRounds{
    {{"splice", push_access_units}, {"rolling", record_segments}, {"compose", compose_cameras}}};

Round round_of(const std::string& kind)
{
    for (const auto& [name, round] : kRounds) {
        if (kind == name) return round;
    }
    return nullptr;
}

} // namespace

bool is_special_round(const std::string& kind)
{
    return round_of(kind) != nullptr;
}

std::string prepare_round(const std::string& kind)
{
    return kind == "rolling" ? enter_private_mounts() : "";
}

std::string run_special_round(const std::vector<std::string>& arguments)
{
    return round_of(arguments.at(0))(arguments);
}

} // namespace velstream::testing
