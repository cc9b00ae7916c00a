#include "rounds.h"

#include "LiveInput.h"
#include "StreamBuild.h"
#include "recording_log.h"
#include "silent_server.h"

#include <gst/gst.h>
#include <unistd.h>

#include <barrier>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <thread>

namespace velstream::testing {

namespace {

using Quorvis::VelStream::send_eos;
using Quorvis::VelStream::StreamOutputMp4sink;

constexpr int kStreams = 8;

int complain(const std::string& text)
{
    std::fprintf(stderr, "round: %s\n", text.c_str());
    return EXIT_FAILURE;
}

int check_stop(StreamCall& call, const std::string& id)
{
    const auto stopped = stop_ends_call(call, id);
    return stopped ? EXIT_SUCCESS : complain(stopped.message());
}

/// One live stream, stopped after a number of frames.
int stop_live(int frames)
{
    StreamCall call(live_stream("live"));
    if (!call.wait_for_frames(frames)) return complain("no frames");
    return check_stop(call, "live");
}

/// One live stream, stopped a time after its registration.
int stop_early(int delay_ms)
{
    StreamCall call(live_stream("early"));
    if (!RecordingLog::wait_for("Registration pipeline for stream id: early")) return complain("not registered");
    std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms)); // what the rounds vary
    return check_stop(call, "early");
}

StreamCall::Start rtsp_stream(const std::string& url)
{
    return [url](FrameCallback& callback) {
        return Quorvis::VelStream::start_stream_input_rtsp(url, callback, Quorvis::VelStream::STREAM_TYPE_NONE, "", 0,
                                                           0, "camera");
    };
}

/// An RTSP stream, stopped after a number of frames, or while it connects when that is 0. Its server stalls before the
/// stop when its process is given.
int stop_rtsp(const std::string& url, int frames, pid_t stalled_server = 0)
{
    StreamCall call(rtsp_stream(url));
    if (!RecordingLog::wait_for("Registration pipeline for stream id: camera")) return complain("not registered");
    if (!call.wait_for_frames(frames)) return complain("no frames");
    if (stalled_server) kill(stalled_server, SIGSTOP);
    return check_stop(call, "camera");
}

/// An RTSP stream whose server never answers.
int stop_rtsp_silent()
{
    SilentServer server;
    StreamCall call(rtsp_stream("rtsp://127.0.0.1:" + std::to_string(server.port()) + "/test"));
    if (!server.take_request(kPatience)) return complain("no client");
    return check_stop(call, "camera");
}

/// A live stream into an MP4 file, stopped after a number of frames. Prints the callback's frames.
int record(const std::string& path, int frames)
{
    StreamCall call(live_stream("recorded", {}, std::make_shared<StreamOutputMp4sink>(path, 320, 240)));
    if (!call.wait_for_frames(frames)) return complain("no frames");
    if (check_stop(call, "recorded") != EXIT_SUCCESS) return EXIT_FAILURE;
    std::printf("frames=%ld\n", static_cast<long>(call.frames()));
    return EXIT_SUCCESS;
}

/// Streams that are stopped and streams that end by themselves; then GStreamer says what is left.
int release()
{
    for (int number = 0; number < 20; ++number) {
        StreamCall call(live_stream("released", {.frames = number % 2 ? -1 : 3}));
        // On "ub2404" the first stop ends the later streams early.
        call.wait_for_frames(2);
        if (check_stop(call, "released") != EXIT_SUCCESS) return EXIT_FAILURE;
    }
    gst_deinit();
    return EXIT_SUCCESS;
}

/// Keeps one pipeline, to see that it is noticed.
int keep_a_pipeline()
{
    gst_pipeline_new("kept");
    gst_deinit();
    return EXIT_SUCCESS;
}

/// Starts and stops one of the streams: after as many frames as its number says, the first of them at once.
bool start_and_stop(std::barrier<>& all, int number, int round)
{
    const std::string id = "stream" + std::to_string(number);
    all.arrive_and_wait();
    StreamCall call(live_stream(id, {.width = 160, .height = 120}));
    RecordingLog::wait_for("Registration pipeline for stream id: " + id, kPatience);
    // The stop of another stream may end this one before: on "ub2404" a stop ends them all.
    call.wait_for_frames((number + round) % kStreams);
    send_eos(id);
    return call.wait_for_end(kEndAfterStop);
}

/// Eight streams at once, each started by a thread of its own and stopped from another.
int eight_streams(int round)
{
    std::barrier all(kStreams);
    std::vector<char> ended(kStreams, 0);
    std::vector<std::thread> threads;
    for (int number = 0; number < kStreams; ++number)
        threads.emplace_back(
            [&, number] { ended[static_cast<std::size_t>(number)] = start_and_stop(all, number, round); });
    for (std::thread& thread : threads)
        thread.join();
    for (int number = 0; number < kStreams; ++number) {
        if (!ended[static_cast<std::size_t>(number)]) return complain("stream " + std::to_string(number) + " goes on");
    }
    return EXIT_SUCCESS;
}

} // namespace

CommandResult run_round(const std::vector<std::string>& arguments)
{
    std::vector<std::string> command{std::filesystem::read_symlink("/proc/self/exe"), "--round"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return run_command(command);
}

int be_round(const std::vector<std::string>& arguments)
{
    gst_init(nullptr, nullptr);
    const std::string what = arguments.at(0);
    if (what == "stop-live") return stop_live(std::stoi(arguments.at(1)));
    if (what == "stop-early") return stop_early(std::stoi(arguments.at(1)));
    if (what == "stop-rtsp") return stop_rtsp(arguments.at(1), std::stoi(arguments.at(2)));
    if (what == "stop-rtsp-silent") return stop_rtsp_silent();
    if (what == "stop-rtsp-stalled") return stop_rtsp(arguments.at(1), 3, std::stoi(arguments.at(2)));
    if (what == "record") return record(arguments.at(1), std::stoi(arguments.at(2)));
    if (what == "eight-streams") return eight_streams(std::stoi(arguments.at(1)));
    if (what == "release") return release();
    if (what == "keep-a-pipeline") return keep_a_pipeline();
    return complain("unknown round " + what);
}

} // namespace velstream::testing
