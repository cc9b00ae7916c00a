#include "merge_command.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include <unistd.h>

namespace velstream::tool {

namespace {

namespace fs = std::filesystem;

constexpr const char* kName = "concate_video.py";

/// Beside the tool, else where the library looks for it.
fs::path find_script()
{
    std::error_code error;
    const fs::path beside = fs::read_symlink("/proc/self/exe", error).parent_path() / kName;
    if (!error && fs::exists(beside, error)) return beside;
    return fs::path("/usr/local/bin") / kName;
}

} // namespace

int merge_segments(const std::string& id, const std::vector<std::string>& options)
{
    const fs::path script = find_script();
    if (std::error_code error; !fs::exists(script, error)) {
        std::fprintf(stderr, "velstream: %s is not there: install the component \"tool\".\n", script.c_str());
        return 1;
    }
    std::vector<std::string> words{"python3", script.string()};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), {"--stream-id", id});
    std::vector<char*> arguments;
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    std::fprintf(stderr, "velstream: python3 cannot be run: %s. apt-get install python3\n", std::strerror(errno));
    return 1;
}

} // namespace velstream::tool
