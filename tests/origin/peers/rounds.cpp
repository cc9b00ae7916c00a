#include "rounds.h"

#include "RecordedLog.h"
#include "StreamBuild.h"
#include "StreamCall.h"
#include "velstream.h"

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
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
    }
    for (const std::string& line : log_lines()) {
        if (line.front() != 'I') std::fprintf(stderr, "round: %s\n", line.c_str());
    }
    std::printf("frames=%ld\nresult=%d\n", static_cast<long>(call.frames()), call.result().value_or(-100));
    std::fflush(stdout);
    return EXIT_SUCCESS;
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
    // input, its address, output, its address, frames before the stop or 0; for the leak tracer "deinit", or "keep" for
    // something to find
    gst_init(nullptr, nullptr);
    const StreamCall::Start start = arguments.at(2) == "rtmp" ? stream_to_rtmp(arguments.at(1), arguments.at(3))
                                                              : stream_of(arguments.at(0), arguments.at(1),
                                                                          output_of(arguments.at(2)), arguments.at(3));
    const int status = run_stream(start, std::stoi(arguments.at(4)));
    if (arguments.size() > 5 && arguments[5] == "keep") gst_element_factory_make("fakesink", nullptr);
    if (arguments.size() > 5) gst_deinit();
    return status;
}

} // namespace velstream::testing
