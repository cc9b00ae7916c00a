// Many streams in one process, one after another: nothing is left of those that have ended.
#include "FilePlayback.h"
#include "RecordedLog.h"

#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

namespace velstream::testing {

namespace {

constexpr int kAtOnce = 4;
constexpr int kWarmUp = 20;
constexpr int kRuns = 200;
constexpr int kFrames = 5;
constexpr long kGrowthBound = 5L << 20U; // bytes

long entries_of(const char* folder)
{
    return std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator());
}

/// What the process has allocated. Its resident memory levels off only after some hundred runs: each thread that has
/// ever allocated leaves the allocator an arena to fill.
long allocated_bytes()
{
    clear_log(); // the test's own
    const struct mallinfo2 heap = mallinfo2();
    return static_cast<long>(heap.uordblks + heap.hblkhd);
}

/// The kernel takes a moment to clear away a thread that has ended. @return the number once it is no larger than
/// `bound`, or after a generous time.
long settled_threads(long bound)
{
    const auto end = std::chrono::steady_clock::now() + kPatience;
    long threads = entries_of("/proc/self/task");
    while (threads > bound && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        threads = entries_of("/proc/self/task");
    }
    return threads;
}

int play(const std::string& path, const std::string& id)
{
    std::atomic<int> frames = 0;
    const int result = Quorvis::VelStream::start_stream_input_file(
        path,
        [&](const Image&) -> int8_t {
            ++frames;
            return 0;
        },
        Quorvis::VelStream::STREAM_TYPE_NONE, "", 0, 0, id);
    EXPECT_EQ(result, result_of_end());
    return frames;
}

/// Plays the file this often, on four threads at a time, each with an id of its own.
void play_often(const std::string& path, int runs)
{
    std::atomic<int> left = runs;
    std::vector<std::thread> threads;
    for (int number = 0; number < kAtOnce; ++number) {
        threads.emplace_back([&, id = "stream" + std::to_string(number)] {
            while (left-- > 0)
                EXPECT_EQ(play(path, id), kFrames);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

class Endurance : public Playback {
protected:
    // A thread of a pool that waits for work would count as one that is left.
    Endurance() { g_thread_pool_set_max_unused_threads(0); }
};

} // namespace

TEST_F(Endurance, OfManyShortStreamsLeavesNothing)
{
    media::MediaSpec spec;
    spec.width = 320;
    spec.height = 180;
    spec.frames = kFrames;
    const std::string path = folder_.file("video.mp4");
    make_video(spec, path);
    const ConfigFile config(file_entry(path));

    play_often(path, kWarmUp);
    const long threads = entries_of("/proc/self/task");
    const long descriptors = entries_of("/proc/self/fd");
    const long allocated = allocated_bytes();
    play_often(path, kRuns - kWarmUp);
    EXPECT_LE(settled_threads(threads), threads);
    EXPECT_EQ(entries_of("/proc/self/fd"), descriptors);
    const long growth = allocated_bytes() - allocated;
    std::printf("%ld threads, %ld descriptors, %ld kB more after %d runs\n", threads, descriptors, growth / 1024,
                kRuns - kWarmUp);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // their own records grow
    EXPECT_LT(growth, kGrowthBound);
#endif
}

} // namespace velstream::testing
