// One stream of the library, or the plain chain beside it, from start to end: run_bench.py times the process.
#include "velstream.h"

#include "access_units.h"

#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace Quorvis::VelStream;

namespace {

using Bytes = std::vector<unsigned char>;

constexpr int kPictures = 8;        // that a re-encoded stream repeats
constexpr int kFlushUnits = 17;     // push out what a decoder can hold back at most
constexpr int kSampleFrame = 50;    // of each stream, at which memory and threads are read
constexpr int kFasterThanAny = 240; // frames a second, the most that the encoder takes: no slot is left to wait for

/// Time and CPU time from its making on.
class Stopwatch {
public:
    /// What run_bench.py reads. Once only: what comes after the last frame does not count.
    void report(long frames)
    {
        std::printf("frames %ld seconds %f cpu %f\n", frames, wall() - wall_, cpu() - cpu_);
        std::fflush(stdout);
    }

private:
    static double wall()
    {
        return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
    }
    static double cpu()
    {
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
               static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    }

    double wall_ = wall();
    double cpu_ = cpu();
};

/// A configuration of streams "0", "1", ... that all play this file of H.264.
std::string write_configuration(const std::string& file, int streams)
{
    const std::string path = file + ".conf";
    std::ofstream conf(path);
    conf << R"({"streams": [)";
    for (int i = 0; i < streams; ++i)
        conf << (i == 0 ? "" : ", ") << R"({"streamsId": ")" << i
             << R"(", "properties": {"inputType": "file", "inputAddr": ")" << file << R"(", "decodeType": "H264"}})";
    conf << "]}";
    return path;
}

/// Counts the frames of an MP4 file.
int run_callback(const std::string& file)
{
    const std::string conf = write_configuration(file, 1);
    g_stream_conf_file = stream_conf_file = conf.c_str();
    std::atomic<long> frames = 0;
    std::function<int8_t(const Image&)> callback = [&](const Image&) {
        ++frames;
        return int8_t{0};
    };
    Stopwatch watch;
    start_stream("0", callback);
    watch.report(frames);
    return frames > 0 ? 0 : 1;
}

long status_value(const std::string& key)
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(key + ":")) return std::stol(line.substr(key.size() + 1));
    }
    return 0;
}

/// Holds every stream at the same frame, for the process to be looked at.
class Meeting {
public:
    explicit Meeting(int streams) : awaited_(streams) {}

    void arrive()
    {
        std::unique_lock lock(mutex_);
        --awaited_;
        changed_.notify_all();
        changed_.wait(lock, [this] { return is_over_; });
    }
    void hold()
    {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return awaited_ == 0; });
        std::printf("kilobytes %ld threads %ld\n", status_value("VmRSS"), status_value("Threads"));
        is_over_ = true;
        changed_.notify_all();
    }

private:
    std::mutex mutex_; // guards the following
    std::condition_variable changed_;
    int awaited_;
    bool is_over_ = false;
};

/// Memory and threads of a process that plays a file several times at once.
int run_several(const std::string& file, int streams)
{
    const std::string conf = write_configuration(file, streams);
    g_stream_conf_file = stream_conf_file = conf.c_str();
    Meeting meeting(streams);
    std::vector<std::jthread> runners;
    for (int i = 0; i < streams; ++i)
        runners.emplace_back([i, &meeting] {
            std::function<int8_t(const Image&)> callback = [&meeting](const Image& image) {
                if (image.frameIndex == kSampleFrame) meeting.arrive();
                return int8_t{0};
            };
            start_stream(std::to_string(i), callback);
        });
    meeting.hold();
    return 0;
}

Bytes read_file(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

/// Pushes a file of H.265. The process ends with the last frame, since it is timed from outside: the units behind it
/// only flush the decoder.
int run_splice(const std::string& file, long expected)
{
    const Bytes stream = read_file(file);
    Stopwatch watch;
    std::atomic<long> frames = 0;
    std::function<int8_t(const Image&)> callback = [&](const Image&) {
        if (++frames == expected) {
            watch.report(expected);
            std::_Exit(0);
        }
        return int8_t{0};
    };
    if (start_splice_stream("bench", callback) != 0) return 1;
    velstream::tool::AccessUnitCutter cutter(stream);
    const auto first = cutter.next();
    long number = 0;
    const auto push = [&](auto unit) {
        decode_put_frame_splice(unit.data(), unit.size(), "bench", number++ * 40000000, false);
    };
    for (auto unit = first; !unit.empty(); unit = cutter.next())
        push(unit);
    for (int i = 0; i < kFlushUnits; ++i)
        push(first);
    constexpr std::chrono::seconds kBound{60}; // in which the callback ends the process
    std::this_thread::sleep_for(kBound);
    std::fprintf(stderr, "%ld of %ld frames came\n", frames.load(), expected);
    return 1;
}

/// Pictures of grey blocks and noise, which cost an encoder about what a camera's do.
std::vector<Bytes> make_pictures(int width, int height)
{
    std::mt19937 random(1);
    std::vector<Bytes> pictures(kPictures, Bytes(static_cast<std::size_t>(width) * height * 3));
    for (int number = 0; number < kPictures; ++number) {
        auto* at = pictures[number].data();
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < 3 * width; ++x)
                *at++ =
                    static_cast<unsigned char>(((x / 3 + 8 * number) / 64 * 37 + y / 64 * 53) % 200 + random() % 16);
        }
    }
    return pictures;
}

