#include "live_stream.h"

#include "Handles.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace stop_tests {

using namespace Quorvis::VelStream;

GstElement* LiveInput::build()
{
    GstElement* bin = gst_parse_bin_from_description(
        "videotestsrc is-live=true ! video/x-raw,format=NV12,width=320,height=240,framerate=30/1", TRUE, nullptr);
    gst_object_set_name(GST_OBJECT(bin), bin_name_.c_str());
    return bin;
}

RunningStream::RunningStream(std::string id, std::unique_ptr<Input> input, std::unique_ptr<Output> output, Hook hook)
    : input_(std::move(input)), output_(std::move(output)), hook_(std::move(hook))
{
    auto promise = std::make_shared<std::promise<int>>();
    result_ = promise->get_future().share();
    thread_ = std::thread([this, promise, id = std::move(id)] {
        std::function<int8_t(const Image&)> callback = [this](const Image& image) { return take(image); };
        promise->set_value(startStream(input_.get(), output_.get(), id, callback));
    });
}

RunningStream::~RunningStream()
{
    thread_.join();
}

int8_t RunningStream::take(const Image& image)
{
    if (hook_) hook_(image);
    const std::lock_guard lock(mutex_);
    ++frames_;
    last_index_ = image.frameIndex;
    arrived_.notify_all();
    return 0;
}

bool RunningStream::wait_for_frames(int64_t count, seconds bound)
{
    std::unique_lock lock(mutex_);
    return arrived_.wait_for(lock, bound, [&] { return frames_ >= count; });
}

std::string run_in_child(const std::function<std::string()>& body, seconds bound)
{
    int ends[2];
    if (pipe(ends) != 0) return "no pipe";
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        const std::string failure = body();
        const auto written = write(ends[1], failure.data(), failure.size());
        std::fflush(nullptr);
        _exit(failure.empty() && written == 0 ? 0 : 1);
    }
    close(ends[1]);
    std::string failure;
    pollfd wait{ends[0], POLLIN, 0};
    const auto ms = static_cast<int>(std::chrono::duration_cast<milliseconds>(bound).count());
    if (poll(&wait, 1, ms) == 0) {
        kill(child, SIGKILL);
        failure = "the child hangs";
    } else {
        char text[1024];
        ssize_t length = 0;
        while ((length = read(ends[0], text, sizeof text)) > 0)
            failure.append(text, static_cast<std::size_t>(length));
    }
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (failure.empty() && WIFSIGNALED(status))
        failure = "the child died of signal " + std::to_string(WTERMSIG(status));
    if (failure.empty() && status != 0) failure = "the child ended with status " + std::to_string(status);
    return failure;
}

namespace {

struct Folder {
    Folder()
    {
        char pattern[] = "/tmp/velstream-stop-XXXXXX";
        path = mkdtemp(pattern);
    }
    ~Folder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    std::string path;
};

} // namespace

std::string temporary_folder()
{
    static const Folder folder;
    return folder.path;
}

void use_configuration(const std::string& json)
{
    static std::string path;
    path = temporary_folder() + "/velstream.conf";
    std::ofstream(path) << json;
    stream_conf_file = path.c_str();
    g_stream_conf_file = path.c_str();
}

} // namespace stop_tests
