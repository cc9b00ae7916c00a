// A child process of a test: a server, a tool. It ends with the object, and with the test whatever happens.
#pragma once

#include "patience.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace peers {

/// Starts at once; not copyable. To be used by one thread, which must live as long as the process: the kernel ends the
/// child with the thread that started it.
class ChildProcess {
public:
    /// @param arguments  program (looked up in PATH) and its arguments. What cannot be started exits with 127.
    explicit ChildProcess(std::vector<std::string> arguments) { start(std::move(arguments)); }
    ~ChildProcess()
    {
        if (!status_) {
            send_signal(SIGKILL);
            reap(0);
        }
        close(output_);
        if (exit_event_ >= 0) close(exit_event_);
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }

    /// Next line of the child's standard output, without its end. @return nothing at its end or after the bound.
    std::optional<std::string> read_line(std::chrono::milliseconds bound = velstream::testing::kPatience)
    {
        const auto deadline = std::chrono::steady_clock::now() + bound;
        while (true) {
            if (const std::size_t end = unread_.find('\n'); end != std::string::npos) {
                std::string line = unread_.substr(0, end);
                unread_.erase(0, end + 1);
                return line;
            }
            if (!wait_readable(output_, deadline)) return std::nullopt;
            char buffer[4096];
            const ssize_t count = read(output_, buffer, sizeof buffer);
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0) {
                is_at_end_ = true;
                return std::nullopt;
            }
            unread_.append(buffer, static_cast<std::size_t>(count));
        }
    }

    /// After read_line() has given nothing: nobody can write to this output any more.
    bool is_at_end() const { return is_at_end_; }

    /// Reads on to a line that begins with `beginning`. @return nothing when none comes within the bound.
    std::optional<std::string> read_until(const std::string& beginning,
                                          std::chrono::milliseconds bound = velstream::testing::kPatience)
    {
        const auto deadline = std::chrono::steady_clock::now() + bound;
        while (std::optional<std::string> line = read_line(remaining(deadline))) {
            if (line->compare(0, beginning.size(), beginning) == 0) return line;
        }
        return std::nullopt;
    }

    void kill_now() { send_signal(SIGKILL); }  ///< as a server dies
    void terminate() { send_signal(SIGTERM); } ///< as one asks it to end
    void pause() { send_signal(SIGSTOP); }     ///< as a server stalls
    void resume() { send_signal(SIGCONT); }    ///< after pause()
    void interrupt() { send_signal(SIGINT); }  ///< as Ctrl-C does

    /// Waits for its end. @return exit code, or 128 + the signal that ended it; nothing after the bound.
    std::optional<int> wait(std::chrono::milliseconds bound = velstream::testing::kPatience)
    {
        if (!status_ && wait_readable(exit_event_, std::chrono::steady_clock::now() + bound)) reap(0);
        return status_;
    }

    bool is_running()
    {
        if (!status_) reap(WNOHANG);
        return !status_;
    }

private:
    using Deadline = std::chrono::steady_clock::time_point;

    static std::chrono::milliseconds remaining(Deadline deadline)
    {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        return std::max(left, std::chrono::milliseconds(0));
    }

    static bool wait_readable(int descriptor, Deadline deadline)
    {
        pollfd event{descriptor, POLLIN, 0};
        int count = -1;
        do {
            count = poll(&event, 1, static_cast<int>(remaining(deadline).count()));
        } while (count < 0 && errno == EINTR);
        return count > 0;
    }

    void start(std::vector<std::string> arguments)
    {
        std::vector<char*> argv; // made before the fork: the child of a threaded process must not allocate
        for (std::string& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe for a child process");
        const pid_t parent = getpid();
        pid_ = fork();
        if (pid_ == 0) become(argv.data(), ends[1], parent);
        close(ends[1]);
        output_ = ends[0];
        if (pid_ < 0) throw std::runtime_error("no child process");
        exit_event_ = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
        if (exit_event_ < 0) throw std::runtime_error("no pidfd for a child process");
    }

    [[noreturn]] static void become(char** argv, int output, pid_t parent)
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(127); // the test has ended already
        signal(SIGPIPE, SIG_DFL);
        dup2(output, STDOUT_FILENO);
        execvp(argv[0], argv);
        _exit(127);
    }

    void send_signal(int number)
    {
        if (!status_) kill(pid_, number);
    }

    void reap(int options)
    {
        int status = 0;
        pid_t ended = 0;
        do {
            ended = waitpid(pid_, &status, options);
        } while (ended < 0 && errno == EINTR);
        if (ended == pid_) status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    pid_t pid_ = -1;
    int output_ = -1;
    int exit_event_ = -1; ///< readable once the child has ended
    std::string unread_;
    bool is_at_end_ = false;
    std::optional<int> status_;
};

/// The RTSP peer of this build, started and ready.
class RtspPeer : public ChildProcess {
public:
    /// @param program    path of velstream-rtsp-peer.
    /// @param arguments  such as {"play", "--live"} or {"record", "--out", path}.
    RtspPeer(const std::string& program, std::vector<std::string> arguments)
        : ChildProcess(with_program(program, std::move(arguments)))
    {
        const std::optional<std::string> line = read_until("port=");
        if (line) port_ = std::atoi(line->c_str() + 5);
    }

    /// 0 when it did not start.
    int port() const { return port_; }
    std::string url() const { return "rtsp://127.0.0.1:" + std::to_string(port_) + "/test"; }
    /// The same for a client that is to take TCP: over UDP nothing keeps a packet from being lost on a busy machine,
    /// and the last ones from being overtaken by the request that ends a stream.
    std::string tcp_url() const { return "rtspt://127.0.0.1:" + std::to_string(port_) + "/test"; }

private:
    static std::vector<std::string> with_program(const std::string& program, std::vector<std::string> arguments)
    {
        // One platform's library points the plug-in path of its process, the test, to a vendor's folder. A registry is
        // of the plug-ins on a path: in the tests' the next test would miss the build's own.
        arguments.insert(arguments.begin(), {"env", "-u", "GST_PLUGIN_SYSTEM_PATH", "-u", "GST_PLUGIN_PATH", "-u",
                                             "GST_PLUGIN_SCANNER", "GST_REGISTRY=" + program + ".registry", program});
        return arguments;
    }

    int port_ = 0;
};

} // namespace peers
