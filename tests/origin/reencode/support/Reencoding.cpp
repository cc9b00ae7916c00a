#include "Reencoding.h"

#include "../../structure/test_platform.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <sstream>
#include <thread>

namespace velstream::testing {

namespace {

constexpr int kSquare = 32;

void fill_square(std::uint8_t* rgb, int width, int column, std::uint8_t value)
{
    for (int y = 0; y < kSquare; ++y)
        std::fill_n(rgb + (y * width + column * kSquare) * 3, kSquare * 3, value);
}

double psnr_of_rows(const std::string& decoded, const std::vector<std::uint8_t>& painted)
{
    return psnr(reinterpret_cast<const std::uint8_t*>(decoded.data()), painted.data(), painted.size());
}

} // namespace

StreamIns saved_stream(const std::string& id, const std::string& path, int width, int height, int fps)
{
    StreamIns ins;
    ins.streamsId = id;
    ins.saveMp4 = true;
    ins.outputFile = path;
    ins.width = width;
    ins.height = height;
    ins.fps = fps;
    return ins;
}

StreamCall::Start described_stream(const StreamIns& ins)
{
    return [own = StreamIns(ins)](FrameCallback& callback) mutable { return Quorvis::VelStream::start(own, callback); };
}

void paint(std::uint8_t* rgb, int width, int height, int number)
{
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            std::uint8_t* pixel = rgb + (y * width + x) * 3;
            pixel[0] = static_cast<std::uint8_t>(40 + 160 * x / width);
            pixel[1] = static_cast<std::uint8_t>(40 + 160 * y / height);
            pixel[2] = static_cast<std::uint8_t>(200 - 100 * x / width);
        }
    }
    const int bits = media::marker_bits(width);
    fill_square(rgb, width, 0, 255);
    fill_square(rgb, width, 1, 0);
    for (int bit = 0; bit < bits; ++bit)
        fill_square(rgb, width, 2 + bit, (number >> (bits - 1 - bit)) & 1 ? 255 : 0);
}

StreamCall::OnFrame painter()
{
    return [number = std::make_shared<int>(0)](const Image& image) {
        paint(image.data, image.width, image.height, ++*number);
    };
}

std::vector<std::string> decoded_frames(const std::string& path)
{
    const VideoFacts facts = probe_video(path);
    const std::string all = decode_with_ffmpeg(path, facts.height);
    const auto size = static_cast<std::size_t>(facts.width * facts.height) * 3;
    std::vector<std::string> frames;
    for (std::size_t at = 0; size > 0 && at + size <= all.size(); at += size)
        frames.push_back(all.substr(at, size));
    return frames;
}

std::vector<double> packet_durations_ms(const std::string& path)
{
    const CommandResult probe = run_command({"ffprobe", "-v", "error", "-select_streams", "v:0", "-show_entries",
                                             "packet=duration_time", "-of", "csv=p=0", path});
    std::istringstream lines(probe.output);
    std::vector<double> durations;
    for (double seconds = 0; lines >> seconds; lines.ignore(16, '\n'))
        durations.push_back(seconds * 1000);
    return durations;
}

void expect_painted_file(const std::string& path, int width, int height, long count)
{
    const VideoFacts facts = probe_video(path);
    ASSERT_EQ(facts.frames, count) << path;
    ASSERT_EQ(facts.width, width);
    ASSERT_EQ(facts.height, encoded_height(height));
    const std::vector<std::string> frames = decoded_frames(path);
    ASSERT_EQ(static_cast<long>(frames.size()), count);
    std::vector<std::uint8_t> painted(static_cast<std::size_t>(width * height) * 3);
    int number = 0;
    for (const std::string& frame : frames) {
        const auto* rgb = reinterpret_cast<const std::uint8_t*>(frame.data());
        ASSERT_EQ(media::read_frame_number(rgb, width, height, static_cast<std::size_t>(width) * 3), ++number);
        paint(painted.data(), width, height, number);
        ASSERT_GT(psnr_of_rows(frame, painted), 30.0) << "frame " << number;
    }
}

int encoded_height(int height)
{
    return is_v4l2_kind() ? (height + 31) / 32 * 32 : height;
}

struct Load::State {
    std::atomic<bool> is_wanted{true};
    std::vector<std::thread> threads;
};

Load::Load() : state_(new State)
{
    for (unsigned i = 0; i < std::max(2U, std::thread::hardware_concurrency()); ++i)
        state_->threads.emplace_back([state = state_] {
            for (volatile unsigned spin = 0; state->is_wanted.load(std::memory_order_relaxed);)
                spin = spin + 1;
        });
}

Load::~Load()
{
    state_->is_wanted = false;
    for (std::thread& thread : state_->threads)
        thread.join();
    delete state_;
}

} // namespace velstream::testing
