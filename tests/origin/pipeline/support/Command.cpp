#include "Command.h"

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace velstream::testing {

namespace {

using Clock = std::chrono::steady_clock;

/// @return 0 when the program could not be started. Its standard output goes into `out`.
pid_t start_program(const std::vector<std::string>& arguments, int out)
{
    std::vector<char*> argv;
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    pid_t pid = 0;
    const bool is_started = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0;
    posix_spawn_file_actions_destroy(&actions);
    return is_started ? pid : 0;
}

/// @return false when the other end is still open at the deadline.
bool read_all(int in, Clock::time_point deadline, std::string& text)
{
    char chunk[1 << 16];
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd waited{in, POLLIN, 0};
        if (left <= 0 || poll(&waited, 1, static_cast<int>(left)) == 0) return false;
        const ssize_t count = read(in, chunk, sizeof chunk);
        if (count <= 0) return true;
        text.append(chunk, static_cast<std::size_t>(count));
    }
}

} // namespace

CommandResult run_command(const std::vector<std::string>& arguments, std::chrono::seconds bound)
{
    CommandResult result;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return result;
    const pid_t pid = start_program(arguments, ends[1]);
    close(ends[1]);
    const bool is_in_time = pid != 0 && read_all(ends[0], Clock::now() + bound, result.output);
    close(ends[0]);
    if (pid == 0) return result;
    if (!is_in_time) kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    if (is_in_time) result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

std::string value_of(const std::string& output, const std::string& key)
{
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(key + "=", 0) == 0) return line.substr(key.size() + 1);
    }
    return {};
}

} // namespace velstream::testing
