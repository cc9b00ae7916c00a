#include "Scene.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

namespace velstream::testing {

namespace {

using Clock = std::chrono::steady_clock;

std::string hex(Colour colour)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%02X%02X%02X", static_cast<unsigned>(colour.red),
                  static_cast<unsigned>(colour.green), static_cast<unsigned>(colour.blue));
    return text;
}

std::string read_bytes(const std::string& path)
{
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

/// Four bytes, the highest first.
std::size_t number_at(const std::string& bytes, std::size_t at)
{
    std::size_t number = 0;
    for (std::size_t i = at; i < at + 4 && i < bytes.size(); ++i)
        number = number << 8 | static_cast<unsigned char>(bytes[i]);
    return number;
}

void make_clip(const std::string& path, const std::string& codec, Colour colour, bool has_square)
{
    const std::string source =
        "color=c=" + hex(colour) + ":s=640x360:r=10:d=2,drawbox=x=0:y=0:w=320:h=60:c=white:t=fill";
    const std::string square =
        has_square ? ",drawbox=x=348:y=96:w=200:h=200:c=black:t=fill,drawbox=x=400:y=148:w=96:h=96:c=white:t=fill" : "";
    std::vector<std::string> command{"ffmpeg", "-v", "error",         "-y",       "-f",
                                     "lavfi",  "-i", source + square, "-pix_fmt", "yuv420p"};
    const std::vector<std::string> h264{"-c:v", "libx264", "-preset", "ultrafast", "-g", "10", "-bf", "0"};
    const std::vector<std::string> h265{"-c:v",      "libx265",      "-preset",
                                        "ultrafast", "-x265-params", "log-level=error:keyint=10:bframes=0",
                                        "-tag:v",    "hvc1"};
    const std::vector<std::string>& codec_options = codec == "h265" ? h265 : h264;
    command.insert(command.end(), codec_options.begin(), codec_options.end());
    command.push_back(path);
    ASSERT_EQ(run_command(command).status, 0);
}

} // namespace

Cameras::Cameras(const TemporaryFolder& folder, const std::string& codec)
{
    for (std::size_t i = 0; i < kCameraColours.size(); ++i) {
        const std::string clip = folder.file("camera" + std::to_string(i) + ".mp4");
        make_clip(clip, codec, kCameraColours[i], i == kSquareCamera);
        servers_.push_back(
            std::make_unique<peers::RtspPeer>(RTSP_PEER, std::vector<std::string>{"play", "--file", clip, "--loop"}));
    }
}

bool Cameras::are_ready() const
{
    return std::all_of(servers_.begin(), servers_.end(), [](const auto& server) { return server->port() != 0; });
}

Task camera_task(std::size_t camera, const std::string& url, const std::string& codec)
{
    const bool is_right = camera % 2 == 1;
    const bool is_low = camera / 2 == 1;
    return {{"subStreamId", "camera" + std::to_string(camera)},
            {"inputType", "Rtsp"},
            {"inputAddr", url},
            {"decodeType", codec == "h265" ? "H265" : "H264"},
            {"width", "1280"},
            {"height", "720"},
            {"position", std::string("<") + (is_right ? "640" : "0") + ", " + (is_low ? "360" : "0") + ">"},
            {"dimensions", "<640, 360>"}};
}

Task output_task(const std::string& type, const std::string& address, const std::string& logo)
{
    Task task{{"subStreamId", "output"}, {"outputType", type}, {"outputAddr", address},
              {"encodeType", "H264"},    {"width", "1280"},    {"height", "720"}};
    if (logo.empty()) return task;
    const Task overlay{{"logo_path", logo},       {"logo_width", "64"},     {"logo_height", "64"},
                       {"logo_loc_x", "40"},      {"logo_loc_y", "140"},    {"logo_loc_width", "64"},
                       {"logo_loc_height", "64"}, {"text_str", "Text"},     {"text_loc_x", "700"},
                       {"text_loc_y", "140"},     {"text_font_size", "80"}, {"text_color", "0xFFFFFFFF"}};
    task.insert(overlay.begin(), overlay.end());
    return task;
}

