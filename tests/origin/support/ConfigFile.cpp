#include "ConfigFile.h"

#include "velstream.h"

#include <filesystem>
#include <fstream>

namespace velstream::testing {

ConfigFile::ConfigFile(std::string_view text)
    : path_(folder_.file("velstream-gst.conf")), entry_point_path_(Quorvis::VelStream::g_stream_conf_file),
      builder_path_(Quorvis::VelStream::stream_conf_file)
{
    write(text);
    Quorvis::VelStream::g_stream_conf_file = path_.c_str();
    Quorvis::VelStream::stream_conf_file = path_.c_str();
}

ConfigFile::~ConfigFile()
{
    Quorvis::VelStream::g_stream_conf_file = entry_point_path_;
    Quorvis::VelStream::stream_conf_file = builder_path_;
}

void ConfigFile::write(std::string_view text) const
{
    std::ofstream(path_, std::ios::trunc) << text;
}

void ConfigFile::remove() const
{
    std::filesystem::remove(path_);
}

std::string one_stream(std::string_view id, std::string_view properties)
{
    return R"({"streams": [{"streamsId": ")" + std::string(id) + R"(", "properties": {)" + std::string(properties) +
           "}}]}";
}

std::string complete_stream(std::string_view id, std::string_view codec, std::string_view more)
{
    const std::string name(codec);
    return one_stream(id, R"("width": 1280, "height": 720, "inputType": "file", "inputAddr": "/absent/video.mp4",
                             "decodeType": ")" +
                              name + R"(", "encodeType": ")" + name +
                              R"(", "audio": false, "rollingsave": false, "rollingFps": 30, "manualRebuild": true)" +
                              std::string(more));
}

} // namespace velstream::testing
