#include "tool_fixture.h"

#include "media.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include <sys/wait.h>

namespace fs = std::filesystem;

Output run_command(const std::string& command)
{
    Output output;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return output;
    std::array<char, 4096> part{};
    std::size_t length = 0;
    while ((length = std::fread(part.data(), 1, part.size(), pipe)) > 0)
        output.text.append(part.data(), length);
    const int status = pclose(pipe);
    output.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return output;
}

std::vector<std::string> lines_of(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

Json::Value parse_json(const std::string& text)
{
    Json::Value value;
    std::istringstream stream(text);
    std::string errors;
    if (!Json::parseFromStream(Json::CharReaderBuilder(), stream, &value, &errors)) return {};
    return value;
}

void Tool::write_clip(int frames, const std::string& further_entries)
{
    media::MediaSpec spec;
    spec.width = 642;
    spec.height = 362;
    spec.frames = frames;
    ASSERT_EQ(media::make_media(spec, clip()), "");
    const std::string input = R"("inputType": "file", "inputAddr": ")" + clip() + "\"";
    write_config(R"({"streams": [
        {"streamsId": "clip", "properties": {)" +
                 input + R"(}},
        {"streamsId": "second", "properties": {)" +
                 input + R"(, "outputType": "mp4", "outputAddr": ")" + (folder_ / "out.mp4").string() + R"("}},
        {"streamsId": "full", "properties": {)" +
                 input + R"(, "outputType": "mp4", "outputAddr": "/dev/full"}},
        {"streamsId": "gone", "properties": {"inputType": "file", "inputAddr": "/nonexistent.mp4"}})" +
                 further_entries + "]}");
}

void Tool::write_config(const std::string& text) const
{
    std::ofstream(config_) << text;
}

std::string Tool::command(const std::string& arguments) const
{
    return std::string(TOOL_PATH) + " " + arguments + " --config " + config_.string();
}

Output Tool::run(const std::string& arguments) const
{
    return run_command(command(arguments) + " 2> " + (folder_ / "stderr").string());
}

std::string Tool::stderr_text() const
{
    std::stringstream text;
    text << std::ifstream(folder_ / "stderr").rdbuf();
    return text.str();
}