EngineCall::EngineCall(Quorvis::VelStream::VelStreamEngine& engine)
    : engine_(engine), result_(std::async(std::launch::async, [&engine] { return engine.start(); }))
{
}

EngineCall::~EngineCall()
{
    if (result_.valid() && result_.wait_for(std::chrono::seconds(0)) != std::future_status::ready) engine_.stop();
}

bool EngineCall::wait_for_end(std::chrono::milliseconds bound)
{
    return result_.wait_for(bound) == std::future_status::ready;
}

std::size_t count_fragments(const std::string& path)
{
    const std::string bytes = read_bytes(path);
    std::size_t seen = 0;
    for (std::size_t at = bytes.find("moof"); at != std::string::npos; at = bytes.find("moof", at + 4))
        ++seen;
    return seen;
}

long frames_in_fragments(const std::string& path)
{
    const std::string bytes = read_bytes(path);
    long frames = 0;
    long announced = 0; // by the "moof" whose "mdat" is yet to come
    std::size_t at = 0;
    while (at + 8 <= bytes.size()) {
        const std::size_t size = number_at(bytes, at);
        if (size < 8 || at + size > bytes.size()) break;
        const std::string type = bytes.substr(at + 4, 4);
        const std::size_t run = bytes.find("trun", at);
        if (type == "moof" && run < at + size) announced = static_cast<long>(number_at(bytes, run + 8));
        if (type == "mdat") frames += std::exchange(announced, 0);
        at += size;
    }
    return frames;
}

bool wait_for_fragments(const std::string& path, std::size_t count,
                        const std::function<bool(std::chrono::milliseconds)>& has_ended)
{
    const auto deadline = Clock::now() + kPatience;
    while (Clock::now() < deadline) {
        if (count_fragments(path) >= count) return true;
        if (has_ended(std::chrono::milliseconds(50))) return false; // and a pause between two looks
    }
    return false;
}

bool wait_for_fragments(const std::string& path, std::size_t count, EngineCall& call)
{
    return wait_for_fragments(path, count, [&call](auto pause) { return call.wait_for_end(pause); });
}

std::size_t wait_for_whole_fragments(const std::string& path, std::size_t count, EngineCall& call)
{
    const auto deadline = Clock::now() + kPatience;
    while (Clock::now() < deadline) {
        const std::string bytes = read_bytes(path);
        std::size_t fragments = 0;
        std::size_t at = 0;
        while (at + 8 <= bytes.size() && number_at(bytes, at) >= 8) {
            if (bytes.compare(at + 4, 4, "mdat") == 0) ++fragments;
            at += number_at(bytes, at);
        }
        if (fragments >= count && at == bytes.size()) return at;
        if (call.wait_for_end(std::chrono::milliseconds(20))) return 0; // and a pause between two looks
    }
    return 0;
}

FileFacts probe_file(const std::string& path)
{
    const CommandResult probe = run_command(
        {"ffprobe", "-v", "error", "-count_frames", "-select_streams", "v:0", "-show_entries",
         "stream=codec_name,width,height,avg_frame_rate,nb_read_frames:format=duration", "-of", "default=nk=0", path});
    EXPECT_EQ(probe.status, 0) << path;
    FileFacts facts;
    facts.codec = value_of(probe.output, "codec_name");
    facts.width = std::atoi(value_of(probe.output, "width").c_str());
    facts.height = std::atoi(value_of(probe.output, "height").c_str());
    facts.rate = value_of(probe.output, "avg_frame_rate");
    facts.frames = std::atol(value_of(probe.output, "nb_read_frames").c_str());
    facts.seconds = std::atof(value_of(probe.output, "duration").c_str());
    return facts;
}

