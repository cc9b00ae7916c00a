#include "rounds.h"

#include "RecordedLog.h"
#include "StreamBuild.h"
#include "StreamCall.h"
#include "special_rounds.h"
#include "velstream.h"

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

namespace velstream::testing {

namespace {

using namespace Quorvis::VelStream;

constexpr int kAtOnce = 5;

int complain(const std::string& text)
{
    std::fprintf(stderr, "round: %s\n", text.c_str());
    return EXIT_FAILURE;
}

/// What a round runs, as its arguments name it.
StreamCall::Start stream_of(const std::string& input, const std::string& address, StreamType output,
                            const std::string& output_address)
{
    return [=](FrameCallback& callback) {
        if (input == "file") return start_stream_input_file(address, callback, output, output_address, 0, 0, "round");
        if (input == "configured") return start_stream("round", callback);
        if (input == "split") {
            FrameCallback second = [](const Image&) { return int8_t{0}; };
            return start_split_stream("round", callback, "second", second);
        }
        if (input == "rtmp") return start_stream_input_rtmp(address, callback, output, output_address, 0, 0, "round");
        return start_stream_input_rtsp(address, callback, output, output_address, 0, 0, "round");
    };
}

StreamCall::Start stream_to_rtmp(const std::string& path, const std::string& url)
{
    return [=](FrameCallback& callback) {
        // Applications reach this output only by themselves.
        StreamInputFile input(path, "round");
        StreamOutputRtmpsink output(url);
        output.set_stream_id("round");
        return startStream(&input, &output, "round", callback);
    };
}

StreamType output_of(const std::string& name)
{
    if (name == "mp4") return STREAM_TYPE_MP4;
    if (name == "rtsp") return STREAM_TYPE_RTSP;
    if (name == "wayland") return STREAM_TYPE_WAYLAND;
    return STREAM_TYPE_NONE;
}

/// Runs a stream to its end, or stops it after a number of frames when that is not 0, and prints what the callback saw.
int run_stream(StreamCall::Start start, int frames)
{
    StreamCall call(std::move(start));
    if (frames > 0) {
        if (!call.wait_for_frames(frames)) return complain("no frames");
        gstreamer_pipeline_shutdown("round");
        if (!call.wait_for_end(kEndAfterStop)) return complain("the call goes on after the stop");
    } else if (!call.wait_for_end()) {
        return complain("the stream does not end");
    } else if (call.frames() == 0) {
        return complain("no frames");
    }
    for (const std::string& line : log_lines()) {
        if (line.front() != 'I') std::fprintf(stderr, "round: %s\n", line.c_str());
    }
    std::printf("frames=%ld\nresult=%d\n", static_cast<long>(call.frames()), call.result().value_or(-100));
    std::fflush(stdout);
    return EXIT_SUCCESS;
}

int run_ordinary(const std::vector<std::string>& arguments)
{
    const StreamCall::Start start = arguments.at(2) == "rtmp" ? stream_to_rtmp(arguments.at(1), arguments.at(3))
                                                              : stream_of(arguments.at(0), arguments.at(1),
                                                                          output_of(arguments.at(2)), arguments.at(3));
    return run_stream(start, std::stoi(arguments.at(4)));
}

int run_special(const std::vector<std::string>& arguments)
{
    const std::string failure = run_special_round(arguments);
    return failure.empty() ? EXIT_SUCCESS : complain(failure);
}

bool is_configured(const std::string& kind)
{
    constexpr std::array kKinds{"configured", "split", "rolling"};
    return std::find(kKinds.begin(), kKinds.end(), kind) != kKinds.end();
}

/// Points both readers to the round's configuration file.
void configure(const std::string& path)
{
    static const std::string kept = path;
    g_stream_conf_file = kept.c_str();
    stream_conf_file = kept.c_str();
}

/// GLib's own and the library's, which stay for the life of the process.
bool is_helper(const std::string& thread)
{
    constexpr std::array kHelpers{"gmain", "gdbus", "pool-spawner", "dconf worker", "vel-interrupt"};
    return std::find(kHelpers.begin(), kHelpers.end(), thread) != kHelpers.end();
}

/// Names of the threads beside the main one and the helpers, each behind a blank.
std::string threads_of_streams()
{
    std::string names;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name; // empty for one that has just ended
        std::getline(std::ifstream(task.path() / "comm"), name);
        if (!name.empty() && !is_helper(name) && task.path().filename() != std::to_string(getpid()))
            names += " " + name;
    }
    return names;
}

/// A source that waited in a read of its own when its stream ended comes down behind the call. GStreamer must not be
/// shut down before.
/// @return the names of the threads that are left, or an empty text.
std::string wait_until_streams_are_gone()
{
    const auto end = std::chrono::steady_clock::now() + kPatience;
    std::string left = threads_of_streams();
    while (!left.empty() && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10)); // between two looks
        left = threads_of_streams();
    }
    return left;
}

} // namespace

CommandResult run_round(const std::vector<std::string>& arguments)
{
    std::vector<std::string> command{std::filesystem::read_symlink("/proc/self/exe"), "--round"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return run_command(command);
}

std::vector<CommandResult> run_rounds(const std::vector<std::vector<std::string>>& rounds)
{
    std::vector<CommandResult> results(rounds.size());
    std::atomic<std::size_t> next = 0;
    std::vector<std::thread> threads;
    for (int k = 0; k < kAtOnce; ++k) {
        threads.emplace_back([&] {
            for (std::size_t number = next++; number < rounds.size(); number = next++)
                results[number] = run_round(rounds[number]);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (std::size_t number = 0; number < results.size(); ++number)
        EXPECT_EQ(results[number].status, 0) << "round " << number << ": " << results[number].output;
    return results;
}

int be_round(const std::vector<std::string>& arguments)
{
    const std::string failure = prepare_round(arguments.at(0));
    if (!failure.empty()) return complain(failure);
    gst_init(nullptr, nullptr);
    g_thread_pool_set_max_unused_threads(0); // one that waits for work would look like one that is left
    if (is_configured(arguments.at(0))) configure(arguments.at(1));
    const int status = is_special_round(arguments.at(0)) ? run_special(arguments) : run_ordinary(arguments);
    const std::string& after = arguments.back();
    if (after == "keep") gst_element_factory_make("fakesink", nullptr);
    if (after != "keep" && after != "deinit") return status;
    const std::string left = wait_until_streams_are_gone();
    if (!left.empty()) return complain("threads of the stream are left:" + left);
    gst_deinit();
    return status;
}

} // namespace velstream::testing
