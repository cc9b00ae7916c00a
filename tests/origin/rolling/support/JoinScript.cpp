#include "JoinScript.h"

#include "VideoFiles.h"
#include "frame_numbers.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace velstream::testing {

namespace {

constexpr int kFramesPerSegment = 25;

std::string content_of(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

} // namespace

Json::Value JoinResult::json() const
{
    Json::Value value;
    std::istringstream stream(output);
    std::string failure;
    return Json::parseFromStream(Json::CharReaderBuilder(), stream, &value, &failure) ? value : Json::Value();
}

JoinResult join_segments(const std::vector<std::string>& arguments)
{
    const TemporaryFolder folder;
    std::vector<std::string> command{
        "sh", "-c", R"(errors=$1; shift; exec "$@" 2>"$errors")", "sh", folder.file("errors"), "python3", JOIN_SCRIPT};
    command.insert(command.end(), arguments.begin(), arguments.end());
    const CommandResult result = run_command(command);
    return {result.status, result.output, content_of(folder.file("errors"))};
}

std::vector<Packet> packets_in(const std::string& path)
{
    const CommandResult result = run_command({"ffprobe", "-v", "error", "-select_streams", "v", "-show_entries",
                                              "packet=pts_time,dts_time", "-of", "csv=p=0", "file:" + path});
    EXPECT_EQ(result.status, 0) << path;
    std::vector<Packet> packets;
    std::istringstream stream(result.output);
    for (std::string line; std::getline(stream, line);) {
        Packet packet;
        if (std::sscanf(line.c_str(), "%lf,%lf", &packet.pts, &packet.dts) == 2) packets.push_back(packet);
    }
    return packets;
}

::testing::AssertionResult are_evenly_spaced(std::vector<Packet> packets, double fps)
{
    for (std::size_t i = 1; i < packets.size(); ++i) {
        if (packets[i].dts <= packets[i - 1].dts)
            return ::testing::AssertionFailure()
                   << "decoding time " << packets[i].dts << " of packet " << i << " after " << packets[i - 1].dts;
    }
    std::sort(packets.begin(), packets.end(), [](const Packet& a, const Packet& b) { return a.pts < b.pts; });
    for (std::size_t i = 0; i < packets.size(); ++i) {
        if (std::abs(packets[i].pts - static_cast<double>(i) / fps) > 0.25 / fps)
            return ::testing::AssertionFailure() << "picture " << i << " is shown at " << packets[i].pts;
    }
    return ::testing::AssertionSuccess();
}

SegmentFolder::SegmentFolder(int count, const std::string& codec, int b_frames)
{
    if (count == 0) return;
    const TemporaryFolder source;
    const std::string clip = source.file("clip.mp4");
    media::MediaSpec spec;
    spec.codec = codec;
    spec.width = 320;
    spec.height = 240;
    spec.fps = kFramesPerSegment;
    spec.frames = count * kFramesPerSegment;
    spec.key_interval = kFramesPerSegment;
    spec.b_frames = b_frames;
    spec.bitrate = 500;
    make_video(spec, clip);
    const CommandResult result =
        run_command({"ffmpeg", "-nostdin", "-v", "error", "-i", clip, "-c", "copy", "-f", "segment", "-segment_time",
                     "1", "-reset_timestamps", "1", path("%05d.mp4")});
    EXPECT_EQ(result.status, 0);
    for (int i = 0; i < count; ++i) {
        EXPECT_TRUE(std::filesystem::exists(path(name_of(i)))) << i;
        complete(name_of(i), kFirstEnd + i);
    }
}

void SegmentFolder::rename(int number, int to) const
{
    std::filesystem::rename(path(name_of(number)), path(name_of(to)));
}

void SegmentFolder::complete(const std::string& name, double seconds) const
{
    const double whole = std::floor(seconds);
    const timespec time{static_cast<time_t>(whole), static_cast<long>((seconds - whole) * 1e9)};
    const timespec times[2] = {time, time};
    EXPECT_EQ(utimensat(AT_FDCWD, path(name).c_str(), times, 0), 0) << name;
}

std::string SegmentFolder::name_of(int number)
{
    char name[32];
    std::snprintf(name, sizeof name, "%05d.mp4", number);
    return name;
}

} // namespace velstream::testing