int run_reencode(int width, int height, int count, const std::string& file)
{
    const std::vector<Bytes> pictures = make_pictures(width, height);
    StreamIns ins;
    ins.streamsId = "bench";
    ins.width = width;
    ins.height = height;
    ins.fps = kFasterThanAny;
    ins.saveMp4 = true;
    ins.outputFile = file;
    int frames = 0;
    std::jthread stopper;
    Stopwatch watch;
    std::function<int8_t(const Image&)> callback = [&](const Image& image) {
        if (frames == 0) watch = Stopwatch();
        std::memcpy(image.data, pictures[frames % kPictures].data(), image.size);
        if (++frames == count) watch.report(frames);
        if (frames == count) stopper = std::jthread([] { gstreamer_pipeline_shutdown("bench"); });
        return int8_t{0};
    };
    return start(ins, callback);
}

/// @return true at the end of the stream, false after an error.
bool wait_for_end(GstElement* pipeline)
{
    GstBus* bus = gst_element_get_bus(pipeline);
    GstMessage* message =
        gst_bus_timed_pop_filtered(bus, GST_CLOCK_TIME_NONE, GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    const bool has_ended = GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS;
    gst_message_unref(message);
    gst_object_unref(bus);
    return has_ended;
}

/// A pipeline without this library, in a process that is started alike.
int run_launch(const std::string& description, long frames)
{
    Stopwatch watch;
    GstElement* pipeline = gst_parse_launch(description.c_str(), nullptr);
    if (!pipeline) return 1;
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    const bool has_ended = wait_for_end(pipeline);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    watch.report(frames);
    gst_object_unref(pipeline);
    return has_ended ? 0 : 1;
}

/// The same frames into a chain that an application would write.
int run_chain(int width, int height, int count, const std::string& chain)
{
    const std::vector<Bytes> pictures = make_pictures(width, height);
    GstElement* pipeline = gst_parse_launch(("appsrc name=source format=time block=true ! " + chain).c_str(), nullptr);
    if (!pipeline) return 1;
    GstElement* source = gst_bin_get_by_name(GST_BIN(pipeline), "source");
    GstCaps* caps =
        gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "RGB", "width", G_TYPE_INT, width, "height",
                            G_TYPE_INT, height, "framerate", GST_TYPE_FRACTION, kFasterThanAny, 1, nullptr);
    g_object_set(source, "caps", caps, "max-bytes", static_cast<guint64>(4) * width * height * 3, nullptr);
    gst_caps_unref(caps);
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    Stopwatch watch;
    for (int i = 0; i < count; ++i) {
        const Bytes& picture = pictures[i % kPictures];
        GstBuffer* buffer = gst_buffer_new_allocate(nullptr, picture.size(), nullptr);
        gst_buffer_fill(buffer, 0, picture.data(), picture.size());
        GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(i) * GST_SECOND / kFasterThanAny;
        GST_BUFFER_DURATION(buffer) = GST_SECOND / kFasterThanAny;
        if (gst_app_src_push_buffer(GST_APP_SRC(source), buffer) != GST_FLOW_OK) return 1;
    }
    watch.report(count);
    gst_app_src_end_of_stream(GST_APP_SRC(source));
    const bool has_ended = wait_for_end(pipeline);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(source);
    gst_object_unref(pipeline);
    return has_ended ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    gst_init(&argc, &argv);
    set_log_level(GST_LOG_LEVEL_ERROR);
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const std::string what = arguments.empty() ? "" : arguments[0];
    const auto number = [&](std::size_t at) { return std::stoi(arguments[at]); };
    if (what == "callback" && arguments.size() == 2) return run_callback(arguments[1]);
    if (what == "launch" && arguments.size() == 3) return run_launch(arguments[1], number(2));
    if (what == "several" && arguments.size() == 3) return run_several(arguments[1], number(2));
    if (what == "splice" && arguments.size() == 3) return run_splice(arguments[1], number(2));
    if (what == "reencode" && arguments.size() == 5) return run_reencode(number(1), number(2), number(3), arguments[4]);
    if (what == "chain" && arguments.size() == 5) return run_chain(number(1), number(2), number(3), arguments[4]);
    std::fprintf(stderr, "usage: velstream_stream_bench callback FILE | launch DESCRIPTION FRAMES | several FILE "
                         "STREAMS | splice FILE FRAMES | "
                         "reencode WIDTH HEIGHT FRAMES FILE | chain WIDTH HEIGHT FRAMES LAUNCH\n");
    return 2;
}