/// Pictures of a part of a file, which is written as options of ffmpeg.
static std::vector<Picture> decode(const std::string& path, int width, int height, std::vector<std::string> part,
                                   const std::string& filter)
{
    const std::string matrix = height >= 720 ? "bt709" : "bt601";
    std::vector<std::string> command{"ffmpeg", "-v", "error"};
    command.insert(command.end(), part.begin(), part.end());
    const std::vector<std::string> rest{
        "-i", path, "-f", "rawvideo", "-pix_fmt", "rgb24", "-vf", filter + "scale=in_color_matrix=" + matrix, "-"};
    command.insert(command.end(), rest.begin(), rest.end());
    const CommandResult decoded = run_command(command);
    const std::size_t size = static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 3;
    std::vector<Picture> pictures;
    for (std::size_t at = 0; decoded.status == 0 && at + size <= decoded.output.size(); at += size)
        pictures.emplace_back(decoded.output.substr(at, size), width);
    return pictures;
}

::testing::AssertionResult shows_all_cameras(const Picture& picture, int width, int height)
{
    if (!picture.is_there()) return ::testing::AssertionFailure() << "there is no picture";
    for (std::size_t i = 0; i < kCameraColours.size(); ++i) {
        const int x = i % 2 == 1 ? width / 2 : 0;
        const int y = i / 2 == 1 ? height / 2 : 0;
        const std::pair<Colour, Colour> pairs[] = {
            {picture.at(x + width / 4, y + height * 36 / 100), kCameraColours[i]},
            {picture.at(x + width * 3 / 8, y + height / 24), kCameraColours[i]},
            {picture.at(x + width / 8, y + height / 24), {255, 255, 255}},
        };
        for (const auto& [seen, expected] : pairs) {
            const ::testing::AssertionResult result = is_near(seen, expected);
            if (!result) return ::testing::AssertionFailure() << "camera " << i << ": " << result.message();
        }
    }
    return ::testing::AssertionSuccess();
}

Picture picture_of(const std::string& path, int width, int height)
{
    const std::vector<Picture> pictures = decode(path, width, height, {"-sseof", "-10"}, "fps=4,");
    for (auto picture = pictures.rbegin(); picture != pictures.rend(); ++picture) {
        if (shows_all_cameras(*picture, width, height)) return *picture;
    }
    return pictures.empty() ? Picture() : pictures.back();
}

Picture picture_at(const std::string& path, int width, int height, int second)
{
    const std::vector<Picture> pictures = decode(path, width, height, {"-ss", std::to_string(second), "-t", "1"}, "");
    return pictures.empty() ? Picture() : pictures.front();
}

Colour Picture::at(int x, int y) const
{
    Colour sum{0, 0, 0};
    for (int row = y - 4; row <= y + 4; ++row) {
        for (int column = x - 4; column <= x + 4; ++column) {
            const auto* pixel = reinterpret_cast<const unsigned char*>(rgb_.data()) +
                                3 * (static_cast<std::size_t>(row) * static_cast<std::size_t>(width_) +
                                     static_cast<std::size_t>(column));
            sum.red += pixel[0];
            sum.green += pixel[1];
            sum.blue += pixel[2];
        }
    }
    return {sum.red / 81, sum.green / 81, sum.blue / 81};
}

long Picture::count_near(int x, int y, int width, int height, Colour colour) const
{
    long count = 0;
    for (int row = y; row < y + height; ++row) {
        for (int column = x; column < x + width; ++column) {
            const auto* pixel = reinterpret_cast<const unsigned char*>(rgb_.data()) +
                                3 * (static_cast<std::size_t>(row) * static_cast<std::size_t>(width_) +
                                     static_cast<std::size_t>(column));
            if (is_near({pixel[0], pixel[1], pixel[2]}, colour)) ++count;
        }
    }
    return count;
}

::testing::AssertionResult is_near(Colour seen, Colour expected)
{
    constexpr int kTolerance = 40;
    const bool is_it = std::abs(seen.red - expected.red) <= kTolerance &&
                       std::abs(seen.green - expected.green) <= kTolerance &&
                       std::abs(seen.blue - expected.blue) <= kTolerance;
    if (is_it) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << hex(seen) << " is not near " << hex(expected);
}

void write_logo(const std::string& path, const std::string& colour)
{
    const CommandResult made = run_command(
        {"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", "color=c=" + colour + ":s=64x64", "-frames:v", "1", path});
    ASSERT_EQ(made.status, 0);
}

} // namespace velstream::testing
